// Flymaster decoders, dump walkers and formatters, fed directly without a port.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/console.h"
#include "core/run.h"
#include "geo/time.h"
#include "geo/conv.h"
#include "igc/igc.h"
#include "serial/flymaster.h"
#include "support.h"

namespace {

using flymaster::FlymasterTransfer;

constexpr uint32_t kEpoch = flymaster::kInstrumentEpoch;

std::string Hex(unsigned value) {
  char text[4];
  std::snprintf(text, sizeof text, "%02X", value & 0xFF);
  return text;
}

unsigned Xor(const std::string& body) {
  unsigned x = 0;
  for (char c : body) x ^= static_cast<unsigned char>(c);
  return x;
}

std::string Sentence(const std::string& body) { return "$" + body + "*" + Hex(Xor(body)) + "\r\n"; }

uint32_t GpsTime(uint32_t y, uint32_t mo, uint32_t d, uint32_t h, uint32_t mi, uint32_t s) {
  SystemTime st{y, mo, d, h, mi, s};
  return ConvertSystemTimeToGpsTime(&st);
}

// Feeds bytes to the sentence reception; the number of sentences completed.
int Feed(FlymasterTransfer* t, const std::string& bytes) {
  int complete = 0;
  for (char c : bytes) complete += flymaster::TakeSentenceByte(t, static_cast<uint8_t>(c));
  return complete;
}

struct Fresh {
  Fresh(int32_t gpsType = kGpsFlymasterNew) {
    test::FreshRunParameters();
    tGps.dwGpsType = gpsType;
    flymaster::ResetTransfer(&t);
  }
  FlymasterTransfer t;
};

// --- Sentences, identification, track list -----------------------------------------

TEST(FlymasterSentence, CollectsFromDollarToCrAndCutsAt99Characters) {
  Fresh f;
  EXPECT_EQ(Feed(&f.t, "noise$PFM,1\r"), 0);
  EXPECT_STREQ(f.t.sentence, "$PFM,1");
  EXPECT_EQ(Feed(&f.t, "x$y\n"), 1) << "bytes between CR and LF are ignored";
  EXPECT_STREQ(f.t.sentence, "$PFM,1");
  std::string long_(150, 'A');
  EXPECT_EQ(Feed(&f.t, "$" + long_ + "\r\n"), 1);
  EXPECT_EQ(std::strlen(f.t.sentence), 99u);
  EXPECT_EQ(Feed(&f.t, "$A$B\r\n"), 1) << "a second dollar is just a character";
  EXPECT_STREQ(f.t.sentence, "$A$B");
}

TEST(FlymasterProduct, FieldsAreCutAndTheSummaryIsMade) {
  Fresh f;
  tGps.szPilotName[0] = 1;
  Feed(&f.t, Sentence("PFMSNP,A model name of more than forty characters!,  Jane   Doe  ,123456789012,"
                      "2.05c-beta-x"));
  testing::internal::CaptureStdout();
  int32_t result = flymaster::StoreProductSentence(&f.t);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  ASSERT_EQ(result, 0);
  EXPECT_STREQ(f.t.name, "A model name of more than forty characte");
  EXPECT_STREQ(f.t.pilot, "  Jane   Doe  ");
  EXPECT_STREQ(f.t.serial, "1234567890");
  EXPECT_STREQ(f.t.firmware, "2.05c-beta");
  EXPECT_STREQ(f.t.product, "Flymaster A model name of more than forty characte  SN1234567890  SW2.05c-beta");
  EXPECT_STREQ(tGps.szProduct, f.t.product);
  EXPECT_STREQ(tGps.szPilotName, "Jane Doe");

  Fresh older(kGpsFlymaster);
  std::strcpy(tGps.szPilotName, "Configured");
  Feed(&older.t, Sentence("PBRSNP,B1NAV,Other,77,1.14"));
  ASSERT_EQ(flymaster::StoreProductSentence(&older.t), 0);
  EXPECT_STREQ(tGps.szPilotName, "Configured") << "kept unless asked for";
  EXPECT_STREQ(older.t.product, "Flymaster B1NAV  SN77  SW1.14");
}

TEST(FlymasterProduct, BadSentencesAreNamed) {
  struct Case {
    int32_t type;
    std::string bytes;
    const char* message;
  } cases[] = {
      {kGpsFlymasterNew, "$PFMSNP,A,B,C,D*00\r\n", "NMEA parse error 4\n"},
      {kGpsFlymasterNew, "$PFMSNP,A,B,C,D\r\n", "NMEA parse error 5\n"},
      {kGpsFlymasterNew, Sentence("PFMSNP,A,B,C"), "Too few NMEA parameters\n"},
      {kGpsFlymasterNew, Sentence("PBRSNP,A,B,C,D"), "Bad NMEA identifier\n"},
      {kGpsFlymaster, Sentence("PFMSNP,A,B,C,D"), "Bad NMEA identifier\n"},
  };
  for (const Case& c : cases) {
    Fresh f(c.type);
    Feed(&f.t, c.bytes);
    testing::internal::CaptureStdout();
    EXPECT_EQ(flymaster::StoreProductSentence(&f.t), -1) << c.bytes;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.message) << c.bytes;
  }
}

// Stores list sentences until one fails; the result of the last.
int32_t StoreList(FlymasterTransfer* t, const std::vector<std::string>& bodies) {
  for (const std::string& body : bodies) {
    Feed(t, Sentence(body));
    if (flymaster::StoreTrackListSentence(t) < 0) return -1;
  }
  return 0;
}

TEST(FlymasterTrackList, EveryCheckHasItsMessageInOrder) {
  struct Case {
    std::string body;
    const char* message;
  } cases[] = {
      {"PFMLST,3,1,05.06.19,10:00:00", "Too few NMEA parameters\n"},
      {"PFMLSX,3,1,05.06.19,10:00:00,01:00:00", "Bad NMEA identifier\n"},
      {"PFMLST,x,1,05.06.19,10:00:00,01:00:00", "Bad track count parameter\n"},
      {"PFMLST,3,-1,05.06.19,10:00:00,01:00:00", "Bad track index parameter\n"},
      {"PFMLST,3,1,5.06.19,10:00:00,01:00:00", "Bad track date parameter\n"},
      {"PFMLST,3,1,31.06.19,10:00:00,01:00:00", "Bad track date parameter\n"},
      {"PFMLST,3,1,05.06.19,24:00:00,01:00:00", "Bad track time parameter\n"},
      // The range of the index is checked before the duration.
      {"PFMLST,300,100,05.06.19,10:00:00,bad", "Track index outside allocated range (100)\n"},
      {"PFMLST,3,4,05.06.19,10:00:00,bad", "Track index greater than track count\n"},
      {"PFMLST,3,3,05.06.19,10:00:00,1:60:00", "Bad track duration parameter\n"},
  };
  for (const Case& c : cases) {
    Fresh f;
    Feed(&f.t, Sentence(c.body));
    testing::internal::CaptureStdout();
    EXPECT_EQ(flymaster::StoreTrackListSentence(&f.t), -1) << c.body;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.message) << c.body;
    EXPECT_EQ(f.t.trackCount, 0) << c.body;
  }
  Fresh f;
  Feed(&f.t, "$PFMLST,1,0,05.06.19,10:00:00,01:00:00*99\r\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(flymaster::StoreTrackListSentence(&f.t), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "NMEA parse error 4\n");
}

TEST(FlymasterTrackList, TracksAreNumberedInOrderOfArrival) {
  Fresh f;
  tGps.nFlightNumber = 2;
  ASSERT_EQ(StoreList(&f.t, {"PFMLST,4,4,06.06.19,10:39:09,03:55:41", "PFMLST,4,2,29.02.20,23:59:59,00:00:05",
                             "PFMLST,4,3,31.12.99,00:00:00,23:59:59"}),
            0);
  ASSERT_EQ(f.t.trackCount, 3);
  EXPECT_EQ(f.t.trackStart[0], GpsTime(2019, 6, 6, 10, 39, 9));
  EXPECT_EQ(f.t.trackStart[1], GpsTime(2020, 2, 29, 23, 59, 59));
  EXPECT_EQ(f.t.trackStart[2], GpsTime(2099, 12, 31, 0, 0, 0));
  EXPECT_EQ(f.t.trackDuration[0], 3u * 3600 + 55 * 60 + 41);
  testing::internal::CaptureStdout();
  EXPECT_EQ(flymaster::SelectTrack(&f.t), 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            " 1   06.06.19   10:39:09   03:55:41\n"
            " 2   29.02.20   23:59:59   00:00:05\n"
            " 3   31.12.99   00:00:00   23:59:59\n");
}

