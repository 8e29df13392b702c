#include "serial/galileo.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/console.h"
#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "link/com.h"
#include "link/receive.h"
#include "link/string.h"

namespace galileo {
namespace {

constexpr uint8_t kXon = 0x11, kXoff = 0x13;

// Every command starts with XON so that an instrument paused by XOFF listens.
constexpr char kProductCommand[] = "\x11$PBRSNP,*21\r\n";
constexpr char kListCommand[] = "\x11$PBRTL,*74\r\n";
constexpr char kNewestCommand[] = "\x11$PBRIGC,*21\r\n";
constexpr char kWaypointCommand[] = "\x11$PBRWPS,*38\r\n";

// The heads of the answers, and their lengths.
constexpr char kProductHead[] = "$PBRSNP,", kListHead[] = "$PBRTL,", kWaypointHead[] = "$PBRWPS,";
constexpr int32_t kProductHeadLength = sizeof kProductHead - 1, kListHeadLength = sizeof kListHead - 1,
                  kWaypointHeadLength = sizeof kWaypointHead - 1;

// Silence that ends a stage; pauses after identification and between
// uploaded waypoints (microseconds).
constexpr int64_t kProductSilence = 3000000, kTransferSilence = 2000000;
constexpr uint32_t kAfterProductSleep = 1000000, kUploadSpacing = 300000;

constexpr int32_t kTextLimit = kTextSize - 1, kProductSize = 81, kPilotNameLimit = 50;
constexpr int kSelectLineSize = 101;

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

// The family's receive loop: XON and XOFF are flow control, never data,
// though they too keep the line from counting as silent.
template <typename Take>
int32_t Receive(int64_t silence, Take take) {
  return ReceiveUntilSilent(silence, [&take](uint8_t byte) { return byte == kXon || byte == kXoff ? 1 : take(byte); });
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
template <typename Value>
bool Column(const char* line, int position, int width, int (*decode)(const char*, Value*), Value* value) {
  char field[8];
  std::memcpy(field, line + position - 1, static_cast<size_t>(width));
  field[width] = '\0';
  return decode(field, value) == 0;
}

bool ColumnUint(const char* line, int position, int width, uint32_t* value) {
  return Column(line, position, width, DecodeUintString, value);
}

bool ColumnInt(const char* line, int position, int width, int32_t* value) {
  return Column(line, position, width, DecodeIntegerString, value);
}

// The unsigned fields of a B record from its right end: column (from 1),
// width, the error when it is no number, and the bound it must stay below
// with the error beyond it (0: no bound). The hemisphere letter is checked
// before the latitude's fields.
struct FixField {
  int column, width;
  int32_t bad;
  uint32_t below;
  int32_t beyond;
};
constexpr FixField kFixFields[] = {
    {21, 3, kBadLongitudeThousandths, 0, 0}, {19, 2, kBadLongitudeMinutes, 0, 0},
    {16, 3, kBadLongitudeDegrees, 180, kLongitudeDegreesRange}, {12, 3, kBadLatitudeThousandths, 0, 0},
    {10, 2, kBadLatitudeMinutes, 0, 0}, {8, 2, kBadLatitudeDegrees, 90, kLatitudeDegreesRange},
    {6, 2, kBadSeconds, 60, kSecondsRange}, {4, 2, kBadMinutes, 60, kMinutesRange}, {2, 2, kBadHours, 24, kHoursRange},
};
constexpr int kFixFieldCount = sizeof kFixFields / sizeof kFixFields[0];
constexpr int kLatitudeThousandthsField = 3;

// A B record, decoded from its right end so that the rightmost bad field
// is the one reported.
int32_t DecodeFix(GalileoTransfer* t) {
  const char* s = t->sentence;
  if (t->index < 35) return kFixTooShort;
  int32_t gnssAltitude = 0, pressureAltitude = 0;
  if (!ColumnInt(s, 31, 5, &gnssAltitude)) return kBadAltitudeField;
  if (!ColumnInt(s, 26, 5, &pressureAltitude)) return kBadAltitudeField;
  if (s[23] != 'E' && s[23] != 'W') return kBadEastWest;
  const bool west = s[23] == 'W';
  uint32_t v[kFixFieldCount] = {};
  for (int i = 0; i < kFixFieldCount; ++i) {
    const FixField& f = kFixFields[i];
    if (i == kLatitudeThousandthsField && s[14] != 'N' && s[14] != 'S') return kBadNorthSouth;
    if (!ColumnUint(s, f.column, f.width, &v[i])) return f.bad;
    if (f.below != 0 && v[i] >= f.below) return f.beyond;
  }
  const bool south = s[14] == 'S';
  const uint32_t lonThousandths = v[0], lonMinutes = v[1], lonDegrees = v[2];
  const uint32_t latThousandths = v[3], latMinutes = v[4], latDegrees = v[5];
  const uint32_t seconds = v[6], minutes = v[7], hours = v[8];

  double latitude =
      latDegrees * kDegreesToRadians + latMinutes * kMinutesToRadians + latThousandths * kMin1000ToRadians;
  double longitude =
      lonDegrees * kDegreesToRadians + lonMinutes * kMinutesToRadians + lonThousandths * kMin1000ToRadians;
  if (south) latitude = -latitude;
  if (west) longitude = -longitude;

  TrackPoint point{};
  ConvertGeoToArcPos(latitude, longitude, &point.lLatitude, &point.lLongitude);
  point.lGpsAltitude = gnssAltitude * 10;
  point.lPressureAltitude = pressureAltitude;

  uint32_t secondOfDay = hours * 3600 + minutes * 60 + seconds;
  if (tGps.nTrackPoints == 0) {
    if (t->flightDate == 0) return kFixBeforeDate;
    tGps.dwFirstPointTime = t->flightDate + secondOfDay;
    t->dayOffset = 0;
    point.dwFlags = kTrackPointNewSegment;
  } else if (t->lastSecondOfDay >= secondOfDay + 3600) {
    // Only a step back of an hour or more is a new day.
    t->dayOffset += 86400;
  }
  point.dwTime = t->flightDate + t->dayOffset + secondOfDay;
  t->lastSecondOfDay = secondOfDay;
  if (AppendTrackPoint(point) < 0) return kNoRoomForPoint;
  return 0;
}

// Only the fixed-column HFDTEDDMMYY form.
int32_t DecodeFlightDate(GalileoTransfer* t) {
  const char* s = t->sentence;
  uint32_t year = 0, month = 0, day = 0;
  if (!ColumnUint(s, 10, 2, &year)) return kBadDateYear;
  if (!ColumnUint(s, 8, 2, &month)) return kBadDateMonth;
  if (month == 0 || month > 12) return kDateMonthRange;
  if (!ColumnUint(s, 6, 2, &day)) return kBadDateDay;
  if (day == 0 || day > 31) return kDateDayRange;
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

int HexUpperValue(uint8_t b) {
  if (b >= '0' && b <= '9') return b - '0';
  if (b >= 'A' && b <= 'F') return b - 'A' + 10;
  return -1;
}

void StartLongitude(GalileoTransfer* t) {
  t->number = 0;
  t->state = kLongitude;
}

void StartIdentifier(GalileoTransfer* t) {
  t->textLength = 0;
  t->id[0] = '\0';
  t->name[0] = '\0';
  t->altitude[0] = '\0';
  t->state = kIdentifier;
}

void EndWaypointBody(GalileoTransfer* t) {
  t->bodyChecksum = static_cast<uint8_t>(t->checksum ^ '*');
  t->receivedChecksum = 0;
  t->state = kChecksumHigh;
}

// The two angle fields of a waypoint sentence: DDMM (or DDDMM) digits with
// optional decimals of a minute, a hemisphere letter or nothing, a comma.
struct AngleField {
  double GalileoTransfer::*angle;  // minutes while decoding, then radians
  int32_t limit;                   // a digit once the number reached it is one too many
  char positive, negative;         // hemisphere letters
  uint32_t digits, decimals, hemisphere, after;  // its states
  int32_t tooLarge, bad, badDecimals, badHemisphere, noComma;  // its format errors
  void (*next)(GalileoTransfer*);  // starts the field that follows
};

constexpr AngleField kLatitudeField = {
    &GalileoTransfer::latitude, 896,  'N', 'S', kLatitude, kLatitudeDecimals, kLatitudeHemisphere, kAfterLatitude,
    kLatitudeTooLarge, kBadLatitude, kBadLatitudeDecimals, kBadLatitudeHemisphere, kNoCommaAfterLatitude,
    StartLongitude};
constexpr AngleField kLongitudeField = {
    &GalileoTransfer::longitude, 1796, 'E', 'W', kLongitude, kLongitudeDecimals, kLongitudeHemisphere, kAfterLongitude,
    kLongitudeTooLarge, kBadLongitude, kBadLongitudeDecimals, kBadLongitudeHemisphere, kNoCommaAfterLongitude,
    StartIdentifier};

int32_t DecodeAngleByte(GalileoTransfer* t, uint8_t b, const AngleField& f) {
  double& angle = t->*f.angle;
  if (t->state == f.digits) {
    if (IsDigit(b)) {
      if (t->number >= f.limit) return f.tooLarge;
      t->number = t->number * 10 + (b - '0');
      return 1;
    }
    if (b != ',' && b != '.') return f.bad;
    angle = (t->number / 100) * 60 + t->number % 100;
    if (b == '.') {
      t->weight = 0.1;
      t->state = f.decimals;
      return 1;
    }
  } else if (t->state == f.decimals) {
    if (IsDigit(b)) {
      angle += (b - '0') * t->weight;
      t->weight *= 0.1;
      return 1;
    }
    if (b != ',') return f.badDecimals;
  } else if (t->state == f.hemisphere) {
    if (b == ',') {
      f.next(t);
    } else if (b == f.positive || b == f.negative) {
      if (b == f.negative) angle = -angle;
      t->state = f.after;
    } else {
      return f.badHemisphere;
    }
    return 1;
  } else {
    if (b != ',') return f.noComma;
    f.next(t);
    return 1;
  }
  angle *= kMinutesToRadians;
  t->state = f.hemisphere;
  return 1;
}

// Flushes the FIFO, resets the decoder and sends the stage's command.
void StartStage(GalileoTransfer* t, const char* command) {
  FlushComFifo();
  t->state = kHunt;
  t->index = 0;
  WriteComString(command);
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
    t->state = kHunt;
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
  t->state = kHead;
}

int32_t DecodeProductData(GalileoTransfer* t) {
  uint8_t b = t->byte;
  switch (t->state) {
    case kHunt:
      InitProductDecoder(t);
      return 1;
    case kHead:
      t->checksum ^= b;
      if (b != static_cast<uint8_t>(kProductHead[t->index])) {
        InitProductDecoder(t);
        return 1;
      }
      if (++t->index == kProductHeadLength) {
        t->summaryLength = 0;
        t->index = 0;
        t->state = kModel;
      }
      return 1;
    case kModel:
      t->checksum ^= b;
      if (IsLineEnd(b)) return kModelLineEnd;
      if (b == ',') {
        t->index = 0;
        t->state = kPilot;
        return 1;
      }
      if ((b == ' ' && t->index == 0) || t->index >= kTextLimit) return kBadModel;
      b = static_cast<uint8_t>(ToUpper(static_cast<char>(b)));
      Append(t->model, &t->index, kTextLimit, static_cast<char>(b));
      Append(t->summary, &t->summaryLength, static_cast<int32_t>(sizeof t->summary) - 1, static_cast<char>(b));
      return 1;
    case kPilot:
      t->checksum ^= b;
      if (IsLineEnd(b)) return kPilotLineEnd;
      if (b == ',') {
        AppendSummary(t, ", SN");
        if (CompressString(t->pilot) == 0) return kBadPilot;
        t->index = 0;
        t->state = kSerial;
        return 1;
      }
      if (t->index >= kTextLimit) return kBadPilot;
      Append(t->pilot, &t->index, kTextLimit, static_cast<char>(b));
      return 1;
    case kSerial:
      t->checksum ^= b;
      if (IsLineEnd(b)) return kSerialLineEnd;
      if (b == ',') {
        AppendSummary(t, ", SW");
        t->index = 0;
        t->state = kFirmware;
        return 1;
      }
      if ((b == ' ' && t->index == 0) || t->index >= kTextLimit) return kBadSerial;
      Append(t->serial, &t->index, kTextLimit, static_cast<char>(b));
      Append(t->summary, &t->summaryLength, static_cast<int32_t>(sizeof t->summary) - 1, static_cast<char>(b));
      return 1;
    case kFirmware:
      if (IsLineEnd(b)) return kFirmwareLineEnd;
      if (b == '*') {
        t->index = 0;
        t->state = kProductChecksum;
        return 1;
      }
      t->checksum ^= b;
      if ((b == ' ' && t->index == 0) || t->index >= kTextLimit) return kBadFirmware;
      Append(t->firmware, &t->index, kTextLimit, static_cast<char>(b));
      Append(t->summary, &t->summaryLength, static_cast<int32_t>(sizeof t->summary) - 1, static_cast<char>(b));
      return 1;
    case kProductChecksum: {
      bool complete = false;
      int32_t result = DecodeChecksumTail(t, true, kProductChecksumLineEnd, kProductChecksumDigit,
                                          kProductNoCarriageReturn, kProductChecksumMismatch, &complete);
      if (complete) t->state = kHunt;
      return result;
    }
    default:
      return kProductBadState;
  }
}

int32_t DecodeTrackListData(GalileoTransfer* t) {
  uint8_t b = t->byte;
  switch (t->state) {
    case kHunt:
      if (b == '$') {
        t->checksum = 0;
        t->receivedChecksum = 0;
        t->index = 1;
        t->state = kHead;
      }
      return 1;
    case kHead:
      t->checksum ^= b;
      if (b != static_cast<uint8_t>(kListHead[t->index])) {
        if (b == '$') {
          t->checksum = 0;
          t->receivedChecksum = 0;
          t->index = 1;
        } else {
          t->state = kHunt;
        }
        return 1;
      }
      if (++t->index == kListHeadLength) {
        t->number = 0;
        t->state = kListCount;
      }
      return 1;
    case kListCount:  // number of flights, not used
    case kListIndex:  // 0-based index of this flight
      t->checksum ^= b;
      if (IsLineEnd(b)) return t->state == kListCount ? kCountLineEnd : kIndexLineEnd;
      if (b == ',') {
        if (t->state == kListCount) {
          t->number = 0;
          t->state = kListIndex;
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
        t->state = kListDate;
        return 1;
      }
      if (!IsDigit(b)) return t->state == kListCount ? kBadCount : kBadIndex;
      // Saturating keeps the clamp to 99 without overflowing.
      if (t->number < 1000000) t->number = t->number * 10 + (b - '0');
      return 1;
    case kListDate:
    case kListTime:
    case kListDuration:
      if (t->state == kListDuration) {
        if (IsLineEnd(b)) return kDurationLineEnd;
        if (b == '*') {
          t->index = 0;
          t->state = kListChecksum;
          return 1;
        }
      }
      t->checksum ^= b;
      if (IsLineEnd(b)) return t->state == kListDate ? kDateLineEnd : kTimeLineEnd;
      if (b == ',' && t->state != kListDuration) {
        if (t->entryLength < 37) {
          for (int i = 0; i < 3; ++i) Append(t->list[t->entry], &t->entryLength, kListEntrySize - 1, ' ');
        }
        ++t->state;
        return 1;
      }
      Append(t->list[t->entry], &t->entryLength, kListEntrySize - 1, static_cast<char>(b));
      return 1;
    case kListChecksum: {
      bool complete = false;
      int32_t result = DecodeChecksumTail(t, false, kListChecksumLineEnd, kListChecksumDigit, kListNoCarriageReturn,
                                          kListChecksumMismatch, &complete);
      if (!complete) return result;
      t->state = kHunt;
      return 1;
    }
    default:
      return kListBadState;
  }
}

int32_t DecodeLogSentence(GalileoTransfer* t) {
  const char* s = t->sentence;
  switch (s[0]) {
    case 'A':
      if (t->index < 7) return kARecordTooShort;
      for (int i = 1; i <= 6; ++i) {
        if (!IsAlphanumeric(s[i])) return kBadARecord;
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
    t->state = kHunt;
    return;
  }
  t->checksum = 0;
  t->index = 1;
  t->state = kHead;
}

int32_t DecodeWptByte(GalileoTransfer* t, uint8_t b) {
  t->checksum ^= b;
  switch (t->state) {
    case kHunt:
      InitDecodeWptByte(t, b);
      return 1;
    case kHead:
      if (b != static_cast<uint8_t>(kWaypointHead[t->index])) {
        InitDecodeWptByte(t, b);
        return 1;
      }
      if (++t->index == kWaypointHeadLength) {
        t->number = 0;
        t->state = kLatitude;
      }
      return 1;
    case kLatitude:
    case kLatitudeDecimals:
    case kLatitudeHemisphere:
    case kAfterLatitude:
      return DecodeAngleByte(t, b, kLatitudeField);
    case kLongitude:
    case kLongitudeDecimals:
    case kLongitudeHemisphere:
    case kAfterLongitude:
      return DecodeAngleByte(t, b, kLongitudeField);
    case kIdentifier:
      if (IsLineEnd(b)) return kIdentifierLineEnd;
      if (b == '*') {
        EndWaypointBody(t);
      } else if (b == ',') {
        t->textLength = 0;
        t->state = kName;
      } else {
        if (t->textLength >= 6) return kIdentifierTooLong;
        Append(t->id, &t->textLength, 6, static_cast<char>(b));
      }
      return 1;
    case kName:
      if (IsLineEnd(b)) return kNameLineEnd;
      if (b == ',') {
        t->textLength = 0;
        t->altitude[0] = '\0';
        t->state = kAltitude;
        return 1;
      }
      if (t->textLength >= 17) return kNameTooLong;
      Append(t->name, &t->textLength, 17, static_cast<char>(b));
      return 1;
    case kAltitude:  // a sign or a digit, then digits
      if (b == '*') {
        EndWaypointBody(t);
        return 1;
      }
      if (t->textLength >= 5) return kAltitudeTooLong;
      if (!IsDigit(b) && !(b == '-' && t->textLength == 0)) return kBadAltitude;
      Append(t->altitude, &t->textLength, 5, static_cast<char>(b));
      return 1;
    case kChecksumHigh:
    case kChecksumLow: {
      int value = HexUpperValue(b);
      if (value < 0) return t->state == kChecksumHigh ? kWaypointChecksumHigh : kWaypointChecksumLow;
      t->receivedChecksum = static_cast<uint8_t>(t->receivedChecksum * 16 + value);
      ++t->state;
      return 1;
    }
    case kCarriageReturn:
      if (b != '\r') return kWaypointNoCarriageReturn;
      t->state = kLineFeed;
      return 1;
    case kLineFeed:
      if (b != '\n') return kWaypointNoLineFeed;
      if (t->receivedChecksum != t->bodyChecksum) return kWaypointChecksumMismatch;
      t->state = kHunt;
      return 0;
    default:
      return 1;
  }
}

void FormatFlightCommand(int32_t flightNumber, char* out) {
  int32_t index = flightNumber - 1;
  char body[16];
  std::snprintf(body, sizeof body, "PBRTR,%c%c", static_cast<char>('0' + index / 10), static_cast<char>('0' + index % 10));
  out[0] = static_cast<char>(kXon);
  FormatNmeaSentence(out + 1, 19, body);
}

int FormatWaypointSentence(const Waypoint& waypoint, char* out) {
  char position[32], body[80];
  FormatWaypointPosition(waypoint, position, sizeof position);
  std::snprintf(body, sizeof body, "PBRWPR,%s,,%-17.17s,%04d", position, waypoint.szComment,
                WaypointSentenceAltitude(waypoint));
  return FormatNmeaSentence(out, 80, body);
}

int32_t ReadProductData(GalileoTransfer* t) {
  std::printf("Product: ");
  std::fflush(stdout);
  StartStage(t, kProductCommand);
  int32_t result = Receive(kProductSilence, [t](uint8_t b) {
    t->byte = b;
    return DecodeProductData(t);
  });
  if (result == 1) {
    std::printf("Timeout\n");
    return -1;
  }
  if (result == kBadPilot) {
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
    if (!AskFlightNumber(kSelectLineSize, &number)) return -1;
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
  StartStage(t, kListCommand);
  std::printf("Track list:\n");
  int32_t result = Receive(kTransferSilence, [t](uint8_t b) {
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
  if (StartTrackLog(kTrackInitialCapacity, kRawLogInitialSize) < 0) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  char command[20];
  if (flightNumber >= 1) FormatFlightCommand(flightNumber, command);
  StartStage(t, flightNumber < 1 ? kNewestCommand : command);
  ProgressCounter progress("Points: ", 0);
  t->flightDate = 0;
  t->gRecords = 0;
  t->loggerSerial[0] = '\0';
  t->manufacturer[0] = '\0';
  int32_t result = Receive(kTransferSilence, [t, &progress](uint8_t b) { return TakeLogByte(t, b, &progress); });
  if (result < 0) return -1;
  progress.Finish(tGps.nTrackPoints);

  if (tGps.nTrackPoints == 0) return -1;
  if (t->loggerSerial[0] == '\0') {
    std::printf("Bad or missing A-record\n");
    return -1;
  }
  if (t->gRecords == 0) std::printf("No G-records found\n");
  SetLogFlags(1, t->gRecords > 0 ? 1 : 0, 1, GetCurrentGpsTime());
  return 0;
}

int32_t ReadAllTrackLogs(GalileoTransfer* t, TrackSaver save) {
  return SaveEachTrack(kListEntries, save, [t](int32_t n) { return t->list[n - 1][0] == '\0' ? 1 : ReadTrackLog(t, n); });
}

int32_t ReadWaypoints(GalileoTransfer* t) {
  return ReceiveWaypoints(
      kTransferSilence, [t] { StartStage(t, kWaypointCommand); },
      [t](uint8_t b, uint32_t downloadTime) {
        if (b == kXon || b == kXoff) return 1;
        int32_t decoded = DecodeWptByte(t, b);
        if (decoded < 0) {
          std::printf(" Format error %d\n", -decoded);
          return -1;
        }
        return decoded == 0 && StoreWaypoint(t, downloadTime) < 0 ? -1 : 1;
      });
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

int32_t DownloadGalileoTrackLog() {
  return RunIdentified<GalileoTransfer>([](GalileoTransfer* t) {
    int32_t flight = galileo::ReadTrackList(t);
    return flight < 0 ? flight : galileo::ReadTrackLog(t, flight);
  });
}

int32_t DownloadGalileoBulkTrackLog(TrackSaver save) {
  return RunIdentified<GalileoTransfer>([save](GalileoTransfer* t) {
    int32_t result = galileo::ReadTrackList(t);
    return result == 0 ? galileo::ReadAllTrackLogs(t, save) : result;
  });
}

int32_t DownloadGalileoWaypoints() { return RunIdentified<GalileoTransfer>(galileo::ReadWaypoints); }

int32_t UploadGalileoWaypoints() { return RunIdentified<GalileoTransfer>(galileo::WriteWaypoints); }
