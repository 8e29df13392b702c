#include "geo/conv.h"

#include <cmath>
#include <cstdint>

namespace {

// Truncation toward zero into 32 bits. Values past the range (exactly pi
// radians is 2^31 arcs) wrap the way the hardware conversion does, so +180
// degrees comes back as -180; NaN gives the hardware's "indefinite" value.
int32_t TruncateToArc(double value) {
  if (!(std::fabs(value) < 9.0e18)) return INT32_MIN;
  return static_cast<int32_t>(static_cast<int64_t>(value));
}

int32_t RoundScaled(double scaled) {
  return TruncateToArc(scaled >= 0.0 ? scaled + 0.5 : scaled - 0.5);
}

int32_t RoundArcProduct(int32_t arcs, double factor) {
  if (arcs >= 0) return TruncateToArc(0.5 + arcs * factor);
  return -TruncateToArc(0.5 - arcs * factor);
}

}  // namespace

void ConvertArcToGeoPos(int32_t latArc, int32_t lonArc, double* lat, double* lon) {
  *lat = latArc * kArcToRadians;
  *lon = lonArc * kArcToRadians;
}

void ConvertGeoToArcPos(double lat, double lon, int32_t* latArc, int32_t* lonArc) {
  *latArc = RoundScaled(lat * kRadiansToArc);
  *lonArc = RoundScaled(lon * kRadiansToArc);
}

void ConvertArcToGeoSec100(int32_t latArc, int32_t lonArc, int32_t* lat, int32_t* lon) {
  *lat = RoundArcProduct(latArc, kArcToSec100);
  *lon = RoundArcProduct(lonArc, kArcToSec100);
}

void ConvertArcToGeoMin1000(int32_t latArc, int32_t lonArc, int32_t* lat, int32_t* lon) {
  *lat = RoundArcProduct(latArc, kArcToMin1000);
  *lon = RoundArcProduct(lonArc, kArcToMin1000);
}
