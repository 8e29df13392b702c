#include "serial/mlr.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/bytes.h"
#include "core/clock.h"
#include "core/console.h"
#include "core/run.h"
#include "geo/time.h"
#include "link/com.h"
#include "link/receive.h"
#include "link/string.h"

namespace mlr {
namespace {

constexpr char kIdentifyCommand[] = "$PMLR,26,01,01,0339\r\n", kTrackCommand[] = "$PMLR,24,02,0101,0399\r\n",
               kStopCommand[] = "$PMLR,06,00,02A9\r\n";
constexpr char kProductHead[] = "$PMLR,IDGPS,01,";
constexpr int32_t kProductHeadLength = sizeof kProductHead - 1;

// A binary frame starts with this byte and a kind word, or with none.
constexpr uint8_t kFrameStartByte = 0x8B;
constexpr char kStartWord[] = "DEBUT", kEndWord[] = "FIN";

// Processor time, in microseconds.
constexpr int64_t kProductTimeout = 3000000, kTransferSilence = 2000000;
constexpr uint64_t kSpeedSwitchWait = 300000;

constexpr int32_t kTrackSpeed = 38400, kIdleSpeed = 4800;
constexpr int32_t kPointsPerProgress = 100;

// Spins: a sleeping process spends almost no processor time.
void WaitProcessorTime(uint64_t microseconds) {
  uint64_t start = GetProcessorMicroseconds();
  for (uint64_t now = start; now < start || now - start < microseconds; now = GetProcessorMicroseconds()) {
  }
}

bool IsLineEnd(uint8_t b) { return b == '\r' || b == '\n'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

void StartHunt(ProductRecord* p, uint8_t b) {
  if (b != '$') {
    p->state = 0;
    return;
  }
  p->checksum = 0;
  p->receivedChecksum = 0;
  for (int i = 0; i < kFields; ++i) {
    p->fields[i][0] = '\0';
    p->lengths[i] = 0;
  }
  p->index = 1;
  p->state = 1;
}

// A character of a text field: a leading blank and anything beyond the
// limit are dropped without complaint.
void AppendField(ProductRecord* p, int field, uint8_t b) {
  int32_t& length = p->lengths[field];
  if ((b == ' ' && length == 0) || length >= kFieldLimit) return;
  p->fields[field][length++] = static_cast<char>(b);
  p->fields[field][length] = '\0';
}

void AppendText(char* text, const char* more) {
  size_t length = std::strlen(text);
  while (*more != '\0' && length < kFieldLimit) text[length++] = *more++;
  text[length] = '\0';
}

// A number of decimal digits, saturating far above any version.
int32_t Digits(const char* text, int count) {
  int32_t value = 0;
  for (int i = 0; i < count; ++i) {
    if (value < 100000) value = value * 10 + (text[i] - '0');
  }
  return value;
}

void StartFrameHunt(FrameState* f, uint8_t b) {
  f->state = 0;
  if (b == kFrameStartByte) {
    f->sum = kFrameStartByte;
    f->state = 1;
  }
}

// The point array doubles when full; its own message, unlike the shared one.
int32_t AppendPoint(const TrackPoint& point) {
  if (GrowTrackLog() < 0) {
    std::printf(" Track log memory allocation error\n");
    return -1;
  }
  tGps.pTrackPoints[tGps.nTrackPoints++] = point;
  return 0;
}

int32_t StoreRecords(FrameState* f) {
  for (int32_t r = 0; r < f->count; ++r) {
    const uint8_t* record = f->data + r * kTrackRecordSize;
    int32_t number = ReadBigUnsignedShort(record);
    if (++f->expectedPoint != number) {
      std::printf(" Bad track point sequence\n");
      return -1;
    }
    TrackPoint point{};
    point.dwTime = ReadBigUnsignedLong(record + 2) - kClockOffset;
    if (f->timeCorrection != 0) point.dwTime -= kClockCorrection;
    point.lLatitude = ReadBigSignedLong(record + 6);
    point.lLongitude = ReadBigSignedLong(record + 10);
    point.lGpsAltitude = ReadBigSigned24(record + 14);
    point.lPressureAltitude = 0;
    point.dwFlags = tGps.nTrackPoints == 0 || record[17] == 1 ? kTrackPointNewSegment : 0;
    if (AppendPoint(point) < 0) return -1;
    if (f->progress != nullptr && tGps.nTrackPoints % kPointsPerProgress == 0) f->progress->Update(tGps.nTrackPoints);
  }
  return 0;
}

// Back to the idle speed, then the instrument is told to stop sending.
void StopTransfer() {
  if (SetComSpeed(kIdleSpeed) != 0) return;
  WaitProcessorTime(kSpeedSwitchWait);
  WriteComString(kStopCommand);
}

}  // namespace

void InitProductDecoder(ProductRecord* p) {
  std::memset(p, 0, sizeof *p);
}

int32_t DecodeProductData(ProductRecord* p, uint8_t b) {
  switch (p->state) {
    case 0:
      StartHunt(p, b);
      return 1;
    case 1:
      if (b != static_cast<uint8_t>(kProductHead[p->index])) {
        StartHunt(p, b);
        return 1;
      }
      p->checksum ^= b;
      if (++p->index == kProductHeadLength) p->state = 2;
      return 1;
    case 2:  // A
    case 3:  // B
    case 4:  // C
      if (IsLineEnd(b)) return -1 - 2 * (p->state - 2);
      p->checksum ^= b;
      if (b == ',') {
        ++p->state;
      } else {
        AppendField(p, p->state - 2, b);
      }
      return 1;
    case 5:  // D, then "*" or a further field
      if (IsLineEnd(b)) return -7;
      if (b == '*') {
        CheckSoftwareVersion(p);
        p->index = 0;
        p->state = 7;
        return 1;
      }
      p->checksum ^= b;
      if (b == ',') {
        p->state = 6;
      } else {
        AppendField(p, 3, b);
      }
      return 1;
    case 6:  // E: the answer then keeps field A as it came
      if (IsLineEnd(b)) return -9;
      if (b == '*') {
        p->index = 0;
        p->state = 7;
        return 1;
      }
      p->checksum ^= b;
      AppendField(p, 4, b);
      return 1;
    case 7: {
      if (p->index < 2) {
        if (IsLineEnd(b)) return -11;
        int value = HexDigitValue(static_cast<char>(b));
        if (value < 0) return -12;
        p->receivedChecksum = static_cast<uint8_t>(p->receivedChecksum * 16 + value);
        ++p->index;
        return 1;
      }
      if (p->index == 2) {
        if (b != '\r') return -13;
        ++p->index;
        return 1;
      }
      if (p->receivedChecksum != p->checksum) return -14;
      p->state = 0;
      return 0;
    }
    default:
      return -15;
  }
}

void CheckSoftwareVersion(ProductRecord* p) {
  char* text = p->fields[0];
  CompressString(text);
  AppendText(text, "  SW");
  const char* d = p->fields[3];
  int major = 0;
  while (IsDigit(d[major])) ++major;
  char version[kFieldLimit + 1];
  std::snprintf(version, sizeof version, "%.*s", major, d);
  p->major = Digits(d, major);
  p->minor = 0;
  if (d[major] == '.') {
    const char* after = d + major + 1;
    int minor = 0;
    while (IsDigit(after[minor])) ++minor;
    std::snprintf(version + major, sizeof version - static_cast<size_t>(major), ".%.*s", minor, after);
    // A single digit after the point counts as tens: 2.7 is 2.70.
    p->minor = minor == 1 ? Digits(after, 1) * 10 : Digits(after, minor);
  }
  AppendText(text, version);
  bool sp24 = std::strncmp(text, "SP24", 4) == 0;
  bool early = p->major < 2 || (p->major == 2 && p->minor <= 71);
  bool late = p->major > 9 || (p->major == 9 && p->minor >= 90);
  p->timeCorrection = sp24 && (early || late) ? 1 : 0;
}

void InitDecodeSentenceByte(FrameState* f) {
  f->state = 0;
  f->kind = 0;
  f->index = 0;
  f->sum = 0;
  f->receivedSum = 0;
  f->count = 0;
  f->dataLength = 0;
  f->started = 0;
  f->previousSequence = 0;
  f->expectedPoint = 0;
  f->timeCorrection = 0;
  f->progress = nullptr;
}

int32_t DecodeSentenceByte(FrameState* f, uint8_t b, int32_t mode) {
  const uint8_t letter = mode == 0 ? 'T' : 'W';
  const uint8_t version = mode == 0 ? 0x01 : 0x02;
  const int32_t recordSize = mode == 0 ? kTrackRecordSize : kWaypointRecordSize;
  const int32_t maxRecords = mode == 0 ? kTrackRecordsPerFrame : kWaypointRecordsPerFrame;
  auto add = [f](uint8_t byte) { f->sum = static_cast<uint16_t>(f->sum + byte); };
  switch (f->state) {
    case 0:
      StartFrameHunt(f, b);
      return 0;
    case 1:
      f->sequence = b;
      add(b);
      f->state = 2;
      return 0;
    case 2:
    case 3:
      if (b != (f->state == 2 ? letter : version)) {
        StartFrameHunt(f, b);
        return 0;
      }
      add(b);
      ++f->state;
      return 0;
    case 4:
      if (b == static_cast<uint8_t>(kStartWord[0]) || b == static_cast<uint8_t>(kEndWord[0])) {
        f->kind = b == static_cast<uint8_t>(kStartWord[0]) ? kFrameStart : kFrameEnd;
        f->index = 1;
        f->state = 5;
      } else if (b == 0x00) {
        f->kind = kFrameData;
        f->state = 6;
      } else {
        StartFrameHunt(f, b);
        return 0;
      }
      add(b);
      return 0;
    case 5: {
      const char* word = f->kind == kFrameStart ? kStartWord : kEndWord;
      if (b != static_cast<uint8_t>(word[f->index])) {
        StartFrameHunt(f, b);
        return 0;
      }
      add(b);
      if (word[++f->index] == '\0') f->state = 8;
      return 0;
    }
    case 6:
      if (b == 0 || b > maxRecords) {
        f->state = 0;
        return -1;
      }
      add(b);
      f->count = b;
      f->dataLength = b * recordSize;
      f->index = 0;
      f->state = 7;
      return 0;
    case 7:
      f->data[f->index++] = b;
      add(b);
      if (f->index == f->dataLength) f->state = 8;
      return 0;
    case 8:
      f->receivedSum = static_cast<uint16_t>(b << 8);
      f->state = 9;
      return 0;
    case 9:
      f->receivedSum = static_cast<uint16_t>(f->receivedSum | b);
      if (f->receivedSum != f->sum) {
        f->state = 0;
        return -2;
      }
      f->state = 10;
      return 0;
    case 10:
      if (b != '\r') {
        f->state = 0;
        return -3;
      }
      f->state = 11;
      return 0;
    case 11:
      f->state = 0;
      if (b != '\n') return -4;
      return f->kind;
    default:
      f->state = 0;
      return 0;
  }
}

int32_t DecodeNewSentence(FrameState* f, int32_t mode) {
  if (f->started == 0) {
    // Whatever came before the start of the log is not part of it.
    if (f->kind != kFrameStart) return 1;
    f->started = 1;
    f->previousSequence = f->sequence;
    f->expectedPoint = 0;
    return 1;
  }
  if (f->kind == kFrameStart) {
    std::printf(" Bad sentence type sequence\n");
    return -1;
  }
  if (f->sequence != static_cast<uint8_t>(f->previousSequence + 1)) {
    std::printf(" Bad sentence sequence\n");
    return -1;
  }
  f->previousSequence = f->sequence;
  if (f->kind == kFrameEnd) return 0;
  // Waypoint frames (mode 1) have no reader in this program: only their
  // order is checked.
  if (mode != 0) return 1;
  return StoreRecords(f) < 0 ? -1 : 1;
}

int32_t ReadProductData(ProductRecord* p) {
  FlushComFifo();
  InitProductDecoder(p);
  WriteComString(kIdentifyCommand);
  std::printf("Product: ");
  std::fflush(stdout);
  // Counted from the command, not from the last byte.
  int32_t result = ReceiveUntilSilent({kProductTimeout, true, true}, [p](uint8_t b) { return DecodeProductData(p, b); });
  if (result == 1) {
    std::printf("Timeout\n");
    return -1;
  }
  if (result < 0) {
    std::printf("Format error %d\n", -result);
    return -1;
  }
  std::snprintf(tGps.szProduct, sizeof tGps.szProduct, "%s", p->fields[0]);
  std::printf("%s\n", tGps.szProduct);
  return 0;
}

int32_t ReadTrackLog(ProductRecord* p) {
  if (StartTrackLog(kTrackInitialCapacity) < 0) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  FlushComFifo();
  FrameState frame;
  InitDecodeSentenceByte(&frame);
  frame.timeCorrection = p->timeCorrection;
  WriteComString(kTrackCommand);
  ProgressCounter progress("Points: ", 0);
  frame.progress = &progress;
  WaitProcessorTime(kSpeedSwitchWait);
  SetComSpeed(kTrackSpeed);

  int32_t result = ReceiveUntilSilent({kTransferSilence, false, true}, [&frame](uint8_t b) {
    int32_t kind = DecodeSentenceByte(&frame, b, 0);
    if (kind < 0) {
      StopTransfer();
      std::printf(" Format error %d\n", -kind);
      return -1;
    }
    if (kind == 0) return 1;
    int32_t handled = DecodeNewSentence(&frame, 0);
    if (handled <= 0) StopTransfer();
    return handled < 0 ? -1 : handled == 0 ? 0 : 1;
  });
  if (result == 1) {
    std::printf("Transfer stopped\n");
    return -1;
  }
  if (result < 0) return -1;
  progress.Finish(tGps.nTrackPoints);
  if (tGps.nTrackPoints == 0) return -1;
  tGps.dwFirstPointTime = tGps.pTrackPoints[0].dwTime;
  SetLogFlags(1, 1, 0, GetCurrentGpsTime());
  return 0;
}

}  // namespace mlr

int32_t DownloadMlrTrackLog() {
  mlr::ProductRecord product;
  int32_t result = mlr::ReadProductData(&product);
  return result == 0 ? mlr::ReadTrackLog(&product) : result;
}
