// IQ Basic track download.
#pragma once

#include <cstdint>

// The command, on a port that the caller opened at the line speed.
int32_t DownloadIqBasicTrackLog();

namespace iqbasic {

constexpr int kAnswerSize = 200;     // one answer line: 199 characters + terminator
constexpr int kListLines = 100;      // flight list lines kept
constexpr int kListLineSize = 50;    // 49 characters + terminator
constexpr int kHighestFlight = 99;

// A text line as the instrument sends it: a CR ends the text, an LF the line.
struct LineBuilder {
  char* text;
  int32_t limit;  // characters kept; later ones are dropped
  int32_t length;
  bool textEnded;
};

// Starts a line in `text`, which has room for `limit` characters and a terminator.
void StartLine(LineBuilder* line, char* text, int32_t limit);
// Takes one byte; true when it completed the line (the text is terminated then).
bool TakeLineByte(LineBuilder* line, uint8_t byte);

struct FlightList {
  char lines[kListLines][kListLineSize];
  int32_t count;
};

// Sends `command` and receives one answer line into `line` (kAnswerSize bytes).
int32_t GetPAdata(char* line, const char* command);
// A little-endian hexadecimal value: pair k of digits is byte k. 0 or -1.
int32_t DecodePAdata(const char* text, uint32_t* value);
// "<model>, SW v.v.vv, S/N n" for the three values read from the instrument.
void FormatProduct(uint32_t deviceType, uint32_t version, uint32_t serial, char* out, int32_t size);
// The instrument counts its flights from 0; the list shows them from 1.
void RenumberListLine(char* line);
// True when the line's first field is the number `flight`.
bool MatchesFlight(const char* line, int32_t flight);
// "ACT_21_%02X\r\n" with the 0-based index; `out` needs 16 bytes.
void FormatFlightCommand(int32_t flightNumber, char* out);

int32_t ReadProductData();
// The chosen flight number (1..99), or -1 (also when only the list was wanted).
int32_t ReadTrackList(FlightList* list);
int32_t ReadTrackLog(int32_t flightNumber);

}  // namespace iqbasic
