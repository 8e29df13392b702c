// Brauniger/Flytec family: track download and waypoint transfer.
#pragma once

#include <cstdint>

#include "core/run.h"

// The commands, each on a port that the caller opened at the line speed.
int32_t DownloadGalileoTrackLog();
int32_t DownloadGalileoBulkTrackLog(TrackSaver save);
int32_t DownloadGalileoWaypoints();
int32_t UploadGalileoWaypoints();

namespace galileo {

// Decoder states. The product and list decoders use the first ones, the
// waypoint decoder all of them.
enum DecoderState : uint32_t {
  kHunt = 0,  // waiting for "$"
  kHead = 1,  // matching the sentence head
  // Product data: the four fields, then the checksum.
  kModel = 2, kPilot = 3, kSerial = 4, kFirmware = 5, kProductChecksum = 6,
  // Flight list: the five fields, then the checksum.
  kListCount = 2, kListIndex = 3, kListDate = 4, kListTime = 5, kListDuration = 6, kListChecksum = 7,
  // Waypoints: each angle's digits, decimals, hemisphere and comma, the
  // three texts, then the checksum and the line end.
  kLatitude = 2, kLatitudeDecimals = 3, kLatitudeHemisphere = 4, kAfterLatitude = 5,
  kLongitude = 6, kLongitudeDecimals = 7, kLongitudeHemisphere = 8, kAfterLongitude = 9,
  kIdentifier = 10, kName = 11, kAltitude = 12,
  kChecksumHigh = 13, kChecksumLow = 14, kCarriageReturn = 15, kLineFeed = 16,
};

// Format errors of the decoders; their numbers are what "Format error %d"
// shows, so they never change. Mostly two a field: a line end in it, and a
// bad or overlong value.
enum ProductError : int32_t {
  kModelLineEnd = -1, kBadModel = -2,
  kPilotLineEnd = -3, kBadPilot = -4,  // "Bad/missing user name"
  kSerialLineEnd = -5, kBadSerial = -7,
  kFirmwareLineEnd = -8, kBadFirmware = -9,
  kProductChecksumLineEnd = -10, kProductChecksumDigit = -11, kProductNoCarriageReturn = -12,
  kProductChecksumMismatch = -13, kProductBadState = -14,
};

enum ListError : int32_t {
  kCountLineEnd = -1, kBadCount = -2, kIndexLineEnd = -3, kBadIndex = -4,
  kDateLineEnd = -5, kTimeLineEnd = -6, kDurationLineEnd = -7,
  kListChecksumLineEnd = -8, kListChecksumDigit = -9, kListNoCarriageReturn = -10, kListChecksumMismatch = -11,
  kListBadState = -12,
};

enum WaypointError : int32_t {
  kLatitudeTooLarge = -1, kBadLatitude = -2, kBadLatitudeDecimals = -3, kBadLatitudeHemisphere = -4,
  kNoCommaAfterLatitude = -5,
  kLongitudeTooLarge = -6, kBadLongitude = -7, kBadLongitudeDecimals = -8, kBadLongitudeHemisphere = -9,
  kNoCommaAfterLongitude = -10,
  kIdentifierLineEnd = -11, kIdentifierTooLong = -12, kNameLineEnd = -13, kNameTooLong = -14,
  kBadAltitude = -15, kAltitudeTooLong = -16,
  kWaypointChecksumHigh = -17, kWaypointChecksumLow = -18, kWaypointNoCarriageReturn = -19,
  kWaypointChecksumMismatch = -20, kWaypointNoLineFeed = -21,
};

// Errors of the IGC lines of a flight: the HFDTE date's, then the B record's
// by field from its right end, then the A record's.
enum LogError : int32_t {
  kBadDateYear = -1, kBadDateMonth = -2, kDateMonthRange = -3, kBadDateDay = -4, kDateDayRange = -5,
  kNoRoomForPoint = -6,
  kBadAltitudeField = -7,
  kBadLongitudeThousandths = -8, kBadLongitudeMinutes = -9, kBadLongitudeDegrees = -10, kLongitudeDegreesRange = -11,
  kBadEastWest = -12,
  kBadLatitudeThousandths = -13, kBadLatitudeMinutes = -14, kBadLatitudeDegrees = -15, kLatitudeDegreesRange = -16,
  kBadNorthSouth = -17,
  kBadSeconds = -18, kSecondsRange = -19, kBadMinutes = -20, kMinutesRange = -21, kBadHours = -22, kHoursRange = -23,
  kFixTooShort = -24, kFixBeforeDate = -25,
  kARecordTooShort = -28, kBadARecord = -29,
};

constexpr int kTextSize = 81;          // model, pilot, serial, firmware: 80 + terminator
constexpr int kLogSentenceSize = 102;  // an IGC line with its CR, without terminator
constexpr int kListEntries = 100, kListEntrySize = 40;

// One download's decoder record; the stages take turns with it.
struct GalileoTransfer {
  uint32_t state;
  int32_t index;  // characters of the current field; in the log stage the line length
  uint8_t checksum;
  uint8_t receivedChecksum;
  uint8_t byte;  // the byte being decoded

