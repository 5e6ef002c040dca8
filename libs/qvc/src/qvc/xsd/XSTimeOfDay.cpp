#include "qvc/xsd/XSTimeOfDay.h"

#include "qvc/ParserHelpers.h"

#include <cstddef>
#include <cstdlib>

namespace qvc::xsd {

XSTimeOfDay XSTimeOfDay::parse(const char* text, const char** end, const XSTimeOfDay& fallback) {
  if (end != nullptr)
    *end = text;
  if (text == nullptr)
    return fallback;

  char* next = nullptr;
  const long hour = std::strtol(text, &next, 10);
  if (next == text || hour < 0 || hour > 23 || *next != ':')
    return fallback;
  const char* at = next + 1;
  const long minute = std::strtol(at, &next, 10);
  if (next == at || minute < 0 || minute > 59 || *next != ':')
    return fallback;
  at = next + 1;
  const long second = std::strtol(at, &next, 10);
  if (next == at || second < 0 || second > 59)
    return fallback;
  at = next;

  float fraction = 0;
  if (*at == '.') {
    std::size_t consumed = 0;
    fraction = parserhelpers::_parse<float>(at, &consumed);
    if (consumed == 0 || !(fraction >= 0.0F && fraction < 1.0F))
      return fallback;
    at += consumed;
  }

  if (end != nullptr)
    *end = at;
  return {static_cast<std::uint32_t>(hour), static_cast<std::uint32_t>(minute),
          static_cast<std::uint32_t>(second), fraction};
}

} // namespace qvc::xsd
