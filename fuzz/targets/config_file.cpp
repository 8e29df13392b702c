// The configuration reader on "kestrix.cfg" in the current directory, with
// the echo of the settings when the file asks for it.

#include <cstdint>
#include <cstring>
#include <string>

#include "driver/config.h"
#include "core/run.h"
#include "fuzz_support.h"
#include "targets.h"

int fuzz::target::ConfigFile(const uint8_t* data, size_t size) {
  static const std::string path = fuzz::WorkDirectory() + "/kestrix.cfg";
  fuzz::WriteWholeFile(path, data, size);
  fuzz::FreshRunParameters();
  fuzz::InWorkDirectory(GetConfigParameters);

  const RunParameters& p = tGps;
  for (const char* text : {p.szIgcPilotName, p.szIgcGliderType, p.szIgcGliderId, p.szIgcSiteName, p.szIgcCompClass}) {
    FUZZ_CHECK(fuzz::IsTerminatedWithin(text, sizeof p.szIgcPilotName));
    // The comment marks and the carriage return cut every line.
    FUZZ_CHECK(std::strpbrk(text, "#;*\r") == nullptr);
  }
  FUZZ_CHECK(fuzz::IsTerminatedWithin(p.szTaskTakeoffScript, sizeof p.szTaskTakeoffScript));
  FUZZ_CHECK(fuzz::IsTerminatedWithin(p.szTaskLandingScript, sizeof p.szTaskLandingScript));
  FUZZ_CHECK(p.bConfigShowParameters == 0 || p.bConfigShowParameters == 1);
  // Numbers below 1 are stored as 0.
  for (int32_t value : {p.nTrimLocationInterval, p.nTrimLocationDistance, p.nTrimTakeoffInterval,
                        p.nTrimTakeoffDistance, p.nTrimTakeoffPrepend, p.nTrimTakeoffBoxRadius,
                        p.nTrimTakeoffBoxHeight, p.nTrimTakeoffBoxPrepend, p.nTrimLandingInterval,
                        p.nTrimLandingDistance, p.nTrimLandingAppend, p.nTaskLocationInterval,
                        p.nTaskLocationDistance, p.nTaskTakeoffInterval, p.nTaskTakeoffDistance,
                        p.nTaskTakeoffPrepend, p.nTaskTakeoffBoxRadius, p.nTaskTakeoffBoxHeight,
                        p.nTaskTakeoffBoxPrepend, p.nTaskLandingInterval, p.nTaskLandingDistance}) {
    FUZZ_CHECK(value >= 0);
  }
  return 0;
}
