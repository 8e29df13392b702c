// Digifly Leonardo/Air decoders, on sentences and records made by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "core/run.h"
#include "geo/time.h"
#include "geo/conv.h"
#include "link/string.h"
#include "serial/leonardo.h"
#include "support.h"

namespace {

using leonardo::LeonardoTransfer;

// 2021-03-06 10:34:11 in seconds from 1980-01-06, and 220 s later.
constexpr uint32_t kTakeoff = 1299062051;
constexpr uint32_t kLanding = kTakeoff + 220;
// That takeoff in little-endian hex, then block 1 at byte 0x0017; the
// landing, then block 2 up to byte 0x058D.
constexpr char kEntry[] = "231D6E4D010017FF1D6E4D02058D";

// The sentence with its checksum, or with one that is one too high.
std::string WithChecksum(const std::string& body, bool wrong = false) {
  uint8_t x = wrong ? 1 : 0;
  for (char c : body) x ^= static_cast<uint8_t>(c);
  char tail[4];
  std::snprintf(tail, sizeof tail, "%02X", x);
  return "$" + body + "*" + tail;
}

std::string BadChecksum(const std::string& body) { return WithChecksum(body, true); }

// A fresh transfer record on the heap (it holds a block and its sentence).
std::unique_ptr<LeonardoTransfer> Transfer(const std::string& sentence = "") {
  auto t = std::make_unique<LeonardoTransfer>();
  leonardo::ResetTransfer(t.get());
  std::snprintf(t->sentence, sizeof t->sentence, "%s", sentence.c_str());
  t->length = static_cast<int32_t>(sentence.size());
  return t;
}

TEST(LeonardoCommands, AreFramedWithTheirChecksum) {
  char out[40];
  leonardo::FormatCommand("PDGFVID", out);
  EXPECT_STREQ(out, "$PDGFVID*4E\r\n");
  leonardo::FormatCommand("PDGFFLL", out);
  EXPECT_STREQ(out, "$PDGFFLL*53\r\n");
  leonardo::FormatBlockCommand(0, 4094, out);
  EXPECT_STREQ(out, "$PDGFRMM,2,0,00,4094*4C\r\n");
  leonardo::FormatBlockCommand(5, 1426, out);
  EXPECT_STREQ(out, "$PDGFRMM,2,5,00,1426*41\r\n");
}

TEST(LeonardoSentences, AreCollectedFromDollarToTheTwoChecksumCharacters) {
  struct Case {
    std::string bytes;
    int32_t result;  // of the last byte
    std::string sentence;
  } cases[] = {
      {"\n\r junk $PDGFVID,A*1F", 0, "$PDGFVID,A*1F"},
      // A "$" inside a sentence starts a new one.
      {"$PDG$AB*03", 0, "$AB*03"},
      {"$AB\r", leonardo::kNoChecksum, ""},
      {"$AB\n", leonardo::kNoChecksum, ""},
      // The two characters after "*" are taken whatever they are.
      {"$A**1", 0, "$A**1"},
      {"$AB*0", 1, ""},
  };
  for (const Case& c : cases) {
    auto t = Transfer();
    int32_t result = 1;
    for (char b : c.bytes) {
      result = leonardo::TakeSentenceByte(t.get(), static_cast<uint8_t>(b));
      if (result != 1) break;
    }
    EXPECT_EQ(result, c.result) << c.bytes;
    if (c.result == 0) {
      EXPECT_EQ(std::string(t->sentence), c.sentence) << c.bytes;
    }
  }
  // A body longer than a block's sentence can be.
  auto t = Transfer();
  int32_t result = leonardo::TakeSentenceByte(t.get(), '$');
  for (int i = 0; i < leonardo::kSentenceSize && result == 1; ++i) result = leonardo::TakeSentenceByte(t.get(), 'A');
  EXPECT_EQ(result, leonardo::kSentenceTooLong);
  // After a complete sentence the collector hunts for the next "$".
  t = Transfer();
  for (char b : std::string("$A*41")) leonardo::TakeSentenceByte(t.get(), static_cast<uint8_t>(b));
  EXPECT_EQ(leonardo::TakeSentenceByte(t.get(), 'x'), 1);
  EXPECT_EQ(t->state, 0);
}

TEST(LeonardoProduct, FieldsProductTextAndRecordLayout) {
  struct Case {
    std::string sentence;
    int32_t result;
    const char* product;
    bool withoutQnh;
  } cases[] = {
      {WithChecksum("PDGFVID,DIGIFLY AIR BT,141a-012,10394,Jane Doe"), 0, "DIGIFLY AIR BT, SN10394, SW141a-012", false},
      {WithChecksum("PDGFVID,LEONARDO,4.02,77,"), 0, "Digifly LEONARDO, SN77, SW4.02", true},
      {WithChecksum("PDGFVID,LEONARDO,4.02,77"), leonardo::kTooFewFields, "", false},
      {WithChecksum("PDGFFLL,LEONARDO,4.02,77,x"), leonardo::kBadIdentifier, "", false},
      {BadChecksum("PDGFVID,LEONARDO,4.02,77,x"), kNmeaChecksumMismatch, "", false},
      {"$PDGFVID,LEONARDO,4.02,77,x*G0", kNmeaBadChecksumDigit, "", false},
  };
  for (const Case& c : cases) {
    auto t = Transfer(c.sentence);
    EXPECT_EQ(leonardo::DecodeProductSentence(t.get()), c.result) << c.sentence;
    if (c.result != 0) continue;
    EXPECT_STREQ(t->product, c.product);
    EXPECT_EQ(t->recordsWithoutQnh, c.withoutQnh) << c.sentence;
  }
  auto t = Transfer(cases[0].sentence);
  ASSERT_EQ(leonardo::DecodeProductSentence(t.get()), 0);
  EXPECT_STREQ(t->device, "DIGIFLY AIR BT");
  EXPECT_STREQ(t->firmware, "141a-012");
  EXPECT_STREQ(t->serial, "10394");
  EXPECT_STREQ(t->pilot, "Jane Doe");

  // Long fields are cut to what the record holds; the product text to 80.
  const std::string longDevice(60, 'D'), longSerial(30, '9');
  t = Transfer(WithChecksum("PDGFVID," + longDevice + ",1.0," + longSerial + ",P"));
  ASSERT_EQ(leonardo::DecodeProductSentence(t.get()), 0);
  EXPECT_EQ(std::string(t->device), longDevice.substr(0, 40));
  EXPECT_EQ(std::string(t->serial), longSerial.substr(0, 20));
  EXPECT_EQ(std::string(t->product), "Digifly " + longDevice.substr(0, 40) + ", SN" + longSerial.substr(0, 20) + ", SW1.0");
}

TEST(LeonardoList, EntriesAreDecodedLittleEndianTimesAndPlainAddresses) {
  leonardo::FlightEntry e{};
  ASSERT_TRUE(leonardo::DecodeFlightEntry(kEntry, &e));
  EXPECT_EQ(e.takeoff, kTakeoff);
  EXPECT_EQ(e.startBlock, 1);
  EXPECT_EQ(e.startAddress, 0x17);
  EXPECT_EQ(e.landing, kLanding);
  EXPECT_EQ(e.lastBlock, 2);
  EXPECT_EQ(e.lastAddress, 0x58D);
  std::string bad = kEntry;
  bad[27] = 'g';
  EXPECT_FALSE(leonardo::DecodeFlightEntry(bad.c_str(), &e));
}

// Entry n of a list: distinct takeoff times, the rest as kEntry.
std::string Entry(int n) {
  char text[32];
  std::snprintf(text, sizeof text, "%02X%s", n, kEntry + 2);
  return text;
}

TEST(LeonardoList, NewestLastBecomesFlightOneInEitherEntryForm) {
  const std::string joined = Entry(1) + Entry(2) + Entry(3);
  const std::string separated = Entry(1) + "," + Entry(2) + "," + Entry(3);
  for (const std::string& entries : {joined, separated}) {
    auto t = Transfer(WithChecksum("PDGFFLL,3," + entries));
    ASSERT_EQ(leonardo::DecodeFlightList(t.get()), 3) << entries;
    ASSERT_EQ(t->flightCount, 3);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(t->flights[i].takeoff & 0xFF, static_cast<uint32_t>(3 - i)) << entries;
      EXPECT_EQ(t->flights[i].lastAddress, 0x58D);
    }
  }
}