TEST(FlymasterTrackList, OnlyTheFirstHundredAreKeptButAllAreChecked) {
  Fresh f;
  std::vector<std::string> bodies;
  for (int i = 0; i < 105; ++i) {
    char body[64];
    std::snprintf(body, sizeof body, "PFMLST,99,%d,01.01.20,00:%02d:%02d,00:00:01", i % 100, i / 60, i % 60);
    bodies.push_back(body);
  }
  ASSERT_EQ(StoreList(&f.t, bodies), 0);
  EXPECT_EQ(f.t.trackCount, 100);
  EXPECT_EQ(f.t.trackStart[99], GpsTime(2020, 1, 1, 0, 1, 39));
  testing::internal::CaptureStdout();
  EXPECT_EQ(StoreList(&f.t, {"PFMLST,99,100,01.01.20,00:00:00,00:00:01"}), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Track index outside allocated range (100)\n");
}

TEST(FlymasterTrackList, SelectionRules) {
  const std::string list = " 1   01.01.20   12:00:00   01:00:00\n 2   01.01.20   14:00:00   00:30:00\n";
  struct Case {
    uint32_t command;
    int32_t flight;
    std::string typed;
    int32_t result;
    std::string out;
  } cases[] = {
      {kCommandDownloadTrack, 1, "", 1, list},
      {kCommandDownloadTrack, 2, "", 2, list},
      {kCommandDownloadTrack, 0, "", -1, list + "Flight number out of range\n"},
      {kCommandDownloadTrack, 3, "", -1, list + "Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "2\n", 2, list + "Select: "},
      {kCommandDownloadTrack, -1, "  1 please\n", 1, list + "Select: "},
      {kCommandDownloadTrack, -1, "3\n", -1, list + "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "0\n", -1, list + "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "-1\n", -1, list + "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "99999999999999999999\n", -1, list + "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "two\n", -1, list + "Select: No flight number found\n"},
      {kCommandDownloadTrack, -1, "", -1, list + "Select: No flight number found\n"},
      {kCommandDownloadAllTracks, -1, "", 0, ""},
  };
  for (const Case& c : cases) {
    Fresh f;
    tGps.dwCommand = c.command;
    tGps.nFlightNumber = c.flight;
    ASSERT_EQ(StoreList(&f.t, {"PFMLST,2,0,01.01.20,12:00:00,01:00:00", "PFMLST,2,1,01.01.20,14:00:00,00:30:00"}),
              0);
    test::FakeStdin input(c.typed);
    testing::internal::CaptureStdout();
    EXPECT_EQ(flymaster::SelectTrack(&f.t), c.result) << c.flight << " " << c.typed;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out) << c.flight << " " << c.typed;
  }
  Fresh empty;
  testing::internal::CaptureStdout();
  EXPECT_EQ(flymaster::SelectTrack(&empty.t), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "No tracks found\n");
}

TEST(FlymasterTrackList, TheReaderFollowsTypeAndFirmwareComparedAsText) {
  struct Case {
    int32_t type;
    const char* firmware;
    flymaster::TrackReader reader;
  } cases[] = {
      {kGpsFlymasterNew, "2.02", flymaster::ReadTrackLog2xx}, {kGpsFlymasterNew, "2.02a", flymaster::ReadTrackLog2xx},
      {kGpsFlymasterNew, "2.1", flymaster::ReadTrackLog2xx},  {kGpsFlymasterNew, "3", flymaster::ReadTrackLog2xx},
      {kGpsFlymasterNew, "2.01", flymaster::ReadTrackLogNew}, {kGpsFlymasterNew, "10.1", flymaster::ReadTrackLogNew},
      {kGpsFlymasterNew, "", flymaster::ReadTrackLogNew},     {kGpsFlymaster, "2.05", flymaster::ReadTrackLogOld},
      {kGpsFlymaster, "1.14", flymaster::ReadTrackLogOld},
  };
  for (const Case& c : cases) {
    Fresh f(c.type);
    std::strcpy(f.t.firmware, c.firmware);
    EXPECT_EQ(flymaster::ChooseTrackReader(&f.t), c.reader) << c.type << " " << c.firmware;
  }
}

TEST(FlymasterTrackList, TrackCommandsCarryTheStartAndTheirChecksum) {
  const uint32_t start = GpsTime(2019, 6, 6, 10, 39, 9);
  const struct {
    const char* mode;
    std::string body;
  } cases[] = {{"4", "PFMDNL,190606103909,4"}, {"2", "PFMDNL,190606103909,2"}, {"", "PFMDNL,190606103909,"}};
  for (const auto& c : cases) {
    char command[48];
    flymaster::FormatTrackCommand(start, c.mode, command);
    char tail[8];
    std::snprintf(tail, sizeof tail, "*%02x\r\n", Xor(c.body));
    EXPECT_EQ(std::string(command), "$" + c.body + tail);
  }
  char command[48];
  flymaster::FormatTrackCommand(GpsTime(2000, 1, 2, 3, 4, 5), "4", command);
  EXPECT_EQ(std::string(command), "$PFMDNL,000102030405,4*28\r\n");
}

TEST(FlymasterTrackList, TaskNumberCountsTracksOfTheSameDay) {
  Fresh f;
  const uint32_t day = GpsTime(2021, 7, 1, 0, 0, 0);
  f.t.trackStart[0] = day + 50000;
  f.t.trackStart[1] = day + 36000;
  f.t.trackStart[2] = day + 86400 + 10;  // next day
  f.t.trackStart[3] = day + 60000;
  f.t.trackCount = 4;
  EXPECT_EQ(flymaster::GetTaskId(&f.t, 1), 2);
  EXPECT_EQ(flymaster::GetTaskId(&f.t, 2), 1);
  EXPECT_EQ(flymaster::GetTaskId(&f.t, 4), 3);
  EXPECT_EQ(flymaster::GetTaskId(&f.t, 3), 1) << "alone on its day";
  EXPECT_EQ(flymaster::GetTaskId(&f.t, 0), 0);
}

// --- Pressure altitudes -------------------------------------------------------------------

TEST(FlymasterAltitude, EveryTableEntryIsTheFormulaTruncated) {
  EXPECT_EQ(flymaster::g_ciAltitudes[0], 15797);
  EXPECT_EQ(flymaster::g_ciAltitudes[1], 15791);
  EXPECT_EQ(flymaster::g_ciAltitudes[2], 15786);
  for (int i = 0; i < flymaster::kAltitudeTableSize; ++i) {
    float pascal = static_cast<float>(flymaster::kAltitudeTableFirst + i) * 10.0f;
    ASSERT_EQ(flymaster::g_ciAltitudes[i], static_cast<int>(flymaster::kPa_To_Meters(pascal, 1013.25f))) << i;
    // An independent double-precision reading of the same formula.
    double exact = 44330.76953125 * (1.0 - std::pow(pascal / 100.0 / 1013.25, 0.19026120007038116));
    ASSERT_NEAR(flymaster::g_ciAltitudes[i], exact, 1.01) << i;
  }
}

TEST(FlymasterAltitude, ValuesOutsideTheTableUseTheFormula) {
  EXPECT_EQ(flymaster::PressureToAltitude(10132), flymaster::g_ciAltitudes[9132]);
  EXPECT_EQ(flymaster::PressureToAltitude(10132), 0);
  EXPECT_EQ(flymaster::PressureToAltitude(10999), flymaster::g_ciAltitudes[9999]);
  EXPECT_EQ(flymaster::PressureToAltitude(11000), -698);
  EXPECT_EQ(flymaster::PressureToAltitude(12000), -1449);
  EXPECT_EQ(flymaster::PressureToAltitude(999), 15802);
  EXPECT_EQ(flymaster::PressureToAltitude(0), 44330);
  EXPECT_EQ(flymaster::PressureToAltitude(-5), INT32_MIN) << "no number: the hardware's indefinite value";
}

TEST(FlymasterLocation, ThreeBytesAndTheSignBitOfTheFourth) {
  const struct {
    uint8_t bytes[4];
    int32_t value;
  } cases[] = {
      {{0xC0, 0x27, 0x09, 0x00}, 600000},   {{0xC0, 0x27, 0x09, 0x7F}, 600000},  {{0x40, 0xD8, 0xF6, 0xFF}, -600000},
      {{0x40, 0xD8, 0xF6, 0x80}, -600000},  {{0xFF, 0xFF, 0xFF, 0x80}, -1},      {{0xFF, 0xFF, 0xFF, 0x00}, 16777215},
      {{0x00, 0x00, 0x00, 0x80}, -16777216}, {{0x00, 0x00, 0x00, 0x00}, 0},
  };
  for (const auto& c : cases) EXPECT_EQ(flymaster::GetLocation(c.bytes), c.value) << c.value;
}

// --- Dumps built by hand ----------------------------------------------------------------

void U16(std::string* s, uint32_t v) {
  s->push_back(static_cast<char>(v & 0xFF));
  s->push_back(static_cast<char>(v >> 8 & 0xFF));
}
void U32(std::string* s, uint32_t v) {
  U16(s, v & 0xFFFF);
  U16(s, v >> 16);
}
void Loc(std::string* s, int32_t v) {
  U16(s, static_cast<uint32_t>(v) & 0xFFFF);
  s->push_back(static_cast<char>(static_cast<uint32_t>(v) >> 16 & 0xFF));
  s->push_back(static_cast<char>(v < 0 ? 0x80 : 0x00));
}

std::string Full(uint8_t type, bool valid, int32_t lat, int32_t lonWest, int16_t gnss, int16_t pressure,
                 uint32_t time) {
  std::string r(1, static_cast<char>(type | (valid ? 0x80 : 0)));
  r.push_back('\x55');
  Loc(&r, lat);
  Loc(&r, lonWest);
  U16(&r, static_cast<uint16_t>(gnss));
  U16(&r, static_cast<uint16_t>(pressure));
  U32(&r, time);
  r.resize(static_cast<size_t>(type & 31), '\x66');
  return r;
}

std::string Delta(uint8_t type, bool valid, int dlat, int dlon, int dgnss, int dpressure, int dt) {
  std::string r(1, static_cast<char>(type | (valid ? 0x80 : 0)));
  for (int v : {dlat, dlon, dgnss, dpressure, dt}) r.push_back(static_cast<char>(v));
  r.resize(static_cast<size_t>(type & 31), '\x77');
  return r;
}

std::string Event(uint32_t time) {
  std::string r(1, '\x27');
  U32(&r, time);
  U16(&r, 0x1234);
  return r;
}

std::string TaskHeader(int count, uint32_t time) {
  std::string r = {'\x47', static_cast<char>(count), '\0'};
  U32(&r, time);
  return r;
}

std::string TaskPointRecord(int32_t lat, int32_t lonEast, const std::string& name, int16_t altitude = 0) {
  std::string r = {'\x1E', '\0', '\0', '\0'};
  U16(&r, static_cast<uint16_t>(altitude));
  Loc(&r, lat);
  Loc(&r, lonEast);
  std::string field = name.substr(0, 16);
  field.resize(16, '\0');
  return r + field;
}

std::string Pilot(const std::string& name) {
  std::string r(1, '\x3F');
  std::string field = name;
  field.resize(30, '\0');
  return r + field;
}

std::string Firmware(uint16_t build, bool longForm = false) {
  std::string r(1, longForm ? '\x65' : '\x43');
  U16(&r, build);
  if (longForm) U16(&r, 0);
  return r;
}

// One 4096-byte block: 12 header bytes, in block 0 a skip count and the
// bytes it skips, then the records and zeros.
std::string Block(const std::string& records, bool first = false, uint8_t skip = 16) {
  std::string b = "HEADERBYTES!";
  if (first) {
    b.push_back(static_cast<char>(skip));
    b.append(skip > 0 ? skip - 1u : 0u, '\x3A');
  }
  b += records;
  if (b.size() > 4096) throw std::runtime_error("block too long");
  b.resize(4096, '\0');
  return b;
}

std::string Checksum(const std::string& blocks) {
  std::string sum(8, '\0');
  for (size_t i = 0; i < blocks.size(); ++i) sum[i % 8] = static_cast<char>(sum[i % 8] ^ blocks[i]);
  return sum;
}

std::string Signature() {
  std::string s;
  for (int i = 0; i < 32; ++i) s.push_back(static_cast<char>(i * 8 + 1));
  return s;
}

std::string Dump2xx(const std::vector<std::string>& blocks, uint16_t hardware = 45571) {
  std::string all;
  for (const std::string& b : blocks) all += b;
  std::string trailer = Checksum(all);
  U16(&trailer, hardware);
  return all + trailer + Signature();
}

std::string DumpNew(const std::vector<std::string>& blocks) {
  std::string all;
  for (const std::string& b : blocks) all += b;
  return all + Checksum(all);
}

struct Converted {
  int32_t result;
  std::string text;
  std::string out;
};

Converted Convert(const std::string& dump, const char* serial = "2719") {
  char* igc = nullptr;
  int32_t length = 0;
  testing::internal::CaptureStdout();
  int32_t result = flymaster::ConvertDump2xx(reinterpret_cast<const uint8_t*>(dump.data()),
                                             static_cast<int32_t>(dump.size()), serial, &igc, &length);
  Converted c{result, "", testing::internal::GetCapturedStdout()};
  if (igc != nullptr) {
    c.text.assign(igc, static_cast<size_t>(length));
    EXPECT_EQ(std::strlen(igc), static_cast<size_t>(length));
    std::free(igc);
  }
  return c;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find("\r\n", at);
    if (end == std::string::npos) {
      lines.push_back(text.substr(at) + "<no CR LF>");
      break;
    }
    lines.push_back(text.substr(at, end - at));
    at = end + 2;
  }
  return lines;
}

