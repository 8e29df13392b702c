// A Flymaster pre-2.02 dump through DecodeDumpNew, with the task point list
// the track reader gives it. Byte 0 is the setup: bit 0 hands the rest over
// as received; else it is first cut to whole blocks and eight checksum bytes
// and the checksum is made right, so that mutated blocks get walked.

#include <cstdint>
#include <cstring>
#include <memory>

#include "core/run.h"
#include "fuzz_support.h"
#include "targets.h"
#include "serial/flymaster.h"

namespace {

constexpr int32_t kBlock = flymaster::kBlockSize;
constexpr uint32_t kDownloadTime = 1300000000;

struct RecordCount {
  int32_t points = 0;
  int32_t taskPoints = 0;
};

// The fixes and task points as the walk frames them.
RecordCount CountRecords(const uint8_t* dump, int32_t blocks) {
  RecordCount count;
  bool fullSeen = false;
  for (int32_t b = 0; b < blocks; ++b) {
    const uint8_t* block = dump + b * kBlock;
    int32_t pos = 12 + (b == 0 ? (block[12] & 31) : 0);
    while (pos < kBlock) {
      const uint8_t header = block[pos];
      const int32_t length = header & 31;
      if (length == 0 || length == 31 || pos + length > kBlock) break;
      pos += length;
      if ((header & 96) != 0) continue;
      if (length == 19) {
        fullSeen = true;
        ++count.points;
      } else if (length == 8 && fullSeen) {
        ++count.points;
      } else if (length == 30) {
        ++count.taskPoints;
      }
    }
  }
  return count;
}

bool Terminated(const char* text, size_t size) { return strnlen(text, size) < size; }

bool ShortNameCharacters(const char* name) {
  for (; *name != '\0'; ++name) {
    if ((*name >= 'a' && *name <= 'z') || *name == ' ') return false;
  }
  return true;
}

}  // namespace

int fuzz::target::FlymasterDumpNew(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  fuzz::FreshRunParameters();
  tGps.dwGpsType = kGpsFlymasterNew;
  const bool raw = (data[0] & 1) != 0;
  int32_t length = static_cast<int32_t>(size - 1);
  if (!raw && length >= kBlock + 8) length = (length - 8) / kBlock * kBlock + 8;
  auto dump = std::make_unique<uint8_t[]>(static_cast<size_t>(length) + 1);  // never empty
  std::memcpy(dump.get(), data + 1, static_cast<size_t>(length));

  const bool lengthGood = length >= kBlock + 8 && length % kBlock == 8;
  const int32_t blocks = length / kBlock;
  uint8_t sum[8] = {};
  for (int32_t i = 0; i < blocks * kBlock; ++i) sum[i % 8] ^= dump[static_cast<size_t>(i)];
  if (!raw && lengthGood) std::memcpy(dump.get() + blocks * kBlock, sum, sizeof sum);
  const bool checksumGood = lengthGood && std::memcmp(dump.get() + blocks * kBlock, sum, sizeof sum) == 0;

  flymaster::TaskPointList tasks;
  const int32_t result = flymaster::DecodeDumpNew(dump.get(), length, kDownloadTime, &tasks);
  FUZZ_CHECK(result == 0 || result == -1);
  FUZZ_CHECK(tGps.nTrackPoints >= 0 && tGps.nTrackPoints <= tGps.nTrackCapacity);
  if (!checksumGood) {
    FUZZ_CHECK(result == -1);
    FUZZ_CHECK(tasks.count == 0 && tasks.items == nullptr);
    FUZZ_CHECK(tGps.pTrackPoints == nullptr && tGps.nTrackPoints == 0);
    return 0;
  }

  const RecordCount expected = CountRecords(dump.get(), blocks);
  FUZZ_CHECK(tasks.count == 1 + expected.taskPoints);
  FUZZ_CHECK(tasks.count <= tasks.capacity && tasks.items != nullptr);
  FUZZ_CHECK(std::strcmp(tasks.items[0].shortName, "TAKEOF") == 0);
  FUZZ_CHECK(std::strcmp(tasks.items[0].longName, "TAKEOFF") == 0);
  for (int32_t i = 0; i < tasks.count; ++i) {
    const flymaster::TaskPoint& p = tasks.items[i];
    FUZZ_CHECK(Terminated(p.shortName, sizeof p.shortName));
    FUZZ_CHECK(Terminated(p.longName, sizeof p.longName));
    FUZZ_CHECK(ShortNameCharacters(p.shortName));
    FUZZ_CHECK(p.time == kDownloadTime);
  }

  if (expected.points == 0) {
    // No fix: nothing replaces the (empty) track log.
    FUZZ_CHECK(result == -1);
    FUZZ_CHECK(tGps.pTrackPoints == nullptr && tGps.nTrackPoints == 0);
    return 0;
  }
  FUZZ_CHECK(result == 0);
  FUZZ_CHECK(tGps.nTrackPoints == expected.points && tGps.pTrackPoints != nullptr);
  FUZZ_CHECK(tGps.dwDownloadTime == kDownloadTime);
  FUZZ_CHECK(tGps.bUtc == 1 && tGps.bSignature == 1 && tGps.bPressureAltitude == 1);
  for (int32_t i = 0; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    FUZZ_CHECK(p.dwFlags == (i == 0 ? kTrackPointNewSegment : 0u));
    FUZZ_CHECK(p.lGpsAltitude % 10 == 0);
  }
  return 0;
}
