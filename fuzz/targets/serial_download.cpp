// Whole serial downloads and waypoint transfers of every family against an
// instrument that replays the input (layout in tests/serial_replay.h):
// identification, list, selection, the track or waypoint stages and, for
// the all-tracks commands, the saving checks, on a replayed clock.

#include <cstdint>

#include "core/run.h"
#include "fuzz_support.h"
#include "targets.h"
#include "serial_replay.h"

int fuzz::target::SerialDownload(const uint8_t* data, size_t size) {
  const replay::Outcome outcome = replay::Replay(data, size);
  if (size < 2) return 0;
  FUZZ_CHECK(outcome.result <= 0);
  // Every way out closes what it opened.
  FUZZ_CHECK(outcome.opens == outcome.closes);
  FUZZ_CHECK(outcome.opens <= 1);
  FUZZ_CHECK(tGps.nTrackPoints >= 0 && tGps.nTrackPoints <= tGps.nTrackCapacity);
  FUZZ_CHECK(tGps.nTrackPoints == 0 || tGps.pTrackPoints != nullptr);
  FUZZ_CHECK(tGps.nRawLogLength >= 0 && (tGps.pbRawLog == nullptr || tGps.nRawLogLength <= tGps.nRawLogSize));
  FUZZ_CHECK(tGps.nWaypoints >= 0 && tGps.nWaypoints <= tGps.nWaypointCapacity);
  for (int32_t i = 0; i < tGps.nWaypoints; ++i) {
    const Waypoint& w = tGps.pWaypoints[i];
    FUZZ_CHECK(fuzz::IsTerminatedWithin(w.szId, sizeof w.szId));
    FUZZ_CHECK(fuzz::IsTerminatedWithin(w.szComment, sizeof w.szComment));
  }
  FUZZ_CHECK(fuzz::IsTerminatedWithin(tGps.szProduct, sizeof tGps.szProduct));
  FUZZ_CHECK(fuzz::IsTerminatedWithin(tGps.szPilotName, sizeof tGps.szPilotName));
  return 0;
}
