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
//
// Only gaps up to a limit (the longest any rule could accept in this flight)
// need their value; longer ones come out as just beyond the limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "score/geometry.h"

namespace score {

// G over whole blocks of consecutive fixes: at block ends x and block starts
// y. Shared, read-only, by the searches of one flight.
class ClosingTable {
 public:
  ClosingTable(const Geometry& geometry, const BoxTree& tree, double limit);

  const Geometry& geometry() const { return g_; }
  const BoxTree& tree() const { return t_; }
  double limit() const { return limit_; }
  double beyond() const { return beyond_; }
  int32_t block() const { return block_; }
  // G(end of block i, start of block j) for i < j: a lower bound of G(x, y)
  // for any x in block i and y in block j.
  double Blocks(int32_t i, int32_t j) const {
    return coarse_[static_cast<size_t>(i) * static_cast<size_t>(blocks_) + static_cast<size_t>(j)];
  }
  // Least chord between a fix of [sFrom, sTo] and one of [eFrom, eTo], below
  // the chord sqrt(best2) given; the pair found goes to s and e.
  void Closest(int32_t sFrom, int32_t sTo, int32_t eFrom, int32_t eTo, double* best2, int32_t* s, int32_t* e) const;

 private:
  const Geometry& g_;
  const BoxTree& t_;
  double limit_;
  double beyond_;
  int32_t block_ = 16;
  int32_t blocks_ = 0;
  std::vector<float> coarse_;  // rounded down
};

// Exact gaps, block pair by block pair as a search asks for them.
class Closing {
 public:
  explicit Closing(const ClosingTable& table) : table_(table) {}

  int32_t block() const { return table_.block(); }
  // A lower bound of G(x, y): exact where the gaps of the two blocks of x
  // and y have been made, else over whole blocks.
  double Lower(int32_t x, int32_t y) const;
  // G(x, y), making the gaps of the two blocks if needed.
  double Exact(int32_t x, int32_t y);
  // The closing pair of turnpoints x < y: fixes s <= x and e >= y.
  void Pair(int32_t x, int32_t y, int32_t* s, int32_t* e) const;

 private:
  using Tile = std::vector<double>;  // squared chords, row x, column y

  static uint64_t Key(int32_t i, int32_t j) { return (static_cast<uint64_t>(i) << 32) | static_cast<uint32_t>(j); }
  void MakeTile(int32_t i, int32_t j);
  // Least chord from fix q to a fix of [from, to], or beyond(); `hint` is a
  // fix of the range to start from and receives the nearest.
  double Nearest(int32_t q, int32_t from, int32_t to, int32_t* hint) const;

  const ClosingTable& table_;
  std::unordered_map<uint64_t, Tile> tiles_;
};

}  // namespace score
