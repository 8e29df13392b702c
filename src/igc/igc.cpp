#include "igc/igc.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/memory.h"
#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "link/string.h"

namespace {

constexpr std::array<uint32_t, 256> MakeCrc32Table() {
  std::array<uint32_t, 256> table{};
  for (uint32_t n = 0; n < 256u; ++n) {
    uint32_t c = n;
    for (int bit = 0; bit < 8; ++bit) c = (c & 1u) != 0u ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    table[n] = c;
  }
  return table;
}

}  // namespace

constexpr std::array<uint32_t, 256> adwCrc32Table = MakeCrc32Table();
static_assert(adwCrc32Table[1] == 0x77073096u && adwCrc32Table[255] == 0x2D02EF8Du);

// ---------------------------------------------------------------- writer

namespace {

constexpr int32_t kIgcInitialSize = 10000;
constexpr uint8_t kSecurityFiller = 0x31;  // the character "1"

int32_t ClampPressureAltitude(int32_t metres) {
  if (metres > 99999) return 99999;
  if (metres < -9999) return -9999;
  return metres;
}

// The limits are compared with the decimetres, not with the metres written:
// 99999 dm gives 10000 m while 100000 dm gives 99999 m. Kept as files have it.
int32_t GnssAltitudeMetres(int32_t decimetres) {
  if (decimetres > 99999) return 99999;
  if (decimetres < -9999) return -9999;
  return (decimetres + 5) / 10;
}

}  // namespace

void UpdateCrc(const char* text, uint32_t* checksum) {
  uint32_t crc = *checksum;
  for (const char* p = text; *p != '\0'; ++p) crc = Crc32(static_cast<uint8_t>(*p), crc);
  *checksum = crc;
}

void ScrambleString(uint8_t* block, const uint8_t* table) {
  uint8_t scrambled[8] = {};
  for (int i = 0; i < 8; ++i) {
    for (int j = 0; j < 8; ++j) {
      const uint8_t e = table[8 * i + j] & 63u;
      if (((block[e >> 3] >> (e & 7u)) & 1u) != 0u) scrambled[i] = static_cast<uint8_t>(scrambled[i] | (1u << j));
    }
  }
  std::memcpy(block, scrambled, sizeof scrambled);
}

int AddIgcString(char** buffer, int32_t* capacity, int32_t* length, const char* text, uint32_t* checksum) {
  const size_t n = std::strlen(text);
  // Every text the writer appends is shorter than the first capacity, so one
  // doubling is enough for it; the loop only guards other callers.
  while (static_cast<size_t>(*length) + n + 1u > static_cast<size_t>(*capacity)) {
    char* grown = nullptr;
    if (*capacity > 0 && *capacity <= INT32_MAX / 2) {
      grown = static_cast<char*>(pAllocate(static_cast<size_t>(*capacity) * 2u));
    }
    if (grown == nullptr) {
      std::free(*buffer);
      *buffer = nullptr;
      return -1;
    }
    std::memcpy(grown, *buffer, static_cast<size_t>(*capacity));
    std::free(*buffer);
    *buffer = grown;
    *capacity *= 2;
  }
  std::memcpy(*buffer + *length, text, n + 1u);
  *length += static_cast<int32_t>(n);
  if (checksum != nullptr) UpdateCrc(text, checksum);
  return 0;
}