std::vector<std::string> LinesStarting(const std::string& text, char first) {
  std::vector<std::string> picked;
  for (const std::string& line : Lines(text)) {
    if (!line.empty() && line[0] == first) picked.push_back(line);
  }
  return picked;
}

const uint32_t kFirstFix = GpsTime(2019, 6, 6, 10, 39, 9) - kEpoch;
const std::string kG = "G0109111921293139414951596169717981899199A1A9B1B9C1C9D1D9E1E9F1F9";

TEST(FlymasterDump2xx, TrailerLengthAndChecksum) {
  std::string good = Dump2xx({Block(Full(19, true, 1, 1, 1, 10132, kFirstFix), true)});
  EXPECT_EQ(Convert(good).result, 0);
  EXPECT_EQ(Convert(good + "extra bytes are ignored").result, 0);
  Converted cut = Convert(good.substr(0, 4096 + 41));
  EXPECT_EQ(cut.result, -1);
  EXPECT_EQ(cut.out, "Missing checksum and signature\n");
  EXPECT_EQ(Convert(good.substr(0, 40)).out, "Missing checksum and signature\n");
  // A block and 41 bytes more: the 41 are not a trailer.
  EXPECT_EQ(Convert(good + std::string(4096 - 42 + 41, '\0')).out, "Missing checksum and signature\n");
  for (size_t at : {size_t{0}, size_t{100}, size_t{4095}, size_t{4096}, size_t{4103}}) {
    std::string bad = good;
    bad[at] = static_cast<char>(bad[at] ^ 0x10);
    Converted c = Convert(bad);
    EXPECT_EQ(c.result, -1) << at;
    EXPECT_EQ(c.out, "Bad checksum\n") << at;
  }
  std::string hardwareChanged = good;
  hardwareChanged[4096 + 8] ^= 1;
  EXPECT_EQ(Convert(hardwareChanged).result, 0) << "the checksum covers the blocks only";
  // No blocks at all: only the G line, which the IGC reader will refuse.
  Converted none = Convert(Checksum("") + std::string("\x03\xB2", 2) + Signature());
  EXPECT_EQ(none.result, 0);
  EXPECT_EQ(none.text, kG + "\r\n");
}

