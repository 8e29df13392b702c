// The -x conversion stage by stage on the longest real flight (65,924 fixes
// with runs of equal times): read, checks, statistics, distance search,
// triangles, refinement, KML text, digest, write, and the whole conversion
// in one process. The program's own lines go to /dev/null; results go to
// standard error.
//
// The checks are those a download runs before saving (-x does not run them);
// the KML text includes the digest it computes, which is also timed alone
// over the same value texts.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "analysis_reference.h"
#include "core/run.h"
#include "flight_support.h"
#include "geo/conv.h"
#include "igc/igc.h"
#include "link/string.h"
#include "output/file.h"
#include "output/replace.h"
#include "output/google.h"
#include "output/hash.h"
#include "track/analysis.h"

namespace {

const char* const kFlight = KESTRIX_TEST_DATA "/igc/pg-cfd-dupfixes.igc";

// The track as ReadIgcFile leaves it, decoded once.
const std::vector<TrackPoint>& Flight() {
  static const std::vector<TrackPoint> points = [] {
    std::vector<TrackPoint> out;
    if (ReadIgcFile(kFlight) >= 0) out = flights::LoadedTrack();
    std::free(tGps.pTrackPoints);
    tGps.pTrackPoints = nullptr;
    tGps.nTrackPoints = 0;
    tGps.nTrackCapacity = 0;
    return out;
  }();
  return points;
}

// The record SaveKmlTrackLog hands to the analysis for a converted file.
FlightAnalysis Record(std::vector<TrackPoint>* points) {
  FlightAnalysis record{};
  record.nPoints = static_cast<int32_t>(points->size());
  record.pPoints = points->data();
  record.dwDownloadTime = 0;
  record.nCivlPilotId = -1;
  record.nCompPilotId = -1;
  record.bPressureAltitude = 1;
  return record;
}

const FlightAnalysis& Analysed() {
  static std::vector<TrackPoint> points = Flight();
  static const FlightAnalysis record = [] {
    FlightAnalysis r = Record(&points);
    AnalyzeTrack(&r);
    return r;
  }();
  return record;
}

bool Usable(benchmark::State& state) {
  if (!Flight().empty()) return true;
  state.SkipWithError("flight not readable");
  return false;
}

void Read(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(ReadIgcFile(kFlight));
    std::free(tGps.pTrackPoints);
    tGps.pTrackPoints = nullptr;
    tGps.nTrackPoints = 0;
    tGps.nTrackCapacity = 0;
  }
  state.counters["points"] = static_cast<double>(Flight().size());
}

void Checks(benchmark::State& state) {
  if (!Usable(state)) return;
  ResetRunParameters();
  tGps.nGapSeconds = 0;
  for (auto _ : state) {
    state.PauseTiming();
    flights::LoadTrack(Flight());
    state.ResumeTiming();
    int32_t result = CheckForMultipleTracks();
    if (result == 0) result = CheckForTimestampConsistency();
    if (result == 0) result = CheckForSpeedConsistency();
    benchmark::DoNotOptimize(result);
  }
  flights::LoadTrack({});
}

void Statistics(benchmark::State& state) {
  if (!Usable(state)) return;
  std::vector<TrackPoint> points = Flight();
  FlightAnalysis record = Record(&points);
  for (auto _ : state) {
    AnalyzeStatistics(&record);
    benchmark::DoNotOptimize(record.dMeanSpeed);
  }
}

void DistanceSearch(benchmark::State& state) {
  if (!Usable(state)) return;
  std::vector<TrackPoint> points = Flight();
  const FlightAnalysis record = Record(&points);
  for (auto _ : state) {
    SampledDistances found;
    benchmark::DoNotOptimize(SearchSampledDistances(&record, &found));
    benchmark::DoNotOptimize(found);
  }
}

void Triangles(benchmark::State& state) {
  if (!Usable(state)) return;
  const std::vector<TrackPoint>& points = Flight();
  int32_t n = 0;
  const std::vector<uint32_t> table =
      reference::SampledDistances(points.data(), static_cast<int32_t>(points.size()), &n);
  std::vector<uint32_t> gap(ClosingTableSize(n)), pair(ClosingTableSize(n));
  for (auto _ : state) {
    SampledTriangles found;
    FillClosingTables(table.data(), n, gap.data(), pair.data());
    benchmark::DoNotOptimize(FindSampledTriangles(table.data(), n, gap.data(), pair.data(), &found));
    benchmark::DoNotOptimize(found);
  }
}

// Every refinement AnalyzeTrack runs, around the sets the analysis found.
void Refinement(benchmark::State& state) {
  if (!Usable(state)) return;
  const FlightAnalysis& record = Analysed();
  for (auto _ : state) {
    DistanceResult r[7] = {record.tOpenDistance, record.tThreePoint,   record.tFourPoint,  record.tFivePoint,
                           record.tOutAndReturn, record.tFlatTriangle, record.tFaiTriangle};
    int32_t* i = nullptr;
    i = r[0].anIndex;
    CheckTp0Distance(&record, &i[0], &i[1]);
    i = r[1].anIndex;
    CheckTp1Distance(&record, &i[0], &i[1], &i[2]);
    i = r[2].anIndex;
    CheckTp2Distance(&record, &i[0], &i[1], &i[2], &i[3]);
    i = r[3].anIndex;
    CheckTp3Distance(&record, &i[0], &i[1], &i[2], &i[3], &i[4]);
    i = r[4].anIndex;
    CheckOutAndReturn(&record, &i[0], &i[1], &i[2]);
    i = r[5].anIndex;
    CheckFlatTriangle(&record, &i[0], &i[1], &i[2], &i[3], &i[4]);
    i = r[6].anIndex;
    CheckFaiTriangle(&record, &i[0], &i[1], &i[2], &i[3], &i[4]);
    benchmark::DoNotOptimize(r);
  }
}

