#include "qvc/xsd/XSDuration.h"

#include "qvc/ParserHelpers.h"

#include <cstddef>
#include <cstdlib>

namespace qvc::xsd {

namespace {

/// The whole number at `at`; `next` is set to its end, or to `at` when there is none.
std::uint32_t readNumber(const char* at, const char*& next) {
  char* end = nullptr;
  const long value = std::strtol(at, &end, 10);
  next = end;
  return static_cast<std::uint32_t>(value);
}

/// The date part up to the first thing that is none of it; returns the position there.
const char* readDatePart(const char* at, XSDuration& out) {
  bool first = true;
  bool haveMonths = false;
  for (;;) {
    const char* designator = at;
    const std::uint32_t number = readNumber(at, designator);
    if (designator == at)
      return at;
    if (*designator == 'Y' && first) {
      out.years = number;
    } else if (*designator == 'M' && !haveMonths) {
      out.months = number;
      haveMonths = true;
    } else if (*designator == 'D') {
      out.days = number;
      return designator + 1;
    } else {
      return at;
    }
    first = false;
    at = designator + 1;
  }
}

/// The time part after the "T"; returns the position behind it, or null when the whole value is wrong.
const char* readTimePart(const char* at, XSDuration& out) {
  bool first = true;
  bool haveMinutes = false;
  for (;;) {
    const char* designator = at;
    const std::uint32_t number = readNumber(at, designator);
    if (designator == at)
      return at;

    float fraction = 0;
    bool haveFraction = false;
    if (*designator == '.') {
      std::size_t consumed = 0;
      fraction = parserhelpers::_parse<float>(designator, &consumed);
      haveFraction = consumed > 0;
      designator += consumed;
    }
    if (*designator == 'S') {
      out.seconds = number;
      out.fraction = fraction;
      return designator + 1;
    }
    if (haveFraction)
      return *designator == 'H' || *designator == 'M' ? nullptr : at;

    if (*designator == 'H' && first) {
      out.hours = number;
    } else if (*designator == 'M' && !haveMinutes) {
      out.minutes = number;
      haveMinutes = true;
    } else {
      return at;
    }
    first = false;
    at = designator + 1;
  }
}

} // namespace

XSDuration XSDuration::parse(const char* text, const char** end, const XSDuration& fallback) {
  if (end != nullptr)
    *end = text;
  if (text == nullptr || *text == '\0')
    return fallback;

  XSDuration result;
  const char* at = text;
  if (*at == '-') {
    result.sign = -1;
    ++at;
  }
  if (*at != 'P')
    return fallback;
  at = readDatePart(at + 1, result);
  if (*at == 'T') {
    at = readTimePart(at + 1, result);
    if (at == nullptr)
      return fallback;
  }
  if (end != nullptr)
    *end = at;
  return result;
}

std::uint32_t XSDuration::inUnsignedWholeSeconds() const {
  return years * 31556908U + months * 2629739U + days * 86400U + hours * 3600U + minutes * 60U + seconds;
}

} // namespace qvc::xsd
