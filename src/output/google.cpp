#include "output/google.h"

#include <charconv>
#include <cstdarg>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "core/memory.h"
#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "link/string.h"
#include "output/hash.h"
#include "track/analysis.h"

namespace {

// The digest secret, last character first, each byte XORed with its
// position's key, so that the plain text appears nowhere in the program.
// Volatile keeps the compiler from unscrambling it at build time.
const volatile uint8_t abXmlStart[kXmlStartLength] = {0x26, 0x41, 0xC4, 0xC3, 0xE4, 0xA1, 0x72, 0x1E, 0x13,
                                                      0x0C, 0x4C, 0xD0, 0xCE, 0xF6, 0xC5, 0x7E, 0x78};

constexpr uint8_t XmlStartKey(int32_t position) { return static_cast<uint8_t>(0x5C + 29 * position); }

constexpr uint32_t kUnknownDownloadTime = 0xFFFFFFFFu;
constexpr int32_t kTimesPerLine = 25;
constexpr int32_t kCoordinatesPerLine = 5;
constexpr char kHashPlaceholder[] = "0000000000000000000000000000000000000000";
// Attributes after the first continue on lines of their own.
constexpr char kAttributeBreak[] = "\r\n                ";

// One distance result as a placemark: which record field, how many of its
// points, and the texts that present it.
struct ResultLayout {
  DistanceResult FlightAnalysis::*result;
  int32_t points;
  const char* type;
  const char* name;
  const char* heading;
  const char* color;
  bool triangle;
};

constexpr ResultLayout kResultLayouts[] = {
    {&FlightAnalysis::tFivePoint, 5, "distance_5_point", "Distance over 5 points", "Greatest distance using 5 points",
     "FFFF0000", false},
    {&FlightAnalysis::tFourPoint, 4, "distance_4_point", "Distance over 4 points", "Greatest distance using 4 points",
     "FFFF0000", false},
    {&FlightAnalysis::tThreePoint, 3, "distance_3_point", "Distance over 3 points", "Greatest distance using 3 points",
     "FFFF0000", false},
    {&FlightAnalysis::tOpenDistance, 2, "distance_open", "Open distance", "Greatest distance between any 2 points",
     "FF0000FF", false},
    {&FlightAnalysis::tOutAndReturn, 3, "distance_out_and_return", "Out-and-return distance", "Out-and-return distance",
     "FFFF0000", false},
    {&FlightAnalysis::tFlatTriangle, 5, "distance_flat_triangle", "Flat triangle", "Flat triangle", "FFFF0000", true},
    {&FlightAnalysis::tFaiTriangle, 5, "distance_fai_triangle", "FAI triangle", "FAI triangle", "FFFF0000", true},
};

constexpr int32_t kListRoomPerPoint = 64;
constexpr int32_t kDocumentRoom = 65536;

// Room for `needed` bytes and the terminator, the buffer doubling as
// AddLogTxt doubles it.
int Reserve(TextBuffer* text, int64_t needed) {
  if (text->data == nullptr) return -1;
  int64_t capacity = text->capacity;
  while (needed + 1 >= capacity) capacity *= 2;
  if (capacity > INT32_MAX) return -1;
  if (capacity != text->capacity) {
    char* grown = static_cast<char*>(pAllocate(static_cast<size_t>(capacity)));
    if (grown == nullptr) return -1;
    std::memcpy(grown, text->data, static_cast<size_t>(text->length) + 1);
    std::free(text->data);
    text->data = grown;
    text->capacity = static_cast<int32_t>(capacity);
  }
  return 0;
}

// Appends a long text at once.
int AppendText(TextBuffer* text, const char* data, int32_t length) {
  if (Reserve(text, static_cast<int64_t>(text->length) + length) < 0) return -1;
  std::memcpy(text->data + text->length, data, static_cast<size_t>(length));
  text->length += length;
  text->data[text->length] = '\0';
  return 0;
}

// Appends the pieces of one document. After the first failed append the
// text is gone and every later piece is ignored, so callers check once.
class KmlText {
 public:
  explicit KmlText(TextBuffer* text) : text_(text) {}