int32_t EncodeIgcLog(const TrackPoint* points, uint32_t count, const char* pilot, const char* gliderType,
                     const char* gliderId, const char* compClass, const char* site, const char* product,
                     const char* aRecordPrefix, const IgcHeaderLine* extraLines, int32_t extraCount,
                     uint32_t downloadTime, char** result, int32_t security) {
  if (points == nullptr) count = 0;
  char* buffer = static_cast<char*>(pAllocate(kIgcInitialSize));
  if (buffer == nullptr) return -1;
  buffer[0] = '\0';
  int32_t capacity = kIgcInitialSize;
  int32_t length = 0;
  uint32_t crc = 0xFFFFFFFFu;
  char line[103];

  // After a failed append the buffer is already gone.
  auto add = [&](const char* text) { return AddIgcString(&buffer, &capacity, &length, text, &crc) == 0; };
  auto addOptional = [&](const char* text) { return text == nullptr || add(text); };
  auto addHeader = [&](const char* label, const char* value) {
    return add(label) && addOptional(value) && add("\r\n");
  };

  if (!add("AXKX") || !addOptional(aRecordPrefix) || !add(" ") || !addOptional(product) || !add("\r\n")) {
    return -1;
  }

  // The date comes from the first array entry even for an empty log; without
  // an array at all there is nothing to read and GPS time 0 stands in.
  SystemTime date{};
  ConvertGpsTimeToSystemTime(points != nullptr ? points[0].dwTime : 0u, &date);
  std::snprintf(line, sizeof line, "HFDTEDATE:%02d%02d%02d,01\r\n", static_cast<int>(date.wDay),
                static_cast<int>(date.wMonth), static_cast<int>(date.wYear % 100u));
  if (!add(line)) return -1;

  // GTY for the glider id too, as the files have always been written.
  if (!addHeader("HFPLTPILOT: ", pilot) || !addHeader("HFGTYGLIDERTYPE: ", gliderType) ||
      !addHeader("HFGTYGLIDERID: ", gliderId) || !add("HFDTM100GPSDATUM: WGS-84\r\n") ||
      !addHeader("HFCCLCOMPETITION CLASS: ", compClass) || !addHeader("HFSITSITE: ", site)) {
    return -1;
  }
  for (int32_t i = 0; extraLines != nullptr && i < extraCount; ++i) {
    std::snprintf(line, sizeof line, "%.100s\r\n", extraLines[i]);
    if (!add(line)) return -1;
  }

  for (uint32_t i = 0; i < count; ++i) {
    const TrackPoint& point = points[i];
    SystemTime t{};
    ConvertGpsTimeToSystemTime(point.dwTime, &t);
    int32_t latitude = 0, longitude = 0;
    ConvertArcToGeoMin1000(point.lLatitude, point.lLongitude, &latitude, &longitude);
    const char ns = latitude < 0 ? 'S' : 'N';
    const char ew = longitude < 0 ? 'W' : 'E';
    if (latitude < 0) latitude = -latitude;
    if (longitude < 0) longitude = -longitude;
    std::snprintf(line, sizeof line, "B%02d%02d%02d%02d%02d%03d%c%03d%02d%03d%cA%05d%05d\r\n",
                  static_cast<int>(t.wHour), static_cast<int>(t.wMinute), static_cast<int>(t.wSecond),
                  latitude / 60000, latitude % 60000 / 1000, latitude % 1000, ns, longitude / 60000,
                  longitude % 60000 / 1000, longitude % 1000, ew, ClampPressureAltitude(point.lPressureAltitude),
                  GnssAltitudeMetres(point.lGpsAltitude));
    if (!add(line)) return -1;
  }

  if (!add("LXKX KestrixMac64 version 1.06\r\n")) return -1;
  SystemTime downloaded{};
  ConvertGpsTimeToSystemTime(downloadTime, &downloaded);
  std::snprintf(line, sizeof line, "LXKX Downloaded %d-%02d-%02d  %02d:%02d:%02d\r\n",
                static_cast<int>(downloaded.wYear), static_cast<int>(downloaded.wMonth),
                static_cast<int>(downloaded.wDay), static_cast<int>(downloaded.wHour),
                static_cast<int>(downloaded.wMinute), static_cast<int>(downloaded.wSecond));
  if (!add(line)) return -1;

  if (security != 0) {
    const uint32_t first = Crc32(kSecurityFiller, crc);
    uint32_t second = 0xFFFFFFFFu;
    for (int shift = 24; shift >= 0; shift -= 8) second = Crc32(static_cast<uint8_t>(first >> shift), second);
    for (int i = 0; i < 4; ++i) second = Crc32(kSecurityFiller, second);
    uint8_t block[8];
    for (int i = 0; i < 4; ++i) {
      block[i] = static_cast<uint8_t>(first >> (8 * i));
      block[4 + i] = static_cast<uint8_t>(second >> (8 * i));
    }
    ScrambleString(block, abScramble);
    std::snprintf(line, sizeof line, "G%02X%02X%02X%02X%02X%02X%02X%02X\r\n", block[7], block[6], block[5],
                  block[4], block[3], block[2], block[1], block[0]);
    // The security line protects what precedes it, not itself.
    if (AddIgcString(&buffer, &capacity, &length, line, nullptr) != 0) return -1;
  }

  *result = buffer;
  return length;
}

