// Triangles: turnpoints a < b < c, a closing gap G(a, c) within the rules'
// limit, and the score multiplier x (perimeter - deducted gap).
//
// The perimeter and the FAI shares do not depend on the order of the three
// fixes, only the gap does (through the first and the last). So the search
// runs over unordered triples of regions of space, not of stretches of time:
// a site visited again and again (ridge soaring, thermalling in one place)
// is one region, not hundreds of stretches. The regions are the nodes of a
// k-d tree over the fixes; each knows the earliest and latest fix in it.
//
// Branch and bound over three regions, best bound first. A node's bound
// takes each leg as the farthest its two boxes reach, the gap as the least
// any first turnpoint up to the earliest "latest fix" and last turnpoint
// from the latest "earliest fix" can have, and for FAI triangles that no leg
// is shorter than its share of the perimeter. Single fixes are scored on
// exact geodesics. The search stops when no node's bound beats the best
// triangle: that triangle is optimal.
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <thread>
#include <time.h>

#include "score/closing.h"
#include "score/search.h"

namespace score {
namespace {

constexpr double kNone = -std::numeric_limits<double>::infinity();
constexpr int kDeadlineEvery = 4096;
constexpr int kDiveEvery = 8192;
constexpr int32_t kExactGapFixes = 4;
constexpr size_t kMostNodes = size_t{2} << 20;  // about 50 MB of open nodes

double Limit(const Tier& tier, double perimeter) { return std::max(tier.fixedKm * 1000.0, tier.relative * perimeter); }

// The fixes in k-d tree order, laid out as a BoxTree lays out its leaves:
// node k's fixes are order[First(k) .. Last(k)].
std::vector<int32_t> KdOrder(const Geometry& g, uint32_t leaves) {
  const int32_t n = g.size();
  std::vector<int32_t> order(static_cast<size_t>(n));
  for (int32_t i = 0; i < n; ++i) order[static_cast<size_t>(i)] = i;
  const double* axes[3] = {g.x(), g.y(), g.z()};
  struct Span {
    int32_t lo, hi;  // slots
  };
  std::vector<Span> todo{{0, static_cast<int32_t>(leaves)}};
  while (!todo.empty()) {
    const Span span = todo.back();
    todo.pop_back();
    const int32_t end = std::min(span.hi, n);
    if (end - span.lo <= 1) continue;
    double low[3] = {1e300, 1e300, 1e300}, high[3] = {-1e300, -1e300, -1e300};
    for (int32_t k = span.lo; k < end; ++k) {
      for (int axis = 0; axis < 3; ++axis) {
        low[axis] = std::min(low[axis], axes[axis][order[static_cast<size_t>(k)]]);
        high[axis] = std::max(high[axis], axes[axis][order[static_cast<size_t>(k)]]);
      }
    }
    int axis = 0;
    for (int a = 1; a < 3; ++a) {
      if (high[a] - low[a] > high[axis] - low[axis]) axis = a;
    }
    const int32_t mid = span.lo + (span.hi - span.lo) / 2;
    if (mid < end) {
      const double* v = axes[axis];
      std::nth_element(order.begin() + span.lo, order.begin() + mid, order.begin() + end,
                       [v](int32_t i, int32_t j) { return v[i] < v[j] || (v[i] == v[j] && i < j); });
      todo.push_back({mid, span.hi});
    }
    todo.push_back({span.lo, mid});
  }
  return order;
}

class TriangleSearch {
 public:
  TriangleSearch(const ClosingTable& table, const RuleSet& rules, bool fai)
      : g_(table.geometry()), n_(g_.size()), fai_(fai), faiLeg_(rules.faiLeg), longestGap_(table.limit()),
        closing_(table) {
    const Tier* tiers = fai ? rules.fai : rules.flat;
    tiers_.assign(tiers, tiers + (fai ? rules.faiTiers : rules.flatTiers));
    order_ = KdOrder(g_, table.tree().leaves());
    std::vector<double> x(order_.size()), y(order_.size()), z(order_.size());
    for (size_t k = 0; k < order_.size(); ++k) {
      x[k] = g_.x()[order_[k]];
      y[k] = g_.y()[order_[k]];
      z[k] = g_.z()[order_[k]];
    }
    tree_ = std::make_unique<BoxTree>(x.data(), y.data(), z.data(), n_);
    const uint32_t leaves = tree_->leaves();
    earliest_.assign(2 * static_cast<size_t>(leaves), std::numeric_limits<int32_t>::max());
    latest_.assign(2 * static_cast<size_t>(leaves), -1);
    for (size_t k = 0; k < order_.size(); ++k) earliest_[leaves + k] = latest_[leaves + k] = order_[k];
    for (size_t k = leaves - 1; k >= 1; --k) {
      earliest_[k] = std::min(earliest_[2 * k], earliest_[2 * k + 1]);
      latest_[k] = std::max(latest_[2 * k], latest_[2 * k + 1]);
    }
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
  // The children of a node: the widest region halved; a region that stands
  // for two or three corners gives every way of sharing them between its
  // halves. Returns how many (at most 4), -1 for three single fixes.
  int Children(const Node& node, Node* children) const;
  int32_t Count(uint32_t k) const { return tree_->Last(k) - tree_->First(k) + 1; }

  const Geometry& g_;
  const int32_t n_;
  const bool fai_;
  const double faiLeg_;
  std::vector<Tier> tiers_;
  const double longestGap_;
  Closing closing_;
  std::vector<int32_t> order_;  // fixes in k-d order
  std::unique_ptr<BoxTree> tree_;
  std::vector<int32_t> earliest_, latest_;  // per node
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
  // Three different fixes: a region standing for two corners needs two.
  if (a == c ? Count(a) < 3 : (a == b && Count(a) < 2) || (b == c && Count(b) < 2)) return kNone;
  const BoxTree& t = *tree_;
  const double ab = g_.Upper(std::sqrt(t.Max2(a, b)));
  const double bc = g_.Upper(std::sqrt(t.Max2(b, c)));
  const double ca = g_.Upper(std::sqrt(t.Max2(c, a)));
  double perimeter = ab + bc + ca;
  if (fai_) {
    const double least = Geometry::Lower(std::sqrt(t.Min2(a, b))) + Geometry::Lower(std::sqrt(t.Min2(b, c))) +
                         Geometry::Lower(std::sqrt(t.Min2(c, a)));
    const double shortest = std::min({ab, bc, ca});
    if (shortest < faiLeg_ * least) return kNone;
    perimeter = std::min(perimeter, shortest / faiLeg_);
  }
  // The first turnpoint is at the latest the earliest of the regions'
  // latest fixes, the last one at the earliest the latest of their earliest.
  const int32_t x = std::min({latest_[a], latest_[b], latest_[c]});
  const int32_t y = std::max({earliest_[a], earliest_[b], earliest_[c]});
  double gap = closing_.Lower(x, y);
  if (gap > longestGap_) return kNone;
  // For regions of a few fixes the exact gaps are worth making.
  if (std::max({Count(a), Count(b), Count(c)}) <= kExactGapFixes && ScoreBound(perimeter, gap) > best_) {
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
  if (tree_->IsLeaf(a) && tree_->IsLeaf(b) && tree_->IsLeaf(c)) {
    int32_t fixes[3] = {order_[tree_->First(a)], order_[tree_->First(b)], order_[tree_->First(c)]};
    std::sort(fixes, fixes + 3);
    Leaf(fixes[0], fixes[1], fixes[2]);
    return;
  }
  heap_.push_back({bound, a, b, c});
  std::push_heap(heap_.begin(), heap_.end());
}

int TriangleSearch::Children(const Node& node, Node* children) const {
  const BoxTree& t = *tree_;
  const std::array<uint32_t, 3> k = {node.a, node.b, node.c};
  int which = -1;
  double widest = -1.0;
  for (int p = 0; p < 3; ++p) {
    if (t.IsLeaf(k[p]) || (p > 0 && k[p] == k[p - 1])) continue;
    const double extent = t.Extent2(k[p]);
    if (extent > widest) {
      widest = extent;
      which = p;
    }
  }
  if (which < 0) return -1;
  int last = which;
  while (last + 1 < 3 && k[last + 1] == k[which]) ++last;
  const int copies = last - which + 1;
  const uint32_t low = 2 * k[which], high = low + 1;
  int count = 0;
  for (int lows = copies; lows >= 0; --lows) {
    uint32_t child[3] = {k[0], k[1], k[2]};
    for (int p = which; p <= last; ++p) child[p] = p - which < lows ? low : high;
    bool empty = false;
    for (int p = which; p <= last; ++p) empty = empty || t.Last(child[p]) < t.First(child[p]);
    if (!empty) children[count++] = {0.0, child[0], child[1], child[2]};
  }
  return count;
}

void TriangleSearch::Dive(Node node) {
  // Follow the child with the best bound down to single fixes.
  while (true) {
    Node children[4];
    const int count = Children(node, children);
    if (count < 0) {
      Push(node.a, node.b, node.c);
      return;
    }
    Node best{kNone, 0, 0, 0};
    for (int k = 0; k < count; ++k) {
      const double bound = Bound(children[k].a, children[k].b, children[k].c);
      if (bound > best.bound) best = {bound, children[k].a, children[k].b, children[k].c};
    }
    if (best.bound <= best_) return;
    node = best;
  }
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
    Node children[4];
    const int count = Children(node, children);
    for (int k = 0; k < count; ++k) Push(children[k].a, children[k].b, children[k].c);
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
  // A gap at the very limit can be a micrometre longer as a geodesic than
  // as the chord the search closed it with.
  if (shape.score == kNone) shape.score = Score(shape.distance, closing_.Exact(a, c), &tier);
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

namespace {

double ThreadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Runs a search, charging it the processor time of its thread.
template <typename Search>
Shape Timed(Search search) {
  const double start = ThreadSeconds();
  Shape shape = search();
  shape.seconds = ThreadSeconds() - start;
  return shape;
}

}  // namespace

Scores ScoreFlight(const std::vector<Fix>& fixes, const RuleSet& rules, Earth earth, const Deadline& deadline) {
  // The shared tables' time goes to the flat triangle, which waits for them.
  const double start = ThreadSeconds();
  const Geometry geometry(fixes, earth);
  const BoxTree tree(geometry);
  const ClosingTable closing(geometry, tree, LongestGap(rules, geometry, tree));
  const double shared = ThreadSeconds() - start;
  Scores scores;
  std::thread free([&] { scores.free = Timed([&] { return FindFreeDistance(geometry, tree, rules, deadline); }); });
  std::thread fai([&] { scores.fai = Timed([&] { return FindTriangle(closing, rules, true, deadline); }); });
  scores.flat = Timed([&] { return FindTriangle(closing, rules, false, deadline); });
  scores.flat.seconds += shared;
  fai.join();
  free.join();
  return scores;
}

}  // namespace score
