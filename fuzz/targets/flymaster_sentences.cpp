// Flymaster sentences: the bytes go one by one through TakeSentenceByte, and
// each complete sentence to the stage's judge as its receive loop hands it
// over (identification, track list, waypoint download, upload answer).
// Byte 0 is the setup: bits 0-1 the stage, bit 2 an older model, bit 3 the
// pilot name taken from the instrument, bit 4 firmware "1.14" (answers) or
// bulk mode (list), bits 5-6 the sent name (answers) or the flight number
// (list), bit 7 the checksums left as they are (else made right first).
// fuzz-seeds: fuzz/seeds/flymaster_sentences
// fuzz-dict: flymaster.dict
// fuzz-max-len: 8192

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/run.h"
#include "fuzz_support.h"
#include "sentence_checksums.h"
#include "serial/flymaster.h"

namespace {

using flymaster::FlymasterTransfer;

enum Stage { kProduct, kTrackList, kWaypoints, kAnswer };

constexpr uint32_t kDownloadTime = 1300000000;
constexpr const char* kSentNames[] = {"Col d'Aze", "", "A very long waypoint name", "x-1"};
constexpr int32_t kFlightNumbers[] = {0, 1, 7, 100};

bool Terminated(const char* text, size_t size) { return strnlen(text, size) < size; }

bool HasLowerCaseOrBlank(const char* text) {
  for (; *text != '\0'; ++text) {
    if ((*text >= 'a' && *text <= 'z') || *text == ' ') return true;
  }
  return false;
}

// After every byte: the collector's state and sentence stay within bounds.
int32_t Take(FlymasterTransfer* t, uint8_t byte) {
  const int32_t complete = flymaster::TakeSentenceByte(t, byte);
  FUZZ_CHECK(complete == 0 || complete == 1);
  FUZZ_CHECK(t->state >= 0 && t->state <= 2);
  FUZZ_CHECK(t->length >= 0 && t->length <= flymaster::kSentenceLimit);
  FUZZ_CHECK(t->sentence[t->length] == '\0');
  if (complete == 1) {
    FUZZ_CHECK(t->state == 0);
    FUZZ_CHECK(t->sentence[0] == '$');
  }
  return complete;
}

struct Identity {
  char name[41], pilot[15], serial[11], firmware[11], product[81], described[81];
};

Identity Snapshot(const FlymasterTransfer& t) {
  Identity id;
  std::memcpy(id.name, t.name, sizeof id.name);
  std::memcpy(id.pilot, t.pilot, sizeof id.pilot);
  std::memcpy(id.serial, t.serial, sizeof id.serial);
  std::memcpy(id.firmware, t.firmware, sizeof id.firmware);
  std::memcpy(id.product, t.product, sizeof id.product);
  std::memcpy(id.described, tGps.szProduct, sizeof id.described);
  return id;
}

void CheckProduct(FlymasterTransfer* t, bool pilotFromInstrument) {
  const Identity before = Snapshot(*t);
  char pilotBefore[sizeof tGps.szPilotName];
  std::memcpy(pilotBefore, tGps.szPilotName, sizeof pilotBefore);
  const int32_t result = flymaster::StoreProductSentence(t);
  FUZZ_CHECK(result == 0 || result == -1);
  if (result < 0) {
    const Identity after = Snapshot(*t);
    FUZZ_CHECK(std::memcmp(&before, &after, sizeof before) == 0);
    FUZZ_CHECK(std::memcmp(pilotBefore, tGps.szPilotName, sizeof pilotBefore) == 0);
    return;
  }
  FUZZ_CHECK(Terminated(t->name, sizeof t->name));
  FUZZ_CHECK(Terminated(t->pilot, sizeof t->pilot));
  FUZZ_CHECK(Terminated(t->serial, sizeof t->serial));
  FUZZ_CHECK(Terminated(t->firmware, sizeof t->firmware));
  FUZZ_CHECK(Terminated(t->product, sizeof t->product));
  FUZZ_CHECK(std::strncmp(t->product, "Flymaster ", 10) == 0);
  FUZZ_CHECK(Terminated(tGps.szProduct, sizeof tGps.szProduct));
  FUZZ_CHECK(std::strcmp(tGps.szProduct, t->product) == 0);
  FUZZ_CHECK(Terminated(tGps.szPilotName, sizeof tGps.szPilotName));
  if (!pilotFromInstrument) FUZZ_CHECK(std::memcmp(pilotBefore, tGps.szPilotName, sizeof pilotBefore) == 0);
}

// Each list sentence until the first refused; then the selection, with a
// flight number given (never the console).
void RunTrackList(FlymasterTransfer* t, const std::vector<uint8_t>& bytes, bool bulk, int32_t flightNumber) {
  bool refused = false;
  for (uint8_t b : bytes) {
    if (!Take(t, b)) continue;
    const int32_t before = t->trackCount;
    const int32_t result = flymaster::StoreTrackListSentence(t);
    FUZZ_CHECK(result == 0 || result == -1);
    FUZZ_CHECK(t->trackCount == (result == 0 && before < flymaster::kTrackSlots ? before + 1 : before));
    FUZZ_CHECK(t->trackCount >= 0 && t->trackCount <= flymaster::kTrackSlots);
    if (result < 0) {
      refused = true;
      break;
    }
  }
  if (refused) return;
  tGps.dwCommand = bulk ? kCommandDownloadAllTracks : kCommandDownloadTrack;
  tGps.nFlightNumber = flightNumber;
  const int32_t chosen = flymaster::SelectTrack(t);
  if (t->trackCount == 0) {
    FUZZ_CHECK(chosen == -1);
  } else if (bulk) {
    FUZZ_CHECK(chosen == 0);
  } else if (flightNumber >= 1 && flightNumber <= t->trackCount) {
    FUZZ_CHECK(chosen == flightNumber);
  } else {
    FUZZ_CHECK(chosen == -1);
  }
}

void RunWaypoints(FlymasterTransfer* t, const std::vector<uint8_t>& bytes) {
  tGps.pWaypoints = static_cast<Waypoint*>(std::malloc(sizeof(Waypoint) * kWaypointInitialCapacity));
  if (tGps.pWaypoints == nullptr) return;
  tGps.nWaypointCapacity = kWaypointInitialCapacity;
  for (uint8_t b : bytes) {
    if (!Take(t, b)) continue;
    const int32_t before = tGps.nWaypoints;
    const int32_t result = flymaster::StoreWaypointSentence(t, kDownloadTime);
    FUZZ_CHECK(result == 0 || result == -1);
    FUZZ_CHECK(tGps.nWaypoints == (result == 0 ? before + 1 : before));
    FUZZ_CHECK(tGps.nWaypoints <= tGps.nWaypointCapacity);
    if (result < 0) break;
    const Waypoint& w = tGps.pWaypoints[tGps.nWaypoints - 1];
    FUZZ_CHECK(Terminated(w.szId, sizeof w.szId));
    FUZZ_CHECK(!HasLowerCaseOrBlank(w.szId));
    FUZZ_CHECK(Terminated(w.szComment, sizeof w.szComment));
    FUZZ_CHECK(w.szComment[0] != '\0' && w.szComment[0] != ' ');
    FUZZ_CHECK(w.dwTime == kDownloadTime);
    FUZZ_CHECK(w.dwReserved == 0 || w.dwReserved == 1);
  }
}

void RunAnswer(FlymasterTransfer* t, const std::vector<uint8_t>& bytes, const char* name) {
  char sent[17];
  std::snprintf(sent, sizeof sent, "%-16.16s", name);
  for (uint8_t b : bytes) {
    if (!Take(t, b)) continue;
    const bool tagged = std::strncmp(t->sentence, "$PFMWPR,", 8) == 0;
    const int32_t answer = flymaster::JudgeWaypointResponse(t, sent);
    FUZZ_CHECK(answer >= 0 && answer <= 5);
    if (answer == 0) FUZZ_CHECK(tagged);
    return;  // one answer per uploaded waypoint
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  fuzz::FreshRunParameters();
  const uint8_t setup = data[0];
  const Stage stage = static_cast<Stage>(setup & 3);
  tGps.dwGpsType = (setup & 4) != 0 ? kGpsFlymaster : kGpsFlymasterNew;
  const bool pilotFromInstrument = (setup & 8) != 0;
  if (pilotFromInstrument) tGps.szPilotName[0] = 1;
  std::vector<uint8_t> bytes(data + 1, data + size);
  if ((setup & 0x80) == 0) fuzz::RepairSentenceChecksums(&bytes, false);

  FlymasterTransfer transfer;
  flymaster::ResetTransfer(&transfer);
  if ((setup & 0x10) != 0) std::strcpy(transfer.firmware, "1.14");
  const int choice = (setup >> 5) & 3;

  switch (stage) {
    case kProduct:
      for (uint8_t b : bytes) {
        if (!Take(&transfer, b)) continue;
        CheckProduct(&transfer, pilotFromInstrument);
        break;  // the stage judges the first sentence only
      }
      break;
    case kTrackList:
      RunTrackList(&transfer, bytes, (setup & 0x10) != 0, kFlightNumbers[choice]);
      break;
    case kWaypoints:
      RunWaypoints(&transfer, bytes);
      break;
    case kAnswer:
      RunAnswer(&transfer, bytes, kSentNames[choice]);
      break;
  }
  return 0;
}