TEST(LeonardoList, MalformedListsAreRefused) {
  struct Case {
    std::string sentence;
    int32_t result;
  } cases[] = {
      {WithChecksum("PDGFFLL,0,"), 0},
      {WithChecksum("PDGFFLL,0"), 0},
      {WithChecksum("PDGFFLL,1," + Entry(1)), 1},
      {WithChecksum("PDGFFLL"), leonardo::kTooFewFields},
      {WithChecksum("PDGFVID,1," + Entry(1)), leonardo::kBadIdentifier},
      {WithChecksum("PDGFFLL,," + Entry(1)), leonardo::kBadFlightCount},
      {WithChecksum("PDGFFLL,one," + Entry(1)), leonardo::kBadFlightCount},
      {WithChecksum("PDGFFLL,2," + Entry(1)), leonardo::kBadListEntries},
      {WithChecksum("PDGFFLL,1," + Entry(1) + "0"), leonardo::kBadListEntries},
      {WithChecksum("PDGFFLL,1," + Entry(1).substr(0, 27) + "x"), leonardo::kBadListEntries},
      {WithChecksum("PDGFFLL,2147483649," + Entry(1)), leonardo::kBadListEntries},
      {BadChecksum("PDGFFLL,1," + Entry(1)), kNmeaChecksumMismatch},
  };
  for (const Case& c : cases) {
    auto t = Transfer(c.sentence);
    EXPECT_EQ(leonardo::DecodeFlightList(t.get()), c.result) << c.sentence;
  }
}

