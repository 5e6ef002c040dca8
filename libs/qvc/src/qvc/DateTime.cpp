#include "qvc/DateTime.h"

#include "qvc/FastString.h"
#include "qvc/Log.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace qvc {
namespace {

constexpr uint64_t MsPerDay = 86'400'000;
/// From 1601-01-01 to 1970-01-01.
constexpr int64_t EpochMs = 134'774 * static_cast<int64_t>(MsPerDay);

struct Field {
  unsigned shift;
  unsigned bits;
};
constexpr Field Milliseconds{0, 10};
constexpr Field Seconds{10, 6};
constexpr Field Minutes{16, 6};
constexpr Field Hours{22, 5};
constexpr Field Day{27, 5};
constexpr Field Month{32, 4};
constexpr Field Year{36, 15};

unsigned long fieldOf(int value) noexcept {
  return value > 0 ? static_cast<unsigned long>(value) : 0;
}

} // namespace

TimeZoneInfo TimeZoneInfo::local() {
  constexpr int DaylightMinutes = 60;
  const std::time_t now = std::time(nullptr);
  std::tm fields{};
  localtime_r(&now, &fields);
  TimeZoneInfo zone;
  zone.daylightInEffect = fields.tm_isdst > 0;
  zone.daylightBias = DaylightMinutes;
  zone.bias = static_cast<int>(fields.tm_gmtoff / 60) - (zone.daylightInEffect ? DaylightMinutes : 0);
  return zone;
}

DateTime::DateTime(unsigned long year, unsigned long month, unsigned long day, unsigned long hours,
                   unsigned long minutes, unsigned long seconds, unsigned long milliseconds) noexcept {
  setYear(year);
  setMonth(month);
  setDay(day);
  setHours(hours);
  setMinutes(minutes);
  setSeconds(seconds);
  setMilliseconds(milliseconds);
}

uint64_t DateTime::field(unsigned shift, unsigned bits) const noexcept {
  return m_raw >> shift & ((uint64_t{1} << bits) - 1);
}

void DateTime::setField(unsigned shift, unsigned bits, uint64_t value) noexcept {
  const uint64_t mask = ((uint64_t{1} << bits) - 1) << shift;
  m_raw = (m_raw & ~mask) | (value << shift & mask);
}

unsigned long DateTime::year() const noexcept {
  return std::clamp<unsigned long>(field(Year.shift, Year.bits), MinYear, MaxYear);
}
unsigned long DateTime::month() const noexcept {
  return std::clamp<unsigned long>(field(Month.shift, Month.bits), 1, 12);
}
unsigned long DateTime::day() const noexcept {
  return std::max<unsigned long>(field(Day.shift, Day.bits), 1);
}
unsigned long DateTime::hours() const noexcept {
  return field(Hours.shift, Hours.bits);
}
unsigned long DateTime::minutes() const noexcept {
  return std::min<unsigned long>(field(Minutes.shift, Minutes.bits), 59);
}
unsigned long DateTime::seconds() const noexcept {
  return std::min<unsigned long>(field(Seconds.shift, Seconds.bits), 59);
}
unsigned long DateTime::milliseconds() const noexcept {
  return std::min<unsigned long>(field(Milliseconds.shift, Milliseconds.bits), 999);
}

void DateTime::setYear(unsigned long year) noexcept {
  setField(Year.shift, Year.bits, std::clamp(year, MinYear, MaxYear));
}
void DateTime::setMonth(unsigned long month) noexcept {
  setField(Month.shift, Month.bits, std::clamp(month, 1ul, 12ul));
}
void DateTime::setDay(unsigned long day) noexcept {
  setField(Day.shift, Day.bits, std::clamp(day, 1ul, 31ul));
}
void DateTime::setHours(unsigned long hours) noexcept {
  setField(Hours.shift, Hours.bits, std::min(hours, 31ul));
}
void DateTime::setMinutes(unsigned long minutes) noexcept {
  setField(Minutes.shift, Minutes.bits, std::min(minutes, 59ul));
}
void DateTime::setSeconds(unsigned long seconds) noexcept {
  setField(Seconds.shift, Seconds.bits, std::min(seconds, 59ul));
}
void DateTime::setMilliseconds(unsigned long milliseconds) noexcept {
  setField(Milliseconds.shift, Milliseconds.bits, std::min(milliseconds, 999ul));
}

