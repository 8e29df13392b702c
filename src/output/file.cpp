#include "output/file.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/memory.h"
#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "output/google.h"
#include "output/replace.h"
#include "track/analysis.h"
#include "track/parallel.h"

namespace {

constexpr double kOziDayOfGpsEpoch = 32873.0;  // 1989-12-31 in days since 1899-12-30
constexpr double kSecondsPerDay = 86400.0;
constexpr int32_t kOziNoAltitude = -777;

constexpr char kOziHead[] = "OziExplorer Waypoint File Version 1.0\r\nWGS 84\r\nReserved 2\r\nReserved 3\r\n";
constexpr char kGeoHead[] = "$FormatGEO";

constexpr char pszGpxHead_0[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n";
constexpr char pszGpxHead_1[] = "<gpx xmlns=\"http://www.topografix.com/GPX/1/1\"\r\n";
constexpr char pszGpxHead_2[] = "     creator=\"KestrixMac64 1.06\"\r\n";
constexpr char pszGpxHead_3[] = "     version=\"1.1\"\r\n";
constexpr char pszGpxHead_4[] = "     xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"\r\n";
constexpr char pszGpxHead_5[] =
    "     xsi:schemaLocation=\"http://www.topografix.com/GPX/1/1 http://www.topografix.com/GPX/1/1/gpx.xsd\">\r\n";
constexpr char pszGpxHead_6[] =
    "    <link href=\"https://kestrix.example/\">\r\n"
    "      <text>KestrixMac64 flight instrument tool</text>\r\n"
    "    </link>\r\n";
constexpr char pszGpxHead_7[] = "    <time>%d-%02d-%02dT%02d:%02d:%02dZ</time>\r\n";
constexpr char pszGpxHead_8[] = "    <bounds minlat=\"%.6f\" minlon=\"%.6f\" maxlat=\"%.6f\" maxlon=\"%.6f\"/>\r\n";

constexpr char kKmlWaypointsHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
    "<kml xmlns=\"http://earth.google.com/kml/2.1\">\r\n"
    "  <Document>\r\n"
    "    <Folder>\r\n"
    "      <name>Waypoints</name>\r\n";
constexpr char kKmlWaypointsTail[] = "    </Folder>\r\n  </Document>\r\n</kml>\r\n";

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

struct MemoryFree {
  void operator()(char* bytes) const { std::free(bytes); }
};

// Truncation toward zero that saturates instead of leaving the 32-bit range.
int32_t TruncateToInt32(double value) {
  if (value != value) return 0;
  if (value >= 2147483647.0) return INT32_MAX;
  if (value <= -2147483648.0) return INT32_MIN;
  return static_cast<int32_t>(value);
}

// Rounds half away from zero: positive by adding 0.5 and truncating,
// negative as the negated rounding of its magnitude.
int32_t RoundHalfAway(double value) {
  if (value >= 0.0) return TruncateToInt32(value + 0.5);
  return -TruncateToInt32(0.5 - value);
}

// ----- Writing ---------------------------------------------------------------

int StartText(TextBuffer* text) {
  text->data = static_cast<char*>(pAllocate(kTextBufferInitialSize));
  if (text->data == nullptr) return -1;
  text->capacity = kTextBufferInitialSize;
  text->length = 0;
  text->data[0] = '\0';
  return 0;
}

bool FileExists(const char* name) {
  FileHandle file(std::fopen(name, "rb"));
  return file != nullptr;
}

// Common end of the waypoint writers, once the text is complete.
// With --skip an existing file is reported and left as it is.
int32_t WriteFileUnlessSkipped(const char* name, const char* data, size_t length, const char* openFailure,
                               const char* writeFailure) {
  if (tGps.bSkipExisting != 0 && FileExists(name)) {
    std::printf("File %s already exists\n", name);
    return -1;
  }
  return WriteWholeFile(name, data, length, openFailure, writeFailure);
}

int32_t FinishWaypointFile(const char* name, const TextBuffer& text) {
  if (WriteFileUnlessSkipped(name, text.data, static_cast<size_t>(text.length), "Couldn't open file %s for writing\n",
                             "Error writing to %s\n") < 0) {
    return -1;
  }
  std::printf("File %s written\n", name);
  return 0;
}

// Instrument kinds that no switch selects; the saving checks still test them.
constexpr int32_t kGpsKindTimeStampCheck = 2;
constexpr int32_t kGpsKindWithoutChecks = 8;

const char* TextOrNull(const char* text) { return text[0] == '\0' ? nullptr : text; }

int32_t FeetFromMetres(int32_t metres) { return RoundHalfAway(metres * kFeetPerMetre); }

// Calls `write` with each waypoint of the list, its number and its position
// in degrees; -1 as soon as a piece cannot be added.
template <typename Write>
int AddEachWaypoint(Write write) {
  for (int32_t i = 0; i < tGps.nWaypoints; ++i) {
    const Waypoint& w = tGps.pWaypoints[i];
    double latitude;
    double longitude;
    ConvertArcToGeoPos(w.lLatitude, w.lLongitude, &latitude, &longitude);
    if (write(i, w, latitude * kRadiansToDegrees, longitude * kRadiansToDegrees) < 0) return -1;
  }
  return 0;
}

// Identifiers and comments are bounded by their fields' sizes, terminated or not.
int BuildOziText(TextBuffer* text) {
  if (StartText(text) < 0 || AddFormattedTxt(text, "%s", kOziHead) < 0) return -1;
  return AddEachWaypoint([text](int32_t i, const Waypoint& w, double latitude, double longitude) {
    return AddFormattedTxt(text, "%4d,%-14.6s,%11.6f,%11.6f,%.7f,%d, 1, 3, 0, 65535,%-40.40s, 0, 0, 0, %d\r\n", i + 1,
                           w.szId, latitude, longitude, kOziDayOfGpsEpoch + w.dwTime / kSecondsPerDay, 0, w.szComment,
                           FeetFromMetres(w.lAltitude));
  });
}

int BuildGpxText(TextBuffer* text) {
  if (StartText(text) < 0) return -1;
  for (const char* piece : {pszGpxHead_0, pszGpxHead_1, pszGpxHead_2, pszGpxHead_3, pszGpxHead_4, pszGpxHead_5,
                            "  <metadata>\r\n", pszGpxHead_6}) {
    if (AddFormattedTxt(text, "%s", piece) < 0) return -1;
  }
  SystemTime now{};
  GetDownloadTime(&now);
  if (AddFormattedTxt(text, pszGpxHead_7, now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond) < 0) {
    return -1;
  }
  // A waypoint that lowers a minimum is never tried as a maximum, so the
  // first one leaves both maxima at their start. Files written so exist.
  double minLatitude = 3.0, maxLatitude = -3.0, minLongitude = 3.0, maxLongitude = -3.0;
  for (int32_t i = 0; i < tGps.nWaypoints; ++i) {
    double latitude;
    double longitude;
    ConvertArcToGeoPos(tGps.pWaypoints[i].lLatitude, tGps.pWaypoints[i].lLongitude, &latitude, &longitude);
    if (minLatitude > latitude) {
      minLatitude = latitude;
    } else if (latitude > maxLatitude) {
      maxLatitude = latitude;
    }
    if (minLongitude > longitude) {
      minLongitude = longitude;
    } else if (longitude > maxLongitude) {
      maxLongitude = longitude;
    }
  }
  if (AddFormattedTxt(text, pszGpxHead_8, minLatitude * kRadiansToDegrees, minLongitude * kRadiansToDegrees,
                      maxLatitude * kRadiansToDegrees, maxLongitude * kRadiansToDegrees) < 0 ||
      AddFormattedTxt(text, "  </metadata>\r\n") < 0) {
    return -1;
  }
  int added = AddEachWaypoint([text](int32_t, const Waypoint& w, double latitude, double longitude) {
    SystemTime time{};
    ConvertGpsTimeToSystemTime(w.dwTime, &time);
    bool ok = AddFormattedTxt(text, "  <wpt lat=\"%.6f\" lon=\"%.6f\">\r\n", latitude, longitude) >= 0 &&
              AddFormattedTxt(text, "    <ele>%.1f</ele>\r\n", static_cast<double>(w.lAltitude)) >= 0 &&
              AddFormattedTxt(text, "    <time>%d-%02d-%02dT%02d:%02d:%02d</time>\r\n", time.wYear, time.wMonth,
                              time.wDay, time.wHour, time.wMinute, time.wSecond) >= 0 &&
              AddFormattedTxt(text, "    <name>%.6s</name>\r\n", w.szId) >= 0 &&
              AddFormattedTxt(text, "    <cmt>%.40s</cmt>\r\n", w.szComment) >= 0 &&
              AddFormattedTxt(text, "  </wpt>\r\n") >= 0;
    return ok ? 0 : -1;
  });
  return added < 0 ? -1 : AddFormattedTxt(text, "</gpx>\r\n");
}

int BuildKmlWaypointText(TextBuffer* text) {
  if (StartText(text) < 0 || AddFormattedTxt(text, "%s", kKmlWaypointsHead) < 0) return -1;
  int added = AddEachWaypoint([text](int32_t, const Waypoint& w, double latitude, double longitude) {
    bool ok = AddFormattedTxt(text, "      <Placemark>\r\n") >= 0 &&
              AddFormattedTxt(text, "        <name>%.6s</name>\r\n", w.szId) >= 0 &&
              AddFormattedTxt(text, "        <description>%.40s</description>\r\n", w.szComment) >= 0 &&
              AddFormattedTxt(text, "        <Point>\r\n") >= 0 &&
              AddFormattedTxt(text, "        <coordinates>%.6f,%.6f,%.6f</coordinates>\r\n", longitude, latitude,
                              static_cast<double>(w.lAltitude)) >= 0 &&
              AddFormattedTxt(text, "        </Point>\r\n") >= 0 && AddFormattedTxt(text, "      </Placemark>\r\n") >= 0;
    return ok ? 0 : -1;
  });
  return added < 0 ? -1 : AddFormattedTxt(text, "%s", kKmlWaypointsTail);
}

int32_t SaveWaypointFile(const char* extension, int (*build)(TextBuffer*)) {
  char name[kFileNameLimit + 1];
  if (MakeWptFileName(name, kFileNameLimit, extension) < 0) return -1;
  TextBuffer text;
  if (build(&text) < 0) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  return FinishWaypointFile(name, text);
}

// ----- Reading ---------------------------------------------------------------

// The decoders' messages; --silent suppresses them, not their results.
void Report(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Report(const char* format, ...) {
  if (tGps.bSilent != 0) return;
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
}

// Stores a decoded waypoint, the list growing when full.
int StoreWaypoint(const Waypoint& waypoint) {
  if (GrowArray(&tGps.pWaypoints, &tGps.nWaypointCapacity, tGps.nWaypoints, kWaypointInitialCapacity) < 0) return -1;
  tGps.pWaypoints[tGps.nWaypoints++] = waypoint;
  return 0;
}

int32_t FinishWaypointList() {
  if (tGps.nWaypoints == 0) {
    ReleaseWaypointList();
    Report("No waypoints found\n");
    return -1;
  }
  Report("%d waypoints found\n", tGps.nWaypoints);
  return 0;
}

char* ExtractItem(char* text, char** item, char separator) {
  while (*text == ' ') ++text;
  *item = text;
  char* end = std::strchr(text, separator);
  if (end == nullptr) return nullptr;
  *end = '\0';
  return end + 1;
}

bool IsIdCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
}

// The comma-separated fields of one Ozi line, each of which must be present.
class OziFields {
 public:
  explicit OziFields(char* line) : rest_(line) {}
  // Takes the next field; false when the line ended before it.
  bool Next(const char** field) {
    if (rest_ == nullptr) return false;
    char* item = nullptr;
    rest_ = ExtractCommaItem(rest_, &item);
    *field = item;
    return true;
  }
  bool Skip(int count) {
    const char* ignored = nullptr;
    for (int i = 0; i < count; ++i) {
      if (!Next(&ignored)) return false;
    }
    return true;
  }

 private:
  char* rest_;
};

int DecodeOziLine(char* line, uint32_t now, Waypoint* waypoint) {
  OziFields fields(line);
  const char* field = nullptr;
  if (!fields.Skip(1)) return -1;  // the number
  if (!fields.Next(&field) || DecodeWaypointId(field, waypoint->szId) < 0) return -1;
  double latitude;
  double longitude;
  if (!fields.Next(&field) || DecodeDecimalString(field, &latitude) < 0) return -1;
  if (!(latitude > -90.0 && latitude < 90.0)) return -1;
  if (!fields.Next(&field) || DecodeDecimalString(field, &longitude) < 0) return -1;
  if (!(longitude > -180.0 && longitude < 180.0)) return -1;
  ConvertGeoToArcPos(latitude * kDegreesToRadians, longitude * kDegreesToRadians, &waypoint->lLatitude,
                     &waypoint->lLongitude);
  double date;
  if (!fields.Next(&field) || DecodeDecimalString(field, &date) < 0) return -1;
  if (date == 0.0) {
    waypoint->dwTime = now;
  } else {
    if (date < kOziDayOfGpsEpoch) date = kOziDayOfGpsEpoch;
    const double seconds = (date - kOziDayOfGpsEpoch) * kSecondsPerDay + 0.5;
    waypoint->dwTime = seconds >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<uint32_t>(seconds);
  }
  uint32_t symbol;
  if (!fields.Next(&field) || DecodeUintString(field, &symbol) < 0) return -1;
  waypoint->dwReserved = 0;
  if (!fields.Skip(4)) return -1;
  waypoint->lAltitude = 0;
  waypoint->szComment[0] = '\0';
  if (!fields.Next(&field)) return -1;
  DecodeWaypointCmt(field, waypoint->szComment);
  if (!fields.Skip(3)) return -1;
  double feet;
  if (!fields.Next(&field) || DecodeDecimalString(field, &feet) < 0) return -1;
  const int32_t wholeFeet = TruncateToInt32(feet);
  if (wholeFeet != kOziNoAltitude) {
    const int32_t metres = RoundHalfAway(wholeFeet * kMetresPerFoot);
    waypoint->lAltitude = metres < 0 ? 0 : metres;
  }
  return 0;
}

int DecodeGeoLine(char* line, uint32_t now, Waypoint* waypoint) {
  char* id = nullptr;
  char* rest = ExtractSpaceItem(line, &id);
  if (rest == nullptr || DecodeWaypointId(id, waypoint->szId) < 0) return -1;
  double latitude;
  double longitude;
  const char* end = DecodeWptPosString(rest, 1, &latitude);
  if (end == nullptr || *end != ' ') return -1;
  end = DecodeWptPosString(end, 0, &longitude);
  if (end == nullptr || *end != ' ') return -1;
  ConvertGeoToArcPos(latitude * kDegreesToRadians, longitude * kDegreesToRadians, &waypoint->lLatitude,
                     &waypoint->lLongitude);
  char* altitudeText = nullptr;
  char* remainder = ExtractSpaceItem(rest + (end - rest), &altitudeText);
  double altitude;
  if (DecodeDecimalString(altitudeText, &altitude) < 0) return -1;
  waypoint->lAltitude = altitude < 0.0 ? 0 : TruncateToInt32(altitude + 0.5);
  waypoint->dwReserved = 0;
  waypoint->szComment[0] = '\0';
  if (remainder != nullptr) {
    // A trailing "[A]" marks the waypoint; other letters there are only cut.
    const size_t length = std::strlen(remainder);
    if (length >= 3 && remainder[length - 3] == '[' && remainder[length - 1] == ']') {
      if (remainder[length - 2] == 'A' || remainder[length - 2] == 'a') waypoint->dwReserved = 1;
      remainder[length - 3] = '\0';
    }
    DecodeWaypointCmt(remainder, waypoint->szComment);
  }
  waypoint->dwTime = now;
  return 0;
}

// Decodes every line from `rest` on, numbering them from `lineNumber`.
int32_t DecodeWaypointLines(char* rest, int32_t lineNumber, int (*decode)(char*, uint32_t, Waypoint*)) {
  if (StartWaypointList() < 0) {
    Report("Waypoint memory allocation error\n");
    return -1;
  }
  const uint32_t now = GetCurrentGpsTime();
  while (rest != nullptr) {
    char* line = nullptr;
    rest = ExtractLine(rest, &line);
    Waypoint waypoint{};
    if (decode(line, now, &waypoint) < 0) {
      ReleaseWaypointList();
      Report("Bad line %d\n", lineNumber);
      return -1;
    }
    if (StoreWaypoint(waypoint) < 0) {
      ReleaseWaypointList();
      Report("Waypoint memory allocation error\n");
      return -1;
    }
    ++lineNumber;
  }
  return FinishWaypointList();
}

}  // namespace

int AddFormattedTxt(TextBuffer* text, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  text->lineLength = std::vsnprintf(text->line, sizeof text->line, format, arguments);
  va_end(arguments);
  return AddLogTxt(text);
}

int32_t MakeWptFileName(char* buffer, int32_t maxLength, const char* extension) {
  char date[20];
  const char* base = tGps.szFileName;
  if (base[0] == '\0') {
    SystemTime now{};
    GetDownloadTime(&now);
    std::snprintf(date, sizeof date, "%d-%02d-%02d_%02d-%02d", now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute);
    base = date;
  }
  const size_t limit = maxLength < 0 ? 0 : static_cast<size_t>(maxLength);
  const size_t baseLength = std::strlen(base);
  const size_t extensionLength = std::strlen(extension);
  if (baseLength > limit || extensionLength > limit - baseLength) {
    std::printf("File name too long\n");
    return -1;
  }
  std::memcpy(buffer, base, baseLength);
  std::memcpy(buffer + baseLength, extension, extensionLength + 1);
  return 0;
}

int32_t MakeLogFileName(char* buffer, int32_t maxLength, uint32_t gpsTime, const char* extension) {
  SystemTime time{};
  ConvertGpsTimeToSystemTime(gpsTime, &time);
  char datePart[100];
  const int dateLength = std::snprintf(datePart, sizeof datePart, "%d-%02d-%02d_%02d-%02d", time.wYear, time.wMonth,
                                       time.wDay, time.wHour, time.wMinute);
  // A first byte of 1 marks a name still to come from the instrument.
  if (static_cast<signed char>(tGps.szPilotName[0]) > 1) {
    int length = dateLength;
    datePart[length++] = '_';
    const int room = 98 - dateLength;
    for (int i = 0; i < room && i < static_cast<int>(sizeof tGps.szPilotName) && tGps.szPilotName[i] != '\0'; ++i) {
      datePart[length++] = tGps.szPilotName[i] == ' ' ? '_' : tGps.szPilotName[i];
    }
    datePart[length] = '\0';
  }
  const size_t limit = maxLength < 0 ? 0 : static_cast<size_t>(maxLength);
  const size_t datePartLength = std::strlen(datePart);
  const char* output = tGps.szFileName;
  const size_t outputLength = strnlen(output, sizeof tGps.szFileName);
  size_t length = 0;
  bool fits = true;
  if (outputLength > 0) {
    // A name ending in "/" is a folder for dated names; any other is the
    // complete base name, used for every track.
    fits = outputLength <= limit;
    if (fits) {
      std::memcpy(buffer, output, outputLength);
      length = outputLength;
      if (output[outputLength - 1] == '/') {
        fits = datePartLength <= limit - length;
        if (fits) {
          std::memcpy(buffer + length, datePart, datePartLength);
          length += datePartLength;
        }
      }
    }
  } else {
    fits = datePartLength <= limit;
    if (fits) {
      std::memcpy(buffer, datePart, datePartLength);
      length = datePartLength;
    }
  }
  const size_t extensionLength = std::strlen(extension);
  if (!fits || extensionLength > limit - length) {
    std::printf("File name too long\n");
    return -1;
  }
  std::memcpy(buffer + length, extension, extensionLength + 1);
  return 0;
}

int32_t SaveTracklog() {
  if (tGps.pTrackPoints == nullptr || tGps.nTrackPoints == 0) return -1;
  if (tGps.dwGpsType == kGpsKindTimeStampCheck && CheckForInvalidTimeStamps() < 0) return -1;
  if (tGps.dwGpsType != kGpsKindWithoutChecks) {
    if (CheckForMultipleTracks() < 0 || CheckForTimestampConsistency() < 0 || CheckForSpeedConsistency() < 0) {
      return -1;
    }
  }
  // A file that fails is reported and the next one is still tried.
  if ((tGps.dwFileTypes & kFileIgc) != 0) SaveIgcTrackLog(0);
  if ((tGps.dwFileTypes & kFileKml) != 0) SaveKmlTrackLog(nullptr, 0);
  if (tGps.bTrim == 0) return 0;
  TrimTrack();
  if ((tGps.dwFileTypes & kFileIgc) != 0) SaveIgcTrackLog(1);
  if ((tGps.dwFileTypes & kFileKml) != 0) SaveKmlTrackLog(nullptr, 1);
  return 0;
}

int32_t SaveIgcTrackLog(int32_t trimmed) {
  std::unique_ptr<char, MemoryFree> encoded;
  const char* bytes = nullptr;
  size_t length = 0;
  uint32_t namingTime = 0;
  if (tGps.pbRawLog != nullptr) {
    // The instrument's own file, signed by it: written as it came, also
    // under the trimmed name.
    std::printf("Raw igc log downloaded (%d bytes)\n", tGps.nRawLogLength);
    bytes = reinterpret_cast<const char*>(tGps.pbRawLog);
    length = tGps.nRawLogLength > 0 ? static_cast<size_t>(tGps.nRawLogLength) : 0;
    namingTime = tGps.dwFirstPointTime;
  } else {
    std::printf("Making igc log\n");
    if (tGps.pTrackPoints == nullptr || tGps.nTrackPoints <= 0) return -1;
    char* result = nullptr;
    const int32_t encodedLength =
        EncodeIgcLog(tGps.pTrackPoints, static_cast<uint32_t>(tGps.nTrackPoints), TextOrNull(tGps.szIgcPilotName),
                     TextOrNull(tGps.szIgcGliderType), TextOrNull(tGps.szIgcGliderId), TextOrNull(tGps.szIgcCompClass),
                     TextOrNull(tGps.szIgcSiteName), tGps.szProduct, nullptr, nullptr, 0, tGps.dwDownloadTime, &result,
                     tGps.bSignature);
    if (encodedLength < 0) {
      std::printf("Memory allocation error\n");
      return -1;
    }
    encoded.reset(result);
    bytes = result;
    length = static_cast<size_t>(encodedLength);
    namingTime = tGps.pTrackPoints[0].dwTime;
  }
  char name[kFileNameLimit + 1];
  if (MakeLogFileName(name, kFileNameLimit, namingTime, trimmed != 0 ? "-T.igc" : ".igc") < 0) return -1;
  if (WriteFileUnlessSkipped(name, bytes, length, "Couldn't create file %s\n", "Error writing file %s\n") < 0)
    return -1;
  std::printf("File %s written\n", name);
  return 0;
}

int32_t SaveKmlTrackLog(const char* name, int32_t trimmed) {
  if (tGps.pTrackPoints == nullptr || tGps.nTrackPoints < 5) {
    std::printf("Too few points for a .kml file\n");
    return -1;
  }
  FlightAnalysis record{};
  record.nPoints = tGps.nTrackPoints;
  record.pPoints = tGps.pTrackPoints;
  record.dwDownloadTime = tGps.dwDownloadTime;
  record.bSignature = tGps.bSignature;
  record.bPilotIdentity = 0;
  record.nCivlPilotId = -1;
  record.nCompPilotId = -1;
  record.bUtc = tGps.bUtc;
  record.bPressureAltitude = tGps.bPressureAltitude;
  // The track placemark needs nothing of the analysis: both at once.
  GoogleTrack track;
  int32_t analysed = 0;
  RunInParallel([&record, &analysed] { analysed = AnalyzeTrack(&record); },
                [&record, &track] { MakeGoogleTrack(&record, &track); });
  if (analysed < 0) return -1;
  TextBuffer text;
  if (MakeGoogleFolder(&record, &text, &track) < 0) {
    std::printf("Make .kml text: Memory allocation error\n");
    return -1;
  }
  char made[kFileNameLimit + 1];
  int32_t written;
  if (name == nullptr) {
    if (MakeLogFileName(made, kFileNameLimit, tGps.pTrackPoints[0].dwTime, trimmed != 0 ? "-T.kml" : ".kml") < 0) {
      return -1;
    }
    name = made;
    written = WriteFileUnlessSkipped(name, text.data, static_cast<size_t>(text.length),
                                     "Couldn't open file %s for writing\n", "Error writing to %s\n");
  } else {
    // A name chosen by the caller replaces what is there, --skip or not.
    written = WriteWholeFile(name, text.data, static_cast<size_t>(text.length), "Couldn't open file %s for writing\n",
                             "Error writing to %s\n");
  }
  if (written < 0) return -1;
  std::printf("File %s written, %s\n", name, tGps.bSignature != 0 ? "signature OK" : "NO signature");
  return 0;
}

int32_t SaveOziWaypoints() { return SaveWaypointFile(".wpt", BuildOziText); }

int32_t SaveGpxWaypoints() { return SaveWaypointFile(".gpx", BuildGpxText); }

int32_t SaveKmlWaypoints() { return SaveWaypointFile(".kml", BuildKmlWaypointText); }

char* ExtractLine(char* text, char** line) {
  while (*text == ' ') ++text;
  *line = text;
  char* end = text + std::strcspn(text, "\r\n");
  if (*end == '\0') return nullptr;
  while (*end == '\r' || *end == '\n') *end++ = '\0';
  return *end == '\0' ? nullptr : end;
}

char* ExtractCommaItem(char* text, char** item) { return ExtractItem(text, item, ','); }

char* ExtractSpaceItem(char* text, char** item) { return ExtractItem(text, item, ' '); }

int32_t DecodeWaypointId(const char* text, char* id) {
  id[0] = '\0';
  const char* p = text;
  while (*p == ' ') ++p;
  if (*p == '\0') return -1;
  int length = 0;
  while (length < 6 && *p != '\0' && *p != ' ') {
    if (!IsIdCharacter(*p)) {
      id[0] = '\0';
      return -1;
    }
    id[length++] = *p++;
  }
  id[length] = '\0';
  // Longer identifiers are refused, never shortened.
  while (*p == ' ') ++p;
  if (*p != '\0') {
    id[0] = '\0';
    return -1;
  }
  return 0;
}

void DecodeWaypointCmt(const char* text, char* comment) {
  const char* p = text;
  while (*p == ' ') ++p;
  int length = 0;
  for (; length < 40 && p[length] != '\0'; ++length) {
    const char c = p[length];
    comment[length] = IsIdCharacter(c) || c == ' ' ? c : '-';
  }
  while (length > 0 && comment[length - 1] == ' ') --length;
  comment[length] = '\0';
}

int32_t DecodeOziWpts(char* text) {
  char* rest = text;
  for (int i = 0; i < 4; ++i) {
    char* line = nullptr;
    rest = ExtractLine(rest, &line);
    if (rest == nullptr) {
      Report("Bad prolog\n");
      return -1;
    }
  }
  return DecodeWaypointLines(rest, 5, DecodeOziLine);
}

int32_t DecodeGeoWpts(char* text) {
  char* line = nullptr;
  char* rest = ExtractLine(text, &line);
  if (rest == nullptr) return -1;
  return DecodeWaypointLines(rest, 2, DecodeGeoLine);
}

int32_t ReadWaypointFile() {
  ReleaseWaypointList();
  FileHandle file(std::fopen(tGps.szFileName, "rb"));
  // A folder opens here but has no content to read.
  struct stat info {};
  if (file == nullptr || fstat(fileno(file.get()), &info) != 0 || S_ISDIR(info.st_mode)) {
    std::printf("Couldn't open file for reading\n");
    return -1;
  }
  long size = -1;
  if (std::fseek(file.get(), 0, SEEK_END) != 0 || (size = std::ftell(file.get())) < 0 ||
      std::fseek(file.get(), 0, SEEK_SET) != 0) {
    std::printf("File fseek() error\n");
    return -1;
  }
  if (size == 0) {
    std::printf("File is empty\n");
    return -1;
  }
  const size_t length = static_cast<size_t>(size);
  std::unique_ptr<char, MemoryFree> text(static_cast<char*>(pAllocate(length + 1)));
  if (text == nullptr) {
    std::printf("File buffer memory allocation error\n");
    return -1;
  }
  if (std::fread(text.get(), 1, length, file.get()) != length) {
    std::printf("File read error\n");
    return -1;
  }
  file.reset();
  text.get()[length] = '\0';
  if (std::strncmp(text.get(), kOziHead, 25) == 0) return DecodeOziWpts(text.get());
  if (std::strncmp(text.get(), kGeoHead, 10) == 0) return DecodeGeoWpts(text.get());
  std::printf("Unrecognized waypoint file format\n");
  return -1;
}
