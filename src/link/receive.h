// The one receive loop of every serial exchange: poll the FIFO every 10 ms
// and hand each byte to the stage's decoder until the line has been silent
// long enough or the decoder is done.
#pragma once

#include <cstdint>

#include "core/clock.h"
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
