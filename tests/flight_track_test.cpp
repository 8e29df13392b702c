// The analysis on flights whose shape is known, its statistics and memory
// failures, and the takeoff and landing trim on a hop with known seconds.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/memory.h"
#include "core/run.h"
#include "flight_support.h"
#include "geo/conv.h"
#include "support.h"
#include "track/analysis.h"

namespace {

using flights::PointAt;

double Geodesic(const TrackPoint& a, const TrackPoint& b) {
  GeoPos g[2];
  ConvertArcToGeoPos(a.lLatitude, a.lLongitude, &g[0].latitude, &g[0].longitude);
  ConvertArcToGeoPos(b.lLatitude, b.lLongitude, &g[1].latitude, &g[1].longitude);
  double d = -1.0;
  EXPECT_EQ(CalcDistance(g[0], g[1], &d), 0);
  return d;
}

struct Analysis {
  std::vector<TrackPoint> points;
  FlightAnalysis record{};
  std::string out;
  int32_t result = 0;
};

Analysis Analyze(std::vector<TrackPoint> points) {
  Analysis a;
  a.points = std::move(points);
  a.record.nPoints = static_cast<int32_t>(a.points.size());
  a.record.pPoints = a.points.data();
  testing::internal::CaptureStdout();
  a.result = AnalyzeTrack(&a.record);
  a.out = testing::internal::GetCapturedStdout();
  return a;
}

bool Empty(const DistanceResult& r) {
  DistanceResult zero{};
  zero.nPoints = r.nPoints;
  return std::memcmp(&zero, &r, sizeof r) == 0;
}

// The stored distances, recomputed from the stored indices.
void ExpectStoredDistances(const Analysis& a, const DistanceResult& r, bool triangle) {
  const TrackPoint* p = a.points.data();
  const int32_t* i = r.anIndex;
  for (int32_t m = 0; m + 1 < r.nPoints; ++m) EXPECT_LT(i[m], i[m + 1]);
  if (triangle) {
    const double legs[4] = {Geodesic(p[i[1]], p[i[2]]), Geodesic(p[i[2]], p[i[3]]), Geodesic(p[i[3]], p[i[1]]),
                            Geodesic(p[i[0]], p[i[4]])};
    for (int m = 0; m < 4; ++m) EXPECT_DOUBLE_EQ(r.adDistance[m], legs[m]) << m;
    EXPECT_DOUBLE_EQ(r.dSum, legs[0] + legs[1] + legs[2] - legs[3]);
    EXPECT_LT(legs[3], 800.0);
  } else if (r.nPoints == 3 && &r == &a.record.tOutAndReturn) {
    const double out = Geodesic(p[i[0]], p[i[1]]), gap = Geodesic(p[i[0]], p[i[2]]);
    EXPECT_DOUBLE_EQ(r.adDistance[0], out);
    EXPECT_DOUBLE_EQ(r.adDistance[1], gap);
    EXPECT_DOUBLE_EQ(r.dSum, 2 * out - gap);
    EXPECT_LE(gap, 800.0);
  } else {
    double sum = 0.0;
    for (int32_t m = 0; m + 1 < r.nPoints; ++m) {
      EXPECT_DOUBLE_EQ(r.adDistance[m], Geodesic(p[i[m]], p[i[m + 1]])) << m;
      sum += r.adDistance[m];
    }
    EXPECT_DOUBLE_EQ(r.dSum, sum);
  }
}

// Shapes start and end a little off their first corner, as flights do (a
// corner never doubles as the start or the end).
TEST(AnalysisShapes, TrianglesOutAndReturnAndStraightLines) {
  const double h = 6000.0 * std::sqrt(3.0) / 2.0;
  Analysis a = Analyze(flights::Path({{300, 100}, {0, 0}, {6000, 0}, {3000, h}, {0, 0}, {300, 100}}, 100.0, 10));
  ASSERT_EQ(a.result, 0);
  EXPECT_EQ(a.out, "Computing statistics\nFinding greatest out-and-return (gap = 800m)\n"
                   "Finding greatest triangles (gap = 800m)\n");
  ExpectStoredDistances(a, a.record.tFlatTriangle, true);
  for (int m = 0; m < 3; ++m) EXPECT_NEAR(a.record.tFlatTriangle.adDistance[m], 6000.0, 40.0) << m;
  EXPECT_NEAR(a.record.tFlatTriangle.dSum, 18000.0, 100.0);
  EXPECT_EQ(std::memcmp(&a.record.tFlatTriangle, &a.record.tFaiTriangle, sizeof(DistanceResult)), 0);

  // Sides 5400, 7300, 7300 m: the shortest is 27 % of the perimeter.
  const double tall = std::sqrt(7300.0 * 7300.0 - 2700.0 * 2700.0);
  a = Analyze(flights::Path({{-10, 0}, {0, 0}, {5400, 0}, {2700, tall}, {10, 0}, {20, 0}}, 1e9, 600));
  const DistanceResult& flat = a.record.tFlatTriangle;
  ExpectStoredDistances(a, flat, true);
  EXPECT_NEAR(std::min({flat.adDistance[0], flat.adDistance[1], flat.adDistance[2]}) /
                  (flat.adDistance[0] + flat.adDistance[1] + flat.adDistance[2]), 0.27, 0.003);
  EXPECT_NEAR(flat.dSum, 20000.0, 120.0);
  EXPECT_TRUE(Empty(a.record.tFaiTriangle));

  const std::vector<TrackPoint> outAndBack = flights::Path({{0, 0}, {0, 10000}, {0, 0}}, 100.0, 10);
  a = Analyze(outAndBack);
  const DistanceResult& oar = a.record.tOutAndReturn;
  ExpectStoredDistances(a, oar, false);
  EXPECT_EQ(std::vector<int32_t>(oar.anIndex, oar.anIndex + 3), (std::vector<int32_t>{0, 100, 200}));
  EXPECT_NEAR(oar.adDistance[0], 10000.0, 60.0);
  EXPECT_EQ(oar.adDistance[1], 0.0);
  EXPECT_TRUE(Empty(a.record.tFaiTriangle));  // out and back along one line

  // Points 1 km apart: no two of them within 800 m.
  const std::vector<TrackPoint> line = flights::Path({{0, 0}, {0, 20000}}, 1000.0, 60);
  a = Analyze(line);
  EXPECT_TRUE(Empty(a.record.tOutAndReturn));
  EXPECT_TRUE(Empty(a.record.tFlatTriangle));
  EXPECT_TRUE(Empty(a.record.tFaiTriangle));
  for (const DistanceResult* r : {&a.record.tOpenDistance, &a.record.tThreePoint, &a.record.tFourPoint, &a.record.tFivePoint}) {
    ExpectStoredDistances(a, *r, false);
    EXPECT_NEAR(r->dSum, Geodesic(line.front(), line.back()), 0.01) << r->nPoints;
    EXPECT_EQ(r->anIndex[0], 0) << r->nPoints;
    EXPECT_EQ(r->anIndex[r->nPoints - 1], 20) << r->nPoints;
  }
}

// The planar closing test is strict on rounded metres: the same start and
// end give a shape at 799 m and none at 800 m.
TEST(AnalysisShapes, PlanarGapOf800MetresIsRefused) {
  auto flight = [](double east) {
    return std::vector<TrackPoint>{PointAt(1000, {0, 0}, 900), PointAt(1600, {0, 3000}, 900), PointAt(2200, {east, 0}, 900)};
  };
  auto planar = [&flight](double east) {  // projected about the meridian halfway between the extremes
    std::vector<TrackPoint> f = flight(east);
    GeoPos s, e;
    ConvertArcToGeoPos(f[0].lLatitude, f[0].lLongitude, &s.latitude, &s.longitude);
    ConvertArcToGeoPos(f[2].lLatitude, f[2].lLongitude, &e.latitude, &e.longitude);
    const MapPos ms = ConvertGeoToMapPos(s, (s.longitude + e.longitude) / 2), me = ConvertGeoToMapPos(e, (s.longitude + e.longitude) / 2);
    return std::hypot(ms.x - me.x, ms.y - me.y);
  };
  for (uint32_t rounded : {799u, 800u}) {
    double lo = 700.0, hi = 900.0;
    for (int i = 0; i < 60; ++i) (planar((lo + hi) / 2) < rounded ? lo : hi) = (lo + hi) / 2;
    ASSERT_EQ(static_cast<uint32_t>(planar(hi + 0.01) + 0.5), rounded);
    Analysis a = Analyze(flight(hi + 0.01));
    EXPECT_EQ(Empty(a.record.tOutAndReturn), rounded == 800) << rounded;
    EXPECT_EQ(Empty(a.record.tFlatTriangle), rounded == 800) << rounded;
  }
}

// A point `distance` metres (geodesic, to a centimetre) east of `from`.
TrackPoint EastOf(const TrackPoint& from, double distance, uint32_t time) {
  double lo = distance * 0.9, hi = distance * 1.1;
  for (int i = 0; i < 60; ++i) (Geodesic(from, PointAt(time, {(lo + hi) / 2, 0}, 900)) < distance ? lo : hi) = (lo + hi) / 2;
  return PointAt(time, {hi, 0}, 900);
}

// On the full track the out-and-return takes a closing gap up to 800.0 m,
// the triangles only below; the FAI rule refuses a 27 % side.
TEST(AnalysisShapes, RefinementLimits) {
  for (const auto& [gap, start] : {std::pair{799.95, 0}, {800.05, 1}}) {
    const TrackPoint far = PointAt(1000, {0, 0}, 900);
    std::vector<TrackPoint> points = {far, PointAt(1100, {400, -300}, 900), PointAt(2000, {400, -5000}, 900),
                                      EastOf(far, gap, 3000)};
    FlightAnalysis record{};
    record.nPoints = 4;
    record.pPoints = points.data();
    int32_t i[3] = {1, 2, 3};
    CheckOutAndReturn(&record, &i[0], &i[1], &i[2]);
    EXPECT_EQ(std::vector<int32_t>(i, i + 3), (std::vector<int32_t>{start, 2, 3})) << gap;
  }
  for (const auto& [gap, third] : {std::pair{799.99, 4}, {800.01, 3}}) {
    const TrackPoint start = PointAt(1000, {0, 0}, 900);
    std::vector<TrackPoint> points = {start, PointAt(1100, {0, 100}, 900), PointAt(2000, {5000, 100}, 900),
                                      PointAt(3000, {2500, 4000}, 900), PointAt(3100, {2500, 4500}, 900),
                                      EastOf(start, gap, 4000)};
    FlightAnalysis record{};
    record.nPoints = 6;
    record.pPoints = points.data();
    int32_t i[5] = {0, 1, 2, 3, 5};
    CheckFlatTriangle(&record, &i[0], &i[1], &i[2], &i[3], &i[4]);
    EXPECT_EQ(std::vector<int32_t>(i, i + 5), (std::vector<int32_t>{0, 1, 2, third, 5})) << gap;
  }
  const double h = std::sqrt(7300.0 * 7300.0 - 2700.0 * 2700.0);
  std::vector<TrackPoint> points = {PointAt(1000, {0, 0}, 900),    PointAt(1100, {0, 0}, 900),
                                    PointAt(2000, {5400, 0}, 900), PointAt(3000, {2700, 5400 * 0.8660254}, 900),
                                    PointAt(3500, {2700, h}, 900), PointAt(4000, {0, 10}, 900), PointAt(4100, {0, 10}, 900)};
  FlightAnalysis record{};
    record.nPoints = 7;
    record.pPoints = points.data();
  int32_t flat[5] = {0, 1, 2, 4, 6}, fai[5] = {0, 1, 2, 4, 6};
  CheckFlatTriangle(&record, &flat[0], &flat[1], &flat[2], &flat[3], &flat[4]);
  CheckFaiTriangle(&record, &fai[0], &fai[1], &fai[2], &fai[3], &fai[4]);
  EXPECT_EQ(flat[3], 4);  // the 27 % corner: the longer perimeter
  EXPECT_EQ(fai[3], 3);   // the equilateral one
}

std::vector<TrackPoint> Northward(int32_t count, double speed, int32_t climbDecimetres) {
  std::vector<TrackPoint> points;
  for (int32_t i = 0; i < count; ++i) {
    points.push_back(PointAt(5000 + static_cast<uint32_t>(i), {0, speed * i}, 0));
    points.back().lGpsAltitude = 10000 + climbDecimetres * i;
  }
  points[0].dwFlags = kTrackPointNewSegment;
  return points;
}

TEST(AnalysisShapes, StatisticsOfSteadyFlights) {
  for (const auto& [speed, climb, best, worst] : {std::tuple{10.0, 20, 2.0, 0.0}, {10.0, -20, 0.0, -2.0}, {5.0, 0, 0.0, 0.0}}) {
    SCOPED_TRACE(climb);
    Analysis a = Analyze(Northward(300, speed, climb));
    const FlightAnalysis& r = a.record;
    EXPECT_NEAR(r.dTrackLength, Geodesic(a.points.front(), a.points.back()), 1e-4);  // legs along one meridian
    EXPECT_NEAR(r.dTrackLength, 299 * speed, 299 * speed * 0.004);
    EXPECT_EQ(r.dwDuration, 299u);
    EXPECT_DOUBLE_EQ(r.dAverageSpeed, 3.6 * r.dTrackLength / 299);
    EXPECT_NEAR(r.dTopSpeed, 3.6 * speed, 0.2);
    EXPECT_NEAR(r.dMeanSpeed, 3.6 * speed, 0.2);
    EXPECT_NEAR(r.dBestClimb, best, 1e-5);
    EXPECT_NEAR(r.dWorstSink, worst, 1e-5);
  }
  // Altitudes round half up from decimetres; the extremes start at -/+ 1000000 dm.
  for (const auto& [low, high, lowMetres, highMetres] :
       {std::tuple{14, 15, 1, 2}, {-15, -6, -1, 0}, {-16, 24, -1, 2}, {1000001, 1000002, 100000, 100000}}) {
    std::vector<TrackPoint> points = Northward(5, 10.0, 0);
    for (TrackPoint& p : points) p.lGpsAltitude = low;
    points[3].lGpsAltitude = high;
    Analysis a = Analyze(points);
    EXPECT_EQ(a.record.nLowestAltitude, lowMetres) << low;
    EXPECT_EQ(a.record.nHighestAltitude, highMetres) << high;
  }
  // Very fast during the first two seconds: no window evaluated reaches back that far.
  std::vector<TrackPoint> points = Northward(200, 10.0, 0);
  for (int32_t i = 1; i < 200; ++i) points[i] = PointAt(5000 + i, {0, 1000.0 + 10.0 * i}, 0);
  Analysis a = Analyze(points);
  EXPECT_NEAR(a.record.dTopSpeed, 36.0, 0.2);
  EXPECT_NEAR(a.record.dMeanSpeed, 36.0, 0.2);
  EXPECT_GT(a.record.dTrackLength, 2900.0);
}

TEST(AnalysisShapes, WindowsStopAtSegmentStartsAndTimeGoingBackAndSkipEqualTimes) {
  std::vector<TrackPoint> points = Northward(200, 10.0, 10);
  double speed = -1.0, climb = 7.5;
  CalculateMeanSpeed(points.data(), 199, &speed, &climb);
  EXPECT_NEAR(speed, 36.0, 0.2);
  EXPECT_NEAR(climb, 1.0, 1e-5);
  points[180].dwFlags = kTrackPointNewSegment;  // 19 s before the end: 190 m times 0.06, not rescaled
  CalculateMeanSpeed(points.data(), 199, &speed, &climb);
  EXPECT_NEAR(speed, 0.06 * 190.0, 0.05);
  CalculateTopSpeed(points.data(), 199, &speed);
  EXPECT_NEAR(speed, 36.0, 0.2);
  climb = 7.5;  // at the segment start: no speed, the climb left alone
  CalculateMeanSpeed(points.data(), 180, &speed, &climb);
  EXPECT_EQ(speed, 0.0);
  EXPECT_EQ(climb, 7.5);
  CalculateTopSpeed(points.data(), 0, &speed);
  EXPECT_EQ(speed, 0.0);
  // A step back in time ends the window: steps 98, 97, 96 (30 m) and almost nothing more.
  std::vector<TrackPoint> back = Northward(100, 10.0, 0);
  back[95].dwTime = back[99].dwTime + 1;
  CalculateTopSpeed(back.data(), 99, &speed);
  EXPECT_NEAR(speed, 0.36 * 30.0, 0.05);
  // A point far off course with the time of the point after it is skipped.
  std::vector<TrackPoint> plain = Northward(100, 10.0, 0), detour = plain;
  detour.insert(detour.begin() + 50, PointAt(plain[50].dwTime, {5000, 0}, 0));
  double expected = 0.0;
  CalculateTopSpeed(plain.data(), 55, &expected);
  CalculateTopSpeed(detour.data(), 56, &speed);
  EXPECT_DOUBLE_EQ(speed, expected);
}

TEST(AnalysisShapes, EveryAllocationFailureEndsCleanly) {
  const std::vector<TrackPoint> flight = flights::Thermalling({600, 5, 0, 0});
  test::FailingAllocation fault;
  const Analysis whole = Analyze(flight);
  const int allocations = fault.count;
  ASSERT_GT(allocations, 10);
  const size_t statistics = offsetof(FlightAnalysis, tFivePoint) - offsetof(FlightAnalysis, dwStartTime);
  int recovered = 0;
  for (int failAt = 1; failAt <= allocations; ++failAt) {
    SCOPED_TRACE(failAt);
    fault.FailAt(failAt);
    const Analysis a = Analyze(flight);
    EXPECT_EQ(std::memcmp(&a.record.dwStartTime, &whole.record.dwStartTime, statistics), 0);
    if (a.result == 0) {  // only the windowed walks' cache is optional
      ++recovered;
      EXPECT_EQ(std::memcmp(&a.record.dwStartTime, &whole.record.dwStartTime,
                            sizeof a.record - offsetof(FlightAnalysis, dwStartTime)), 0);
      EXPECT_EQ(a.out, whole.out);
    } else {
      EXPECT_EQ(a.result, -1);
      EXPECT_NE(a.out.find("Memory allocation error\n"), std::string::npos);
      for (const DistanceResult* r : {&a.record.tFivePoint, &a.record.tOpenDistance, &a.record.tFaiTriangle}) {
        EXPECT_TRUE(Empty(*r));
      }
    }
  }
  EXPECT_EQ(recovered, 3);
}

// --- trim ----------------------------------------------------------------------

constexpr uint32_t kStart = 1000000000;  // 01:46:40

// Standing 120 s, a 6 m/s run for 20 s, flying north at 10 m/s and climbing
// 1 m/s, landing and standing 120 s; one point a second, the index is the second.
std::vector<TrackPoint> Hop() {
  std::vector<TrackPoint> points;
  uint32_t t = kStart;
  double north = 0.0;
  for (int i = 0; i < 120; ++i) points.push_back(PointAt(t++, {(i % 3) * 1.0, 0}, 1000));
  for (int i = 0; i < 20; ++i) points.push_back(PointAt(t++, {0, north += 6.0}, 1000));
  for (int i = 0; i < 300; ++i) points.push_back(PointAt(t++, {0, north += 10.0}, 1000 + i));
  for (int i = 0; i < 120; ++i) points.push_back(PointAt(t++, {(i % 2) * 1.0, north}, 1300));
  points[0].dwFlags = kTrackPointNewSegment;
  return points;
}

// Location interval, distance; takeoff interval, distance, prepend; box
// radius, height, prepend; landing interval, distance, append.
std::string Trim(const std::vector<int32_t>& settings, const std::vector<TrackPoint>& points, int32_t* result) {
  test::FreshRunParameters();
  int32_t* fields[] = {&tGps.nTrimLocationInterval, &tGps.nTrimLocationDistance, &tGps.nTrimTakeoffInterval,
                       &tGps.nTrimTakeoffDistance,  &tGps.nTrimTakeoffPrepend,   &tGps.nTrimTakeoffBoxRadius,
                       &tGps.nTrimTakeoffBoxHeight, &tGps.nTrimTakeoffBoxPrepend, &tGps.nTrimLandingInterval,
                       &tGps.nTrimLandingDistance,  &tGps.nTrimLandingAppend};
  for (size_t k = 0; k < settings.size(); ++k) *fields[k] = settings[k];
  flights::LoadTrack(points);
  testing::internal::CaptureStdout();
  *result = TrimTrack();
  return testing::internal::GetCapturedStdout();
}

std::string Clock(uint32_t seconds) {
  const uint32_t t = 6400 + seconds;
  char text[16];
  std::snprintf(text, sizeof text, "%02u:%02u:%02u", t / 3600, t / 60 % 60, t % 60);
  return text;
}

std::vector<uint32_t> Kept() {
  std::vector<uint32_t> t;
  for (const TrackPoint& p : flights::LoadedTrack()) t.push_back(p.dwTime - kStart);
  return t;
}

TEST(TrackTrim, DetectsTakeoffAndLandingOnAHop) {
  struct Case {
    std::vector<int32_t> settings;
    std::vector<std::pair<uint32_t, const char*>> lines;  // second, label
    uint32_t first, last;                                 // seconds kept
  } cases[] = {
      {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
       {{0, "First logged position"}, {0, "Start point"}, {0, "Takeoff"}, {559, "Landing"}}, 0, 559},
      // Still for the first 60 s; 54 m in 10 s from second 118; 102 m from
      // the start point at second 136; 20 m in the last 60 s before 497.
      {{60, 50, 10, 50, 30, 100, 30, 30, 60, 20, 30},
       {{0, "First logged position"}, {60, "Start point"}, {118, "Speed takeoff detected"}, {88, "Speed takeoff"},
        {136, "Box exit takeoff detected (distance from start point)"}, {106, "Box exit takeoff"}, {88, "Takeoff"},
        {497, "Landing detected"}, {527, "Landing"}}, 88, 527},
      {{0, 0, 0, 0, 0, 100, 30, 0, 0, 0, 0},
       {{0, "First logged position"}, {0, "Start point"}, {136, "Box exit takeoff detected (distance from start point)"},
        {136, "Box exit takeoff"}, {0, "Takeoff"}, {559, "Landing"}}, 0, 559},
      {{0, 0, 10, 50, 0, 100000, 10, 0, 0, 0, 0},
       {{0, "First logged position"}, {0, "Start point"}, {118, "Speed takeoff detected"}, {118, "Speed takeoff"},
        {150, "Box exit takeoff detected (altitude above start point)"}, {150, "Box exit takeoff"}, {118, "Takeoff"},
        {559, "Landing"}}, 118, 559},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.settings[0]);
    int32_t result = -1;
    std::string expected = "\nTrack trim results:\n";
    for (const auto& [second, label] : c.lines) expected += Clock(second) + " " + label + "\n";
    EXPECT_EQ(Trim(c.settings, Hop(), &result), expected + Clock(559) + " Last logged position\n\n");
    ASSERT_EQ(result, 0);
    const std::vector<uint32_t> kept = Kept();
    ASSERT_EQ(kept.size(), c.last - c.first + 1);
    EXPECT_EQ(kept.front(), c.first);
    EXPECT_EQ(kept.back(), c.last);
    EXPECT_EQ(tGps.nTrackCapacity, tGps.nTrackPoints);
  }
}

