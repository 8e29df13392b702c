// kestrix-score: the real flights against the npm solver's exact scores,
// every reported leg recomputed with GeographicLib, the rules of each shape,
// small flights against an exhaustive search, the distance bounds, which
// fixes are used, and the command line.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <GeographicLib/Geodesic.hpp>
#include <algorithm>
#include <cstdio>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <sstream>
#include <string>
#include <vector>

#include "external_tools.h"
#include "score/flight.h"
#include "score/search.h"
#include "support.h"

namespace {

using score::Fix;
using score::Flight;
using score::Shape;

const GeographicLib::Geodesic& Wgs84() { return GeographicLib::Geodesic::WGS84(); }

std::string Data(const std::string& name) { return std::string(KESTRIX_TEST_DATA) + "/" + name; }

double Leg(const Fix& a, const Fix& b) {
  double s = 0.0;
  Wgs84().Inverse(a.latitude, a.longitude, b.latitude, b.longitude, s);
  return s;
}

// Each reported leg and gap recomputed, and the shape's rules checked.
void CheckShape(const Flight& flight, const Shape& shape, const score::RuleSet& rules) {
  ASSERT_TRUE(shape.found);
  const std::vector<int32_t>& p = shape.points;
  ASSERT_EQ(p.size(), 5u);
  auto fix = [&](size_t k) { return flight.fixes.at(static_cast<size_t>(p[k])); };
  double distance = 0.0;
  if (shape.kind == score::ShapeKind::kFree) {
    EXPECT_TRUE(std::is_sorted(p.begin(), p.end()));
    for (size_t k = 0; k < 4; ++k) {
      EXPECT_NEAR(shape.legs.at(k), Leg(fix(k), fix(k + 1)), 1e-6);
      distance += shape.legs.at(k);
    }
    EXPECT_NEAR(shape.score, rules.freeMultiplier * distance, 1e-6);
  } else {
    // closing start <= tp1 < tp2 < tp3 <= closing end
    EXPECT_LE(p[3], p[0]);
    EXPECT_LT(p[0], p[1]);
    EXPECT_LT(p[1], p[2]);
    EXPECT_LE(p[2], p[4]);
    for (size_t k = 0; k < 3; ++k) {
      EXPECT_NEAR(shape.legs.at(k), Leg(fix(k), fix((k + 1) % 3)), 1e-6);
      distance += shape.legs.at(k);
    }
    EXPECT_NEAR(shape.gap, Leg(fix(3), fix(4)), 1e-6);
    if (shape.kind == score::ShapeKind::kFai) {
      EXPECT_GE(*std::min_element(shape.legs.begin(), shape.legs.end()), rules.faiLeg * distance);
    }
    // The tier that scored: its closing limit and deduction.
    const score::Tier* tiers = shape.kind == score::ShapeKind::kFai ? rules.fai : rules.flat;
    const score::Tier* tier = nullptr;
    for (int k = 0; k < 2; ++k) {
      if (tiers[k].name != nullptr && std::string(tiers[k].name) == shape.name) tier = &tiers[k];
    }
    ASSERT_NE(tier, nullptr);
    EXPECT_LE(shape.gap, std::max(tier->fixedKm * 1000.0, tier->relative * distance));
    const double deducted = shape.gap > tier->freeKm * 1000.0 ? shape.gap : 0.0;
    EXPECT_NEAR(shape.score, tier->multiplier * (distance - deducted), 1e-6);
  }
  EXPECT_NEAR(shape.distance, distance, 1e-6);
}

// --- Which fixes are used.

TEST(ScoreFixes, InvalidFixesAndRepeatedTimesAreLeftOut) {
  struct Case {
    std::vector<uint32_t> times;
    std::vector<bool> valid;
    std::vector<int32_t> kept;  // records
    int32_t invalid, repeated;
  };
  const Case cases[] = {
      {{10, 11, 12}, {true, true, true}, {0, 1, 2}, 0, 0},
      {{10, 10, 10, 11}, {true, true, true, true}, {0, 3}, 0, 2},
      // An invalid fix is never "the fix before": its time repeats nothing.
      {{10, 11, 11, 12}, {true, false, true, true}, {0, 2, 3}, 1, 0},
      {{10, 10, 11}, {false, true, true}, {1, 2}, 1, 0},
      // Times going back are kept; only a repeat of the last kept one goes.
      {{20, 10, 10, 30}, {true, true, true, true}, {0, 1, 3}, 0, 1},
  };
  for (const Case& c : cases) {
    std::vector<Fix> records;
    for (size_t i = 0; i < c.times.size(); ++i) records.push_back({static_cast<int32_t>(i), c.times[i], 45.0, 6.0});
    Flight flight;
    score::SelectFixes(records, c.valid, &flight);
    std::vector<int32_t> kept;
    for (const Fix& f : flight.fixes) kept.push_back(f.record);
    EXPECT_EQ(kept, c.kept);
    EXPECT_EQ(flight.invalid, c.invalid);
    EXPECT_EQ(flight.repeated, c.repeated);
    EXPECT_EQ(flight.records, static_cast<int32_t>(c.times.size()));
  }
}

// --- The chord bounds the searches prune with hold the geodesic between them.

TEST(ScoreGeometry, ChordBoundsBracketTheGeodesic) {
  for (double latitude : {0.0, -33.0, 45.0, 70.0, 89.0}) {
    for (double metres : {1.0, 1000.0, 100e3, 800e3}) {
      for (double azimuth : {0.0, 45.0, 90.0, 135.0}) {
        double lat2 = 0.0, lon2 = 0.0;
        Wgs84().Direct(latitude, 6.0, azimuth, metres, lat2, lon2);
        const std::vector<Fix> fixes = {{0, 0, latitude, 6.0}, {1, 1, lat2, lon2}};
        const score::Geometry wgs84(fixes, score::Earth::kWgs84);
        const double chord = std::sqrt(wgs84.Chord2(0, 1));
        EXPECT_NEAR(wgs84.Distance(0, 1), metres, 1e-6);
        EXPECT_LE(score::Geometry::Lower(chord), metres) << latitude << " " << metres << " " << azimuth;
        EXPECT_GE(wgs84.Upper(chord), metres) << latitude << " " << metres << " " << azimuth;
        // ... and tight: within 2 % of how much longer than its chord an arc is.
        const double angle = metres / 6.36e6;
        EXPECT_LT(wgs84.Upper(chord) - metres, 1e-3 + 0.02 * metres * angle * angle / 24.0);

        // The FAI sphere: the great circle by the haversine.
        const score::Geometry sphere(fixes, score::Earth::kFaiSphere);
        const double rad = std::numbers::pi / 180.0, dlat = (lat2 - latitude) * rad, dlon = (lon2 - 6.0) * rad;
        const double h = std::pow(std::sin(dlat / 2), 2) +
                         std::cos(latitude * rad) * std::cos(lat2 * rad) * std::pow(std::sin(dlon / 2), 2);
        EXPECT_NEAR(sphere.Distance(0, 1), 2 * 6371000.0 * std::asin(std::sqrt(h)), 1e-6);
        EXPECT_GE(sphere.Upper(std::sqrt(sphere.Chord2(0, 1))), sphere.Distance(0, 1));
      }
    }
  }
}

// --- The real flights: the npm solver's exact scores (tests/data/score/reference.tsv).

struct Reference {
  std::string flight;
  double score[3] = {0, 0, 0};  // km: free, flat, fai
};

void PrintTo(const Reference& reference, std::ostream* out) { *out << reference.flight; }

std::vector<Reference> References() {
  std::vector<Reference> all;
  std::ifstream file(Data("score/reference.tsv"));
  std::string line;
  while (std::getline(file, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string flight, shape;
    double value = 0.0;
    fields >> flight >> shape >> value;
    if (all.empty() || all.back().flight != flight) all.push_back({flight});
    all.back().score[shape == "free" ? 0 : shape == "flat" ? 1 : 2] = value;
  }
  return all;
}

class ScoreRealFlight : public testing::TestWithParam<Reference> {};

TEST_P(ScoreRealFlight, MatchesTheSolverWithin1mAndKeepsTheRules) {
  const Reference& reference = GetParam();
  Flight flight;
  ASSERT_EQ(score::LoadFlight(Data("igc/" + reference.flight + ".igc").c_str(), &flight), 0);
  const score::RuleSet& plain = score::kRuleSets[0];
  const score::Scores scores = score::ScoreFlight(flight.fixes, plain, score::Earth::kWgs84, score::Deadline());
  const Shape* shapes[3] = {&scores.free, &scores.flat, &scores.fai};
  for (int k = 0; k < 3; ++k) {
    SCOPED_TRACE(k);
    EXPECT_TRUE(shapes[k]->optimal);
    EXPECT_NEAR(shapes[k]->score, reference.score[k] * 1000.0, 1.0);
    CheckShape(flight, *shapes[k], plain);
    EXPECT_LE(shapes[k]->gap, 800.0);
  }
}

INSTANTIATE_TEST_SUITE_P(Every, ScoreRealFlight, testing::ValuesIn(References()),
                         [](const testing::TestParamInfo<Reference>& flight) {
                           std::string name = flight.param.flight;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

// XContest's published scores of three flights: its rule set on its earth.
TEST(ScoreRealFlight, XContestRulesGiveXContestsOwnScores) {
  std::ifstream file(Data("score/xcontest.tsv"));
  std::string line;
  int rows = 0;
  while (std::getline(file, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string name, shape;
    double points = 0.0;
    fields >> name >> shape >> points;
    SCOPED_TRACE(name);
    Flight flight;
    ASSERT_EQ(score::LoadFlight(Data("igc/" + name + ".igc").c_str(), &flight), 0);
    const score::RuleSet& rules = *score::FindRuleSet("xcontest");
    ASSERT_EQ(rules.earth, score::Earth::kFaiSphere);
    const score::Scores scores = score::ScoreFlight(flight.fixes, rules, rules.earth, score::Deadline());
    const Shape& found = shape == "free" ? scores.free : shape == "flat" ? scores.flat : scores.fai;
    EXPECT_TRUE(found.optimal);
    EXPECT_NEAR(found.score / 1000.0, points, 0.01);
    ++rows;
  }
  EXPECT_EQ(rows, 3);
}

// --- Small flights under every rule set: the searches against trying every route.

struct Exhaustive {
  double free = 0.0, flat = 0.0, fai = 0.0;
};

Exhaustive TryEverything(const std::vector<Fix>& fixes, const score::RuleSet& rules) {
  const size_t n = fixes.size();
  std::vector<double> d(n * n, 0.0);
  for (size_t i = 0; i < n; ++i) {
    for (size_t j = i + 1; j < n; ++j) d[i * n + j] = d[j * n + i] = Leg(fixes[i], fixes[j]);
  }
  auto D = [&](size_t i, size_t j) { return d[i * n + j]; };
  // Free distance: best one and two legs ending, and starting, at each fix.
  std::vector<double> in1(n), in2(n), out1(n), out2(n);
  for (size_t j = 0; j < n; ++j) {
    for (size_t i = 0; i <= j; ++i) in1[j] = std::max(in1[j], D(i, j));
    for (size_t i = 0; i <= j; ++i) in2[j] = std::max(in2[j], in1[i] + D(i, j));
  }
  for (size_t j = n; j-- > 0;) {
    for (size_t k = j; k < n; ++k) out1[j] = std::max(out1[j], D(j, k));
    for (size_t k = j; k < n; ++k) out2[j] = std::max(out2[j], D(j, k) + out1[k]);
  }
  Exhaustive best;
  for (size_t j = 0; j < n; ++j) best.free = std::max(best.free, (in2[j] + out2[j]) * rules.freeMultiplier);
  // Gaps: G(a, c) = min(G(a - 1, c), G(a, c + 1), d(a, c)).
  std::vector<double> gap(n * n, 1e300);
  for (size_t a = 0; a < n; ++a) {
    for (size_t c = n; c-- > a + 1;) {
      double g = D(a, c);
      if (a > 0) g = std::min(g, gap[(a - 1) * n + c]);
      if (c + 1 < n) g = std::min(g, gap[a * n + c + 1]);
      gap[a * n + c] = g;
    }
  }
  for (size_t a = 0; a < n; ++a) {
    for (size_t b = a + 1; b < n; ++b) {
      for (size_t c = b + 1; c < n; ++c) {
        const double legs[3] = {D(a, b), D(b, c), D(c, a)};
        const double p = legs[0] + legs[1] + legs[2], g = gap[a * n + c];
        const bool fai = *std::min_element(legs, legs + 3) >= rules.faiLeg * p;
        for (int shape = 0; shape < 2; ++shape) {
          if (shape == 1 && !fai) continue;
          const score::Tier* tiers = shape == 0 ? rules.flat : rules.fai;
          for (int k = 0; k < (shape == 0 ? rules.flatTiers : rules.faiTiers); ++k) {
            if (g > std::max(tiers[k].fixedKm * 1000.0, tiers[k].relative * p)) continue;
            const double s = tiers[k].multiplier * (p - (g > tiers[k].freeKm * 1000.0 ? g : 0.0));
            double& target = shape == 0 ? best.flat : best.fai;
            target = std::max(target, s);
          }
        }
      }
    }
  }
  return best;
}

TEST(ScoreSearch, SmallFlightsMatchTryingEveryRoute) {
  for (const char* name : {"pg-iqbasic-8s.igc", "pg-skytraxx-13min.igc"}) {
    Flight flight;
    ASSERT_EQ(score::LoadFlight(Data(std::string("igc/") + name).c_str(), &flight), 0);
    for (const score::RuleSet& rules : score::kRuleSets) {
      SCOPED_TRACE(std::string(name) + " " + rules.name);
      const Exhaustive best = TryEverything(flight.fixes, rules);
      const score::Scores found = score::ScoreFlight(flight.fixes, rules, score::Earth::kWgs84, score::Deadline());
      EXPECT_NEAR(found.free.score, best.free, 1e-3);
      EXPECT_NEAR(found.flat.score, best.flat, 1e-3);
      EXPECT_NEAR(found.fai.score, best.fai, 1e-3);
      CheckShape(flight, found.flat, rules);
      CheckShape(flight, found.fai, rules);
    }
  }
}

// --- The command line: expected outputs are kept in tests/data/score.

std::string Program() { return test::ShellQuote(KESTRIX_SCORE_EXE); }

// Standard output and the exit status; standard error goes to `error`.
int RunScore(const std::string& args, std::string* out, std::string* error) {
  test::TempDir dir;
  const std::string errorFile = dir.File("stderr");
  FILE* pipe = popen((Program() + " " + args + " 2>" + test::ShellQuote(errorFile)).c_str(), "r");
  if (pipe == nullptr) return -1;
  out->clear();
  char buffer[4096];
  size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out->append(buffer, n);
  const int status = pclose(pipe);
  *error = test::ReadFile(errorFile);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string WithoutSeconds(std::string json) {
  for (size_t at = json.find("\"seconds\": "); at != std::string::npos; at = json.find("\"seconds\": ", at + 1)) {
    const size_t end = json.find(',', at);
    json.replace(at, end - at, "\"seconds\": ...");
  }
  return json;
}

TEST(ScoreCommandLine, OutputsStatusesAndMessages) {
  struct Case {
    std::string args;
    std::string expected;  // file in tests/data/score, or empty for no output
    std::string message;   // part of standard error
    int status;
  };
  const std::string igc = test::ShellQuote(Data("igc")) + "/";
  const std::string own = test::ShellQuote(Data("score")) + "/";
  const Case cases[] = {
      {igc + "pg-skytraxx-13min.igc", "skytraxx.txt", "", 0},
      {igc + "pg-iqbasic-8s.igc --json --rules xcontest", "iqbasic-xcontest.json", "", 0},
      {"--rules list", "rules.txt", "", 0},
      {own + "few-fixes.igc", "few-fixes.txt", "", 0},
      {own + "straight.igc --json", "straight.json", "", 0},
      {igc + "heli-flarm-timeback.igc", "", "Multiple A-records", 1},
      {igc + "pg-syride-navv3-corrupt-lf.igc --json", "", "Pos. error 11 on line 197", 1},
      {own + "no-such-file.igc", "", "Couldn't open source file", 1},
      {igc + "pg-skytraxx-13min.igc --rules nope", "", "Unknown rule set nope", 2},
      {igc + "pg-skytraxx-13min.igc --max-time soon", "", "--max-time needs a number of seconds", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    std::string out, error;
    EXPECT_EQ(RunScore(c.args, &out, &error), c.status);
    const std::string expected = c.expected.empty() ? "" : test::ReadFile(Data("score/" + c.expected));
    if (!c.expected.empty()) {
      ASSERT_FALSE(expected.empty()) << c.expected;
    }
    EXPECT_EQ(WithoutSeconds(out), expected);
    if (c.message.empty()) {
      EXPECT_EQ(error, "");
    } else {
      EXPECT_NE(error.find(c.message), std::string::npos) << error;
    }
  }
}

TEST(ScoreCommandLine, KmlIsWrittenWholeOrNotAtAll) {
  REQUIRE_TOOL("xmllint", "libxml2-utils");
  test::TempDir dir;
  const std::string flight = test::ShellQuote(Data("igc/pg-iqbasic-8s.igc"));
  std::string out, error;
  ASSERT_EQ(RunScore(flight + " --kml " + test::ShellQuote(dir.File("route.kml")), &out, &error), 0);
  std::string check;
  EXPECT_EQ(test::RunTool("xmllint --noout " + test::ShellQuote(dir.File("route.kml")), &check), 0) << check;
  const std::string kml = test::ReadFile(dir.File("route.kml"));
  for (const char* shape : {"free distance", "flat triangle", "FAI triangle"}) {
    EXPECT_NE(kml.find(std::string("<name>") + shape), std::string::npos) << shape;
  }
  // Nothing but the document (and the captured stderr) is left in the folder.
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"route.kml"}));

  EXPECT_EQ(RunScore(flight + " --kml " + test::ShellQuote(dir.File("missing/route.kml")), &out, &error), 1);
  EXPECT_NE(error.find("Cannot write"), std::string::npos) << error;
  EXPECT_FALSE(std::filesystem::exists(dir.File("missing")));
}

}  // namespace
