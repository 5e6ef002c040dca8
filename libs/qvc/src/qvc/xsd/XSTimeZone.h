#pragma once

#include <cstdint>

namespace qvc::xsd {

/// An offset from UTC as XML Schema writes it. A plain value; parsing follows the convention of `XSDate`.
struct XSTimeZone {
  std::uint32_t hours = 0;
  std::uint32_t minutes = 0;
  std::int32_t sign = 1; ///< +1 east of Greenwich, -1 west.

  /// "Z", or a sign, hours up to 14, ":" and minutes.
  static XSTimeZone parse(const char* text, const char** end, const XSTimeZone& fallback);

  bool operator==(const XSTimeZone&) const = default;
};

} // namespace qvc::xsd
