// Flymaster instruments: identification, track list, track readers, waypoints.
#pragma once

#include <cmath>
#include <cstdint>

#include "core/run.h"

// The commands, each on a port that the caller opened at the line speed.
int32_t DownloadFlymasterTrackLog();
int32_t DownloadFlymasterBulkTrackLog(TrackSaver save);
int32_t DownloadFlymasterWaypoints();
int32_t UploadFlymasterWaypoints();

class ProgressCounter;

namespace flymaster {

constexpr int kTrackSlots = 100;
constexpr int kSentenceLimit = 99;      // characters kept of a received sentence
constexpr int32_t kBlockSize = 4096;    // flight memory blocks of the binary dumps
constexpr int32_t kDumpSize = 1048576;  // receive buffer of the binary dumps
constexpr int32_t kDumpTrailer = 42;    // checksum, hardware code, signature
constexpr int32_t kSignatureSize = 32;
// Instrument clock seconds + this = GPS seconds.
constexpr uint32_t kInstrumentEpoch = 315619200;

// Control bytes of the older models' block transfer.
constexpr uint8_t kBlockAccepted = 0xB1, kBlockBadChecksum = 0xB2, kTransferAborted = 0xB3;

// Record types of the firmware 2.02+ dumps (the record's first byte & 127).
// Fixes come in two families: the first carries a pressure in tenths of a
// hectopascal, the second the pressure altitude in metres.
enum RecordType : uint8_t {
  kDeltaFix = 8, kFullFix = 19,  // first family
  kDeltaFixAltitude = 72, kDeltaFixAltitudeLong = 74, kFullFixAltitude = 83, kFullFixAltitudeLong = 85,
  kEvent = 39, kTaskHeader = 71, kTaskPointRecord = 30, kPilotRecord = 63,
  kBuildRecord = 67, kBuildRecordLong = 101,
  kCounters = 49,  // two 64-bit values, not used
};

// Records of the pre-2.02 dumps, told apart by their length (the first
// byte & 31); a record with any of the bits 96 set is not a fix.
constexpr int32_t kDeltaFixLength = 8, kFullFixLength = 19, kTaskPointLength = 30, kEndOfRecords = 31;
constexpr uint8_t kNotAFixBits = 96;

// Block types of the older models.
constexpr uint8_t kFlightInfoBlock = 0xA0, kKeyPositionBlock = 0xA1, kTrackPositionsBlock = 0xA2, kEndBlock = 0xA3;

// The older models' block decoder.
struct DataBlock {
  int32_t state;  // 0 type, 1 repeated type, 2 length, 3 data, 4 checksum
  uint8_t type;
  uint8_t length;
  int32_t count;  // data bytes so far
  uint8_t checksum;
  bool endOfTransfer;  // the 0xA3 0xA3 pair arrived
  uint8_t data[256];
};

// One download's record; every stage of a command shares it.
struct FlymasterTransfer {
  // Sentence reception: 0 waiting for "$", 1 collecting, 2 waiting for LF.
  int32_t state;
  int32_t length;
  char sentence[kSentenceLimit + 1];

  // Identification.
  char name[41];
  char pilot[15];
  char serial[11];
  char firmware[11];
  char product[81];  // "Flymaster <name>  SN<serial>  SW<firmware>"

  // Track list, in order of arrival; start as GPS time, duration in seconds.
  int32_t trackCount;
  uint32_t trackStart[kTrackSlots];
  uint32_t trackDuration[kTrackSlots];

  // Older models' block transfer: the block being received, the position
  // the blocks build up and what the flight information block said.
  DataBlock block;
  int32_t latitude;   // 1/60000 degree, north positive
  int32_t longitude;  // 1/60000 degree, west positive
  int16_t gnssAltitude;
  int16_t pressure;  // tenths of a hectopascal
  uint32_t time;     // instrument clock
  bool keySeen;
  bool infoSeen;
  uint32_t infoNumber;
  char infoText[4][15];
};

// A task point of the pre-2.02 dumps; collected, not used for the track.
struct TaskPoint {
  int32_t latitude;   // arcs
  int32_t longitude;  // arcs
  int32_t altitude;
  char shortName[7];
  char longName[17];
  uint32_t time;
  uint32_t spare;
};

struct TaskPointList {
  TaskPoint* items = nullptr;
  int32_t count = 0;
  int32_t capacity = 0;

