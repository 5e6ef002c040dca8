#include "mpl/hls/Tags.h"

namespace mpl::hls {

bool isCommonTag(std::string_view name) noexcept {
  return name == tags::M3U || name == tags::Version;
}

bool isMediaSegmentTag(std::string_view name) noexcept {
  return name == tags::Inf || name == tags::ByteRange || name == tags::Key;
}

bool isMediaPlaylistTag(std::string_view name) noexcept {
  return name == tags::TargetDuration;
}

bool isMasterPlaylistTag(std::string_view name) noexcept {
  return name == tags::Media || name == tags::StreamInf || name == tags::SessionKey;
}

} // namespace mpl::hls
