// The straightforward analysis and trim, written as plainly as the rules
// read: every distance measured when it is needed, every loop run in full.
// The fast module must give exactly the same results.
#pragma once

#include <cstdint>
#include <vector>

#include "track/analysis.h"

namespace reference {

// Same contract as ::TrimTrack (works on tGps, prints the same lines).
int32_t TrimTrack();

// Same contract as ::AnalyzeTrack.
int32_t AnalyzeTrack(FlightAnalysis* record);

// The sampled points' rounded planar distances as the analysis measures
// them, as an N x N symmetric table; `sampled` receives N.
std::vector<uint32_t> SampledDistances(const TrackPoint* points, int32_t count, int32_t* sampled);

// The triangle search alone on an N x N symmetric table of rounded metres.
SampledTriangles FindSampledTriangles(const std::vector<uint32_t>& distance, int32_t count);

// The closing tables as the triangle search fills them (upper triangle, row a
// holding c = a .. N-1 at ClosingRowStart(N, a)).
void FillClosingTables(const std::vector<uint32_t>& distance, int32_t count, std::vector<uint32_t>* gap,
                       std::vector<uint32_t>* pair);

}  // namespace reference
