#include "score/closing.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace score {
namespace {

constexpr double kFar = std::numeric_limits<double>::infinity();
// Whole-block gaps are worked out exactly up to this far apart; beyond, the
// boxes' distance stands in, and a tile's corner is searched when needed.
constexpr double kCoarseExact = 5000.0;
constexpr int32_t kMostBlocks = 2048;
constexpr size_t kMostTiles = 4096;  // made again when needed after this many

// The float nearest below.
float Down(double value) {
  const float f = static_cast<float>(value);
  return static_cast<double>(f) > value ? std::nextafter(f, -std::numeric_limits<float>::infinity()) : f;
}

}  // namespace

ClosingTable::ClosingTable(const Geometry& geometry, const BoxTree& tree, double limit)
    : g_(geometry), t_(tree), limit_(limit), beyond_(std::nextafter(limit * 1.000001, kFar)) {
  const int32_t n = g_.size();
  if (n == 0) return;
  while (block_ < static_cast<int32_t>(t_.leaves()) && (n + block_ - 1) / block_ > kMostBlocks) block_ *= 2;
  block_ = std::min(block_, static_cast<int32_t>(t_.leaves()));
  blocks_ = (n + block_ - 1) / block_;
  const uint32_t first = t_.leaves() / static_cast<uint32_t>(block_);  // node of block 0
  const double exact = std::min(limit_, kCoarseExact);
  coarse_.assign(static_cast<size_t>(blocks_) * static_cast<size_t>(blocks_), 0.0f);
  // Row by row from the first block, column by column back from the last:
  // an entry is the least of its neighbours toward (0, last) and of its own
  // block pair, which is worked out only when it could be less.
  for (int32_t i = 0; i < blocks_; ++i) {
    for (int32_t j = blocks_ - 1; j > i; --j) {
      double d = kFar;
      if (i > 0) d = std::min(d, static_cast<double>(Blocks(i - 1, j)));
      if (j + 1 < blocks_) d = std::min(d, static_cast<double>(Blocks(i, j + 1)));
      const uint32_t a = first + static_cast<uint32_t>(i), b = first + static_cast<uint32_t>(j);
      const double least2 = t_.Min2(a, b);
      if (least2 < d * d) {
        const double least = std::sqrt(least2);
        if (least > exact) {
          d = least;
        } else {
          double best2 = d * d;
          int32_t s = 0, e = 0;
          Closest(t_.First(a), t_.Last(a), t_.First(b), t_.Last(b), &best2, &s, &e);
          d = std::sqrt(best2);
        }
      }
      coarse_[static_cast<size_t>(i) * static_cast<size_t>(blocks_) + static_cast<size_t>(j)] = Down(d);
    }
  }
}

void ClosingTable::Closest(int32_t sFrom, int32_t sTo, int32_t eFrom, int32_t eTo, double* best2, int32_t* s,
                           int32_t* e) const {
  struct Item {
    uint32_t s, e;
    double bound;
  };
  auto inside = [this](uint32_t k, int32_t from, int32_t to) {
    return t_.First(k) <= to && t_.Last(k) >= from && t_.First(k) <= t_.Last(k);
  };
  Item stack[160];
  int top = 0;
  stack[top++] = {1, 1, 0.0};
  while (top > 0) {
    const Item item = stack[--top];
    if (item.bound >= *best2) continue;
    const bool sLeaf = t_.IsLeaf(item.s), eLeaf = t_.IsLeaf(item.e);
    if (sLeaf && eLeaf) {
      const int32_t i = t_.First(item.s), j = t_.First(item.e);
      const double d2 = g_.Chord2(i, j);
      if (d2 < *best2) {
        *best2 = d2;
        *s = i;
        *e = j;
      }
      continue;
    }
    const bool splitS = eLeaf || (!sLeaf && t_.Extent2(item.s) >= t_.Extent2(item.e));
    Item child[2];
    int count = 0;
    for (uint32_t c = 0; c < 2; ++c) {
      const uint32_t cs = splitS ? 2 * item.s + c : item.s, ce = splitS ? item.e : 2 * item.e + c;
      if (!inside(cs, sFrom, sTo) || !inside(ce, eFrom, eTo)) continue;
      const double bound = t_.Min2(cs, ce);
      if (bound < *best2) child[count++] = {cs, ce, bound};
    }
    if (count == 2 && child[0].bound < child[1].bound) std::swap(child[0], child[1]);
    for (int c = 0; c < count; ++c) stack[top++] = child[c];
  }
}

