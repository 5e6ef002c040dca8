#pragma once

#include <cstdint>

namespace qvc::xsd {

/// A time of day as XML Schema writes it. A plain value; parsing follows the convention of `XSDate`.
struct XSTimeOfDay {
  std::uint32_t hour = 0;
  std::uint32_t minute = 0;
  std::uint32_t second = 0;
  float fraction = 0; ///< Of a second, 0 <= fraction < 1.

  /// "hour:minute:second" and an optional "." fraction; there is no leap second and no 24:00:00.
  static XSTimeOfDay parse(const char* text, const char** end, const XSTimeOfDay& fallback);

  bool operator==(const XSTimeOfDay&) const = default;
};

} // namespace qvc::xsd
