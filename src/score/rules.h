// Scoring rule sets: multipliers, closing limits and the FAI leg share, as data.
#pragma once

#include <cstring>

namespace score {

enum class Earth { kWgs84, kFaiSphere };

// One way a triangle can be scored. It closes when the gap is at most
// max(fixedKm, relative x perimeter); its score is multiplier x (perimeter
// - gap), except that a gap of at most freeKm is not deducted.
struct Tier {
  const char* name;
  double multiplier;
  double fixedKm;
  double relative;
  double freeKm;
};

struct RuleSet {
  const char* name;
  const char* title;
  const char* source;
  Earth earth;            // the distances the league measures with
  double freeMultiplier;  // free distance via up to three turnpoints
  double faiLeg;          // least share of the perimeter of each FAI leg
  Tier flat[2];        // the better scoring of the tiers in use counts
  int flatTiers;
  Tier fai[2];
  int faiTiers;
};

inline constexpr RuleSet kRuleSets[] = {
    {"plain",
     "the shapes of the KML analysis, searched over every fix",
     "Kestrix's own: multiplier 1, a triangle closes within 0.8 km and the gap is deducted",
     Earth::kWgs84,
     1.0,
     0.28,
     {{"flat triangle", 1.0, 0.8, 0.0, 0.0}, {}},
     1,
     {{"FAI triangle", 1.0, 0.8, 0.0, 0.0}, {}},
     1},
    {"xcontest",
     "world XC league (XContest)",
     "https://www.xcontest.org/world/en/rules/ (free flight via up to 3 turnpoints 1.0; free triangle 1.2 "
     "and FAI triangle 1.4 closing within 20 %, closed free triangle 1.4 and closed FAI triangle 1.6 within "
     "5 % of the perimeter; the gap is deducted, as restated on https://www.xcontest.org/norway/regler/); "
     "on the FAI sphere: XContest's own scores of three flights in tests/data/igc (428.31, 452.21 and 465.33 "
     "points, kept in the names of the files at their source) come out to the hundredth on it, not on WGS-84",
     Earth::kFaiSphere,
     1.0,
     0.28,
     {{"free triangle", 1.2, 0.0, 0.20, 0.0}, {"closed free triangle", 1.4, 0.0, 0.05, 0.0}},
     2,
     {{"FAI triangle", 1.4, 0.0, 0.20, 0.0}, {"closed FAI triangle", 1.6, 0.0, 0.05, 0.0}},
     2},
    {"ffvl",
     "French national league (FFVL CFD)",
     "CFD rules 2017/2018 (http://www.asicare.com, \"Reglement C.F.D 2017-2018\": free distance via 3 "
     "points, coefficient 1); https://hommesoiseaux.com/geometrie-le-triangle (flat 1.2, FAI 1.4, legs "
     ">= 28 %, closing within 3 km); closing up to 5 % of the perimeter beyond 3 km, and only such a gap "
     "deducted, as the npm package igc-xc-score 1.8.0 encodes the FFVL rules",
     Earth::kWgs84,
     1.0,
     0.28,
     {{"flat triangle", 1.2, 3.0, 0.05, 3.0}, {}},
     1,
     {{"FAI triangle", 1.4, 3.0, 0.05, 3.0}, {}},
     1},
};

inline const RuleSet* FindRuleSet(const char* name) {
  for (const RuleSet& rules : kRuleSets) {
    if (std::strcmp(rules.name, name) == 0) return &rules;
  }
  return nullptr;
}

}  // namespace score
