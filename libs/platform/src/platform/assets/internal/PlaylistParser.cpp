#include "platform/assets/internal/PlaylistParser.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace platform::assets {

bool PlaylistParser::fail(const std::string& what) {
  _to._error = "line " + std::to_string(_line) + ": " + what;
  return false;
}

bool PlaylistParser::be(Kind kind) {
  if (_kind == Kind::Unknown)
    _kind = kind;
  return _kind == kind || fail("tags of a master playlist and of a media playlist are mixed");
}

bool PlaylistParser::number(std::string_view text, std::int64_t& value, const char* what) {
  const auto parsed = parseInteger(trimmed(text));
  if (!parsed)
    return fail(std::string(what) + " is no number");
  value = *parsed;
  return true;
}

bool PlaylistParser::resolve(std::string_view text, std::string_view& result) {
  result = text;
  if (_to._variables.empty() && text.find("{$") == std::string_view::npos)
    return true;
  std::string replaced;
  if (text.find("{$") == std::string_view::npos)
    return true;
  if (!substitute(text, _to._variables, replaced))
    return fail("a variable is used that is not defined, or that makes the line too long");
  if (replaced.find("{$") != std::string::npos)
    return fail("a variable's value looks like a variable itself");
  _substitutedBytes += replaced.size();
  if (_substitutedBytes > Playlist::mostSubstituted)
    return fail("its variables make it too long");
  result = _to._substituted.emplace_back(std::move(replaced));
  return true;
}

template <class Take> bool PlaylistParser::eachAttribute(std::string_view list, Take&& take) {
  AttributeReader reader(list);
  while (auto attribute = reader.next()) {
    std::string_view value;
    if (!resolve(attribute->value, value))
      return false;
    take(attribute->name, value);
  }
  return !reader.isBroken() || fail("the attributes of the tag are broken");
}

