#pragma once

#include "mpl/SharedText.h"
#include "mpl/dash/FrameRate.h"

#include <cstdint>

namespace mpl::dash {

/// The media format of a representation, with what it inherits from its adaptation set. A plain value.
/// Numbers are -1 and texts empty when not given.
struct Format {
  SharedText id; ///< The representation's id.
  SharedText mimeType;
  std::int32_t width = -1;
  std::int32_t height = -1;
  FrameRate frameRate;
  std::int32_t audioChannels = -1;
  std::int32_t audioSamplingRate = -1;
  std::int32_t bandwidth = -1; ///< Bits per second.
  SharedText lang;
  SharedText codecs;
};

} // namespace mpl::dash