TEST(FlymasterDump2xx, FixRecordsOfBothFamilies) {
  const uint32_t t0 = kFirstFix;
  std::string records = Full(19, true, 2637482, -342156, 822, 10132, t0) +  // family 1, east
                        Full(85, false, -600000, 600000, 900, 1500, t0 + 1) +  // family 2, V, west
                        Delta(8, true, 5, -3, 2, 10, 3) +                      // family 1 again
                        Delta(74, true, -1, 1, 0, -7, 2) +                     // family 2 again
                        Full(19, true, 0, 0, -5, 11000, t0 + 10) +             // zero longitude is "W"
                        Full(19, true, 1, -1, 0, 999, t0 + 11) +
                        Delta(72, false, 0, 0, 127, -128, 255);
  Converted c = Convert(Dump2xx({Block(records, true)}));
  ASSERT_EQ(c.result, 0) << c.out;
  EXPECT_EQ(LinesStarting(c.text, 'B'), (std::vector<std::string>{
                                             "B1039094357482N00542156EA0000000822",
                                             "B1039101000000S01000000WV0150000000",
                                             "B1039124357487N00542159EA-000700824",
                                             "B1039121000001S01000001WA0149300900",
                                             "B1039190000000N00000000WA-0698-0005",
                                             "B1039200000001N00000001EA1580200000",
                                             "B1043271000001S01000001WV0136500000",
                                         }));
}

TEST(FlymasterDump2xx, HardwareCodesNameTheModelAndTheSensors) {
  const std::string neo = "HFGPSRECEIVER:UBLOX,NEO8,56,50000,GPS,GLO,GAL|HFPRSPRESSALTSENSOR:FREESCALE,MPXA6115A,13608";
  const std::string cam = "HFGPSRECEIVER:UBLOX,CAM-M8Q,72,50000,GPS,GLO,GAL|HFPRSPRESSALTSENSOR:BOSCH,BMP280,9163";
  const struct {
    uint16_t code;
    const char* lines;
    std::string sensors;
  } cases[] = {
      {45569, "1.0|Flymaster,LIVE,B201", neo},    {45570, "1.0|Flymaster,NAV,B202", neo},
      {45572, "1.0|Flymaster,VARIO,B204", neo},   {45573, "1.0|Flymaster,,B205", neo},
      {45824, "1.0|Flymaster,,B300", neo},        {45825, "1.0|Flymaster,LIVESD,B301", neo},
      {45826, "1.0|Flymaster,NAVSD,B302", neo},   {45827, "1.0|Flymaster,GPS+SD,B303", neo},
      {45828, "1.0|Flymaster,GPSSD,B304", neo},   {45829, "1.0|Flymaster,VARIOSD,B305", neo},
      {45830, "1.0|Flymaster,SD,B306", ""},       {45831, "1.0|Flymaster,TRACKER,B307", cam},
      {45836, "1.0|Flymaster,SDGpsLS,B30C", cam}, {45840, "1.0|Flymaster,SD,B310", ""},
      {45841, "2.0|Flymaster,LIVESD,B311", cam},  {45842, "2.0|Flymaster,NAVSD,B312", cam},
      {45843, "2.0|Flymaster,GPS+SD,B313", cam},  {45844, "2.0|Flymaster,GPSSD,B314", cam},
      {45845, "2.0|Flymaster,VARIOSD,B315", cam}, {45846, "1.0|Flymaster,,B316", ""},
      {0, "1.0|Flymaster,,0000", ""},
  };
  for (const auto& c : cases) {
    Converted r = Convert(Dump2xx({Block(Full(19, true, 1, 1, 1, 10132, kFirstFix), true)}, c.code));
    ASSERT_EQ(r.result, 0);
    std::string got;
    for (const std::string& line : Lines(r.text)) {
      if (line.rfind("HFRHWHARDWAREVERSION:", 0) == 0) got += line.substr(21) + "|";
      if (line.rfind("HFFTYFRTYPE:", 0) == 0) got += line.substr(12);
      if (line.rfind("HFGPS", 0) == 0 || line.rfind("HFPRS", 0) == 0) got += "|" + line;
    }
    EXPECT_EQ(got, std::string(c.lines) + (c.sensors.empty() ? "" : "|" + c.sensors)) << c.code;
  }
}

TEST(FlymasterDump2xx, FirmwareBuildNumbers) {
  const struct {
    uint16_t build;
    const char* line;
  } cases[] = {
      {0, "2.02a"}, {5251, "2.02a"}, {5253, "2.02b"}, {5277, "2.02z"}, {7799, "2.99z"}, {65535, "25.20p"},
  };
  for (const auto& c : cases) {
    for (bool longForm : {false, true}) {
      Converted r =
          Convert(Dump2xx({Block(Firmware(c.build, longForm) + Full(19, true, 1, 1, 1, 10132, kFirstFix), true)}));
      EXPECT_EQ(Lines(r.text)[7], std::string("HFRFWFIRMWAREVERSION:") + c.line) << c.build;
    }
  }
  Converted none = Convert(Dump2xx({Block(Full(19, true, 1, 1, 1, 10132, kFirstFix), true)}));
  EXPECT_EQ(Lines(none.text)[2], "HFPLTPILOTINCHARGE:NIL");
  EXPECT_EQ(Lines(none.text)[0], "AXFI002719");
  EXPECT_EQ(Lines(Convert(Dump2xx({Block(Full(19, true, 1, 1, 1, 1, kFirstFix), true)}), "S/N 7").text)[0],
            "AXFI000000");
  Converted late = Convert(Dump2xx(
      {Block(Full(19, true, 1, 1, 1, 10132, kFirstFix) + Pilot("Too late") + Full(19, true, 1, 1, 1, 1, 0), true)}));
  EXPECT_EQ(Lines(late.text)[2], "HFPLTPILOTINCHARGE:NIL") << "the header is written at the first fix";
  EXPECT_EQ(Lines(late.text)[1], "HFDTEDATE:060619");
}

TEST(FlymasterDump2xx, ATaskBecomesCRecordsAfterTheHeader) {
  const uint32_t declared = GpsTime(2019, 6, 6, 9, 30, 0) - kEpoch;
  std::string records = TaskHeader(4, declared) + TaskPointRecord(2637482, 342156, "LAUNCH") +
                        TaskPointRecord(-600000, -600000, "SOUTH WEST POINT+") +
                        TaskPointRecord(600000, 600000, std::string("T3\0junk", 7)) +
                        TaskPointRecord(0, 0, "GOAL") + Full(19, true, 2637482, -342156, 822, 10132, kFirstFix) +
                        TaskHeader(3, declared + 60) + TaskPointRecord(1, 1, "LATE");
  Converted c = Convert(Dump2xx({Block(records, true)}));
  ASSERT_EQ(c.result, 0) << c.out;
  std::vector<std::string> lines = Lines(c.text);
  ASSERT_EQ(lines.size(), 27u);
  EXPECT_EQ(lines[14], "LPLTKestrixLinux 1.06");
  EXPECT_EQ(std::vector<std::string>(lines.begin() + 15, lines.begin() + 21),
            (std::vector<std::string>{"C060619093000000000000002", "C0000000N00000000WTAKEOFF",
                                      "C4357482N00542156ESTARTLAUNCH", "C1000000S01000000WTURNSOUTH WEST POINT",
                                      "C1000000N01000000ETURNT3", "C0000000N00000000EFINISHGOAL"}));
  EXPECT_EQ(lines[21], "C0000000N00000000WLANDING");
  EXPECT_EQ(lines[22], "B1039094357482N00542156EA0000000822");
  // After the header C records go straight into the text.
  EXPECT_EQ(lines[23], "C060619093100000000000001");
  EXPECT_EQ(lines[24], "C0000000N00000000WTAKEOFF");
  EXPECT_EQ(lines[25], "C0000001N00000001ESTARTLATE");
}

