// Flight statistics and the distance, out-and-return and triangle searches on
// flights whose shape is known.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "flight_support.h"
#include "geo/conv.h"
#include "track/analysis.h"

namespace {

using flights::Place;

GeoPos Geo(const TrackPoint& p) {
  GeoPos g;
  ConvertArcToGeoPos(p.lLatitude, p.lLongitude, &g.latitude, &g.longitude);
  return g;
}

double Geodesic(const TrackPoint& a, const TrackPoint& b) {
  double d = -1.0;
  EXPECT_EQ(CalcDistance(Geo(a), Geo(b), &d), 0);
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
void ExpectStoredDistances(const Analysis& a, const DistanceResult& r, const char* kind) {
  SCOPED_TRACE(kind);
  const TrackPoint* p = a.points.data();
  const int32_t* i = r.anIndex;
  for (int32_t m = 0; m + 1 < r.nPoints; ++m) {
    EXPECT_LT(i[m], i[m + 1]);
  }
  if (std::string(kind) == "triangle") {
    const double legs[4] = {Geodesic(p[i[1]], p[i[2]]), Geodesic(p[i[2]], p[i[3]]), Geodesic(p[i[3]], p[i[1]]),
                            Geodesic(p[i[0]], p[i[4]])};
    for (int m = 0; m < 4; ++m) EXPECT_DOUBLE_EQ(r.adDistance[m], legs[m]) << m;
    EXPECT_DOUBLE_EQ(r.dSum, legs[0] + legs[1] + legs[2] - legs[3]);
    EXPECT_LT(legs[3], 800.0);
  } else if (std::string(kind) == "out-and-return") {
    const double out = Geodesic(p[i[0]], p[i[1]]), gap = Geodesic(p[i[0]], p[i[2]]);
    EXPECT_DOUBLE_EQ(r.adDistance[0], out);
    EXPECT_DOUBLE_EQ(r.adDistance[1], gap);
    EXPECT_DOUBLE_EQ(r.dSum, 2 * out - gap);
    EXPECT_LE(gap, 800.0);
  } else {
    double sum = 0.0;
    for (int32_t m = 0; m + 1 < r.nPoints; ++m) {
      const double leg = Geodesic(p[i[m]], p[i[m + 1]]);
      EXPECT_DOUBLE_EQ(r.adDistance[m], leg) << m;
      sum += leg;
    }
    EXPECT_DOUBLE_EQ(r.dSum, sum);
  }
}

double ShortestSideShare(const DistanceResult& r) {
  const double perimeter = r.adDistance[0] + r.adDistance[1] + r.adDistance[2];
  return std::min({r.adDistance[0], r.adDistance[1], r.adDistance[2]}) / perimeter;
}

// The shapes start and end a little off their first corner, as flights do
// (the refinement never lets a corner double as the start or the end), and
// within the triangle, so that the corners stay the farthest points.
TEST(AnalyzeTrack, EquilateralTriangleIsBothTheFlatAndTheFaiTriangle) {
  const double h = 6000.0 * std::sqrt(3.0) / 2.0;
  Analysis a = Analyze(flights::Path({{300, 100}, {0, 0}, {6000, 0}, {3000, h}, {0, 0}, {300, 100}}, 100.0, 10));
  ASSERT_EQ(a.result, 0);
  EXPECT_EQ(a.out,
            "Computing statistics\nFinding greatest out-and-return (gap = 800m)\n"
            "Finding greatest triangles (gap = 800m)\n");
  const DistanceResult& flat = a.record.tFlatTriangle;
  ExpectStoredDistances(a, flat, "triangle");
  for (int m = 0; m < 3; ++m) EXPECT_NEAR(flat.adDistance[m], 6000.0, 40.0) << m;
  EXPECT_NEAR(flat.dSum, 18000.0, 100.0);
  EXPECT_EQ(std::memcmp(&flat, &a.record.tFaiTriangle, sizeof flat), 0);
}

TEST(AnalyzeTrack, TriangleWithA27PercentSideIsOnlyFlat) {
  // Sides 5400, 7300, 7300 m: the shortest is 27 % of the perimeter. Only
  // the corners and a start and end on the line of the short side.
  const double h = std::sqrt(7300.0 * 7300.0 - 2700.0 * 2700.0);
  Analysis a = Analyze(flights::Path({{-10, 0}, {0, 0}, {5400, 0}, {2700, h}, {10, 0}, {20, 0}}, 1e9, 600));
  ASSERT_EQ(a.result, 0);
  ExpectStoredDistances(a, a.record.tFlatTriangle, "triangle");
  EXPECT_NEAR(ShortestSideShare(a.record.tFlatTriangle), 0.27, 0.003);
  EXPECT_NEAR(a.record.tFlatTriangle.dSum, 20000.0, 120.0);
  EXPECT_TRUE(Empty(a.record.tFaiTriangle));
}

TEST(AnalyzeTrack, OutAndReturnFindsTheTurnpoint) {
  const std::vector<TrackPoint> path = flights::Path({{0, 0}, {0, 10000}, {0, 0}}, 100.0, 10);
  Analysis a = Analyze(path);
  const DistanceResult& oar = a.record.tOutAndReturn;
  ExpectStoredDistances(a, oar, "out-and-return");
  EXPECT_EQ(oar.anIndex[0], 0);
  EXPECT_EQ(oar.anIndex[1], 100);  // the far end
  EXPECT_EQ(oar.anIndex[2], static_cast<int32_t>(path.size()) - 1);
  EXPECT_NEAR(oar.adDistance[0], 10000.0, 60.0);
  EXPECT_EQ(oar.adDistance[1], 0.0);
  // Out and back along one line is no FAI triangle.
  EXPECT_TRUE(Empty(a.record.tFaiTriangle));
}

// Points 1 km apart: no two of them within 800 m.
TEST(AnalyzeTrack, StraightLineHasNoClosedShapes) {
  const std::vector<TrackPoint> path = flights::Path({{0, 0}, {0, 20000}}, 1000.0, 60);
  Analysis a = Analyze(path);
  EXPECT_TRUE(Empty(a.record.tOutAndReturn));
  EXPECT_TRUE(Empty(a.record.tFlatTriangle));
  EXPECT_TRUE(Empty(a.record.tFaiTriangle));
  const DistanceResult* open[] = {&a.record.tOpenDistance, &a.record.tThreePoint, &a.record.tFourPoint,
                                  &a.record.tFivePoint};
  const double line = Geodesic(path.front(), path.back());
  EXPECT_NEAR(line, 20000.0, 120.0);
  for (const DistanceResult* r : open) {
    ExpectStoredDistances(a, *r, "legs");
    EXPECT_NEAR(r->dSum, line, 0.01) << r->nPoints;
    EXPECT_EQ(r->anIndex[0], 0) << r->nPoints;
    EXPECT_EQ(r->anIndex[r->nPoints - 1], static_cast<int32_t>(path.size()) - 1) << r->nPoints;
  }
}

// The planar closing test is strict and works on rounded metres: the same
// start and end give a shape at 799 m and none at 800 m.
TEST(AnalyzeTrack, PlanarGapOf800MetresIsRefused) {
  for (uint32_t rounded : {799u, 800u}) {
    SCOPED_TRACE(rounded);
    // Bisect the end's offset until the projected distance rounds as wanted;
    // the projection's central meridian is halfway between the extremes.
    auto flight = [](double east) {
      return std::vector<TrackPoint>{flights::PointAt(1000, {0, 0}, 900), flights::PointAt(1600, {0, 3000}, 900),
                                     flights::PointAt(2200, {east, 0}, 900)};
    };
    auto planar = [&flight](double east) {
      std::vector<TrackPoint> f = flight(east);
      GeoPos s = Geo(f[0]), e = Geo(f[2]);
      const double meridian = (s.longitude + e.longitude) / 2.0;
      MapPos ms = ConvertGeoToMapPos(s, meridian), me = ConvertGeoToMapPos(e, meridian);
      return std::hypot(ms.x - me.x, ms.y - me.y);
    };
    double lo = 700.0, hi = 900.0;
    for (int i = 0; i < 60; ++i) (planar((lo + hi) / 2) < rounded ? lo : hi) = (lo + hi) / 2;
    const double east = hi + 0.01;  // clear of the rounding edge
    Analysis a = Analyze(flight(east));
    ASSERT_EQ(static_cast<uint32_t>(planar(east) + 0.5), rounded);
    EXPECT_EQ(Empty(a.record.tOutAndReturn), rounded == 800);
    EXPECT_EQ(Empty(a.record.tFlatTriangle), rounded == 800);
  }
}

// An end at `distance` metres (geodesic, to a centimetre) east of `from`.
TrackPoint EastOf(const TrackPoint& from, Place place, double distance, uint32_t time) {
  double lo = distance * 0.9, hi = distance * 1.1;
  TrackPoint p{};
  for (int i = 0; i < 60; ++i) {
    const double mid = (lo + hi) / 2;
    p = flights::PointAt(time, {place.east + mid, place.north}, 900);
    (Geodesic(from, p) < distance ? lo : hi) = mid;
  }
  EXPECT_NEAR(Geodesic(from, p), distance, 0.01);
  return p;
}

// Refinement on the full track: the out-and-return takes a closing gap of
// up to 800.0 m, the triangles only below. The far start wins when its gap
// counts, the near one otherwise.
TEST(Refinement, ClosingGapLimits) {
  struct Case {
    double gap;
    int32_t outAndReturnStart;
  } cases[] = {{799.95, 0}, {800.05, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.gap);
    const TrackPoint far = flights::PointAt(1000, {0, 0}, 900);
    std::vector<TrackPoint> points = {far, flights::PointAt(1100, {400, -300}, 900),
                                      flights::PointAt(2000, {400, -5000}, 900),
                                      EastOf(far, {0, 0}, c.gap, 3000)};
    FlightAnalysis record{};
    record.nPoints = 4;
    record.pPoints = points.data();
    int32_t start = 1, turn = 2, end = 3;
    CheckOutAndReturn(&record, &start, &turn, &end);
    EXPECT_EQ(start, c.outAndReturnStart);
    EXPECT_EQ(turn, 2);
    EXPECT_EQ(end, 3);
  }
  // Only the start and E close; the second third corner makes the greater
  // triangle, and without a closing E nothing counts and the indices stay.
  struct Triangle {
    double gap;
    int32_t third;
  } triangles[] = {{799.99, 4}, {800.01, 3}};
  for (const Triangle& c : triangles) {
    SCOPED_TRACE(c.gap);
    const TrackPoint start = flights::PointAt(1000, {0, 0}, 900);
    std::vector<TrackPoint> points = {start,
                                      flights::PointAt(1100, {0, 100}, 900),
                                      flights::PointAt(2000, {5000, 100}, 900),
                                      flights::PointAt(3000, {2500, 4000}, 900),
                                      flights::PointAt(3100, {2500, 4500}, 900),
                                      EastOf(start, {0, 0}, c.gap, 4000)};
    FlightAnalysis record{};
    record.nPoints = 6;
    record.pPoints = points.data();
    int32_t i[5] = {0, 1, 2, 3, 5};
    CheckFlatTriangle(&record, &i[0], &i[1], &i[2], &i[3], &i[4]);
    EXPECT_EQ(std::vector<int32_t>(i, i + 5), (std::vector<int32_t>{0, 1, 2, c.third, 5}));
  }
}

TEST(Refinement, FaiRuleRefusesA27PercentTriangleButFlatTakesIt) {
  const double h = std::sqrt(7300.0 * 7300.0 - 2700.0 * 2700.0);
  // Two candidate second corners: the equilateral-ish one first, the 27 %
  // one (further out, so a greater perimeter) second.
  std::vector<TrackPoint> points = {flights::PointAt(1000, {0, 0}, 900), flights::PointAt(1100, {0, 0}, 900),
                                    flights::PointAt(2000, {5400, 0}, 900),
                                    flights::PointAt(3000, {2700, 5400 * 0.8660254}, 900),
                                    flights::PointAt(3500, {2700, h}, 900), flights::PointAt(4000, {0, 10}, 900),
                                    flights::PointAt(4100, {0, 10}, 900)};
  FlightAnalysis record{};
  record.nPoints = static_cast<int32_t>(points.size());
  record.pPoints = points.data();
  int32_t flat[5] = {0, 1, 2, 4, 6}, fai[5] = {0, 1, 2, 4, 6};
  CheckFlatTriangle(&record, &flat[0], &flat[1], &flat[2], &flat[3], &flat[4]);
  CheckFaiTriangle(&record, &fai[0], &fai[1], &fai[2], &fai[3], &fai[4]);
  EXPECT_EQ(flat[3], 4);  // the 27 % corner: the longer perimeter
  EXPECT_EQ(fai[3], 3);   // the equilateral corner
}

// --- statistics ---------------------------------------------------------------

std::vector<TrackPoint> Northward(int32_t count, double speed, int32_t climbDecimetres) {
  std::vector<TrackPoint> points;
  for (int32_t i = 0; i < count; ++i) {
    TrackPoint p = flights::PointAt(5000 + static_cast<uint32_t>(i), {0, speed * i}, 0);
    p.lGpsAltitude = 10000 + climbDecimetres * i;
    points.push_back(p);
  }
  points[0].dwFlags = kTrackPointNewSegment;
  return points;
}

TEST(Statistics, SteadyFlights) {
  struct Case {
    double speed;
    int32_t climb;  // decimetres per second
    double bestClimb, worstSink;
  } cases[] = {{10.0, 20, 2.0, 0.0}, {10.0, -20, 0.0, -2.0}, {5.0, 0, 0.0, 0.0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.climb);
    Analysis a = Analyze(Northward(300, c.speed, c.climb));
    const FlightAnalysis& r = a.record;
    const double length = Geodesic(a.points.front(), a.points.back());
    EXPECT_NEAR(r.dTrackLength, length, 1e-4);  // legs along one meridian
    EXPECT_NEAR(r.dTrackLength, 299 * c.speed, 299 * c.speed * 0.004);
    EXPECT_EQ(r.dwDuration, 299u);
    EXPECT_DOUBLE_EQ(r.dAverageSpeed, 3.6 * r.dTrackLength / 299);
    // 10 and 60 seconds covered exactly, in km/h.
    EXPECT_NEAR(r.dTopSpeed, 3.6 * c.speed, 0.2);
    EXPECT_NEAR(r.dMeanSpeed, 3.6 * c.speed, 0.2);
    EXPECT_NEAR(r.dBestClimb, c.bestClimb, 1e-5);
    EXPECT_NEAR(r.dWorstSink, c.worstSink, 1e-5);
  }
}

TEST(Statistics, AltitudesRoundHalfUpFromDecimetres) {
  struct Case {
    int32_t low, high;  // decimetres
    int32_t lowMetres, highMetres;
  } cases[] = {{14, 15, 1, 2}, {-15, -6, -1, 0}, {-16, 24, -1, 2}, {1000001, 1000002, 100000, 100000}};
  for (const Case& c : cases) {
    std::vector<TrackPoint> points = Northward(5, 10.0, 0);
    for (TrackPoint& p : points) p.lGpsAltitude = c.low;
    points[3].lGpsAltitude = c.high;
    Analysis a = Analyze(points);
    EXPECT_EQ(a.record.nLowestAltitude, c.lowMetres) << c.low;
    // The highest starts at -1000000 dm, the lowest at 1000000 dm.
    EXPECT_EQ(a.record.nHighestAltitude, c.highMetres) << c.high;
  }
}

TEST(Statistics, FirstSecondsNeverCount) {
  // Very fast during the first two seconds, then 10 m/s: no window that is
  // evaluated reaches back that far.
  std::vector<TrackPoint> points = Northward(200, 10.0, 0);
  for (int32_t i = 1; i < 200; ++i) points[i] = flights::PointAt(5000 + i, {0, 1000.0 + 10.0 * i}, 0);
  Analysis a = Analyze(points);
  EXPECT_NEAR(a.record.dTopSpeed, 36.0, 0.2);
  EXPECT_NEAR(a.record.dMeanSpeed, 36.0, 0.2);
  EXPECT_GT(a.record.dTrackLength, 2900.0);
}

TEST(Statistics, WindowsStopAtSegmentStartsAndSkipEqualTimes) {
  std::vector<TrackPoint> points = Northward(200, 10.0, 10);
  double speed = -1.0, climb = 7.5;
  CalculateMeanSpeed(points.data(), 199, &speed, &climb);
  EXPECT_NEAR(speed, 36.0, 0.2);
  EXPECT_NEAR(climb, 1.0, 1e-5);

  // A segment start 19 s before the end: 190 m times 0.06, not rescaled.
  points[180].dwFlags = kTrackPointNewSegment;
  CalculateMeanSpeed(points.data(), 199, &speed, &climb);
  EXPECT_NEAR(speed, 0.06 * 190.0, 0.05);
  CalculateTopSpeed(points.data(), 199, &speed);
  EXPECT_NEAR(speed, 36.0, 0.2);

  // At the segment start itself: no speed, the climb is left alone.
  climb = 7.5;
  CalculateMeanSpeed(points.data(), 180, &speed, &climb);
  EXPECT_EQ(speed, 0.0);
  EXPECT_EQ(climb, 7.5);
  CalculateTopSpeed(points.data(), 0, &speed);
  EXPECT_EQ(speed, 0.0);

  // A point far off course with the time of the point after it is skipped.
  std::vector<TrackPoint> plain = Northward(100, 10.0, 0);
  std::vector<TrackPoint> detour = plain;
  TrackPoint off = flights::PointAt(plain[50].dwTime, {5000, 0}, 0);
  detour.insert(detour.begin() + 50, off);
  double expected = 0.0, actual = 0.0;
  CalculateTopSpeed(plain.data(), 55, &expected);
  CalculateTopSpeed(detour.data(), 56, &actual);
  EXPECT_DOUBLE_EQ(actual, expected);
}

TEST(Statistics, TimeGoingBackEndsTheWindow) {
  std::vector<TrackPoint> points = Northward(100, 10.0, 0);
  points[95].dwTime = points[99].dwTime + 1;  // later than the window's end
  double speed = -1.0;
  CalculateTopSpeed(points.data(), 99, &speed);
  // Steps 98, 97, 96 (30 m), then the step back in time adds almost nothing.
  EXPECT_NEAR(speed, 0.36 * 30.0, 0.05);
}

// --- allocation failures ------------------------------------------------------------

int gAllocations = 0;
int gFailAt = 0;

void* CountingAllocator(size_t bytes) {
  ++gAllocations;
  if (gAllocations == gFailAt) return nullptr;
  return std::malloc(bytes);
}

struct AllocatorScope {
  AllocatorScope() { pAnalysisAllocate = CountingAllocator; }
  ~AllocatorScope() { pAnalysisAllocate = std::malloc; }
};

TEST(AnalyzeTrack, EveryAllocationFailureEndsCleanly) {
  const std::vector<TrackPoint> flight = flights::Thermalling({600, 5, 0, 0});
  AllocatorScope scope;
  gAllocations = 0;
  gFailAt = 0;
  const Analysis whole = Analyze(flight);
  const int allocations = gAllocations;
  ASSERT_GT(allocations, 10);
  int failed = 0, recovered = 0;
  for (gFailAt = 1; gFailAt <= allocations; ++gFailAt) {
    SCOPED_TRACE(gFailAt);
    gAllocations = 0;
    const Analysis a = Analyze(flight);
    // Statistics are complete either way.
    EXPECT_EQ(std::memcmp(&a.record.dwStartTime, &whole.record.dwStartTime,
                          offsetof(FlightAnalysis, tFivePoint) - offsetof(FlightAnalysis, dwStartTime)),
              0);
    if (a.result == 0) {
      ++recovered;  // only the windowed walks' cache is optional
      EXPECT_EQ(std::memcmp(&a.record.dwStartTime, &whole.record.dwStartTime,
                            sizeof a.record - offsetof(FlightAnalysis, dwStartTime)),
                0);
      EXPECT_EQ(a.out, whole.out);
    } else {
      ++failed;
      EXPECT_EQ(a.result, -1);
      EXPECT_NE(a.out.find("Memory allocation error\n"), std::string::npos);
      for (const DistanceResult* r : {&a.record.tFivePoint, &a.record.tOpenDistance, &a.record.tFaiTriangle}) {
        EXPECT_TRUE(Empty(*r));
      }
    }
  }
  EXPECT_EQ(recovered, 3);
  EXPECT_EQ(failed, allocations - 3);
}

}  // namespace
