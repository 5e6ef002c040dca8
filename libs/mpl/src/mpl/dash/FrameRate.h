#pragma once

#include <cstdint>

namespace mpl::dash {

/// Frames per second as a fraction; a numerator of -1 means not given. A plain value.
struct FrameRate {
  std::int32_t numerator = -1;
  std::int32_t denominator = 1;

  /// Reads "30000/1001"; a missing number is taken from `fallback`. A number without "/" is deliberately no
  /// frame rate: the result is `fallback`. `end` (if given) is the position after what was used, `text` if
  /// nothing was.
  static FrameRate parse(const char* text, const char** end, const FrameRate& fallback);

  bool operator==(const FrameRate&) const = default;
};

} // namespace mpl::dash