  TaskPointList() = default;
  TaskPointList(const TaskPointList&) = delete;
  TaskPointList& operator=(const TaskPointList&) = delete;
  ~TaskPointList();
};

void ResetTransfer(FlymasterTransfer* transfer);

// Stages. Each prints its own message on failure and returns -1.
int32_t ReadProductData(FlymasterTransfer* transfer);
// The chosen track (1..count), 0 in bulk mode, or -1.
int32_t ReadTrackList(FlymasterTransfer* transfer);
int32_t ReadTrackLog2xx(FlymasterTransfer* transfer, int32_t trackNumber);
int32_t ReadTrackLogNew(FlymasterTransfer* transfer, int32_t trackNumber);
int32_t ReadTrackLogOld(FlymasterTransfer* transfer, int32_t trackNumber);
int32_t ReadWaypoints(FlymasterTransfer* transfer);
int32_t WriteWaypoints(FlymasterTransfer* transfer);
// -1 on time-out, 0 for a good answer, else the error type 1-5.
int32_t ReadWaypointResponse(FlymasterTransfer* transfer, const char* sentName);

// The reader for the instrument type of the run and the firmware version.
using TrackReader = int32_t (*)(FlymasterTransfer*, int32_t);
TrackReader ChooseTrackReader(const FlymasterTransfer* transfer);

// Sentence reception: 1 when the byte completed a sentence, else 0.
int32_t TakeSentenceByte(FlymasterTransfer* transfer, uint8_t byte);
// The received sentence, judged and stored. 0, or -1 after the message.
int32_t StoreProductSentence(FlymasterTransfer* transfer);
int32_t StoreTrackListSentence(FlymasterTransfer* transfer);
// After the list: prints it and applies the flight number rules.
int32_t SelectTrack(FlymasterTransfer* transfer);
// A waypoint sentence into the waypoint list. 0, or -1 after the message.
int32_t StoreWaypointSentence(FlymasterTransfer* transfer, uint32_t downloadTime);
// An answer to an uploaded waypoint: 0 or the error type 1-5.
int32_t JudgeWaypointResponse(FlymasterTransfer* transfer, const char* sentName);

// "$PFMDNL,<start>,<mode>*<xx>\r\n" for the start of a track; `out` needs 48 bytes.
void FormatTrackCommand(uint32_t start, const char* mode, char* out);
// The upload sentence for one waypoint, CR LF included; `out` needs 80 bytes.
int FormatWaypointSentence(const Waypoint& waypoint, bool withMarker, char* out);
// The name as the instrument echoes it: 16 characters, upper case, anything
// but letters and digits blank. `out` needs 17 bytes.
void NormaliseName(const char* name, char* out);

// Binary dumps.
int32_t GetLocation(const uint8_t* bytes);
inline float kPa_To_Meters(float pressure, float reference) {
  return 44330.76953125f - 44330.76953125f * std::pow(pressure / 100.0f / reference, 0.19026120007038116f);
}
// Altitudes for the pressure values 1000..10999 (tenths of a hectopascal).
constexpr int32_t kAltitudeTableFirst = 1000;
constexpr int32_t kAltitudeTableSize = 10000;
extern const int16_t g_ciAltitudes[kAltitudeTableSize];
// Metres for a pressure in tenths of a hectopascal, by table or formula.
int32_t PressureToAltitude(int32_t pressure);
int32_t GetTaskId(const FlymasterTransfer* transfer, int32_t trackNumber);

// A firmware 2.02+ dump as IGC text, handed over in *igc (freed by the
// caller with std::free). 0, or -1 after the message.
int32_t ConvertDump2xx(const uint8_t* dump, int32_t length, const char* serial, char** igc, int32_t* igcLength);
// A pre-2.02 dump into the track log of the run; task points into `tasks`.
// 0, or -1 after the message (-1 without one when no fix was found).
int32_t DecodeDumpNew(const uint8_t* dump, int32_t length, uint32_t downloadTime, TaskPointList* tasks);
// The dump into flymaster2yy.dat in the working directory, each byte i
// XORed with abScramble[i % 59].
int32_t SaveDebugData(const uint8_t* bytes, int32_t length);

// Older models: one byte of a framed block. 1 more wanted, 0 block complete
// or end of transfer, -1 bad checksum.
int32_t StoreDataBlock(FlymasterTransfer* transfer, uint8_t byte);
// The current position appended to the track log; -1 when it cannot grow.
int32_t SavePos(FlymasterTransfer* transfer);
// What one received byte asks of the older models' transfer.
struct OldStep {
  int32_t result;       // 1 go on, 0 the end marker came, -1 aborted
  uint8_t reply;        // control byte to send first, 0 for none
  const char* message;  // printed after the reply, or null
};
OldStep TakeOldByte(FlymasterTransfer* transfer, uint8_t byte, ProgressCounter* progress);
// After the end marker: the final count and the outcome.
OldStep FinishOldTransfer(FlymasterTransfer* transfer, ProgressCounter* progress);

}  // namespace flymaster
