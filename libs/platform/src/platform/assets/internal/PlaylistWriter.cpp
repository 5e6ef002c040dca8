#include "platform/assets/internal/PlaylistWriter.h"

#include "platform/assets/internal/Attributes.h"

#include <algorithm>
#include <array>

namespace platform::assets {

namespace {

bool startsWithAny(std::string_view line, std::initializer_list<std::string_view> names) {
  return std::any_of(names.begin(), names.end(), [&](std::string_view name) {
    return line.starts_with(name) && (line.size() == name.size() || line[name.size()] == ':');
  });
}

// Written by us, of no use without a server, or gone with the variables.
bool isDropped(std::string_view line) {
  return startsWithAny(line, {"#EXTM3U", "#EXT-X-VERSION", "#EXT-X-TARGETDURATION", "#EXT-X-PLAYLIST-TYPE",
                              "#EXT-X-ENDLIST", "#EXT-X-BYTERANGE", "#EXT-X-DEFINE", "#EXT-X-SERVER-CONTROL",
                              "#EXT-X-PART", "#EXT-X-PART-INF", "#EXT-X-PRELOAD-HINT",
                              "#EXT-X-RENDITION-REPORT", "#EXT-X-ALLOW-CACHE"});
}

class MediaWriter {
public:
  MediaWriter(const StreamPlan& plan, std::size_t segments)
      : _plan(plan), _media(plan.playlist().media()), _count(segments) {}

  std::string write() {
    const Playlist& playlist = _plan.playlist();
    _out = "#EXTM3U\n#EXT-X-VERSION:" +
           std::to_string(std::max<std::int64_t>(playlist.version(), _media.maps.empty() ? 4 : 6)) +
           "\n#EXT-X-TARGETDURATION:" + std::to_string(_media.targetDuration) +
           "\n#EXT-X-PLAYLIST-TYPE:VOD\n";
    std::string_view text = playlist.text();
    if (text.starts_with("\xEF\xBB\xBF"))
      text.remove_prefix(3);
    LineReader lines(text);
    std::string_view line;
    while (_segment < _count && lines.next(line))
      writeLine(line);
    // What follows the last segment of a whole playlist.
    while (_count == _media.segments.size() && lines.next(line))
      writeLine(line);
    if (_count == _media.segments.size())
      _out += _pending;
    return std::move(_out) + "#EXT-X-ENDLIST\n";
  }

private:
  void writeLine(std::string_view line) {
    const std::string_view content = trimmed(line);
    if (content.empty())
      return;
    if (content[0] != '#') {
      writeSegment();
      return;
    }
    if (!content.starts_with("#EXT") || isDropped(content))
      return;
    if (content.starts_with("#EXT-X-KEY:"))
      writeKey(content);
    else if (content.starts_with("#EXT-X-MAP:"))
      writeMap();
    else if (content.starts_with("#EXTINF:") || !replaceVariables(content))
      _pending.append(content).append("\n");
    else
      _pending.append(_replaced).append("\n");
  }

  bool replaceVariables(std::string_view line) {
    const Variables& variables = _plan.playlist().variables();
    return !variables.empty() && line.find("{$") != std::string_view::npos &&
           substitute(line, variables, _replaced);
  }

  void writeSegment() {
    const PlaylistSegment& segment = _media.segments[_segment];
    const Place place = _plan.segmentPlace(_segment++);
    if (place.resource == none) {
      // A player that does not know gaps refuses the whole playlist for a name without an extension.
      _out.append(_pending).append(gapName).append(".").append(_plan.extensionFor(segment.uri)).append("\n");
    } else {
      _out.append(_pending);
      if (segment.bytes.length >= 0 && segment.bytes.length != _plan.resources()[place.resource].bytes.length)
        _out += "#EXT-X-BYTERANGE:" + std::to_string(segment.bytes.length) + "@" +
                std::to_string(place.offset) + "\n";
      _out.append(_plan.fileName(place.resource)).append("\n");
    }
    _pending.clear();
  }

