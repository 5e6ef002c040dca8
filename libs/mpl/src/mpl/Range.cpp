#include "mpl/Range.h"

#include <limits>

namespace mpl {

namespace {

constexpr std::int64_t maximum = std::numeric_limits<std::int64_t>::max();

/// The digits at `at`, saturating; `next` is the first character that is none.
std::int64_t readDecimal(const char* at, const char*& next) {
  std::int64_t value = 0;
  for (; *at >= '0' && *at <= '9'; ++at) {
    if (__builtin_mul_overflow(value, std::int64_t{10}, &value) ||
        __builtin_add_overflow(value, std::int64_t{*at - '0'}, &value))
      value = maximum;
  }
  next = at;
  return value;
}

std::int64_t lastByteOf(const Range& range, bool inclusive) {
  if (range.length < 0)
    return -1;
  std::int64_t last = 0;
  if (__builtin_add_overflow(range.start, range.length - (inclusive ? 1 : 0), &last))
    last = maximum;
  return last;
}

} // namespace

Range Range::parse(const char* text, const char** end, bool inclusive, const Range& fallback) {
  if (end != nullptr)
    *end = text;
  if (text == nullptr)
    return fallback;

  const char* at = text;
  std::int64_t start = fallback.start;
  if (*at != '-')
    start = readDecimal(at, at);
  if (*at != '-')
    return fallback;

  const char* const lastText = at + 1;
  std::int64_t last = readDecimal(lastText, at);
  if (at == lastText)
    last = lastByteOf(fallback, inclusive);
  if (end != nullptr)
    *end = at;

  if (last < start)
    return {start, -1};
  std::int64_t length = 0;
  if (__builtin_sub_overflow(last, start, &length) ||
      __builtin_add_overflow(length, std::int64_t{inclusive ? 1 : 0}, &length))
    length = maximum;
  return {start, length};
}

} // namespace mpl