TEST(LeonardoList, OfMoreThanAHundredFlightsTheNewestAreKept) {
  std::string entries;
  for (int n = 0; n < 130; ++n) entries += Entry(n);
  auto t = Transfer(WithChecksum("PDGFFLL,130," + entries));
  ASSERT_EQ(leonardo::DecodeFlightList(t.get()), 100);
  EXPECT_EQ(t->flights[0].takeoff & 0xFF, 129u);
  EXPECT_EQ(t->flights[99].takeoff & 0xFF, 30u);
  // A bad digit among the entries left out still spoils the list.
  entries[5] = 'z';
  t = Transfer(WithChecksum("PDGFFLL,130," + entries));
  EXPECT_EQ(leonardo::DecodeFlightList(t.get()), leonardo::kBadListEntries);
}

TEST(LeonardoBlock, HexBytesBetweenTheFirstCommaAndTheChecksum) {
  auto t = Transfer(WithChecksum("PDGFRMM,00FF7f80"));
  ASSERT_EQ(leonardo::DecodeBlockSentence(t.get()), 4);
  EXPECT_EQ(t->blockLength, 4);
  EXPECT_EQ(t->block[0], 0x00);
  EXPECT_EQ(t->block[1], 0xFF);
  EXPECT_EQ(t->block[2], 0x7F);
  EXPECT_EQ(t->block[3], 0x80);

  const std::string full(2 * leonardo::kBlockSize, 'A');
  struct Case {
    std::string sentence;
    int32_t result;
  } cases[] = {
      {WithChecksum("PDGFRMM," + full), leonardo::kBlockSize},
      {WithChecksum("PDGFRMM," + full + "AA"), leonardo::kBadBlockData},
      {WithChecksum("PDGFRMM,ABC"), leonardo::kBadBlockData},
      {WithChecksum("PDGFRMM,AB,CD"), leonardo::kBadBlockData},
      {WithChecksum("PDGFRMM,ABXD"), leonardo::kBadBlockData},
      {WithChecksum("PDGFRMM,"), 0},
      {WithChecksum("PDGFRMM"), 0},
      {BadChecksum("PDGFRMM,ABCD"), kNmeaChecksumMismatch},
  };
  for (const Case& c : cases) {
    auto b = Transfer(c.sentence);
    EXPECT_EQ(leonardo::DecodeBlockSentence(b.get()), c.result) << c.sentence.substr(0, 40);
    if (c.result >= 0) {
      EXPECT_EQ(b->blockLength, c.result);
    }
  }
}