  void Add(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list arguments;
    va_start(arguments, format);
    Append(format, arguments, nullptr);
    va_end(arguments);
  }

  // A value under the digest: its text, exactly as appended, is also hashed.
  void AddDigested(HashContext* hash, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    va_list arguments;
    va_start(arguments, format);
    Append(format, arguments, hash);
    va_end(arguments);
  }

  // A finished piece of any length, as it is.
  void AddRaw(const char* data, int32_t length) {
    if (failed_) return;
    failed_ = AppendText(text_, data, length) < 0;
  }

  bool failed() const { return failed_; }
  int32_t length() const { return text_->length; }

 private:
  void Append(const char* format, va_list arguments, HashContext* hash) {
    if (failed_) return;
    text_->lineLength = std::vsnprintf(text_->line, sizeof text_->line, format, arguments);
    if (hash != nullptr) HashString(hash, text_->line);
    failed_ = AddLogTxt(text_) < 0;
  }

  TextBuffer* text_;
  bool failed_ = false;
};

// The values of a list, `perLine` to a line: each value is written at
// Room() and counted by Put(); a full line (or the last) goes to the text
// with its line end and to the digest without.
class ListLines {
 public:
  ListLines(KmlText& kml, HashContext* hash, int32_t perLine) : kml_(kml), hash_(hash), perLine_(perLine) {}
  char* Room() { return line_ + used_; }
  void Put(int32_t length, bool last) {
    used_ += length;
    if (++values_ < perLine_ && !last) return;
    HashBuffer(hash_, reinterpret_cast<const uint8_t*>(line_), used_);
    line_[used_++] = '\r';
    line_[used_++] = '\n';
    kml_.AddRaw(line_, used_);
    used_ = 0;
    values_ = 0;
  }

