#include "driver/convert.h"

#include <cstdio>
#include <cstring>

#include "core/run.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "output/file.h"

int32_t TranslateIgcLog() {
  const char* source = tGps.szFileName;
  if (ReadIgcFile(source) < 0) return -1;

  // A file carries no instrument signature and its times are not known to be UTC.
  SetLogFlags(0, 0, 1, GetCurrentGpsTime());
  tGps.szProduct[0] = '\0';
  std::printf("Source file decoded (%d points)\n", tGps.nTrackPoints);

  // flight.igc gives flight.kml; any other name keeps its ending.
  char output[sizeof tGps.szFileName + 4];
  size_t length = strnlen(source, sizeof tGps.szFileName - 1);
  if (length > 4 && std::memcmp(source + length - 4, ".igc", 4) == 0) length -= 4;
  std::memcpy(output, source, length);
  std::memcpy(output + length, ".kml", 5);
  const int32_t saved = SaveKmlTrackLog(output, 0);
  ReleaseTrackPoints();
  return saved < 0 ? -1 : 0;
}
