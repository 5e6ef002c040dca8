#pragma once

#include <cstdint>

// Sums of sizes that servers and manifests claim. A claim may be absurd: the sums then wrap instead of being
// undefined, and taking a claim out again gives the old sum back.

inline std::int64_t QVWrappingAdd(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

inline std::int64_t QVWrappingSubtract(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

/// `sum` known for `part` of `whole` things, scaled up to all of them; `part` is not 0.
inline std::int64_t QVExtrapolate(std::int64_t sum, std::int64_t part, std::int64_t whole) {
  __extension__ using Wide = __int128;
  return static_cast<std::int64_t>(static_cast<Wide>(sum) * whole / part);
}
