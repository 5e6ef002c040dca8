#include "qvc/xsd/XSDate.h"

#include <cstdlib>

namespace qvc::xsd {

XSDate XSDate::parse(const char* text, const char** end, const XSDate& fallback) {
  if (end != nullptr)
    *end = text;
  if (text == nullptr || *text == '\0')
    return fallback;

  char* next = nullptr;
  const long year = std::strtol(text, &next, 10);
  if (next == text || *next != '-')
    return fallback;
  const char* at = next + 1;
  const long month = std::strtol(at, &next, 10);
  if (next == at || month < 1 || month > 12 || *next != '-')
    return fallback;
  at = next + 1;
  const long day = std::strtol(at, &next, 10);
  if (next == at || day < 1 || day > 31)
    return fallback;

  if (end != nullptr)
    *end = next;
  return {static_cast<std::uint32_t>(year), static_cast<std::uint32_t>(month),
          static_cast<std::uint32_t>(day)};
}

std::uint64_t XSDate::inWholeSecondsSinceEpoch() const {
  if (year < 1970)
    return ~std::uint64_t{0};

  static constexpr std::uint32_t daysBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  const std::uint32_t monthIndex = month < 1 ? 0 : (month > 12 ? 11 : month - 1);
  const bool leapYear = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  const std::uint64_t y = year;
  const std::uint64_t days = y * 365 + (y - 1969) / 4 - (y - 1901) / 100 + (y - 1601) / 400 +
                             daysBefore[monthIndex] + (monthIndex >= 2 && leapYear ? 1 : 0) + day - 719051;
  return std::uint64_t{static_cast<std::uint32_t>(days)} * 86400;
}

} // namespace qvc::xsd
