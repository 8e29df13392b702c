// The one receive loop of every serial exchange: poll the FIFO every 10 ms
// and hand each byte to the stage's decoder until the line has been silent
// long enough or the decoder is done.
#pragma once

#include <cstdint>
#include <cstdio>

#include "core/clock.h"
#include "core/console.h"
#include "core/run.h"
#include "geo/time.h"
#include "link/com.h"

// How long a stage listens. By default the wait ends when no byte has come
// for more than `limit` microseconds of wall-clock time, each byte starting
// the count again; `deadline` counts from the start instead and ends as soon
// as `limit` is reached; `processorTime` measures with the processor clock.
struct Listening {
  int64_t limit;
  bool deadline = false;
  bool processorTime = false;
};

// Hands every received byte to `take` until `take` answers something other
// than 1, and returns that answer; returns 1 when the wait ran out.
template <typename Take>
int32_t ReceiveUntilSilent(Listening listening, Take take) {
  auto now = listening.processorTime ? GetProcessorMicroseconds : GetWallClockMicroseconds;
  auto over = [&listening](uint64_t elapsed) {
    const int64_t spent = static_cast<int64_t>(elapsed);
    return listening.deadline ? spent >= listening.limit : spent > listening.limit;
  };
  uint64_t since = now();
  for (;;) {
    while (NonEmptyComFifoWithSleep(10)) {
      uint8_t byte = ReadComFifo();
      if (!listening.deadline) since = now();
      int32_t result = take(byte);
      if (result != 1) return result;
      if (listening.deadline && over(now() - since)) break;
    }
    uint64_t time = now();
    if (time < since) since = time;  // the clock was set back: start counting again
    if (over(time - since)) return 1;
  }
}

template <typename Take>
int32_t ReceiveUntilSilent(int64_t silence, Take take) {
  return ReceiveUntilSilent(Listening{silence}, take);
}

// A waypoint download: an empty list, the command sent by `start`, then every
// byte to `take` with the download time (it stores the waypoints it decodes
// and answers 1, or -1 after its message) until the line falls silent, with
// "Waypoints: " counting every tenth. 0 when waypoints came, else -1.
template <typename Start, typename Take>
int32_t ReceiveWaypoints(int64_t silence, Start start, Take take) {
  if (StartWaypointList() < 0) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  start();
  ProgressCounter progress("Waypoints: ", 0);
  const uint32_t downloadTime = GetCurrentGpsTime();
  int32_t result = ReceiveUntilSilent(silence, [&](uint8_t byte) {
    const int32_t before = tGps.nWaypoints;
    if (take(byte, downloadTime) < 0) return -1;
    if (tGps.nWaypoints != before && tGps.nWaypoints % 10 == 0) progress.Update(tGps.nWaypoints);
    return 1;
  });
  if (result < 0) return -1;
  progress.Finish(tGps.nWaypoints);
  return tGps.nWaypoints > 0 ? 0 : -1;
}
