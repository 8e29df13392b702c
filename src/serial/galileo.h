// Brauniger/Flytec family: track download and waypoint transfer.
#pragma once

#include <cstdint>

int32_t DownloadGalileoTrackLog();
int32_t DownloadGalileoBulkTrackLog();
int32_t DownloadGalileoWaypoints();
int32_t UploadGalileoWaypoints();

struct Waypoint;

namespace galileo {

constexpr int kTextSize = 81;          // model, pilot, serial, firmware: 80 + terminator
constexpr int kLogSentenceSize = 102;  // an IGC line with its CR, without terminator
constexpr int kListEntries = 100;
constexpr int kListEntrySize = 40;

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
int32_t ReadAllTrackLogs(GalileoTransfer* transfer, int32_t (*save)());
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