TEST(TrackTrim, PrependZeroTakesInPointsOfTheSameSecond) {
  // The speed takeoff fires at the third point of second 3 (1000 m to the
  // point of second 4), the box at second 4 (800 m from the start).
  const uint32_t seconds[] = {0, 1, 2, 3, 3, 3, 4, 5, 6};
  const double north[] = {0, 10, 300, 700, 700, 0, 1000, 1010, 1020};
  std::vector<TrackPoint> points;
  for (size_t i = 0; i < 9; ++i) points.push_back(PointAt(kStart + seconds[i], {0, north[i]}, 1000));
  int32_t result = -1;
  const std::string out = Trim({0, 0, 1, 500, 0, 800, 100, 0, 0, 0, 0}, points, &result);
  EXPECT_NE(out.find(Clock(3) + " Speed takeoff detected\n" + Clock(3) + " Speed takeoff\n" + Clock(4) +
                     " Box exit takeoff detected (distance from start point)\n"), std::string::npos) << out;
  EXPECT_EQ(Kept(), (std::vector<uint32_t>{3, 3, 3, 4, 5, 6}));
  EXPECT_EQ(tGps.pTrackPoints[0].lLatitude, points[3].lLatitude);
}

TEST(TrackTrim, SinglePointAndAllocationFailure) {
  const std::vector<int32_t> example = {60, 50, 10, 50, 30, 100, 30, 30, 60, 20, 30};
  int32_t result = -1;
  std::string expected = "\nTrack trim results:\n";
  for (const char* label : {"First logged position", "Start point", "Takeoff", "Landing", "Last logged position\n"}) {
    expected += Clock(7) + " " + label + "\n";
  }
  EXPECT_EQ(Trim(example, {PointAt(kStart + 7, {0, 0}, 1000)}, &result), expected);
  EXPECT_EQ(Kept(), std::vector<uint32_t>{7});
  // Every allocation failing: the distance bounds fall back to measuring,
  // the trimmed copy cannot be made and the log stays as it was.
  pAllocate = [](size_t) -> void* { return nullptr; };
  const std::string out = Trim(example, Hop(), &result);
  pAllocate = std::malloc;
  EXPECT_EQ(result, -1);
  EXPECT_NE(out.find(Clock(88) + " Takeoff\n"), std::string::npos);
  EXPECT_TRUE(out.ends_with(" Last logged position\n\nMemory allocation error\n")) << out;
  EXPECT_EQ(tGps.nTrackPoints, 560);
  test::FreshRunParameters();
}

}  // namespace