TEST(FlymasterDump2xx, TaskCountsAreForgottenAtEveryBlock) {
  const uint32_t declared = GpsTime(2019, 6, 6, 9, 30, 0) - kEpoch;
  struct Case {
    const char* label;
    std::vector<std::string> blocks;
    std::vector<std::string> cRecords;
  } cases[] = {
      {"points in a later block",
       {Block(TaskHeader(3, declared) + TaskPointRecord(1, 1, "A"), true),
        Block(TaskPointRecord(1, 1, "B") + TaskPointRecord(1, 1, "C") + Full(19, true, 1, 1, 1, 1, kFirstFix))},
       {"C060619093000000000000001", "C0000000N00000000WTAKEOFF", "C0000001N00000001ESTARTA",
        "C0000001N00000001ETURNB", "C0000001N00000001ETURNC"}},
      {"no task header at all",
       {Block(TaskPointRecord(1, 1, "A") + TaskPointRecord(1, 1, "B") + Full(19, true, 1, 1, 1, 1, kFirstFix),
              true)},
       {"C0000001N00000001EFINISHA", "C0000000N00000000WLANDING", "C0000001N00000001ESTARTB"}},
      {"a header of one point writes nothing",
       {Block(TaskHeader(1, declared) + TaskPointRecord(1, 1, "A") + Full(19, true, 1, 1, 1, 1, kFirstFix), true)},
       {"C0000001N00000001ETURNA"}},
      {"a negative count",
       {Block(TaskHeader(-3, declared) + TaskPointRecord(1, 1, "A") + TaskPointRecord(1, 1, "B") +
                  Full(19, true, 1, 1, 1, 1, kFirstFix),
              true)},
       {"C060619093000000000000000", "C0000000N00000000WTAKEOFF", "C0000001N00000001ESTARTA",
        "C0000001N00000001ETURNB"}},
  };
  for (const Case& c : cases) {
    Converted r = Convert(Dump2xx(c.blocks));
    ASSERT_EQ(r.result, 0) << c.label;
    EXPECT_EQ(LinesStarting(r.text, 'C'), c.cRecords) << c.label;
  }
}

TEST(FlymasterDump2xx, RecordsEndTheirBlockWhereTheSkipCountAndLengthsSay) {
  std::string fix = Full(19, true, 1, 1, 1, 10132, kFirstFix);
  struct Case {
    const char* label;
    std::string block0;
    std::vector<std::string> more;
    size_t fixes;
  } cases[] = {
      // With a count of 0 the count itself is the first record's header.
      {"skip count 0", Block(fix, true, 0), {}, 0},
      {"skip count 1", Block(fix, true, 1), {}, 1},
      {"skip count 255", Block(fix, true, 255), {}, 1},
      {"zero header ends the block", Block(fix + std::string(1, '\0') + fix, true), {}, 1},
      {"unknown records are skipped by length", Block(std::string("\x31", 1) + std::string(16, '\x13') + fix +
                                                          std::string("\x1F", 1) + std::string(30, '\x13') + fix,
                                                      true),
       {},
       2},
      {"blocks go on", Block(fix, true), {Block(fix + Event(kFirstFix + 5))}, 3},
  };
  for (const Case& c : cases) {
    std::vector<std::string> blocks = {c.block0};
    blocks.insert(blocks.end(), c.more.begin(), c.more.end());
    Converted r = Convert(Dump2xx(blocks));
    ASSERT_EQ(r.result, 0) << c.label;
    EXPECT_EQ(LinesStarting(r.text, 'B').size(), c.fixes) << c.label;
  }
  // A record that would cross the end of its block ends it instead.
  std::string filler;
  for (size_t i = 0; i < (4096 - 28) / 19; ++i) filler += fix;
  std::string crossing = Block(filler, true);
  const size_t used = 28 + filler.size();
  ASSERT_LT(4096 - used, 19u);
  std::string tail = Full(19, true, 1, 1, 1, 10132, kFirstFix + 77);
  crossing.replace(used, 4096 - used, tail.substr(0, 4096 - used));
  Converted r = Convert(Dump2xx({crossing}));
  ASSERT_EQ(r.result, 0);
  EXPECT_EQ(LinesStarting(r.text, 'B').size(), filler.size() / 19);
}

TEST(FlymasterDump2xx, EventsRepeatTheLastPositionAtTheirOwnTime) {
  Converted before = Convert(Dump2xx({Block(Event(kFirstFix) + Full(19, true, 1, 1, 1, 10132, kFirstFix), true)}));
  ASSERT_EQ(before.result, 0);
  EXPECT_EQ(Lines(before.text)[0], "B1039090000000N00000000WV0000000000") << "written before the header";
  EXPECT_EQ(Lines(before.text)[1], "AXFI002719");

  std::string records = Full(83, true, 2637482, -342156, 822, 827, kFirstFix) +
                        Full(19, true, 600000, 600000, 900, 10132, kFirstFix + 1) + Event(kFirstFix + 60) +
                        Full(83, false, 2637482, -342156, 822, 827, kFirstFix + 2) + Event(kFirstFix + 61);
  Converted c = Convert(Dump2xx({Block(records, true)}));
  EXPECT_EQ(LinesStarting(c.text, 'B'),
            (std::vector<std::string>{"B1039094357482N00542156EA0082700822", "B1039101000000N01000000WA0000000900",
                                      "B1040091000000N01000000WA0000000900", "B1039114357482N00542156EV0082700000",
                                      "B1040104357482N00542156EV0082700000"}));
}

// --- Pre-2.02 dumps -----------------------------------------------------------------------

struct Decoded {
  int32_t result;
  std::string out;
  std::vector<TrackPoint> points;
  std::vector<flymaster::TaskPoint> tasks;
};

Decoded DecodeNew(const std::string& dump, uint32_t downloadTime = 1000) {
  test::FreshRunParameters();
  flymaster::TaskPointList tasks;
  testing::internal::CaptureStdout();
  int32_t result = flymaster::DecodeDumpNew(reinterpret_cast<const uint8_t*>(dump.data()),
                                            static_cast<int32_t>(dump.size()), downloadTime, &tasks);
  Decoded d{result, testing::internal::GetCapturedStdout(), {}, {}};
  d.points.assign(tGps.pTrackPoints, tGps.pTrackPoints + tGps.nTrackPoints);
  d.tasks.assign(tasks.items, tasks.items + tasks.count);
  return d;
}

struct ExpectedPoint {
  uint32_t flags, time;
  int32_t lat, lon, gnss, pressure;
};

void ExpectPoints(const TrackPoint* got, size_t count, const std::vector<ExpectedPoint>& expected) {
  ASSERT_EQ(count, expected.size());
  for (size_t i = 0; i < count; ++i) {
    EXPECT_EQ(got[i].dwFlags, expected[i].flags) << i;
    EXPECT_EQ(got[i].dwTime, expected[i].time) << i;
    EXPECT_EQ(got[i].lLatitude, expected[i].lat) << i;
    EXPECT_EQ(got[i].lLongitude, expected[i].lon) << i;
    EXPECT_EQ(got[i].lGpsAltitude, expected[i].gnss) << i;
    EXPECT_EQ(got[i].lPressureAltitude, expected[i].pressure) << i;
  }
}

int32_t OldFormula(double pressure) {
  return static_cast<int32_t>((1.0 - std::pow(pressure / 10.0 / 1013.25, 0.190284)) * 44307.69 + 0.5);
}

TEST(FlymasterDumpNew, LengthAndChecksumRules) {
  const std::string block = Block(Full(19, true, 1, 1, 1, 10132, kFirstFix), true);
  EXPECT_EQ(DecodeNew(DumpNew({block})).result, 0);
  EXPECT_EQ(DecodeNew(DumpNew({block, block})).result, 0);
  const struct {
    std::string dump;
    const char* out;
  } cases[] = {
      {DumpNew({block}).substr(0, 4103), "Bad track log data length (4103)\n"},
      {DumpNew({block}) + "x", "Bad track log data length (4105)\n"},
      {DumpNew({block}).substr(0, 4096) + std::string(4096, '\0'), "Bad track log data length (8192)\n"},
      {DumpNew({block, block}) + "x", "Bad track log data length (8201)\n"},
      {Checksum(""), "Bad track log data length (8)\n"},
      {"", "Bad track log data length (0)\n"},
      {Dump2xx({block}), "Bad track log data length (4138)\n"},
  };
  for (const auto& c : cases) {
    Decoded d = DecodeNew(c.dump);
    EXPECT_EQ(d.result, -1) << c.out;
    EXPECT_EQ(d.out, c.out);
  }
  std::string bad = DumpNew({block});
  bad[13] ^= 4;
  EXPECT_EQ(DecodeNew(bad).out, "Bad checksum\n");
}