  // Product data.
  char pilot[kTextSize];
  char model[kTextSize];
  char serial[kTextSize];
  char firmware[kTextSize];
  char summary[3 * kTextSize + 8];  // "<model>, SN<serial>, SW<firmware>"
  int32_t summaryLength;

  // Track log.
  char sentence[kLogSentenceSize + 1];
  char loggerSerial[4];  // empty: no A record seen
  char manufacturer[4];
  uint32_t flightDate;  // GPS time of 00:00:00 on the HFDTE date; 0: none seen
  uint32_t lastSecondOfDay;
  uint32_t dayOffset;
  int32_t gRecords;

  // Flight list.
  char list[kListEntries][kListEntrySize];
  int32_t number;
  int32_t entryLength;
  int32_t entry;

  // Waypoints.
  double weight;
  double latitude;   // minutes while decoding, then radians
  double longitude;  // likewise
  char id[7];
  char name[18];
  char altitude[6];
  int32_t textLength;  // characters of the id, name or altitude field so far
  uint8_t bodyChecksum;  // the XOR up to, not including, the "*"
};

// Stages. Each prints its own message on failure and returns -1.
int32_t ReadProductData(GalileoTransfer* transfer);
// The flight to fetch (1..99), 0 for the newest or a bulk walk, or -1.
int32_t ReadTrackList(GalileoTransfer* transfer);
// Steps after the list arrived: prints it and applies the selection rules.
int32_t SelectFlight(GalileoTransfer* transfer);
int32_t ReadTrackLog(GalileoTransfer* transfer, int32_t flightNumber);
// Every listed flight, each handed to `save` as it arrives.
int32_t ReadAllTrackLogs(GalileoTransfer* transfer, TrackSaver save);
int32_t ReadWaypoints(GalileoTransfer* transfer);
int32_t WriteWaypoints(GalileoTransfer* transfer);

// Byte decoders: the byte is in transfer->byte. They return 1 (more
// wanted), 0 (sentence complete) or a negative format code.
void InitProductDecoder(GalileoTransfer* transfer);
int32_t DecodeProductData(GalileoTransfer* transfer);
int32_t DecodeTrackListData(GalileoTransfer* transfer);
void InitDecodeWptByte(GalileoTransfer* transfer, uint8_t byte);
int32_t DecodeWptByte(GalileoTransfer* transfer, uint8_t byte);
// One IGC line (with its CR, if any) in transfer->sentence, length in
// transfer->index. Returns 0 or a negative format code.
int32_t DecodeLogSentence(GalileoTransfer* transfer);

// Clears a transfer record for a new download.
void ResetTransfer(GalileoTransfer* transfer);

// The command for flight n (1..100): XON, "$PBRTR,", n-1 in two digits,
// checksum, CR LF. `out` needs 20 bytes.
void FormatFlightCommand(int32_t flightNumber, char* out);
// The upload sentence for one waypoint, CR LF included. `out` needs 80 bytes.
int FormatWaypointSentence(const Waypoint& waypoint, char* out);

}  // namespace galileo
