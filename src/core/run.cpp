#include "core/run.h"

#include <cstdio>
#include <new>

#include "core/memory.h"

RunParameters tGps;
void* (*pAllocate)(size_t bytes) = std::malloc;

std::atomic<int32_t> restartTask{0};
std::atomic<int32_t> mainThreadActive{0};

void ResetRunParameters() {
  std::free(tGps.pbRawLog);
  std::free(tGps.pTrackPoints);
  std::free(tGps.pWaypoints);
  // Value-initialising the trivially destructible record zeroes every byte
  // of it, the atomics included.
  tGps.~RunParameters();
  new (&tGps) RunParameters{};
}

void SetDefaultParameters() {
  tGps.nGapSeconds = -1;
  tGps.nFlightNumber = -1;
}

void SetLogFlags(int32_t utc, int32_t signature, int32_t pressureAltitude, uint32_t downloadTime) {
  tGps.bUtc = utc;
  tGps.bSignature = signature;
  tGps.bPressureAltitude = pressureAltitude;
  tGps.dwDownloadTime = downloadTime;
}

namespace {

template <typename T>
void ReleaseArray(T** array, int32_t* capacity, int32_t* used) {
  std::free(*array);
  *array = nullptr;
  *capacity = 0;
  *used = 0;
}

int AllocationError() {
  std::printf(" Memory allocation error\n");
  return -1;
}

}  // namespace

int AppendTrackPoint(const TrackPoint& point) {
  if (GrowTrackLog() < 0) return AllocationError();
  tGps.pTrackPoints[tGps.nTrackPoints++] = point;
  return 0;
}

int AppendWaypoint(const Waypoint& waypoint) {
  if (GrowArray(&tGps.pWaypoints, &tGps.nWaypointCapacity, tGps.nWaypoints, kWaypointInitialCapacity) < 0) {
    return AllocationError();
  }
  tGps.pWaypoints[tGps.nWaypoints++] = waypoint;
  return 0;
}

int AppendRawLog(const uint8_t* bytes, int32_t count) {
  for (int32_t i = 0; i < count; ++i) {
    if (GrowArray(&tGps.pbRawLog, &tGps.nRawLogSize, tGps.nRawLogLength, kRawLogInitialSize) < 0) {
      return AllocationError();
    }
    tGps.pbRawLog[tGps.nRawLogLength++] = bytes[i];
  }
  return 0;
}

void ReleaseTrackPoints() { ReleaseArray(&tGps.pTrackPoints, &tGps.nTrackCapacity, &tGps.nTrackPoints); }

void ReleaseTrackLog() {
  ReleaseArray(&tGps.pbRawLog, &tGps.nRawLogSize, &tGps.nRawLogLength);
  ReleaseTrackPoints();
}

int StartTrackLog(int32_t points, int32_t rawBytes) {
  if (rawBytes > 0) {
    ReleaseTrackLog();
  } else {
    ReleaseTrackPoints();
  }
  if (GrowTrackLog(points) < 0 || (rawBytes > 0 && GrowArray(&tGps.pbRawLog, &tGps.nRawLogSize, 0, rawBytes) < 0)) {
    ReleaseTrackLog();
    return -1;
  }
  return 0;
}

void ReleaseWaypointList() { ReleaseArray(&tGps.pWaypoints, &tGps.nWaypointCapacity, &tGps.nWaypoints); }

int StartWaypointList() {
  ReleaseWaypointList();
  return GrowArray(&tGps.pWaypoints, &tGps.nWaypointCapacity, 0, kWaypointInitialCapacity);
}
