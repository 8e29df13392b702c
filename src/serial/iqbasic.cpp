#include "serial/iqbasic.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/console.h"
#include "core/run.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "link/com.h"
#include "link/receive.h"
#include "link/string.h"

namespace iqbasic {
namespace {

constexpr char kListCommand[] = "ACT_20_  \r\n";  // two blanks after the underscore

// Silence that ends a stage, the pause after an answer and the progress
// interval, in microseconds.
constexpr int64_t kAnswerSilence = 2000000, kListSilence = 1000000, kLogSilence = 1000000;
constexpr uint32_t kAfterAnswer = 200000;
constexpr uint64_t kByteProgressInterval = 1000000;

constexpr int32_t kPilotFieldLength = 50;
constexpr int kSelectLineSize = 101;

// One product value: the command, the answer's prefix and what each way of
// failing says.
struct PAdataQuery {
  const char* command;
  const char* prefix;
  const char* missing;
  const char* badPrefix;
  const char* badValue;
};

constexpr PAdataQuery kSerialQuery = {"RPA_00\r\n", "RPA_00_", "Bad/missing PAdata response (serial number)\n",
                                      "Bad PAdata response (serial number)\n",
                                      "Bad PAdata response (serial number)\n"};
constexpr PAdataQuery kTypeQuery = {"RPA_01\r\n", "RPA_01_", "Bad/missing PAdata response (device type)\n",
                                    "Bad PAdata response (device type)\n",
                                    "Bad PAdata response (device type format error)\n"};
constexpr PAdataQuery kVersionQuery = {"RPA_02\r\n", "RPA_02_", "Bad/missing PAdata response (software version)\n",
                                       "Bad PAdata response (software version)\n",
                                       "Bad PAdata response (software version format error)\n"};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

int32_t QueryValue(const PAdataQuery& query, uint32_t* value) {
  char answer[kAnswerSize];
  if (GetPAdata(answer, query.command) < 0) {
    std::printf("%s", query.missing);
    return -1;
  }
  size_t prefixLength = std::strlen(query.prefix);
  if (std::strncmp(answer, query.prefix, prefixLength) != 0) {
    std::printf("%s", query.badPrefix);
    return -1;
  }
  if (DecodePAdata(answer + prefixLength, value) < 0) {
    std::printf("%s", query.badValue);
    return -1;
  }
  return 0;
}

// The first field of a list line: up to the first ";" or the end.
int32_t FirstFieldLength(const char* line) {
  const char* semicolon = std::strchr(line, ';');
  return semicolon != nullptr ? static_cast<int32_t>(semicolon - line) : static_cast<int32_t>(std::strlen(line));
}

}  // namespace

void StartLine(LineBuilder* line, char* text, int32_t limit) {
  line->text = text;
  line->limit = limit;
  line->length = 0;
  line->textEnded = false;
  text[0] = '\0';
}

bool TakeLineByte(LineBuilder* line, uint8_t byte) {
  if (byte == '\n') {
    line->text[line->length] = '\0';
    return true;
  }
  if (byte == '\r') {
    line->textEnded = true;
  } else if (!line->textEnded && line->length < line->limit) {
    line->text[line->length++] = static_cast<char>(byte);
  }
  return false;
}

int32_t GetPAdata(char* line, const char* command) {
  WriteComString(command);
  LineBuilder answer;
  StartLine(&answer, line, kAnswerSize - 1);
  int32_t result = ReceiveUntilSilent(kAnswerSilence, [&answer](uint8_t b) { return TakeLineByte(&answer, b) ? 0 : 1; });
  if (result != 0) return -1;
  PauseLink(kAfterAnswer);
  return 0;
}

int32_t DecodePAdata(const char* text, uint32_t* value) {
  while (*text == ' ') ++text;
  uint32_t v = 0;
  for (int byte = 0; *text != '\0'; ++byte, text += 2) {
    int high = HexDigitValue(text[0]);
    int low = high < 0 ? -1 : HexDigitValue(text[1]);
    if (low < 0) return -1;
    // Bytes beyond the fourth do not fit the value; they are checked, not kept.
    if (byte < 4) v |= static_cast<uint32_t>(high * 16 + low) << (8 * byte);
  }
  *value = v;
  return 0;
}

void FormatProduct(uint32_t deviceType, uint32_t version, uint32_t serial, char* out, int32_t size) {
  std::snprintf(out, static_cast<size_t>(size), "%s, SW %d.%d.%02d, S/N %d", deviceType != 0 ? "IQ-BASIC" : "6015",
                static_cast<int>(version / 1000), static_cast<int>(version / 100 % 10), static_cast<int>(version % 100),
                static_cast<int32_t>(serial));
}

void RenumberListLine(char* line) {
  int32_t width = FirstFieldLength(line);
  bool digit = false;
  for (int32_t i = 0; i < width; ++i) {
    if (IsDigit(line[i])) {
      digit = true;
    } else if (line[i] != ' ') {
      return;
    }
  }
  char field[kListLineSize];
  std::snprintf(field, sizeof field, "%.*s", static_cast<int>(width), line);
  int32_t index = 0;
  if (!digit || DecodeIntegerString(field, &index) < 0) return;
  char number[16];
  int digits = std::snprintf(number, sizeof number, "%lld", static_cast<long long>(index) + 1);
  if (digits <= width) {
    std::snprintf(field, sizeof field, "%*s", static_cast<int>(width), number);
    std::memcpy(line, field, static_cast<size_t>(width));
    return;
  }
  // Index 9 shown as 10 and so on: the field grows and the rest moves right,
  // still within the line's limit.
  std::string grown = std::string(number) + (line + width);
  size_t kept = grown.size() < kListLineSize - 1 ? grown.size() : kListLineSize - 1;
  std::memcpy(line, grown.data(), kept);
  line[kept] = '\0';
}

bool MatchesFlight(const char* line, int32_t flight) {
  char field[kListLineSize];
  std::snprintf(field, sizeof field, "%.*s", static_cast<int>(FirstFieldLength(line)), line);
  int32_t value = 0;
  return DecodeIntegerString(field, &value) == 0 && value == flight;
}

void FormatFlightCommand(int32_t flightNumber, char* out) {
  std::snprintf(out, 16, "ACT_21_%02X\r\n", static_cast<unsigned>(flightNumber - 1) & 0xFFu);
}

int32_t ReadProductData() {
  std::printf("Product: ");
  std::fflush(stdout);
  FlushComFifo();
  uint32_t serial = 0, deviceType = 0, version = 0;
  if (QueryValue(kSerialQuery, &serial) < 0 || QueryValue(kTypeQuery, &deviceType) < 0 ||
      QueryValue(kVersionQuery, &version) < 0) {
    return -1;
  }
  FormatProduct(deviceType, version, serial, tGps.szProduct, sizeof tGps.szProduct);
  std::printf("%s\n", tGps.szProduct);
  return 0;
}

int32_t ReadTrackList(FlightList* list) {
  std::printf("Track list:\n");
  FlushComFifo();
  WriteComString(kListCommand);
  list->count = 0;
  LineBuilder line;
  StartLine(&line, list->lines[0], kListLineSize - 1);
  ReceiveUntilSilent(kListSilence, [list, &line](uint8_t b) {
    if (list->count >= kListLines) return 1;  // later lines are not kept
    if (TakeLineByte(&line, b)) {
      char* text = list->lines[list->count];
      RenumberListLine(text);
      std::printf("%s\n", text);
      if (++list->count < kListLines) StartLine(&line, list->lines[list->count], kListLineSize - 1);
    }
    return 1;
  });
  if (list->count == 0) {
    std::printf("No entry in the flightlist found\n");
    return -1;
  }
  if (tGps.nFlightNumber == 0) return -1;  // only the list was wanted
  if (tGps.nFlightNumber < 0 && !AskFlightNumber(kSelectLineSize, &tGps.nFlightNumber)) return -1;
  int32_t flight = tGps.nFlightNumber;
  if (flight < 1 || flight > kHighestFlight) {
    std::printf("Flight number out of range\n");
    return -1;
  }
  for (int32_t i = 0; i < list->count; ++i) {
    if (MatchesFlight(list->lines[i], flight)) {
      std::printf("Match in flight list for flight %d\n", flight);
      return flight;
    }
  }
  std::printf("No match in flight list for selected flight number\n");
  return -1;
}

int32_t ReadTrackLog(int32_t flightNumber) {
  ReleaseTrackLog();
  if (GrowArray(&tGps.pbRawLog, &tGps.nRawLogSize, 0, kRawLogInitialSize) < 0) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  FlushComFifo();
  char command[16];
  FormatFlightCommand(flightNumber, command);
  WriteComString(command);

  ProgressCounter progress("Bytes: ", kByteProgressInterval);
  int32_t result = ReceiveUntilSilent(kLogSilence, [&progress](uint8_t b) {
    if (AppendRawLog(&b, 1) < 0) return -1;
    progress.Update(tGps.nRawLogLength);
    return 1;
  });
  if (result < 0) return -1;
  progress.Finish(tGps.nRawLogLength);
  if (tGps.nRawLogLength == 0) return -1;

  // The marker 1 in the pilot name asks for the name the flight carries.
  bool takePilot = static_cast<uint8_t>(tGps.szPilotName[0]) == 1;
  if (DecodeIgcBuffer(tGps.pbRawLog, tGps.nRawLogLength, takePilot ? tGps.szPilotName : nullptr,
                      takePilot ? kPilotFieldLength : 0) < 0) {
    return -1;
  }
  tGps.dwFirstPointTime = tGps.pTrackPoints[0].dwTime;
  SetLogFlags(1, 0, 1, GetCurrentGpsTime());
  return 0;
}

}  // namespace iqbasic

int32_t DownloadIqBasicTrackLog() {
  if (iqbasic::ReadProductData() < 0) return -1;
  iqbasic::FlightList list;
  int32_t flight = iqbasic::ReadTrackList(&list);
  return flight < 0 ? -1 : iqbasic::ReadTrackLog(flight);
}
