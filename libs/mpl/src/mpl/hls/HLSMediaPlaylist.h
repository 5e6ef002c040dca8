#pragma once

#include "mpl/hls/HLSPlaylist.h"

#include "qvc/FastString.h"
#include "qvc/URI.h"

#include <cstdint>
#include <vector>

namespace mpl::hls {

/// One entry of a media playlist. Plain value.
struct Segment {
  double duration = 0;     ///< seconds
  std::int64_t length = 0; ///< bytes; 0 stands for the whole resource
  std::int64_t offset = 0; ///< first byte
  /// The address as written; empty for an entry whose address has no ".ts" in it.
  qvc::FastString reference;

  /// The address, split when it is asked for: a summary of a hundred thousand segments looks at none.
  qvc::URI uri() const { return qvc::URI(reference); }
};

/// The segments of one stream, in their order. Filled by the line parsers.
class HLSMediaPlaylist final : public HLSPlaylist {
public:
  HLSMediaPlaylist() noexcept : HLSPlaylist(PlaylistType::media) {}

  double targetDuration = 0;     ///< seconds; 0 without "EXT-X-TARGETDURATION"
  std::uint64_t extInfCount = 0; ///< "EXTINF" tags seen
  std::vector<Segment> segments; ///< one for each "EXTINF"
  qvc::FastString keyURI;        ///< of the last "EXT-X-KEY"; empty if none
};

} // namespace mpl::hls
