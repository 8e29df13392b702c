// The SYS'Nav per-second flight memory decoder. Byte 0 bit 0 selects the new
// record layout, bytes 1-2 (little-endian) the duration, cut to what the rest
// of the input holds; the rest is the memory image, given in a buffer of
// exactly the size the download reads for that duration.

#include <cstdint>
#include <cstring>
#include <memory>

#include "fuzz_support.h"
#include "targets.h"
#include "geo/time.h"
#include "usb/syride.h"

namespace {

constexpr size_t kSetup = 3;
constexpr uint32_t kStartTime = 1000000000;
constexpr int32_t kNoFixArc = 5965232;

}  // namespace

int fuzz::target::SyrideMemory(const uint8_t* data, size_t size) {
  if (size < kSetup) return 0;
  const uint8_t newFormat = data[0] & 1;
  const uint32_t wanted = static_cast<uint32_t>(data[1]) | (static_cast<uint32_t>(data[2]) << 8);
  const size_t rest = size - kSetup;
  uint32_t duration = static_cast<uint32_t>(rest / 14 < wanted ? rest / 14 : wanted);
  while (duration > 0 && syride::FlightMemorySize(duration, newFormat) > rest) --duration;
  const uint32_t bytes = syride::FlightMemorySize(duration, newFormat);
  if (bytes > rest) return 0;  // not even the header

  auto memory = std::make_unique<uint8_t[]>(bytes);
  std::memcpy(memory.get(), data + kSetup, bytes);
  auto points = std::make_unique<TrackPoint[]>(duration);
  const int32_t stored = syride::DecodeFlightMemory(memory.get(), points.get(), duration, kStartTime, newFormat);

  FUZZ_CHECK(stored >= 0 && static_cast<uint32_t>(stored) <= duration);
  for (int32_t i = 0; i < stored; ++i) {
    const TrackPoint& p = points[static_cast<size_t>(i)];
    FUZZ_CHECK(p.dwTime >= kStartTime && p.dwTime < kStartTime + duration);
    if (i > 0) FUZZ_CHECK(p.dwTime > points[static_cast<size_t>(i - 1)].dwTime);
    FUZZ_CHECK(p.dwFlags == (p.dwTime == kStartTime ? kTrackPointNewSegment : 0u));
    FUZZ_CHECK(!(p.lLatitude == kNoFixArc && p.lLongitude == kNoFixArc));
    FUZZ_CHECK(p.lGpsAltitude % 10 == 0);
    if (newFormat == 0) FUZZ_CHECK(p.lPressureAltitude == 0);
  }
  return 0;
}
