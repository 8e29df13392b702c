// Distances between fixes, and the bounds the searches prune with.
//
// Every fix is also a point in space (metres, a local east-north-up frame on
// the chosen earth). The straight line between two fixes (the chord) is never
// longer than the geodesic between them, and the geodesic is never longer
// than the arc of a circle of radius rho over the same chord, where rho is
// the smallest radius of curvature the surface has where the flight is: a
// geodesic bends in space exactly as much as the surface does along it, and
// a curve bending at most that much has at least the chord of that arc
// (Schur's comparison theorem). On the ellipsoid rho is the meridian radius
// at the latitude nearest the equator; a geodesic between two points of one
// hemisphere never comes nearer the equator than both of them. The bounds
// are thus exact up to rounding, which a micrometre of slack covers.
#pragma once

#include <cstdint>
#include <vector>

#include "score/flight.h"
#include "score/rules.h"

namespace score {

class Geometry {
 public:
  Geometry(const std::vector<Fix>& fixes, Earth earth);

  int32_t size() const { return static_cast<int32_t>(x_.size()); }
  Earth earth() const { return earth_; }

  // Geodesic distance in metres: GeographicLib on WGS-84, or the great
  // circle on the FAI sphere.
  double Distance(int32_t i, int32_t j) const;

  double Chord2(int32_t i, int32_t j) const {
    const double dx = x_[i] - x_[j], dy = y_[i] - y_[j], dz = z_[i] - z_[j];
    return dx * dx + dy * dy + dz * dz;
  }
  // The geodesic over a chord of this length is at most this long.
  double Upper(double chord) const {
    const double s = chord * halfInverseRho_;
    const double s2 = s * s;
    if (s2 > 0.25) return chord * 1.6;  // beyond any flight; arc / chord < pi / 2 there
    return chord * (1.0 + s2 * (1.0 / 6.0 + 0.075 * s2 / (1.0 - s2))) + kSlack;
  }
  // ... and at least this long.
  static double Lower(double chord) { return chord > kSlack ? chord - kSlack : 0.0; }

  const double* x() const { return x_.data(); }
  const double* y() const { return y_.data(); }
  const double* z() const { return z_.data(); }

  static constexpr double kSlack = 1e-6;  // metres

 private:
  Earth earth_;
  std::vector<double> x_, y_, z_;
  std::vector<double> latitude_, longitude_;
  double halfInverseRho_;
};

// Bounding boxes of the points of index ranges, as a complete binary tree:
// node 1 spans every fix, node k has the children 2k and 2k + 1, and the
// leaves are the nodes from leaves() on, one fix each (those past the last
// fix are empty and never visited).
class BoxTree {
 public:
  explicit BoxTree(const Geometry& geometry) : BoxTree(geometry.x(), geometry.y(), geometry.z(), geometry.size()) {}
  BoxTree(const double* x, const double* y, const double* z, int32_t count);

  uint32_t leaves() const { return leaves_; }
  bool IsLeaf(uint32_t node) const { return node >= leaves_; }
  int32_t First(uint32_t node) const { return first_[node]; }
  int32_t Last(uint32_t node) const { return last_[node]; }
  // Leaf node of a fix.
  uint32_t Leaf(int32_t fix) const { return leaves_ + static_cast<uint32_t>(fix); }
  // Diagonal squared: how far apart two points of the node can be.
  double Extent2(uint32_t node) const {
    const double dx = hx_[node] - lx_[node], dy = hy_[node] - ly_[node], dz = hz_[node] - lz_[node];
    return dx * dx + dy * dy + dz * dz;
  }

  double Low(uint32_t node, int axis) const { return (axis == 0 ? lx_ : axis == 1 ? ly_ : lz_)[node]; }
  double High(uint32_t node, int axis) const { return (axis == 0 ? hx_ : axis == 1 ? hy_ : hz_)[node]; }

  // Greatest and least squared chord between points of two nodes.
  double Max2(uint32_t a, uint32_t b) const {
    const double dx = Most(hx_[a] - lx_[b], hx_[b] - lx_[a]);
    const double dy = Most(hy_[a] - ly_[b], hy_[b] - ly_[a]);
    const double dz = Most(hz_[a] - lz_[b], hz_[b] - lz_[a]);
    return dx * dx + dy * dy + dz * dz;
  }
  double Min2(uint32_t a, uint32_t b) const {
    const double dx = Most(0.0, Most(lx_[b] - hx_[a], lx_[a] - hx_[b]));
    const double dy = Most(0.0, Most(ly_[b] - hy_[a], ly_[a] - hy_[b]));
    const double dz = Most(0.0, Most(lz_[b] - hz_[a], lz_[a] - hz_[b]));
    return dx * dx + dy * dy + dz * dz;
  }
  // The same between a node and a point.
  double Max2(uint32_t a, double px, double py, double pz) const {
    const double dx = Most(hx_[a] - px, px - lx_[a]);
    const double dy = Most(hy_[a] - py, py - ly_[a]);
    const double dz = Most(hz_[a] - pz, pz - lz_[a]);
    return dx * dx + dy * dy + dz * dz;
  }
  double Min2(uint32_t a, double px, double py, double pz) const {
    const double dx = Most(0.0, Most(px - hx_[a], lx_[a] - px));
    const double dy = Most(0.0, Most(py - hy_[a], ly_[a] - py));
    const double dz = Most(0.0, Most(pz - hz_[a], lz_[a] - pz));
    return dx * dx + dy * dy + dz * dz;
  }

 private:
  static double Most(double a, double b) { return a > b ? a : b; }

  uint32_t leaves_;
  std::vector<int32_t> first_, last_;
  std::vector<double> lx_, ly_, lz_, hx_, hy_, hz_;
};

}  // namespace score
