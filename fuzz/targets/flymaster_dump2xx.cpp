// A Flymaster firmware 2.02+ dump through ConvertDump2xx, and the IGC text it
// makes through the IGC reader, as the track reader hands them on. Byte 0 is
// the setup: bit 0 keeps the trailer's checksum as received (else it is made
// right first, so that mutated blocks get walked), bits 1-2 choose the
// serial number text. The rest is the dump, in a buffer of exactly its size.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/run.h"
#include "fuzz_support.h"
#include "targets.h"
#include "igc/igc.h"
#include "serial/flymaster.h"

namespace {

constexpr int32_t kBlock = flymaster::kBlockSize;
constexpr const char* kSerials[] = {"123456", "", "4294967295", "12x"};

void FoldChecksum(const uint8_t* dump, int32_t blockBytes, uint8_t sum[8]) {
  std::memset(sum, 0, 8);
  for (int32_t i = 0; i < blockBytes; ++i) sum[i % 8] ^= dump[i];
}

// The dump's records as the walk frames them.
struct RecordCount {
  int32_t all = 0;
  int32_t fixes = 0;   // full and delta fixes of both families
  int32_t events = 0;  // B records at an event's time
};

RecordCount CountRecords(const uint8_t* dump, int32_t blocks) {
  RecordCount count;
  for (int32_t b = 0; b < blocks; ++b) {
    const uint8_t* block = dump + b * kBlock;
    int32_t pos = 12 + (b == 0 ? block[12] : 0);
    while (pos < kBlock) {
      const int32_t length = block[pos] & 31;
      if (length == 0 || pos + length > kBlock) break;
      switch (block[pos] & 127) {
        case 8: case 19: case 72: case 74: case 83: case 85:
          ++count.fixes;
          break;
        case 39:
          ++count.events;
          break;
        default:
          break;
      }
      ++count.all;
      pos += length;
    }
  }
  return count;
}

// Lines that start with "B" and run for at least 35 characters: only B
// records can make them (pilot and task point names are too short).
int32_t CountBRecords(const char* text, int32_t length) {
  int32_t count = 0;
  int32_t start = 0;
  while (start < length) {
    const char* end = static_cast<const char*>(memmem(text + start, static_cast<size_t>(length - start), "\r\n", 2));
    const int32_t lineEnd = end != nullptr ? static_cast<int32_t>(end - text) : length;
    if (text[start] == 'B' && lineEnd - start >= 35) ++count;
    start = lineEnd + 2;
  }
  return count;
}

bool Contains(const char* text, const char* part) { return std::strstr(text, part) != nullptr; }

}  // namespace

int fuzz::target::FlymasterDump2xx(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  fuzz::FreshRunParameters();
  const uint8_t setup = data[0];
  const int32_t length = static_cast<int32_t>(size - 1);
  auto dump = std::make_unique<uint8_t[]>(size - 1 + 1);  // never empty
  std::memcpy(dump.get(), data + 1, size - 1);

  const int32_t blocks = length / kBlock;
  const int32_t blockBytes = blocks * kBlock;
  const bool trailerComplete = length - blockBytes >= flymaster::kDumpTrailer;
  uint8_t sum[8];
  FoldChecksum(dump.get(), blockBytes, sum);
  if ((setup & 1) == 0 && trailerComplete) std::memcpy(dump.get() + blockBytes, sum, sizeof sum);
  const bool checksumGood = trailerComplete && std::memcmp(dump.get() + blockBytes, sum, sizeof sum) == 0;

  char* igc = reinterpret_cast<char*>(0x1);  // must stay as it is on failure
  int32_t igcLength = -7;
  const int32_t result = flymaster::ConvertDump2xx(dump.get(), length, kSerials[(setup >> 1) & 3], &igc, &igcLength);
  FUZZ_CHECK(result == 0 || result == -1);
  // Memory does not run out here: the outcome follows from the length and checksum alone.
  FUZZ_CHECK((result == 0) == checksumGood);
  if (result < 0) {
    FUZZ_CHECK(igc == reinterpret_cast<char*>(0x1) && igcLength == -7);
    return 0;
  }
  std::unique_ptr<char, decltype(&std::free)> text(igc, &std::free);
  FUZZ_CHECK(igc != nullptr);
  FUZZ_CHECK(igcLength > 0 && static_cast<size_t>(igcLength) == std::strlen(igc));

  // The G line closes the text with the trailer's signature.
  const uint8_t* signature = dump.get() + blockBytes + 10;
  char gLine[1 + 64 + 2 + 1] = "G";
  for (int i = 0; i < 32; ++i) std::snprintf(gLine + 1 + 2 * i, 3, "%02X", signature[i]);
  std::strcat(gLine, "\r\n");
  FUZZ_CHECK(igcLength >= 67 && std::strcmp(igc + igcLength - 67, gLine) == 0);

  const RecordCount records = CountRecords(dump.get(), blocks);
  FUZZ_CHECK(CountBRecords(igc, igcLength) == records.fixes + records.events);
  // Header, pilot and C records come only with the first fix.
  FUZZ_CHECK(Contains(igc, "HFDTEDATE:") == (records.fixes > 0));
  if (records.fixes > 0) FUZZ_CHECK(Contains(igc, "\r\nLPLTKestrixLinux 1.06\r\n"));
  // Without a fix the text is the events' B records and the G line alone.
  if (records.fixes == 0) FUZZ_CHECK(igc[0] == (records.events > 0 ? 'B' : 'G'));
  // No record writes more than two 40-character lines; the header is below 1 KB.
  FUZZ_CHECK(igcLength <= 1024 + 96 * records.all + 67);

  // The reader fills the track log or fails cleanly; the track reader takes
  // the first point's time on success.
  const int32_t read = DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(igc), igcLength, nullptr, 0);
  FUZZ_CHECK(read >= -1);
  FUZZ_CHECK(tGps.nTrackPoints >= 0 && tGps.nTrackPoints <= tGps.nTrackCapacity);
  if (read >= 0) {
    FUZZ_CHECK(tGps.nTrackPoints >= 1 && tGps.pTrackPoints != nullptr);
    FUZZ_CHECK(tGps.nTrackPoints <= records.fixes + records.events);
  }
  return 0;
}
