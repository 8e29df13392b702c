// Closing gaps of triangles.
//
// For turnpoints a < c the gap G(a, c) is the least distance between a fix
// s <= a and a fix e >= c (the route may start before its first turnpoint
// and end after its last). G only falls as a grows and c shrinks, and
// G(x, y) = min(G(x - 1, y), G(x, y + 1), d(x, y)).
//
// Gaps are kept as chords. Below a few kilometres a chord is shorter than
// its geodesic by well under a micrometre, so they bound the geodesic gap
// from below and pick the same closing pair; the reported gap is the
// geodesic between that pair.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "score/geometry.h"

namespace score {

class Closing {
 public:
  // Gaps up to `exact` metres come out exact; longer ones only as at least
  // `exact`.
  Closing(const Geometry& geometry, const BoxTree& tree, double exact);

  int32_t block() const { return block_; }
  // A lower bound of G(x, y): exact where the gaps of the two blocks of x
  // and y have been made, else over whole blocks.
  double Lower(int32_t x, int32_t y) const;
  // G(x, y), making the gaps of the two blocks if needed.
  double Exact(int32_t x, int32_t y);
  // The closing pair of turnpoints x < y: fixes s <= x and e >= y.
  void Pair(int32_t x, int32_t y, int32_t* s, int32_t* e) const;

 private:
  using Tile = std::vector<double>;

  double Coarse(int32_t i, int32_t j) const {
    return coarse_[static_cast<size_t>(i) * static_cast<size_t>(blocks_) + static_cast<size_t>(j)];
  }
  static uint64_t Key(int32_t i, int32_t j) { return (static_cast<uint64_t>(i) << 32) | static_cast<uint32_t>(j); }
  const Tile& MakeTile(int32_t i, int32_t j);
  // Least chord from fix q to a fix of [from, to], starting from fix `hint`.
  double Nearest(int32_t q, int32_t from, int32_t to, int32_t* hint) const;
  // Least chord between a fix of [0, x] and one of [y, n - 1], and the pair.
  double ClosestPair(int32_t x, int32_t y, int32_t* s, int32_t* e) const;

  const Geometry& g_;
  const BoxTree& t_;
  const int32_t n_;
  double exact_;
  int32_t block_ = 1;
  int32_t blocks_ = 0;
  std::vector<double> coarse_;  // blocks_ x blocks_: G over whole blocks
  std::unordered_map<uint64_t, Tile> tiles_;
};

}  // namespace score
