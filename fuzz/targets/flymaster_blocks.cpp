// The older Flymaster models' block transfer: the bytes one by one through
// TakeOldByte until a step ends the transfer, then FinishOldTransfer after
// the end marker, as the track reader does. Byte 0 is the setup: bit 0 a
// real progress counter (else none), bit 1 the instrument name "B1NAV"
// (else "GPS"), bit 2 the block checksums left as they are (else each is
// made right first, so that mutated blocks get handled).
// fuzz-seeds: fuzz/seeds/flymaster_blocks
// fuzz-dict: flymaster_binary.dict
// fuzz-max-len: 8192

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/console.h"
#include "core/run.h"
#include "fuzz_support.h"
#include "serial/flymaster.h"

namespace {

using flymaster::FlymasterTransfer;
using flymaster::OldStep;

constexpr int32_t kInitialPoints = 1000;
constexpr const char* kMessages[] = {
    " Bad flight info block length\n",     " Bad key track position block length\n",
    " Latitude outside valid range\n",     " Longitude value outside valid range\n",
    " Missing key track position block\n", " Bad track position block length\n",
    " Memory allocation error\n",
};

bool KnownMessage(const char* message) {
  for (const char* known : kMessages) {
    if (std::strcmp(message, known) == 0) return true;
  }
  return false;
}

bool Terminated(const char* text, size_t size) { return strnlen(text, size) < size; }

// Each checksum byte replaced by what the frame's length and data sum to.
void RepairBlockChecksums(std::vector<uint8_t>* bytes) {
  FlymasterTransfer scratch;
  flymaster::ResetTransfer(&scratch);
  for (uint8_t& b : *bytes) {
    if (scratch.block.state == 4) b = scratch.block.checksum;
    flymaster::StoreDataBlock(&scratch, b);
  }
}

// What one step did to the transfer and the track log.
void CheckStep(const FlymasterTransfer& t, const OldStep& step, int32_t pointsBefore) {
  FUZZ_CHECK(step.result >= -1 && step.result <= 1);
  FUZZ_CHECK(step.reply == 0 || step.reply == flymaster::kBlockAccepted ||
             step.reply == flymaster::kBlockBadChecksum || step.reply == flymaster::kTransferAborted);
  // An abort sends 0xB3 before its message, and every abort has one.
  FUZZ_CHECK((step.result == -1) == (step.reply == flymaster::kTransferAborted));
  FUZZ_CHECK((step.message != nullptr) == (step.reply == flymaster::kTransferAborted));
  if (step.message != nullptr) FUZZ_CHECK(KnownMessage(step.message));
  FUZZ_CHECK(tGps.nTrackPoints >= pointsBefore && tGps.nTrackPoints <= tGps.nTrackCapacity);

  const int32_t added = tGps.nTrackPoints - pointsBefore;
  if (step.reply == flymaster::kBlockAccepted) {
    FUZZ_CHECK(step.result == 1);
    switch (t.block.type) {
      case flymaster::kFlightInfoBlock:
        FUZZ_CHECK(added == 0 && t.infoSeen);
        for (const auto& text : t.infoText) FUZZ_CHECK(Terminated(text, sizeof text));
        break;
      case flymaster::kKeyPositionBlock:
        FUZZ_CHECK(added == 1 && t.keySeen);
        FUZZ_CHECK(t.latitude >= -5400000 && t.latitude <= 5400000);
        FUZZ_CHECK(t.longitude >= -10800000 && t.longitude <= 10800000);
        break;
      case flymaster::kTrackPositionsBlock:
        FUZZ_CHECK(t.block.length > 0 && t.block.length % 6 == 0 && added == t.block.length / 6);
        break;
      default:
        FUZZ_CHECK(false);  // accepted, yet no flight block
    }
  } else {
    // Only accepted key and track blocks store points; a failed growth
    // aborts after the ones stored before it.
    const bool growthFailed = step.message != nullptr && std::strcmp(step.message, " Memory allocation error\n") == 0;
    if (!growthFailed) FUZZ_CHECK(added == 0);
  }
  if (step.reply == flymaster::kBlockBadChecksum) FUZZ_CHECK(step.result == 1);
  for (int32_t i = pointsBefore; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    FUZZ_CHECK(p.dwFlags == (i == 0 ? kTrackPointNewSegment : 0u));
    FUZZ_CHECK(p.lGpsAltitude % 10 == 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  fuzz::FreshRunParameters();
  tGps.dwGpsType = kGpsFlymaster;
  const uint8_t setup = data[0];
  std::vector<uint8_t> bytes(data + 1, data + size);
  if ((setup & 4) == 0) RepairBlockChecksums(&bytes);

  FlymasterTransfer transfer;
  flymaster::ResetTransfer(&transfer);
  std::strcpy(transfer.name, (setup & 2) != 0 ? "B1NAV" : "GPS");
  tGps.pTrackPoints = static_cast<TrackPoint*>(std::malloc(sizeof(TrackPoint) * kInitialPoints));
  if (tGps.pTrackPoints == nullptr) return 0;
  tGps.nTrackCapacity = kInitialPoints;
  ProgressCounter counter("Points: ", 0);
  ProgressCounter* progress = (setup & 1) != 0 ? &counter : nullptr;

  int32_t result = 1;
  for (uint8_t b : bytes) {
    const int32_t before = tGps.nTrackPoints;
    const OldStep step = flymaster::TakeOldByte(&transfer, b, progress);
    CheckStep(transfer, step, before);
    result = step.result;
    if (result != 1) break;
  }
  if (result != 0) return 0;  // aborted, or the line fell silent (time-out)

  const int32_t before = tGps.nTrackPoints;
  const OldStep end = flymaster::FinishOldTransfer(&transfer, progress);
  FUZZ_CHECK(tGps.nTrackPoints == before);
  if (!transfer.infoSeen) {
    FUZZ_CHECK(end.result == -1 && end.reply == flymaster::kTransferAborted);
    FUZZ_CHECK(end.message != nullptr && std::strcmp(end.message, " Missing flight info block\n") == 0);
  } else if (tGps.nTrackPoints == 0) {
    FUZZ_CHECK(end.result == -1 && end.reply == 0 && end.message == nullptr);
  } else {
    FUZZ_CHECK(end.result == 0 && end.reply == 0 && end.message == nullptr);
    FUZZ_CHECK(tGps.bUtc == 1 && tGps.bSignature == 1 && tGps.bPressureAltitude == 1);
  }
  return 0;
}
