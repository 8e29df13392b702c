// The Leonardo/Air reply decoders: the first byte picks the stage
// (identification, flight list or block read), the rest is the line as the
// receive loop hands it over, byte by byte, up to the first complete
// sentence; a block's records then become track points as the download
// makes them.
// fuzz-dict: leonardo.dict
// fuzz-max-len: 9000

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

#include "fuzz_support.h"
#include "geo/time.h"
#include "serial/leonardo.h"

namespace {

using leonardo::LeonardoTransfer;

constexpr int32_t kQuarterTurn = 1 << 30;

bool Terminated(const char* text, size_t size) { return std::memchr(text, '\0', size) != nullptr; }

void CheckProduct(LeonardoTransfer* t, int32_t result) {
  FUZZ_CHECK(result <= 0);
  if (result < 0) {
    FUZZ_CHECK(t->product[0] == '\0');
    return;
  }
  FUZZ_CHECK(Terminated(t->device, sizeof t->device) && Terminated(t->firmware, sizeof t->firmware));
  FUZZ_CHECK(Terminated(t->serial, sizeof t->serial) && Terminated(t->pilot, sizeof t->pilot));
  FUZZ_CHECK(Terminated(t->product, sizeof t->product) && std::strlen(t->product) <= 80);
  FUZZ_CHECK(t->recordsWithoutQnh == (t->firmware[0] == '4'));
}

void CheckList(LeonardoTransfer* t, int32_t result) {
  if (result < 0) {
    FUZZ_CHECK(t->flightCount == 0);
    return;
  }
  FUZZ_CHECK(result == t->flightCount && t->flightCount <= leonardo::kMaxFlights);
  for (int32_t i = 0; i < t->flightCount; ++i) {
    const leonardo::FlightEntry& f = t->flights[i];
    FUZZ_CHECK(f.startBlock <= 255 && f.lastBlock <= 255 && f.startAddress <= 0xFFFF && f.lastAddress <= 0xFFFF);
  }
}

void CheckBlock(LeonardoTransfer* t, int32_t result, bool withoutQnh) {
  if (result < 0) return;
  FUZZ_CHECK(result == t->blockLength && t->blockLength <= leonardo::kBlockSize);
  // Every time is inside this flight, so only the position can refuse a record.
  const leonardo::FlightEntry flight{leonardo::kInstrumentEpochOffset, UINT32_MAX, 0, 0, 0, 0};
  for (int32_t at = 0; at + leonardo::kRecordSize <= t->blockLength; at += leonardo::kRecordSize) {
    leonardo::TrackRecord record;
    leonardo::DecodeTrackRecord(t->block + at, withoutQnh, &record);
    FUZZ_CHECK(record.satellites >= 3 && record.satellites <= 17);
    if (withoutQnh) FUZZ_CHECK(record.qnhAltitude == record.pressureAltitude);
    TrackPoint point{};
    point.dwTime = 0xDEADBEEF;
    const bool made = leonardo::MakeTrackPoint(record, flight, &point);
    if (!made) {
      FUZZ_CHECK(point.dwTime == 0xDEADBEEF);
      continue;
    }
    FUZZ_CHECK(std::isfinite(record.latitude) && std::isfinite(record.longitude));
    FUZZ_CHECK(point.dwTime == record.time - leonardo::kInstrumentEpochOffset);
    FUZZ_CHECK(point.lLatitude >= -kQuarterTurn && point.lLatitude <= kQuarterTurn);
    FUZZ_CHECK(point.lGpsAltitude == record.gpsAltitude * 10);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  fuzz::FreshRunParameters();
  auto t = std::make_unique<LeonardoTransfer>();
  leonardo::ResetTransfer(t.get());
  const int stage = data[0] % 4;
  int32_t result = 1;
  for (size_t i = 1; i < size && result == 1; ++i) result = leonardo::TakeSentenceByte(t.get(), data[i]);
  FUZZ_CHECK(t->length >= 0 && t->length <= leonardo::kSentenceSize);
  if (result != 0) {
    FUZZ_CHECK(result == 1 || result == leonardo::kNoChecksum || result == leonardo::kSentenceTooLong);
    char reason[64];
    leonardo::DescribeReplyError(result, reason, sizeof reason);
    FUZZ_CHECK(Terminated(reason, sizeof reason));
    return 0;
  }
  FUZZ_CHECK(t->sentence[0] == '$' && Terminated(t->sentence, sizeof t->sentence));
  switch (stage) {
    case 0:
      CheckProduct(t.get(), leonardo::DecodeProductSentence(t.get()));
      break;
    case 1:
      CheckList(t.get(), leonardo::DecodeFlightList(t.get()));
      break;
    default:
      CheckBlock(t.get(), leonardo::DecodeBlockSentence(t.get()), stage == 3);
      break;
  }
  return 0;
}
