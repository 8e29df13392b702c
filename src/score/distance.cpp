// Free distance: start, up to three turnpoints and finish in time order, the
// greatest sum of the four legs.
//
// With the middle turnpoint j fixed, the best route is the best two legs
// ending at j plus the best two legs starting there. The farthest fix before
// (after) every fix is found first, on upper bounds of the distances (cheap
// chords). Ranges of j are then searched best first and only ranges whose
// bound beats the best route found are split; a single j is solved on exact
// geodesics.
//
// Along straight stretches many routes tie within metres. Bounding the two
// legs s -> i -> j separately (farthest s, plus farthest box corner from j)
// cannot tell them apart, so the sum is bounded as one: it is convex in the
// position of i, so over a box of i it is greatest at a corner, with s in
// the box of the farthest starts of those i. For a straight stretch that
// bound exceeds the true value by the square of the box's width over the leg
// length, not by the box's length.
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <numeric>
#include <queue>

#include "score/search.h"

namespace score {
namespace {

constexpr double kNone = -std::numeric_limits<double>::infinity();
constexpr int kRough = 4;  // levels coarser than the middle turnpoint's

// Greatest leaf(i) over fixes i in [from, to], where bound(node) is at least
// leaf(i) for every fix of the node. Ties within kInnerTolerance are not
// searched out: the true greatest is at most best + kInnerTolerance. `best`
// and `arg` come in as a known value (or kNone) and go out improved.
template <typename Bound, typename Leaf>
void Farthest(const BoxTree& t, int32_t from, int32_t to, double* best, int32_t* arg, Bound bound, Leaf leaf) {
  struct Item {
    uint32_t node;
    double bound;
  };
  Item stack[130];
  int top = 0;
  stack[top++] = {1, std::numeric_limits<double>::infinity()};
  while (top > 0) {
    const Item item = stack[--top];
    if (item.bound <= *best + kInnerTolerance) continue;
    const uint32_t k = item.node;
    if (t.IsLeaf(k)) {
      const int32_t i = t.First(k);
      const double v = leaf(i);
      if (v > *best) {
        *best = v;
        *arg = i;
      }
      continue;
    }
    Item child[2];
    int count = 0;
    for (uint32_t c = 2 * k; c <= 2 * k + 1; ++c) {
      if (t.Last(c) < from || t.First(c) > to || t.Last(c) < t.First(c)) continue;
      const double b = bound(c, *best);
      if (b > *best + kInnerTolerance) child[count++] = {c, b};
    }
    if (count == 2 && child[0].bound > child[1].bound) std::swap(child[0], child[1]);
    for (int c = 0; c < count; ++c) stack[top++] = child[c];
  }
}

// Greatest chord(s, x) + chord(x, p) for s in box `s` of `starts` and x in
// box `via` of `t`: at a corner of `via`, by convexity.
double ViaBound(const BoxTree& starts, uint32_t s, const BoxTree& t, uint32_t via, const double* p) {
  double most = 0.0;
  for (int corner = 0; corner < 8; ++corner) {
    const double x = corner & 1 ? t.High(via, 0) : t.Low(via, 0);
    const double y = corner & 2 ? t.High(via, 1) : t.Low(via, 1);
    const double z = corner & 4 ? t.High(via, 2) : t.Low(via, 2);
    const double dx = x - p[0], dy = y - p[1], dz = z - p[2];
    most = std::max(most, std::sqrt(starts.Max2(s, x, y, z)) + std::sqrt(dx * dx + dy * dy + dz * dz));
  }
  return most;
}

// Greatest value of each node's leaves.
std::vector<double> NodeMaxima(const BoxTree& t, const std::vector<double>& values) {
  std::vector<double> m(2 * static_cast<size_t>(t.leaves()), kNone);
  for (size_t i = 0; i < values.size(); ++i) m[t.leaves() + i] = values[i];
  for (size_t k = t.leaves() - 1; k >= 1; --k) m[k] = std::max(m[2 * k], m[2 * k + 1]);
  return m;
}

class FreeDistance {
 public:
  FreeDistance(const Geometry& g, const BoxTree& t) : g_(g), t_(t), n_(g.size()) {}

  Shape Run(const Deadline& deadline);

 private:
  static int Depth(uint32_t node) { return 31 - __builtin_clz(node); }

