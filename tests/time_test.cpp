// GPS time both ways and the arc conversions.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "geo/conv.h"
#include "geo/time.h"

namespace {

SystemTime Make(uint32_t y, uint32_t mo, uint32_t d, uint32_t h = 0, uint32_t mi = 0, uint32_t s = 0) {
  return SystemTime{y, mo, d, h, mi, s};
}

void ExpectSame(const SystemTime& a, const SystemTime& b) {
  EXPECT_EQ(a.wYear, b.wYear);
  EXPECT_EQ(a.wMonth, b.wMonth);
  EXPECT_EQ(a.wDay, b.wDay);
  EXPECT_EQ(a.wHour, b.wHour);
  EXPECT_EQ(a.wMinute, b.wMinute);
  EXPECT_EQ(a.wSecond, b.wSecond);
}

TEST(GpsTime, EpochAndKnownDates) {
  SystemTime t = Make(1989, 12, 31);
  EXPECT_EQ(ConvertSystemTimeToGpsTime(&t), 0u);
  t = Make(1990, 1, 1);
  EXPECT_EQ(ConvertSystemTimeToGpsTime(&t), 86400u);
  // 2000-01-01 is 3652 days after 1990-01-01, plus the epoch's extra day.
  t = Make(2000, 1, 1);
  EXPECT_EQ(ConvertSystemTimeToGpsTime(&t), 3653u * 86400u);
  t = Make(1992, 2, 29, 12, 34, 56);
  uint32_t gps = ConvertSystemTimeToGpsTime(&t);
  EXPECT_EQ(gps, (365u + 365u + 31u + 28u + 1u) * 86400u + 12u * 3600u + 34u * 60u + 56u);
  SystemTime back{};
  ConvertGpsTimeToSystemTime(gps, &back);
  ExpectSame(back, t);
  ConvertGpsTimeToSystemTime(0, &back);
  ExpectSame(back, Make(1989, 12, 31));
}

TEST(GpsTime, EveryDayFrom1990To2099ConvertsBothWays) {
  // Walk the calendar independently of the conversion under test.
  static constexpr uint32_t kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  uint32_t expected = 86400u;  // 1990-01-01
  int failures = 0;
  for (uint32_t year = 1990; year <= 2099; ++year) {
    for (uint32_t month = 1; month <= 12; ++month) {
      uint32_t days = kMonthDays[month - 1] + (month == 2 && year % 4 == 0 ? 1 : 0);
      for (uint32_t day = 1; day <= days; ++day) {
        SystemTime t = Make(year, month, day, 23, 59, 59);
        uint32_t gps = ConvertSystemTimeToGpsTime(&t);
        SystemTime back{};
        ConvertGpsTimeToSystemTime(gps, &back);
        bool ok = gps == expected + 86399u && back.wYear == year && back.wMonth == month &&
                  back.wDay == day && back.wHour == 23 && back.wMinute == 59 && back.wSecond == 59;
        SystemTime midnight{};
        ConvertGpsTimeToSystemTime(expected, &midnight);
        ok = ok && midnight.wDay == day && midnight.wHour == 0 && midnight.wSecond == 0;
        if (!ok && ++failures < 5) ADD_FAILURE() << year << "-" << month << "-" << day;
        expected += 86400u;
      }
    }
  }
  EXPECT_EQ(failures, 0);
}

TEST(GpsTime, Year2100IsTakenAsLeapDeliberately) {
  SystemTime t = Make(2100, 2, 29);
  SystemTime back{};
  ConvertGpsTimeToSystemTime(ConvertSystemTimeToGpsTime(&t), &back);
  ExpectSame(back, t);
}

TEST(Arcs, RadiansBothWaysRoundHalfAwayFromZero) {
  double lat = 0, lon = 0;
  ConvertArcToGeoPos(1 << 30, INT32_MIN, &lat, &lon);
  EXPECT_DOUBLE_EQ(lat, std::numbers::pi / 2);
  EXPECT_DOUBLE_EQ(lon, -std::numbers::pi);
  int32_t a = 0, b = 0;
  const double arc = std::numbers::pi / 2147483648.0;
  ConvertGeoToArcPos(0.5 * arc, -0.5 * arc, &a, &b);
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, -1);
  ConvertGeoToArcPos(0.49 * arc, -0.49 * arc, &a, &b);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 0);
  ConvertGeoToArcPos(std::numbers::pi / 4, -std::numbers::pi / 2, &a, &b);
  EXPECT_EQ(a, 1 << 29);
  EXPECT_EQ(b, -(1 << 30));
}

TEST(Arcs, SecondsAndMinutesScales) {
  int32_t a = 0, b = 0;
  ConvertArcToGeoMin1000(1, 100, &a, &b);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 1);  // 0.503 rounds up
  ConvertArcToGeoMin1000(-100, 1 << 30, &a, &b);
  EXPECT_EQ(a, -1);
  EXPECT_EQ(b, 5400000);  // 90 degrees
  ConvertArcToGeoSec100(1 << 30, -(1 << 30), &a, &b);
  EXPECT_EQ(a, 32400000);
  EXPECT_EQ(b, -32400000);
  ConvertArcToGeoSec100(17, -17, &a, &b);  // 0.513 hundredths
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, -1);
}

}  // namespace
