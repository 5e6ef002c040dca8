#pragma once

#include <cstdint>

namespace qvc {

class FastString;

/// The offset of local time, in minutes to add to UTC (east is positive).
struct TimeZoneInfo {
  /// Without daylight time.
  int bias = 0;
  /// What daylight time adds.
  int daylightBias = 0;
  bool daylightInEffect = false;

  int totalBias() const noexcept { return bias + (daylightInEffect ? daylightBias : 0); }
  /// The system's zone as it is in effect now.
  static TimeZoneInfo local();
};

/// A Gregorian calendar date and time to the millisecond, packed into 64 bits so that comparing the raw
/// values is comparing the times: milliseconds in bits 0-9, seconds 10-15, minutes 16-21, hours 22-26, day
/// 27-31, month 32-35, year 36-50. It carries no zone. A value; not synchronised.
///
/// Reads and writes keep the fields in range: years 1601 to 30827, months 1 to 12, days 1 to 31 (whatever the
/// month), hours 0 to 31, minutes and seconds 0 to 59, milliseconds 0 to 999. The raw value 0 is the null
/// date-time.
class DateTime {
public:
  static constexpr unsigned long MinYear = 1601;
  static constexpr unsigned long MaxYear = 30827;

  constexpr DateTime() noexcept = default;
  explicit constexpr DateTime(uint64_t raw) noexcept : m_raw(raw & 0x7FFFFFFFFFFFFu) {}
  DateTime(unsigned long year, unsigned long month, unsigned long day, unsigned long hours,
           unsigned long minutes, unsigned long seconds, unsigned long milliseconds) noexcept;

  uint64_t getRaw() const noexcept { return m_raw; }
  bool isNull() const noexcept { return m_raw == 0; }

  unsigned long year() const noexcept;
  unsigned long month() const noexcept;
  unsigned long day() const noexcept;
  unsigned long hours() const noexcept;
  unsigned long minutes() const noexcept;
  unsigned long seconds() const noexcept;
  unsigned long milliseconds() const noexcept;

  void setYear(unsigned long year) noexcept;
  void setMonth(unsigned long month) noexcept;
  void setDay(unsigned long day) noexcept;
  void setHours(unsigned long hours) noexcept;
  void setMinutes(unsigned long minutes) noexcept;
  void setSeconds(unsigned long seconds) noexcept;
  void setMilliseconds(unsigned long milliseconds) noexcept;

  /// Milliseconds since 1601-01-01T00:00:00, the first moment a date-time can hold, and back; later than the
  /// last one gives the last one. Fields that overflow (day 31 in a short month, hour 24) run on into the
  /// next.
  uint64_t toMilliseconds() const noexcept;
  static DateTime fromMilliseconds(uint64_t milliseconds) noexcept;
  /// Milliseconds since 1970-01-01T00:00:00; negative before.
  int64_t toMillisecondsSinceEpoch() const noexcept;
  /// `a` minus `b`, in milliseconds.
  static int64_t getDeltaMs(const DateTime& a, const DateTime& b) noexcept;
  static uint64_t getMsInYear(unsigned long year) noexcept;
  bool isLeapYear() const noexcept { return isLeapYear(year()); }
  static bool isLeapYear(unsigned long year) noexcept;
  /// The leap years among 1 to `year` - 1, all by the Gregorian rule.
  static unsigned long numLeapYearsBefore(unsigned long year) noexcept;

  /// Moves by whole seconds; stops at the first and the last moment.
  DateTime& addSeconds(int64_t seconds) noexcept;

  /// Reads "2020-02-29T23:59:59.123+02:00", fraction and zone optional. Two rules are peculiar: the fraction
  /// is a count of milliseconds (".5" is 5 ms), and a "+" offset is added, a "-" offset subtracted. A text
  /// that does not parse is logged and gives the null date-time.
  static DateTime fromXSD(const FastString& text);
  /// The text of the fields as they are, with `zone` (or "Z" if null) written behind.
  FastString toXSD(bool withMilliseconds, const TimeZoneInfo* zone = nullptr) const;

  bool isAfter(const DateTime& other) const noexcept { return m_raw > other.m_raw; }
  bool isBefore(const DateTime& other) const noexcept { return m_raw < other.m_raw; }
  friend bool operator==(const DateTime& a, const DateTime& b) noexcept { return a.m_raw == b.m_raw; }
  friend bool operator<(const DateTime& a, const DateTime& b) noexcept { return a.m_raw < b.m_raw; }
  friend bool operator>(const DateTime& a, const DateTime& b) noexcept { return a.m_raw > b.m_raw; }

private:
  uint64_t field(unsigned shift, unsigned bits) const noexcept;
  void setField(unsigned shift, unsigned bits, uint64_t value) noexcept;

  uint64_t m_raw = 0;
};

} // namespace qvc
