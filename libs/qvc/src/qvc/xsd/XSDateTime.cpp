#include "qvc/xsd/XSDateTime.h"

namespace qvc::xsd {

XSDateTime XSDateTime::parse(const char* text, const char** end, const XSDateTime& fallback) {
  if (end != nullptr)
    *end = text;
  XSDateTime result;
  const char* at = text;
  result.date = XSDate::parse(text, &at, {});
  if (at == text || *at != 'T')
    return fallback;
  const char* const timeText = at + 1;
  result.time = XSTimeOfDay::parse(timeText, &at, {});
  if (at == timeText)
    return fallback;
  const char* const zoneText = at;
  result.zone = XSTimeZone::parse(zoneText, &at, {});
  if (at == zoneText)
    return fallback;
  if (end != nullptr)
    *end = at;
  return result;
}

std::int64_t XSDateTime::inWholeSecondsSinceEpoch() const {
  if (date.year < 1970)
    return -1;
  // Days fit 32 bits, so the sum is far from the limits of 64.
  const auto midnight = static_cast<std::int64_t>(date.inWholeSecondsSinceEpoch());
  const std::int64_t local =
      midnight + std::int64_t{time.hour} * 3600 + std::int64_t{time.minute} * 60 + time.second;
  return local - zone.sign * (std::int64_t{zone.hours} * 3600 + std::int64_t{zone.minutes} * 60);
}

} // namespace qvc::xsd
