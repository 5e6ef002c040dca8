#include "qvc/DateTime.h"
#include "qvc/FastString.h"
#include "qvc/Log.h"
#include "tests/qvc/CapturedLog.h"

#include <gtest/gtest.h>

namespace qvc {
namespace {

FastString reformatted(const char* text) {
  return DateTime::fromXSD(text).toXSD(true);
}

TEST(DateTime, keepsFieldsInRange) {
  DateTime date;
  date.setYear(1500);
  EXPECT_EQ(date.getRaw(), uint64_t{1601} << 36);
  date.setYear(99999);
  date.setMonth(13);
  date.setDay(40);
  date.setHours(70);
  date.setMinutes(70);
  date.setSeconds(70);
  date.setMilliseconds(2000);
  EXPECT_EQ(date.toXSD(true), "30827-12-31T31:59:59.999Z");
  EXPECT_EQ(DateTime(uint64_t{0}).toXSD(true), "1601-01-01T00:00:00.000Z");
  EXPECT_EQ(DateTime(~uint64_t{0}).toXSD(true), "30827-12-31T31:59:59.999Z");
  EXPECT_EQ(DateTime(~uint64_t{0}).getRaw() >> 51, 0u);
}

TEST(DateTime, convertsToMillisecondsAndBack) {
  EXPECT_EQ(DateTime(1970, 1, 1, 0, 0, 0, 0).toMillisecondsSinceEpoch(), 0);
  EXPECT_EQ(DateTime(2000, 3, 1, 0, 0, 0, 1).toMillisecondsSinceEpoch(), 951868800001);
  EXPECT_EQ(DateTime(1969, 12, 31, 23, 59, 59, 0).toMillisecondsSinceEpoch(), -1000);
  EXPECT_EQ(DateTime(1601, 1, 1, 0, 0, 0, 0).toMilliseconds(), 0u);
  for (const DateTime date : {DateTime(1900, 2, 28, 1, 2, 3, 4), DateTime(2000, 2, 29, 23, 59, 59, 999),
                              DateTime(2100, 3, 1, 0, 0, 0, 0), DateTime(30827, 12, 31, 23, 59, 59, 999)})
    EXPECT_EQ(DateTime::fromMilliseconds(date.toMilliseconds()), date) << date.toXSD(true);
}

TEST(DateTime, addingSecondsStopsAtTheEnds) {
  DateTime date(2020, 2, 28, 23, 59, 59, 500);
  EXPECT_EQ(date.addSeconds(1).toXSD(true), "2020-02-29T00:00:00.500Z");
  EXPECT_EQ(DateTime(date).addSeconds(INT64_MIN).toMilliseconds(), 0u);
  EXPECT_EQ(DateTime(date).addSeconds(INT64_MAX), DateTime(30827, 12, 31, 23, 59, 59, 999));
}

TEST(DateTime, readsXsdText) {
  EXPECT_EQ(reformatted("2020-02-29T23:59:59.123Z"), "2020-02-29T23:59:59.123Z");
  EXPECT_EQ(reformatted("2020-01-01T10:00:00"), "2020-01-01T10:00:00.000Z");
  EXPECT_EQ(reformatted("2020-01-01T10:00:00.5Z"), "2020-01-01T10:00:00.005Z")
      << "the fraction counts milliseconds";
  EXPECT_EQ(reformatted("2020-01-01T10:00:00+02:00"), "2020-01-01T12:00:00.000Z");
  EXPECT_EQ(reformatted("2020-01-01T10:00:00.250-02:30"), "2020-01-01T07:30:00.250Z");
  EXPECT_EQ(reformatted("-1-01-01T00:00:00Z"), "1601-01-01T00:00:00.000Z");
}

TEST(DateTime, logsTextItCannotRead) {
  debug::CapturedLog log;
  EXPECT_TRUE(DateTime::fromXSD("2020-01-01").isNull());
  ASSERT_EQ(log.entries().size(), 1u);
  EXPECT_EQ(log.entries()[0].message, "Failed to parse date '2020-01-01'");
  EXPECT_EQ(log.entries()[0].severity, debug::MessageSeverity::ERROR);
  EXPECT_EQ(log.entries()[0].code, qvc_Success);
}

TEST(DateTime, writesTheZone) {
  const DateTime date(2014, 7, 1, 12, 0, 0, 0);
  const TimeZoneInfo summer{60, 60, true};
  EXPECT_EQ(date.toXSD(false, &summer), "2014-07-01T12:00:00+02:00");
  const TimeZoneInfo west{-210, 60, false};
  EXPECT_EQ(date.toXSD(false, &west), "2014-07-01T12:00:00-03:30");
}

} // namespace
} // namespace qvc
