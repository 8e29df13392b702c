// Helpers shared by the IQ Basic, Ascent and MLR tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "geo/time.h"

namespace test {

// The points the IGC reader makes of a flight; the run parameters' track
// log is left empty again.
std::vector<TrackPoint> DecodedFlight(const std::string& igc);

// Two track logs, field by field; without `got`, the run parameters' one.
testing::AssertionResult SameTrack(const std::vector<TrackPoint>& got, const std::vector<TrackPoint>& expected);
testing::AssertionResult SameTrack(const std::vector<TrackPoint>& expected);

// What a terminal shows: each backspace takes back the character before it.
std::string Shown(const std::string& out);

// What opening the port prints.
std::string Opened(const std::string& port);

// The raw log as the run parameters hold it, `length` bytes.
std::string RawLog(int32_t length);

}  // namespace test