// Control byte 0x0B (13 satellites), time 1300000000, latitude 0.8 and
// longitude -0.1 radians as floats, QNE -12 m, vario -2.5 m/s, 41 and
// 37 km/h, QNH 1234 m, GPS altitude 2345 m.
constexpr uint8_t kRecord[leonardo::kRecordSize] = {0x0B, 0x00, 0x6D, 0x7C, 0x4D, 0xCD, 0xCC, 0x4C,
                                                    0x3F, 0xCD, 0xCC, 0xCC, 0xBD, 0xFF, 0xF4, 0xFF,
                                                    0xE7, 41,   37,   0x04, 0xD2, 0x09, 0x29};

TEST(LeonardoRecord, FieldsWithTheirByteOrderAndSign) {
  leonardo::TrackRecord r{};
  leonardo::DecodeTrackRecord(kRecord, false, &r);
  EXPECT_EQ(r.control, 0x0B);
  EXPECT_EQ(r.satellites, 13);
  EXPECT_EQ(r.time, 1300000000u);
  EXPECT_EQ(r.latitude, 0.8f);
  EXPECT_EQ(r.longitude, -0.1f);
  EXPECT_EQ(r.pressureAltitude, -12);
  EXPECT_EQ(r.vario, -25);
  EXPECT_EQ(r.airspeed, 41);
  EXPECT_EQ(r.groundSpeed, 37);
  EXPECT_EQ(r.qnhAltitude, 1234);
  EXPECT_EQ(r.gpsAltitude, 2345);
  // 4.x firmware: the QNH bytes carry something else.
  leonardo::DecodeTrackRecord(kRecord, true, &r);
  EXPECT_EQ(r.qnhAltitude, -12);
  EXPECT_EQ(r.gpsAltitude, 2345);
  // Satellites from bits 1 to 3 only.
  uint8_t other[leonardo::kRecordSize];
  std::memcpy(other, kRecord, sizeof other);
  other[0] = 0xF0;
  leonardo::DecodeTrackRecord(other, false, &r);
  EXPECT_EQ(r.satellites, 3);
}

