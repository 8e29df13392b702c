#include "core/clock.h"

#include <sys/time.h>

#include <ctime>

namespace {

uint64_t SystemWallMicroseconds() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return static_cast<uint64_t>(tv.tv_sec) * 1000000u + static_cast<uint64_t>(tv.tv_usec);
}

uint64_t SystemProcessorMicroseconds() {
  return static_cast<uint64_t>(std::clock()) * 1000000u / static_cast<uint64_t>(CLOCKS_PER_SEC);
}

int64_t SystemUtcSeconds() { return static_cast<int64_t>(std::time(nullptr)); }

constexpr ClockSource kSystemClock = {SystemWallMicroseconds, SystemProcessorMicroseconds, SystemUtcSeconds};
const ClockSource* pClock = &kSystemClock;

}  // namespace

const ClockSource& SystemClock() { return kSystemClock; }

const ClockSource* UseClockSource(const ClockSource* source) {
  const ClockSource* previous = pClock;
  pClock = source != nullptr ? source : &kSystemClock;
  return previous;
}

uint64_t GetWallClockMicroseconds() { return pClock->wallMicroseconds(); }

uint64_t GetProcessorMicroseconds() { return pClock->processorMicroseconds(); }

int64_t GetUtcSeconds() { return pClock->utcSeconds(); }
