// The command-line parser on an argument list: the input split at NUL
// bytes, each argument an exact-size copy.

#include <cstdint>
#include <cstring>

#include "driver/cmd.h"
#include "core/run.h"
#include "fuzz_support.h"
#include "targets.h"

int fuzz::target::CommandLine(const uint8_t* data, size_t size) {
  fuzz::Arguments arguments(data, size, 64);
  fuzz::FreshRunParameters();
  const int result = ParseArguments(arguments.count(), arguments.get());
  FUZZ_CHECK(result == 0 || result == -1);

  const RunParameters& p = tGps;
  FUZZ_CHECK(p.dwCommand <= kCommandDownloadAllTracks);
  FUZZ_CHECK(fuzz::IsTerminatedWithin(p.szFileName, sizeof p.szFileName));
  FUZZ_CHECK(fuzz::IsTerminatedWithin(p.szComPort, sizeof p.szComPort));
  FUZZ_CHECK(p.szComPort[0] == '\0' || std::strncmp(p.szComPort, "/dev/cu.", 8) == 0);
  FUZZ_CHECK(std::strlen(p.szComPort) < 8 + 22);
  const int32_t types[] = {kGpsNone, kGpsGalileo, kGpsMlr, kGpsFlymaster, kGpsIqBasic,
                           kGpsSyride, kGpsFlymasterNew, kGpsAscent, kGpsLeonardo};
  bool known = false;
  for (int32_t type : types) known = known || p.dwGpsType == type;
  FUZZ_CHECK(known);
  FUZZ_CHECK(p.dwFileTypes <= 7);
  return 0;
}
