#include "mpl/dash/FrameRate.h"

#include "mpl/dash/SaturatedMath.h"

namespace mpl::dash {

namespace {

/// Replaces `value` by the digits at `at`, if there are any; returns the position behind them.
const char* readDecimal(const char* at, std::int32_t& value) {
  const char* next = at;
  std::int64_t number = 0;
  for (; *next >= '0' && *next <= '9'; ++next)
    number = saturated::toInt32(number * 10 + (*next - '0'));
  if (next != at)
    value = static_cast<std::int32_t>(number);
  return next;
}

} // namespace

FrameRate FrameRate::parse(const char* text, const char** end, const FrameRate& fallback) {
  if (end != nullptr)
    *end = text;
  if (text == nullptr)
    return fallback;
  FrameRate result = fallback;
  const char* at = readDecimal(text, result.numerator);
  if (*at != '/')
    return fallback;
  at = readDecimal(at + 1, result.denominator);
  if (end != nullptr)
    *end = at;
  return result;
}

} // namespace mpl::dash
