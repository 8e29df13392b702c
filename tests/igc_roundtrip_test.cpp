// Real flights through the reader, the writer and the reader again.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "support.h"

namespace {

std::string Flight(const std::string& name) { return test::ReadFile(std::string(KESTRIX_TEST_DATA) + "/igc/" + name); }

int32_t DecodeText(const std::string& text, std::string* out = nullptr, char* pilotField = nullptr) {
  std::vector<uint8_t> bytes(text.begin(), text.end());
  testing::internal::CaptureStdout();
  const int32_t result =
      DecodeIgcBuffer(bytes.data(), static_cast<int32_t>(bytes.size()), pilotField, pilotField != nullptr ? 50 : 0);
  const std::string printed = testing::internal::GetCapturedStdout();
  if (out != nullptr) *out = printed;
  return result;
}

std::vector<TrackPoint> CurrentLog() { return {tGps.pTrackPoints, tGps.pTrackPoints + tGps.nTrackPoints}; }

std::string EncodeLog(const std::vector<TrackPoint>& points) {
  char* text = nullptr;
  const int32_t n = EncodeIgcLog(points.data(), static_cast<uint32_t>(points.size()), "Pilot", "Wing", "X1", "Open",
                                 "Hill", "Instrument SN 1", nullptr, nullptr, 0, 1000000000u, &text, 1);
  EXPECT_GT(n, 0);
  if (n <= 0) return {};
  std::string s(text, static_cast<size_t>(n));
  std::free(text);
  return s;
}

// What a GNSS altitude of whole metres becomes after writing and reading:
// exact from 0 to 9999 m; below zero the writer's rounding adds one metre;
// the decimetre limits clamp the rest.
int32_t RewrittenGnssDecimetres(int32_t decimetres) {
  const int32_t metres = decimetres / 10;
  if (metres >= 10000) return 999990;
  if (metres <= -1000) return -99990;
  return metres < 0 ? (metres + 1) * 10 : decimetres;
}

struct RealFlight {
  const char* file;
  int32_t points;      // B records in the file
  int32_t gRecords;    // G lines in the file
  uint32_t duration;   // first to last fix, seconds, midnight counted
  SystemTime first;    // date line plus the first fix's time
  double latitude;     // first fix, degrees
  double longitude;
};

const RealFlight kFlights[] = {
    {"pg-flyskyhy-8h-midnight.igc", 28399, 3, 7 * 3600 + 53 * 60 + 26, {2024, 2, 9, 23, 43, 25},
     -(36 + 42.978 / 60), 147 + 7.370 / 60},
    {"gl-xcsoar-midnight-lf-task.igc", 6752, 8, 5 * 3600 + 59 * 60 + 44, {2016, 11, 8, 22, 43, 17},
     -(44 + 29.252 / 60), 169 + 59.323 / 60},
    {"gl-flarm-crcrlf.igc", 5912, 1, 6 * 3600 + 37 * 60 + 52, {2008, 8, 16, 10, 11, 31}, 55 + 15.092 / 60,
     12 + 4.239 / 60},
    {"pg-flytec6030-task.igc", 4588, 4, 3 * 3600 + 51 * 60 + 11, {2008, 6, 7, 11, 29, 20}, 40 + 15.394 / 60,
     -(4 + 54.348 / 60)},
    {"hg-fai5-xctrack-10min.igc", 583, 4, 9 * 60 + 42, {2020, 9, 4, 16, 27, 53}, 48 + 45.381 / 60, 8 + 24.437 / 60},
    {"pg-iqbasic-8s.igc", 194, 1, 27 * 60 + 5, {2023, 10, 4, 14, 30, 7}, 48 + 5.947 / 60, 16 + 56.479 / 60},
    {"pg-minimal-header-20s.igc", 1699, 0, 9 * 3600 + 26 * 60, {2003, 5, 31, 7, 47, 16}, 45 + 21.888 / 60,
     6 + 33.473 / 60},
    {"pg-skytraxx-13min.igc", 221, 1, 3 * 60 + 40, {2021, 3, 6, 10, 34, 11}, 50 + 12.954 / 60, 5 + 30.990 / 60},
};

void PrintTo(const RealFlight& f, std::ostream* os) { *os << f.file; }

class IgcRoundTrip : public testing::TestWithParam<RealFlight> {
 protected:
  void SetUp() override { test::FreshRunParameters(); }
  void TearDown() override { test::FreshRunParameters(); }
};

TEST_P(IgcRoundTrip, DecodesEncodesAndDecodesToTheSamePoints) {
  const RealFlight& f = GetParam();
  const std::string text = Flight(f.file);
  ASSERT_FALSE(text.empty()) << f.file;
  std::string printed;
  ASSERT_EQ(DecodeText(text, &printed), f.gRecords) << printed;
  EXPECT_EQ(printed, "");
  const std::vector<TrackPoint> original = CurrentLog();
  ASSERT_EQ(static_cast<int32_t>(original.size()), f.points);

  SystemTime first{};
  ConvertGpsTimeToSystemTime(original.front().dwTime, &first);
  EXPECT_EQ(first.wYear, f.first.wYear);
  EXPECT_EQ(first.wMonth, f.first.wMonth);
  EXPECT_EQ(first.wDay, f.first.wDay);
  EXPECT_EQ(first.wHour * 3600 + first.wMinute * 60 + first.wSecond,
            f.first.wHour * 3600 + f.first.wMinute * 60 + f.first.wSecond);
  EXPECT_EQ(original.back().dwTime - original.front().dwTime, f.duration);
  double lat = 0.0, lon = 0.0;
  ConvertArcToGeoPos(original.front().lLatitude, original.front().lLongitude, &lat, &lon);
  EXPECT_NEAR(lat * 180.0 / 3.14159265358979323846, f.latitude, 1e-7);
  EXPECT_NEAR(lon * 180.0 / 3.14159265358979323846, f.longitude, 1e-7);

  const std::string rewritten = EncodeLog(original);
  ASSERT_EQ(DecodeText(rewritten, &printed), 1) << printed;
  const std::vector<TrackPoint> again = CurrentLog();
  ASSERT_EQ(again.size(), original.size());
  for (size_t i = 0; i < original.size(); ++i) {
    const TrackPoint& a = original[i];
    const TrackPoint& b = again[i];
    ASSERT_EQ(b.dwFlags, i == 0 ? 1u : 0u) << i;
    ASSERT_EQ(b.dwTime, a.dwTime) << i;
    // A decoded position is a whole thousandth of a minute, so it survives exactly.
    ASSERT_EQ(b.lLatitude, a.lLatitude) << i;
    ASSERT_EQ(b.lLongitude, a.lLongitude) << i;
    ASSERT_EQ(b.lPressureAltitude, a.lPressureAltitude) << i;
    ASSERT_EQ(b.lGpsAltitude, RewrittenGnssDecimetres(a.lGpsAltitude)) << i << ": " << a.lGpsAltitude;
  }
}

INSTANTIATE_TEST_SUITE_P(RealFlights, IgcRoundTrip, testing::ValuesIn(kFlights),
                         [](const testing::TestParamInfo<RealFlight>& param) {
                           std::string name = param.param.file;
                           name = name.substr(0, name.find('.'));
                           for (char& c : name) {
                             if (c == '-') c = '_';
                           }
                           return name;
                         });

TEST(IgcRealFlights, RefusedByDesign) {
  struct Case {
    const char* file;
    const char* message;
  } cases[] = {
      {"heli-flarm-timeback.igc", "Multiple A-records\n"},         // 15 logs in one file
      {"pg-syride-navv3-corrupt-lf.igc", "Pos. error 11 on line 197\n"},  // digits shifted into the N/S column
  };
  for (const Case& c : cases) {
    test::FreshRunParameters();
    std::string printed;
    EXPECT_EQ(DecodeText(Flight(c.file), &printed), -1) << c.file;
    EXPECT_EQ(printed, c.message) << c.file;
    EXPECT_EQ(tGps.pTrackPoints, nullptr);
  }
  test::FreshRunParameters();
}

TEST(IgcRealFlights, PilotNameFromAnIqBasicFlight) {
  test::FreshRunParameters();
  char field[51] = "\x01";
  ASSERT_EQ(DecodeText(Flight("pg-iqbasic-8s.igc"), nullptr, field), 1);
  EXPECT_STREQ(field, "HFPLTPILOT:Michael Hollauf");
  test::FreshRunParameters();
}

TEST(IgcRealFlights, EveryTruncationOfARealFlightFailsCleanly) {
  const std::string text = Flight("pg-skytraxx-13min.igc");
  ASSERT_FALSE(text.empty());
  int32_t previous = 0;
  for (size_t cut = 0; cut <= text.size(); cut += 7) {
    test::FreshRunParameters();
    const int32_t result = DecodeText(text.substr(0, cut));
    if (result < 0) {
      ASSERT_EQ(tGps.pTrackPoints, nullptr) << cut;
    } else {
      // Points only ever grow as more complete lines arrive.
      ASSERT_GE(tGps.nTrackPoints, previous) << cut;
      previous = tGps.nTrackPoints;
    }
  }
  EXPECT_EQ(previous, 221);
  test::FreshRunParameters();
}

// Arbitrary arc positions come back within half a thousandth of a minute.
TEST(IgcRealFlights, AnyPositionSurvivesWithinTheQuantisation) {
  std::mt19937 rng(99);
  std::uniform_int_distribution<int32_t> latitude(-1073541823, 1073541823), longitude(-2147283647, 2147283647);
  std::vector<TrackPoint> points;
  for (uint32_t i = 0; i < 3000; ++i) {
    points.push_back(TrackPoint{0, 900000000u + i, latitude(rng), longitude(rng), 0, 0});
  }
  test::FreshRunParameters();
  ASSERT_EQ(DecodeText(EncodeLog(points)), 1);
  ASSERT_EQ(tGps.nTrackPoints, 3000);
  const double halfStep = 198.8410785185 / 2 + 1;
  for (size_t i = 0; i < points.size(); ++i) {
    ASSERT_LE(std::abs(tGps.pTrackPoints[i].lLatitude - points[i].lLatitude), halfStep) << i;
    ASSERT_LE(std::abs(tGps.pTrackPoints[i].lLongitude - points[i].lLongitude), halfStep) << i;
  }
  test::FreshRunParameters();
}

}  // namespace
