// The IGC date line and B record decoders on one line's text (after
// "HFDTE" or "B"), each given an exact-size copy.

#include <cstdint>
#include <cstring>

#include "fuzz_support.h"
#include "targets.h"
#include "geo/time.h"
#include "igc/igc.h"

namespace {

constexpr uint32_t kMidnight2000 = 315619200;  // GPS time of 2000-01-01
constexpr uint32_t kMidnight2100 = 3471379200;
constexpr int32_t kQuarterTurn = 1 << 30;

void CheckDate(fuzz::Text& text) {
  uint32_t gpsTime = 0xDEADBEEF;
  const int result = DecodeDateSentence(text.get(), &gpsTime);
  FUZZ_CHECK(result <= 0 && result >= -16);
  if (result < 0) {
    FUZZ_CHECK(gpsTime == 0xDEADBEEF);
    return;
  }
  FUZZ_CHECK(gpsTime % 86400 == 0);
  FUZZ_CHECK(gpsTime >= kMidnight2000 && gpsTime < kMidnight2100);
}

void CheckPosition(fuzz::Text& text) {
  TrackPoint point{};
  point.dwFlags = 0x55;
  const int result = DecodePosSentence(text.get(), &point);
  FUZZ_CHECK(result <= 0 && result >= -18);
  FUZZ_CHECK(point.dwFlags == 0x55);
  if (result < 0) return;
  FUZZ_CHECK(text.size() >= 34);
  FUZZ_CHECK(point.dwTime < 86400);
  FUZZ_CHECK(point.lLatitude >= -kQuarterTurn && point.lLatitude <= kQuarterTurn);
  FUZZ_CHECK((point.lLatitude < 0) == (text.get()[13] == 'S' && point.lLatitude != 0));
  FUZZ_CHECK(point.lPressureAltitude >= -9999 && point.lPressureAltitude <= 99999);
  FUZZ_CHECK(point.lGpsAltitude % 10 == 0);
}

}  // namespace

int fuzz::target::IgcSentences(const uint8_t* data, size_t size) {
  fuzz::Text date(data, size);
  CheckDate(date);
  fuzz::Text position(data, size);
  CheckPosition(position);
  return 0;
}
