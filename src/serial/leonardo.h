// Digifly Leonardo/Air: track download.
#pragma once

#include <cstdint>

#include "core/run.h"

// The commands, each on a port that the caller opened at the line speed.
int32_t DownloadLeonardoTrackLog();
int32_t DownloadLeonardoBulkTrackLog(TrackSaver save);

namespace leonardo {

// Track memory: blocks of whole 23-byte records.
constexpr int32_t kBlockSize = 4094;
constexpr int32_t kRecordSize = 23;
constexpr int32_t kRecordsPerBlock = kBlockSize / kRecordSize;
static_assert(kRecordsPerBlock * kRecordSize == kBlockSize, "a block holds whole records");

// The instrument counts seconds from 1980-01-06 without leap seconds; this
// is that count on 1989-12-31, where the program's GPS time starts.
constexpr uint32_t kInstrumentEpochOffset = 315100800;

constexpr int32_t kMaxFlights = 100;
constexpr int32_t kListEntryDigits = 28;
// A block sentence: its word, a comma, two hex digits a byte, "*", checksum.
constexpr int32_t kSentenceSize = 2 * kBlockSize + 64;

// One flight of the list, as the instrument describes it.
struct FlightEntry {
  uint32_t takeoff;  // instrument seconds
  uint32_t landing;
  int32_t startBlock;
  int32_t startAddress;  // byte in the block
  int32_t lastBlock;
  int32_t lastAddress;  // the flight's last byte in the last block
};

// One track record as stored.
struct TrackRecord {
  uint8_t control;
  int32_t satellites;
  uint32_t time;  // instrument seconds
  float latitude;   // radians
  float longitude;  // radians
  int16_t pressureAltitude;  // QNE, metres
  int16_t vario;             // dm/s
  uint8_t airspeed;          // km/h
  uint8_t groundSpeed;       // km/h
  int16_t qnhAltitude;       // metres; the QNE altitude with 4.x firmware
  int16_t gpsAltitude;       // metres
};

// Reasons a reply is refused, beside the negative results of
// ParseNmeaString (-1 to -5).
enum ReplyError : int32_t {
  kTooFewFields = -10,
  kBadIdentifier = -11,
  kBadFlightCount = -12,
  kBadListEntries = -13,
  kBadBlockData = -14,
  kSentenceTooLong = -15,
  kNoChecksum = -16,
};

// One download's record; the stages take turns with it.
struct LeonardoTransfer {
  // Sentence reception.
  int32_t state;
  int32_t length;
  char sentence[kSentenceSize + 1];

  // Identification.
  char device[41];
  char firmware[21];
  char serial[21];
  char pilot[51];
  char product[81];
  bool recordsWithoutQnh;  // 4.x firmware

  // Flight list, newest first: flights[0] is flight 1.
  int32_t flightCount;
  FlightEntry flights[kMaxFlights];

  // The block being read.
  uint8_t block[kBlockSize];
  int32_t blockLength;
};

void ResetTransfer(LeonardoTransfer* transfer);

// Stages. Each prints its own message on failure and returns -1.
int32_t ReadProductData(LeonardoTransfer* transfer);
// The flight to fetch (1..count), 0 for a bulk walk, or -1.
int32_t ReadTrackList(LeonardoTransfer* transfer);
// Steps after the list arrived: prints it and applies the selection rules.
int32_t SelectFlight(LeonardoTransfer* transfer);
int32_t ReadTrackLog(LeonardoTransfer* transfer, int32_t flightNumber);
// Every listed flight, each handed to `save` as it arrives.
int32_t ReadAllTrackLogs(LeonardoTransfer* transfer, TrackSaver save);

// "$", the body, "*", the checksum, CR LF. `out` needs the body's length
// plus 7 bytes.
void FormatCommand(const char* body, char* out);
// The read command for `block` up to byte `stop`; `out` needs 40 bytes.
void FormatBlockCommand(int32_t block, int32_t stop, char* out);

// Collects one sentence from "$" up to the two characters after "*".
// Returns 1 (more wanted), 0 (sentence complete in transfer->sentence) or
// a negative ReplyError.
int32_t TakeSentenceByte(LeonardoTransfer* transfer, uint8_t byte);

// Decoders of a complete sentence: 0 (or the count of flights or bytes)
// or a negative code (ParseNmeaString's or a ReplyError).
int32_t DecodeProductSentence(LeonardoTransfer* transfer);
int32_t DecodeFlightList(LeonardoTransfer* transfer);
int32_t DecodeBlockSentence(LeonardoTransfer* transfer);
// One list entry from its 28 hex digits; false when one is not hex.
bool DecodeFlightEntry(const char* digits, FlightEntry* entry);
// The reason a code stands for, as a short text without line end.
void DescribeReplyError(int32_t code, char* out, int size);

void DecodeTrackRecord(const uint8_t* bytes, bool withoutQnh, TrackRecord* record);
// The point a record gives for a flight; false when it lies outside the
// flight's takeoff-to-landing time or its position is impossible.
bool MakeTrackPoint(const TrackRecord& record, const FlightEntry& flight, TrackPoint* point);

}  // namespace leonardo
