// The MLR binary frames. Byte 0: bit 0 the mode (0 track frames, 1 waypoint
// frames), bit 1 the firmware's time correction, bit 2 a point array that
// starts with room for only 1 to 8 points (bits 3-5), so that inputs within
// the length limit make it grow; clear, it starts as the track loop starts
// it. The rest goes byte by byte to the frame decoder as the track loop
// feeds it, each complete frame handled in turn, until a frame is refused,
// the log is complete or the input ends.
// fuzz-dict: mlr.dict
// fuzz-max-len: 16384

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "core/console.h"
#include "core/run.h"
#include "fuzz_support.h"
#include "serial/mlr.h"

namespace {

constexpr int32_t kLowest24 = -(1 << 23);
constexpr int32_t kHighest24 = (1 << 23) - 1;

void CheckFrame(const mlr::FrameState& f, int32_t mode) {
  FUZZ_CHECK(f.state >= 0 && f.state <= 11);
  FUZZ_CHECK(f.index >= 0 && f.index <= mlr::kFrameDataSize);
  FUZZ_CHECK(f.dataLength >= 0 && f.dataLength <= mlr::kFrameDataSize);
  if (f.kind == mlr::kFrameData && f.state >= 7) {
    const int32_t recordSize = mode == 0 ? mlr::kTrackRecordSize : mlr::kWaypointRecordSize;
    const int32_t maxRecords = mode == 0 ? mlr::kTrackRecordsPerFrame : mlr::kWaypointRecordsPerFrame;
    FUZZ_CHECK(f.count >= 1 && f.count <= maxRecords);
    FUZZ_CHECK(f.dataLength == f.count * recordSize);
    FUZZ_CHECK(f.index <= f.dataLength);
  }
}

void CheckTrack(const mlr::FrameState& f, int32_t mode, int32_t checkedPoints) {
  FUZZ_CHECK(tGps.nTrackPoints >= 0 && tGps.nTrackPoints <= tGps.nTrackCapacity);
  // Waypoint frames are only checked for their order.
  if (mode != 0) FUZZ_CHECK(tGps.nTrackPoints == 0);
  if (f.started == 0) FUZZ_CHECK(tGps.nTrackPoints == 0);
  for (int32_t i = checkedPoints; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    FUZZ_CHECK(p.lPressureAltitude == 0);
    FUZZ_CHECK(p.lGpsAltitude >= kLowest24 && p.lGpsAltitude <= kHighest24);
    FUZZ_CHECK(p.dwFlags == 0 || p.dwFlags == kTrackPointNewSegment);
    if (i == 0) FUZZ_CHECK(p.dwFlags == kTrackPointNewSegment);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  fuzz::FreshRunParameters();
  const int32_t mode = data[0] & 1;
  const int32_t timeCorrection = data[0] >> 1 & 1;

  const int32_t capacity = (data[0] & 4) != 0 ? 1 + (data[0] >> 3 & 7) : kTrackInitialCapacity;

  // As the track loop starts: a fresh point array, the decoder reset.
  std::free(tGps.pTrackPoints);
  tGps.nTrackPoints = 0;
  tGps.pTrackPoints = static_cast<TrackPoint*>(std::malloc(sizeof(TrackPoint) * static_cast<size_t>(capacity)));
  FUZZ_CHECK(tGps.pTrackPoints != nullptr);
  tGps.nTrackCapacity = capacity;
  auto frame = std::make_unique<mlr::FrameState>();
  mlr::InitDecodeSentenceByte(frame.get());
  frame->timeCorrection = timeCorrection;
  ProgressCounter progress("Points: ", 0);
  frame->progress = &progress;

  int32_t checkedPoints = 0;
  std::vector<TrackPoint> kept;
  for (size_t i = 1; i < size; ++i) {
    const int32_t kind = mlr::DecodeSentenceByte(frame.get(), data[i], mode);
    FUZZ_CHECK(kind >= -4 && kind <= mlr::kFrameEnd);
    CheckFrame(*frame, mode);
    if (kind < 0) {
      FUZZ_CHECK(frame->state == 0);
      break;
    }
    if (kind == 0) continue;
    FUZZ_CHECK(frame->state == 0 && kind == frame->kind);
    const int32_t pointsBefore = tGps.nTrackPoints;
    const int32_t startedBefore = frame->started;
    const int32_t handled = mlr::DecodeNewSentence(frame.get(), mode);
    FUZZ_CHECK(handled >= -1 && handled <= 1);
    CheckTrack(*frame, mode, checkedPoints);
    // Points stored earlier survive the array's growth as they were.
    FUZZ_CHECK(static_cast<size_t>(checkedPoints) == kept.size());
    FUZZ_CHECK(kept.empty() || std::memcmp(kept.data(), tGps.pTrackPoints, kept.size() * sizeof(TrackPoint)) == 0);
    kept.insert(kept.end(), tGps.pTrackPoints + checkedPoints, tGps.pTrackPoints + tGps.nTrackPoints);
    checkedPoints = tGps.nTrackPoints;
    if (handled < 0) break;
    // Every stored point carried the next number in the log.
    FUZZ_CHECK(mode != 0 || frame->expectedPoint == tGps.nTrackPoints);
    if (kind == mlr::kFrameData && startedBefore != 0 && mode == 0) {
      FUZZ_CHECK(tGps.nTrackPoints == pointsBefore + frame->count);
    } else {
      FUZZ_CHECK(tGps.nTrackPoints == pointsBefore);
    }
    if (handled == 0) {
      FUZZ_CHECK(kind == mlr::kFrameEnd && startedBefore != 0);
      progress.Finish(tGps.nTrackPoints);
      break;
    }
  }
  return 0;
}
