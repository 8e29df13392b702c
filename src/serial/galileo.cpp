#include "serial/galileo.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "link/com.h"
#include "link/string.h"
#include "output/file.h"

namespace galileo {
namespace {

constexpr uint8_t kXon = 0x11;
constexpr uint8_t kXoff = 0x13;

// Every command starts with XON so that an instrument paused by XOFF listens.
constexpr char kProductCommand[] = "\x11$PBRSNP,*21\r\n";
constexpr char kListCommand[] = "\x11$PBRTL,*74\r\n";
constexpr char kNewestCommand[] = "\x11$PBRIGC,*21\r\n";
constexpr char kWaypointCommand[] = "\x11$PBRWPS,*38\r\n";

constexpr char kProductHead[] = "$PBRSNP,";
constexpr char kListHead[] = "$PBRTL,";
constexpr char kWaypointHead[] = "$PBRWPS,";
constexpr int32_t kProductHeadLength = sizeof kProductHead - 1;
constexpr int32_t kListHeadLength = sizeof kListHead - 1;
constexpr int32_t kWaypointHeadLength = sizeof kWaypointHead - 1;

// Silence that ends a stage, in microseconds.
constexpr int64_t kProductSilence = 3000000;
constexpr int64_t kTransferSilence = 2000000;

constexpr int32_t kTextLimit = kTextSize - 1;
constexpr int32_t kProductSize = 81;
constexpr int32_t kPilotNameLimit = 50;
constexpr int kSelectLineSize = 101;

constexpr double kDegreeToRadians = 0.01745329251994;
constexpr double kMinuteToRadians = 0.0002908882086657;
constexpr double kThousandthToRadians = 2.908882086657e-7;
constexpr double kRadiansToThousandths = 3437746.770785;

constexpr uint32_t kAfterProductSleep = 1000000;
constexpr uint32_t kUploadSpacing = 300000;

// Models that keep a flight list, and the firmware each needs for it
// (compared as text, byte by byte); none: any firmware.
struct ListModel {
  const char* model;
  const char* after;
};
constexpr ListModel kListModels[] = {
    {"COMPETINO", "1.13"}, {"5020", "1.13"},          {"COMPEO", "2.19"}, {"5030", "2.19"}, {"GALILEO", "2.19"},
    {"COMPEO+", nullptr},  {"COMPETINO+", nullptr}, {"6020", nullptr},  {"6030", nullptr},
};

bool IsDigit(uint8_t c) { return c >= '0' && c <= '9'; }
bool IsLineEnd(uint8_t c) { return c == '\r' || c == '\n'; }
bool IsAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
char ToUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool BulkMode() { return tGps.dwCommand == kCommandDownloadAllTracks; }

// Polls the FIFO, drops XON and XOFF, and hands every other byte to `take`
// until the line has been silent for more than `silence` microseconds or
// `take` answers something else than 1. Returns that answer, or 1 after
// the silence.
template <typename Take>
int32_t ReceiveUntilSilent(int64_t silence, Take take) {
  uint64_t last = GetWallClockMicroseconds();
  for (;;) {
    while (NonEmptyComFifoWithSleep(10)) {
      uint8_t byte = ReadComFifo();
      last = GetWallClockMicroseconds();
      if (byte == kXon || byte == kXoff) continue;
      int32_t result = take(byte);
      if (result != 1) return result;
    }
    uint64_t now = GetWallClockMicroseconds();
    if (now < last) last = now;  // the clock was set back: start the silence again
    if (static_cast<int64_t>(now - last) > silence) return 1;
  }
}

void Append(char* text, int32_t* length, int32_t limit, char c) {
  if (*length >= limit) return;
  text[(*length)++] = c;
  text[*length] = '\0';
}

void AppendSummary(GalileoTransfer* t, const char* text) {
  for (; *text != '\0'; ++text) {
    Append(t->summary, &t->summaryLength, static_cast<int32_t>(sizeof t->summary) - 1, *text);
  }
}

// Two checksum digits, a CR, then any byte: shared by the product and the
// list decoders, which differ only in how lower-case digits count.
int32_t DecodeChecksumTail(GalileoTransfer* t, bool lowerCaseQuirk, int32_t lineEnd, int32_t badDigit,
                           int32_t noCr, int32_t mismatch, bool* complete) {
  uint8_t b = t->byte;
  *complete = false;
  if (t->index < 2) {
    if (IsLineEnd(b)) return lineEnd;
    int value;
    if (b >= '0' && b <= '9') {
      value = b - '0';
    } else if (b >= 'A' && b <= 'F') {
      value = b - 'A' + 10;
    } else if (b >= 'a' && b <= 'f') {
      // The product decoder counts "f" as 10 and "a" as 5 on purpose: only
      // lower-case checksums made of digits and "f" can match there.
      value = lowerCaseQuirk ? b - 'f' + 10 : b - 'a' + 10;
    } else {
      return badDigit;
    }
    t->receivedChecksum = static_cast<uint8_t>(t->receivedChecksum * 16 + value);
    ++t->index;
    return 1;
  }
  if (t->index == 2) {
    if (b != '\r') return noCr;
    ++t->index;
    return 1;
  }
  if (t->receivedChecksum != t->checksum) return mismatch;
  *complete = true;
  return 0;
}

// A fixed-column number of an IGC line; positions count from 1.
bool ColumnUint(const char* line, int position, int width, uint32_t* value) {
  char field[8];
  std::memcpy(field, line + position - 1, static_cast<size_t>(width));
  field[width] = '\0';
  return DecodeUintString(field, value) == 0;
}

bool ColumnInt(const char* line, int position, int width, int32_t* value) {
  char field[8];
  std::memcpy(field, line + position - 1, static_cast<size_t>(width));
  field[width] = '\0';
  return DecodeIntegerString(field, value) == 0;
}

// A B record, decoded from its right end so that the rightmost bad field
// is the one reported.
int32_t DecodeFix(GalileoTransfer* t) {
  const char* s = t->sentence;
  if (t->index < 35) return -24;
  int32_t gnssAltitude = 0, pressureAltitude = 0;
  if (!ColumnInt(s, 31, 5, &gnssAltitude)) return -7;
  if (!ColumnInt(s, 26, 5, &pressureAltitude)) return -7;
  if (s[23] != 'E' && s[23] != 'W') return -12;
  bool west = s[23] == 'W';
  uint32_t lonThousandths = 0, lonMinutes = 0, lonDegrees = 0;
  if (!ColumnUint(s, 21, 3, &lonThousandths)) return -8;
  if (!ColumnUint(s, 19, 2, &lonMinutes)) return -9;
  if (!ColumnUint(s, 16, 3, &lonDegrees)) return -10;
  if (lonDegrees >= 180) return -11;
  if (s[14] != 'N' && s[14] != 'S') return -17;
  bool south = s[14] == 'S';
  uint32_t latThousandths = 0, latMinutes = 0, latDegrees = 0;
  if (!ColumnUint(s, 12, 3, &latThousandths)) return -13;
  if (!ColumnUint(s, 10, 2, &latMinutes)) return -14;
  if (!ColumnUint(s, 8, 2, &latDegrees)) return -15;
  if (latDegrees >= 90) return -16;
  uint32_t hours = 0, minutes = 0, seconds = 0;
  if (!ColumnUint(s, 6, 2, &seconds)) return -18;
  if (seconds >= 60) return -19;
  if (!ColumnUint(s, 4, 2, &minutes)) return -20;
  if (minutes >= 60) return -21;
  if (!ColumnUint(s, 2, 2, &hours)) return -22;
  if (hours >= 24) return -23;

  double latitude =
      latDegrees * kDegreeToRadians + latMinutes * kMinuteToRadians + latThousandths * kThousandthToRadians;
  double longitude =
      lonDegrees * kDegreeToRadians + lonMinutes * kMinuteToRadians + lonThousandths * kThousandthToRadians;
  if (south) latitude = -latitude;
  if (west) longitude = -longitude;

  TrackPoint point{};
  ConvertGeoToArcPos(latitude, longitude, &point.lLatitude, &point.lLongitude);
  point.lGpsAltitude = gnssAltitude * 10;
  point.lPressureAltitude = pressureAltitude;

  uint32_t secondOfDay = hours * 3600 + minutes * 60 + seconds;
  if (tGps.nTrackPoints == 0) {
    if (t->flightDate == 0) return -25;
    tGps.dwFirstPointTime = t->flightDate + secondOfDay;
    t->dayOffset = 0;
    point.dwFlags = kTrackPointNewSegment;
  } else if (t->lastSecondOfDay >= secondOfDay + 3600) {
    // Only a step back of an hour or more is a new day.
    t->dayOffset += 86400;
  }
  point.dwTime = t->flightDate + t->dayOffset + secondOfDay;
  t->lastSecondOfDay = secondOfDay;
  if (AppendTrackPoint(point) < 0) return -6;
  return 0;
}

// Only the fixed-column HFDTEDDMMYY form.
int32_t DecodeFlightDate(GalileoTransfer* t) {
  const char* s = t->sentence;
  uint32_t year = 0, month = 0, day = 0;
  if (!ColumnUint(s, 10, 2, &year)) return -1;
  if (!ColumnUint(s, 8, 2, &month)) return -2;
  if (month == 0 || month > 12) return -3;
  if (!ColumnUint(s, 6, 2, &day)) return -4;
  if (day == 0 || day > 31) return -5;
  SystemTime date{year + 2000, month, day, 0, 0, 0};
  t->flightDate = ConvertSystemTimeToGpsTime(&date);
  return 0;
}

bool ListAvailable(const GalileoTransfer* t) {
  for (const ListModel& m : kListModels) {
    if (std::strcmp(t->model, m.model) != 0) continue;
    return m.after == nullptr || std::strcmp(t->firmware, m.after) > 0;
  }
  return false;
}

// A decimal number typed by the user; false when the line holds none.
bool ParseTypedNumber(const char* line, int32_t* number) {
  errno = 0;
  char* end = nullptr;
  long value = std::strtol(line, &end, 10);
  if (end == line) return false;
  if (errno == ERANGE || value > kListEntries) value = kListEntries;  // out of range either way
  if (value < 0) value = 0;
  *number = static_cast<int32_t>(value);
  return true;
}



int32_t AllocateTrack() {
  ReleaseTrackLog();
  tGps.pbRawLog = static_cast<uint8_t*>(std::malloc(kRawLogInitialSize));
  tGps.pTrackPoints = static_cast<TrackPoint*>(std::malloc(sizeof(TrackPoint) * kTrackInitialCapacity));
  if (tGps.pbRawLog == nullptr || tGps.pTrackPoints == nullptr) {
    ReleaseTrackLog();
    std::printf("Memory allocation error\n");
    return -1;
  }
  tGps.nRawLogSize = kRawLogInitialSize;
  tGps.nTrackCapacity = kTrackInitialCapacity;
  return 0;
}

// One byte of the flight's IGC text: kept raw, then assembled into lines.
int32_t TakeLogByte(GalileoTransfer* t, uint8_t b, ProgressCounter* progress) {
  if (AppendRawLog(&b, 1) < 0) return -1;
  if (t->index == 0) {
    if (IsLineEnd(b)) return 1;
    if (b < 'A' || b > 'Z') {
      std::printf(" Bad record type %c (%02X)\n", b, b);
      return -1;
    }
    t->sentence[t->index++] = static_cast<char>(b);
    return 1;
  }
  if (t->index >= kLogSentenceSize) {
    std::printf(" Too long log sentence\n");
    return -1;
  }
  if (b != '\n') {
    t->sentence[t->index++] = static_cast<char>(b);
    return 1;
  }
  t->sentence[t->index] = '\0';
  int32_t result = DecodeLogSentence(t);
  if (result < 0) {
    std::printf(" Format error %d\n", -result);
    return -1;
  }
  t->index = 0;
  if (tGps.nTrackPoints > 0 && tGps.nTrackPoints % 100 == 0) progress->Update(tGps.nTrackPoints);
  return 1;
}

// DDMM or DDDMM digits with optional decimals of a minute.
int32_t DecodeWptWholeMinutes(GalileoTransfer* t, uint8_t b, int32_t limit, double* angle, int32_t tooLarge,
                              int32_t bad, uint32_t decimalState, uint32_t nextState) {
  if (IsDigit(b)) {
    if (t->number >= limit) return tooLarge;
    t->number = t->number * 10 + (b - '0');
    return 1;
  }
  if (b != ',' && b != '.') return bad;
  *angle = (t->number / 100) * 60 + t->number % 100;
  if (b == ',') {
    *angle *= kMinuteToRadians;
    t->state = nextState;
  } else {
    t->weight = 0.1;
    t->state = decimalState;
  }
  return 1;
}

int32_t DecodeWptDecimals(GalileoTransfer* t, uint8_t b, double* angle, int32_t bad, uint32_t nextState) {
  if (IsDigit(b)) {
    *angle += (b - '0') * t->weight;
    t->weight *= 0.1;
    return 1;
  }
  if (b != ',') return bad;
  *angle *= kMinuteToRadians;
  t->state = nextState;
  return 1;
}

int HexUpperValue(uint8_t b) {
  if (b >= '0' && b <= '9') return b - '0';
  if (b >= 'A' && b <= 'F') return b - 'A' + 10;
  return -1;
}

void StartLongitude(GalileoTransfer* t) {
  t->number = 0;
  t->state = 6;
}

void StartIdentifier(GalileoTransfer* t) {
  t->textLength = 0;
  t->id[0] = '\0';
  t->name[0] = '\0';
  t->altitude[0] = '\0';
  t->state = 10;
}

void EndWaypointBody(GalileoTransfer* t) {
  t->bodyChecksum = static_cast<uint8_t>(t->checksum ^ '*');
  t->receivedChecksum = 0;
  t->state = 13;
}

// The short identifier: up to the first blank, at most 6 characters, upper case.
void MakeShortId(const char* from, char* id) {
  int n = 0;
  while (n < 6 && from[n] != '\0' && from[n] != ' ') {
    id[n] = ToUpper(from[n]);
    ++n;
  }
  id[n] = '\0';
}

int32_t StoreWaypoint(GalileoTransfer* t, uint32_t time) {
  CompressString(t->id);
  CompressString(t->name);
  Waypoint w{};
  MakeShortId(t->id[0] != '\0' ? t->id : t->name, w.szId);
  if (w.szId[0] == '\0') std::strcpy(w.szId, "Z");
  for (int i = 0; t->name[i] != '\0'; ++i) w.szComment[i] = ToUpper(t->name[i]);
  int32_t altitude = 0;
  DecodeIntegerString(t->altitude, &altitude);
  w.lAltitude = altitude;
  ConvertGeoToArcPos(t->latitude, t->longitude, &w.lLatitude, &w.lLongitude);
  w.dwTime = time;
  return AppendWaypoint(w);
}

}  // namespace

void ResetTransfer(GalileoTransfer* transfer) { std::memset(transfer, 0, sizeof *transfer); }

void InitProductDecoder(GalileoTransfer* t) {
  if (t->byte != '$') {
    t->state = 0;
    return;
  }
  t->checksum = 0;
  t->receivedChecksum = 0;
  t->summaryLength = 0;
  t->summary[0] = '\0';
  t->pilot[0] = '\0';
  t->model[0] = '\0';
  t->serial[0] = '\0';
  t->firmware[0] = '\0';
  t->index = 1;
  t->state = 1;
}

int32_t DecodeProductData(GalileoTransfer* t) {
  uint8_t b = t->byte;
  switch (t->state) {
    case 0:
      InitProductDecoder(t);
      return 1;
    case 1:
      t->checksum ^= b;
      if (b != static_cast<uint8_t>(kProductHead[t->index])) {
        InitProductDecoder(t);
        return 1;
      }
      if (++t->index == kProductHeadLength) {
        t->summaryLength = 0;
        t->index = 0;
        t->state = 2;
      }
      return 1;
    case 2:  // model
      t->checksum ^= b;
      if (IsLineEnd(b)) return -1;
      if (b == ',') {
        t->index = 0;
        t->state = 3;
        return 1;
      }
      if ((b == ' ' && t->index == 0) || t->index >= kTextLimit) return -2;
      b = static_cast<uint8_t>(ToUpper(static_cast<char>(b)));
      Append(t->model, &t->index, kTextLimit, static_cast<char>(b));
      Append(t->summary, &t->summaryLength, static_cast<int32_t>(sizeof t->summary) - 1, static_cast<char>(b));
      return 1;
    case 3:  // pilot name
      t->checksum ^= b;
      if (IsLineEnd(b)) return -3;
      if (b == ',') {
        AppendSummary(t, ", SN");
        if (CompressString(t->pilot) == 0) return -4;
        t->index = 0;
        t->state = 4;
        return 1;
      }
      if (t->index >= kTextLimit) return -4;
      Append(t->pilot, &t->index, kTextLimit, static_cast<char>(b));
      return 1;
    case 4:  // serial number
      t->checksum ^= b;
      if (IsLineEnd(b)) return -5;
      if (b == ',') {
        AppendSummary(t, ", SW");
        t->index = 0;
        t->state = 5;
        return 1;
      }
      if ((b == ' ' && t->index == 0) || t->index >= kTextLimit) return -7;
      Append(t->serial, &t->index, kTextLimit, static_cast<char>(b));
      Append(t->summary, &t->summaryLength, static_cast<int32_t>(sizeof t->summary) - 1, static_cast<char>(b));
      return 1;
    case 5:  // firmware version
      if (IsLineEnd(b)) return -8;
      if (b == '*') {
        t->index = 0;
        t->state = 6;
        return 1;
      }
      t->checksum ^= b;
      if ((b == ' ' && t->index == 0) || t->index >= kTextLimit) return -9;
      Append(t->firmware, &t->index, kTextLimit, static_cast<char>(b));
      Append(t->summary, &t->summaryLength, static_cast<int32_t>(sizeof t->summary) - 1, static_cast<char>(b));
      return 1;
    case 6: {
      bool complete = false;
      int32_t result = DecodeChecksumTail(t, true, -10, -11, -12, -13, &complete);
      if (complete) t->state = 0;
      return result;
    }
    default:
      return -14;
  }
}

int32_t DecodeTrackListData(GalileoTransfer* t) {
  uint8_t b = t->byte;
  switch (t->state) {
    case 0:
      if (b == '$') {
        t->checksum = 0;
        t->receivedChecksum = 0;
        t->index = 1;
        t->state = 1;
      }
      return 1;
    case 1:
      t->checksum ^= b;
      if (b != static_cast<uint8_t>(kListHead[t->index])) {
        if (b == '$') {
          t->checksum = 0;
          t->receivedChecksum = 0;
          t->index = 1;
        } else {
          t->state = 0;
        }
        return 1;
      }
      if (++t->index == kListHeadLength) {
        t->number = 0;
        t->state = 2;
      }
      return 1;
    case 2:  // number of flights, not used
    case 3:  // 0-based index of this flight
      t->checksum ^= b;
      if (IsLineEnd(b)) return t->state == 2 ? -1 : -3;
      if (b == ',') {
        if (t->state == 2) {
          t->number = 0;
          t->state = 3;
          return 1;
        }
        if (t->number >= kListEntries) t->number = kListEntries - 1;
        t->entry = t->number;
        char* e = t->list[t->entry];
        int32_t flight = t->number + 1;
        if (t->number >= 9) {
          e[0] = static_cast<char>('0' + flight / 10);
          e[1] = static_cast<char>('0' + flight % 10);
        } else {
          e[0] = static_cast<char>('0' + flight);
          e[1] = ' ';
        }
        e[2] = ' ';
        e[3] = ' ';
        e[4] = '\0';
        t->entryLength = 4;
        t->state = 4;
        return 1;
      }
      if (!IsDigit(b)) return t->state == 2 ? -2 : -4;
      // Saturating keeps the clamp to 99 without overflowing.
      if (t->number < 1000000) t->number = t->number * 10 + (b - '0');
      return 1;
    case 4:  // date
    case 5:  // time of day
    case 6:  // duration
      if (t->state == 6) {
        if (IsLineEnd(b)) return -7;
        if (b == '*') {
          t->index = 0;
          t->state = 7;
          return 1;
        }
      }
      t->checksum ^= b;
      if (IsLineEnd(b)) return t->state == 4 ? -5 : -6;
      if (b == ',' && t->state != 6) {
        if (t->entryLength < 37) {
          for (int i = 0; i < 3; ++i) Append(t->list[t->entry], &t->entryLength, kListEntrySize - 1, ' ');
        }
        ++t->state;
        return 1;
      }
      Append(t->list[t->entry], &t->entryLength, kListEntrySize - 1, static_cast<char>(b));
      return 1;
    case 7: {
      bool complete = false;
      int32_t result = DecodeChecksumTail(t, false, -8, -9, -10, -11, &complete);
      if (!complete) return result;
      t->state = 0;
      return 1;
    }
    default:
      return -12;
  }
}

int32_t DecodeLogSentence(GalileoTransfer* t) {
  const char* s = t->sentence;
  switch (s[0]) {
    case 'A':
      if (t->index < 7) return -28;
      for (int i = 1; i <= 6; ++i) {
        if (!IsAlphanumeric(s[i])) return -29;
      }
      std::memcpy(t->manufacturer, s + 1, 3);
      t->manufacturer[3] = '\0';
      std::memcpy(t->loggerSerial, s + 4, 3);
      t->loggerSerial[3] = '\0';
      return 0;
    case 'H':
      if (t->index >= 11 && std::strncmp(s, "HFDTE", 5) == 0) return DecodeFlightDate(t);
      return 0;
    case 'G':
      ++t->gRecords;
      return 0;
    case 'B':
      return DecodeFix(t);
    default:
      return 0;
  }
}

void InitDecodeWptByte(GalileoTransfer* t, uint8_t byte) {
  if (byte != '$') {
    t->state = 0;
    return;
  }
  t->checksum = 0;
  t->index = 1;
  t->state = 1;
}

int32_t DecodeWptByte(GalileoTransfer* t, uint8_t b) {
  t->checksum ^= b;
  switch (t->state) {
    case 0:
      InitDecodeWptByte(t, b);
      return 1;
    case 1:
      if (b != static_cast<uint8_t>(kWaypointHead[t->index])) {
        InitDecodeWptByte(t, b);
        return 1;
      }
      if (++t->index == kWaypointHeadLength) {
        t->number = 0;
        t->state = 2;
      }
      return 1;
    case 2:
      return DecodeWptWholeMinutes(t, b, 896, &t->latitude, -1, -2, 3, 4);
    case 3:
      return DecodeWptDecimals(t, b, &t->latitude, -3, 4);
    case 4:
      if (b == ',') {
        StartLongitude(t);
      } else if (b == 'N' || b == 'S') {
        if (b == 'S') t->latitude = -t->latitude;
        t->state = 5;
      } else {
        return -4;
      }
      return 1;
    case 5:
      if (b != ',') return -5;
      StartLongitude(t);
      return 1;
    case 6:
      return DecodeWptWholeMinutes(t, b, 1796, &t->longitude, -6, -7, 7, 8);
    case 7:
      return DecodeWptDecimals(t, b, &t->longitude, -8, 8);
    case 8:
      if (b == ',') {
        StartIdentifier(t);
      } else if (b == 'E' || b == 'W') {
        if (b == 'W') t->longitude = -t->longitude;
        t->state = 9;
      } else {
        return -9;
      }
      return 1;
    case 9:
      if (b != ',') return -10;
      StartIdentifier(t);
      return 1;
    case 10:  // identifier
      if (IsLineEnd(b)) return -11;
      if (b == '*') {
        EndWaypointBody(t);
      } else if (b == ',') {
        t->textLength = 0;
        t->state = 11;
      } else {
        if (t->textLength >= 6) return -12;
        Append(t->id, &t->textLength, 6, static_cast<char>(b));
      }
      return 1;
    case 11:  // name
      if (IsLineEnd(b)) return -13;
      if (b == ',') {
        t->textLength = 0;
        t->altitude[0] = '\0';
        t->state = 12;
        return 1;
      }
      if (t->textLength >= 17) return -14;
      Append(t->name, &t->textLength, 17, static_cast<char>(b));
      return 1;
    case 12:  // altitude: a sign or a digit, then digits
      if (b == '*') {
        EndWaypointBody(t);
        return 1;
      }
      if (t->textLength >= 5) return -16;
      if (!IsDigit(b) && !(b == '-' && t->textLength == 0)) return -15;
      Append(t->altitude, &t->textLength, 5, static_cast<char>(b));
      return 1;
    case 13:
    case 14: {
      int value = HexUpperValue(b);
      if (value < 0) return t->state == 13 ? -17 : -18;
      t->receivedChecksum = static_cast<uint8_t>(t->receivedChecksum * 16 + value);
      ++t->state;
      return 1;
    }
    case 15:
      if (b != '\r') return -19;
      t->state = 16;
      return 1;
    case 16:
      if (b != '\n') return -21;
      if (t->receivedChecksum != t->bodyChecksum) return -20;
      t->state = 0;
      return 0;
    default:
      return 1;
  }
}

void FormatFlightCommand(int32_t flightNumber, char* out) {
  int32_t index = flightNumber - 1;
  char tens = static_cast<char>('0' + index / 10);
  char units = static_cast<char>('0' + index % 10);
  char body[] = {'P', 'B', 'R', 'T', 'R', ',', tens, units};
  uint8_t x = 0;
  for (char c : body) x ^= static_cast<uint8_t>(c);
  std::snprintf(out, 20, "\x11$PBRTR,%c%c*%02X\r\n", tens, units, x);
}

int FormatWaypointSentence(const Waypoint& waypoint, char* out) {
  constexpr size_t kSize = 80;
  double latitude = 0, longitude = 0;
  ConvertArcToGeoPos(waypoint.lLatitude, waypoint.lLongitude, &latitude, &longitude);
  auto thousandths = [](double angle) {
    return static_cast<int32_t>(std::fabs(angle) * kRadiansToThousandths + 0.5);
  };
  int32_t lat = thousandths(latitude);
  int32_t lon = thousandths(longitude);
  int32_t altitude = waypoint.lAltitude < 0 ? 0 : waypoint.lAltitude > 9999 ? 9999 : waypoint.lAltitude;
  int n = std::snprintf(out, kSize, "$PBRWPR,%04d.%03d,%c,%05d.%03d,%c,,%-17.17s,%04d",
                        lat / 60000 * 100 + lat / 1000 % 60, lat % 1000, latitude < 0 ? 'S' : 'N',
                        lon / 60000 * 100 + lon / 1000 % 60, lon % 1000, longitude < 0 ? 'W' : 'E',
                        waypoint.szComment, altitude);
  uint8_t x = 0;
  for (int i = 1; i < n; ++i) x ^= static_cast<uint8_t>(out[i]);
  return n + std::snprintf(out + n, kSize - static_cast<size_t>(n), "*%02X\r\n", x);
}

int32_t ReadProductData(GalileoTransfer* t) {
  FlushComFifo();
  t->state = 0;
  t->index = 0;
  std::printf("Product: ");
  std::fflush(stdout);
  WriteComString(kProductCommand);
  int32_t result = ReceiveUntilSilent(kProductSilence, [t](uint8_t b) {
    t->byte = b;
    return DecodeProductData(t);
  });
  if (result == 1) {
    std::printf("Timeout\n");
    return -1;
  }
  if (result == -4) {
    std::printf("Bad/missing user name\n");
    return -1;
  }
  if (result < 0) {
    std::printf("Format error %d\n", -result);
    return -1;
  }
  if (static_cast<uint8_t>(tGps.szPilotName[0]) == 1) {
    std::snprintf(tGps.szPilotName, sizeof tGps.szPilotName, "%.*s", kPilotNameLimit, t->pilot);
    CompressString(tGps.szPilotName);
  }
  std::snprintf(tGps.szProduct, kProductSize, "%.80s", t->summary);
  std::printf("%s\n", t->summary);
  std::fflush(stdout);
  PauseLink(kAfterProductSleep);
  return 0;
}

int32_t SelectFlight(GalileoTransfer* t) {
  int32_t listed = 0;
  for (const auto& entry : t->list) {
    if (entry[0] == '\0') continue;
    std::printf("%s\n", entry);
    ++listed;
  }
  if (listed == 0) {
    if (BulkMode()) {
      std::printf("No track list found\n");
      return -1;
    }
    std::printf("No list found. Selecting latest flight\n");
    return 1;
  }
  if (BulkMode()) return 0;

  int32_t number = tGps.nFlightNumber;
  if (number < 0) {
    std::printf("Select: ");
    std::fflush(stdout);
    char line[kSelectLineSize] = "";
    GetUserInput(line, sizeof line);
    if (!ParseTypedNumber(line, &number)) {
      std::printf("No flight number found\n");
      return -1;
    }
    // Typed numbers are checked against the list's size, not its count.
    if (number <= 0 || number >= kListEntries) {
      std::printf("Flight number out of range\n");
      return -1;
    }
  } else if (number == 0) {
    return -1;  // only the list was wanted
  } else if (number > listed) {
    std::printf("Flight number out of range\n");
    return -1;
  }
  if (t->list[number - 1][0] == '\0') {
    std::printf("No match for flight number %d in flight list\n", number);
    return -1;
  }
  return number;
}

int32_t ReadTrackList(GalileoTransfer* t) {
  if (!ListAvailable(t)) return 0;
  std::memset(t->list, 0, sizeof t->list);
  FlushComFifo();
  t->state = 0;
  t->index = 0;
  WriteComString(kListCommand);
  std::printf("Track list:\n");
  int32_t result = ReceiveUntilSilent(kTransferSilence, [t](uint8_t b) {
    t->byte = b;
    return DecodeTrackListData(t);
  });
  if (result < 0) {
    std::printf("Format error %d\n", -result);
    return -1;
  }
  return SelectFlight(t);
}

int32_t ReadTrackLog(GalileoTransfer* t, int32_t flightNumber) {
  if (BulkMode()) std::printf("Reading track %d\n", flightNumber);
  if (AllocateTrack() < 0) return -1;
  FlushComFifo();
  t->state = 0;
  t->index = 0;
  if (flightNumber < 1) {
    WriteComString(kNewestCommand);
  } else {
    char command[20];
    FormatFlightCommand(flightNumber, command);
    WriteComString(command);
  }
  ProgressCounter progress("Points: ", 0);
  t->flightDate = 0;
  t->gRecords = 0;
  t->loggerSerial[0] = '\0';
  t->manufacturer[0] = '\0';
  int32_t result =
      ReceiveUntilSilent(kTransferSilence, [t, &progress](uint8_t b) { return TakeLogByte(t, b, &progress); });
  if (result < 0) return -1;
  progress.Finish(tGps.nTrackPoints);

  if (tGps.nTrackPoints == 0) return -1;
  if (t->loggerSerial[0] == '\0') {
    std::printf("Bad or missing A-record\n");
    return -1;
  }
  if (t->gRecords == 0) std::printf("No G-records found\n");
  tGps.bSignature = t->gRecords > 0 ? 1 : 0;
  tGps.bUtc = 1;
  tGps.bPressureAltitude = 1;
  tGps.dwDownloadTime = GetCurrentGpsTime();
  return 0;
}

int32_t ReadAllTrackLogs(GalileoTransfer* t, int32_t (*save)()) {
  int32_t result = 0;
  for (int32_t i = 0; i < kListEntries; ++i) {
    if (t->list[i][0] == '\0') continue;
    result = ReadTrackLog(t, i + 1);
    if (result < 0) break;
    save();
    ReleaseTrackLog();
  }
  return result;
}

int32_t ReadWaypoints(GalileoTransfer* t) {
  if (StartWaypointList() < 0) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  FlushComFifo();
  t->state = 0;
  t->index = 0;
  WriteComString(kWaypointCommand);
  ProgressCounter progress("Waypoints: ", 0);
  uint32_t now = GetCurrentGpsTime();
  int32_t result = ReceiveUntilSilent(kTransferSilence, [t, &progress, now](uint8_t b) {
    int32_t decoded = DecodeWptByte(t, b);
    if (decoded < 0) {
      std::printf(" Format error %d\n", -decoded);
      return -1;
    }
    if (decoded == 0) {
      if (StoreWaypoint(t, now) < 0) return -1;
      if (tGps.nWaypoints % 10 == 0) progress.Update(tGps.nWaypoints);
    }
    return 1;
  });
  if (result < 0) return -1;
  progress.Finish(tGps.nWaypoints);
  return tGps.nWaypoints > 0 ? 0 : -1;
}

int32_t WriteWaypoints(GalileoTransfer*) {
  ProgressCounter progress("Waypoints: ", 0);
  for (int32_t i = 0; i < tGps.nWaypoints; ++i) {
    char sentence[80];
    FormatWaypointSentence(tGps.pWaypoints[i], sentence);
    WriteComString(sentence);
    PauseLink(kUploadSpacing);
    progress.Update(i + 1);
  }
  progress.Finish(tGps.nWaypoints);
  return 0;
}

}  // namespace galileo