TEST(FlymasterDumpNew, FixesBecomePointsWithTheKeptRoundings) {
  const uint32_t t0 = kFirstFix;
  std::string records = Delta(8, true, 1, 1, 1, 1, 1) +  // before any full fix: nothing
                        Full(19, true, 600000, 600000, 1234, 10132, t0) + Delta(8, false, 1, 1, -2, 127, 255) +
                        Full(19, true, -600000, -600000, -3, static_cast<int16_t>(65500), t0 + 1000) +
                        Delta(8, true, 0, 0, 0, 100, 0) +  // pressure wraps past 65535
                        Full(83, true, 5, 5, 5, 5, t0) + Delta(72, true, 0, 0, 0, 0, 1) +  // flag bits set
                        Full(19, true, 3, 3, 0, 0, t0 + 2000);
  Decoded d = DecodeNew(DumpNew({Block(records, true)}), 4242);
  ASSERT_EQ(d.result, 0) << d.out;
  EXPECT_EQ(d.out, "");
  const uint32_t gps0 = t0 + kEpoch;
  ExpectPoints(d.points.data(), d.points.size(), {
      {1, gps0, 119304647, -119304646, 12340, OldFormula(10132)},
      {0, gps0 + 255, 119304846, -119304845, 12320, OldFormula(10259)},
      {0, gps0 + 1000, -119304647, 119304646, -30, OldFormula(65500)},
      {0, gps0 + 1000, -119304647, 119304646, -30, OldFormula(64)},
      {0, gps0 + 2000, 597, -596, 0, 44308},
  });
  ASSERT_EQ(d.points.size(), 5u);
  EXPECT_EQ(tGps.bUtc, 1);
  EXPECT_EQ(tGps.bSignature, 1);
  EXPECT_EQ(tGps.bPressureAltitude, 1);
  EXPECT_EQ(tGps.dwDownloadTime, 4242u);
  // A longitude of +600000 lies 10 degrees west.
  double lat = 0, lon = 0;
  ConvertArcToGeoPos(d.points[0].lLatitude, d.points[0].lLongitude, &lat, &lon);
  EXPECT_NEAR(lon / (3.14159265358979323846 / 180.0), -10.0, 1e-7);
}

TEST(FlymasterDumpNew, BlockEndsAndTheSkippedFirstRecord) {
  std::string fix = Full(19, true, 1, 1, 1, 10132, kFirstFix);
  const struct {
    const char* label;
    std::vector<std::string> blocks;
    size_t points;
  } cases[] = {
      {"header 31 ends the block", {Block(fix + std::string(1, '\x1F') + std::string(30, '\0') + fix, true)}, 1},
      {"header 0 ends the block", {Block(fix + std::string(1, '\0') + fix, true)}, 1},
      {"the first record of block 0 is skipped by its length", {Block(fix + fix, true, 19)}, 2},
      {"a first record of length 0 ends block 0", {Block(fix, true, 0)}, 0},
      {"later blocks have no first record to skip", {Block(fix, true), Block(fix + fix)}, 3},
      {"records with flag bits are skipped", {Block(std::string("\x33", 1) + std::string(18, '\x13') + fix, true)}, 1},
  };
  for (const auto& c : cases) {
    Decoded d = DecodeNew(DumpNew(c.blocks));
    EXPECT_EQ(d.points.size(), c.points) << c.label;
    EXPECT_EQ(d.result, c.points > 0 ? 0 : -1) << c.label;
    EXPECT_EQ(d.out, "") << c.label;
  }
}

TEST(FlymasterDumpNew, TaskPointsAreListedAfterTheTakeoff) {
  std::string records = TaskPointRecord(600000, 600000, "turn one", 1234) +
                        TaskPointRecord(-3, -3, std::string("  GoaL\0xx", 9), -5) +
                        TaskPointRecord(1, 1, "abcdefghijklmnopq") + Full(19, true, 1, 1, 1, 10132, kFirstFix);
  Decoded d = DecodeNew(DumpNew({Block(records, true)}), 777);
  ASSERT_EQ(d.result, 0);
  ASSERT_EQ(d.tasks.size(), 4u);
  const struct {
    const char* shortName;
    const char* longName;
    int32_t lat, lon, altitude;
  } expected[] = {
      {"TAKEOF", "TAKEOFF", 0, 0, 0},
      {"TURN", "turn one", 119304647, 119304647, 1234},
      {"", "GoaL", -597, -597, -5},
      {"ABCDEF", "abcdefghijklmnop", 199, 199, 0},
  };
  for (size_t i = 0; i < d.tasks.size(); ++i) {
    EXPECT_STREQ(d.tasks[i].shortName, expected[i].shortName) << i;
    EXPECT_STREQ(d.tasks[i].longName, expected[i].longName) << i;
    EXPECT_EQ(d.tasks[i].latitude, expected[i].lat) << i;
    EXPECT_EQ(d.tasks[i].longitude, expected[i].lon) << i;
    EXPECT_EQ(d.tasks[i].altitude, expected[i].altitude) << i;
    EXPECT_EQ(d.tasks[i].time, 777u) << i;
  }
  // The list grows past its first 20 slots.
  std::string many;
  for (int i = 0; i < 25; ++i) many += TaskPointRecord(i, i, "P" + std::to_string(i));
  Decoded big = DecodeNew(DumpNew({Block(many + Full(19, true, 1, 1, 1, 10132, kFirstFix), true)}));
  ASSERT_EQ(big.tasks.size(), 26u);
  EXPECT_STREQ(big.tasks[25].longName, "P24");
}