// ---------------------------------------------------------------- reader

namespace {

constexpr int32_t kLineKept = 102;
constexpr int32_t kTrackStartCapacity = 2000;
constexpr uint32_t kMidnightStep = 3600;  // a step back this large is a new day

bool IsDecimal(char c) { return c >= '0' && c <= '9'; }

// `count` decimal digits; stops at the first other character, so it never
// reads past a terminator.
bool ReadDigits(const char* p, int count, int32_t* value) {
  int32_t v = 0;
  for (int i = 0; i < count; ++i) {
    if (!IsDecimal(p[i])) return false;
    v = v * 10 + (p[i] - '0');
  }
  *value = v;
  return true;
}

// Five digits, or '-' and four.
bool ReadAltitude(const char* p, int32_t* metres) {
  if (p[0] == '-') {
    if (!ReadDigits(p + 1, 4, metres)) return false;
    *metres = -*metres;
    return true;
  }
  return ReadDigits(p, 5, metres);
}

// Half away from zero. 180 degrees is 2^31 arcs, one past the range; it
// wraps to -2^31, the same meridian.
int32_t Min1000ToArc(int32_t min1000) {
  const double scaled = min1000 * kMin1000ToArc;
  const double rounded = scaled >= 0.0 ? scaled + 0.5 : scaled - 0.5;
  return static_cast<int32_t>(static_cast<int64_t>(rounded));
}

struct IgcDecoding {
  char line[kLineKept + 1] = {};
  int32_t lineNumber = 0;
  char manufacturer[4] = {};
  uint32_t dateBase = 0;
  uint32_t previousTimeOfDay = 0;
  int32_t gRecords = 0;
  char* pilotField = nullptr;
  int32_t pilotFieldSize = 0;
};

bool StartsWith(const char* text, const char* prefix) { return std::strncmp(text, prefix, std::strlen(prefix)) == 0; }

int MakeRoomForPoint() {
  if (GrowTrackLog(kTrackStartCapacity) == 0) return 0;
  std::printf("Could not allocate memory for track log\n");
  return -1;
}

int ProcessARecord(IgcDecoding& d) {
  if (d.manufacturer[0] != '\0') {
    std::printf("Multiple A-records\n");
    return -1;
  }
  if (std::strlen(d.line) < 4) {
    std::printf("Too short A-record\n");
    return -1;
  }
  for (int i = 1; i <= 3; ++i) {
    const char c = d.line[i];
    if (!IsDecimal(c) && !(c >= 'A' && c <= 'Z') && !(c >= 'a' && c <= 'z')) {
      std::printf("Bad IGC manufacturer found in the A-record\n");
      return -1;
    }
  }
  std::memcpy(d.manufacturer, d.line + 1, 3);
  return 0;
}

int ProcessHRecord(IgcDecoding& d) {
  if (StartsWith(d.line, "HFDTE")) {
    if (d.dateBase != 0) {
      std::printf("Multiple date lines\n");
      return -1;
    }
    const int error = DecodeDateSentence(d.line + 5, &d.dateBase);
    if (error < 0) {
      std::printf("Date error %d on line %d(%s)\n", -error, d.lineNumber, d.line);
      return -1;
    }
  } else if (StartsWith(d.line, "HFPLTPILOT:") && d.pilotField != nullptr && d.pilotFieldSize > 0 &&
             d.pilotField[0] == 1) {
    // The whole line, label included, as the file names have it.
    const size_t kept = std::min(std::strlen(d.line), static_cast<size_t>(std::min(d.pilotFieldSize, 50)));
    std::memcpy(d.pilotField, d.line, kept);
    d.pilotField[kept] = '\0';
    CompressString(d.pilotField);
  }
  return 0;
}

int ProcessBRecord(IgcDecoding& d) {
  if (d.dateBase == 0) {
    std::printf("Missing date line\n");
    return -1;
  }
  if (MakeRoomForPoint() < 0) return -1;
  TrackPoint& point = tGps.pTrackPoints[tGps.nTrackPoints];
  const int error = DecodePosSentence(d.line + 1, &point);
  if (error < 0) {
    std::printf("Pos. error %d on line %d\n", -error, d.lineNumber);
    return -1;
  }
  const uint32_t timeOfDay = point.dwTime;
  const bool first = tGps.nTrackPoints == 0;
  if (!first && d.previousTimeOfDay >= timeOfDay + kMidnightStep) d.dateBase += 86400u;
  point.dwFlags = first ? kTrackPointNewSegment : 0u;
  d.previousTimeOfDay = timeOfDay;
  point.dwTime = timeOfDay + d.dateBase;
  ++tGps.nTrackPoints;
  return 0;
}

int ProcessLine(IgcDecoding& d) {
  const char kind = d.line[0];
  if (kind == 'A') return ProcessARecord(d);
  if (kind != 'H' && kind != 'I' && kind != 'B' && kind != 'G') return 0;
  if (d.manufacturer[0] == '\0') {
    std::printf("Missing A-record\n");
    return -1;
  }
  switch (kind) {
    case 'H':
      return ProcessHRecord(d);
    case 'B':
      return ProcessBRecord(d);
    case 'G':
      ++d.gRecords;
      return 0;
    default:
      return 0;
  }
}

}  // namespace