double Closing::Lower(int32_t x, int32_t y) const {
  if (x >= y) return 0.0;
  const int32_t k = table_.block();
  const int32_t i = x / k, j = y / k;
  const auto tile = tiles_.find(Key(i, j));
  if (tile != tiles_.end()) {
    return std::sqrt(tile->second[static_cast<size_t>(x - i * k) * static_cast<size_t>(k) +
                                  static_cast<size_t>(y - j * k)]);
  }
  return i == j ? 0.0 : table_.Blocks(i, j);
}

double Closing::Exact(int32_t x, int32_t y) {
  if (x >= y) return 0.0;
  MakeTile(x / table_.block(), y / table_.block());
  return Lower(x, y);
}

void Closing::Pair(int32_t x, int32_t y, int32_t* s, int32_t* e) const {
  const Geometry& g = table_.geometry();
  double best2 = g.Chord2(x, y);
  *s = x;
  *e = y;
  table_.Closest(0, x, y, g.size() - 1, &best2, s, e);
}

double Closing::Nearest(int32_t q, int32_t from, int32_t to, int32_t* hint) const {
  const double beyond = table_.beyond();
  double best2 = std::min(table_.geometry().Chord2(q, *hint), beyond * beyond);
  int32_t s = *hint, e = q;
  table_.Closest(from, to, q, q, &best2, &s, &e);
  *hint = s;
  return std::min(std::sqrt(best2), beyond);
}

void Closing::MakeTile(int32_t i, int32_t j) {
  if (tiles_.count(Key(i, j)) != 0) return;
  const Geometry& g = table_.geometry();
  const int32_t n = g.size(), k = table_.block();
  const int32_t x0 = i * k, x1 = std::min(x0 + k, n) - 1;
  const int32_t y0 = j * k, y1 = std::min(y0 + k, n) - 1;
  const size_t width = static_cast<size_t>(k);

  // G at the corner (x0 - 1, y1 + 1), then along the column x0 - 1 and the
  // row y1 + 1.
  double corner = kFar;
  if (x0 > 0 && y1 + 1 < n) {
    corner = table_.Blocks(i - 1, j + 1);
    if (corner > std::min(table_.limit(), kCoarseExact) && corner <= table_.limit()) {
      double best2 = table_.beyond() * table_.beyond();
      int32_t s = 0, e = 0;
      table_.Closest(0, x0 - 1, y1 + 1, n - 1, &best2, &s, &e);
      corner = std::sqrt(best2);
    }
    corner = std::min(corner, table_.beyond());
  }
  std::vector<double> column(width + 1, corner), row(width + 1, corner);  // column[y - y0], row[x - x0 + 1]
  if (x0 > 0) {
    int32_t hint = x0 - 1;
    for (int32_t y = y1; y >= y0; --y) {
      const size_t c = static_cast<size_t>(y - y0);
      column[c] = std::min(column[c + 1], Nearest(y, 0, x0 - 1, &hint));
    }
  }
  if (y1 + 1 < n) {
    int32_t hint = y1 + 1;
    for (int32_t x = x0; x <= x1; ++x) {
      const size_t r = static_cast<size_t>(x - x0);
      row[r + 1] = std::min(row[r], Nearest(x, y1 + 1, n - 1, &hint));
    }
  }

  // Row by row: the least of the row before, the row's own chords, and then
  // of everything later in the row. Squared chords throughout.
  for (double& v : column) v *= v;
  for (double& v : row) v *= v;
  Tile tile(width * width, 0.0);
  const double *px = g.x(), *py = g.y(), *pz = g.z();
  for (int32_t x = x0; x <= x1; ++x) {
    const int32_t low = std::max(y0, x + 1);
    if (low > y1) continue;
    const size_t r = static_cast<size_t>(x - x0) * width;
    const double* before = x == x0 ? column.data() : &tile[r - width];
    double* out = &tile[r];
    const double qx = px[x], qy = py[x], qz = pz[x];
    for (int32_t y = low; y <= y1; ++y) {
      const double dx = px[y] - qx, dy = py[y] - qy, dz = pz[y] - qz;
      const size_t c = static_cast<size_t>(y - y0);
      out[c] = std::min(before[c], dx * dx + dy * dy + dz * dz);
    }
    double running = row[static_cast<size_t>(x - x0) + 1];
    for (int32_t y = y1; y >= low; --y) {
      const size_t c = static_cast<size_t>(y - y0);
      running = std::min(running, out[c]);
      out[c] = running;
    }
  }
  if (tiles_.size() >= kMostTiles) tiles_.clear();
  tiles_.emplace(Key(i, j), std::move(tile));
}

}  // namespace score
