// The three searches: free distance, flat triangle, FAI triangle.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "score/geometry.h"
#include "score/rules.h"

namespace score {

struct Deadline {
  std::chrono::steady_clock::time_point at = std::chrono::steady_clock::time_point::max();
  bool Passed() const { return std::chrono::steady_clock::now() >= at; }
};

// Ties closer than this never split a search: "optimal" means that no shape
// scores more than 1 mm above the one found. The searches inside a search
// (one leg, two legs) settle for 10 micrometres.
constexpr double kTolerance = 1e-3;       // metres
constexpr double kInnerTolerance = 1e-5;  // metres

enum class ShapeKind { kFree, kFlat, kFai };

// A best shape. Point indices refer to Flight::fixes; metres throughout.
struct Shape {
  ShapeKind kind = ShapeKind::kFree;
  bool found = false;    // false: no such shape in the flight
  bool optimal = false;  // the bound met the score
  double score = 0.0;    // multiplier x (distance - deducted gap)
  double bound = 0.0;    // no shape of this kind scores more
  double distance = 0.0;
  double gap = 0.0;
  double multiplier = 1.0;
  const char* name = "";  // which closing tier scored
  // Free distance: start, three turnpoints, finish. Triangles: the three
  // turnpoints, then the closing start and end.
  std::vector<int32_t> points;
  std::vector<double> legs;  // free: 4; triangles: 3 (tp1-tp2, tp2-tp3, tp3-tp1)
  double seconds = 0.0;      // processor time of the search
};

struct Scores {
  Shape free, flat, fai;
};

// The three searches of a flight's fixes, side by side on threads.
Scores ScoreFlight(const std::vector<Fix>& fixes, const RuleSet& rules, Earth earth, const Deadline& deadline);

class ClosingTable;

// The searches one by one.
Shape FindFreeDistance(const Geometry& geometry, const BoxTree& tree, const RuleSet& rules, const Deadline& deadline);
Shape FindTriangle(const ClosingTable& closing, const RuleSet& rules, bool fai, const Deadline& deadline);
// The longest gap any triangle of the flight could close with.
double LongestGap(const RuleSet& rules, const Geometry& geometry, const BoxTree& tree);

}  // namespace score
