// The Ozi and $FormatGEO waypoint decoders on a whole file's text; both
// decoders see every input, whatever its first line says.

#include <cstdint>
#include <cstring>

#include "core/run.h"
#include "fuzz_support.h"
#include "targets.h"
#include "output/file.h"

namespace {

constexpr int32_t kQuarterTurn = 1 << 30;

bool IsIdCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
}

void CheckList(int32_t result, bool geo) {
  if (result < 0) {
    FUZZ_CHECK(tGps.pWaypoints == nullptr && tGps.nWaypoints == 0);
    return;
  }
  FUZZ_CHECK(result == 0);
  FUZZ_CHECK(tGps.nWaypoints > 0 && tGps.nWaypoints < tGps.nWaypointCapacity);
  for (int32_t i = 0; i < tGps.nWaypoints; ++i) {
    const Waypoint& w = tGps.pWaypoints[i];
    const size_t idLength = strnlen(w.szId, sizeof w.szId);
    FUZZ_CHECK(idLength >= 1 && idLength <= 6);
    for (size_t k = 0; k < idLength; ++k) FUZZ_CHECK(IsIdCharacter(w.szId[k]));
    const size_t commentLength = strnlen(w.szComment, sizeof w.szComment);
    FUZZ_CHECK(commentLength <= 40);
    for (size_t k = 0; k < commentLength; ++k) FUZZ_CHECK(IsIdCharacter(w.szComment[k]) || w.szComment[k] == ' ');
    FUZZ_CHECK(commentLength == 0 || (w.szComment[0] != ' ' && w.szComment[commentLength - 1] != ' '));
    FUZZ_CHECK(w.lAltitude >= 0);
    FUZZ_CHECK(w.lLatitude >= -kQuarterTurn && w.lLatitude <= kQuarterTurn);
    FUZZ_CHECK(w.dwReserved == 0 || (geo && w.dwReserved == 1));
  }
}

}  // namespace

int fuzz::target::WaypointText(const uint8_t* data, size_t size) {
  fuzz::FreshRunParameters();
  fuzz::Text ozi(data, size);
  CheckList(DecodeOziWpts(ozi.get()), false);

  fuzz::FreshRunParameters();
  fuzz::Text geo(data, size);
  CheckList(DecodeGeoWpts(geo.get()), true);
  return 0;
}
