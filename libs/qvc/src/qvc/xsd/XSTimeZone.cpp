#include "qvc/xsd/XSTimeZone.h"

#include <cstdlib>

namespace qvc::xsd {

XSTimeZone XSTimeZone::parse(const char* text, const char** end, const XSTimeZone& fallback) {
  if (end != nullptr)
    *end = text;
  if (text == nullptr)
    return fallback;
  XSTimeZone result;
  const char* at = text;
  if (*at == 'Z') {
    ++at;
  } else if (*at == '+' || *at == '-') {
    result.sign = *at == '+' ? 1 : -1;
    char* next = nullptr;
    const long hours = std::strtol(at + 1, &next, 10);
    if (next == at + 1 || hours < 0 || hours > 14 || *next != ':')
      return fallback;
    at = next + 1;
    const long minutes = std::strtol(at, &next, 10);
    if (next == at || minutes < 0 || minutes > 59)
      return fallback;
    result.hours = static_cast<std::uint32_t>(hours);
    result.minutes = static_cast<std::uint32_t>(minutes);
    at = next;
  } else {
    return fallback;
  }
  if (end != nullptr)
    *end = at;
  return result;
}

} // namespace qvc::xsd