 private:
  KmlText& kml_;
  HashContext* hash_;
  int32_t perLine_;
  int32_t used_ = 0;
  int32_t values_ = 0;
  char line_[1024];  // 25 values of at most 40 characters, or 5 of 64
};

// Orders in which a result's points are drawn.
constexpr int kInOrder[] = {0, 1, 2, 3, 4};
constexpr int kClosedTriangle[] = {1, 2, 3, 1};
constexpr int kStartToFinish[] = {0, 4};

bool IsUnusableTime(uint32_t time) { return time == 0u || time == 0x7FFFFFFFu || time == 0xFFFFFFFFu; }

// Metres from decimetres: half up for heights above zero, toward zero below.
int32_t AltitudeMetres(int32_t decimetres) { return static_cast<int32_t>((int64_t{decimetres} + 5) / 10); }

// Rounds a speed by adding 0.5 and truncating, kept inside int's range.
int RoundSpeed(double kmh) {
  const double rounded = kmh + 0.5;
  if (!(rounded > -2147483648.0)) return rounded != rounded ? 0 : -2147483647 - 1;
  if (rounded >= 2147483647.0) return 2147483647;
  return static_cast<int>(rounded);
}

// "%d " for a list value, "%d" for the last one; returns the length.
int32_t EncodeListInteger(char* out, int32_t number, bool last) {
  char* end = std::to_chars(out, out + 16, number).ptr;
  if (!last) *end++ = ' ';
  *end = '\0';
  return static_cast<int32_t>(end - out);
}

void FormatCalendarTime(char* out, size_t size, uint32_t gpsTime, bool utc) {
  SystemTime t{};
  ConvertGpsTimeToSystemTime(gpsTime, &t);
  std::snprintf(out, size, "%d-%02d-%02dT%02d:%02d:%02d%s", static_cast<int>(t.wYear), static_cast<int>(t.wMonth),
                static_cast<int>(t.wDay), static_cast<int>(t.wHour), static_cast<int>(t.wMinute),
                static_cast<int>(t.wSecond), utc ? "Z" : "");
}

void AddCoordinate(KmlText& kml, const TrackPoint& point, const char* indent) {
  double latitude;
  double longitude;
  ConvertArcToGeoPos(point.lLatitude, point.lLongitude, &latitude, &longitude);
  kml.Add("%s          %.6f,%.6f,%d\r\n", indent, longitude * kRadiansToDegrees, latitude * kRadiansToDegrees,
          AltitudeMetres(point.lGpsAltitude));
}

void AddHead(KmlText& kml) {
  kml.Add("%s", pszKmlHead);
  kml.Add("  <Folder>\r\n");
  kml.Add("    <Metadata src=\"KestrixMac64\" v=\"1.06\" type=\"trip\"/>\r\n");
  kml.Add("    <open>1</open>\r\n");
  kml.Add("    <name>Trip</name>\r\n");
  kml.Add("    <description><![CDATA[");
  kml.Add("\r\n<pre>\r\n");
  kml.Add("Flight statistics\r\n");
}

void AddStatistics(KmlText& kml, const FlightAnalysis& record) {
  SystemTime start{};
  SystemTime end{};
  ConvertGpsTimeToSystemTime(record.dwStartTime, &start);
  ConvertGpsTimeToSystemTime(record.dwEndTime, &end);
  const uint32_t duration = record.dwDuration;
  kml.Add("Date                 %4d-%02d-%02d\r\n", static_cast<int>(start.wYear), static_cast<int>(start.wMonth),
          static_cast<int>(start.wDay));
  kml.Add("Start/finish         %02d:%02d:%02d - %02d:%02d:%02d\r\n", static_cast<int>(start.wHour),
          static_cast<int>(start.wMinute), static_cast<int>(start.wSecond), static_cast<int>(end.wHour),
          static_cast<int>(end.wMinute), static_cast<int>(end.wSecond));
  kml.Add("Duration             %d : %02d : %02d\r\n", static_cast<int>(duration / 3600u),
          static_cast<int>(duration / 60u % 60u), static_cast<int>(duration % 60u));
  kml.Add("Max./min. height     %d / %d m\r\n", record.nHighestAltitude, record.nLowestAltitude);
  kml.Add("Max. mean/top speed  %d km/h / %d km/h\r\n", RoundSpeed(record.dMeanSpeed), RoundSpeed(record.dTopSpeed));
  kml.Add("Max/min climb rate   %.2f / %.2f m/s over 60s\r\n", record.dBestClimb, record.dWorstSink);
  kml.Add("Total distance       %.2f km\r\n", record.dTrackLength * 0.001);
  kml.Add("</pre>]]>\r\n");
  kml.Add("    </description>\r\n");
}

// A line through the result's points in the order given by `which`.
void AddLineString(KmlText& kml, const TrackPoint* points, const DistanceResult& result, const int* which,
                   int32_t count, const char* indent) {
  kml.Add("%s      <LineString>\r\n", indent);
  kml.Add("%s        <tessellate>1</tessellate>\r\n", indent);
  kml.Add("%s        <coordinates>\r\n", indent);
  for (int32_t k = 0; k < count; ++k) AddCoordinate(kml, points[result.anIndex[which[k]]], indent);
  kml.Add("%s        </coordinates>\r\n", indent);
  kml.Add("%s      </LineString>\r\n", indent);
}

void AddResult(KmlText& kml, const FlightAnalysis& record, const ResultLayout& layout) {
  const DistanceResult& result = record.*layout.result;
  const TrackPoint* points = record.pPoints;
  kml.Add("    <Placemark>\r\n");
  kml.Add("      <Metadata src=\"KestrixMac64\" v=\"1.06\" type=\"%s\">\r\n", layout.type);
  kml.Add("        <FsInfo track_idx=\"");
  for (int32_t k = 0; k < layout.points; ++k) kml.Add(k == 0 ? "%d" : " %d", result.anIndex[k]);
  kml.Add("\" />\r\n");
  kml.Add("      </Metadata>\r\n");
  kml.Add("      <name>%s</name>\r\n", layout.name);
  kml.Add("      <description>\r\n");
  kml.Add("        <![CDATA[\r\n<pre>\r\n");
  kml.Add("%s\r\n\r\n", layout.heading);
  kml.Add("Pos.      Time      Latitude         Longitude         Distance\r\n");
  for (int32_t k = 0; k < layout.points; ++k) {
    const int32_t index = result.anIndex[k];
    const TrackPoint& point = points[index];
    SystemTime t{};
    ConvertGpsTimeToSystemTime(point.dwTime, &t);
    int32_t latitude = 0;
    int32_t longitude = 0;
    ConvertArcToGeoSec100(point.lLatitude, point.lLongitude, &latitude, &longitude);
    char latitudeText[32];
    char longitudeText[32];
    EncodeDegreesString(latitudeText, latitude, 1);
    EncodeDegreesString(longitudeText, longitude, 0);
    if (k == 0) {
      kml.Add(" A %5d  %02d:%02d:%02d  %s  %s\r\n", index, static_cast<int>(t.wHour), static_cast<int>(t.wMinute),
              static_cast<int>(t.wSecond), latitudeText, longitudeText);
    } else {
      kml.Add(" %c %5d  %02d:%02d:%02d  %s  %s  %.2f\r\n", 'A' + k, index, static_cast<int>(t.wHour),
              static_cast<int>(t.wMinute), static_cast<int>(t.wSecond), latitudeText, longitudeText,
              result.adDistance[k - 1] * 0.001);
    }
  }
  // A single distance needs no sum.
  if (layout.points >= 3)
    kml.Add("                                                  Sum  %.2f\r\n", result.dSum * 0.001);
  kml.Add("</pre>]]>\r\n");
  kml.Add("      </description>\r\n");
  if (layout.triangle) {
    // The closed triangle B-C-D-B, then the line from start to finish.
    kml.Add("      <MultiGeometry>\r\n");
    AddLineString(kml, points, result, kClosedTriangle, 4, "  ");
    AddLineString(kml, points, result, kStartToFinish, 2, "  ");
    kml.Add("      </MultiGeometry>\r\n");
  } else {
    AddLineString(kml, points, result, kInOrder, layout.points, "");
  }
  kml.Add("      <Style>\r\n");
  kml.Add("        <LineStyle>\r\n");
  kml.Add("          <color>%s</color>\r\n", layout.color);
  kml.Add("        </LineStyle>\r\n");
  kml.Add("      </Style>\r\n");
  kml.Add("    </Placemark>\r\n");
}

// The track with its metadata; the values of both are under the digest.
// Returns where the hash placeholder starts in the text, or -1 without one.
int32_t AddTrack(KmlText& kml, const FlightAnalysis& record, bool absolute, bool rewriteTimes, HashContext* hash) {
  const TrackPoint* points = record.pPoints;
  const int32_t count = record.nPoints;
  // The times as they will be once unusable ones are replaced.
  auto timeOf = [points, rewriteTimes](int32_t i) {
    return rewriteTimes ? static_cast<uint32_t>(i) * 5u : points[i].dwTime;
  };
  char secret[kXmlStartLength + 1];
  GetXmlStart(secret);
  HashString(hash, secret);

  kml.Add("    <Placemark>\r\n");
  kml.Add("      <Metadata src=\"KestrixMac64\" v=\"4.72\" type=\"track\">\r\n");
  kml.Add("        <FsInfo");
  char time[64];
  FormatCalendarTime(time, sizeof time, timeOf(0), record.bUtc != 0 && !rewriteTimes);
  kml.Add(" time_of_first_point=\"");
  kml.AddDigested(hash, "%s", time);
  kml.Add("\"");
  if (record.bPilotIdentity != 0 && (record.nCivlPilotId >= 0 || record.nCompPilotId >= 0)) {
    kml.Add("%s", kAttributeBreak);
    if (record.nCivlPilotId < 0) {
      kml.Add("comp_pilot_id=\"%d\"", record.nCompPilotId);
    } else {
      kml.Add("civl_pilot_id=\"%d\"", record.nCivlPilotId);
      if (record.nCompPilotId >= 0) kml.Add(" comp_pilot_id=\"%d\"", record.nCompPilotId);
    }
  }
  char instrument[sizeof tGps.szProduct];
  std::snprintf(instrument, sizeof instrument, "%.80s", tGps.szProduct);
  if (CompressXmlString(instrument) > 0) {
    kml.Add("%sinstrument=\"", kAttributeBreak);
    kml.AddDigested(hash, "%s", instrument);
    kml.Add("\"");
  }
  if (record.dwDownloadTime != kUnknownDownloadTime) {
    FormatCalendarTime(time, sizeof time, record.dwDownloadTime, true);
    kml.Add("%sdownloaded=\"", kAttributeBreak);
    kml.AddDigested(hash, "%s", time);
    kml.Add("\"");
  }
  int32_t hashAt = -1;
  if (record.bSignature != 0) {
    kml.Add("%shash=\"", kAttributeBreak);
    hashAt = kml.length();
    kml.Add("%s\"", kHashPlaceholder);
  }
  kml.Add(">\r\n");

  // The three lists are nearly all of the document. Their values are
  // written as printf would write them, without a format string, a line at
  // a time; the digest takes each line's values in one piece (they are
  // plain ASCII, which both packings take alike), its line end not.
  ListLines times(kml, hash, kTimesPerLine);
  kml.Add("          <SecondsFromTimeOfFirstPoint>\r\n");
  for (int32_t i = 0; i < count; ++i) {
    const bool last = i + 1 == count;
    times.Put(EncodeListInteger(times.Room(), static_cast<int32_t>(timeOf(i) - timeOf(0)), last), last);
  }
  kml.Add("          </SecondsFromTimeOfFirstPoint>\r\n");
  if (record.bPressureAltitude != 0) {
    ListLines pressures(kml, hash, kTimesPerLine);
    kml.Add("          <PressureAltitude>\r\n");
    for (int32_t i = 0; i < count; ++i) {
      const bool last = i + 1 == count;
      pressures.Put(EncodeListInteger(pressures.Room(), points[i].lPressureAltitude, last), last);
    }
    kml.Add("          </PressureAltitude>\r\n");
  }
  kml.Add("        </FsInfo>\r\n");
  kml.Add("      </Metadata>\r\n");
  kml.Add("      <name>Tracklog</name>\r\n");
  kml.Add("      <LineString>\r\n");
  kml.Add("        <altitudeMode>%s</altitudeMode>\r\n", absolute ? "absolute" : "clampedToGround");
  kml.Add("        <coordinates>\r\n");
  ListLines coordinates(kml, hash, kCoordinatesPerLine);
  for (int32_t i = 0; i < count; ++i) {
    const bool last = i + 1 == count;
    double latitude;
    double longitude;
    ConvertArcToGeoPos(points[i].lLatitude, points[i].lLongitude, &latitude, &longitude);
    char* value = coordinates.Room();
    int32_t length = EncodeDecimalString(value, 32, longitude * kRadiansToDegrees, 6);
    value[length++] = ',';
    length += EncodeDecimalString(value + length, 32, latitude * kRadiansToDegrees, 6);
    value[length++] = ',';
    length += EncodeListInteger(value + length, AltitudeMetres(points[i].lGpsAltitude), last);
    coordinates.Put(length, last);
  }
  kml.Add("        </coordinates>\r\n");
  return hashAt;
}

}  // namespace

