// The IGC reader over whole texts: files to convert, and the IGC text that
// instruments send. Inputs of odd length also hand it the pilot field with
// the marker that asks for the pilot name from the flight.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/run.h"
#include "fuzz_support.h"
#include "targets.h"
#include "igc/igc.h"

namespace {

constexpr int32_t kQuarterTurn = 1 << 30;  // 90 degrees in arcs

void CheckPoints(uint32_t lines) {
  FUZZ_CHECK(tGps.nTrackPoints > 0 && tGps.nTrackPoints <= tGps.nTrackCapacity);
  FUZZ_CHECK(static_cast<uint32_t>(tGps.nTrackPoints) <= lines);
  for (int32_t i = 0; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    FUZZ_CHECK(p.dwFlags == (i == 0 ? kTrackPointNewSegment : 0u));
    FUZZ_CHECK(p.lLatitude >= -kQuarterTurn && p.lLatitude <= kQuarterTurn);
    FUZZ_CHECK(p.lPressureAltitude >= -9999 && p.lPressureAltitude <= 99999);
    FUZZ_CHECK(p.lGpsAltitude >= -99990 && p.lGpsAltitude <= 999990 && p.lGpsAltitude % 10 == 0);
    // A day is added only when the clock steps back an hour or more, so a
    // point never lies an hour before its predecessor or a day after it.
    if (i > 0) {
      const auto step = static_cast<int32_t>(p.dwTime - tGps.pTrackPoints[i - 1].dwTime);
      FUZZ_CHECK(step > -3600 && step < 86400);
    }
  }
}

}  // namespace

int fuzz::target::IgcBuffer(const uint8_t* data, size_t size) {
  if (size > INT32_MAX) return 0;
  fuzz::FreshRunParameters();
  const bool withPilot = size % 2 == 1;
  char pilot[51];
  std::memset(pilot, 0x7E, sizeof pilot);
  pilot[0] = 1;
  pilot[1] = '\0';

  const int32_t result = DecodeIgcBuffer(data, static_cast<int32_t>(size), withPilot ? pilot : nullptr,
                                         withPilot ? 50 : 0);
  if (result < 0) {
    FUZZ_CHECK(tGps.pTrackPoints == nullptr && tGps.nTrackPoints == 0);
  } else {
    uint32_t lines = 0;
    for (size_t i = 0; i < size; ++i) lines += data[i] == '\n';
    CheckPoints(lines);
  }
  if (withPilot) {
    FUZZ_CHECK(fuzz::IsTerminatedWithin(pilot, sizeof pilot));
    // Either untouched or a compacted line that starts with its label.
    FUZZ_CHECK(pilot[0] == 1 || std::strncmp(pilot, "HFPLTPILOT:", 11) == 0);
    FUZZ_CHECK(std::strstr(pilot, "  ") == nullptr);
  }
  return 0;
}
