// The fast analysis and trim against the straightforward reference: every
// index, distance, statistic and printed line must be the same.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "analysis_reference.h"
#include "core/run.h"
#include "flight_support.h"
#include "support.h"
#include "track/analysis.h"

namespace {

std::string Describe(const DistanceResult& r) {
  std::string s;
  for (int32_t m = 0; m < r.nPoints; ++m) s += std::to_string(r.anIndex[m]) + " ";
  char sum[64];
  std::snprintf(sum, sizeof sum, "sum %.17g", r.dSum);
  return s + sum;
}

// Runs both analyses on copies of the flight; compares records and output.
void ExpectSameAnalysis(const std::vector<TrackPoint>& flight) {
  std::vector<TrackPoint> fastPoints = flight, referencePoints = flight;
  FlightAnalysis fast{}, slow{};
  fast.nPoints = slow.nPoints = static_cast<int32_t>(flight.size());
  fast.pPoints = fastPoints.data();
  slow.pPoints = referencePoints.data();
  testing::internal::CaptureStdout();
  ASSERT_EQ(AnalyzeTrack(&fast), 0);
  std::string fastOut = testing::internal::GetCapturedStdout();
  testing::internal::CaptureStdout();
  ASSERT_EQ(reference::AnalyzeTrack(&slow), 0);
  EXPECT_EQ(fastOut, testing::internal::GetCapturedStdout());

  const DistanceResult FlightAnalysis::*results[] = {
      &FlightAnalysis::tFivePoint,    &FlightAnalysis::tFourPoint,    &FlightAnalysis::tThreePoint,
      &FlightAnalysis::tOpenDistance, &FlightAnalysis::tOutAndReturn, &FlightAnalysis::tFlatTriangle,
      &FlightAnalysis::tFaiTriangle};
  for (auto member : results) {
    EXPECT_EQ(std::memcmp(&(fast.*member), &(slow.*member), sizeof(DistanceResult)), 0)
        << "fast " << Describe(fast.*member) << " / reference " << Describe(slow.*member);
  }
  EXPECT_EQ(fast.dwDuration, slow.dwDuration);
  EXPECT_EQ(fast.nLowestAltitude, slow.nLowestAltitude);
  EXPECT_EQ(fast.nHighestAltitude, slow.nHighestAltitude);
  // Bit for bit, not within a tolerance.
  EXPECT_EQ(std::memcmp(&fast.dTopSpeed, &slow.dTopSpeed, 7 * sizeof(double)), 0)
      << fast.dTopSpeed << " " << slow.dTopSpeed << " | " << fast.dMeanSpeed << " " << slow.dMeanSpeed << " | "
      << fast.dTrackLength << " " << slow.dTrackLength << " | " << fast.dWorstSink << " " << slow.dWorstSink
      << " | " << fast.dBestClimb << " " << slow.dBestClimb;
  EXPECT_EQ(std::memcmp(fastPoints.data(), flight.data(), sizeof(TrackPoint) * flight.size()), 0);
}

std::vector<std::string> RealFlights() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(KESTRIX_TEST_DATA "/igc")) {
    if (entry.path().extension() == ".igc") names.push_back(entry.path().stem().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string TestName(const testing::TestParamInfo<std::string>& info) {
  std::string name = info.param;
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return name;
}

std::vector<TrackPoint> LoadFlight(const std::string& name) {
  return flights::ReadIgcFixes(KESTRIX_TEST_DATA "/igc/" + name + ".igc");
}

class RealFlight : public testing::TestWithParam<std::string> {};

TEST_P(RealFlight, AnalysisMatchesTheReference) {
  const std::vector<TrackPoint> flight = LoadFlight(GetParam());
  ASSERT_GE(flight.size(), 150u);
  ExpectSameAnalysis(flight);
}

INSTANTIATE_TEST_SUITE_P(Igc, RealFlight, testing::ValuesIn(RealFlights()), TestName);

struct SyntheticCase {
  const char* name;
  std::vector<TrackPoint> (*make)(const flights::Synthetic&);
  flights::Synthetic shape;
};

void PrintTo(const SyntheticCase& c, std::ostream* out) { *out << c.name; }

std::vector<TrackPoint> SmallThermals(const flights::Synthetic& shape) { return flights::Thermalling(shape); }
std::vector<TrackPoint> WideThermals(const flights::Synthetic& shape) { return flights::Thermalling(shape, 3000.0); }

class SyntheticFlight : public testing::TestWithParam<SyntheticCase> {};

TEST_P(SyntheticFlight, AnalysisMatchesTheReference) {
  const SyntheticCase& c = GetParam();
  ExpectSameAnalysis(c.make(c.shape));
}

// Sizes around the sampling limit; equal times and segment starts mixed in.
INSTANTIATE_TEST_SUITE_P(
    Shapes, SyntheticFlight,
    testing::Values(SyntheticCase{"thermal_300", SmallThermals, {300, 1, 0, 0}},
                    SyntheticCase{"thermal_2000_equal_times", SmallThermals, {2000, 2, 3, 0}},
                    SyntheticCase{"thermal_2001_segments", SmallThermals, {2001, 3, 0, 97}},
                    SyntheticCase{"thermal_6000", SmallThermals, {6000, 4, 0, 0}},
                    SyntheticCase{"wide_thermal_4000", WideThermals, {4000, 5, 7, 400}},
                    SyntheticCase{"walk_1500", flights::RandomWalk, {1500, 6, 0, 0}},
                    SyntheticCase{"walk_5000_duplicates", flights::RandomWalk, {5000, 7, 2, 0}},
                    SyntheticCase{"glide_3000", flights::StraightGlide, {3000, 8, 0, 0}},
                    SyntheticCase{"glide_800_segments", flights::StraightGlide, {800, 9, 0, 30}},
                    SyntheticCase{"out_and_return_2500", flights::OutAndReturnFlight, {2500, 10, 0, 0}},
                    SyntheticCase{"out_and_return_9000", flights::OutAndReturnFlight, {9000, 11, 5, 1000}},
                    SyntheticCase{"triangle_1200", flights::TriangleFlight, {1200, 12, 0, 0}},
                    SyntheticCase{"triangle_7000_duplicates", flights::TriangleFlight, {7000, 13, 4, 0}}),
    [](const testing::TestParamInfo<SyntheticCase>& param) { return std::string(param.param.name); });

TEST(SyntheticFlight, TimeGoingBackAndTinyLogsMatchTheReference) {
  std::vector<TrackPoint> flight = flights::RandomWalk({700, 14, 0, 0});
  for (size_t i = 100; i < flight.size(); i += 90) flight[i].dwTime -= 500;  // steps back in time
  ExpectSameAnalysis(flight);
  for (size_t size = 1; size <= 6; ++size) {
    SCOPED_TRACE(size);
    ExpectSameAnalysis(std::vector<TrackPoint>(flight.begin(), flight.begin() + static_cast<long>(size)));
  }
}

// Random tables with few distinct values are full of ties: the triangle
// search must keep exactly the reference's (last) triangle.
TEST(SampledTriangles, RandomTablesMatchTheReference) {
  std::mt19937 random(2024);
  for (int round = 0; round < 400; ++round) {
    const int32_t n = 3 + static_cast<int32_t>(random() % 70);
    const uint32_t range = std::vector<uint32_t>{3, 40, 900, 3000, 200000}[static_cast<size_t>(round % 5)];
    std::vector<uint32_t> table(static_cast<size_t>(n) * static_cast<size_t>(n));
    for (int32_t a = 0; a < n; ++a) {
      for (int32_t b = a + 1; b < n; ++b) {
        const uint32_t v = static_cast<uint32_t>(random() % range);
        table[static_cast<size_t>(a * n + b)] = table[static_cast<size_t>(b * n + a)] = v;
      }
    }
    SCOPED_TRACE(testing::Message() << "round " << round << " n " << n << " range " << range);
    std::vector<uint32_t> gap(ClosingTableSize(n)), pair(ClosingTableSize(n)), refGap, refPair;
    FillClosingTables(table.data(), n, gap.data(), pair.data());
    reference::FillClosingTables(table, n, &refGap, &refPair);
    // Cells the search never reads (the diagonal, the last row) may differ.
    for (int32_t a = 0; a + 1 < n; ++a) {
      for (int32_t c = a + 1; c < n; ++c) {
        const size_t at = ClosingRowStart(n, a) + static_cast<size_t>(c - a);
        ASSERT_EQ(gap[at], refGap[at]) << a << " " << c;
        ASSERT_EQ(pair[at], refPair[at]) << a << " " << c;
      }
    }
    SampledTriangles fast;
    ASSERT_EQ(FindSampledTriangles(table.data(), n, gap.data(), pair.data(), &fast), 0);
    const SampledTriangles slow = reference::FindSampledTriangles(table, n);
    ASSERT_EQ(fast.lFlatScore, slow.lFlatScore);
    ASSERT_EQ(fast.lFaiScore, slow.lFaiScore);
    for (int m = 0; m < 5; ++m) {
      ASSERT_EQ(fast.anFlat[m], slow.anFlat[m]) << m;
      ASSERT_EQ(fast.anFai[m], slow.anFai[m]) << m;
    }
  }
}

// --- trim --------------------------------------------------------------------

struct TrimSettings {
  const char* name;
  int32_t values[11];  // location interval, distance; takeoff interval, distance, prepend;
                       // box radius, height, prepend; landing interval, distance, append
};

const TrimSettings kTrimSettings[] = {
    {"example", {60, 50, 10, 50, 30, 100, 30, 30, 60, 20, 30}},
    {"all_off", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {"location_only", {120, 30, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {"wide_windows", {300, 200, 60, 300, 0, 500, 100, 0, 300, 100, 0}},
    {"tiny_distances", {20, 3, 5, 8, 5, 10, 2, 5, 20, 2, 5}},
};

void ApplyTrim(const TrimSettings& s) {
  int32_t* fields[] = {&tGps.nTrimLocationInterval, &tGps.nTrimLocationDistance, &tGps.nTrimTakeoffInterval,
                       &tGps.nTrimTakeoffDistance,  &tGps.nTrimTakeoffPrepend,   &tGps.nTrimTakeoffBoxRadius,
                       &tGps.nTrimTakeoffBoxHeight, &tGps.nTrimTakeoffBoxPrepend, &tGps.nTrimLandingInterval,
                       &tGps.nTrimLandingDistance,  &tGps.nTrimLandingAppend};
  for (int k = 0; k < 11; ++k) *fields[k] = s.values[k];
}

void ExpectSameTrim(const std::vector<TrackPoint>& flight) {
  for (const TrimSettings& settings : kTrimSettings) {
    SCOPED_TRACE(settings.name);
    test::FreshRunParameters();
    ApplyTrim(settings);
    flights::LoadTrack(flight);
    testing::internal::CaptureStdout();
    ASSERT_EQ(TrimTrack(), 0);
    const std::string fastOut = testing::internal::GetCapturedStdout();
    const std::vector<TrackPoint> fast = flights::LoadedTrack();
    flights::LoadTrack(flight);
    testing::internal::CaptureStdout();
    ASSERT_EQ(reference::TrimTrack(), 0);
    EXPECT_EQ(fastOut, testing::internal::GetCapturedStdout());
    const std::vector<TrackPoint> slow = flights::LoadedTrack();
    ASSERT_EQ(fast.size(), slow.size());
    EXPECT_EQ(std::memcmp(fast.data(), slow.data(), sizeof(TrackPoint) * fast.size()), 0);
  }
  test::FreshRunParameters();
}

TEST_P(RealFlight, TrimMatchesTheReference) { ExpectSameTrim(LoadFlight(GetParam())); }

// On the ground before and after: standing, walking about, then flying.
std::vector<TrackPoint> GroundedFlight(uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> jitter(-2.0, 2.0);
  std::vector<TrackPoint> points;
  uint32_t t = 1000000;
  for (int i = 0; i < 400; ++i) points.push_back(flights::PointAt(t++, {jitter(random), jitter(random)}, 900));
  for (int i = 0; i < 120; ++i) points.push_back(flights::PointAt(t++, {0.8 * i, jitter(random)}, 900));
  for (const TrackPoint& p : flights::Thermalling({1500, seed, 0, 0})) {
    TrackPoint q = p;
    q.dwTime = t++;
    q.dwFlags = 0;
    points.push_back(q);
  }
  const TrackPoint last = points.back();
  for (int i = 0; i < 300; ++i) {
    TrackPoint q = last;
    q.dwTime = t++;
    q.lLatitude += static_cast<int32_t>(jitter(random) * 50);
    points.push_back(q);
  }
  points[0].dwFlags = kTrackPointNewSegment;
  return points;
}

TEST(SyntheticFlight, TrimMatchesTheReference) {
  ExpectSameTrim(GroundedFlight(21));
  ExpectSameTrim(flights::Thermalling({3000, 22, 4, 0}));
  ExpectSameTrim(flights::StraightGlide({500, 23, 0, 0}));
  // Positions jumping to the other side of the earth make CalcDistance fail;
  // the value before it must stay in use the same way in both.
  std::vector<TrackPoint> jumps = GroundedFlight(24);
  for (size_t i = 200; i < jumps.size(); i += 37) {
    jumps[i].lLatitude = -jumps[i].lLatitude;
    jumps[i].lLongitude += jumps[i].lLongitude < 0 ? 0x7FFFFFFF : -0x7FFFFFFF;
  }
  ExpectSameTrim(jumps);
  ExpectSameTrim(std::vector<TrackPoint>(jumps.begin(), jumps.begin() + 1));
}

}  // namespace