void GetXmlStart(char* secret) {
  for (int32_t i = 0; i < kXmlStartLength; ++i) {
    secret[kXmlStartLength - 1 - i] = static_cast<char>(abXmlStart[i] ^ XmlStartKey(i));
  }
  secret[kXmlStartLength] = '\0';
}

int32_t MakeGoogleTrack(const FlightAnalysis* record, GoogleTrack* track) {
  const TrackPoint* points = record->pPoints;
  const int32_t count = record->nPoints;
  track->result = -1;
  if (points == nullptr || count < 1) return -1;
  int32_t unusableTimes = 0;
  for (int32_t i = 0; i < count; ++i) {
    if (points[i].lGpsAltitude != 0) track->absolute = true;
    if (IsUnusableTime(points[i].dwTime)) ++unusableTimes;
  }
  track->rewriteTimes = unusableTimes > 0;
  // Room for the whole document at once: a point takes at most 60
  // characters in the three lists, and the rest of the document is short.
  // Pages never written are never touched.
  const int64_t room = int64_t{kListRoomPerPoint} * count + kDocumentRoom;
  if (room < INT32_MAX) {
    track->text.data = static_cast<char*>(pAllocate(static_cast<size_t>(room)));
    if (track->text.data == nullptr) return -1;
    track->text.capacity = static_cast<int32_t>(room);
    track->text.length = 0;
    track->text.data[0] = '\0';
  }
  KmlText kml(&track->text);
  HashContext hash;
  HashInit(&hash);
  track->hashAt = AddTrack(kml, *record, track->absolute, track->rewriteTimes, &hash);
  HashFinish(&hash, track->adwDigest);
  if (kml.failed() || track->text.data == nullptr) return -1;
  track->result = 0;
  return 0;
}

