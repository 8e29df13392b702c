// The arc (2^31 arcs = 180 degrees) and its conversions; geodesy.
#pragma once

#include <cstdint>

constexpr double kArcToRadians = 1.4629180792671596e-9;  // pi / 2^31
constexpr double kRadiansToArc = 683565275.5764316;      // 2^31 / pi
constexpr double kArcToSec100 = 0.03017485141754;        // 180*3600*100 / 2^31
constexpr double kArcToMin1000 = 0.005029141902924;      // 180*60*1000 / 2^31

void ConvertArcToGeoPos(int32_t latArc, int32_t lonArc, double* lat, double* lon);
void ConvertGeoToArcPos(double lat, double lon, int32_t* latArc, int32_t* lonArc);
void ConvertArcToGeoSec100(int32_t latArc, int32_t lonArc, int32_t* lat, int32_t* lon);
void ConvertArcToGeoMin1000(int32_t latArc, int32_t lonArc, int32_t* lat, int32_t* lon);
