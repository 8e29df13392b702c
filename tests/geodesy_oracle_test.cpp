// The geodesic distance against an independent geodesic library.
#include <GeographicLib/Geodesic.hpp>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "geo/conv.h"

namespace {

constexpr double kDeg = std::numbers::pi / 180.0;
constexpr double kEquatorialRadius = 6378137.0;

struct Pair {
  double lat1, lon1, lat2, lon2;  // degrees
};

// Latitudes uniform over the sphere's area, longitudes over the full circle.
Pair RandomPair(std::mt19937_64& rng) {
  std::uniform_real_distribution<double> unit(-1.0, 1.0), longitude(-180.0, 180.0);
  return {std::asin(unit(rng)) / kDeg, longitude(rng), std::asin(unit(rng)) / kDeg, longitude(rng)};
}

double Ours(const Pair& p, int* result) {
  double d = -1.0;
  *result = CalcDistance({p.lat1 * kDeg, p.lon1 * kDeg}, {p.lat2 * kDeg, p.lon2 * kDeg}, &d);
  return d;
}

// Flight-sized lines (10 m to 500 km) in every direction, not crossing the
// date line: the distances the track analysis measures.
TEST(CalcDistanceOracle, FlightSizedLinesAgreeWithinATenthOfAMillimetre) {
  const GeographicLib::Geodesic& wgs84 = GeographicLib::Geodesic::WGS84();
  std::mt19937_64 rng(20240611);
  std::uniform_real_distribution<double> exponent(1.0, 5.7), azimuth(-180.0, 180.0);
  int checked = 0;
  double worst = 0.0;
  while (checked < 4000) {
    Pair p = RandomPair(rng);
    wgs84.Direct(p.lat1, p.lon1, azimuth(rng), std::pow(10.0, exponent(rng)), p.lat2, p.lon2);
    if (std::fabs(p.lon2 - p.lon1) > 180.0) continue;
    double reference = 0.0;
    wgs84.Inverse(p.lat1, p.lon1, p.lat2, p.lon2, reference);
    int result = -1;
    const double d = Ours(p, &result);
    ASSERT_EQ(result, 0) << p.lat1 << " " << p.lon1 << " " << p.lat2 << " " << p.lon2;
    worst = std::max(worst, std::fabs(d - reference));
    ASSERT_NEAR(d, reference, 1e-4) << p.lat1 << " " << p.lon1 << " " << p.lat2 << " " << p.lon2;
    ++checked;
  }
  RecordProperty("worst_error_m", std::to_string(worst));
}

// Across the globe the iteration stops once lambda changes by less than
// 1e-10 of itself, and longitudes are not wrapped; that leaves up to about
// a x 1e-10 x |L| (4 mm at most) on top of the method's own error.
TEST(CalcDistanceOracle, GlobalLinesAwayFromAntipodesWithinTheStoppingTolerance) {
  const GeographicLib::Geodesic& wgs84 = GeographicLib::Geodesic::WGS84();
  std::mt19937_64 rng(1989);
  int checked = 0;
  while (checked < 4000) {
    const Pair p = RandomPair(rng);
    double reference = 0.0;
    const double arc = wgs84.Inverse(p.lat1, p.lon1, p.lat2, p.lon2, reference);
    if (arc > 179.0) continue;  // nearly antipodal: the method may not converge
    int result = -1;
    const double d = Ours(p, &result);
    ASSERT_EQ(result, 0) << p.lat1 << " " << p.lon1 << " " << p.lat2 << " " << p.lon2;
    const double allowed = 1e-4 + kEquatorialRadius * 1e-10 * std::fabs(p.lon2 - p.lon1) * kDeg;
    ASSERT_NEAR(d, reference, allowed) << p.lat1 << " " << p.lon1 << " " << p.lat2 << " " << p.lon2;
    ++checked;
  }
}

// Points on one meridian run with L = 1e-10 and must still give the
// meridian arc.
TEST(CalcDistanceOracle, MeridianLinesMatchTheMeridianArc) {
  const GeographicLib::Geodesic& wgs84 = GeographicLib::Geodesic::WGS84();
  const Pair pairs[] = {{0, 7, 1, 7}, {-45, -120, 30, -120}, {46, 7, 46.001, 7}, {-89, 0, 89, 0}, {10, 179.5, 80, 179.5}};
  for (const Pair& p : pairs) {
    double reference = 0.0;
    wgs84.Inverse(p.lat1, p.lon1, p.lat2, p.lon2, reference);
    int result = -1;
    EXPECT_NEAR(Ours(p, &result), reference, 1e-4) << p.lat1 << " " << p.lat2;
    EXPECT_EQ(result, 0);
  }
}

TEST(CalcDistanceOracle, NearlyAntipodalPointsReportFailureAndKeepThePreset) {
  const Pair pairs[] = {{0, 0, 0, 179.8}, {0, 0, 0.3, -179.7}, {10, 20, -10, -160.2}, {-0.2, 100, 0.1, -80.3}};
  for (const Pair& p : pairs) {
    double d = 4321.0;
    EXPECT_EQ(CalcDistance({p.lat1 * kDeg, p.lon1 * kDeg}, {p.lat2 * kDeg, p.lon2 * kDeg}, &d), -1)
        << p.lat1 << " " << p.lon1 << " " << p.lat2 << " " << p.lon2;
    EXPECT_EQ(d, 4321.0);
  }
}

}  // namespace
