// The repairs of a downloaded track log with their questions, and the
// takeoff and landing trim.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "core/run.h"
#include "flight_support.h"
#include "support.h"
#include "track/analysis.h"

namespace {

constexpr uint32_t kStart = 1000000000;  // 2021-09-08 01:46:40

// Runs `check` on `points` with `input` typed; returns what it printed.
template <typename Check>
std::string RunCheck(Check check, const std::vector<TrackPoint>& points, const std::string& input, int32_t* result) {
  flights::LoadTrack(points);
  test::FakeStdin typed(input);
  testing::internal::CaptureStdout();
  *result = check();
  return testing::internal::GetCapturedStdout();
}

std::vector<uint32_t> Times(const std::vector<TrackPoint>& points) {
  std::vector<uint32_t> t;
  for (const TrackPoint& p : points) t.push_back(p.dwTime - kStart);
  return t;
}

// Points one a second, 10 m apart, at the given offsets from kStart.
std::vector<TrackPoint> AtSeconds(const std::vector<uint32_t>& seconds) {
  std::vector<TrackPoint> points;
  for (size_t i = 0; i < seconds.size(); ++i) {
    points.push_back(flights::PointAt(kStart + seconds[i], {0, 10.0 * static_cast<double>(i)}, 1000));
  }
  return points;
}

TEST(CheckForInvalidTimeStamps, RemovesTheThreeInvalidValues) {
  test::FreshRunParameters();
  std::vector<TrackPoint> points = AtSeconds({0, 1, 2, 3, 4});
  points[1].dwTime = 0;
  points[2].dwTime = 0x7FFFFFFF;
  points[4].dwTime = 0xFFFFFFFF;
  int32_t result = 9;
  EXPECT_EQ(RunCheck(CheckForInvalidTimeStamps, points, "", &result), "3 positions with invalid timestamp have been removed\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(Times(flights::LoadedTrack()), (std::vector<uint32_t>{0, 3}));

  EXPECT_EQ(RunCheck(CheckForInvalidTimeStamps, AtSeconds({0, 1}), "", &result), "");
  EXPECT_EQ(result, 0);

  points = AtSeconds({0});
  points[0].dwTime = 0;
  EXPECT_EQ(RunCheck(CheckForInvalidTimeStamps, points, "", &result), "All positions have an invalid timestamp\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(tGps.nTrackPoints, 0);
}

// Three tracks split by segment marks: 0-9, 10-14 (an hour later), 15-19.
std::vector<TrackPoint> ThreeTracks() {
  std::vector<uint32_t> seconds;
  for (uint32_t i = 0; i < 10; ++i) seconds.push_back(i * 10);
  for (uint32_t i = 0; i < 5; ++i) seconds.push_back(3600 + i * 30);
  for (uint32_t i = 0; i < 5; ++i) seconds.push_back(7200 + i);
  std::vector<TrackPoint> points = AtSeconds(seconds);
  points[0].dwFlags = points[10].dwFlags = points[15].dwFlags = kTrackPointNewSegment;
  return points;
}

constexpr const char* kThreeTrackList =
    "Multiple tracks detected:\n"
    "1   08-09-2021   03:46:40   0:00:04\n"
    "2   08-09-2021   02:46:40   0:02:00\n"
    "3   08-09-2021   01:46:40   0:01:30\n";

TEST(CheckForMultipleTracks, SelectionsFromTheList) {
  struct Case {
    const char* typed;
    int32_t result;
    std::vector<uint32_t> firstTimes;  // first point of each kept track
    size_t kept;
    const char* after;  // printed after the list
  } cases[] = {
      {"1,3\n", 0, {0, 7200}, 15, "Select (a=all,0=none): "},
      {"3,1\n", 0, {0, 7200}, 15, "Select (a=all,0=none): "},
      {"2x\n2\n", 0, {3600}, 5, "Select (a=all,0=none): Select (a=all,0=none): "},
      {"  a  \n", 0, {0, 3600, 7200}, 20, "Select (a=all,0=none): "},
      {"A\n", 0, {0, 3600, 7200}, 20, "Select (a=all,0=none): "},
      {"0\n", -1, {}, 0, "Select (a=all,0=none): No track selected\n"},
      {"7\n", -1, {}, 0, "Select (a=all,0=none): No track selected\n"},
      {",2,,0,9\n", 0, {3600}, 5, "Select (a=all,0=none): "},
      {"\n\n1\n", 0, {7200}, 5, "Select (a=all,0=none): "},
      {"", -1, {}, 0, "Select (a=all,0=none): No track selected\n"},  // input ended
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.typed);
    test::FreshRunParameters();
    int32_t result = 9;
    const std::string out = RunCheck(CheckForMultipleTracks, ThreeTracks(), c.typed, &result);
    EXPECT_EQ(out, std::string(kThreeTrackList) + c.after);
    EXPECT_EQ(result, c.result);
    const std::vector<TrackPoint> kept = flights::LoadedTrack();
    ASSERT_EQ(kept.size(), c.kept);
    std::vector<uint32_t> starts;
    for (size_t i = 0; i < kept.size(); ++i) {
      if (i == 0 || (kept[i].dwFlags & kTrackPointNewSegment)) starts.push_back(kept[i].dwTime - kStart);
    }
    EXPECT_EQ(starts, c.firstTimes);
  }
}

TEST(CheckForMultipleTracks, GapSettings) {
  // No segment marks, one gap of 20 minutes.
  std::vector<TrackPoint> points = AtSeconds({0, 10, 20, 1220, 1230});
  struct Case {
    int32_t gap;  // seconds; -1 is the default
    bool asks;
  } cases[] = {{-1, false}, {0, false}, {1200, true}, {1201, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.gap);
    test::FreshRunParameters();
    tGps.nGapSeconds = c.gap;
    int32_t result = 9;
    const std::string out = RunCheck(CheckForMultipleTracks, points, "a\n", &result);
    EXPECT_EQ(out.find("Multiple tracks detected:") != std::string::npos, c.asks) << out;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(tGps.nTrackPoints, 5);
  }
  // With the gap switched off even segment marks do not split.
  test::FreshRunParameters();
  tGps.nGapSeconds = 0;
  int32_t result = 9;
  EXPECT_EQ(RunCheck(CheckForMultipleTracks, ThreeTracks(), "", &result), "");
}

TEST(CheckForTimestampConsistency, AsksAndRemovesOnNo) {
  const std::vector<TrackPoint> points = AtSeconds({0, 5, 10, 3, 4, 11, 10, 12});
  struct Case {
    const char* typed;
    std::vector<uint32_t> times;
  } cases[] = {{"no\n", {0, 5, 10, 11, 12}}, {"N\n", {0, 5, 10, 11, 12}}, {"n\n", {0, 5, 10, 11, 12}},
               {"yes\n", {0, 5, 10, 3, 4, 11, 10, 12}},   {"x\n", {0, 5, 10, 3, 4, 11, 10, 12}},
               {"Y\n", {0, 5, 10, 3, 4, 11, 10, 12}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.typed);
    test::FreshRunParameters();
    int32_t result = 9;
    EXPECT_EQ(RunCheck(CheckForTimestampConsistency, points, c.typed, &result),
              "3 positions have a timestamp going back in time. Keep anyway ? ");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Times(flights::LoadedTrack()), c.times);
  }
  int32_t result = 9;
  EXPECT_EQ(RunCheck(CheckForTimestampConsistency, AtSeconds({0, 1, 1, 2}), "n\n", &result), "");
}

// A steady walk at 10 m/s, one point a second.
std::vector<TrackPoint> Steady(size_t count) {
  std::vector<uint32_t> seconds;
  for (uint32_t i = 0; i < count; ++i) seconds.push_back(i);
  return AtSeconds(seconds);
}

TEST(CheckForSpeedConsistency, RemovesImpossibleJumps) {
  struct Case {
    const char* name;
    std::vector<TrackPoint> points;
    std::vector<uint32_t> kept;
    const char* out;
  };
  std::vector<Case> cases;
  {
    std::vector<TrackPoint> p = Steady(30);
    p[15] = flights::PointAt(p[15].dwTime, {20000, 150}, 1000);  // 20 km off for one second
    std::vector<uint32_t> kept;
    for (uint32_t i = 0; i < 30; ++i) {
      if (i != 15) kept.push_back(i);
    }
    cases.push_back({"spike in the middle", p, kept, "1 positions have been removed in speed analysis\n"});
  }
  {
    std::vector<TrackPoint> p = Steady(30);
    p[3] = flights::PointAt(p[3].dwTime, {20000, 30}, 1000);  // before the anchor
    std::vector<uint32_t> kept;
    for (uint32_t i = 0; i < 30; ++i) {
      if (i != 3) kept.push_back(i);
    }
    cases.push_back({"spike before the anchor", p, kept, "1 positions have been removed in speed analysis\n"});
  }
  {
    // Backwards from the anchor a point later in time than the reference
    // keeps the previous speed: a point 100 km away stays, and as the new
    // reference it costs the three points before it.
    std::vector<TrackPoint> p = Steady(30);
    p[3] = flights::PointAt(kStart + 100, {100000, 0}, 1000);
    std::vector<uint32_t> kept = {100};
    for (uint32_t i = 4; i < 30; ++i) kept.push_back(i);
    cases.push_back({"later point kept by the reused speed", p, kept, "3 positions have been removed in speed analysis\n"});
  }
  {
    // Equal times before the anchor are dropped, after it kept.
    std::vector<TrackPoint> p = Steady(30);
    p[2].dwTime = p[3].dwTime;
    p[25].dwTime = p[24].dwTime;
    std::vector<uint32_t> kept;
    for (uint32_t i = 0; i < 30; ++i) {
      if (i != 2) kept.push_back(i == 25 ? 24 : i);
    }
    cases.push_back({"equal times", p, kept, "1 positions have been removed in speed analysis\n"});
  }
  {
    std::vector<TrackPoint> p = Steady(9);
    p[5] = flights::PointAt(p[5].dwTime, {20000, 50}, 1000);
    cases.push_back({"nine points are not checked", p, Times(p), ""});
  }
  {
    std::vector<TrackPoint> p = Steady(10);
    p[9] = flights::PointAt(p[9].dwTime, {20000, 90}, 1000);
    // Only 9 steps: no run of 10 slow steps, no anchor, nothing removed.
    cases.push_back({"ten points without an anchor", p, Times(p), ""});
  }
  {
    // Everything at 200 m/s: 95 % beyond 99 m/s gives the limit 301 m/s,
    // so only the 1000 m/s jump goes.
    std::vector<TrackPoint> p;
    for (uint32_t i = 0; i < 40; ++i) p.push_back(flights::PointAt(kStart + i, {0, 200.0 * i}, 1000));
    p[30] = flights::PointAt(p[30].dwTime, {0, 200.0 * 30 + 700}, 1000);
    std::vector<uint32_t> kept;
    for (uint32_t i = 0; i < 40; ++i) {
      if (i != 30) kept.push_back(i);
    }
    cases.push_back({"fast flight", p, kept, "1 positions have been removed in speed analysis\n"});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::FreshRunParameters();
    int32_t result = 9;
    EXPECT_EQ(RunCheck(CheckForSpeedConsistency, c.points, "", &result), c.out);
    EXPECT_EQ(result, 0);
    const std::vector<TrackPoint> kept = flights::LoadedTrack();
    EXPECT_EQ(Times(kept), c.kept);
    for (const TrackPoint& p : kept) EXPECT_EQ(p.dwFlags & rules::kKeepMark, 0u);
  }
  // --noana skips the check.
  test::FreshRunParameters();
  tGps.bNoAnalysis = 1;
  std::vector<TrackPoint> p = Steady(30);
  p[15] = flights::PointAt(p[15].dwTime, {20000, 150}, 1000);
  int32_t result = 9;
  EXPECT_EQ(RunCheck(CheckForSpeedConsistency, p, "", &result), "");
  EXPECT_EQ(tGps.nTrackPoints, 30);
}

// --- trim --------------------------------------------------------------------

// Standing 120 s, a 6 m/s run for 20 s, flying north at 10 m/s and climbing
// 1 m/s, landing and standing 120 s; one point a second, so the index is the
// second.
std::vector<TrackPoint> Hop() {
  std::vector<TrackPoint> points;
  uint32_t t = kStart;
  double north = 0.0;
  for (int i = 0; i < 120; ++i) points.push_back(flights::PointAt(t++, {(i % 3) * 1.0, 0}, 1000));
  for (int i = 0; i < 20; ++i) points.push_back(flights::PointAt(t++, {0, north += 6.0}, 1000));
  for (int i = 0; i < 300; ++i) points.push_back(flights::PointAt(t++, {0, north += 10.0}, 1000 + i));
  for (int i = 0; i < 120; ++i) points.push_back(flights::PointAt(t++, {(i % 2) * 1.0, north}, 1300));
  points[0].dwFlags = kTrackPointNewSegment;
  return points;
}

void Configure(std::initializer_list<int32_t> values) {
  int32_t* fields[] = {&tGps.nTrimLocationInterval, &tGps.nTrimLocationDistance, &tGps.nTrimTakeoffInterval,
                       &tGps.nTrimTakeoffDistance,  &tGps.nTrimTakeoffPrepend,   &tGps.nTrimTakeoffBoxRadius,
                       &tGps.nTrimTakeoffBoxHeight, &tGps.nTrimTakeoffBoxPrepend, &tGps.nTrimLandingInterval,
                       &tGps.nTrimLandingDistance,  &tGps.nTrimLandingAppend};
  int k = 0;
  for (int32_t v : values) *fields[k++] = v;
}

std::string Clock(uint32_t seconds) {
  const uint32_t t = 6400 + seconds;  // kStart is 01:46:40
  char text[16];
  std::snprintf(text, sizeof text, "%02u:%02u:%02u", t / 3600, t / 60 % 60, t % 60);
  return text;
}

TEST(TrimTrack, DetectsTakeoffAndLanding) {
  struct Case {
    const char* name;
    std::initializer_list<int32_t> settings;
    std::vector<std::pair<uint32_t, const char*>> lines;  // second, label
    uint32_t first, last;                                 // seconds kept
  } cases[] = {
      {"all off",
       {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
       {{0, "First logged position"}, {0, "Start point"}, {0, "Takeoff"}, {559, "Landing"}, {559, "Last logged position\n"}},
       0,
       559},
      {"example settings",
       {60, 50, 10, 50, 30, 100, 30, 30, 60, 20, 30},
       // Still for the first 60 s; 54 m covered in 10 s from second 118;
       // 102 m from the start point at second 136; 20 m in the last 60 s
       // before second 497.
       {{0, "First logged position"},
        {60, "Start point"},
        {118, "Speed takeoff detected"},
        {88, "Speed takeoff"},
        {136, "Box exit takeoff detected (distance from start point)"},
        {106, "Box exit takeoff"},
        {88, "Takeoff"},
        {497, "Landing detected"},
        {527, "Landing"},
        {559, "Last logged position\n"}},
       88,
       527},
      {"only the box",
       {0, 0, 0, 0, 0, 100, 30, 0, 0, 0, 0},
       {{0, "First logged position"},
        {0, "Start point"},
        {136, "Box exit takeoff detected (distance from start point)"},
        {136, "Box exit takeoff"},
        {0, "Takeoff"},
        {559, "Landing"},
        {559, "Last logged position\n"}},
       0,
       559},
      {"box height",
       {0, 0, 10, 50, 0, 100000, 10, 0, 0, 0, 0},
       {{0, "First logged position"},
        {0, "Start point"},
        {118, "Speed takeoff detected"},
        {118, "Speed takeoff"},
        {150, "Box exit takeoff detected (altitude above start point)"},
        {150, "Box exit takeoff"},
        {118, "Takeoff"},
        {559, "Landing"},
        {559, "Last logged position\n"}},
       118,
       559},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::FreshRunParameters();
    Configure(c.settings);
    flights::LoadTrack(Hop());
    testing::internal::CaptureStdout();
    ASSERT_EQ(TrimTrack(), 0);
    std::string expected = "\nTrack trim results:\n";
    for (const auto& [second, label] : c.lines) expected += Clock(second) + " " + label + "\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
    const std::vector<uint32_t> kept = Times(flights::LoadedTrack());
    ASSERT_FALSE(kept.empty());
    EXPECT_EQ(kept.front(), c.first);
    EXPECT_EQ(kept.back(), c.last);
    EXPECT_EQ(kept.size(), c.last - c.first + 1);
    EXPECT_EQ(tGps.nTrackCapacity, tGps.nTrackPoints);
  }
}

TEST(TrimTrack, PrependZeroTakesInPointsOfTheSameSecond) {
  test::FreshRunParameters();
  // The speed takeoff fires at the third point of second 3 (1000 m to the
  // point of second 4), the box at second 4 (800 m from the start).
  const std::vector<uint32_t> seconds = {0, 1, 2, 3, 3, 3, 4, 5, 6};
  const double north[] = {0, 10, 300, 700, 700, 0, 1000, 1010, 1020};
  std::vector<TrackPoint> points;
  for (size_t i = 0; i < seconds.size(); ++i) points.push_back(flights::PointAt(kStart + seconds[i], {0, north[i]}, 1000));
  Configure({0, 0, 1, 500, 0, 800, 100, 0, 0, 0, 0});
  flights::LoadTrack(points);
  testing::internal::CaptureStdout();
  ASSERT_EQ(TrimTrack(), 0);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find(Clock(3) + " Speed takeoff detected\n" + Clock(3) + " Speed takeoff\n" + Clock(4) +
                     " Box exit takeoff detected (distance from start point)\n"),
            std::string::npos)
      << out;
  const std::vector<TrackPoint> kept = flights::LoadedTrack();
  EXPECT_EQ(Times(kept), (std::vector<uint32_t>{3, 3, 3, 4, 5, 6}));
  EXPECT_EQ(kept[0].lLatitude, points[3].lLatitude);
}

TEST(TrimTrack, SinglePointAndAllocationFailure) {
  test::FreshRunParameters();
  Configure({60, 50, 10, 50, 30, 100, 30, 30, 60, 20, 30});
  flights::LoadTrack(AtSeconds({7}));
  testing::internal::CaptureStdout();
  ASSERT_EQ(TrimTrack(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\nTrack trim results:\n" + Clock(7) + " First logged position\n" + Clock(7) + " Start point\n" + Clock(7) +
                " Takeoff\n" + Clock(7) + " Landing\n" + Clock(7) + " Last logged position\n\n");
  EXPECT_EQ(Times(flights::LoadedTrack()), (std::vector<uint32_t>{7}));

  // Every allocation failing: the distance bounds fall back to measuring,
  // the trimmed copy cannot be made and the log stays as it was.
  flights::LoadTrack(Hop());
  const TrackPoint* before = tGps.pTrackPoints;
  pAnalysisAllocate = [](size_t) -> void* { return nullptr; };
  testing::internal::CaptureStdout();
  const int32_t result = TrimTrack();
  pAnalysisAllocate = std::malloc;
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(result, -1);
  EXPECT_NE(out.find(Clock(88) + " Takeoff\n"), std::string::npos);
  EXPECT_TRUE(out.ends_with(" Last logged position\n\nMemory allocation error\n")) << out;
  EXPECT_EQ(tGps.pTrackPoints, before);
  EXPECT_EQ(tGps.nTrackPoints, 560);
}

}  // namespace
