#include "family_support.h"

#include <cstdlib>

#include "core/run.h"
#include "igc/igc.h"

namespace test {

std::vector<TrackPoint> DecodedFlight(const std::string& igc) {
  std::vector<TrackPoint> points;
  if (DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(igc.data()), static_cast<int32_t>(igc.size()), nullptr, 0) <
      0) {
    return points;
  }
  points.assign(tGps.pTrackPoints, tGps.pTrackPoints + tGps.nTrackPoints);
  std::free(tGps.pTrackPoints);
  tGps.pTrackPoints = nullptr;
  tGps.nTrackCapacity = 0;
  tGps.nTrackPoints = 0;
  return points;
}

testing::AssertionResult SameTrack(const std::vector<TrackPoint>& expected) {
  std::vector<TrackPoint> got;
  if (tGps.pTrackPoints != nullptr) got.assign(tGps.pTrackPoints, tGps.pTrackPoints + tGps.nTrackPoints);
  return SameTrack(got, expected);
}

testing::AssertionResult SameTrack(const std::vector<TrackPoint>& points, const std::vector<TrackPoint>& expected) {
  if (points.size() != expected.size()) {
    return testing::AssertionFailure() << points.size() << " points instead of " << expected.size();
  }
  for (size_t i = 0; i < expected.size(); ++i) {
    const TrackPoint& got = points[i];
    const TrackPoint& want = expected[i];
    if (got.dwFlags != want.dwFlags || got.dwTime != want.dwTime || got.lLatitude != want.lLatitude ||
        got.lLongitude != want.lLongitude || got.lGpsAltitude != want.lGpsAltitude ||
        got.lPressureAltitude != want.lPressureAltitude) {
      return testing::AssertionFailure() << "point " << i << ": flags " << got.dwFlags << " time " << got.dwTime
                                         << " lat " << got.lLatitude << " lon " << got.lLongitude << " alt "
                                         << got.lGpsAltitude << "/" << got.lPressureAltitude << ", expected flags "
                                         << want.dwFlags << " time " << want.dwTime << " lat " << want.lLatitude
                                         << " lon " << want.lLongitude << " alt " << want.lGpsAltitude << "/"
                                         << want.lPressureAltitude;
    }
  }
  return testing::AssertionSuccess();
}

std::string Shown(const std::string& out) {
  std::string shown;
  for (char c : out) {
    if (c != '\b') {
      shown += c;
    } else if (!shown.empty() && shown.back() != '\n') {
      shown.pop_back();
    }
  }
  return shown;
}

std::string Opened(const std::string& port) { return "Opened port " + port + "\nStarting COM thread\n"; }

std::string RawLog(int32_t length) {
  if (tGps.pbRawLog == nullptr || length <= 0) return "";
  return std::string(reinterpret_cast<const char*>(tGps.pbRawLog), static_cast<size_t>(length));
}

}  // namespace test
