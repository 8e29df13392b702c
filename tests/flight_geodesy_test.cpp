// Distances against an independent geodesic library, and the projection
// the planar search uses.
#include <GeographicLib/Geodesic.hpp>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "geo/conv.h"

namespace {

constexpr double kDeg = kPi / 180.0;

struct Pair {
  double lat1, lon1, lat2, lon2;  // degrees
};

// Latitudes uniform over the sphere's area, longitudes over the full circle.
Pair RandomPair(std::mt19937_64& rng) {
  std::uniform_real_distribution<double> unit(-1.0, 1.0), longitude(-180.0, 180.0);
  return {std::asin(unit(rng)) / kDeg, longitude(rng), std::asin(unit(rng)) / kDeg, longitude(rng)};
}

// Ours and the library's distance; `result` gets ours.
double Distance(const Pair& p, int* result, double* reference = nullptr, double* arc = nullptr) {
  double d = 4321.0, r = 0.0;
  *result = CalcDistance({p.lat1 * kDeg, p.lon1 * kDeg}, {p.lat2 * kDeg, p.lon2 * kDeg}, &d);
  const double a = GeographicLib::Geodesic::WGS84().Inverse(p.lat1, p.lon1, p.lat2, p.lon2, r);
  if (reference != nullptr) *reference = r;
  if (arc != nullptr) *arc = a;
  return d;
}

TEST(Geodesy, FlightSizedLinesAgreeWithinATenthOfAMillimetre) {
  std::mt19937_64 rng(20240611);
  std::uniform_real_distribution<double> exponent(1.0, 5.7), azimuth(-180.0, 180.0);
  for (int checked = 0; checked < 4000;) {  // 10 m to 500 km, not across the date line
    Pair p = RandomPair(rng);
    GeographicLib::Geodesic::WGS84().Direct(p.lat1, p.lon1, azimuth(rng), std::pow(10.0, exponent(rng)), p.lat2, p.lon2);
    if (std::fabs(p.lon2 - p.lon1) > 180.0) continue;
    int result = -1;
    double reference = 0.0;
    const double d = Distance(p, &result, &reference);
    ASSERT_NEAR(d, reference, 1e-4) << p.lat1 << " " << p.lon1 << " " << p.lat2 << " " << p.lon2;
    ASSERT_EQ(result, 0);
    ++checked;
  }
  // Points on one meridian still give the meridian arc.
  for (const Pair& p : {Pair{0, 7, 1, 7}, {-45, -120, 30, -120}, {46, 7, 46.001, 7}, {-89, 0, 89, 0}, {10, 179.5, 80, 179.5}}) {
    int result = -1;
    double reference = 0.0;
    const double d = Distance(p, &result, &reference);
    EXPECT_NEAR(d, reference, 1e-4) << p.lat1 << " " << p.lat2;
    EXPECT_EQ(result, 0);
  }
}

// Across the globe the iteration stops once lambda changes by less than
// 1e-10 of itself and longitudes are not wrapped: up to a x 1e-10 x |L| more.
TEST(Geodesy, GlobalLinesWithinTheStoppingToleranceAndNearAntipodesRefused) {
  std::mt19937_64 rng(1989);
  for (int checked = 0; checked < 4000;) {
    const Pair p = RandomPair(rng);
    int result = -1;
    double reference = 0.0, arc = 0.0;
    const double d = Distance(p, &result, &reference, &arc);
    if (arc > 179.0) continue;  // nearly antipodal: the method may not converge
    ASSERT_EQ(result, 0) << p.lat1 << " " << p.lon1 << " " << p.lat2 << " " << p.lon2;
    ASSERT_NEAR(d, reference, 1e-4 + 6378137.0 * 1e-10 * std::fabs(p.lon2 - p.lon1) * kDeg);
    ++checked;
  }
  for (const Pair& p : {Pair{0, 0, 0, 179.8}, {0, 0, 0.3, -179.7}, {10, 20, -10, -160.2}, {-0.2, 100, 0.1, -80.3}, {0, 0, 0.5, 179.7}}) {
    int result = 0;
    EXPECT_EQ(Distance(p, &result), 4321.0) << p.lat1 << " " << p.lon1 << " " << p.lat2 << " " << p.lon2;
    EXPECT_EQ(result, -1);
  }
}

TEST(Geodesy, CoincidenceTolerancesAndTheProjection) {
  double d = -7.0;
  EXPECT_EQ(CalcDistance({0.8, 0.1}, {0.8 + 1.2e-9, 0.1}, &d), 0);
  EXPECT_EQ(d, 0.0);
  EXPECT_EQ(CalcDistance({0.8, 0.1}, {0.8, 0.1 + 1.2e-9}, &d), 0);
  EXPECT_GT(d, 0.0);
  // On the central meridian x is 0 and y the meridian arc.
  const double phi = 46.0 * kDeg;
  const MapPos p = ConvertGeoToMapPos({phi, 7.0 * kDeg}, 7.0 * kDeg);
  EXPECT_EQ(p.x, 0.0);
  const double m = 0.9983242984527952 * phi - 0.002514607060518705 * std::sin(2 * phi) +
                   2.6390465943376217e-6 * std::sin(4 * phi) - 3.4180460865957886e-9 * std::sin(6 * phi);
  EXPECT_DOUBLE_EQ(p.y, 6375585.7452 * m);
  const MapPos q = ConvertGeoToMapPos({phi, 8.0 * kDeg}, 7.0 * kDeg);  // about 77.4 km east
  EXPECT_NEAR(q.x, 77424.0, 100.0);
  EXPECT_GT(q.y, p.y);
}

}  // namespace
