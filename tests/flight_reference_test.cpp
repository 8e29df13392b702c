// The fast analysis and trim against the straightforward reference: every
// index, distance, statistic, printed line and kept point the same.
#include <gtest/gtest.h>

#include <cctype>
#include <cstddef>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "analysis_reference.h"
#include "core/run.h"
#include "flight_support.h"
#include "support.h"
#include "track/analysis.h"

namespace {

void ExpectSameAnalysis(const std::vector<TrackPoint>& flight) {
  std::vector<TrackPoint> fastPoints = flight, slowPoints = flight;
  FlightAnalysis fast{}, slow{};
  fast.nPoints = slow.nPoints = static_cast<int32_t>(flight.size());
  fast.pPoints = fastPoints.data();
  slow.pPoints = slowPoints.data();
  testing::internal::CaptureStdout();
  ASSERT_EQ(AnalyzeTrack(&fast), 0);
  const std::string fastOut = testing::internal::GetCapturedStdout();
  testing::internal::CaptureStdout();
  ASSERT_EQ(reference::AnalyzeTrack(&slow), 0);
  EXPECT_EQ(fastOut, testing::internal::GetCapturedStdout());
  // Bit for bit from the statistics on, and the points untouched.
  const size_t from = offsetof(FlightAnalysis, dwStartTime);
  EXPECT_EQ(std::memcmp(reinterpret_cast<const char*>(&fast) + from, reinterpret_cast<const char*>(&slow) + from,
                        sizeof fast - from), 0)
      << "open " << fast.tOpenDistance.dSum << " / " << slow.tOpenDistance.dSum << ", flat "
      << fast.tFlatTriangle.dSum << " / " << slow.tFlatTriangle.dSum << ", fai " << fast.tFaiTriangle.dSum << " / "
      << slow.tFaiTriangle.dSum << ", top speed " << fast.dTopSpeed << " / " << slow.dTopSpeed;
  EXPECT_EQ(std::memcmp(fastPoints.data(), flight.data(), sizeof(TrackPoint) * flight.size()), 0);
}

// Location interval, distance; takeoff interval, distance, prepend; box
// radius, height, prepend; landing interval, distance, append.
const int32_t kTrimSettings[][11] = {{60, 50, 10, 50, 30, 100, 30, 30, 60, 20, 30},
                                     {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
                                     {120, 30, 0, 0, 0, 0, 0, 0, 0, 0, 0},
                                     {300, 200, 60, 300, 0, 500, 100, 0, 300, 100, 0},
                                     {20, 3, 5, 8, 5, 10, 2, 5, 20, 2, 5}};

void ExpectSameTrim(const std::vector<TrackPoint>& flight) {
  for (const auto& settings : kTrimSettings) {
    // The reference checks every pair of a location window: five-minute
    // windows are left to the flights of fewer than 50,000 fixes.
    if (settings[0] > 120 && flight.size() > 50000) continue;
    SCOPED_TRACE(settings[0]);
    std::string out[2];
    std::vector<TrackPoint> kept[2];
    for (int slow = 0; slow < 2; ++slow) {
      test::FreshRunParameters();
      int32_t* fields[] = {&tGps.nTrimLocationInterval, &tGps.nTrimLocationDistance, &tGps.nTrimTakeoffInterval,
                           &tGps.nTrimTakeoffDistance,  &tGps.nTrimTakeoffPrepend,   &tGps.nTrimTakeoffBoxRadius,
                           &tGps.nTrimTakeoffBoxHeight, &tGps.nTrimTakeoffBoxPrepend, &tGps.nTrimLandingInterval,
                           &tGps.nTrimLandingDistance,  &tGps.nTrimLandingAppend};
      for (int k = 0; k < 11; ++k) *fields[k] = settings[k];
      flights::LoadTrack(flight);
      testing::internal::CaptureStdout();
      ASSERT_EQ(slow ? reference::TrimTrack() : TrimTrack(), 0);
      out[slow] = testing::internal::GetCapturedStdout();
      kept[slow] = flights::LoadedTrack();
    }
    EXPECT_EQ(out[0], out[1]);
    ASSERT_EQ(kept[0].size(), kept[1].size());
    EXPECT_EQ(std::memcmp(kept[0].data(), kept[1].data(), sizeof(TrackPoint) * kept[0].size()), 0);
  }
  test::FreshRunParameters();
}

class AnalysisReference : public testing::TestWithParam<std::string> {};

TEST_P(AnalysisReference, RealFlightAnalysis) {
  const std::vector<TrackPoint> flight = flights::ReadIgcFixes(test::DataFile("igc/" + GetParam()));
  ASSERT_GE(flight.size(), 150u);
  ExpectSameAnalysis(flight);
}

TEST_P(AnalysisReference, RealFlightTrim) { ExpectSameTrim(flights::ReadIgcFixes(test::DataFile("igc/" + GetParam()))); }

std::vector<std::string> RealFlights() {
  std::vector<std::string> names = test::FilesIn(test::DataFile("igc"));
  std::erase_if(names, [](const std::string& name) { return !name.ends_with(".igc"); });
  return names;
}

INSTANTIATE_TEST_SUITE_P(Igc, AnalysisReference, testing::ValuesIn(RealFlights()),
                         [](const auto& param) {
                           std::string name = param.param;
                           for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                           return name;
                         });

// Sizes around the sampling limit; equal times (every n-th point repeats the
// time before it) and segment starts mixed in.
struct Shape {
  const char* name;
  std::vector<TrackPoint> (*make)(const flights::Synthetic&);
  flights::Synthetic shape;
};

void PrintTo(const Shape& s, std::ostream* os) { *os << s.name; }

std::vector<TrackPoint> WideThermals(const flights::Synthetic& s) { return flights::Thermalling(s, 3000.0); }
std::vector<TrackPoint> Thermals(const flights::Synthetic& s) { return flights::Thermalling(s); }

class AnalysisReferenceShapes : public testing::TestWithParam<Shape> {};

TEST_P(AnalysisReferenceShapes, SyntheticFlight) { ExpectSameAnalysis(GetParam().make(GetParam().shape)); }

INSTANTIATE_TEST_SUITE_P(
    Synthetic, AnalysisReferenceShapes,
    testing::Values(Shape{"thermal_300", Thermals, {300, 1, 0, 0}}, Shape{"thermal_2000_equal_times", Thermals, {2000, 2, 3, 0}},
                    Shape{"thermal_2001_segments", Thermals, {2001, 3, 0, 97}}, Shape{"thermal_6000", Thermals, {6000, 4, 0, 0}},
                    Shape{"wide_thermal_4000", WideThermals, {4000, 5, 7, 400}},
                    Shape{"walk_1500", flights::RandomWalk, {1500, 6, 0, 0}},
                    Shape{"walk_5000_duplicates", flights::RandomWalk, {5000, 7, 2, 0}},
                    Shape{"glide_3000", flights::StraightGlide, {3000, 8, 0, 0}},
                    Shape{"glide_800_segments", flights::StraightGlide, {800, 9, 0, 30}},
                    Shape{"out_and_return_2500", flights::OutAndReturnFlight, {2500, 10, 0, 0}},
                    Shape{"out_and_return_9000", flights::OutAndReturnFlight, {9000, 11, 5, 1000}},
                    Shape{"triangle_1200", flights::TriangleFlight, {1200, 12, 0, 0}},
                    Shape{"triangle_7000_duplicates", flights::TriangleFlight, {7000, 13, 4, 0}}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(AnalysisReferenceCases, TimeGoingBackAndTinyLogs) {
  std::vector<TrackPoint> back = flights::RandomWalk({700, 14, 0, 0});
  for (size_t i = 100; i < back.size(); i += 90) back[i].dwTime -= 500;  // steps back in time
  ExpectSameAnalysis(back);
  for (long size = 1; size <= 6; ++size) ExpectSameAnalysis(std::vector<TrackPoint>(back.begin(), back.begin() + size));
}

// On the ground before and after: standing, walking about, then flying.
std::vector<TrackPoint> GroundedFlight(uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> jitter(-2.0, 2.0);
  std::vector<TrackPoint> points;
  uint32_t t = 1000000;
  for (int i = 0; i < 400; ++i) points.push_back(flights::PointAt(t++, {jitter(random), jitter(random)}, 900));
  for (int i = 0; i < 120; ++i) points.push_back(flights::PointAt(t++, {0.8 * i, jitter(random)}, 900));
  for (TrackPoint p : flights::Thermalling({1500, seed, 0, 0})) {
    p.dwTime = t++;
    p.dwFlags = 0;
    points.push_back(p);
  }
  for (int i = 0; i < 300; ++i) {
    points.push_back(points.back());
    points.back().dwTime = t++;
    points.back().lLatitude += static_cast<int32_t>(jitter(random) * 50);
  }
  points[0].dwFlags = kTrackPointNewSegment;
  return points;
}

TEST(AnalysisReferenceCases, SyntheticTrims) {
  ExpectSameTrim(GroundedFlight(21));
  ExpectSameTrim(flights::Thermalling({3000, 22, 4, 0}));
  ExpectSameTrim(flights::StraightGlide({500, 23, 0, 0}));
  // Positions jumping to the other side of the earth make the distance
  // fail; the value before it stays in use the same way in both.
  std::vector<TrackPoint> jumps = GroundedFlight(24);
  for (size_t i = 200; i < jumps.size(); i += 37) {
    jumps[i].lLatitude = -jumps[i].lLatitude;
    jumps[i].lLongitude += jumps[i].lLongitude < 0 ? 0x7FFFFFFF : -0x7FFFFFFF;
  }
  ExpectSameTrim(jumps);
  ExpectSameTrim(std::vector<TrackPoint>(jumps.begin(), jumps.begin() + 1));
}

// Random tables with few distinct values are full of ties: the triangle
// search keeps exactly the reference's (last) triangle.
TEST(AnalysisReferenceCases, RandomTriangleTables) {
  std::mt19937 random(2024);
  for (int round = 0; round < 400; ++round) {
    const int32_t n = 3 + static_cast<int32_t>(random() % 70);
    const uint32_t range = std::vector<uint32_t>{3, 40, 900, 3000, 200000}[static_cast<size_t>(round % 5)];
    std::vector<uint32_t> table(static_cast<size_t>(n * n));
    for (int32_t a = 0; a < n; ++a) {
      for (int32_t b = a + 1; b < n; ++b) table[a * n + b] = table[b * n + a] = static_cast<uint32_t>(random() % range);
    }
    SCOPED_TRACE(testing::Message() << "round " << round << " n " << n);
    std::vector<uint32_t> gap(ClosingTableSize(n)), pair(ClosingTableSize(n)), refGap, refPair;
    FillClosingTables(table.data(), n, gap.data(), pair.data());
    reference::FillClosingTables(table, n, &refGap, &refPair);
    for (int32_t a = 0; a + 1 < n; ++a) {  // the cells the search reads
      for (int32_t c = a + 1; c < n; ++c) {
        const size_t at = ClosingRowStart(n, a) + static_cast<size_t>(c - a);
        ASSERT_EQ(gap[at], refGap[at]) << a << " " << c;
        ASSERT_EQ(pair[at], refPair[at]) << a << " " << c;
      }
    }
    SampledTriangles fast;
    ASSERT_EQ(FindSampledTriangles(table.data(), n, gap.data(), pair.data(), &fast), 0);
    const SampledTriangles slow = reference::FindSampledTriangles(table, n);
    ASSERT_EQ(std::memcmp(&fast, &slow, sizeof fast), 0);
  }
}

}  // namespace
