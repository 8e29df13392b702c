// The arc (2^31 arcs = 180 degrees), the units of angles and lengths and
// their conversions; geodesy.
#pragma once

#include <cmath>
#include <cstdint>

constexpr double kArcToRadians = 1.4629180792671596e-9;  // pi / 2^31
constexpr double kRadiansToArc = 683565275.5764316;      // 2^31 / pi
constexpr double kArcToSec100 = 0.03017485141754;        // 180*3600*100 / 2^31
constexpr double kArcToMin1000 = 0.005029141902924;      // 180*60*1000 / 2^31
constexpr double kMin1000ToArc = 198.8410785185;          // a thousandth of a minute in arcs
constexpr double kDegree7ToArc = 1.1930464711111;         // 1e-7 degree in arcs: 2^31 / 1.8e9

// Angles in the units the formats and protocols use. The digits are the
// ones every written file was made with; they are not to be refined.
constexpr double kPi = 3.14159265358979323846;
constexpr double kHalfPi = 1.57079632679489661923;
constexpr double kRadiansToDegrees = 57.29577951308;
constexpr double kDegreesToRadians = 0.01745329251994;
constexpr double kMinutesToRadians = 0.0002908882086657;  // one minute of arc
constexpr double kMin1000ToRadians = 2.908882086657e-7;   // a thousandth of a minute
constexpr double kRadiansToMin1000 = 3437746.770785;

// Lengths.
constexpr double kFeetPerMetre = 3.28084;
constexpr double kMetresPerFoot = 0.3048;
// Whole feet to the nearest whole metre, in integers (0.3048 m a foot).
constexpr int32_t FeetToMetres(int32_t feet) {
  return static_cast<int32_t>((static_cast<int64_t>(feet) * 3048 + 5000) / 10000);
}

void ConvertArcToGeoPos(int32_t latArc, int32_t lonArc, double* lat, double* lon);
void ConvertGeoToArcPos(double lat, double lon, int32_t* latArc, int32_t* lonArc);
void ConvertArcToGeoSec100(int32_t latArc, int32_t lonArc, int32_t* lat, int32_t* lon);
void ConvertArcToGeoMin1000(int32_t latArc, int32_t lonArc, int32_t* lat, int32_t* lon);

// Geographic position in radians, north and east positive.
struct GeoPos {
  double latitude;
  double longitude;
};

// Transverse Mercator position in metres about a chosen central meridian.
struct MapPos {
  double x;
  double y;
};

// WGS-84, as used by the distance and the projection.
namespace wgs84 {
constexpr double kFlattening = 0.0033528106647474805;
constexpr double kOneMinusFlattening = 0.9966471893352525;
constexpr double kSemiMinorAxis = 6356752.314245179;
constexpr double kSecondEccentricitySquared = 0.006739496742276435;
constexpr double kFirstEccentricitySquared = 0.006694379990141317;
constexpr double kOnePlusSecondEccentricitySquared = 1.0067394967422765;
constexpr double kScaledMajorAxis = 6375585.7452;  // 0.9996 x 6378137
}  // namespace wgs84

// A position with the terms of its reduced latitude, which the distance
// needs for every pair the position is in: work done once per point when a
// point is measured against many others.
struct GeoPoint {
  double latitude;
  double longitude;
  double sinU;
  double cosU;
};

inline GeoPoint PrepareGeoPoint(const GeoPos& position) {
  const double U = std::atan(wgs84::kOneMinusFlattening * std::tan(position.latitude));
  return {position.latitude, position.longitude, std::sin(U), std::cos(U)};
}