using galileo::GalileoTransfer;

namespace {

// Opens the port, identifies the instrument, runs `stage` and closes the
// port whatever happened.
template <typename Stage>
int32_t RunGalileoCommand(Stage stage) {
  GalileoTransfer transfer;
  galileo::ResetTransfer(&transfer);
  if (OpenComPort() < 0) return -1;
  int32_t result = galileo::ReadProductData(&transfer);
  if (result == 0) result = stage(&transfer);
  CloseComPort();
  return result;
}

}  // namespace

int32_t DownloadGalileoTrackLog() {
  return RunGalileoCommand([](GalileoTransfer* t) {
    int32_t flight = galileo::ReadTrackList(t);
    return flight < 0 ? flight : galileo::ReadTrackLog(t, flight);
  });
}

int32_t DownloadGalileoBulkTrackLog() {
  return RunGalileoCommand([](GalileoTransfer* t) {
    int32_t result = galileo::ReadTrackList(t);
    return result == 0 ? galileo::ReadAllTrackLogs(t, SaveTracklog) : result;
  });
}

int32_t DownloadGalileoWaypoints() { return RunGalileoCommand(galileo::ReadWaypoints); }

int32_t UploadGalileoWaypoints() { return RunGalileoCommand(galileo::WriteWaypoints); }