int64_t DateTime::toMillisecondsSinceEpoch() const noexcept {
  static constexpr int64_t DaysBefore[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  const unsigned long y = year();
  const auto leapDays =
      static_cast<int64_t>(numLeapYearsBefore(y)) - static_cast<int64_t>(numLeapYearsBefore(1970));
  int64_t days = (static_cast<int64_t>(y) - 1970) * 365 + leapDays + DaysBefore[month() - 1];
  if (month() > 2 && isLeapYear())
    ++days;
  days += static_cast<int64_t>(day()) - 1;
  const auto seconds = static_cast<int64_t>((hours() * 60 + minutes()) * 60 + this->seconds());
  return days * static_cast<int64_t>(MsPerDay) + seconds * 1000 + static_cast<int64_t>(milliseconds());
}

uint64_t DateTime::toMilliseconds() const noexcept {
  return static_cast<uint64_t>(toMillisecondsSinceEpoch() + EpochMs);
}

DateTime DateTime::fromMilliseconds(uint64_t milliseconds) noexcept {
  static const DateTime last(MaxYear, 12, 31, 23, 59, 59, 999);
  static const uint64_t lastMs = last.toMilliseconds();
  if (milliseconds >= lastMs)
    return last;
  using namespace std::chrono;
  const sys_days date{
      days{static_cast<int64_t>(milliseconds / MsPerDay) - EpochMs / static_cast<int64_t>(MsPerDay)}};
  const year_month_day fields{date};
  const auto rest = static_cast<unsigned long>(milliseconds % MsPerDay);
  return DateTime(fieldOf(static_cast<int>(fields.year())), static_cast<unsigned>(fields.month()),
                  static_cast<unsigned>(fields.day()), rest / 3'600'000, rest / 60'000 % 60, rest / 1000 % 60,
                  rest % 1000);
}

int64_t DateTime::getDeltaMs(const DateTime& a, const DateTime& b) noexcept {
  return a.toMillisecondsSinceEpoch() - b.toMillisecondsSinceEpoch();
}

uint64_t DateTime::getMsInYear(unsigned long year) noexcept {
  return MsPerDay * (isLeapYear(year) ? 366 : 365);
}

bool DateTime::isLeapYear(unsigned long year) noexcept {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

unsigned long DateTime::numLeapYearsBefore(unsigned long year) noexcept {
  const unsigned long full = year > 0 ? year - 1 : 0;
  return full / 4 - full / 100 + full / 400;
}

DateTime& DateTime::addSeconds(int64_t seconds) noexcept {
  constexpr auto LargestStep = static_cast<int64_t>(1)
                               << 50; // Beyond the whole range, and no overflow when scaled.
  const int64_t step = std::clamp(seconds, -LargestStep, LargestStep) * 1000;
  const int64_t sum = static_cast<int64_t>(toMilliseconds()) + step;
  *this = fromMilliseconds(static_cast<uint64_t>(std::max<int64_t>(sum, 0)));
  return *this;
}

DateTime DateTime::fromXSD(const FastString& text) {
  int year = 0, month = 0, day = 0, hours = 0, minutes = 0, seconds = 0, milliseconds = 0;
  char zoneSign = 0;
  int zoneHours = 0, zoneMinutes = 0;
  if (std::sscanf(text.c_str(), "%d-%2d-%2dT%2d:%2d:%2d.%3d%c%2d:%2d", &year, &month, &day, &hours, &minutes,
                  &seconds, &milliseconds, &zoneSign, &zoneHours, &zoneMinutes) < 7 &&
      std::sscanf(text.c_str(), "%d-%2d-%2dT%2d:%2d:%2d%c%2d:%2d", &year, &month, &day, &hours, &minutes,
                  &seconds, &zoneSign, &zoneHours, &zoneMinutes) < 6) {
    debug::Log::error("dateTime", "Failed to parse date '" + text + "'", qvc_Success);
    return {};
  }
  DateTime result(fieldOf(year), fieldOf(month), fieldOf(day), fieldOf(hours), fieldOf(minutes),
                  fieldOf(seconds), fieldOf(milliseconds));
  const int offset = zoneHours * 3600 + zoneMinutes * 60;
  result.addSeconds(zoneSign == '-' ? -offset : offset);
  return result;
}

FastString DateTime::toXSD(bool withMilliseconds, const TimeZoneInfo* zone) const {
  FastString text = FastString::format("%.4lu-%.2lu-%.2luT%.2lu:%.2lu:%.2lu", year(), month(), day(), hours(),
                                       minutes(), seconds());
  if (withMilliseconds)
    text += FastString::format(".%.3lu", milliseconds());
  if (!zone)
    return text += 'Z';
  const int bias = zone->totalBias();
  return text += FastString::format("%+.2d:%.2d", bias / 60, std::abs(bias % 60));
}

} // namespace qvc