void KmlText(benchmark::State& state) {
  if (!Usable(state)) return;
  FlightAnalysis record = Analysed();
  int64_t bytes = 0;
  for (auto _ : state) {
    TextBuffer text;
    benchmark::DoNotOptimize(MakeGoogleFolder(&record, &text));
    bytes += text.length;
  }
  state.SetBytesProcessed(bytes);
}

// What the document feeds to its digest, formatted once: the secret, then
// the values of each list line by line (25 times or pressures, 5
// coordinates to a line), as MakeGoogleTrack feeds them.
const std::vector<std::string>& DigestedLines() {
  static const std::vector<std::string> lines = [] {
    std::vector<std::string> out;
    const std::vector<TrackPoint>& points = Flight();
    char secret[kXmlStartLength + 1];
    GetXmlStart(secret);
    out.emplace_back(secret);
    const size_t n = points.size();
    auto list = [&out, n](size_t perLine, auto&& value) {
      std::string line;
      char piece[64];
      for (size_t i = 0; i < n; ++i) {
        value(piece, sizeof piece, i, i + 1 == n);
        line += piece;
        if ((i + 1) % perLine == 0 || i + 1 == n) {
          out.push_back(line);
          line.clear();
        }
      }
    };
    list(25, [&points](char* piece, size_t size, size_t i, bool last) {
      std::snprintf(piece, size, last ? "%d" : "%d ", static_cast<int>(points[i].dwTime - points[0].dwTime));
    });
    list(25, [&points](char* piece, size_t size, size_t i, bool last) {
      std::snprintf(piece, size, last ? "%d" : "%d ", points[i].lPressureAltitude);
    });
    list(5, [&points](char* piece, size_t size, size_t i, bool last) {
      double latitude, longitude;
      ConvertArcToGeoPos(points[i].lLatitude, points[i].lLongitude, &latitude, &longitude);
      std::snprintf(piece, size, last ? "%.6f,%.6f,%d" : "%.6f,%.6f,%d ", longitude * 57.29577951308,
                    latitude * 57.29577951308, static_cast<int>((int64_t{points[i].lGpsAltitude} + 5) / 10));
    });
    return out;
  }();
  return lines;
}

void Digest(benchmark::State& state) {
  if (!Usable(state)) return;
  const std::vector<std::string>& lines = DigestedLines();
  int64_t bytes = 0;
  for (auto _ : state) {
    HashContext hash;
    HashInit(&hash);
    HashString(&hash, lines[0].c_str());
    for (size_t k = 1; k < lines.size(); ++k) {
      HashBuffer(&hash, reinterpret_cast<const uint8_t*>(lines[k].data()), static_cast<int32_t>(lines[k].size()));
    }
    uint32_t digest[5];
    HashFinish(&hash, digest);
    benchmark::DoNotOptimize(digest);
    bytes += hash.dwBytes;
  }
  state.SetBytesProcessed(bytes);
}

std::string OutputPath() { return (std::filesystem::temp_directory_path() / "kestrix_bench_convert.kml").string(); }

void Write(benchmark::State& state) {
  if (!Usable(state)) return;
  FlightAnalysis record = Analysed();
  TextBuffer text;
  MakeGoogleFolder(&record, &text);
  const std::string path = OutputPath();
  for (auto _ : state) {
    benchmark::DoNotOptimize(WriteWholeFile(path.c_str(), text.data, static_cast<size_t>(text.length), "%s", "%s"));
  }
  std::remove(path.c_str());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.length);
}

// The whole conversion as the -x command runs it, in this process.
void WholeConversion(benchmark::State& state) {
  if (!Usable(state)) return;
  ResetRunParameters();
  const std::string path = OutputPath();
  for (auto _ : state) {
    ReadIgcFile(kFlight);
    tGps.bPressureAltitude = 1;
    benchmark::DoNotOptimize(SaveKmlTrackLog(path.c_str(), 0));
    flights::LoadTrack({});
  }
  std::remove(path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const struct {
    const char* name;
    void (*run)(benchmark::State&);
  } stages[] = {{"1_read", Read},
                {"2_checks", Checks},
                {"3_statistics", Statistics},
                {"4_distance_search", DistanceSearch},
                {"5_triangles", Triangles},
                {"6_refinement", Refinement},
                {"7_kml_text", KmlText},
                {"8_digest", Digest},
                {"9_write", Write},
                {"whole_conversion", WholeConversion}};
  for (const auto& stage : stages) {
    // The conversion shares its work with a second thread: CPU time is the
    // whole process's.
    benchmark::RegisterBenchmark(stage.name, stage.run)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
  }
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  benchmark::ConsoleReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
