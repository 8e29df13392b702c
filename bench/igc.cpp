// Throughput of the distance and of the IGC reader and writer on a real flight.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/conv.h"
#include "igc/igc.h"

namespace {

// The largest flight the tests carry: 8 h at 1 Hz.
const char* const kFlight = KESTRIX_TEST_DATA "/igc/pg-flyskyhy-8h-midnight.igc";

const std::string& FlightText() {
  static const std::string text = [] {
    std::ifstream f(kFlight, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
  }();
  return text;
}

// Decodes the flight once, quietly, and keeps its positions in radians.
const std::vector<GeoPos>& FlightPositions() {
  static const std::vector<GeoPos> positions = [] {
    std::vector<GeoPos> out;
    const std::string& text = FlightText();
    if (DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(text.data()), static_cast<int32_t>(text.size()), nullptr,
                        0) < 0) {
      return out;
    }
    for (int32_t i = 0; i < tGps.nTrackPoints; ++i) {
      GeoPos p{};
      ConvertArcToGeoPos(tGps.pTrackPoints[i].lLatitude, tGps.pTrackPoints[i].lLongitude, &p.latitude, &p.longitude);
      out.push_back(p);
    }
    return out;
  }();
  return positions;
}

// Pairs as the distance searches meet them: near and far points of one flight.
void BM_CalcDistance(benchmark::State& state) {
  const std::vector<GeoPos>& points = FlightPositions();
  if (points.size() < 2) {
    state.SkipWithError("flight not readable");
    return;
  }
  const size_t n = points.size();
  const size_t stride = static_cast<size_t>(state.range(0));
  size_t i = 0;
  for (auto _ : state) {
    double d = 0.0;
    benchmark::DoNotOptimize(CalcDistance(points[i], points[(i + stride) % n], &d));
    benchmark::DoNotOptimize(d);
    i = i + 1 == n ? 0 : i + 1;
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_CalcDistance)->Arg(1)->Arg(600)->Arg(14000);

void BM_DecodeIgcBuffer(benchmark::State& state) {
  const std::string& text = FlightText();
  if (text.empty()) {
    state.SkipWithError("flight not readable");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(text.data()), static_cast<int32_t>(text.size()), nullptr, 0));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
  state.counters["points"] = tGps.nTrackPoints;
}
BENCHMARK(BM_DecodeIgcBuffer)->Unit(benchmark::kMillisecond);

void BM_EncodeIgcLog(benchmark::State& state) {
  const std::string& text = FlightText();
  if (DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(text.data()), static_cast<int32_t>(text.size()), nullptr, 0) <
      0) {
    state.SkipWithError("flight not readable");
    return;
  }
  int64_t bytes = 0;
  for (auto _ : state) {
    char* out = nullptr;
    const int32_t n = EncodeIgcLog(tGps.pTrackPoints, static_cast<uint32_t>(tGps.nTrackPoints), "Pilot", "Wing", "X1",
                                   "Open", "Hill", "Instrument", nullptr, nullptr, 0, 0, &out, 1);
    benchmark::DoNotOptimize(out);
    std::free(out);
    bytes += n;
  }
  state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_EncodeIgcLog)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
