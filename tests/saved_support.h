// What a download leaves behind once the track is saved: the messages and
// the two files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "sim_support.h"

namespace test {

// What saving a downloaded flight prints under the name `base`: the raw
// file when the instrument sent its own text (`rawBytes`), else the one the
// program makes, then the document.
std::string SavedOutput(const std::string& base, std::optional<size_t> rawBytes, bool signature);

// The IGC file holds `igc` byte for byte (when given); the KML document is
// well-formed, names `product` and carries `points` positions (and, with a
// signature, a digest that checks out).
void ExpectSavedFlight(const Scenario& s, const std::string& base, const std::optional<std::string>& igc,
                       size_t points, bool signature, const std::string& product);

// The fixes of an IGC file the program made from a download against those
// of the flight the instrument was built from: times and altitudes exactly,
// positions within one unit of the IGC text (1/60000 degree); pressure
// altitudes within `pressureMetres` where the instrument stores pressure.
testing::AssertionResult SameFixes(const std::string& madeIgc, const std::string& flightIgc,
                                   int32_t pressureMetres = 0);

}  // namespace test
