// The program's one source of time: the wall clock of silence timers and
// progress, the processor clock of the MLR waits and the calendar time of
// downloads and file names. Tests put a source of their own in its place to
// freeze or drive time.
#pragma once

#include <cstdint>

struct ClockSource {
  uint64_t (*wallMicroseconds)();
  uint64_t (*processorMicroseconds)();
  int64_t (*utcSeconds)();  // seconds since 1970-01-01 00:00:00 UTC
};

// The system's clocks, for a source that replaces only some of them.
const ClockSource& SystemClock();
// Puts `source` in place (null: the system's clocks) and returns the source
// it replaced.
const ClockSource* UseClockSource(const ClockSource* source);

uint64_t GetWallClockMicroseconds();
// Processor time of the process: a sleeping process spends almost none.
uint64_t GetProcessorMicroseconds();
int64_t GetUtcSeconds();