  void writeKey(std::string_view line) {
    const std::uint32_t resource = _plan.keyResource(_key++);
    _pending += "#EXT-X-KEY:";
    if (resource == none && line.find("{$") == std::string_view::npos) {
      _pending.append(line.substr(11)).append("\n");
      return;
    }
    AttributeReader reader(line.substr(11));
    for (bool first = true; auto attribute = reader.next(); first = false) {
      const bool address = resource != none && attribute->name == "URI";
      const std::string_view quote = attribute->quoted || address ? "\"" : "";
      _pending.append(first ? "" : ",").append(attribute->name).append("=").append(quote);
      if (address)
        _pending.append(_plan.fileName(resource));
      else
        _pending.append(replaceVariables(attribute->value) ? std::string_view(_replaced) : attribute->value);
      _pending.append(quote);
    }
    _pending += "\n";
  }

  void writeMap() {
    const std::size_t map = _map++;
    const Place place = _plan.mapPlace(map);
    if (place.resource == none)
      return; // another one took its place before a segment came
    const Bytes& bytes = _media.maps[map].bytes;
    _pending += "#EXT-X-MAP:URI=\"" + _plan.fileName(place.resource) + "\"";
    if (bytes.length >= 0 && bytes.length != _plan.resources()[place.resource].bytes.length)
      _pending += ",BYTERANGE=\"" + std::to_string(bytes.length) + "@" + std::to_string(place.offset) + "\"";
    _pending += "\n";
  }

