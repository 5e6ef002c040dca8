#include "mpl/hls/Tags.h"

#include "qvc/FastString.h"

namespace mpl::hls {

bool isCommonTag(const qvc::FastString& name) noexcept {
  return name == tags::M3U || name == tags::Version;
}

bool isMediaSegmentTag(const qvc::FastString& name) noexcept {
  return name == tags::Inf || name == tags::ByteRange || name == tags::Key;
}

bool isMediaPlaylistTag(const qvc::FastString& name) noexcept {
  return name == tags::TargetDuration;
}

bool isMasterPlaylistTag(const qvc::FastString& name) noexcept {
  return name == tags::Media || name == tags::StreamInf || name == tags::SessionKey;
}

} // namespace mpl::hls
