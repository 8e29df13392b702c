// The fuzz targets: each takes one input, as libFuzzer hands it over, and
// ends the run through FUZZ_CHECK when an invariant breaks.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz::target {

int IgcBuffer(const uint8_t* data, size_t size);
int TextCodecs(const uint8_t* data, size_t size);
int WaypointText(const uint8_t* data, size_t size);
int WaypointFile(const uint8_t* data, size_t size);
int ConfigFile(const uint8_t* data, size_t size);
int CommandLine(const uint8_t* data, size_t size);
int Fastlz(const uint8_t* data, size_t size);
int SyrideMemory(const uint8_t* data, size_t size);
int SyrideContainer(const uint8_t* data, size_t size);
int FlymasterDump2xx(const uint8_t* data, size_t size);
int FlymasterDumpNew(const uint8_t* data, size_t size);
int SerialDownload(const uint8_t* data, size_t size);

}  // namespace fuzz::target