void PlaylistParser::parse() {
  std::string_view text = _to._text;
  if (text.starts_with("\xEF\xBB\xBF"))
    text.remove_prefix(3);
  std::string_view first = text.substr(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
  if (!first.starts_with("#EXTM3U") || (first.size() > 7 && !std::strchr(" \t\r\n", first[7]))) {
    _line = 1;
    fail("it does not begin with #EXTM3U");
    return;
  }
  LineReader lines(text);
  std::string_view line;
  while (lines.next(line)) {
    ++_line;
    if (line.size() > Playlist::longestLine) {
      fail("the line is longer than " + std::to_string(Playlist::longestLine) + " bytes");
      return;
    }
    if (!parseLine(line))
      return;
  }
  finish();
}

bool PlaylistParser::parseLine(std::string_view line) {
  if (line.empty())
    return true;
  if (line[0] == ' ' || line[0] == '\t')
    line = trimmed(line); // indented, as text in a program is
  if (line.starts_with('#'))
    return !line.starts_with("#EXT") || parseTag(line);
  line = trimmed(line);
  if (line.empty())
    return true;
  if (_variantPending) {
    _variantPending = false;
    return resolve(line, _to._master.variants.back().uri);
  }
  return addSegment(line);
}

bool PlaylistParser::parseTag(std::string_view line) {
  if (line.starts_with("#EXTINF:"))
    return parseInfo(line.substr(8));
  if (!line.starts_with("#EXT-X-"))
    return true;
  line.remove_prefix(7);
  const std::size_t colon = line.find(':');
  const std::string_view name = trimmed(line.substr(0, colon));
  const std::string_view value = colon == std::string_view::npos ? "" : trimmed(line.substr(colon + 1));
  bool known = true;
  if (!parseMediaTag(name, value, known))
    return false;
  if (known)
    return true;
  known = true;
  if (!parseMasterTag(name, value, known))
    return false;
  if (known)
    return true;
  if (name == "VERSION")
    _to._version = parseInteger(value).value_or(1); // no reason to refuse what can be read
  else if (name == "INDEPENDENT-SEGMENTS")
    _to._independentSegments = true;
  else if (name == "START")
    _to._start = value;
  else if (name == "DEFINE")
    return parseDefinition(value);
  return true;
}

bool PlaylistParser::parseMediaTag(std::string_view name, std::string_view value, bool& known) {
  MediaPlaylist& media = _to._media;
  if (name == "BYTERANGE")
    return be(Kind::Media) && parseByteRangeTag(value);
  if (name == "KEY")
    return be(Kind::Media) && parseKey(value, media.keys);
  if (name == "PROGRAM-DATE-TIME") {
    media.programDates.emplace_back(media.segments.size(), value);
    return be(Kind::Media);
  }
  if (name == "DISCONTINUITY") {
    _next.discontinuity = true;
    return be(Kind::Media);
  }
  if (name == "GAP") {
    _next.gap = true;
    return be(Kind::Media);
  }
  if (name == "MAP")
    return be(Kind::Media) && parseMap(value);
  if (name == "TARGETDURATION") {
    // Some write it with a fraction, which is harmless.
    const auto duration = parseDecimal(value);
    if (!duration)
      return fail("the target duration is no number");
    media.targetDuration = static_cast<std::int64_t>(std::ceil(*duration));
    return be(Kind::Media);
  }
  if (name == "MEDIA-SEQUENCE")
    return be(Kind::Media) && number(value, media.mediaSequence, "the media sequence number");
  if (name == "DISCONTINUITY-SEQUENCE")
    return be(Kind::Media) && number(value, media.discontinuitySequence, "the discontinuity sequence number");
  if (name == "ENDLIST") {
    media.ended = true;
    return be(Kind::Media);
  }
  if (name == "PLAYLIST-TYPE") {
    media.vod = value == "VOD";
    return be(Kind::Media);
  }
  if (name == "I-FRAMES-ONLY") {
    media.framesOnly = true;
    return be(Kind::Media);
  }
  if (name == "SKIP")
    return be(Kind::Media) && fail("it is an update of another playlist (EXT-X-SKIP), not a whole one");
  if (name == "DATERANGE")
    return be(Kind::Media);
  known = false;
  return true;
}

bool PlaylistParser::parseMasterTag(std::string_view name, std::string_view value, bool& known) {
  if (name == "STREAM-INF")
    return be(Kind::Master) && parseVariant(value);
  if (name == "MEDIA")
    return be(Kind::Master) && parseRendition(value);
  if (name == "I-FRAME-STREAM-INF") {
    ++_to._master.frameLists;
    return be(Kind::Master);
  }
  if (name == "SESSION-DATA")
    return be(Kind::Master) && parseSessionData(value);
  if (name == "SESSION-KEY")
    return be(Kind::Master) && parseKey(value, _to._master.sessionKeys);
  known = false;
  return true;
}

bool PlaylistParser::parseInfo(std::string_view value) {
  const auto duration = parseDecimal(trimmed(value.substr(0, value.find(','))));
  if (!duration)
    return fail("the duration of the segment is no number");
  _next.duration = *duration;
  _hasInfo = true;
  return be(Kind::Media);
}

bool PlaylistParser::parseByteRangeTag(std::string_view value) {
  const auto range = parseByteRange(value);
  if (!range || range->length == 0)
    return fail("the byte range is no range");
  _range = *range;
  _hasRange = true;
  return true;
}

bool PlaylistParser::parseKey(std::string_view value, std::vector<PlaylistKey>& keys) {
  PlaylistKey key;
  key.line = value;
  if (!eachAttribute(value, [&](std::string_view name, std::string_view text) {
        if (name == "METHOD")
          key.method = text;
        else if (name == "URI")
          key.uri = text;
        else if (name == "IV")
          key.iv = text;
        else if (name == "KEYFORMAT")
          key.keyFormat = text;
      }))
    return false;
  if (key.method.empty())
    return fail("the key has no METHOD");
  if (key.method == "AES-128" && key.uri.empty())
    return fail("the AES-128 key has no URI");
  keys.push_back(key);
  return true;
}

bool PlaylistParser::parseMap(std::string_view value) {
  PlaylistMap map;
  std::optional<std::string_view> range;
  if (!eachAttribute(value, [&](std::string_view name, std::string_view text) {
        if (name == "URI")
          map.uri = text;
        else if (name == "BYTERANGE")
          range = text;
      }))
    return false;
  if (map.uri.empty())
    return fail("the initialization section has no URI");
  if (range) {
    const auto parsed = parseByteRange(*range);
    if (!parsed || parsed->length == 0)
      return fail("the byte range of the initialization section is no range");
    map.bytes = {std::max<std::int64_t>(parsed->offset, 0), parsed->length};
  }
  auto& maps = _to._media.maps;
  maps.push_back(map);
  _next.map = static_cast<std::uint32_t>(maps.size() - 1);
  return true;
}

bool PlaylistParser::addSegment(std::string_view uri) {
  if (_kind == Kind::Master)
    return true; // of nothing
  if (!_hasInfo)
    return fail("a segment has no duration (EXTINF)");
  if (!be(Kind::Media) || !resolve(uri, _next.uri))
    return false;
  MediaPlaylist& media = _to._media;
  if (_hasRange) {
    if (_range.offset < 0) {
      if (_rangeEnd < 0 || _rangeFile != _next.uri)
        return fail("the byte range tells no offset and follows no range of the same file");
      if (_rangeEnd > std::numeric_limits<std::int64_t>::max() - _range.length)
        return fail("the byte range is no range");
      _range.offset = _rangeEnd;
    }
    _next.bytes = {_range.offset, _range.length};
    _rangeFile = _next.uri;
    _rangeEnd = _range.offset + _range.length;
  } else {
    _rangeEnd = -1;
  }
  _next.endKey = static_cast<std::uint32_t>(media.keys.size());
  media.duration += _next.duration;
  _longest = std::max(_longest, _next.duration);
  media.segments.push_back(_next);
  const std::uint32_t map = _next.map;
  _next = PlaylistSegment();
  _next.map = map;
  _next.firstKey = media.segments.back().endKey;
  _hasInfo = _hasRange = false;
  return true;
}

bool PlaylistParser::parseRendition(std::string_view value) {
  Rendition rendition;
  std::string_view type;
  if (!eachAttribute(value, [&](std::string_view name, std::string_view text) {
        if (name == "TYPE")
          type = text;
        else if (name == "GROUP-ID")
          rendition.group = text;
        else if (name == "NAME")
          rendition.name = text;
        else if (name == "URI")
          rendition.uri = text;
        else if (name == "LANGUAGE")
          rendition.language = text;
        else if (name == "ASSOC-LANGUAGE")
          rendition.associatedLanguage = text;
        else if (name == "CHARACTERISTICS")
          rendition.characteristics = text;
        else if (name == "CHANNELS")
          rendition.channels = text;
        else if (name == "INSTREAM-ID")
          rendition.instreamId = text;
        else if (name == "DEFAULT")
          rendition.isDefault = text == "YES";
        else if (name == "AUTOSELECT")
          rendition.isAutoselect = text == "YES";
        else if (name == "FORCED")
          rendition.isForced = text == "YES";
      }))
    return false;
  if (type == "AUDIO")
    rendition.type = RenditionType::Audio;
  else if (type == "VIDEO")
    rendition.type = RenditionType::Video;
  else if (type == "SUBTITLES")
    rendition.type = RenditionType::Subtitles;
  else if (type == "CLOSED-CAPTIONS")
    rendition.type = RenditionType::ClosedCaptions;
  else
    return true; // of a kind that nobody can play
  if (rendition.type == RenditionType::Subtitles && (!rendition.uri || rendition.uri->empty()))
    return true; // nowhere to be had
  if (rendition.uri && (rendition.uri->empty() || rendition.type == RenditionType::ClosedCaptions))
    rendition.uri.reset();
  if (rendition.name.empty())
    rendition.name = rendition.language.empty() ? rendition.group : rendition.language;
  rendition.isAutoselect |= rendition.isDefault;
  _to._master.renditions.push_back(rendition);
  return true;
}

bool PlaylistParser::parseVariant(std::string_view value) {
  if (_variantPending)
    return fail("the variant before it has no address");
  Variant variant;
  if (!eachAttribute(value, [&](std::string_view name, std::string_view text) {
        if (name == "BANDWIDTH")
          // As far as it goes: a forgotten comma is no reason to refuse the others.
          variant.bandwidth = parseInteger(text.substr(0, text.find_first_not_of("0123456789"))).value_or(0);
        else if (name == "AVERAGE-BANDWIDTH")
          variant.averageBandwidth = parseInteger(text);
        else if (name == "RESOLUTION")
          variant.resolution = parseResolution(text);
        else if (name == "FRAME-RATE")
          variant.frameRate = parseDecimal(text);
        else if (name == "CODECS")
          variant.codecs = text;
        else if (name == "SUPPLEMENTAL-CODECS")
          variant.supplementalCodecs = text;
        else if (name == "HDCP-LEVEL")
          variant.hdcpLevel = text;
        else if (name == "VIDEO-RANGE")
          variant.videoRange = text;
        else if (name == "AUDIO")
          variant.audio = text;
        else if (name == "VIDEO")
          variant.video = text;
        else if (name == "SUBTITLES")
          variant.subtitles = text;
        else if (name == "CLOSED-CAPTIONS") {
          variant.noClosedCaptions = text == "NONE";
          variant.closedCaptions = text == "NONE" ? "" : text;
        }
      }))
    return false;
  _to._master.variants.push_back(variant);
  _variantPending = true;
  return true;
}

bool PlaylistParser::parseSessionData(std::string_view value) {
  SessionData data;
  if (!eachAttribute(value, [&](std::string_view name, std::string_view text) {
        if (name == "DATA-ID")
          data.id = text;
        else if (name == "VALUE")
          data.value = text;
        else if (name == "URI")
          data.uri = text;
        else if (name == "LANGUAGE")
          data.language = text;
      }))
    return false;
  _to._master.sessionData.push_back(data);
  return true;
}

bool PlaylistParser::parseDefinition(std::string_view value) {
  std::optional<std::string_view> variable, content, import, parameter;
  AttributeReader reader(value);
  while (auto attribute = reader.next()) {
    if (attribute->name == "NAME")
      variable = attribute->value;
    else if (attribute->name == "VALUE")
      content = attribute->value;
    else if (attribute->name == "IMPORT")
      import = attribute->value;
    else if (attribute->name == "QUERYPARAM")
      parameter = attribute->value;
  }
  if (variable && content) {
    _to._variables.insert_or_assign(std::string(*variable), std::string(*content));
    return true;
  }
  if (import) {
    const auto found = _imported.find(*import);
    if (found == _imported.end())
      return fail("the variable that it imports is not defined by the master playlist");
    _to._variables.insert_or_assign(std::string(*import), found->second);
    return true;
  }
  if (parameter) {
    const std::string query = _to._url.query().value_or("");
    std::string_view rest = query;
    while (!rest.empty()) {
      const std::string_view pair = rest.substr(0, rest.find('&'));
      rest.remove_prefix(std::min(pair.size() + 1, rest.size()));
      if (pair.size() > parameter->size() && pair.starts_with(*parameter) && pair[parameter->size()] == '=') {
        _to._variables.insert_or_assign(std::string(*parameter),
                                        std::string(pair.substr(parameter->size() + 1)));
        return true;
      }
    }
    return fail("the variable is not in the query of the playlist's address");
  }
  return fail("the definition of the variable is broken");
}

void PlaylistParser::finish() {
  if (_variantPending) {
    fail("the last variant has no address");
    return;
  }
  if (_hasInfo) {
    // A playlist that was cut off in its last segment: what follows is not known, so it is no whole one.
    fail("the last segment has no address");
    return;
  }
  if (_kind == Kind::Unknown) {
    fail("it names neither segments nor variants");
    return;
  }
  _to._isMaster = _kind == Kind::Master;
  auto& media = _to._media;
  media.targetDuration = std::max(media.targetDuration, static_cast<std::int64_t>(std::lround(_longest)));
}

} // namespace platform::assets
