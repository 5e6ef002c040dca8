#pragma once

#include <cstdint>

namespace mpl {

/// A span of bytes of a resource. A plain value; the default is the whole resource.
struct Range {
  std::int64_t start = 0;
  std::int64_t length = -1; ///< -1: up to the end of the resource.

  /// Reads "first-last". With `inclusive` the last byte belongs to the range.
  /// Without a "-" the result is `fallback` and `end` (if given) is `text`. A missing first or last number is
  /// taken from `fallback`, so "500-" is open-ended for the default fallback. A last byte below the first
  /// gives length -1. Numbers too large for the type count as its maximum.
  static Range parse(const char* text, const char** end, bool inclusive, const Range& fallback);

  bool operator==(const Range&) const = default;
};

} // namespace mpl