TEST(LeonardoRecord, OnlyPlausibleFixesOfTheFlightBecomePoints) {
  const leonardo::FlightEntry flight{kTakeoff, kLanding, 1, 0x17, 2, 0x58D};
  leonardo::TrackRecord base{};
  leonardo::DecodeTrackRecord(kRecord, false, &base);
  base.time = kTakeoff + 100;
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  struct Case {
    const char* what;
    uint32_t time;
    float latitude, longitude;
    bool stored;
  } cases[] = {
      {"inside", kTakeoff + 100, 0.8f, -0.1f, true},
      {"at takeoff", kTakeoff, 0.8f, -0.1f, true},
      {"at landing", kLanding, 0.8f, -0.1f, true},
      {"before takeoff", kTakeoff - 1, 0.8f, -0.1f, false},
      {"after landing", kLanding + 1, 0.8f, -0.1f, false},
      {"erased", kTakeoff + 100, nan, nan, false},
      {"beyond the pole", kTakeoff + 100, 1.5708f, 0.1f, false},
      {"next to the south pole", kTakeoff + 100, -1.570796f, 0.1f, true},
      {"beyond the date line", kTakeoff + 100, 0.8f, -3.1416f, false},
      {"infinite", kTakeoff + 100, 0.8f, inf, false},
      {"no fix", kTakeoff + 100, 0.0f, 0.0f, false},
      {"on the equator", kTakeoff + 100, 0.0f, 0.5f, true},
      {"on the meridian", kTakeoff + 100, 0.5f, 0.0f, true},
  };
  for (const Case& c : cases) {
    leonardo::TrackRecord r = base;
    r.time = c.time;
    r.latitude = c.latitude;
    r.longitude = c.longitude;
    TrackPoint p{};
    p.dwFlags = 7;
    EXPECT_EQ(leonardo::MakeTrackPoint(r, flight, &p), c.stored) << c.what;
    if (!c.stored) continue;
    EXPECT_EQ(p.dwTime, c.time - leonardo::kInstrumentEpochOffset) << c.what;
    EXPECT_EQ(p.dwFlags, 0u) << c.what;
    int32_t lat = 0, lon = 0;
    ConvertGeoToArcPos(c.latitude, c.longitude, &lat, &lon);
    EXPECT_EQ(p.lLatitude, lat) << c.what;
    EXPECT_EQ(p.lLongitude, lon) << c.what;
    EXPECT_EQ(p.lGpsAltitude, 23450) << c.what;
    EXPECT_EQ(p.lPressureAltitude, -12) << c.what;
  }
  // GPS time starts at 1989-12-31: the instrument's 2021-03-06 10:34:11.
  leonardo::TrackRecord r = base;
  r.time = kTakeoff;
  TrackPoint p{};
  ASSERT_TRUE(leonardo::MakeTrackPoint(r, flight, &p));
  SystemTime st{2021, 3, 6, 10, 34, 11};
  EXPECT_EQ(p.dwTime, ConvertSystemTimeToGpsTime(&st));
  // Times before that cannot be stored, even in a flight that claims them.
  const leonardo::FlightEntry early{0, kLanding, 0, 0, 0, 22};
  r.time = leonardo::kInstrumentEpochOffset - 1;
  EXPECT_FALSE(leonardo::MakeTrackPoint(r, early, &p));
}

// The list and the selection rules, with the list already decoded.
struct Selection {
  uint32_t command;
  int32_t flightNumber;
  std::string typed;
  int32_t flights;
  int32_t result;
  std::string out;
};

TEST(LeonardoSelect, ListAndSelectionRules) {
  const std::string one = " 1   06.03.21   10:34:11   00:03:40\n";
  const std::string two = one + " 2   06.03.21   10:34:11   00:03:40\n";
  const Selection cases[] = {
      {kCommandDownloadTrack, 2, "", 2, 2, two},
      {kCommandDownloadTrack, 3, "", 2, -1, two + "Flight number out of range\n"},
      {kCommandDownloadTrack, 0, "", 2, -1, two},
      {kCommandDownloadTrack, -1, "2\n", 2, 2, two + "Select: "},
      {kCommandDownloadTrack, -1, " 1 \n", 2, 1, two + "Select: "},
      {kCommandDownloadTrack, -1, "0\n", 2, -1, two + "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "3\n", 2, -1, two + "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "99999999999999999999\n", 2, -1, two + "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "-4\n", 2, -1, two + "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "x\n", 2, -1, two + "Select: No flight number found\n"},
      {kCommandDownloadTrack, -1, "", 2, -1, two + "Select: No flight number found\n"},
      {kCommandDownloadTrack, 1, "", 0, -1, "No tracks found\n"},
      {kCommandDownloadAllTracks, -1, "", 1, 0, one},
      {kCommandDownloadAllTracks, -1, "", 0, -1, "No tracks found\n"},
  };
  for (const Selection& c : cases) {
    test::FreshRunParameters();
    tGps.dwCommand = c.command;
    tGps.nFlightNumber = c.flightNumber;
    auto t = Transfer();
    t->flightCount = c.flights;
    for (int i = 0; i < c.flights; ++i) {
      ASSERT_TRUE(leonardo::DecodeFlightEntry(kEntry, &t->flights[i]));
    }
    test::FakeStdin input(c.typed);
    testing::internal::CaptureStdout();
    int32_t result = leonardo::SelectFlight(t.get());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, c.result) << c.flightNumber << " " << c.typed;
    EXPECT_EQ(out, c.out) << c.flightNumber << " " << c.typed;
  }
}

}  // namespace
