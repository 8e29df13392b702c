// Fast analysis and trim against the straightforward reference, on the
// longest real flight and on a synthetic 10-hour thermalling flight.
// Results go to standard error (the analysis itself prints to standard
// output, which is silenced); a closing table gives reference/fast ratios.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "analysis_reference.h"
#include "core/run.h"
#include "flight_support.h"
#include "track/analysis.h"

namespace {

const std::vector<TrackPoint>& Flight(const std::string& which) {
  static const std::vector<TrackPoint> longest = flights::ReadIgcFixes(KESTRIX_TEST_DATA "/igc/pg-oudien-12h.igc");
  static const std::vector<TrackPoint> thermal = flights::Thermalling({36000, 7, 0, 0});
  return which == "longest" ? longest : thermal;
}

void Analyze(benchmark::State& state, std::string which, bool fast) {
  std::vector<TrackPoint> points = Flight(which);
  FlightAnalysis record{};
  record.nPoints = static_cast<int32_t>(points.size());
  record.pPoints = points.data();
  for (auto _ : state) {
    int32_t result = fast ? AnalyzeTrack(&record) : reference::AnalyzeTrack(&record);
    benchmark::DoNotOptimize(result);
  }
  state.counters["points"] = static_cast<double>(points.size());
}

void Triangles(benchmark::State& state, std::string which, bool fast) {
  const std::vector<TrackPoint>& points = Flight(which);
  int32_t n = 0;
  const std::vector<uint32_t> table = reference::SampledDistances(points.data(), static_cast<int32_t>(points.size()), &n);
  std::vector<uint32_t> gap(ClosingTableSize(n)), pair(ClosingTableSize(n));
  for (auto _ : state) {
    SampledTriangles found;
    if (fast) {
      FillClosingTables(table.data(), n, gap.data(), pair.data());
      FindSampledTriangles(table.data(), n, gap.data(), pair.data(), &found);
    } else {
      found = reference::FindSampledTriangles(table, n);
    }
    benchmark::DoNotOptimize(found);
  }
  state.counters["sampled"] = n;
}

void Trim(benchmark::State& state, std::string which, bool fast) {
  const std::vector<TrackPoint>& points = Flight(which);
  ResetRunParameters();
  tGps.nTrimLocationInterval = 60;
  tGps.nTrimLocationDistance = 50;
  tGps.nTrimTakeoffInterval = 10;
  tGps.nTrimTakeoffDistance = 50;
  tGps.nTrimTakeoffPrepend = 30;
  tGps.nTrimTakeoffBoxRadius = 100;
  tGps.nTrimTakeoffBoxHeight = 30;
  tGps.nTrimTakeoffBoxPrepend = 30;
  tGps.nTrimLandingInterval = 60;
  tGps.nTrimLandingDistance = 20;
  tGps.nTrimLandingAppend = 30;
  for (auto _ : state) {
    state.PauseTiming();
    flights::LoadTrack(points);
    state.ResumeTiming();
    int32_t result = fast ? TrimTrack() : reference::TrimTrack();
    benchmark::DoNotOptimize(result);
  }
  std::free(tGps.pTrackPoints);
  tGps.pTrackPoints = nullptr;
  tGps.nTrackPoints = 0;
}

// Collects the mean real time of each run and prints reference/fast ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      milliseconds_[run.benchmark_name()] = run.GetAdjustedRealTime();
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::ostream& out = GetOutputStream();
    out << "\nreference / fast (ms)\n";
    for (const auto& [name, ms] : milliseconds_) {
      const std::string suffix = "/fast";
      if (name.size() < suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) continue;
      const std::string base = name.substr(0, name.size() - suffix.size());
      auto ref = milliseconds_.find(base + "/reference");
      if (ref == milliseconds_.end()) continue;
      char line[160];
      std::snprintf(line, sizeof line, "%-28s fast %10.2f  reference %10.2f  ratio %7.1f\n", base.c_str(), ms,
                    ref->second, ref->second / ms);
      out << line;
    }
  }

 private:
  std::map<std::string, double> milliseconds_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  for (const char* which : {"longest", "thermal"}) {
    for (bool fast : {true, false}) {
      const std::string tail = std::string(which) + (fast ? "/fast" : "/reference");
      benchmark::RegisterBenchmark(("AnalyzeTrack/" + tail).c_str(), Analyze, which, fast)->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark(("Triangles/" + tail).c_str(), Triangles, which, fast)->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark(("TrimTrack/" + tail).c_str(), Trim, which, fast)->Unit(benchmark::kMillisecond);
    }
  }
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  RatioReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
