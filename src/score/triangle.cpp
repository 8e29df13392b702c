// Triangles: turnpoints a < b < c, a closing gap G(a, c) within the rules'
// limit, and the score multiplier x (perimeter - deducted gap).
//
// Branch and bound over three ranges of fixes, best bound first. A node's
// bound takes each leg as the farthest its two boxes reach, the gap as the
// least any a of the first range and c of the last can have, and for FAI
// triangles that no leg is shorter than its share of the perimeter. Single
// turnpoints are scored on exact geodesics. The search stops when no node's
// bound beats the best triangle: that triangle is optimal.
#include <algorithm>
#include <cmath>
#include <limits>
#include <thread>

#include "score/closing.h"
#include "score/search.h"

namespace score {
namespace {

constexpr double kNone = -std::numeric_limits<double>::infinity();
constexpr int kDeadlineEvery = 4096;
constexpr int kDiveEvery = 8192;
constexpr size_t kMostNodes = size_t{2} << 20;  // about 50 MB of open nodes

double Limit(const Tier& tier, double perimeter) { return std::max(tier.fixedKm * 1000.0, tier.relative * perimeter); }

class TriangleSearch {
 public:
  TriangleSearch(const ClosingTable& table, const RuleSet& rules, bool fai)
      : g_(table.geometry()), t_(table.tree()), n_(g_.size()), fai_(fai), faiLeg_(rules.faiLeg),
        longestGap_(table.limit()), closing_(table) {
    const Tier* tiers = fai ? rules.fai : rules.flat;
    tiers_.assign(tiers, tiers + (fai ? rules.faiTiers : rules.flatTiers));
  }

  Shape Run(const Deadline& deadline);

 private:
  struct Node {
    double bound;
    uint32_t a, b, c;
    bool operator<(const Node& other) const { return bound < other.bound; }
  };

  // Best score of a perimeter and gap over the tiers, or kNone when none
  // closes; `tier` receives the one scoring.
  double Score(double perimeter, double gap, int* tier) const;
  // At least the score of any triangle with perimeter at most `perimeter`
  // and gap at least `gap`.
  double ScoreBound(double perimeter, double gap) const;
  double Bound(uint32_t a, uint32_t b, uint32_t c);
  void Leaf(int32_t a, int32_t b, int32_t c);
  void Push(uint32_t a, uint32_t b, uint32_t c);
  void Dive(Node node);
  uint32_t Split(const Node& node) const;