int DecodeDateSentence(const char* text, uint32_t* gpsTime) {
  int32_t digits[6];
  if (StartsWith(text, "DATE:")) {
    const char* p = text + 5;
    while (*p == ' ') ++p;
    for (int i = 0; i < 6; ++i) {
      if (!ReadDigits(p + i, 1, &digits[i])) return -1 - i;
    }
    if (p[6] != '\0' && p[6] != ',') return -7;
  } else {
    for (int i = 0; i < 6; ++i) {
      if (!ReadDigits(text + i, 1, &digits[i])) return -8 - i;
    }
    if (text[6] != '\0') return -14;
  }
  const uint32_t day = static_cast<uint32_t>(digits[0] * 10 + digits[1]);
  const uint32_t month = static_cast<uint32_t>(digits[2] * 10 + digits[3]);
  const uint32_t year = 2000u + static_cast<uint32_t>(digits[4] * 10 + digits[5]);
  if (day == 0u || day > 31u) return -15;
  if (month == 0u || month > 12u) return -16;
  const SystemTime midnight{year, month, day, 0, 0, 0};
  *gpsTime = ConvertSystemTimeToGpsTime(&midnight);
  return 0;
}

int DecodePosSentence(const char* text, TrackPoint* point) {
  int32_t hour, minute, second, latDegrees, latMinutes, lonDegrees, lonMinutes;
  if (!ReadDigits(text, 2, &hour)) return -1;
  if (hour > 23) return -2;
  if (!ReadDigits(text + 2, 2, &minute)) return -3;
  if (minute > 59) return -4;
  if (!ReadDigits(text + 4, 2, &second)) return -5;
  if (second > 59) return -6;
  if (!ReadDigits(text + 6, 2, &latDegrees)) return -7;
  // 90 degrees is refused while 60.000 minutes pass: kept as it always was.
  if (latDegrees > 89) return -8;
  if (!ReadDigits(text + 8, 5, &latMinutes)) return -9;
  if (latMinutes > 60000) return -10;
  if (text[13] != 'N' && text[13] != 'S') return -11;
  if (!ReadDigits(text + 14, 3, &lonDegrees)) return -12;
  if (lonDegrees > 179) return -13;
  if (!ReadDigits(text + 17, 5, &lonMinutes)) return -14;
  if (lonMinutes > 60000) return -15;
  if (text[22] != 'E' && text[22] != 'W') return -16;
  if (text[23] == '\0') return -17;
  int32_t pressure, gnss;
  if (!ReadAltitude(text + 24, &pressure) || !ReadAltitude(text + 29, &gnss)) return -18;

  int32_t latitude = latDegrees * 60000 + latMinutes;
  int32_t longitude = lonDegrees * 60000 + lonMinutes;
  if (text[13] == 'S') latitude = -latitude;
  if (text[22] == 'W') longitude = -longitude;
  point->dwTime = static_cast<uint32_t>(hour * 3600 + minute * 60 + second);
  point->lLatitude = Min1000ToArc(latitude);
  point->lLongitude = Min1000ToArc(longitude);
  point->lPressureAltitude = pressure;
  point->lGpsAltitude = gnss * 10;
  return 0;
}

