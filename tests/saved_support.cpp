#include "saved_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "family_support.h"
#include "kml_support.h"

namespace test {

std::string SavedOutput(const std::string& base, std::optional<size_t> rawBytes, bool signature) {
  const std::string igc = rawBytes ? "Raw igc log downloaded (" + std::to_string(*rawBytes) + " bytes)\n"
                                   : std::string("Making igc log\n");
  return igc + "File " + base + ".igc written\n" +
         "Computing statistics\nFinding greatest out-and-return (gap = 800m)\n"
         "Finding greatest triangles (gap = 800m)\n" +
         "File " + base + ".kml written, " + (signature ? "signature OK" : "NO signature") + "\n";
}

void ExpectSavedFlight(const Scenario& s, const std::string& base, const std::optional<std::string>& igc,
                       size_t points, bool signature, const std::string& product) {
  SCOPED_TRACE(s.label + ": " + base);
  ASSERT_TRUE(s.contents.contains(base + ".igc"));
  if (igc) {
    EXPECT_TRUE(s.contents.at(base + ".igc") == *igc) << "the IGC file differs";
  }
  ASSERT_TRUE(s.contents.contains(base + ".kml"));
  const std::string& kml = s.contents.at(base + ".kml");
  EXPECT_EQ(XmlTextProblem(kml), "");
  TrackMetadata track;
  std::string error;
  ASSERT_TRUE(ReadTrackMetadata(kml, &track, &error)) << error;
  EXPECT_EQ(track.instrument.value_or(""), product);
  EXPECT_EQ(ListValues(track.coordinates).size(), points);
  EXPECT_EQ(track.hash.has_value(), signature);
  if (track.hash) {
    EXPECT_EQ(*track.hash, Sha1Hex(DigestInput(track)));
  }
}

testing::AssertionResult SameFixes(const std::string& madeIgc, const std::string& flightIgc, int32_t pressureMetres) {
  const std::vector<TrackPoint> made = DecodedFlight(madeIgc), flight = DecodedFlight(flightIgc);
  if (flight.empty()) return testing::AssertionFailure() << "the flight does not decode";
  if (made.size() != flight.size()) {
    return testing::AssertionFailure() << made.size() << " fixes instead of " << flight.size();
  }
  // One IGC position unit in arcs (2^31 arcs = 180 degrees), rounded up.
  constexpr int64_t kUnit = 199;
  for (size_t i = 0; i < flight.size(); ++i) {
    const TrackPoint& got = made[i];
    const TrackPoint& want = flight[i];
    if (got.dwTime != want.dwTime || std::llabs(int64_t{got.lLatitude} - want.lLatitude) > kUnit ||
        std::llabs(int64_t{got.lLongitude} - want.lLongitude) > kUnit || got.lGpsAltitude != want.lGpsAltitude ||
        std::abs(got.lPressureAltitude - want.lPressureAltitude) > pressureMetres) {
      return testing::AssertionFailure() << "fix " << i << ": time " << got.dwTime << " lat " << got.lLatitude
                                         << " lon " << got.lLongitude << " alt " << got.lGpsAltitude << "/"
                                         << got.lPressureAltitude << ", expected time " << want.dwTime << " lat "
                                         << want.lLatitude << " lon " << want.lLongitude << " alt "
                                         << want.lGpsAltitude << "/" << want.lPressureAltitude;
    }
  }
  return testing::AssertionSuccess();
}

}  // namespace test
