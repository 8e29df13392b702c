// The waypoint upload's reader from the file on: reading, recognising the
// format by its first bytes, decoding.

#include <cstdint>
#include <cstdio>
#include <string>

#include "core/run.h"
#include "fuzz_support.h"
#include "targets.h"
#include "output/file.h"

int fuzz::target::WaypointFile(const uint8_t* data, size_t size) {
  static const std::string path = fuzz::WorkDirectory() + "/points.wpt";
  fuzz::WriteWholeFile(path, data, size);
  fuzz::FreshRunParameters();
  tGps.dwCommand = kCommandUploadWaypoints;
  std::snprintf(tGps.szFileName, sizeof tGps.szFileName, "%s", path.c_str());

  const int32_t result = ReadWaypointFile();
  FUZZ_CHECK(result == 0 || result == -1);
  FUZZ_CHECK((result == 0) == (tGps.nWaypoints > 0));
  FUZZ_CHECK(result == 0 || tGps.pWaypoints == nullptr);
  return 0;
}
