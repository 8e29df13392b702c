#include "serial/flymaster.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/bytes.h"
#include "core/console.h"
#include "core/memory.h"
#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "link/com.h"
#include "link/receive.h"
#include "link/string.h"
#include "output/replace.h"

namespace flymaster {
namespace {

// Stored commands, sent as they are: their checksum digits are not all the
// XOR of their characters, and the instruments answer them that way.
constexpr char kNewProductCommand[] = "$PFMSNP,*21\r\n", kOldProductCommand[] = "$PBRSNP,*21\r\n";
constexpr char kListCommand[] = "$PFMDNL,LST,*72\r\n", kWaypointCommand[] = "$PFMWPL,*3c\r\n";

constexpr char kDebugFileName[] = "flymaster2yy.dat";
// The debug dump is scrambled with the first bytes of the security key.
constexpr int32_t kDebugKeySize = 59;
static_assert(kDebugKeySize <= static_cast<int32_t>(sizeof abScramble));

// Silence that ends a stage, pauses, and the dump's progress interval, in
// microseconds.
constexpr int64_t kProductSilence = 3000000, kTransferSilence = 2000000, kDumpSilence = 1000000,
                  kNewDumpSilence = 500000;
constexpr uint32_t kAfterProductSleep = 1000000, kBeforeProductSleep = 100000, kUploadSpacing = 100000;
constexpr uint64_t kDumpProgressInterval = 200000;

constexpr int kSelectLineSize = 101;
constexpr int32_t kPilotNameLimit = 50, kWaypointNameSize = 16;
// First sizes of the growing buffers.
constexpr int32_t kIgcInitialSize = 10000, kOldInitialPoints = 1000, kNewInitialPoints = 2000, kTaskInitialSlots = 20;

constexpr float kSeaLevelPressure = 1013.25f;

// Older models: the lengths the blocks need, the range of a key position
// (90 and 180 degrees) and the points between progress updates.
constexpr int32_t kFlightInfoLength = 63, kKeyPositionLength = 17, kTrackEntryLength = 6;
constexpr int32_t kLatitudeLimit = 5400000, kLongitudeLimit = 10800000;
constexpr int32_t kProgressStep = 200;

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using Buffer = std::unique_ptr<T, FreeDeleter>;

bool BulkMode() { return tGps.dwCommand == kCommandDownloadAllTracks; }
bool NewModel() { return tGps.dwGpsType == kGpsFlymasterNew; }

// Truncation toward zero; NaN and values out of range give the hardware's
// "indefinite" integer instead of undefined behaviour.
int32_t TruncateToInt(double value) {
  if (!(value > -2147483649.0 && value < 2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(value);
}

int32_t RoundHalfAway(double value) { return TruncateToInt(value >= 0.0 ? value + 0.5 : value - 0.5); }

uint32_t Magnitude(int32_t value) {
  return value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
}

// The change a delta record carries in one byte.
int8_t ReadS8(uint8_t b) { return static_cast<int8_t>(b); }

char ToUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

// At most `limit` characters of `text`, terminated.
void CopyText(char* out, size_t limit, const char* text) {
  size_t n = strnlen(text, limit);
  std::memcpy(out, text, n);
  out[n] = '\0';
}

void StartReception(FlymasterTransfer* t) {
  FlushComFifo();
  t->state = 0;
  t->length = 0;
}

// One sentence, ending the wait for it after `silence`: 0, or 1 on time-out.
int32_t ReceiveSentence(FlymasterTransfer* t, int64_t silence) {
  return ReceiveUntilSilent(silence, [t](uint8_t b) { return TakeSentenceByte(t, b) ? 0 : 1; });
}

// Appends to the track log without a message: the callers name the failure.
bool AppendPoint(const TrackPoint& point, int32_t initial) {
  if (GrowTrackLog(initial) < 0) return false;
  tGps.pTrackPoints[tGps.nTrackPoints++] = point;
  return true;
}

bool ValidTrackNumber(const FlymasterTransfer* t, int32_t trackNumber) {
  return trackNumber >= 1 && trackNumber <= t->trackCount && trackNumber <= kTrackSlots;
}

// XOR of the dump's full blocks folded onto 8 bytes, against the 8 bytes after them.
bool ChecksumMatches(const uint8_t* dump, int32_t blockBytes) {
  uint8_t sum[8] = {};
  for (int32_t i = 0; i < blockBytes; ++i) sum[i % 8] ^= dump[i];
  return std::memcmp(sum, dump + blockBytes, sizeof sum) == 0;
}

// The whole dump of one track into `buffer`. 0, or -1 after the message.
template <typename Progress>
int32_t ReceiveDump(Buffer<uint8_t>* buffer, int64_t silence, int32_t* received, Progress progress) {
  int32_t count = 0;
  int32_t result = ReceiveUntilSilent(silence, [&](uint8_t b) {
    if (count >= kDumpSize) return -1;
    buffer->get()[count++] = b;
    progress();
    return 1;
  });
  *received = count;
  if (result < 0) {
    buffer->reset();
    std::printf("Allocated buffer full\n");
    return -1;
  }
  return 0;
}

// The receive buffer of a dump, the download time, and the request sent:
// flush, then the command for the track in the given mode. Null after the
// message when memory runs out (or, silently, for a track not in the list).
Buffer<uint8_t> RequestDump(const FlymasterTransfer* t, int32_t trackNumber, const char* mode, uint32_t* downloadTime) {
  if (!ValidTrackNumber(t, trackNumber)) return nullptr;
  Buffer<uint8_t> buffer(static_cast<uint8_t*>(pAllocate(kDumpSize)));
  if (buffer == nullptr) {
    std::printf("Memory allocation error\n");
    return nullptr;
  }
  *downloadTime = GetCurrentGpsTime();
  char command[48];
  FormatTrackCommand(t->trackStart[trackNumber - 1], mode, command);
  FlushComFifo();
  WriteComString(command);
  return buffer;
}

// --- Firmware 2.02+ dumps ---------------------------------------------------

// The IGC text under construction, grown by AddIgcString.
class IgcText {
 public:
  IgcText() = default;
  IgcText(const IgcText&) = delete;
  IgcText& operator=(const IgcText&) = delete;
  ~IgcText() { std::free(data_); }

  bool Start() {
    data_ = static_cast<char*>(pAllocate(kIgcInitialSize));
    if (data_ == nullptr) return false;
    data_[0] = '\0';
    capacity_ = kIgcInitialSize;
    return true;
  }
  bool Add(const char* text) { return AddIgcString(&data_, &capacity_, &length_, text, nullptr) == 0; }
  bool Addf(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    char line[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    return Add(line);
  }
  int32_t length() const { return length_; }
  const char* data() const { return data_; }
  char* Release() {
    char* text = data_;
    data_ = nullptr;
    return text;
  }

 private:
  char* data_ = nullptr;
  int32_t capacity_ = 0;
  int32_t length_ = 0;
};

struct FixState {
  uint8_t header;
  int32_t latitude;   // 1/60000 degree, north positive
  int32_t longitude;  // 1/60000 degree, west positive
  int16_t gnssAltitude;
  int16_t pressure;  // family 1: tenths of a hectopascal; family 2: metres
  uint32_t time;
};

struct ModelWord {
  uint16_t code;
  const char* word;
};
constexpr ModelWord kModelWords[] = {
    {45569, "LIVE"},  {45825, "LIVE"},  {45841, "LIVE"}, {45570, "NAV"},     {45826, "NAV"},
    {45842, "NAV"},   {45571, "GPS"},   {45828, "GPS"},  {45844, "GPS"},     {45572, "VARIO"},
    {45829, "VARIO"}, {45845, "VARIO"}, {45827, "GPS+"}, {45843, "GPS+"},    {45831, "TRACKER"},
    {45836, "SDGpsLS"},
};

bool InRange(uint32_t value, uint32_t low, uint32_t high) { return value >= low && value <= high; }

// The record walk of one 2.02+ dump and the IGC text it makes.
class Walk2xx {
 public:
  Walk2xx(uint32_t serialNumber, uint16_t hardware) : serialNumber_(serialNumber), hardware_(hardware) {}

  bool Start() { return text_.Start() && tasks_.Start(); }

  // One block's records. False when the text cannot grow.
  bool Block(const uint8_t* block, bool first) {
    taskPoints_ = 0;  // the count of a task never reaches into the next block
    int32_t pos = 12;
    if (first) pos += block[12];
    while (pos < kBlockSize) {
      const uint8_t* record = block + pos;
      int32_t length = record[0] & 31;
      if (length == 0 || pos + length > kBlockSize) break;
      if (!Record(record)) return false;
      pos += length;
    }
    return true;
  }

  bool Finish(const uint8_t* signature) {
    char line[2 + 2 * kSignatureSize + 3] = "G";
    for (int i = 0; i < kSignatureSize; ++i) std::snprintf(line + 1 + 2 * i, 3, "%02X", signature[i]);
    std::strcat(line, "\r\n");
    return text_.Add(line);
  }

  IgcText& text() { return text_; }

 private:
  bool Record(const uint8_t* r) {
    switch (r[0] & 127) {
      case kDeltaFix:
        return Delta(&fixes_[0], 0, r);
      case kDeltaFixAltitude:
      case kDeltaFixAltitudeLong:
        return Delta(&fixes_[1], 1, r);
      case kFullFix:
        return Full(&fixes_[0], 0, r);
      case kFullFixAltitude:
      case kFullFixAltitudeLong:
        return Full(&fixes_[1], 1, r);
      case kEvent:
        return Event(r);
      case kTaskHeader:
        return TaskHeader(r);
      case kTaskPointRecord:
        return TaskPoint(r);
      case kPilotRecord:
        CopyText(pilot_, 24, reinterpret_cast<const char*>(r + 1));
        return true;
      case kBuildRecord:
      case kBuildRecordLong:
        build_ = ReadUnsignedShort(r + 1);
        return true;
      default:  // kCounters and unknown records carry nothing for the log
        return true;
    }
  }

  bool Full(FixState* s, int family, const uint8_t* r) {
    s->header = r[0];
    s->latitude = GetLocation(r + 2);
    s->longitude = GetLocation(r + 6);
    s->gnssAltitude = ReadSignedShort(r + 10);
    s->pressure = ReadSignedShort(r + 12);
    s->time = ReadUnsignedLong(r + 14);
    return Fix(s, family);
  }

  bool Delta(FixState* s, int family, const uint8_t* r) {
    s->header = r[0];
    s->latitude += ReadS8(r[1]);
    s->longitude += ReadS8(r[2]);
    s->gnssAltitude = static_cast<int16_t>(s->gnssAltitude + ReadS8(r[3]));
    s->pressure = static_cast<int16_t>(s->pressure + ReadS8(r[4]));
    s->time += r[5];
    return Fix(s, family);
  }

  bool Fix(const FixState* s, int family) {
    last_ = s;
    lastFamily_ = family;
    if (!headerWritten_) {
      if (!Header(s->time)) return false;
      headerWritten_ = true;
    }
    return BRecord(*s, family, s->time);
  }

  bool Event(const uint8_t* r) {
    static constexpr FixState kNowhere{};
    const FixState& s = last_ != nullptr ? *last_ : kNowhere;
    // Before any fix there is no pressure to convert: the zero goes out as it is.
    return BRecord(s, last_ != nullptr ? lastFamily_ : 1, ReadUnsignedLong(r + 1));
  }

  bool BRecord(const FixState& s, int family, uint32_t time) {
    SystemTime st;
    ConvertGpsTimeToSystemTime(time + kInstrumentEpoch, &st);
    uint32_t lat = Magnitude(s.latitude);
    uint32_t lon = Magnitude(s.longitude);
    bool valid = (s.header & 0x80) != 0;
    int32_t pressureAltitude = family == 0 ? PressureToAltitude(s.pressure) : s.pressure;
    return text_.Addf("B%02u%02u%02u%02u%05u%c%03u%05u%c%c%05d%05d\r\n", st.wHour, st.wMinute, st.wSecond,
                      lat / 60000, lat % 60000, s.latitude < 0 ? 'S' : 'N', lon / 60000, lon % 60000,
                      s.longitude >= 0 ? 'W' : 'E', valid ? 'A' : 'V', pressureAltitude,
                      valid ? static_cast<int32_t>(s.gnssAltitude) : 0);
  }

  // C records wait in their own text until the header has been written.
  IgcText& TaskText() { return headerWritten_ ? text_ : tasks_; }

  bool TaskHeader(const uint8_t* r) {
    taskPoints_ = ReadS8(r[1]);
    if (taskPoints_ == 0 || taskPoints_ == 1) return true;
    SystemTime st;
    ConvertGpsTimeToSystemTime(ReadUnsignedLong(r + 3) + kInstrumentEpoch, &st);
    uint32_t turnpoints = taskPoints_ < 0 ? 0u : static_cast<uint32_t>(taskPoints_ - 2);
    turnpoint_ = 1;
    return TaskText().Addf("C%02u%02u%02u%02u%02u%02u0000000000%02u\r\n", st.wDay, st.wMonth, st.wYear - 2000u,
                           st.wHour, st.wMinute, st.wSecond, turnpoints) &&
           TaskText().Add("C0000000N00000000WTAKEOFF\r\n");
  }

  bool TaskPoint(const uint8_t* r) {
    int32_t latitude = GetLocation(r + 6);
    int32_t longitude = GetLocation(r + 10);
    char name[kWaypointNameSize + 1];
    CopyText(name, kWaypointNameSize, reinterpret_cast<const char*>(r + 14));
    const char* role = turnpoint_ == 1 ? "START" : turnpoint_ == taskPoints_ ? "FINISH" : "TURN";
    uint32_t lat = Magnitude(latitude);
    uint32_t lon = Magnitude(longitude);
    bool ok = TaskText().Addf("C%02u%05u%c%03u%05u%c%s%s\r\n", lat / 60000, lat % 60000, latitude < 0 ? 'S' : 'N',
                              lon / 60000, lon % 60000, longitude < 0 ? 'W' : 'E', role, name);
    if (ok && role[0] == 'F') ok = TaskText().Add("C0000000N00000000WLANDING\r\n");
    ++turnpoint_;
    return ok;
  }

  const char* ModelName() const {
    for (const ModelWord& m : kModelWords) {
      if (m.code == hardware_) return m.word;
    }
    return "";
  }

  bool Header(uint32_t firstTime) {
    SystemTime st;
    ConvertGpsTimeToSystemTime(firstTime + kInstrumentEpoch, &st);
    uint32_t build = build_ < 5252 ? 5252u : build_;
    bool sd = InRange(hardware_, 45825, 45845) && hardware_ != 45831 && hardware_ != 45836;
    bool ok = text_.Addf("AXFI%06d\r\n", static_cast<int32_t>(serialNumber_)) &&
              text_.Addf("HFDTEDATE:%02u%02u%02u\r\n", st.wDay, st.wMonth, st.wYear - 2000u) &&
              text_.Addf("HFPLTPILOTINCHARGE:%s\r\n", pilot_) && text_.Add("HFCM2CREW2:NIL\r\n") &&
              text_.Add("HFGTYGLIDERTYPE:NKN\r\n") && text_.Add("HFGIDGLIDERID:NKN\r\n") &&
              text_.Add("HFDTMGPSDATUM:WGS84\r\n") &&
              text_.Addf("HFRFWFIRMWAREVERSION:%u.%02u%c\r\n", build / 2600, (build - build / 2600 * 2600) / 26,
                         static_cast<char>('a' + build % 26)) &&
              text_.Add(InRange(hardware_, 45841, 45845) ? "HFRHWHARDWAREVERSION:2.0\r\n"
                                                         : "HFRHWHARDWAREVERSION:1.0\r\n") &&
              text_.Addf("HFFTYFRTYPE:Flymaster,%s%s,%04X\r\n", ModelName(), sd ? "SD" : "", hardware_);
    if (ok && InRange(hardware_, 45569, 45829)) {
      ok = text_.Add("HFGPSRECEIVER:UBLOX,NEO8,56,50000,GPS,GLO,GAL\r\n") &&
           text_.Add("HFPRSPRESSALTSENSOR:FREESCALE,MPXA6115A,13608\r\n");
    } else if (ok && (InRange(hardware_, 45841, 45845) || hardware_ == 45831 || hardware_ == 45836)) {
      ok = text_.Add("HFGPSRECEIVER:UBLOX,CAM-M8Q,72,50000,GPS,GLO,GAL\r\n") &&
           text_.Add("HFPRSPRESSALTSENSOR:BOSCH,BMP280,9163\r\n");
    }
    // The L record names the Linux build, as the program always wrote it.
    return ok && text_.Add("HFALGALTGPS:GEO\r\n") && text_.Add("HFALPALTPRESSURE:ISA\r\n") &&
           text_.Add("LPLTKestrixLinux 1.06\r\n") && text_.Add(tasks_.data());
  }

  IgcText text_;
  IgcText tasks_;
  uint32_t serialNumber_;
  uint16_t hardware_;
  FixState fixes_[2] = {};
  const FixState* last_ = nullptr;
  int lastFamily_ = 0;
  int32_t taskPoints_ = 0;
  int32_t turnpoint_ = 0;
  char pilot_[25] = "NIL";
  uint16_t build_ = 0;
  bool headerWritten_ = false;
};

// --- Pre-2.02 dumps -----------------------------------------------------------

// The longitude of the pre-2.02 fixes: the half goes by the sign of the value
// as received, so the magnitude always loses half a unit before truncation.
int32_t QuirkLongitudeToArc(int32_t received, bool negate) {
  double x = (negate ? -static_cast<double>(received) : received) * kMin1000ToArc;
  return TruncateToInt(received < 0 ? x - 0.5 : x + 0.5);
}

int32_t OldPressureAltitude(double pressure) {
  return TruncateToInt((1.0 - std::pow(pressure / 10.0 / 1013.25, 0.190284)) * 44307.69 + 0.5);
}

bool AppendTaskPoint(TaskPointList* list, const TaskPoint& point) {
  if (GrowArray(&list->items, &list->capacity, list->count, kTaskInitialSlots) < 0) return false;
  list->items[list->count++] = point;
  return true;
}

bool StoreTaskPoint(TaskPointList* list, const uint8_t* r, uint32_t downloadTime) {
  TaskPoint p{};
  p.altitude = ReadSignedShort(r + 4);
  p.latitude = RoundHalfAway(GetLocation(r + 6) * kMin1000ToArc);
  p.longitude = QuirkLongitudeToArc(GetLocation(r + 10), false);
  const char* name = reinterpret_cast<const char*>(r + 14);
  int n = 0;
  while (n < 6 && name[n] != '\0' && name[n] != ' ') {
    p.shortName[n] = ToUpper(name[n]);
    ++n;
  }
  CopyText(p.longName, kWaypointNameSize, name);
  CompressString(p.shortName);
  CompressString(p.longName);
  p.time = downloadTime;
  return AppendTaskPoint(list, p);
}

// --- Older models --------------------------------------------------------------

OldStep Abort(const char* message) { return OldStep{-1, kTransferAborted, message}; }
OldStep Accept() { return OldStep{1, kBlockAccepted, nullptr}; }

void StoreFlightInfo(FlymasterTransfer* t) {
  const DataBlock& b = t->block;
  auto text = [&b](char* out, int32_t offset, int32_t size) {
    int32_t available = b.length - offset;
    if (available < 0) available = 0;
    CopyText(out, static_cast<size_t>(available < size ? available : size),
             reinterpret_cast<const char*>(b.data + offset));
  };
  t->infoNumber = ReadUnsignedLong(b.data + 4);
  text(t->infoText[0], 8, 7);
  text(t->infoText[1], 16, 14);
  if (std::strcmp(t->name, "B1NAV") == 0) {
    text(t->infoText[2], 46, 7);
    t->infoText[3][0] = '\0';
  } else {
    text(t->infoText[2], 46, 14);
    text(t->infoText[3], 60, 14);
  }
}

OldStep SaveAndCount(FlymasterTransfer* t, ProgressCounter* progress) {
  if (SavePos(t) < 0) return Abort(" Memory allocation error\n");
  if (progress != nullptr && tGps.nTrackPoints % kProgressStep == 0) progress->Update(tGps.nTrackPoints);
  return OldStep{1, 0, nullptr};
}

OldStep HandleBlock(FlymasterTransfer* t, ProgressCounter* progress) {
  const DataBlock& b = t->block;
  switch (b.type) {
    case kFlightInfoBlock:
      if (b.length < kFlightInfoLength) return Abort(" Bad flight info block length\n");
      StoreFlightInfo(t);
      t->infoSeen = true;
      return Accept();
    case kKeyPositionBlock: {
      if (b.length < kKeyPositionLength) return Abort(" Bad key track position block length\n");
      int32_t latitude = static_cast<int32_t>(ReadUnsignedLong(b.data + 1));
      int32_t longitude = static_cast<int32_t>(ReadUnsignedLong(b.data + 5));
      if (latitude > kLatitudeLimit || latitude < -kLatitudeLimit) return Abort(" Latitude outside valid range\n");
      if (longitude > kLongitudeLimit || longitude < -kLongitudeLimit) {
        return Abort(" Longitude value outside valid range\n");
      }
      t->latitude = latitude;
      t->longitude = longitude;
      t->gnssAltitude = ReadSignedShort(b.data + 9);
      t->pressure = ReadSignedShort(b.data + 11);
      t->time = ReadUnsignedLong(b.data + 13);
      t->keySeen = true;
      OldStep step = SaveAndCount(t, progress);
      return step.result < 0 ? step : Accept();
    }
    case kTrackPositionsBlock:
      if (!t->keySeen) return Abort(" Missing key track position block\n");
      if (b.length == 0 || b.length % kTrackEntryLength != 0) return Abort(" Bad track position block length\n");
      for (int32_t at = 0; at < b.length; at += kTrackEntryLength) {
        const uint8_t* e = b.data + at;
        t->latitude += ReadS8(e[1]);
        t->longitude += ReadS8(e[2]);
        t->gnssAltitude = static_cast<int16_t>(t->gnssAltitude + ReadS8(e[3]));
        t->pressure = static_cast<int16_t>(t->pressure + ReadS8(e[4]));
        t->time += e[5];
        OldStep step = SaveAndCount(t, progress);
        if (step.result < 0) return step;
      }
      return Accept();
    default:  // the end block: complete, it ends the transfer
      return OldStep{0, 0, nullptr};
  }
}

void Perform(const OldStep& step) {
  if (step.reply != 0) WriteComData(&step.reply, 1);
  if (step.message != nullptr) std::printf("%s", step.message);
}

// --- Waypoints -------------------------------------------------------------------

bool DecodeHemisphere(const char* field, const char* positive, const char* negative, double* degrees) {
  if (std::strcmp(field, negative) == 0) {
    *degrees = -*degrees;
    return true;
  }
  return std::strcmp(field, positive) == 0;
}

// Prints `message` and fails.
int32_t Fail(const char* message) {
  std::printf("%s", message);
  return -1;
}

// Splits the received sentence into at most `maximum` fields: their count,
// or -1 after saying why it is refused (`lead` goes before the message: a
// blank while a transfer counts on the same line).
int ParseSentence(FlymasterTransfer* t, int32_t* offsets, int maximum, int minimum, const char* word,
                  const char* lead) {
  int fields = ParseNmeaString(t->sentence, offsets, maximum);
  if (fields < 0) {
    std::printf("%sNMEA parse error %d\n", lead, -fields);
    return -1;
  }
  if (fields < minimum) {
    std::printf("%sToo few NMEA parameters\n", lead);
    return -1;
  }
  if (std::strcmp(t->sentence, word) != 0) {
    std::printf("%sBad NMEA identifier\n", lead);
    return -1;
  }
  return fields;
}

}  // namespace

TaskPointList::~TaskPointList() { std::free(items); }

void ResetTransfer(FlymasterTransfer* transfer) { std::memset(transfer, 0, sizeof *transfer); }

int32_t TakeSentenceByte(FlymasterTransfer* t, uint8_t b) {
  switch (t->state) {
    case 0:
      if (b == '$') {
        t->sentence[0] = '$';
        t->sentence[1] = '\0';
        t->length = 1;
        t->state = 1;
      }
      return 0;
    case 1:
      if (b == '\r') {
        t->state = 2;
      } else if (t->length < kSentenceLimit) {
        t->sentence[t->length++] = static_cast<char>(b);
        t->sentence[t->length] = '\0';
      }
      return 0;
    default:
      if (b != '\n') return 0;
      t->state = 0;
      return 1;
  }
}

int32_t StoreProductSentence(FlymasterTransfer* t) {
  int32_t offsets[10];
  if (ParseSentence(t, offsets, 10, 5, NewModel() ? "$PFMSNP" : "$PBRSNP", "") < 0) return -1;
  const char* s = t->sentence;
  CopyText(t->name, sizeof t->name - 1, s + offsets[1]);
  CopyText(t->pilot, sizeof t->pilot - 1, s + offsets[2]);
  CopyText(t->serial, sizeof t->serial - 1, s + offsets[3]);
  CopyText(t->firmware, sizeof t->firmware - 1, s + offsets[4]);
  if (static_cast<uint8_t>(tGps.szPilotName[0]) == 1) {
    CopyText(tGps.szPilotName, kPilotNameLimit, s + offsets[2]);
    CompressString(tGps.szPilotName);
  }
  std::snprintf(t->product, sizeof t->product, "Flymaster %s  SN%s  SW%s", t->name, t->serial, t->firmware);
  CopyText(tGps.szProduct, sizeof tGps.szProduct - 1, t->product);
  return 0;
}

int32_t ReadProductData(FlymasterTransfer* t) {
  StartReception(t);
  WriteComString(NewModel() ? kNewProductCommand : kOldProductCommand);
  std::printf("Product: ");
  std::fflush(stdout);
  if (ReceiveSentence(t, kProductSilence) != 0) {
    std::printf("Timeout\n");
    return -1;
  }
  if (StoreProductSentence(t) < 0) return -1;
  std::printf("%s\n", t->product);
  std::fflush(stdout);
  PauseLink(kAfterProductSleep);
  return 0;
}

int32_t StoreTrackListSentence(FlymasterTransfer* t) {
  int32_t offsets[10];
  if (ParseSentence(t, offsets, 10, 6, "$PFMLST", "") < 0) return -1;
  const char* s = t->sentence;
  uint32_t count = 0, index = 0, year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  uint32_t hours = 0, minutes = 0, seconds = 0;
  if (DecodeUintString(s + offsets[1], &count) < 0) return Fail("Bad track count parameter\n");
  if (DecodeUintString(s + offsets[2], &index) < 0) return Fail("Bad track index parameter\n");
  if (DecodeDateString2(s + offsets[3], &year, &month, &day) < 0) return Fail("Bad track date parameter\n");
  if (DecodeTimeString(s + offsets[4], &hour, &minute, &second, ':') < 0) {
    return Fail("Bad track time parameter\n");
  }
  if (index >= static_cast<uint32_t>(kTrackSlots)) return Fail("Track index outside allocated range (100)\n");
  if (index > count) return Fail("Track index greater than track count\n");
  if (DecodeTimeString(s + offsets[5], &hours, &minutes, &seconds, ':') < 0) {
    return Fail("Bad track duration parameter\n");
  }
  if (t->trackCount < kTrackSlots) {
    SystemTime start{year + 2000, month, day, hour, minute, second};
    t->trackStart[t->trackCount] = ConvertSystemTimeToGpsTime(&start);
    t->trackDuration[t->trackCount] = hours * 3600 + minutes * 60 + seconds;
    ++t->trackCount;
  }
  return 0;
}

int32_t SelectTrack(FlymasterTransfer* t) {
  if (t->trackCount == 0) {
    std::printf("No tracks found\n");
    return -1;
  }
  if (BulkMode()) return 0;
  for (int32_t i = 0; i < t->trackCount; ++i) {
    SystemTime st;
    ConvertGpsTimeToSystemTime(t->trackStart[i], &st);
    uint32_t d = t->trackDuration[i];
    std::printf("%2d   %02u.%02u.%02u   %02u:%02u:%02u   %02u:%02u:%02u\n", i + 1, st.wDay, st.wMonth,
                st.wYear % 100, st.wHour, st.wMinute, st.wSecond, d / 3600, d / 60 % 60, d % 60);
  }
  return ChooseFlightNumber(t->trackCount, kSelectLineSize);
}

int32_t ReadTrackList(FlymasterTransfer* t) {
  t->trackCount = 0;
  std::memset(t->trackStart, 0, sizeof t->trackStart);
  std::memset(t->trackDuration, 0, sizeof t->trackDuration);
  StartReception(t);
  WriteComString(kListCommand);
  std::printf("Track list:\n");
  int32_t result = ReceiveUntilSilent(kTransferSilence, [t](uint8_t b) {
    if (!TakeSentenceByte(t, b)) return 1;
    return StoreTrackListSentence(t) < 0 ? -1 : 1;
  });
  if (result < 0) return -1;
  return SelectTrack(t);
}

void FormatTrackCommand(uint32_t start, const char* mode, char* out) {
  SystemTime st;
  ConvertGpsTimeToSystemTime(start, &st);
  char body[48];
  std::snprintf(body, sizeof body, "PFMDNL,%02u%02u%02u%02u%02u%02u,%.4s", (st.wYear - 2000u) % 100u, st.wMonth,
                st.wDay, st.wHour, st.wMinute, st.wSecond, mode);
  FormatNmeaSentence(out, 48, body, true);
}

TrackReader ChooseTrackReader(const FlymasterTransfer* t) {
  if (!NewModel()) return ReadTrackLogOld;
  // A plain byte-wise comparison: "10.1" comes before "2.02".
  return std::strcmp(t->firmware, "2.02") >= 0 ? ReadTrackLog2xx : ReadTrackLogNew;
}

int32_t GetLocation(const uint8_t* bytes) {
  int32_t value = bytes[0] | bytes[1] << 8 | bytes[2] << 16;
  return (bytes[3] & 0x80) != 0 ? value - 16777216 : value;
}

int32_t PressureToAltitude(int32_t pressure) {
  if (pressure >= kAltitudeTableFirst && pressure < kAltitudeTableFirst + kAltitudeTableSize) {
    return g_ciAltitudes[pressure - kAltitudeTableFirst];
  }
  return TruncateToInt(kPa_To_Meters(static_cast<float>(pressure) * 10.0f, kSeaLevelPressure));
}

int32_t GetTaskId(const FlymasterTransfer* t, int32_t trackNumber) {
  if (trackNumber < 1 || trackNumber > kTrackSlots) return 0;
  uint32_t start = t->trackStart[trackNumber - 1];
  int32_t sameDay = 0, earlier = 0;
  for (uint32_t other : t->trackStart) {
    if (other / 86400 != start / 86400) continue;
    ++sameDay;
    if (other < start) ++earlier;
  }
  if (sameDay >= 2) return 1 + earlier;
  return sameDay;
}

int32_t ConvertDump2xx(const uint8_t* dump, int32_t length, const char* serial, char** igc, int32_t* igcLength) {
  int32_t blocks = length / kBlockSize;
  int32_t blockBytes = blocks * kBlockSize;
  if (length - blockBytes < kDumpTrailer) {
    std::printf("Missing checksum and signature\n");
    return -1;
  }
  if (!ChecksumMatches(dump, blockBytes)) {
    std::printf("Bad checksum\n");
    return -1;
  }
  const uint8_t* trailer = dump + blockBytes;
  uint32_t serialNumber = 0;
  DecodeUintString(serial, &serialNumber);
  Walk2xx walk(serialNumber, ReadUnsignedShort(trailer + 8));
  bool ok = walk.Start();
  for (int32_t b = 0; ok && b < blocks; ++b) ok = walk.Block(dump + b * kBlockSize, b == 0);
  if (!ok || !walk.Finish(trailer + 10)) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  *igcLength = walk.text().length();
  *igc = walk.text().Release();
  return 0;
}

int32_t SaveDebugData(const uint8_t* bytes, int32_t length) {
  if (length < 0) length = 0;
  Buffer<uint8_t> scrambled(static_cast<uint8_t*>(pAllocate(static_cast<size_t>(length) + 1)));
  if (scrambled == nullptr) {
    std::printf("Saving debug data: Memory allocation error\n");
    return -1;
  }
  for (int32_t i = 0; i < length; ++i) scrambled.get()[i] = bytes[i] ^ abScramble[i % kDebugKeySize];
  constexpr char kFailed[] = "Saving debug data: Failed to create debug file\n";
  if (WriteWholeFile(kDebugFileName, reinterpret_cast<const char*>(scrambled.get()), static_cast<size_t>(length),
                     kFailed, kFailed) < 0) {
    return -1;
  }
  std::printf("Debug file %s written\n", kDebugFileName);
  return 0;
}

int32_t ReadTrackLog2xx(FlymasterTransfer* t, int32_t trackNumber) {
  uint32_t downloadTime = 0;
  Buffer<uint8_t> buffer = RequestDump(t, trackNumber, "4", &downloadTime);
  if (buffer == nullptr) return -1;
  ProgressCounter progress("Bytes: ", kDumpProgressInterval);
  int32_t received = 0;
  // The counter shows the raw text's length while bytes come in, as it
  // always has; only the final line gives the bytes received.
  if (ReceiveDump(&buffer, kDumpSilence, &received, [&progress] { progress.Update(tGps.nRawLogLength); }) < 0) {
    return -1;
  }
  progress.Finish(received);
  if (tGps.bDebug) SaveDebugData(buffer.get(), received);

  char* igc = nullptr;
  int32_t igcLength = 0;
  if (ConvertDump2xx(buffer.get(), received, t->serial, &igc, &igcLength) < 0) return -1;
  buffer.reset();
  if (DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(igc), igcLength, nullptr, 0) < 0) {
    std::free(igc);
    return -1;
  }
  std::printf("Got %d points\n", tGps.nTrackPoints);
  std::free(tGps.pbRawLog);
  tGps.pbRawLog = reinterpret_cast<uint8_t*>(igc);
  tGps.nRawLogLength = igcLength;
  tGps.nRawLogSize = igcLength + 1;
  tGps.dwFirstPointTime = tGps.pTrackPoints[0].dwTime;
  SetLogFlags(1, 1, 1, downloadTime);
  return 0;
}

int32_t DecodeDumpNew(const uint8_t* dump, int32_t length, uint32_t downloadTime, TaskPointList* tasks) {
  if (length < kBlockSize + 8 || length % kBlockSize != 8) {
    std::printf("Bad track log data length (%d)\n", length);
    return -1;
  }
  int32_t blocks = length / kBlockSize;
  if (!ChecksumMatches(dump, blocks * kBlockSize)) {
    std::printf("Bad checksum\n");
    return -1;
  }
  TaskPoint takeoff{};
  std::strcpy(takeoff.shortName, "TAKEOF");
  std::strcpy(takeoff.longName, "TAKEOFF");
  takeoff.time = downloadTime;
  // The points gather apart: the track log stays as it was unless a fix came.
  TrackPoint* items = nullptr;
  int32_t count = 0, capacity = 0;
  auto fail = [&items] {
    std::free(items);
    std::printf("Memory allocation error\n");
    return -1;
  };
  if (GrowArray(&items, &capacity, count, kNewInitialPoints) < 0 || !AppendTaskPoint(tasks, takeoff)) return fail();

  int32_t latitude = 0, longitude = 0;
  int16_t gnssAltitude = 0;
  uint16_t pressure = 0;
  uint32_t time = 0;
  bool fullSeen = false;
  for (int32_t b = 0; b < blocks; ++b) {
    const uint8_t* block = dump + b * kBlockSize;
    int32_t pos = 12;
    if (b == 0) pos += block[12] & 31;  // the first record of the flight is not a fix
    while (pos < kBlockSize) {
      const uint8_t* r = block + pos;
      int32_t recordLength = r[0] & 31;
      if (recordLength == 0 || recordLength == kEndOfRecords || pos + recordLength > kBlockSize) break;
      pos += recordLength;
      if ((r[0] & kNotAFixBits) != 0) continue;
      if (recordLength == kFullFixLength) {
        latitude = GetLocation(r + 2);
        longitude = GetLocation(r + 6);
        gnssAltitude = ReadSignedShort(r + 10);
        pressure = ReadUnsignedShort(r + 12);
        time = ReadUnsignedLong(r + 14);
        fullSeen = true;
      } else if (recordLength == kDeltaFixLength && fullSeen) {
        latitude += ReadS8(r[1]);
        longitude += ReadS8(r[2]);
        gnssAltitude = static_cast<int16_t>(gnssAltitude + ReadS8(r[3]));
        pressure = static_cast<uint16_t>(pressure + ReadS8(r[4]));
        time += r[5];
      } else {
        if (recordLength == kTaskPointLength && !StoreTaskPoint(tasks, r, downloadTime)) return fail();
        continue;
      }
      TrackPoint p{};
      p.dwFlags = count == 0 ? kTrackPointNewSegment : 0;
      p.dwTime = time + kInstrumentEpoch;
      p.lLatitude = RoundHalfAway(latitude * kMin1000ToArc);
      p.lLongitude = QuirkLongitudeToArc(longitude, true);
      p.lGpsAltitude = gnssAltitude * 10;
      p.lPressureAltitude = OldPressureAltitude(pressure);
      if (GrowArray(&items, &capacity, count, kNewInitialPoints) < 0) return fail();
      items[count++] = p;
    }
  }
  if (count == 0) {
    std::free(items);
    return -1;
  }
  std::free(tGps.pTrackPoints);
  tGps.pTrackPoints = items;
  tGps.nTrackCapacity = capacity;
  tGps.nTrackPoints = count;
  SetLogFlags(1, 1, 1, downloadTime);
  return 0;
}

int32_t ReadTrackLogNew(FlymasterTransfer* t, int32_t trackNumber) {
  GetTaskId(t, trackNumber);  // the flight's task number: nothing uses it yet
  uint32_t downloadTime = 0;
  Buffer<uint8_t> buffer = RequestDump(t, trackNumber, "2", &downloadTime);
  if (buffer == nullptr) return -1;
  int32_t received = 0;
  if (ReceiveDump(&buffer, kNewDumpSilence, &received, [] {}) < 0) return -1;
  TaskPointList tasks;
  return DecodeDumpNew(buffer.get(), received, downloadTime, &tasks);
}

int32_t StoreDataBlock(FlymasterTransfer* t, uint8_t byte) {
  DataBlock& b = t->block;
  auto isType = [](uint8_t x) { return x >= kFlightInfoBlock && x <= kEndBlock; };
  switch (b.state) {
    case 0:
      if (isType(byte)) {
        b.type = byte;
        b.endOfTransfer = false;
        b.state = 1;
      }
      return 1;
    case 1:
      if (byte == b.type) {
        if (byte == kEndBlock) {
          b.endOfTransfer = true;
          b.state = 0;
          return 0;
        }
      } else if (!isType(byte)) {
        b.state = 0;
        return 1;
      }
      // A different type byte is taken too; the block keeps its first type.
      b.state = 2;
      return 1;
    case 2:
      b.length = byte;
      b.checksum = byte;
      b.count = 0;
      std::memset(b.data, 0, sizeof b.data);
      b.state = b.length == 0 ? 4 : 3;
      return 1;
    case 3:
      b.data[b.count++] = byte;
      b.checksum ^= byte;
      if (b.count == b.length) b.state = 4;
      return 1;
    case 4:
      b.state = 0;
      return byte == b.checksum ? 0 : -1;
    default:
      return 1;
  }
}

int32_t SavePos(FlymasterTransfer* t) {
  TrackPoint p{};
  p.dwFlags = tGps.nTrackPoints == 0 ? kTrackPointNewSegment : 0;
  p.dwTime = t->time + kInstrumentEpoch;
  p.lLatitude = RoundHalfAway(t->latitude * kMin1000ToArc);
  p.lLongitude = static_cast<int32_t>(0u - static_cast<uint32_t>(RoundHalfAway(t->longitude * kMin1000ToArc)));
  p.lGpsAltitude = t->gnssAltitude * 10;
  p.lPressureAltitude = OldPressureAltitude(t->pressure);
  return AppendPoint(p, kOldInitialPoints) ? 0 : -1;
}

OldStep TakeOldByte(FlymasterTransfer* t, uint8_t byte, ProgressCounter* progress) {
  int32_t result = StoreDataBlock(t, byte);
  if (result == 1) return OldStep{1, 0, nullptr};
  if (result < 0) return OldStep{1, kBlockBadChecksum, nullptr};
  if (t->block.endOfTransfer) return OldStep{0, 0, nullptr};
  return HandleBlock(t, progress);
}

OldStep FinishOldTransfer(FlymasterTransfer* t, ProgressCounter* progress) {
  if (!t->infoSeen) return Abort(" Missing flight info block\n");
  if (progress != nullptr) progress->Finish(tGps.nTrackPoints);
  if (tGps.nTrackPoints == 0) return OldStep{-1, 0, nullptr};
  SetLogFlags(1, 1, 1, GetCurrentGpsTime());
  return OldStep{0, 0, nullptr};
}

int32_t ReadTrackLogOld(FlymasterTransfer* t, int32_t trackNumber) {
  if (!ValidTrackNumber(t, trackNumber)) return -1;
  if (StartTrackLog(kOldInitialPoints) < 0) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  FlushComFifo();
  std::memset(&t->block, 0, sizeof t->block);
  t->keySeen = false;
  t->infoSeen = false;
  char command[48];
  FormatTrackCommand(t->trackStart[trackNumber - 1], "", command);
  WriteComString(command);
  ProgressCounter progress("Points: ", 0);
  int32_t result = ReceiveUntilSilent(kTransferSilence, [t, &progress](uint8_t b) {
    OldStep step = TakeOldByte(t, b, &progress);
    Perform(step);
    return step.result;
  });
  if (result == 1) {
    Perform(Abort(" Timeout\n"));
    return -1;
  }
  if (result < 0) return -1;
  OldStep end = FinishOldTransfer(t, &progress);
  Perform(end);
  return end.result;
}

int32_t StoreWaypointSentence(FlymasterTransfer* t, uint32_t downloadTime) {
  int32_t offsets[8];
  int fields = ParseSentence(t, offsets, 8, 7, "$PFMWPL", " ");
  if (fields < 0) return -1;
  const char* s = t->sentence;
  double latitude = 0, longitude = 0, height = 0;
  if (DecodeDecimalString(s + offsets[1], &latitude) < 0 || !DecodeHemisphere(s + offsets[2], "N", "S", &latitude)) {
    return Fail(" Bad latitude data\n");
  }
  if (DecodeDecimalString(s + offsets[3], &longitude) < 0 ||
      !DecodeHemisphere(s + offsets[4], "E", "W", &longitude)) {
    return Fail(" Bad longitude data\n");
  }
  if (DecodeDecimalString(s + offsets[5], &height) < 0) return Fail(" Bad height data\n");
  char name[kSentenceLimit + 1];
  CopyText(name, kSentenceLimit, s + offsets[6]);
  if (CompressString(name) == 0) return Fail(" Bad ID or name\n");

  Waypoint w{};
  ConvertGeoToArcPos(latitude * kDegreesToRadians, longitude * kDegreesToRadians, &w.lLatitude, &w.lLongitude);
  w.lAltitude = TruncateToInt(height + 0.5);
  w.dwTime = downloadTime;
  for (int i = 0; i < 6 && name[i] != '\0' && name[i] != ' '; ++i) w.szId[i] = ToUpper(name[i]);
  CopyText(w.szComment, sizeof w.szComment - 1, name);
  uint32_t marker = 0;
  w.dwReserved = fields >= 8 && DecodeUintString(s + offsets[7], &marker) == 0 && marker == 1 ? 1 : 0;
  return AppendWaypoint(w);
}

int32_t ReadWaypoints(FlymasterTransfer* t) {
  return ReceiveWaypoints(
      kTransferSilence,
      [t] {
        StartReception(t);
        WriteComString(kWaypointCommand);
      },
      [t](uint8_t b, uint32_t downloadTime) {
        return TakeSentenceByte(t, b) ? StoreWaypointSentence(t, downloadTime) : 1;
      });
}

void NormaliseName(const char* name, char* out) {
  std::snprintf(out, kWaypointNameSize + 1, "%-16.16s", name);
  for (int i = 0; i < kWaypointNameSize; ++i) {
    char c = ToUpper(out[i]);
    bool keep = (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    out[i] = keep ? c : ' ';
  }
}

int FormatWaypointSentence(const Waypoint& waypoint, bool withMarker, char* out) {
  char position[32], body[80];
  FormatWaypointPosition(waypoint, position, sizeof position);
  std::snprintf(body, sizeof body, "PFMWPR,%s,,%-16.16s,%04d%s", position, waypoint.szComment,
                WaypointSentenceAltitude(waypoint), withMarker ? ",1" : "");
  return FormatNmeaSentence(out, 80, body);
}

int32_t JudgeWaypointResponse(FlymasterTransfer* t, const char* sentName) {
  int32_t offsets[5];
  int fields = ParseNmeaString(t->sentence, offsets, 5);
  if (fields < 0) return 1;
  const char* s = t->sentence;
  if (std::strcmp(s, "$PFMWPR") != 0) return 2;
  // Firmware 1.14 of the older models echoes the name alone, as it was sent.
  bool bare = tGps.dwGpsType == kGpsFlymaster && std::strcmp(t->firmware, "1.14") == 0;
  if (fields < (bare ? 2 : 3)) return 3;
  if (bare) return std::strcmp(s + offsets[1], sentName) == 0 ? 0 : 5;
  if (std::strcmp(s + offsets[1], "ACK") != 0) return 4;
  char expected[kWaypointNameSize + 1];
  NormaliseName(sentName, expected);
  return std::strcmp(s + offsets[2], expected) == 0 ? 0 : 5;
}

int32_t ReadWaypointResponse(FlymasterTransfer* t, const char* sentName) {
  StartReception(t);
  if (ReceiveSentence(t, kTransferSilence) != 0) return -1;
  return JudgeWaypointResponse(t, sentName);
}

int32_t WriteWaypoints(FlymasterTransfer* t) {
  ProgressCounter progress("Waypoints: ", 0);
  bool markers = std::strcmp(t->firmware, "1.19") >= 0;
  int32_t errors = 0, firstError = 0;
  for (int32_t i = 0; i < tGps.nWaypoints; ++i) {
    const Waypoint& w = tGps.pWaypoints[i];
    char sentence[80];
    FormatWaypointSentence(w, markers && w.dwReserved == 1, sentence);
    WriteComString(sentence);
    progress.Update(i + 1);
    char sent[kWaypointNameSize + 1];
    std::snprintf(sent, sizeof sent, "%-16.16s", w.szComment);
    int32_t answer = ReadWaypointResponse(t, sent);
    if (answer < 0) {
      if (!tGps.bScroll) {
        char number[16];
        int digits = std::snprintf(number, sizeof number, "%d", i + 1);
        std::printf("%.*s", digits, "\b\b\b\b\b\b\b\b\b\b\b");
      }
      std::printf("%d, timeout, %d errors\n", i + 1, errors);
      return -1;
    }
    if (answer > 0) {
      if (errors == 0) firstError = answer;
      ++errors;
    }
    if (i + 1 < tGps.nWaypoints) PauseLink(kUploadSpacing);
  }
  if (errors > 0) {
    std::printf("%d, %d errors, first error was type %d\n", tGps.nWaypoints, errors, firstError);
    return -1;
  }
  if (!tGps.bScroll) std::printf("\n");
  return 0;
}

}  // namespace flymaster

using flymaster::FlymasterTransfer;

int32_t DownloadFlymasterTrackLog() {
  // A single download gives the instrument a moment before it is asked.
  PauseLink(flymaster::kBeforeProductSleep);
  return RunIdentified<FlymasterTransfer>([](FlymasterTransfer* t) {
    int32_t track = flymaster::ReadTrackList(t);
    return track > 0 ? flymaster::ChooseTrackReader(t)(t, track) : track;
  });
}

// The list answers 0 in bulk mode, so the loop never starts: a bulk download
// identifies the instrument, reads the list and fetches nothing, as it
// always did.
int32_t DownloadFlymasterBulkTrackLog(TrackSaver save) {
  return RunIdentified<FlymasterTransfer>([save](FlymasterTransfer* t) {
    int32_t result = flymaster::ReadTrackList(t);
    if (result <= 0) return result;
    flymaster::TrackReader reader = flymaster::ChooseTrackReader(t);
    return SaveEachTrack(t->trackCount, save, [t, reader](int32_t n) { return reader(t, n); });
  });
}

int32_t DownloadFlymasterWaypoints() { return RunIdentified<FlymasterTransfer>(flymaster::ReadWaypoints); }

int32_t UploadFlymasterWaypoints() { return RunIdentified<FlymasterTransfer>(flymaster::WriteWaypoints); }
