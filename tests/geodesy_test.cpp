// Distances and the map projection at known values.
#include <gtest/gtest.h>

#include <numbers>

#include "geo/conv.h"

namespace {

constexpr double kDeg = std::numbers::pi / 180.0;

double Distance(double lat1, double lon1, double lat2, double lon2) {
  double d = -7.0;
  EXPECT_EQ(CalcDistance({lat1 * kDeg, lon1 * kDeg}, {lat2 * kDeg, lon2 * kDeg}, &d), 0);
  return d;
}

TEST(CalcDistance, QuotedDistancesToTheMillimetre) {
  EXPECT_NEAR(Distance(0, 0, 1, 0), 110574.389, 0.0005);
  EXPECT_NEAR(Distance(0, 0, 0, 1), 111319.491, 0.0005);
  EXPECT_NEAR(Distance(46, 7, 46.1, 7.1), 13544.216, 0.0005);
}

TEST(CalcDistance, CoincidenceTolerancesDiffer) {
  double d = -7.0;
  EXPECT_EQ(CalcDistance({0.8, 0.1}, {0.8, 0.1}, &d), 0);
  EXPECT_EQ(d, 0.0);
  d = -7.0;
  EXPECT_EQ(CalcDistance({0.8, 0.1}, {0.8 + 1.2e-9, 0.1}, &d), 0);
  EXPECT_EQ(d, 0.0);
  d = -7.0;
  EXPECT_EQ(CalcDistance({0.8, 0.1}, {0.8, 0.1 + 1.2e-9}, &d), 0);
  EXPECT_GT(d, 0.0);
}

TEST(CalcDistance, NearlyAntipodalPointsFailAndLeaveTheValue) {
  double d = 123.0;
  EXPECT_EQ(CalcDistance({0.0, 0.0}, {0.5 * kDeg, 179.7 * kDeg}, &d), -1);
  EXPECT_EQ(d, 123.0);
}

TEST(ConvertGeoToMapPos, CentralMeridianGivesTheMeridianArc) {
  double phi = 46.0 * kDeg;
  MapPos p = ConvertGeoToMapPos({phi, 7.0 * kDeg}, 7.0 * kDeg);
  EXPECT_EQ(p.x, 0.0);
  double m = 0.9983242984527952 * phi - 0.002514607060518705 * std::sin(2 * phi) +
             2.6390465943376217e-6 * std::sin(4 * phi) - 3.4180460865957886e-9 * std::sin(6 * phi);
  EXPECT_DOUBLE_EQ(p.y, 6375585.7452 * m);
  // One degree east of the meridian at 46 N: about 77.4 km east.
  MapPos q = ConvertGeoToMapPos({phi, 8.0 * kDeg}, 7.0 * kDeg);
  EXPECT_NEAR(q.x, 77424.0, 100.0);
  EXPECT_GT(q.y, p.y);
}

}  // namespace
