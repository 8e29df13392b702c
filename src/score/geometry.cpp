#include "score/geometry.h"

#include <GeographicLib/Geodesic.hpp>
#include <algorithm>
#include <cmath>
#include <limits>

namespace score {
namespace {

constexpr double kRadiansPerDegree = 0.017453292519943295;
constexpr double kMajorAxis = 6378137.0;
constexpr double kFlattening = 1.0 / 298.257223563;
constexpr double kFaiRadius = 6371000.0;

}  // namespace

Geometry::Geometry(const std::vector<Fix>& fixes, Earth earth) : earth_(earth) {
  const size_t n = fixes.size();
  x_.resize(n);
  y_.resize(n);
  z_.resize(n);
  latitude_.resize(n);
  longitude_.resize(n);
  const bool sphere = earth == Earth::kFaiSphere;
  const double a = sphere ? kFaiRadius : kMajorAxis;
  const double e2 = sphere ? 0.0 : kFlattening * (2.0 - kFlattening);

  // The frame's origin: the mean direction of the fixes.
  double cx = 0.0, cy = 0.0, cz = 0.0;
  double least = 90.0;
  bool north = false, south = false;
  for (size_t i = 0; i < n; ++i) {
    latitude_[i] = fixes[i].latitude;
    longitude_[i] = fixes[i].longitude;
    const double phi = fixes[i].latitude * kRadiansPerDegree, lambda = fixes[i].longitude * kRadiansPerDegree;
    cx += std::cos(phi) * std::cos(lambda);
    cy += std::cos(phi) * std::sin(lambda);
    cz += std::sin(phi);
    least = std::min(least, std::fabs(fixes[i].latitude));
    (fixes[i].latitude >= 0.0 ? north : south) = true;
  }
  if (north && south) least = 0.0;
  const double phi0 = n > 0 ? std::atan2(cz, std::hypot(cx, cy)) : 0.0;
  const double lambda0 = n > 0 ? std::atan2(cy, cx) : 0.0;

  auto ecef = [a, e2](double phi, double lambda, double* out) {
    const double s = std::sin(phi), c = std::cos(phi);
    const double nu = a / std::sqrt(1.0 - e2 * s * s);
    out[0] = nu * c * std::cos(lambda);
    out[1] = nu * c * std::sin(lambda);
    out[2] = nu * (1.0 - e2) * s;
  };
  double origin[3];
  ecef(phi0, lambda0, origin);
  const double sp = std::sin(phi0), cp = std::cos(phi0), sl = std::sin(lambda0), cl = std::cos(lambda0);
  for (size_t i = 0; i < n; ++i) {
    double p[3];
    ecef(fixes[i].latitude * kRadiansPerDegree, fixes[i].longitude * kRadiansPerDegree, p);
    const double dx = p[0] - origin[0], dy = p[1] - origin[1], dz = p[2] - origin[2];
    x_[i] = -sl * dx + cl * dy;
    y_[i] = -sp * cl * dx - sp * sl * dy + cp * dz;
    z_[i] = cp * cl * dx + cp * sl * dy + sp * dz;
  }

  // Smallest radius of curvature: the meridian radius nearest the equator.
  const double s = std::sin(least * kRadiansPerDegree);
  const double rho = a * (1.0 - e2) / std::pow(1.0 - e2 * s * s, 1.5);
  halfInverseRho_ = 0.5 / rho;
}

double Geometry::Distance(int32_t i, int32_t j) const {
  if (earth_ == Earth::kFaiSphere) {
    const double half = 0.5 * std::sqrt(Chord2(i, j)) / kFaiRadius;
    return 2.0 * kFaiRadius * std::asin(std::min(1.0, half));
  }
  double s12 = 0.0;
  GeographicLib::Geodesic::WGS84().Inverse(latitude_[i], longitude_[i], latitude_[j], longitude_[j], s12);
  return s12;
}

BoxTree::BoxTree(const double* x, const double* y, const double* z, int32_t n) {
  leaves_ = 1;
  while (leaves_ < static_cast<uint32_t>(std::max(n, 1))) leaves_ <<= 1;
  const size_t nodes = 2 * static_cast<size_t>(leaves_);
  constexpr double kInf = std::numeric_limits<double>::infinity();
  first_.assign(nodes, 0);
  last_.assign(nodes, -1);
  lx_.assign(nodes, kInf);
  ly_.assign(nodes, kInf);
  lz_.assign(nodes, kInf);
  hx_.assign(nodes, -kInf);
  hy_.assign(nodes, -kInf);
  hz_.assign(nodes, -kInf);
  for (uint32_t leaf = 0; leaf < leaves_; ++leaf) {
    const size_t k = leaves_ + leaf;
    first_[k] = static_cast<int32_t>(leaf);
    if (static_cast<int32_t>(leaf) >= n) continue;
    last_[k] = static_cast<int32_t>(leaf);
    lx_[k] = hx_[k] = x[leaf];
    ly_[k] = hy_[k] = y[leaf];
    lz_[k] = hz_[k] = z[leaf];
  }
  for (size_t k = leaves_ - 1; k >= 1; --k) {
    const size_t l = 2 * k, r = 2 * k + 1;
    first_[k] = first_[l];
    last_[k] = last_[r] >= 0 ? last_[r] : last_[l];
    lx_[k] = std::min(lx_[l], lx_[r]);
    ly_[k] = std::min(ly_[l], ly_[r]);
    lz_[k] = std::min(lz_[l], lz_[r]);
    hx_[k] = std::max(hx_[l], hx_[r]);
    hy_[k] = std::max(hy_[l], hy_[r]);
    hz_[k] = std::max(hz_[l], hz_[r]);
  }
}

}  // namespace score
