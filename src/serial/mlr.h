// MLR receivers: track download.
#pragma once

#include <cstdint>

// The command, on a port that the caller opened at the line speed.
int32_t DownloadMlrTrackLog();

class ProgressCounter;

namespace mlr {

constexpr int kFieldLimit = 40;
constexpr int kFields = 5;  // A to E
constexpr int kTrackRecordSize = 18;
constexpr int kTrackRecordsPerFrame = 27;
constexpr int kWaypointRecordSize = 22;
constexpr int kWaypointRecordsPerFrame = 23;
constexpr int kFrameDataSize = kWaypointRecordSize * kWaypointRecordsPerFrame;  // the larger of the two modes
// Seconds between the instrument's clock and GPS time.
constexpr uint32_t kClockOffset = 315100800;
// What the clock of the firmware that needs the correction runs ahead.
constexpr uint32_t kClockCorrection = 14;

// The identification answer as it is decoded.
struct ProductRecord {
  int32_t state;  // 0 to 7
  int32_t index;  // characters of the head matched, or checksum bytes read
  uint8_t checksum;
  uint8_t receivedChecksum;
  char fields[kFields][kFieldLimit + 1];
  int32_t lengths[kFields];
  int32_t major;
  int32_t minor;
  int32_t timeCorrection;
};

void InitProductDecoder(ProductRecord* product);
// 1 (more wanted), 0 (answer complete) or a negative format code.
int32_t DecodeProductData(ProductRecord* product, uint8_t byte);
// Completes field A with the software version from field D and reads the
// version numbers and the time-correction flag.
void CheckSoftwareVersion(ProductRecord* product);

enum FrameKind : int32_t {
  kFrameStart = 1,  // "DEBUT"
  kFrameData = 2,
  kFrameEnd = 3,  // "FIN"
};

// The binary frames of a transfer, and what their order has shown so far.
struct FrameState {
  // Decoding.
  int32_t state;
  int32_t kind;
  int32_t index;  // letters of the kind word, or data bytes, so far
  uint8_t sequence;
  uint16_t sum;
  uint16_t receivedSum;
  int32_t count;
  int32_t dataLength;
  uint8_t data[kFrameDataSize];
  // Handling.
  int32_t started;
  uint8_t previousSequence;
  int32_t expectedPoint;
  int32_t timeCorrection;
  ProgressCounter* progress;  // may be null
};

void InitDecodeSentenceByte(FrameState* frame);
// Mode 0: track frames ("T", 0x01, 18-byte records); mode 1: "W", 0x02 and
// 22-byte records. 0 while a frame is incomplete, its kind when complete,
// or a negative format code.
int32_t DecodeSentenceByte(FrameState* frame, uint8_t byte, int32_t mode);
// 1 (go on), 0 (log complete) or -1 after printing why.
int32_t DecodeNewSentence(FrameState* frame, int32_t mode);

int32_t ReadProductData(ProductRecord* product);
int32_t ReadTrackLog(ProductRecord* product);

}  // namespace mlr
