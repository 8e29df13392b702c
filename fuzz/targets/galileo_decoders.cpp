// The Brauniger/Flytec byte decoders, each fed as its receive loop feeds it
// (XON and XOFF dropped, stopping where the loop stops): product data, the
// flight list with the selection after it, IGC lines cut as the log stage
// cuts them for DecodeLogSentence, and waypoints. Byte 0 is the setup:
// bits 0-1 the decoder, bit 2 the checksums left as they are (else made
// right first), bits 3-4 the flight number given, bit 5 bulk mode.
// fuzz-seeds: fuzz/seeds/galileo_decoders
// fuzz-dict: galileo.dict
// fuzz-max-len: 8192

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/run.h"
#include "fuzz_support.h"
#include "sentence_checksums.h"
#include "serial/galileo.h"

namespace {

using galileo::GalileoTransfer;

enum Decoder { kProduct, kList, kLog, kWaypoints };

constexpr int32_t kFlightNumbers[] = {0, 1, 5, 99};
constexpr double kHalfTurn = 3.14159265358979323846;

bool Terminated(const char* text, size_t size) { return strnlen(text, size) < size; }
bool FlowControl(uint8_t b) { return b == 0x11 || b == 0x13; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAlphanumeric(char c) { return IsDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

void RunProduct(GalileoTransfer* t, const std::vector<uint8_t>& bytes) {
  for (uint8_t b : bytes) {
    if (FlowControl(b)) continue;
    t->byte = b;
    const int32_t result = galileo::DecodeProductData(t);
    FUZZ_CHECK(result >= -14 && result <= 1);
    FUZZ_CHECK(t->state <= 6);
    FUZZ_CHECK(Terminated(t->model, sizeof t->model));
    FUZZ_CHECK(Terminated(t->pilot, sizeof t->pilot));
    FUZZ_CHECK(Terminated(t->serial, sizeof t->serial));
    FUZZ_CHECK(Terminated(t->firmware, sizeof t->firmware));
    FUZZ_CHECK(t->summaryLength >= 0 && static_cast<size_t>(t->summaryLength) < sizeof t->summary);
    FUZZ_CHECK(t->summary[t->summaryLength] == '\0');
    for (const char* c = t->model; *c != '\0'; ++c) FUZZ_CHECK(!(*c >= 'a' && *c <= 'z'));
    if (result == 1) continue;
    if (result == 0) {
      FUZZ_CHECK(t->state == 0);
      FUZZ_CHECK(t->pilot[0] != '\0' && t->pilot[0] != ' ');
      // The fields may hold NUL bytes as received: search the whole summary.
      const size_t length = static_cast<size_t>(t->summaryLength);
      FUZZ_CHECK(memmem(t->summary, length, ", SN", 4) != nullptr);
      FUZZ_CHECK(memmem(t->summary, length, ", SW", 4) != nullptr);
    }
    return;  // the stage ends with the first sentence or the first error
  }
}

void RunList(GalileoTransfer* t, const std::vector<uint8_t>& bytes, int32_t flightNumber, bool bulk) {
  std::memset(t->list, 0, sizeof t->list);
  for (uint8_t b : bytes) {
    if (FlowControl(b)) continue;
    t->byte = b;
    const int32_t result = galileo::DecodeTrackListData(t);
    FUZZ_CHECK(result == 1 || (result >= -12 && result <= -1));
    FUZZ_CHECK(t->state <= 7);
    FUZZ_CHECK(t->entry >= 0 && t->entry < galileo::kListEntries);
    FUZZ_CHECK(t->entryLength >= 0 && t->entryLength < galileo::kListEntrySize);
    FUZZ_CHECK(Terminated(t->list[t->entry], galileo::kListEntrySize));
    if (result < 0) return;
  }
  int32_t listed = 0;
  for (const auto& entry : t->list) {
    FUZZ_CHECK(Terminated(entry, sizeof entry));
    if (entry[0] != '\0') ++listed;
  }
  tGps.dwCommand = bulk ? kCommandDownloadAllTracks : kCommandDownloadTrack;
  tGps.nFlightNumber = flightNumber;
  const int32_t chosen = galileo::SelectFlight(t);
  if (listed == 0) {
    FUZZ_CHECK(chosen == (bulk ? -1 : 1));
  } else if (bulk) {
    FUZZ_CHECK(chosen == 0);
  } else if (flightNumber == 0 || flightNumber > listed) {
    FUZZ_CHECK(chosen == -1);
  } else {
    FUZZ_CHECK(chosen == (t->list[flightNumber - 1][0] != '\0' ? flightNumber : -1));
  }
}

// What one decoded line did.
void CheckLine(const GalileoTransfer& t, int32_t result, int32_t pointsBefore, int32_t gRecordsBefore) {
  const char kind = t.sentence[0];
  FUZZ_CHECK(result >= -29 && result <= 0);
  FUZZ_CHECK(Terminated(t.loggerSerial, sizeof t.loggerSerial));
  FUZZ_CHECK(Terminated(t.manufacturer, sizeof t.manufacturer));
  if (kind == 'A' && result == 0) {
    for (int i = 0; i < 3; ++i) FUZZ_CHECK(IsAlphanumeric(t.loggerSerial[i]) && IsAlphanumeric(t.manufacturer[i]));
  }
  FUZZ_CHECK(t.gRecords == gRecordsBefore + (kind == 'G' ? 1 : 0));
  FUZZ_CHECK(tGps.nTrackPoints == pointsBefore + (kind == 'B' && result == 0 ? 1 : 0));
  FUZZ_CHECK(tGps.nTrackPoints <= tGps.nTrackCapacity);
  if (kind != 'B' || result != 0) return;
  const TrackPoint& p = tGps.pTrackPoints[tGps.nTrackPoints - 1];
  FUZZ_CHECK(t.dayOffset % 86400 == 0);
  FUZZ_CHECK(t.lastSecondOfDay < 86400);
  FUZZ_CHECK(p.dwTime == t.flightDate + t.dayOffset + t.lastSecondOfDay);
  FUZZ_CHECK(p.dwFlags == (pointsBefore == 0 ? kTrackPointNewSegment : 0u));
  if (pointsBefore == 0) FUZZ_CHECK(tGps.dwFirstPointTime == p.dwTime && t.dayOffset == 0);
  FUZZ_CHECK(p.lGpsAltitude % 10 == 0);
}

// The log stage's line assembly: raw bytes kept, lines of at most 102
// characters (CR included) handed to the decoder at their LF.
void RunLog(GalileoTransfer* t, const std::vector<uint8_t>& bytes) {
  ReleaseTrackLog();
  tGps.pbRawLog = static_cast<uint8_t*>(std::malloc(kRawLogInitialSize));
  tGps.pTrackPoints = static_cast<TrackPoint*>(std::malloc(sizeof(TrackPoint) * kTrackInitialCapacity));
  if (tGps.pbRawLog == nullptr || tGps.pTrackPoints == nullptr) return;
  tGps.nRawLogSize = kRawLogInitialSize;
  tGps.nTrackCapacity = kTrackInitialCapacity;
  int32_t kept = 0;
  for (uint8_t b : bytes) {
    if (FlowControl(b)) continue;
    if (AppendRawLog(&b, 1) < 0) return;
    FUZZ_CHECK(tGps.nRawLogLength == ++kept);
    if (t->index == 0) {
      if (b == '\r' || b == '\n') continue;
      if (b < 'A' || b > 'Z') return;  // " Bad record type"
      t->sentence[t->index++] = static_cast<char>(b);
      continue;
    }
    if (t->index >= galileo::kLogSentenceSize) return;  // " Too long log sentence"
    if (b != '\n') {
      t->sentence[t->index++] = static_cast<char>(b);
      continue;
    }
    t->sentence[t->index] = '\0';
    const int32_t points = tGps.nTrackPoints;
    const int32_t gRecords = t->gRecords;
    const int32_t result = galileo::DecodeLogSentence(t);
    CheckLine(*t, result, points, gRecords);
    if (result < 0) return;
    t->index = 0;
  }
}

void RunWaypoints(GalileoTransfer* t, const std::vector<uint8_t>& bytes) {
  for (uint8_t b : bytes) {
    if (FlowControl(b)) continue;
    const int32_t result = galileo::DecodeWptByte(t, b);
    FUZZ_CHECK(result >= -21 && result <= 1);
    FUZZ_CHECK(t->state <= 16);
    FUZZ_CHECK(t->textLength >= 0 && t->textLength <= 17);
    FUZZ_CHECK(Terminated(t->id, sizeof t->id));
    FUZZ_CHECK(Terminated(t->name, sizeof t->name));
    FUZZ_CHECK(Terminated(t->altitude, sizeof t->altitude));
    if (result < 0) return;
    if (result == 1) continue;
    FUZZ_CHECK(t->state == 0);
    // Degrees below 90 and 180 by the digit limits, whatever the minutes.
    FUZZ_CHECK(std::fabs(t->latitude) < kHalfTurn / 2);
    FUZZ_CHECK(std::fabs(t->longitude) < kHalfTurn);
    for (int i = 0; t->altitude[i] != '\0'; ++i) {
      FUZZ_CHECK(IsDigit(t->altitude[i]) || (i == 0 && t->altitude[i] == '-'));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  fuzz::FreshRunParameters();
  tGps.dwGpsType = kGpsGalileo;
  const uint8_t setup = data[0];
  std::vector<uint8_t> bytes(data + 1, data + size);
  if ((setup & 4) == 0) fuzz::RepairSentenceChecksums(&bytes, true);

  GalileoTransfer transfer;
  galileo::ResetTransfer(&transfer);
  switch (static_cast<Decoder>(setup & 3)) {
    case kProduct:
      RunProduct(&transfer, bytes);
      break;
    case kList:
      RunList(&transfer, bytes, kFlightNumbers[(setup >> 3) & 3], (setup & 0x20) != 0);
      break;
    case kLog:
      RunLog(&transfer, bytes);
      break;
    case kWaypoints:
      RunWaypoints(&transfer, bytes);
      break;
  }
  return 0;
}
