#pragma once

#include <cstdint>

namespace qvc::xsd {

/// A length of time as XML Schema writes it. A plain value; parsing follows the convention of `XSDate`.
struct XSDuration {
  std::uint32_t years = 0;
  std::uint32_t months = 0;
  std::uint32_t days = 0;
  std::uint32_t hours = 0;
  std::uint32_t minutes = 0;
  std::uint32_t seconds = 0;
  float fraction = 0;    ///< Of a second.
  std::int32_t sign = 1; ///< +1 or -1; a fallback may carry 0 to mark itself.

  /// "P1Y2M3DT4H5M6.5S" with any component left out and an optional "-" in front. Only seconds take a
  /// fraction, and weeks are not known. Reading stops, successfully, in front of the first number whose
  /// designator does not fit, so "P1W" yields an empty duration with `end` at "1W".
  static XSDuration parse(const char* text, const char** end, const XSDuration& fallback);

  /// The length in seconds, wrapping at 32 bits; fraction and sign do not count. A year is 365.242 days and a
  /// month 30.437 days.
  std::uint32_t inUnsignedWholeSeconds() const;

  bool operator==(const XSDuration&) const = default;
};

} // namespace qvc::xsd