int32_t MakeGoogleFolder(FlightAnalysis* record, TextBuffer* text, GoogleTrack* track) {
  TrackPoint* points = record->pPoints;
  const int32_t count = record->nPoints;
  if (points == nullptr || count < 1) return -1;
  // Result indices come from AnalyzeTrack; a record that points outside the
  // track is refused rather than read past its end.
  for (const ResultLayout& layout : kResultLayouts) {
    const DistanceResult& result = record->*layout.result;
    for (int32_t k = 0; k < layout.points; ++k) {
      if (result.anIndex[k] < 0 || result.anIndex[k] >= count) return -1;
    }
  }
  // Times that cannot be shown become 5-second steps from 0, no longer UTC.
  if (track->rewriteTimes) {
    for (int32_t i = 0; i < count; ++i) points[i].dwTime = static_cast<uint32_t>(i) * 5u;
    record->bUtc = 0;
  }

  KmlText kml(text);
  AddHead(kml);
  AddStatistics(kml, *record);
  for (const ResultLayout& layout : kResultLayouts) AddResult(kml, *record, layout);
  if (kml.failed() || track->result < 0) return -1;
  // The track's text becomes the document, the head moved in before it.
  const int32_t trackAt = text->length;
  TextBuffer& body = track->text;
  if (Reserve(&body, static_cast<int64_t>(trackAt) + body.length + kDocumentRoom) < 0) return -1;
  std::memmove(body.data + trackAt, body.data, static_cast<size_t>(body.length) + 1);
  std::memcpy(body.data, text->data, static_cast<size_t>(trackAt));
  body.length += trackAt;
  std::swap(text->data, body.data);
  std::swap(text->capacity, body.capacity);
  std::swap(text->length, body.length);
  kml.Add("      </LineString>\r\n");
  kml.Add("    </Placemark>\r\n");
  kml.Add("  </Folder>\r\n");
  kml.Add("%s", pszKmlTail);
  if (kml.failed()) return -1;
  if (track->hashAt >= 0) {
    const uint32_t* digest = track->adwDigest;
    char hex[41];
    std::snprintf(hex, sizeof hex, "%08X%08X%08X%08X%08X", digest[0], digest[1], digest[2], digest[3], digest[4]);
    std::memcpy(text->data + trackAt + track->hashAt, hex, 40);
  }
  return 0;
}

int32_t MakeGoogleFolder(FlightAnalysis* record, TextBuffer* text) {
  GoogleTrack track;
  MakeGoogleTrack(record, &track);
  return MakeGoogleFolder(record, text, &track);
}
