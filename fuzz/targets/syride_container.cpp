// The SYS'Evolution compressed-memory container, unpacked and handed to the
// IGC reader as the download does. Inputs of odd length get their chunk
// checksums set right first, so that mutated chunk data gets past the
// checksum to the chunk handling and the decompressor.

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "core/run.h"
#include "fuzz_support.h"
#include "targets.h"
#include "core/bytes.h"
#include "usb/fastlz.h"
#include "usb/syride.h"

namespace {

constexpr size_t kSignature = 8;
constexpr size_t kChunkHeader = 16;

void FixChecksums(uint8_t* container, size_t size) {
  size_t position = kSignature;
  while (size - position >= kChunkHeader && position < size) {
    uint8_t* header = container + position;
    const uint32_t length = ReadUnsignedLong(header + 4);
    position += kChunkHeader;
    if (length > size - position) return;
    const auto checksum = static_cast<uint32_t>(adler32(1, container + position, static_cast<uInt>(length)));
    for (int i = 0; i < 4; ++i) header[8 + i] = static_cast<uint8_t>(checksum >> (8 * i));
    position += length;
  }
}

}  // namespace

int fuzz::target::SyrideContainer(const uint8_t* data, size_t size) {
  if (size > UINT32_MAX) return 0;
  auto container = std::make_unique<uint8_t[]>(size);
  if (size > 0) std::memcpy(container.get(), data, size);
  if (size % 2 == 1 && size >= kSignature) FixChecksums(container.get(), size);

  fuzz::FreshRunParameters();
  const int32_t result = syride::DecodeEvolutionFlightMemory(container.get(), static_cast<uint32_t>(size));
  FUZZ_CHECK(result == 0 || result == -1);
  if (result == 0) {
    FUZZ_CHECK(tGps.pbRawLog != nullptr && tGps.nRawLogLength > 0 && tGps.nRawLogLength == tGps.nRawLogSize);
    FUZZ_CHECK(tGps.nTrackPoints > 0);
    FUZZ_CHECK(tGps.dwFirstPointTime == tGps.pTrackPoints[0].dwTime);
  }
  return 0;
}