  const StreamPlan& _plan;
  const MediaPlaylist& _media;
  const std::size_t _count;
  std::size_t _segment = 0, _key = 0, _map = 0;
  std::string _out, _pending, _replaced;
};

class AttributeWriter {
public:
  explicit AttributeWriter(std::string& out) : _out(out) {}
  void plain(std::string_view name, std::string_view value) {
    if (!value.empty())
      _out.append(_first ? "" : ",").append(name).append("=").append(value), _first = false;
  }
  void quoted(std::string_view name, std::string_view value) {
    std::string text(value);
    std::erase(text, '"'); // of a value that was written without quotes
    if (!text.empty())
      plain(name, "\"" + text + "\"");
  }
  /// A value of a fixed set; what could not stand without quotes is none of it.
  void word(std::string_view name, std::string_view value) {
    if (value.find_first_of("\", ") == std::string_view::npos)
      plain(name, value);
  }

private:
  std::string& _out;
  bool _first = true;
};

const char* typeOf(RenditionType type) {
  switch (type) {
  case RenditionType::Video:
    return "VIDEO";
  case RenditionType::Audio:
    return "AUDIO";
  case RenditionType::Subtitles:
    return "SUBTITLES";
  case RenditionType::ClosedCaptions:
    return "CLOSED-CAPTIONS";
  }
  return "";
}

void writeRendition(std::string& out, const LocalStream& stream, bool isDefault) {
  const Rendition& rendition = *stream.rendition;
  out += "#EXT-X-MEDIA:";
  AttributeWriter attributes(out);
  attributes.plain("TYPE", typeOf(rendition.type));
  attributes.quoted("GROUP-ID", rendition.group);
  attributes.quoted("NAME", rendition.name);
  attributes.quoted("LANGUAGE", rendition.language);
  attributes.quoted("ASSOC-LANGUAGE", rendition.associatedLanguage);
  attributes.plain("DEFAULT", isDefault ? "YES" : "NO");
  attributes.plain("AUTOSELECT", isDefault || rendition.isAutoselect ? "YES" : "NO");
  attributes.plain("FORCED", rendition.isForced ? "YES" : "");
  attributes.quoted("INSTREAM-ID", rendition.instreamId);
  attributes.quoted("CHARACTERISTICS", rendition.characteristics);
  attributes.quoted("CHANNELS", rendition.channels);
  attributes.quoted("URI", stream.playlist);
  out += "\n";
}

void writeVariant(std::string& out, const Variant& variant, const std::vector<LocalStream>& streams) {
  const auto group = [&](RenditionType type, std::string_view name) {
    const bool listed = std::any_of(streams.begin(), streams.end(), [&](const LocalStream& stream) {
      return stream.rendition && stream.rendition->type == type;
    });
    return listed ? name : std::string_view();
  };
  AttributeWriter attributes(out);
  attributes.plain("BANDWIDTH", std::to_string(variant.bandwidth));
  if (variant.averageBandwidth)
    attributes.plain("AVERAGE-BANDWIDTH", std::to_string(*variant.averageBandwidth));
  attributes.quoted("CODECS", variant.codecs);
  attributes.quoted("SUPPLEMENTAL-CODECS", variant.supplementalCodecs);
  if (variant.resolution)
    attributes.plain("RESOLUTION", std::to_string(variant.resolution->first) + "x" +
                                       std::to_string(variant.resolution->second));
  if (variant.frameRate) {
    char rate[32];
    std::snprintf(rate, sizeof rate, "%.3f", *variant.frameRate);
    attributes.plain("FRAME-RATE", rate);
  }
  attributes.word("HDCP-LEVEL", variant.hdcpLevel);
  attributes.word("VIDEO-RANGE", variant.videoRange);
  attributes.quoted("VIDEO", group(RenditionType::Video, variant.video));
  attributes.quoted("AUDIO", group(RenditionType::Audio, variant.audio));
  attributes.quoted("SUBTITLES", group(RenditionType::Subtitles, variant.subtitles));
  if (variant.noClosedCaptions)
    attributes.plain("CLOSED-CAPTIONS", "NONE");
  else
    attributes.quoted("CLOSED-CAPTIONS", group(RenditionType::ClosedCaptions, variant.closedCaptions));
}

} // namespace

std::string localMediaPlaylist(const StreamPlan& plan, std::size_t segments) {
  return MediaWriter(plan, segments).write();
}

std::string localMasterPlaylist(const Playlist* master, const Variant* variant,
                                const std::vector<LocalStream>& streams, std::int64_t bandwidth) {
  std::string out =
      "#EXTM3U\n#EXT-X-VERSION:" + std::to_string(std::max<std::int64_t>(master ? master->version() : 1, 6)) +
      "\n";
  if (master) {
    if (master->hasIndependentSegments())
      out += "#EXT-X-INDEPENDENT-SEGMENTS\n";
    if (!master->start().empty())
      out.append("#EXT-X-START:").append(master->start()).append("\n");
    for (const auto& data : master->master().sessionData) {
      if (data.value.empty())
        continue; // behind an address
      out += "#EXT-X-SESSION-DATA:";
      AttributeWriter attributes(out);
      attributes.quoted("DATA-ID", data.id);
      attributes.quoted("VALUE", data.value);
      attributes.quoted("LANGUAGE", data.language);
      out += "\n";
    }
    std::string replaced;
    for (const auto& key : master->master().sessionKeys)
      if (!key.isFetched(master->url()))
        out.append("#EXT-X-SESSION-KEY:")
            .append(substitute(key.line, master->variables(), replaced) ? std::string_view(replaced)
                                                                        : key.line)
            .append("\n");
  }
  // Sound whose default was not selected still has to play by itself.
  const auto isSoundByDefault = [](const LocalStream& stream) {
    return stream.rendition && stream.rendition->type == RenditionType::Audio && stream.rendition->isDefault;
  };
  bool hasDefault = std::any_of(streams.begin(), streams.end(), isSoundByDefault);
  for (const auto& stream : streams) {
    if (!stream.rendition)
      continue;
    const bool first = !hasDefault && stream.rendition->type == RenditionType::Audio;
    hasDefault |= first;
    writeRendition(out, stream, first || stream.rendition->isDefault);
  }
  for (const auto& stream : streams) {
    if (stream.rendition)
      continue;
    out += "#EXT-X-STREAM-INF:";
    if (variant)
      writeVariant(out, *variant, streams);
    else
      out += "BANDWIDTH=" + std::to_string(std::max<std::int64_t>(bandwidth, 1));
    out.append("\n").append(stream.playlist).append("\n");
  }
  return out;
}

} // namespace platform::assets
