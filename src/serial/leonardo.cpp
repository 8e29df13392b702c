#include "serial/leonardo.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "core/bytes.h"
#include "core/console.h"
#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "link/com.h"
#include "link/receive.h"
#include "link/string.h"

namespace leonardo {
namespace {

// The commands' bodies and the words their replies start with.
constexpr char kProductBody[] = "PDGFVID", kListBody[] = "PDGFFLL";
constexpr char kProductWord[] = "$PDGFVID", kListWord[] = "$PDGFFLL";

// Silence that ends a stage without a reply, in microseconds.
constexpr int64_t kProductSilence = 3000000, kTransferSilence = 2000000;

constexpr int32_t kPilotNameLimit = 50;
constexpr int kSelectLineSize = 101, kMaxProductFields = 10;
// The list's word, its count and the first entry: the entries are read
// from the sentence itself, commas or not.
constexpr int kMaxListFields = 3;

static_assert(std::numeric_limits<float>::is_iec559, "records carry IEEE single-precision floats");

bool BulkMode() { return tGps.dwCommand == kCommandDownloadAllTracks; }

// `count` bytes from 2 x `count` hex digits; false at the first non-digit.
bool HexBytes(const char* digits, int32_t count, uint8_t* bytes) {
  for (int32_t i = 0; i < count; ++i) {
    int high = HexDigitValue(digits[2 * i]);
    int low = high < 0 ? -1 : HexDigitValue(digits[2 * i + 1]);
    if (high < 0 || low < 0) return false;
    bytes[i] = static_cast<uint8_t>(high << 4 | low);
  }
  return true;
}

void CopyField(char* out, size_t size, const char* field) { std::snprintf(out, size, "%s", field); }

bool StartsWithNoCase(const char* text, const char* prefix) {
  for (; *prefix != '\0'; ++text, ++prefix) {
    char a = *text >= 'a' && *text <= 'z' ? static_cast<char>(*text - 'a' + 'A') : *text;
    char b = *prefix >= 'a' && *prefix <= 'z' ? static_cast<char>(*prefix - 'a' + 'A') : *prefix;
    if (a != b) return false;
  }
  return true;
}

// Flushes the FIFO, sends `command` and collects the reply's one sentence.
// Returns 0 (complete), 1 (the line stayed silent longer than `silence`
// microseconds) or the collector's negative code.
int32_t Exchange(LeonardoTransfer* t, const char* command, int64_t silence) {
  FlushComFifo();
  t->state = 0;
  t->length = 0;
  WriteComString(command);
  return ReceiveUntilSilent(silence, [t](uint8_t byte) { return TakeSentenceByte(t, byte); });
}

// Sends the command for `body` and decodes the one reply with `decode`:
// its result, or -1 after "Timeout" or the reason the reply was refused.
int32_t Ask(LeonardoTransfer* t, const char* body, int64_t silence, int32_t (*decode)(LeonardoTransfer*)) {
  char command[16];
  FormatCommand(body, command);
  int32_t result = Exchange(t, command, silence);
  if (result == 1) {
    std::printf("Timeout\n");
    return -1;
  }
  if (result == 0) result = decode(t);
  if (result < 0) {
    char reason[64];
    DescribeReplyError(result, reason, sizeof reason);
    std::printf("%s\n", reason);
    return -1;
  }
  return result;
}

void PrintFlight(int32_t number, const FlightEntry& f) {
  SystemTime start;
  ConvertGpsTimeToSystemTime(f.takeoff - kInstrumentEpochOffset, &start);
  uint32_t duration = f.landing >= f.takeoff ? f.landing - f.takeoff : 0;
  std::printf("%2d   %02u.%02u.%02u   %02u:%02u:%02u   %02u:%02u:%02u\n", number, start.wDay, start.wMonth,
              start.wYear % 100u, start.wHour, start.wMinute, start.wSecond, duration / 3600u, duration / 60u % 60u,
              duration % 60u);
}

// Blocks and byte addresses the reads can ask for.
bool PlausibleRange(const FlightEntry& f) {
  return f.startBlock <= f.lastBlock && f.startAddress < kBlockSize && f.lastAddress < kBlockSize &&
         (f.startBlock < f.lastBlock || f.startAddress <= f.lastAddress);
}

// Reads one block and appends the flight's points from it.
int32_t ReadBlock(LeonardoTransfer* t, const FlightEntry& flight, int32_t block) {
  int32_t wanted = block == flight.lastBlock ? flight.lastAddress + 1 : kBlockSize;
  char command[40];
  FormatBlockCommand(block, wanted, command);
  int32_t result = Exchange(t, command, kTransferSilence);
  if (result == 1) {
    std::printf(" Timeout in block %d\n", block);
    return -1;
  }
  if (result == 0) result = DecodeBlockSentence(t);
  if (result < 0) {
    char reason[64];
    DescribeReplyError(result, reason, sizeof reason);
    std::printf(" %s in block %d\n", reason, block);
    return -1;
  }
  if (t->blockLength != wanted) {
    std::printf(" Block %d: %d bytes instead of %d\n", block, t->blockLength, wanted);
    return -1;
  }
  for (int32_t at = 0; at + kRecordSize <= t->blockLength; at += kRecordSize) {
    TrackRecord record;
    DecodeTrackRecord(t->block + at, t->recordsWithoutQnh, &record);
    TrackPoint point;
    if (!MakeTrackPoint(record, flight, &point)) continue;
    if (tGps.nTrackPoints == 0) {
      point.dwFlags = kTrackPointNewSegment;
      tGps.dwFirstPointTime = point.dwTime;
    }
    if (AppendTrackPoint(point) < 0) return -1;
  }
  return 0;
}

}  // namespace

void ResetTransfer(LeonardoTransfer* t) { std::memset(t, 0, sizeof *t); }

void FormatCommand(const char* body, char* out) {
  FormatNmeaSentence(out, static_cast<int>(std::strlen(body)) + 7, body);
}

void FormatBlockCommand(int32_t block, int32_t stop, char* out) {
  char body[32];
  std::snprintf(body, sizeof body, "PDGFRMM,2,%d,00,%d", block, stop);
  FormatCommand(body, out);
}

int32_t TakeSentenceByte(LeonardoTransfer* t, uint8_t b) {
  switch (t->state) {
    case 0:  // hunting for "$"
      if (b == '$') {
        t->sentence[0] = '$';
        t->length = 1;
        t->state = 1;
      }
      return 1;
    case 1:  // body
      if (b == '\r' || b == '\n') return kNoChecksum;
      if (b == '$') {  // a new sentence: the one before was broken off
        t->length = 1;
        return 1;
      }
      break;
    default:  // the two checksum characters
      break;
  }
  if (t->length >= kSentenceSize) return kSentenceTooLong;
  t->sentence[t->length++] = static_cast<char>(b);
  if (t->state == 1) {
    if (b == '*') t->state = 2;
    return 1;
  }
  if (t->state == 2) {
    t->state = 3;
    return 1;
  }
  t->sentence[t->length] = '\0';
  t->state = 0;
  return 0;
}

int32_t DecodeProductSentence(LeonardoTransfer* t) {
  int32_t offsets[kMaxProductFields];
  int fields = ParseNmeaString(t->sentence, offsets, kMaxProductFields);
  if (fields < 0) return fields;
  if (fields < 5) return kTooFewFields;
  const char* s = t->sentence;
  if (std::strcmp(s, kProductWord) != 0) return kBadIdentifier;
  CopyField(t->device, sizeof t->device, s + offsets[1]);
  CopyField(t->firmware, sizeof t->firmware, s + offsets[2]);
  CopyField(t->serial, sizeof t->serial, s + offsets[3]);
  CopyField(t->pilot, sizeof t->pilot, s + offsets[4]);
  t->recordsWithoutQnh = t->firmware[0] == '4';
  // The maker's name once, whether the device name carries it or not.
  const char* maker = StartsWithNoCase(t->device, "Digifly") ? "" : "Digifly ";
  char product[sizeof t->device + sizeof t->serial + sizeof t->firmware + 32];
  std::snprintf(product, sizeof product, "%s%s, SN%s, SW%s", maker, t->device, t->serial, t->firmware);
  std::snprintf(t->product, sizeof t->product, "%.80s", product);
  return 0;
}

bool DecodeFlightEntry(const char* digits, FlightEntry* entry) {
  uint8_t b[kListEntryDigits / 2];
  if (!HexBytes(digits, kListEntryDigits / 2, b)) return false;
  entry->takeoff = ReadUnsignedLong(b);
  entry->startBlock = b[4];
  entry->startAddress = b[5] << 8 | b[6];
  entry->landing = ReadUnsignedLong(b + 7);
  entry->lastBlock = b[11];
  entry->lastAddress = b[12] << 8 | b[13];
  return true;
}

int32_t DecodeFlightList(LeonardoTransfer* t) {
  const char* star = std::strchr(t->sentence, '*');
  int32_t offsets[kMaxListFields];
  int fields = ParseNmeaString(t->sentence, offsets, kMaxListFields);
  if (fields < 0) return fields;
  if (fields < 2) return kTooFewFields;
  if (std::strcmp(t->sentence, kListWord) != 0) return kBadIdentifier;
  uint32_t count = 0;
  if (t->sentence[offsets[1]] == '\0' || DecodeUintString(t->sentence + offsets[1], &count) < 0) {
    return kBadFlightCount;
  }
  // The entries, with or without commas between them, joined in place.
  char* digits = t->sentence + offsets[1];
  int32_t length = 0;
  if (fields > 2) {
    const int32_t end = static_cast<int32_t>(star - t->sentence);
    for (int32_t i = offsets[2]; i < end; ++i) {
      if (t->sentence[i] != '\0') digits[length++] = t->sentence[i];
    }
  }
  if (count > kSentenceSize / kListEntryDigits || static_cast<uint32_t>(length) != count * kListEntryDigits) {
    return kBadListEntries;
  }
  for (int32_t i = 0; i < length; ++i) {
    if (HexDigitValue(digits[i]) < 0) return kBadListEntries;
  }
  // The newest come last; keep the newest, and number them from 1.
  int32_t kept = count < static_cast<uint32_t>(kMaxFlights) ? static_cast<int32_t>(count) : kMaxFlights;
  for (int32_t i = 0; i < kept; ++i) {
    DecodeFlightEntry(digits + (static_cast<int32_t>(count) - 1 - i) * kListEntryDigits, &t->flights[i]);
  }
  t->flightCount = kept;
  return kept;
}

int32_t DecodeBlockSentence(LeonardoTransfer* t) {
  int32_t offsets[3];
  int fields = ParseNmeaString(t->sentence, offsets, 3);
  if (fields < 0) return fields;
  t->blockLength = 0;
  if (fields == 1) return 0;  // no data at all
  if (fields > 2) return kBadBlockData;
  const char* digits = t->sentence + offsets[1];
  size_t length = std::strlen(digits);
  if (length % 2 != 0 || length > 2 * static_cast<size_t>(kBlockSize)) return kBadBlockData;
  if (!HexBytes(digits, static_cast<int32_t>(length / 2), t->block)) return kBadBlockData;
  t->blockLength = static_cast<int32_t>(length / 2);
  return t->blockLength;
}

void DescribeReplyError(int32_t code, char* out, int size) {
  struct Reason {
    int32_t code;
    const char* text;
  };
  static constexpr Reason kReasons[] = {
      {kNmeaChecksumMismatch, "Checksum error"},
      {kTooFewFields, "Too few NMEA parameters"},
      {kBadIdentifier, "Bad NMEA identifier"},
      {kBadFlightCount, "Bad flight count"},
      {kBadListEntries, "Bad flight list entries"},
      {kBadBlockData, "Bad data"},
      {kSentenceTooLong, "Sentence too long"},
      {kNoChecksum, "Sentence without checksum"},
  };
  for (const Reason& r : kReasons) {
    if (r.code == code) {
      std::snprintf(out, static_cast<size_t>(size), "%s", r.text);
      return;
    }
  }
  std::snprintf(out, static_cast<size_t>(size), "NMEA parse error %d", -code);
}

void DecodeTrackRecord(const uint8_t* b, bool withoutQnh, TrackRecord* r) {
  r->control = b[0];
  r->satellites = ((b[0] >> 1) & 7) * 2 + 3;
  r->time = ReadUnsignedLong(b + 1);
  r->latitude = ReadFloat(b + 5);
  r->longitude = ReadFloat(b + 9);
  r->pressureAltitude = ReadBigSignedShort(b + 13);
  r->vario = ReadBigSignedShort(b + 15);
  r->airspeed = b[17];
  r->groundSpeed = b[18];
  // 4.x firmware keeps tracking data where the others keep QNH.
  r->qnhAltitude = withoutQnh ? r->pressureAltitude : ReadBigSignedShort(b + 19);
  r->gpsAltitude = ReadBigSignedShort(b + 21);
}

bool MakeTrackPoint(const TrackRecord& r, const FlightEntry& flight, TrackPoint* point) {
  if (r.time < flight.takeoff || r.time > flight.landing || r.time < kInstrumentEpochOffset) return false;
  double latitude = r.latitude;
  double longitude = r.longitude;
  // NaN fails both comparisons; 0/0 is what a logger without a fix writes.
  if (!(std::fabs(latitude) <= kHalfPi && std::fabs(longitude) <= kPi)) return false;
  if (latitude == 0.0 && longitude == 0.0) return false;
  *point = TrackPoint{};
  point->dwTime = r.time - kInstrumentEpochOffset;
  ConvertGeoToArcPos(latitude, longitude, &point->lLatitude, &point->lLongitude);
  point->lGpsAltitude = r.gpsAltitude * 10;
  point->lPressureAltitude = r.pressureAltitude;
  return true;
}

int32_t ReadProductData(LeonardoTransfer* t) {
  std::printf("Product: ");
  std::fflush(stdout);
  if (Ask(t, kProductBody, kProductSilence, DecodeProductSentence) < 0) return -1;
  if (static_cast<uint8_t>(tGps.szPilotName[0]) == 1) {
    std::snprintf(tGps.szPilotName, sizeof tGps.szPilotName, "%.*s", kPilotNameLimit, t->pilot);
    CompressString(tGps.szPilotName);
  }
  std::snprintf(tGps.szProduct, sizeof tGps.szProduct, "%s", t->product);
  std::printf("%s\n", t->product);
  return 0;
}

int32_t SelectFlight(LeonardoTransfer* t) {
  for (int32_t i = 0; i < t->flightCount; ++i) PrintFlight(i + 1, t->flights[i]);
  if (t->flightCount == 0) {
    std::printf("No tracks found\n");
    return -1;
  }
  if (BulkMode()) return 0;

  if (tGps.nFlightNumber == 0) return -1;  // only the list was wanted
  return ChooseFlightNumber(t->flightCount, kSelectLineSize);
}

int32_t ReadTrackList(LeonardoTransfer* t) {
  t->flightCount = 0;
  std::printf("Track list:\n");
  std::fflush(stdout);
  return Ask(t, kListBody, kTransferSilence, DecodeFlightList) < 0 ? -1 : SelectFlight(t);
}

int32_t ReadTrackLog(LeonardoTransfer* t, int32_t flightNumber) {
  if (flightNumber < 1 || flightNumber > t->flightCount) return -1;
  if (BulkMode()) std::printf("Reading track %d\n", flightNumber);
  const FlightEntry& flight = t->flights[flightNumber - 1];
  if (!PlausibleRange(flight)) {
    std::printf("Bad memory range for flight %d\n", flightNumber);
    return -1;
  }
  ReleaseTrackLog();
  // One update a block: a block takes most of a second at the line speed.
  ProgressCounter progress("Points: ", 0);
  for (int32_t block = flight.startBlock; block <= flight.lastBlock; ++block) {
    if (ReadBlock(t, flight, block) < 0) return -1;
    if (block < flight.lastBlock) progress.Update(tGps.nTrackPoints);
  }
  progress.Finish(tGps.nTrackPoints);
  if (tGps.nTrackPoints == 0) {
    std::printf("No track points found\n");
    return -1;
  }
  SetLogFlags(1, 1, 1, GetCurrentGpsTime());
  return 0;
}

int32_t ReadAllTrackLogs(LeonardoTransfer* t, TrackSaver save) {
  return SaveEachTrack(t->flightCount, save, [t](int32_t n) { return ReadTrackLog(t, n); });
}

}  // namespace leonardo

using leonardo::LeonardoTransfer;

int32_t DownloadLeonardoTrackLog() {
  return RunIdentified<LeonardoTransfer>([](LeonardoTransfer* t) {
    int32_t flight = leonardo::ReadTrackList(t);
    return flight < 1 ? -1 : leonardo::ReadTrackLog(t, flight);
  });
}

int32_t DownloadLeonardoBulkTrackLog(TrackSaver save) {
  return RunIdentified<LeonardoTransfer>([save](LeonardoTransfer* t) {
    int32_t result = leonardo::ReadTrackList(t);
    return result == 0 ? leonardo::ReadAllTrackLogs(t, save) : result;
  });
}