TEST(FlymasterDumpNew, NoFixMeansNoTrackAndTheOldOneStays) {
  test::FreshRunParameters();
  TrackPoint kept{};
  ASSERT_EQ(AppendTrackPoint(kept), 0);
  flymaster::TaskPointList tasks;
  std::string dump = DumpNew({Block(Delta(8, true, 1, 1, 1, 1, 1), true)});
  testing::internal::CaptureStdout();
  EXPECT_EQ(flymaster::DecodeDumpNew(reinterpret_cast<const uint8_t*>(dump.data()), static_cast<int32_t>(dump.size()),
                                     1, &tasks),
            -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(tGps.nTrackPoints, 1);
}

// --- Older models' blocks ---------------------------------------------------------------

std::string Frame(uint8_t type, const std::string& data, uint8_t second = 0) {
  std::string f = {static_cast<char>(type), static_cast<char>(second != 0 ? second : type),
                   static_cast<char>(data.size())};
  uint8_t sum = static_cast<uint8_t>(data.size());
  for (char c : data) sum ^= static_cast<uint8_t>(c);
  return f + data + static_cast<char>(sum);
}

std::string KeyData(int32_t lat, int32_t lonWest, int16_t gnss, int16_t pressure, uint32_t time) {
  std::string d(1, '\x01');
  U32(&d, static_cast<uint32_t>(lat));
  U32(&d, static_cast<uint32_t>(lonWest));
  U16(&d, static_cast<uint16_t>(gnss));
  U16(&d, static_cast<uint16_t>(pressure));
  U32(&d, time);
  return d;
}

std::string Entry(int dlat, int dlon, int dgnss, int dpressure, int dt) {
  std::string e(1, '\x09');
  for (int v : {dlat, dlon, dgnss, dpressure, dt}) e.push_back(static_cast<char>(v));
  return e;
}

struct OldRun {
  std::vector<flymaster::OldStep> steps;  // the steps that asked for something
  int32_t last = 1;
  std::string replies;
  std::string messages;
};

OldRun FeedOld(FlymasterTransfer* t, const std::string& bytes) {
  OldRun run;
  for (char c : bytes) {
    flymaster::OldStep step = flymaster::TakeOldByte(t, static_cast<uint8_t>(c), nullptr);
    run.last = step.result;
    if (step.reply != 0) run.replies.push_back(static_cast<char>(step.reply));
    if (step.message != nullptr) run.messages += step.message;
    if (step.result != 1) break;
  }
  return run;
}

const std::string kInfo = std::string(4, '\0') + std::string("\x07\0\0\0", 4) + std::string(55, 'I');
const std::string kB1(1, '\xB1'), kB2(1, '\xB2'), kB3(1, '\xB3');

TEST(FlymasterBlocks, EveryBlockIsAnsweredAndEveryAbortSendsB3First) {
  const std::string key = Frame(0xA1, KeyData(2637482, -342156, 822, 9000, kFirstFix));
  const std::string info = Frame(0xA0, kInfo);
  struct Case {
    const char* label;
    std::string bytes;
    int32_t last;
    std::string replies;
    std::string messages;
    size_t points;
  } cases[] = {
      {"a whole flight", info + key + Frame(0xA2, Entry(1, 2, 3, 4, 5) + Entry(-1, -2, -3, -4, 250)) + "\xA3\xA3", 0,
       kB1 + kB1 + kB1, "", 3},
      {"type bytes that differ", Frame(0xA0, kInfo, 0xA1) + "\xA3\xA3", 0, kB1, "", 0},
      {"noise between blocks", std::string("\x00\x55", 2) + info + "\xA1\x10" + info + "\xA3\xA3", 0, kB1 + kB1, "",
       0},
      {"a bad checksum", info.substr(0, info.size() - 1) + std::string(1, '\0') + info + "\xA3\xA3", 0, kB2 + kB1, "",
       0},
      {"the end as a block", info + Frame(0xA3, "", 0xA1) + "\xA0", 0, kB1, "", 0},
      {"short flight information", Frame(0xA0, kInfo.substr(0, 62)), -1, kB3, " Bad flight info block length\n", 0},
      {"short key", info + Frame(0xA1, KeyData(1, 1, 1, 1, 1).substr(0, 16)), -1, kB1 + kB3,
       " Bad key track position block length\n", 0},
      {"latitude too far north", info + Frame(0xA1, KeyData(5400001, 0, 0, 0, 0)), -1, kB1 + kB3,
       " Latitude outside valid range\n", 0},
      {"latitude too far south", info + Frame(0xA1, KeyData(-5400001, 0, 0, 0, 0)), -1, kB1 + kB3,
       " Latitude outside valid range\n", 0},
      {"latitude at the pole", info + Frame(0xA1, KeyData(-5400000, 10800000, 0, 0, 0)) + "\xA3\xA3", 0, kB1 + kB1,
       "", 1},
      {"longitude too far", info + Frame(0xA1, KeyData(0, -10800001, 0, 0, 0)), -1, kB1 + kB3,
       " Longitude value outside valid range\n", 0},
      {"track before key", info + Frame(0xA2, Entry(1, 1, 1, 1, 1)), -1, kB1 + kB3,
       " Missing key track position block\n", 0},
      {"track block of 13", info + key + Frame(0xA2, Entry(1, 1, 1, 1, 1) + Entry(1, 1, 1, 1, 1) + "x"), -1,
       kB1 + kB1 + kB3, " Bad track position block length\n", 1},
      {"empty track block", info + key + Frame(0xA2, ""), -1, kB1 + kB1 + kB3, " Bad track position block length\n", 1},
  };
  for (const Case& c : cases) {
    Fresh f(kGpsFlymaster);
    OldRun run = FeedOld(&f.t, c.bytes);
    EXPECT_EQ(run.last, c.last) << c.label;
    EXPECT_EQ(run.replies, c.replies) << c.label;
    EXPECT_EQ(run.messages, c.messages) << c.label;
    EXPECT_EQ(static_cast<size_t>(tGps.nTrackPoints), c.points) << c.label;
  }
}

TEST(FlymasterBlocks, PositionsAddUpAndConvert) {
  Fresh f(kGpsFlymaster);
  std::string bytes = Frame(0xA0, kInfo) + Frame(0xA1, KeyData(2637482, -342156, 822, 9000, kFirstFix)) +
                      Frame(0xA2, Entry(1, 2, 3, 4, 5) + Entry(-128, 127, -128, 127, 255)) +
                      Frame(0xA1, KeyData(-600000, 600000, -10, 10132, kFirstFix + 1000)) + "\xA3\xA3";
  ASSERT_EQ(FeedOld(&f.t, bytes).last, 0);
  const uint32_t gps0 = kFirstFix + kEpoch;
  auto arc = [](double v) { return static_cast<int32_t>(v < 0 ? v * 198.8410785185 - 0.5 : v * 198.8410785185 + 0.5); };
  ExpectPoints(tGps.pTrackPoints, static_cast<size_t>(tGps.nTrackPoints), {
      {1, gps0, arc(2637482), arc(342156), 8220, OldFormula(9000)},
      {0, gps0 + 5, arc(2637483), arc(342154), 8250, OldFormula(9004)},
      {0, gps0 + 260, arc(2637355), arc(342027), 6970, OldFormula(9131)},
      {0, gps0 + 1000, arc(-600000), arc(-600000), -100, OldFormula(10132)},
  });
  ASSERT_EQ(tGps.nTrackPoints, 4);
  EXPECT_EQ(tGps.pTrackPoints[3].lLongitude, -119304647) << "10 degrees west";
}

TEST(FlymasterBlocks, TheEndNeedsFlightInformationAndPoints) {
  {
    Fresh f(kGpsFlymaster);
    FeedOld(&f.t, "\xA3\xA3");
    flymaster::OldStep end = flymaster::FinishOldTransfer(&f.t, nullptr);
    EXPECT_EQ(end.result, -1);
    EXPECT_EQ(end.reply, 0xB3);
    EXPECT_STREQ(end.message, " Missing flight info block\n");
  }
  {
    Fresh f(kGpsFlymaster);
    FeedOld(&f.t, Frame(0xA0, kInfo) + "\xA3\xA3");
    flymaster::OldStep end = flymaster::FinishOldTransfer(&f.t, nullptr);
    EXPECT_EQ(end.result, -1);
    EXPECT_EQ(end.reply, 0);
    EXPECT_EQ(end.message, nullptr);
  }
  {
    Fresh f(kGpsFlymaster);
    FeedOld(&f.t, Frame(0xA0, kInfo) + Frame(0xA1, KeyData(1, 1, 1, 1, 1)) + "\xA3\xA3");
    testing::internal::CaptureStdout();
    ProgressCounter progress("Points: ", 0);
    flymaster::OldStep end = flymaster::FinishOldTransfer(&f.t, &progress);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Points: 0\b1\n");
    EXPECT_EQ(end.result, 0);
    EXPECT_EQ(end.reply, 0);
    EXPECT_EQ(tGps.bSignature + tGps.bUtc + tGps.bPressureAltitude, 3);
  }
}

TEST(FlymasterBlocks, FlightInformationLayoutFollowsTheModel) {
  std::string data = std::string(4, '\0') + std::string("\x2A\0\0\0", 4) + "DATE123" + "x" + "PILOT NAME 1234" +
                     std::string(15, '-') + "GLIDER NAME 12345" + "MORE TEXT HERE!!";
  for (const char* model : {"GPS", "B1NAV"}) {
    Fresh f(kGpsFlymaster);
    std::strcpy(f.t.name, model);
    ASSERT_EQ(FeedOld(&f.t, Frame(0xA0, data)).replies, kB1);
    EXPECT_EQ(f.t.infoNumber, 42u);
    EXPECT_STREQ(f.t.infoText[0], "DATE123");
    EXPECT_STREQ(f.t.infoText[1], "PILOT NAME 123");
    bool variant = std::strcmp(model, "B1NAV") == 0;
    EXPECT_STREQ(f.t.infoText[2], variant ? "GLIDER " : "GLIDER NAME 12");
    EXPECT_STREQ(f.t.infoText[3], variant ? "" : "345MORE TEXT H");
  }
}

// --- Waypoints ----------------------------------------------------------------------------

constexpr double kDegree = 3.14159265358979323846 / 180.0;

Waypoint MakeWaypoint(double lat, double lon, int32_t altitude, const char* comment, uint32_t flag = 0) {
  Waypoint w{};
  ConvertGeoToArcPos(lat * kDegree, lon * kDegree, &w.lLatitude, &w.lLongitude);
  w.lAltitude = altitude;
  std::snprintf(w.szComment, sizeof w.szComment, "%s", comment);
  w.dwReserved = flag;
  return w;
}

TEST(FlymasterWaypointSentences, UploadSentencesAreFormattedAsStored) {
  const struct {
    Waypoint w;
    bool marker;
    std::string body;
  } cases[] = {
      {MakeWaypoint(46 + 30.25 / 60, 7 + 15.5 / 60, 1250, "Col d'Aze"), false,
       "PFMWPR,4630.250,N,00715.500,E,,Col d'Aze       ,1250"},
      {MakeWaypoint(-(34 + 12.345 / 60), -(121 + 59.999 / 60), 12000, "A name longer than sixteen"), true,
       "PFMWPR,3412.345,S,12159.999,W,,A name longer th,9999,1"},
      {MakeWaypoint(0.5, 0.25, -5, ""), false, "PFMWPR,0030.000,N,00015.000,E,,                ,0000"},
  };
  for (const auto& c : cases) {
    char out[80];
    int n = flymaster::FormatWaypointSentence(c.w, c.marker, out);
    std::string expected = Sentence(c.body);
    EXPECT_EQ(std::string(out), expected);
    EXPECT_EQ(n, static_cast<int>(expected.size()));
  }
}

TEST(FlymasterWaypointSentences, NamesAreNormalisedToTheInstrumentsAlphabet) {
  const struct {
    const char* name;
    const char* normal;
  } cases[] = {
      {"Col d'Aze       ", "COL D AZE       "},
      {"abc-XYZ_09 \xE9t\xE9!!", "ABC XYZ 09  T   "},
      {"", "                "},
      {"12345678901234567890", "1234567890123456"},
  };
  for (const auto& c : cases) {
    char out[17];
    flymaster::NormaliseName(c.name, out);
    EXPECT_STREQ(out, c.normal) << c.name;
  }
}

TEST(FlymasterWaypointSentences, AnswersAreJudged) {
  const char* sent = "Col d'Aze       ";
  const struct {
    int32_t type;
    const char* firmware;
    std::string answer;
    int32_t judgement;
  } cases[] = {
      {kGpsFlymasterNew, "2.05", Sentence("PFMWPR,ACK,COL D AZE       "), 0},
      {kGpsFlymaster, "1.20", Sentence("PFMWPR,ACK,COL D AZE       ,more,and more"), 0},
      {kGpsFlymasterNew, "2.05", "$PFMWPR,ACK,COL D AZE       *00\r\n", 1},
      {kGpsFlymasterNew, "2.05", "$PFMWPR,ACK,COL D AZE       \r\n", 1},
      {kGpsFlymasterNew, "2.05", Sentence("PFMWPX,ACK,COL D AZE       "), 2},
      {kGpsFlymasterNew, "2.05", Sentence("PFMWPR,ACK"), 3},
      {kGpsFlymasterNew, "2.05", Sentence("PFMWPR,NAK,COL D AZE       "), 4},
      {kGpsFlymasterNew, "2.05", Sentence("PFMWPR,ACK,COL D AZE"), 5},
      {kGpsFlymasterNew, "2.05", Sentence("PFMWPR,ACK,Col d'Aze       "), 5},
      // Type 5 with firmware 1.14: the name alone, as it was sent.
      {kGpsFlymaster, "1.14", Sentence("PFMWPR,Col d'Aze       "), 0},
      {kGpsFlymaster, "1.14", Sentence("PFMWPR,COL D AZE       "), 5},
      {kGpsFlymaster, "1.14", Sentence("PFMWPR"), 3},
      {kGpsFlymaster, "1.14", Sentence("PFMWPR,ACK,COL D AZE       "), 5},
      {kGpsFlymasterNew, "1.14", Sentence("PFMWPR,Col d'Aze       "), 3},
      {kGpsFlymasterNew, "1.14", Sentence("PFMWPR,Col d'Aze       ,x"), 4},
  };
  for (const auto& c : cases) {
    Fresh f(c.type);
    std::strcpy(f.t.firmware, c.firmware);
    ASSERT_EQ(Feed(&f.t, c.answer), 1);
    EXPECT_EQ(flymaster::JudgeWaypointResponse(&f.t, sent), c.judgement) << c.answer;
  }
}

TEST(FlymasterWaypointSentences, DownloadedSentencesAreCheckedAndStored) {
  struct Case {
    std::string body;
    int32_t result;
    const char* out;
  } cases[] = {
      {"PFMWPL,46.504167,N,7.258333,E,1250.4,Launch west", 0, ""},
      {"PFMWPL,33.5,S,70.25,W,-12.5,  low  meadow ,1", 0, ""},
      {"PFMWPL,0.5,N,0.5,W,0,toolongname here,2", 0, ""},
      {"PFMWPL,45,N,6,E,3003,peak,1,extra", 0, ""},
      {"PFMWPL,46.5,n,7.2,E,100,x", -1, " Bad latitude data\n"},
      {"PFMWPL,46.5.1,N,7.2,E,100,x", -1, " Bad latitude data\n"},
      {"PFMWPL,46.5,N,7.2,e,100,x", -1, " Bad longitude data\n"},
      {"PFMWPL,46.5,N,,E,100,x", -1, " Bad longitude data\n"},
      {"PFMWPL,46.5,N,7.2,E,high,x", -1, " Bad height data\n"},
      {"PFMWPL,46.5,N,7.2,E,100,   ", -1, " Bad ID or name\n"},
      {"PFMWPL,46.5,N,7.2,E,100", -1, " Too few NMEA parameters\n"},
      {"PFMWPX,46.5,N,7.2,E,100,x", -1, " Bad NMEA identifier\n"},
  };
  Fresh f;
  for (const Case& c : cases) {
    Feed(&f.t, Sentence(c.body));
    testing::internal::CaptureStdout();
    EXPECT_EQ(flymaster::StoreWaypointSentence(&f.t, 5555), c.result) << c.body;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out) << c.body;
  }
  Feed(&f.t, "$PFMWPL,1,N,1,E,1,x*00\r\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(flymaster::StoreWaypointSentence(&f.t, 5555), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), " NMEA parse error 4\n");

  ASSERT_EQ(tGps.nWaypoints, 4);
  const struct {
    double lat, lon;
    int32_t altitude;
    const char* id;
    const char* comment;
    uint32_t marker;
  } expected[] = {
      {46.504167, 7.258333, 1250, "LAUNCH", "Launch west", 0},
      {-33.5, -70.25, -12, "LOW", "low meadow", 1},
      {0.5, -0.5, 0, "TOOLON", "toolongname here", 0},
      {45, 6, 3003, "PEAK", "peak", 1},
  };
  for (int i = 0; i < 4; ++i) {
    const Waypoint& w = tGps.pWaypoints[i];
    int32_t lat = 0, lon = 0;
    ConvertGeoToArcPos(expected[i].lat * kDegree, expected[i].lon * kDegree, &lat, &lon);
    EXPECT_NEAR(w.lLatitude, lat, 1) << i;
    EXPECT_NEAR(w.lLongitude, lon, 1) << i;
    EXPECT_EQ(w.lAltitude, expected[i].altitude) << i;
    EXPECT_STREQ(w.szId, expected[i].id) << i;
    EXPECT_STREQ(w.szComment, expected[i].comment) << i;
    EXPECT_EQ(w.dwReserved, expected[i].marker) << i;
    EXPECT_EQ(w.dwTime, 5555u) << i;
  }
}

// --- The debug dump -------------------------------------------------------------------------

TEST(FlymasterDebugDump, TheScrambledFileReplaysToTheSameText) {
  std::string dump = Dump2xx({Block(Pilot("Replay") + Full(19, true, 2637482, -342156, 822, 9000, kFirstFix), true),
                              Block(Delta(8, true, 1, 1, 1, 1, 1))});
  test::TempDir dir;
  std::string out;
  test::InDirectory(dir.path(), [&] {
    testing::internal::CaptureStdout();
    EXPECT_EQ(flymaster::SaveDebugData(reinterpret_cast<const uint8_t*>(dump.data()), static_cast<int32_t>(dump.size())),
              0);
    out = testing::internal::GetCapturedStdout();
  });
  EXPECT_EQ(out, "Debug file flymaster2yy.dat written\n");
  std::string saved = test::ReadFile(dir.File("flymaster2yy.dat"));
  ASSERT_EQ(saved.size(), dump.size());
  EXPECT_NE(saved, dump);
  std::string replay = saved;
  for (size_t i = 0; i < replay.size(); ++i) replay[i] = static_cast<char>(replay[i] ^ abScramble[i % 59]);
  EXPECT_EQ(replay, dump);
  EXPECT_EQ(Convert(replay).text, Convert(dump).text);

  std::filesystem::create_directory(dir.File("locked"));
  std::filesystem::create_directory(dir.File("locked/flymaster2yy.dat"));
  test::InDirectory(dir.File("locked"), [&] {
    testing::internal::CaptureStdout();
    EXPECT_EQ(flymaster::SaveDebugData(reinterpret_cast<const uint8_t*>(dump.data()), 10), -1);
    out = testing::internal::GetCapturedStdout();
  });
  EXPECT_EQ(out, "Saving debug data: Failed to create debug file\n");
}

}  // namespace
