#pragma once

#include "mpl/hls/HLSPlaylist.h"
#include "mpl/hls/VariantStream.h"

#include "qvc/FastString.h"

#include <unordered_set>

namespace mpl::hls {

/// The variants of a presentation and the renditions that go with them. Filled by the line parsers.
class HLSMasterPlaylist final : public HLSPlaylist {
public:
  HLSMasterPlaylist() noexcept : HLSPlaylist(PlaylistType::master) {}

  /// Each with its own renditions.
  std::unordered_set<VariantStream> variants;
  std::unordered_set<MediaRendition> renditions;
  /// The "URI" of every "EXT-X-SESSION-KEY".
  std::unordered_set<qvc::FastString> sessionKeyURIs;
};

} // namespace mpl::hls