  const Geometry& g_;
  const BoxTree& t_;
  const int32_t n_;
  const bool fai_;
  const double faiLeg_;
  std::vector<Tier> tiers_;
  const double longestGap_;
  Closing closing_;
  std::vector<Node> heap_;
  double best_ = 0.0;  // a triangle must score more than nothing
  int32_t corners_[3] = {0, 0, 0};
};

double TriangleSearch::Score(double perimeter, double gap, int* tier) const {
  double best = kNone;
  for (size_t k = 0; k < tiers_.size(); ++k) {
    const Tier& t = tiers_[k];
    if (gap > Limit(t, perimeter)) continue;
    const double score = t.multiplier * (perimeter - (gap > t.freeKm * 1000.0 ? gap : 0.0));
    if (score > best) {
      best = score;
      *tier = static_cast<int>(k);
    }
  }
  return best;
}

double TriangleSearch::ScoreBound(double perimeter, double gap) const {
  // A tier's limit grows with the perimeter and its deduction with the gap.
  double best = kNone;
  for (const Tier& t : tiers_) {
    if (gap > Limit(t, perimeter)) continue;
    best = std::max(best, t.multiplier * (perimeter - (gap > t.freeKm * 1000.0 ? gap : 0.0)));
  }
  return best;
}

double TriangleSearch::Bound(uint32_t a, uint32_t b, uint32_t c) {
  // Some a < b < c must exist.
  const int32_t a0 = t_.First(a);
  const int32_t b0 = std::max(t_.First(b), a0 + 1);
  if (b0 > t_.Last(b)) return kNone;
  const int32_t c0 = std::max(t_.First(c), b0 + 1);
  if (c0 > t_.Last(c)) return kNone;

  const double ab = g_.Upper(std::sqrt(t_.Max2(a, b)));
  const double bc = g_.Upper(std::sqrt(t_.Max2(b, c)));
  const double ca = g_.Upper(std::sqrt(t_.Max2(c, a)));
  double perimeter = ab + bc + ca;
  if (fai_) {
    const double least = Geometry::Lower(std::sqrt(t_.Min2(a, b))) + Geometry::Lower(std::sqrt(t_.Min2(b, c))) +
                         Geometry::Lower(std::sqrt(t_.Min2(c, a)));
    const double shortest = std::min({ab, bc, ca});
    if (shortest < faiLeg_ * least) return kNone;
    perimeter = std::min(perimeter, shortest / faiLeg_);
  }
  // The latest a and the earliest c close best.
  const int32_t x = std::min({t_.Last(a), t_.Last(b) - 1, t_.Last(c) - 2});
  const int32_t y = std::max({t_.First(c), t_.First(b) + 1, t_.First(a) + 2});
  double gap = closing_.Lower(x, y);
  if (gap > longestGap_) return kNone;
  // Within one block pair the exact gaps are worth making.
  if (t_.Last(a) - t_.First(a) < closing_.block() && t_.Last(c) - t_.First(c) < closing_.block() &&
      ScoreBound(perimeter, gap) > best_) {
    gap = closing_.Exact(x, y);
  }
  return ScoreBound(perimeter, gap);
}

void TriangleSearch::Leaf(int32_t a, int32_t b, int32_t c) {
  const double gap = closing_.Exact(a, c);
  const double ab = g_.Distance(a, b), bc = g_.Distance(b, c), ca = g_.Distance(c, a);
  const double perimeter = ab + bc + ca;
  if (fai_ && std::min({ab, bc, ca}) < faiLeg_ * perimeter) return;
  int tier = 0;
  const double score = Score(perimeter, gap, &tier);
  if (score > best_) {
    best_ = score;
    corners_[0] = a;
    corners_[1] = b;
    corners_[2] = c;
  }
}

void TriangleSearch::Push(uint32_t a, uint32_t b, uint32_t c) {
  const double bound = Bound(a, b, c);
  if (bound <= best_ + kTolerance) return;
  if (t_.IsLeaf(a) && t_.IsLeaf(b) && t_.IsLeaf(c)) {
    Leaf(t_.First(a), t_.First(b), t_.First(c));
    return;
  }
  heap_.push_back({bound, a, b, c});
  std::push_heap(heap_.begin(), heap_.end());
}

void TriangleSearch::Dive(Node node) {
  // Follow the child with the best bound down to single fixes.
  while (true) {
    const uint32_t which = Split(node);
    if (which == 3) {
      Leaf(t_.First(node.a), t_.First(node.b), t_.First(node.c));
      return;
    }
    Node best{kNone, 0, 0, 0};
    for (uint32_t half = 0; half < 2; ++half) {
      uint32_t k[3] = {node.a, node.b, node.c};
      k[which] = 2 * k[which] + half;
      if (t_.Last(k[which]) < t_.First(k[which])) continue;
      const double bound = Bound(k[0], k[1], k[2]);
      if (bound > best.bound) best = {bound, k[0], k[1], k[2]};
    }
    if (best.bound <= best_) return;
    node = best;
  }
}

// Which range to halve: the widest in space.
uint32_t TriangleSearch::Split(const Node& node) const {
  uint32_t which = 3;
  double widest = -1.0;
  const uint32_t nodes[3] = {node.a, node.b, node.c};
  for (uint32_t k = 0; k < 3; ++k) {
    if (t_.IsLeaf(nodes[k])) continue;
    const double extent = t_.Extent2(nodes[k]);
    if (extent > widest) {
      widest = extent;
      which = k;
    }
  }
  return which;
}

Shape TriangleSearch::Run(const Deadline& deadline) {
  Shape shape;
  shape.kind = fai_ ? ShapeKind::kFai : ShapeKind::kFlat;
  shape.optimal = true;
  if (n_ < 3) return shape;

  // A first triangle, then now and then another from the node at hand: the
  // searches that run into the time limit keep a good one.
  Dive({0.0, 1, 1, 1});
  Push(1, 1, 1);
  int64_t pops = 0;
  while (!heap_.empty()) {
    const Node node = heap_.front();
    if (node.bound <= best_ + kTolerance) break;
    if ((++pops % kDeadlineEvery == 0 && deadline.Passed()) || heap_.size() > kMostNodes) {
      shape.optimal = false;
      shape.bound = node.bound;
      break;
    }
    if (pops % kDiveEvery == 0) Dive(node);
    std::pop_heap(heap_.begin(), heap_.end());
    heap_.pop_back();
    const uint32_t which = Split(node);
    for (uint32_t half = 0; half < 2; ++half) {
      uint32_t k[3] = {node.a, node.b, node.c};
      k[which] = 2 * k[which] + half;
      if (t_.Last(k[which]) < t_.First(k[which])) continue;
      Push(k[0], k[1], k[2]);
    }
  }
  if (best_ == 0.0) return shape;

  shape.found = true;
  const int32_t a = corners_[0], b = corners_[1], c = corners_[2];
  int32_t s = 0, e = 0;
  closing_.Pair(a, c, &s, &e);
  shape.points = {a, b, c, s, e};
  shape.legs = {g_.Distance(a, b), g_.Distance(b, c), g_.Distance(c, a)};
  shape.distance = shape.legs[0] + shape.legs[1] + shape.legs[2];
  shape.gap = g_.Distance(s, e);
  int tier = 0;
  shape.score = Score(shape.distance, shape.gap, &tier);
  const Tier& used = tiers_[static_cast<size_t>(tier)];
  shape.multiplier = used.multiplier;
  shape.name = used.name;
  shape.bound = shape.optimal ? shape.score : std::max(shape.bound, shape.score);
  return shape;
}

}  // namespace

Shape FindTriangle(const ClosingTable& closing, const RuleSet& rules, bool fai, const Deadline& deadline) {
  TriangleSearch search(closing, rules, fai);
  return search.Run(deadline);
}

double LongestGap(const RuleSet& rules, const Geometry& geometry, const BoxTree& tree) {
  const double perimeter = 3.0 * geometry.Upper(std::sqrt(tree.Max2(1, 1)));
  double longest = 0.0;
  for (int k = 0; k < rules.flatTiers; ++k) longest = std::max(longest, Limit(rules.flat[k], perimeter));
  for (int k = 0; k < rules.faiTiers; ++k) longest = std::max(longest, Limit(rules.fai[k], perimeter));
  return longest;
}

Scores ScoreFlight(const std::vector<Fix>& fixes, const RuleSet& rules, Earth earth, const Deadline& deadline) {
  const Geometry geometry(fixes, earth);
  const BoxTree tree(geometry);
  const ClosingTable closing(geometry, tree, LongestGap(rules, geometry, tree));
  Scores scores;
  std::thread free([&] { scores.free = FindFreeDistance(geometry, tree, rules, deadline); });
  std::thread fai([&] { scores.fai = FindTriangle(closing, rules, true, deadline); });
  scores.flat = FindTriangle(closing, rules, false, deadline);
  fai.join();
  free.join();
  return scores;
}

}  // namespace score
