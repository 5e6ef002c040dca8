#pragma once

#include "mpl/hls/MediaRendition.h"

#include "qvc/FastString.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <unordered_set>

namespace mpl::hls {

/// One encoding of a presentation. Plain value; numbers are 0 and texts empty when not given. Two are equal
/// when address and bandwidth are.
struct VariantStream {
  qvc::FastString uri;                ///< the line after the tag
  std::uint64_t bandwidth = 0;        ///< bits per second, peak
  std::uint64_t averageBandwidth = 0; ///< bits per second
  std::uint64_t width = 0;
  std::uint64_t height = 0;
  double frameRate = 0;
  qvc::FastString codecs;
  qvc::FastString audioGroup;
  qvc::FastString subtitlesGroup;
  qvc::FastString closedCaptionsGroup;
  /// The master's renditions of the three groups.
  std::unordered_set<MediaRendition> renditions;

  // The number first: it tells variants apart that share one address.
  friend bool operator==(const VariantStream& a, const VariantStream& b) noexcept {
    return a.bandwidth == b.bandwidth && a.uri.view() == b.uri.view();
  }
};

} // namespace mpl::hls

template <> struct std::hash<mpl::hls::VariantStream> {
  std::size_t operator()(const mpl::hls::VariantStream& variant) const noexcept {
    return std::hash<qvc::FastString>()(variant.uri);
  }
};
