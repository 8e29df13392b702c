#include "score/closing.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace score {
namespace {

constexpr double kFar = std::numeric_limits<double>::infinity();
// Whole-block gaps are worked out exactly up to this far apart; beyond, the
// boxes' distance stands in, and a block pair's corner is searched when
// needed.
constexpr double kCoarseExact = 5000.0;
constexpr int32_t kMostBlocks = 1024;

struct Range {
  int32_t from, to;
};

// Least squared chord between a fix of node s within `sr` and one of node e
// within `er`; `best2` comes in as a known value and goes out improved.
void ClosestNodes(const Geometry& g, const BoxTree& t, uint32_t s, Range sr, uint32_t e, Range er, double* best2,
                  int32_t* bs, int32_t* be) {
  struct Item {
    uint32_t s, e;
    double bound;
  };
  std::vector<Item> stack;
  stack.push_back({s, e, t.Min2(s, e)});
  auto inside = [&t](uint32_t k, Range r) { return t.First(k) <= r.to && t.Last(k) >= r.from && t.First(k) <= t.Last(k); };
  while (!stack.empty()) {
    const Item item = stack.back();
    stack.pop_back();
    if (item.bound >= *best2) continue;
    const bool sLeaf = t.IsLeaf(item.s), eLeaf = t.IsLeaf(item.e);
    if (sLeaf && eLeaf) {
      const int32_t i = t.First(item.s), j = t.First(item.e);
      const double d2 = g.Chord2(i, j);
      if (d2 < *best2) {
        *best2 = d2;
        *bs = i;
        *be = j;
      }
      continue;
    }
    const bool splitS = eLeaf || (!sLeaf && t.Extent2(item.s) >= t.Extent2(item.e));
    Item child[2];
    int count = 0;
    for (uint32_t c = 0; c < 2; ++c) {
      const uint32_t cs = splitS ? 2 * item.s + c : item.s, ce = splitS ? item.e : 2 * item.e + c;
      if (!inside(cs, sr) || !inside(ce, er)) continue;
      const double bound = t.Min2(cs, ce);
      if (bound < *best2) child[count++] = {cs, ce, bound};
    }
    if (count == 2 && child[0].bound < child[1].bound) std::swap(child[0], child[1]);
    for (int c = 0; c < count; ++c) stack.push_back(child[c]);
  }
}

}  // namespace

Closing::Closing(const Geometry& geometry, const BoxTree& tree, double exact)
    : g_(geometry), t_(tree), n_(geometry.size()), exact_(exact) {
  if (n_ == 0) return;
  while (block_ < static_cast<int32_t>(t_.leaves()) && (n_ + block_ - 1) / block_ > kMostBlocks) block_ *= 2;
  blocks_ = (n_ + block_ - 1) / block_;
  const uint32_t first = t_.leaves() / static_cast<uint32_t>(block_);  // node of block 0
  const double coarseExact = std::min(exact_, kCoarseExact);
  coarse_.assign(static_cast<size_t>(blocks_) * static_cast<size_t>(blocks_), 0.0);
  // Rows from the first block down, columns from the last block back: each
  // entry is the least of its block pair and its neighbours toward (0, last).
  for (int32_t i = 0; i < blocks_; ++i) {
    for (int32_t j = blocks_ - 1; j > i; --j) {
      const uint32_t a = first + static_cast<uint32_t>(i), b = first + static_cast<uint32_t>(j);
      double d = std::sqrt(t_.Min2(a, b));
      if (d <= coarseExact) {
        double best2 = kFar;
        int32_t s = 0, e = 0;
        ClosestNodes(g_, t_, a, {0, n_ - 1}, b, {0, n_ - 1}, &best2, &s, &e);
        d = std::sqrt(best2);
      }
      if (i > 0) d = std::min(d, Coarse(i - 1, j));
      if (j + 1 < blocks_) d = std::min(d, Coarse(i, j + 1));
      coarse_[static_cast<size_t>(i) * static_cast<size_t>(blocks_) + static_cast<size_t>(j)] = d;
    }
  }
}

