// The one libFuzzer entry of every fuzzer: the name the fuzzer is built with
// picks its target from the table (fuzz/targets.txt lists them).
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "targets.h"

namespace {

struct Target {
  std::string_view name;
  int (*run)(const uint8_t*, size_t);
};

namespace target = fuzz::target;

constexpr Target kTargets[] = {
    {"igc_buffer", target::IgcBuffer},         {"text_codecs", target::TextCodecs},
    {"waypoint_text", target::WaypointText},   {"waypoint_file", target::WaypointFile},
    {"config_file", target::ConfigFile},       {"command_line", target::CommandLine},
    {"fastlz", target::Fastlz},                {"syride_memory", target::SyrideMemory},
    {"syride_container", target::SyrideContainer}, {"flymaster_dump2xx", target::FlymasterDump2xx},
    {"flymaster_dump_new", target::FlymasterDumpNew}, {"serial_download", target::SerialDownload}};

int (*chosen)(const uint8_t*, size_t) = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  for (const Target& t : kTargets) {
    if (t.name == KESTRIX_FUZZ_TARGET) chosen = t.run;
  }
  if (chosen == nullptr) {
    std::fprintf(stderr, "no fuzz target named %s\n", KESTRIX_FUZZ_TARGET);
    std::exit(2);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return chosen(data, size); }
