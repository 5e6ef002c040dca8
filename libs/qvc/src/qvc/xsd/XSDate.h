#pragma once

#include <cstdint>

namespace qvc::xsd {

/// A calendar date as XML Schema writes it. A plain value.
///
/// All schema parsers here share one convention: `parse` returns the value, or `fallback` when the text does
/// not begin with a valid one; `end`, if given, receives the position after the last character used, or
/// `text` itself on failure, which is how a caller tells failure from a value equal to the fallback. Text
/// after the value is left alone. Numbers are read as `strtol` does: leading white space and a sign are
/// accepted.
struct XSDate {
  std::uint32_t year = 0;
  std::uint32_t month = 0;
  std::uint32_t day = 0;

  /// "year-month-day" with month 1..12 and day 1..31; the day is not checked against the month.
  static XSDate parse(const char* text, const char** end, const XSDate& fallback);

  /// Seconds from 1970-01-01T00:00:00 to 00:00:00 of this date; all ones for a year before 1970.
  std::uint64_t inWholeSecondsSinceEpoch() const;

  bool operator==(const XSDate&) const = default;
};

} // namespace qvc::xsd