double Closing::Lower(int32_t x, int32_t y) const {
  if (x >= y) return 0.0;
  const int32_t i = x / block_, j = y / block_;
  const auto tile = tiles_.find(Key(i, j));
  if (tile != tiles_.end()) {
    return tile->second[static_cast<size_t>(x - i * block_) * static_cast<size_t>(block_) +
                        static_cast<size_t>(y - j * block_)];
  }
  return i == j ? 0.0 : Coarse(i, j);
}

double Closing::Exact(int32_t x, int32_t y) {
  if (x >= y) return 0.0;
  MakeTile(x / block_, y / block_);
  return Lower(x, y);
}

double Closing::Nearest(int32_t q, int32_t from, int32_t to, int32_t* hint) const {
  double best2 = g_.Chord2(q, *hint);
  int32_t s = *hint, e = q;
  ClosestNodes(g_, t_, 1, {from, to}, t_.Leaf(q), {q, q}, &best2, &s, &e);
  *hint = s;
  return std::sqrt(best2);
}

double Closing::ClosestPair(int32_t x, int32_t y, int32_t* s, int32_t* e) const {
  double best2 = g_.Chord2(x, y);
  *s = x;
  *e = y;
  ClosestNodes(g_, t_, 1, {0, x}, 1, {y, n_ - 1}, &best2, s, e);
  return std::sqrt(best2);
}

void Closing::Pair(int32_t x, int32_t y, int32_t* s, int32_t* e) const { ClosestPair(x, y, s, e); }

const Closing::Tile& Closing::MakeTile(int32_t i, int32_t j) {
  const auto found = tiles_.find(Key(i, j));
  if (found != tiles_.end()) return found->second;
  const int32_t x0 = i * block_, x1 = std::min(x0 + block_, n_) - 1;
  const int32_t y0 = j * block_, y1 = std::min(y0 + block_, n_) - 1;
  const size_t k = static_cast<size_t>(block_);

  // G at the corner (x0 - 1, y1 + 1), then along the column x0 - 1 and the
  // row y1 + 1.
  double corner = kFar;
  if (x0 > 0 && y1 + 1 < n_) {
    corner = Coarse(i - 1, j + 1);
    if (corner > std::min(exact_, kCoarseExact) && corner <= exact_) {
      int32_t s = 0, e = 0;
      corner = ClosestPair(x0 - 1, y1 + 1, &s, &e);
    }
  }
  std::vector<double> column(k + 1, corner), row(k + 1, corner);  // column[y - y0], row[x - x0 + 1]
  if (x0 > 0) {
    int32_t hint = x0 - 1;
    for (int32_t y = y1; y >= y0; --y) {
      column[static_cast<size_t>(y - y0)] =
          std::min(column[static_cast<size_t>(y - y0) + 1], Nearest(y, 0, x0 - 1, &hint));
    }
  }
  if (y1 + 1 < n_) {
    int32_t hint = y1 + 1;
    for (int32_t x = x0; x <= x1; ++x) {
      row[static_cast<size_t>(x - x0) + 1] = std::min(row[static_cast<size_t>(x - x0)], Nearest(x, y1 + 1, n_ - 1, &hint));
    }
  }

  Tile tile(k * k, 0.0);
  for (int32_t x = x0; x <= x1; ++x) {
    const size_t r = static_cast<size_t>(x - x0) * k;
    for (int32_t y = y1; y >= y0 && y > x; --y) {
      const size_t c = static_cast<size_t>(y - y0);
      const double left = x == x0 ? column[c] : tile[r - k + c];
      const double up = y == y1 ? row[static_cast<size_t>(x - x0) + 1] : tile[r + c + 1];
      tile[r + c] = std::min({left, up, std::sqrt(g_.Chord2(x, y))});
    }
  }
  return tiles_.emplace(Key(i, j), std::move(tile)).first->second;
}

}  // namespace score
