#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

/// Arithmetic on numbers that a manifest's author chose: a result that does not fit becomes the nearest one
/// that does.
namespace mpl::dash::saturated {

constexpr std::int64_t limit(bool negative) {
  return negative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

constexpr std::int64_t add(std::int64_t a, std::int64_t b) {
  std::int64_t result = 0;
  return __builtin_add_overflow(a, b, &result) ? limit(a < 0) : result;
}

constexpr std::int64_t subtract(std::int64_t a, std::int64_t b) {
  std::int64_t result = 0;
  return __builtin_sub_overflow(a, b, &result) ? limit(a < 0) : result;
}

constexpr std::int64_t multiply(std::int64_t a, std::int64_t b) {
  std::int64_t result = 0;
  return __builtin_mul_overflow(a, b, &result) ? limit((a < 0) != (b < 0)) : result;
}

/// `b` must not be 0.
constexpr std::int64_t divide(std::int64_t a, std::int64_t b) {
  return b == -1 ? subtract(0, a) : a / b;
}

constexpr std::int32_t toInt32(std::int64_t value) {
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, std::numeric_limits<std::int32_t>::min(),
                                                            std::numeric_limits<std::int32_t>::max()));
}

/// Truncates toward zero; no number at all becomes 0.
constexpr std::int64_t toInt64(double value) {
  constexpr double bound = 9223372036854775808.0; // 2^63, the first value too large
  if (value >= bound || value < -bound)
    return limit(value < 0);
  return value == value ? static_cast<std::int64_t>(value) : 0;
}

} // namespace mpl::dash::saturated
