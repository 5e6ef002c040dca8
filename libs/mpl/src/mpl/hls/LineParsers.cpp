#include "mpl/hls/LineParsers.h"

#include "mpl/Exception.h"
#include "mpl/hls/HLSMasterPlaylist.h"
#include "mpl/hls/HLSMediaPlaylist.h"
#include "mpl/hls/LineText.h"
#include "mpl/hls/Tags.h"

#include <istream>
#include <stdexcept>

namespace mpl::hls {

using qvc::FastString;

namespace {

/// A malformed number is no error, and one that fits no integer is malformed.
std::uint64_t unsignedOf(const FastString& text) {
  try {
    return text.toUInt();
  } catch (const std::out_of_range&) {
    return 0;
  }
}

std::int64_t signedOf(const FastString& text) {
  try {
    return text.toInt();
  } catch (const std::out_of_range&) {
    return 0;
  }
}

const FastString& attribute(const Attributes& attributes, const char* name) {
  static const FastString absent;
  const auto found = attributes.find(name);
  return found == attributes.end() ? absent : found->second;
}

/// The playlist as the kind that the line belongs to, made when there is none yet.
template <class Kind> Kind& playlistOfKind(std::shared_ptr<HLSPlaylist>& playlist) {
  if (!playlist)
    playlist = std::make_shared<Kind>();
  if (const auto kind = dynamic_cast<Kind*>(playlist.get()))
    return *kind;
  throw ArgumentException("Playlist contains mixed values of Master and Media playlists");
}

void parseByteRange(std::vector<Segment>& segments, const FastString& value) {
  if (segments.empty())
    return;
  Segment& segment = segments.back();
  segment.length = signedOf(subStringBefore(value, '@'));
  segment.offset = signedOf(subStringAfter(value, '@'));
  // A written 0 is taken for an offset that was left out, too.
  if (segments.size() >= 2 && segment.offset == 0) {
    const Segment& previous = segments[segments.size() - 2];
    segment.offset = static_cast<std::int64_t>(static_cast<std::uint64_t>(previous.offset) +
                                               static_cast<std::uint64_t>(previous.length));
  }
}

VariantStream variantOf(const Attributes& attributes, FastString uri) {
  VariantStream variant;
  variant.uri = std::move(uri);
  variant.bandwidth = unsignedOf(attribute(attributes, "BANDWIDTH"));
  variant.averageBandwidth = unsignedOf(attribute(attributes, "AVERAGE-BANDWIDTH"));
  const FastString& resolution = attribute(attributes, "RESOLUTION");
  if (resolution.contains('x')) {
    variant.width = unsignedOf(subStringBefore(resolution, 'x'));
    variant.height = unsignedOf(subStringAfter(resolution, 'x'));
  }
  variant.frameRate = attribute(attributes, "FRAME-RATE").toDouble();
  variant.codecs = attribute(attributes, "CODECS");
  variant.audioGroup = attribute(attributes, "AUDIO");
  variant.subtitlesGroup = attribute(attributes, "SUBTITLES");
  variant.closedCaptionsGroup = attribute(attributes, "CLOSED-CAPTIONS");
  return variant;
}

MediaRendition renditionOf(const Attributes& attributes) {
  MediaRendition rendition;
  const FastString& type = attribute(attributes, "TYPE");
  if (type == "SUBTITLES")
    rendition.type = MediaRendition::Type::subtitles;
  else if (type == "CLOSED-CAPTIONS")
    rendition.type = MediaRendition::Type::closedCaptions;
  rendition.groupId = attribute(attributes, "GROUP-ID");
  rendition.language = attribute(attributes, "LANGUAGE");
  rendition.name = attribute(attributes, "NAME");
  return rendition;
}

} // namespace

void parseLine(std::shared_ptr<HLSPlaylist>& playlist, std::uint64_t& version, const FastString& line,
               std::istream& stream) {
  const std::string_view name = tagNameOf(line);
  if (isCommonTag(name))
    return parseCommonLine(version, line);
  if (isMediaSegmentTag(name))
    return parseMediaSegmentLine(playlistOfKind<HLSMediaPlaylist>(playlist), line);
  if (isMediaPlaylistTag(name))
    return parseMediaPlaylistLine(playlistOfKind<HLSMediaPlaylist>(playlist), line);
  if (isMasterPlaylistTag(name))
    return parseMasterPlaylistLine(playlistOfKind<HLSMasterPlaylist>(playlist), line, stream);
  // Only addresses of transport streams count as segments.
  if (playlist && playlist->type() == HLSPlaylist::PlaylistType::media && !line.contains('#') &&
      line.contains(".ts"))
    parseMediaSegmentLine(static_cast<HLSMediaPlaylist&>(*playlist), line);
}

void parseCommonLine(std::uint64_t& version, const FastString& line) {
  if (tagNameOf(line) == tags::Version)
    version = unsignedOf(getTagValue(line));
}

void parseMediaSegmentLine(HLSMediaPlaylist& playlist, const FastString& line) {
  const std::string_view name = tagNameOf(line);
  if (name == tags::Inf) {
    ++playlist.extInfCount;
    playlist.segments.emplace_back().duration = getTagValue(line).toDouble();
  } else if (name == tags::ByteRange) {
    parseByteRange(playlist.segments, getTagValue(line));
  } else if (name == tags::Key) {
    playlist.keyURI = attribute(parseAttributes(getTagValue(line)), "URI");
  } else if (!line.isEmpty() && !line.contains('#') && !playlist.segments.empty() &&
             playlist.segments.back().duration > 0) {
    playlist.segments.back().reference = line;
  }
}

void parseMediaPlaylistLine(HLSMediaPlaylist& playlist, const FastString& line) {
  if (tagNameOf(line) == tags::TargetDuration)
    playlist.targetDuration = getTagValue(line).toDouble();
}

void parseMasterPlaylistLine(HLSMasterPlaylist& playlist, const FastString& line, std::istream& stream) {
  const std::string_view name = tagNameOf(line);
  const Attributes attributes = parseAttributes(getTagValue(line));
  if (name == tags::StreamInf)
    playlist.variants.insert(variantOf(attributes, getLine(stream)));
  else if (name == tags::Media)
    playlist.renditions.insert(renditionOf(attributes));
  else if (name == tags::SessionKey)
    playlist.sessionKeyURIs.insert(attribute(attributes, "URI"));
}

} // namespace mpl::hls