// Geodesic distance in metres (Vincenty's inverse method) between prepared
// positions; the same value, bit for bit, as between the plain ones.
// Returns 0, or -1 when the iteration does not converge (nearly antipodal
// points); then `distance` keeps the value the caller preset.
inline int CalcPreparedDistance(const GeoPoint& first, const GeoPoint& second, double* distance) {
  using namespace wgs84;
  const double dLatitude = second.latitude - first.latitude;
  double L = second.longitude - first.longitude;
  // The two tolerances differ on purpose.
  if (std::fabs(dLatitude) < 1.5e-9 && std::fabs(L) < 1e-9) {
    *distance = 0.0;
    return 0;
  }
  const double sinU1 = first.sinU, cosU1 = first.cosU;
  const double sinU2 = second.sinU, cosU2 = second.cosU;
  // Keeps the divisions by sin(sigma) finite on a meridian.
  if (std::fabs(L) < 1e-10) L = 1e-10;

  double lambda = L;
  for (int iteration = 0; iteration < 100; ++iteration) {
    const double sinLambda = std::sin(lambda), cosLambda = std::cos(lambda);
    const double a = cosU2 * sinLambda;
    const double c = cosU1 * sinU2 - sinU1 * cosU2 * cosLambda;
    const double sinSigma = std::sqrt(a * a + c * c);
    const double cosSigma = sinU1 * sinU2 + cosU1 * cosU2 * cosLambda;
    const double quotient = sinSigma / cosSigma;
    double sigma = std::atan(quotient);
    if (quotient < 0.0) sigma += 3.14159265358979323846;
    const double sinAlpha = cosU1 * cosU2 * sinLambda / sinSigma;
    const double cosAlpha = std::cos(std::asin(sinAlpha));
    const double cos2Alpha = cosAlpha * cosAlpha;
    const double cos2SigmaM = cosSigma - 2.0 * sinU1 * sinU2 / cos2Alpha;
    const double C = kFlattening / 16.0 * cos2Alpha * (4.0 + kFlattening * (4.0 - 3.0 * cos2Alpha));
    const double previous = lambda;
    lambda = L + (1.0 - C) * kFlattening * sinAlpha *
                     (sigma + C * sinSigma * (cos2SigmaM + C * cosSigma * (2.0 * cos2SigmaM * cos2SigmaM - 1.0)));
    if (iteration > 0 && std::fabs((lambda - previous) / lambda) < 1e-10) {
      const double u2 = cos2Alpha * kSecondEccentricitySquared;
      const double A = 1.0 + u2 * (0.25 + u2 * (-0.046875 + u2 * (0.01953125 - 0.01068115234375 * u2)));
      const double B = u2 * (0.25 + u2 * (-0.125 + u2 * (0.072265625 - 0.0458984375 * u2)));
      const double deltaSigma =
          B * sinSigma *
          (cos2SigmaM + B / 4.0 *
                            (cosSigma * (2.0 * cos2SigmaM * cos2SigmaM - 1.0) -
                             B / 6.0 * cos2SigmaM * (4.0 * sinSigma * sinSigma - 3.0) *
                                 (4.0 * cos2SigmaM * cos2SigmaM - 3.0)));
      *distance = kSemiMinorAxis * A * (sigma - deltaSigma);
      return 0;
    }
  }
  return -1;
}

// The same between plain positions. Inline: the distance searches call it
// millions of times.
inline int CalcDistance(const GeoPos& first, const GeoPos& second, double* distance) {
  if (std::fabs(second.latitude - first.latitude) < 1.5e-9 && std::fabs(second.longitude - first.longitude) < 1e-9) {
    *distance = 0.0;
    return 0;
  }
  return CalcPreparedDistance(PrepareGeoPoint(first), PrepareGeoPoint(second), distance);
}

// Transverse Mercator (Redfearn's series) about `centralMeridian` (radians),
// without false easting or northing.
inline MapPos ConvertGeoToMapPos(const GeoPos& position, double centralMeridian) {
  using namespace wgs84;
  const double phi = position.latitude;
  const double w = position.longitude - centralMeridian;
  const double sinPhi = std::sin(phi), cosPhi = std::cos(phi);
  const double t = std::tan(phi);
  const double t2 = t * t;
  const double eSin2 = 1.0 - kFirstEccentricitySquared * sinPhi * sinPhi;
  const double nu = 1.0 / std::sqrt(eSin2);
  const double psi = kOnePlusSecondEccentricitySquared * eSin2;
  const double A2 = w * w * cosPhi * cosPhi;

  MapPos map;
  map.x = kScaledMajorAxis * nu * w * cosPhi *
          (1.0 + A2 * ((psi - t2) / 6.0 +
                       A2 * (psi * (psi * (psi * (1.0 / 30.0 - 0.2 * t2) + t2 / 15.0 + 1.0 / 120.0) - t2 / 60.0) +
                             t2 * t2 / 120.0 +
                             A2 * (0.012103174603174604 +
                                   t2 * (-0.09503968253968254 + t2 * (0.035515873015873015 - t2 / 5040.0))))));
  const double m = 0.9983242984527952 * phi - 0.002514607060518705 * std::sin(2.0 * phi) +
                   2.6390465943376217e-6 * std::sin(4.0 * phi) - 3.4180460865957886e-9 * std::sin(6.0 * phi);
  map.y = kScaledMajorAxis *
          (m + w * w * nu * sinPhi * cosPhi *
                   (0.5 + A2 * (psi * (psi / 6.0 + 1.0 / 24.0) - t2 / 24.0 +
                                A2 * (psi * (psi * (psi * (psi * (11.0 / 90.0 - 4.0 / 15.0 * t2) + 7.0 / 30.0 * t2 -
                                                       7.0 / 180.0) -
                                                2.0 / 45.0 * t2 + 1.0 / 720.0) -
                                         t2 / 360.0) +
                                      t2 * t2 / 720.0 +
                                      A2 * (0.034350198412698416 +
                                            t2 * (-0.0771577380952381 +
                                                  t2 * (0.013467261904761905 - t2 / 40320.0)))))));
  return map;
}