int32_t DecodeIgcBuffer(const uint8_t* text, int32_t length, char* pilotField, int32_t pilotFieldSize) {
  ReleaseTrackPoints();
  if (text == nullptr) length = 0;
  IgcDecoding d;
  d.pilotField = pilotField;
  d.pilotFieldSize = pilotFieldSize;

  // A line is what comes before its line feed, cut at its first carriage
  // return and after kLineKept characters. Text after the last line feed is
  // an unfinished line: never processed.
  const uint8_t* p = text;
  const uint8_t* const end = text + (length > 0 ? length : 0);
  while (p < end) {
    const auto* feed = static_cast<const uint8_t*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
    if (feed == nullptr) break;
    size_t kept = std::min(static_cast<size_t>(feed - p), static_cast<size_t>(kLineKept));
    if (const void* carriage = std::memchr(p, '\r', kept)) kept = static_cast<size_t>(static_cast<const uint8_t*>(carriage) - p);
    std::memcpy(d.line, p, kept);
    d.line[kept] = '\0';
    ++d.lineNumber;
    if (ProcessLine(d) < 0) {
      ReleaseTrackPoints();
      return -1;
    }
    p = feed + 1;
  }

  if (d.manufacturer[0] == '\0') {
    std::printf("No A-record found\n");
    ReleaseTrackPoints();
    return -1;
  }
  if (tGps.nTrackPoints == 0) {
    std::printf("No positions found\n");
    ReleaseTrackPoints();
    return -1;
  }
  return d.gRecords;
}

// ---------------------------------------------------------------- conversion

namespace {

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};

// The bytes of a source file: mapped from the page cache where the system
// can, else read into memory of their own.
class SourceText {
 public:
  SourceText() = default;
  SourceText(const SourceText&) = delete;
  SourceText& operator=(const SourceText&) = delete;
  ~SourceText() {
#ifdef MAP_POPULATE
    if (mapped_ != 0) {
      munmap(bytes_, mapped_);
      return;
    }
#endif
    std::free(bytes_);
  }
  void Own(uint8_t* bytes) { bytes_ = bytes; }
  void Map(void* bytes, size_t length) {
    bytes_ = static_cast<uint8_t*>(bytes);
    mapped_ = length;
  }
  const uint8_t* get() const { return bytes_; }

 private:
  uint8_t* bytes_ = nullptr;
  size_t mapped_ = 0;
};

// Reads the whole source file; prints why not and returns -1 when it cannot.
int32_t ReadSourceFile(const char* path, SourceText* text, int32_t* length) {
  std::unique_ptr<FILE, FileCloser> file(std::fopen(path, "rb"));
  // A folder opens here too, but holds nothing to read.
  struct stat info {};
  if (file == nullptr || fstat(fileno(file.get()), &info) != 0 || !S_ISREG(info.st_mode)) {
    std::printf("Couldn't open source file %s\n", path);
    return -1;
  }
  if (std::fseek(file.get(), 0, SEEK_END) != 0) {
    std::printf("Source file fseek() error\n");
    return -1;
  }
  const long size = std::ftell(file.get());
  // An empty file is reported as a position error, as it always was.
  if (size <= 0) {
    std::printf("Source file ftell() error\n");
    return -1;
  }
#ifdef MAP_POPULATE
  // Mapped with every page at once: no copy and no page faults one by one.
  if (size <= INT32_MAX) {
    void* mapped = mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE | MAP_POPULATE, fileno(file.get()), 0);
    if (mapped != MAP_FAILED) {
      text->Map(mapped, static_cast<size_t>(size));
      *length = static_cast<int32_t>(size);
      return 0;
    }
  }
#endif
  uint8_t* bytes = size > INT32_MAX ? nullptr : static_cast<uint8_t*>(pAllocate(static_cast<size_t>(size)));
  if (bytes == nullptr) {
    std::printf("Could not allocate memory for source file\n");
    return -1;
  }
  text->Own(bytes);
  std::rewind(file.get());
  if (std::fread(bytes, 1, static_cast<size_t>(size), file.get()) != static_cast<size_t>(size)) {
    std::printf("Source file read() error\n");
    return -1;
  }
  *length = static_cast<int32_t>(size);
  return 0;
}

}  // namespace

int32_t ReadIgcFile(const char* path) {
  SourceText text;
  int32_t length = 0;
  if (ReadSourceFile(path, &text, &length) < 0) return -1;
  return DecodeIgcBuffer(text.get(), length, nullptr, 0);
}