  // The farthest fix before (forward) or after every fix, on upper bounds.
  void OneLegPass(bool forward);
  // At least the two legs ending (forward) or starting at any fix i of node
  // `via`, with the other end at point p.
  double TwoLegs(uint32_t via, const double* p, int side, double floor) const {
    const double cheap = max1_[side][via] + g_.Upper(std::sqrt(t_.Max2(via, p[0], p[1], p[2])));
    if (cheap <= floor) return cheap;
    const double tight = g_.Upper(ViaBound(*starts_[side], via, t_, via, p)) + Geometry::kSlack + kInnerTolerance;
    return std::min(cheap, tight);
  }
  // Bound of the best two legs ending (forward) or starting at point p, with
  // the middle fix before (after) the fixes of node j: ranges no smaller
  // than j are not split further.
  double TwoLegBound(uint32_t j, const double* p, bool forward, double floor, int coarser = 0) const;
  // Bound of the best route with its middle turnpoint in node j.
  double RouteBound(uint32_t j, double best) const;
  // Exact one-leg and two-leg values at fixes; one-leg values are memoised.
  double Leg1(int32_t i, bool forward);
  double Leg2(int32_t j, bool forward, int32_t* via);

  const Geometry& g_;
  const BoxTree& t_;
  const int32_t n_;
  // [0]: legs ending at the fix (before it), [1]: legs starting there.
  std::vector<double> up1_[2], max1_[2];
  std::vector<int32_t> arg1_[2];
  std::unique_ptr<BoxTree> starts_[2];  // boxes of the farthest fixes of each node's fixes
  std::vector<double> exact1_[2];
  std::vector<int32_t> exactArg1_[2];
};

void FreeDistance::OneLegPass(bool forward) {
  const int side = forward ? 0 : 1;
  up1_[side].assign(static_cast<size_t>(n_), 0.0);
  arg1_[side].assign(static_cast<size_t>(n_), 0);
  int32_t hint = forward ? 0 : n_ - 1;
  for (int32_t s = 0; s < n_; ++s) {
    const int32_t j = forward ? s : n_ - 1 - s;
    const int32_t from = forward ? 0 : j, to = forward ? j : n_ - 1;
    const uint32_t leaf = t_.Leaf(j);
    double best = g_.Upper(std::sqrt(g_.Chord2(hint, j)));
    int32_t at = hint;
    Farthest(
        t_, from, to, &best, &at, [&](uint32_t c, double) { return g_.Upper(std::sqrt(t_.Max2(c, leaf))); },
        [&](int32_t i) { return g_.Upper(std::sqrt(g_.Chord2(i, j))); });
    up1_[side][j] = best + kInnerTolerance;
    arg1_[side][j] = at;
    hint = at;
  }
  max1_[side] = NodeMaxima(t_, up1_[side]);
  std::vector<double> x(static_cast<size_t>(n_)), y(x.size()), z(x.size());
  for (int32_t i = 0; i < n_; ++i) {
    const int32_t a = arg1_[side][i];
    x[i] = g_.x()[a];
    y[i] = g_.y()[a];
    z[i] = g_.z()[a];
  }
  starts_[side] = std::make_unique<BoxTree>(x.data(), y.data(), z.data(), n_);
  exact1_[side].assign(static_cast<size_t>(n_), std::numeric_limits<double>::quiet_NaN());
  exactArg1_[side].assign(static_cast<size_t>(n_), 0);
}

double FreeDistance::TwoLegBound(uint32_t j, const double* p, bool forward, double floor, int coarser) const {
  const int side = forward ? 0 : 1;
  const int depth = Depth(j) - coarser;
  const int32_t from = forward ? 0 : t_.First(j), to = forward ? t_.Last(j) : n_ - 1;
  double best = floor;
  struct Item {
    uint32_t node;
    double bound;
  };
  Item stack[130];
  int top = 0;
  stack[top++] = {1, TwoLegs(1, p, side, best)};
  while (top > 0) {
    const Item item = stack[--top];
    if (item.bound <= best + kInnerTolerance) continue;
    const uint32_t k = item.node;
    if (Depth(k) >= depth || t_.IsLeaf(k)) {
      best = item.bound;
      continue;
    }
    Item child[2];
    int count = 0;
    for (uint32_t c = 2 * k; c <= 2 * k + 1; ++c) {
      if (t_.Last(c) < from || t_.First(c) > to || t_.Last(c) < t_.First(c)) continue;
      const double b = TwoLegs(c, p, side, best);
      if (b > best + kInnerTolerance) child[count++] = {c, b};
    }
    if (count == 2 && child[0].bound > child[1].bound) std::swap(child[0], child[1]);
    for (int c = 0; c < count; ++c) stack[top++] = child[c];
  }
  return best + kInnerTolerance;
}

double FreeDistance::RouteBound(uint32_t j, double best) const {
  // The route's length is convex in the position of its middle turnpoint:
  // over the box of j it is greatest at a corner.
  double most = kNone;
  for (int corner = 0; corner < 8; ++corner) {
    const double p[3] = {corner & 1 ? t_.High(j, 0) : t_.Low(j, 0), corner & 2 ? t_.High(j, 1) : t_.Low(j, 1),
                         corner & 4 ? t_.High(j, 2) : t_.Low(j, 2)};
    // A rough bound of one side first lets the other skip what cannot count.
    const double rough = TwoLegBound(j, p, true, kNone, kRough);
    const double after = TwoLegBound(j, p, false, std::max(best, most) - rough);
    const double before = TwoLegBound(j, p, true, std::max(best, most) - after);
    most = std::max(most, before + after);
  }
  return most;
}

double FreeDistance::Leg1(int32_t i, bool forward) {
  const int side = forward ? 0 : 1;
  double& memo = exact1_[side][i];
  if (!std::isnan(memo)) return memo;
  const int32_t from = forward ? 0 : i, to = forward ? i : n_ - 1;
  const uint32_t leaf = t_.Leaf(i);
  int32_t at = arg1_[side][i];
  double best = g_.Distance(at, i);
  Farthest(
      t_, from, to, &best, &at, [&](uint32_t c, double) { return g_.Upper(std::sqrt(t_.Max2(c, leaf))); },
      [&](int32_t k) { return g_.Distance(k, i); });
  exactArg1_[side][i] = at;
  return memo = best;
}

double FreeDistance::Leg2(int32_t j, bool forward, int32_t* via) {
  const int side = forward ? 0 : 1;
  const int32_t from = forward ? 0 : j, to = forward ? j : n_ - 1;
  const double p[3] = {g_.x()[j], g_.y()[j], g_.z()[j]};
  int32_t at = j;
  double best = Leg1(j, forward);
  Farthest(
      t_, from, to, &best, &at, [&](uint32_t c, double floor) { return TwoLegs(c, p, side, floor); },
      [&](int32_t i) { return Leg1(i, forward) + g_.Distance(i, j); });
  *via = at;
  return best;
}

Shape FreeDistance::Run(const Deadline& deadline) {
  Shape shape;
  shape.kind = ShapeKind::kFree;
  if (n_ < 2) {
    shape.optimal = true;
    return shape;
  }
  OneLegPass(true);
  OneLegPass(false);

  double best = kNone;
  int32_t route[5] = {0, 0, 0, 0, 0};
  auto evaluate = [&](int32_t j) {
    int32_t before = 0, after = 0;
    const double value = Leg2(j, true, &before) + Leg2(j, false, &after);
    if (value > best) {
      best = value;
      route[0] = exactArg1_[0][before];
      route[1] = before;
      route[2] = j;
      route[3] = after;
      route[4] = exactArg1_[1][after];
    }
  };
  // A first route: through the fix with the best start and finish.
  int32_t first = 0;
  for (int32_t j = 1; j < n_; ++j) {
    if (up1_[0][j] + up1_[1][j] > up1_[0][first] + up1_[1][first]) first = j;
  }
  evaluate(first);

  struct Item {
    double bound;
    uint32_t node;
    bool operator<(const Item& other) const { return bound < other.bound; }
  };
  std::priority_queue<Item> queue;
  queue.push({RouteBound(1, best), 1});
  shape.optimal = true;
  while (!queue.empty()) {
    const Item item = queue.top();
    if (item.bound <= best + kTolerance) break;
    if (deadline.Passed()) {
      shape.optimal = false;
      shape.bound = item.bound;
      break;
    }
    queue.pop();
    if (t_.IsLeaf(item.node)) {
      evaluate(t_.First(item.node));
      continue;
    }
    for (uint32_t c = 2 * item.node; c <= 2 * item.node + 1; ++c) {
      if (t_.Last(c) < t_.First(c)) continue;
      const double bound = RouteBound(c, best);
      if (bound > best + kTolerance) queue.push({bound, c});
    }
  }
  shape.found = true;
  shape.points.assign(route, route + 5);
  shape.distance = 0.0;
  for (int k = 0; k < 4; ++k) {
    shape.legs.push_back(g_.Distance(route[k], route[k + 1]));
    shape.distance += shape.legs.back();
  }
  if (shape.optimal) shape.bound = shape.distance;
  return shape;
}

}  // namespace

Shape FindFreeDistance(const Geometry& geometry, const BoxTree& tree, const RuleSet& rules, const Deadline& deadline) {
  FreeDistance search(geometry, tree);
  Shape shape = search.Run(deadline);
  shape.multiplier = rules.freeMultiplier;
  shape.name = "free distance";
  shape.score = shape.distance * shape.multiplier;
  shape.bound = std::max(shape.bound, shape.distance) * shape.multiplier;
  return shape;
}

}  // namespace score
