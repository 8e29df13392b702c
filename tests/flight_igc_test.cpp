// IGC files beyond the table cases: the security record against its
// definition (zlib's CRC-32), growth of the buffers, damaged texts and real
// flights read, written and read again.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "support.h"

namespace {

struct Decoded {
  int32_t result;
  std::string out;
};

Decoded Decode(const std::string& text, char* pilotField = nullptr) {
  std::vector<uint8_t> bytes(text.begin(), text.end());
  testing::internal::CaptureStdout();
  const int32_t result =
      DecodeIgcBuffer(bytes.data(), static_cast<int32_t>(bytes.size()), pilotField, pilotField ? 50 : 0);
  return {result, testing::internal::GetCapturedStdout()};
}

std::string Encode(const std::vector<TrackPoint>& points, uint32_t downloadTime, int32_t security) {
  char* text = nullptr;
  const int32_t n = EncodeIgcLog(points.data(), static_cast<uint32_t>(points.size()), "Pilot", "Wing", "X1", "Open",
                                 "Hill", "Instrument \xE9", nullptr, nullptr, 0, downloadTime, &text, security);
  EXPECT_GT(n, 0);
  std::string s = n > 0 ? std::string(text, static_cast<size_t>(n)) : "";
  std::free(text);
  return s;
}

uint32_t RunningCrc(const std::string& bytes) {  // zlib's value is the running one inverted
  return ~static_cast<uint32_t>(crc32(0L, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

// The G record from its definition: two CRCs, then the 64 bits permuted one by one.
std::string ExpectedSecurityLine(const std::string& protectedText) {
  const uint32_t c = RunningCrc(protectedText + "1");
  const std::string second = {static_cast<char>(c >> 24), static_cast<char>(c >> 16), static_cast<char>(c >> 8),
                              static_cast<char>(c)};
  const uint64_t block = c | static_cast<uint64_t>(RunningCrc(second + "1111")) << 32;
  uint64_t scrambled = 0;
  for (int bit = 0; bit < 64; ++bit) scrambled |= ((block >> abScramble[bit]) & 1u) << bit;
  char line[24];
  std::snprintf(line, sizeof line, "G%016llX\r\n", static_cast<unsigned long long>(scrambled));
  return line;
}

class IgcFiles : public testing::Test {
 protected:
  void SetUp() override { test::FreshRunParameters(); }
  void TearDown() override { test::FreshRunParameters(); }
};

TEST_F(IgcFiles, SecurityLineFollowsItsDefinitionAndCoversEveryByte) {
  const SystemTime day{2020, 6, 1, 0, 0, 0};
  int32_t lat = 0, lon = 0;
  ConvertGeoToArcPos(10.0 * kPi / 180.0, 20.0 * kPi / 180.0, &lat, &lon);
  std::vector<TrackPoint> points;
  for (int32_t i = 0; i < 3000; ++i) {  // long enough to grow the buffer several times
    points.push_back({0, ConvertSystemTimeToGpsTime(&day) + static_cast<uint32_t>(i), lat, lon, 10 * i, i});
  }
  const std::string plain = Encode(points, 700100000u, 0), secured = Encode(points, 700100000u, 1);
  ASSERT_EQ(secured.size(), plain.size() + 19);
  EXPECT_EQ(secured.substr(0, plain.size()), plain);
  EXPECT_EQ(secured.substr(plain.size()), ExpectedSecurityLine(plain));
  // Every field the writer is given reaches the protected text.
  const std::string small = Encode({points[0]}, 0, 1);
  EXPECT_EQ(small.substr(small.size() - 19), ExpectedSecurityLine(small.substr(0, small.size() - 19)));
  EXPECT_NE(Encode({{0, points[0].dwTime, lat, lon, 0, 1}}, 0, 1), small);
  EXPECT_NE(Encode({points[0]}, 1, 1), small);
  // Growing the buffer loses no text.
  EXPECT_EQ(plain.size(), small.size() - 19 + 2999 * 37);
  EXPECT_EQ(plain.substr(plain.size() - 32 - 38 - 37, 37), "B0049591000000N02000000EA0299902999\r\n");
}

TEST_F(IgcFiles, AddIgcStringDoublesAndFreesWhenItCannot) {
  int32_t capacity = 8, length = 0;
  char* buffer = static_cast<char*>(std::calloc(8, 1));
  uint32_t crc = 0xFFFFFFFFu;
  ASSERT_EQ(AddIgcString(&buffer, &capacity, &length, "abcdefg", &crc), 0);  // 7 and the NUL fit
  EXPECT_EQ(capacity, 8);
  ASSERT_EQ(AddIgcString(&buffer, &capacity, &length, "h", nullptr), 0);
  EXPECT_EQ(capacity, 16);
  EXPECT_EQ(length, 8);
  EXPECT_STREQ(buffer, "abcdefgh");
  EXPECT_EQ(crc, RunningCrc("abcdefg"));
  std::free(buffer);
  capacity = 0x40000001;  // cannot double within 32 bits
  length = capacity - 1;
  buffer = static_cast<char*>(std::malloc(16));
  EXPECT_EQ(AddIgcString(&buffer, &capacity, &length, "x", nullptr), -1);
  EXPECT_EQ(buffer, nullptr);
}

TEST_F(IgcFiles, PointArrayStartsAt2000AndDoubles) {
  std::string text = "AXKX\r\nHFDTE090724\r\n";
  char line[64];
  for (int i = 0; i < 4001; ++i) {
    std::snprintf(line, sizeof line, "B%02d%02d%02d4630123N00701500EA%05d01523\r\n", i / 3600, i / 60 % 60, i % 60, i);
    text += line;
  }
  ASSERT_EQ(Decode(text).result, 0);
  ASSERT_EQ(tGps.nTrackPoints, 4001);
  EXPECT_EQ(tGps.nTrackCapacity, 8000);
  for (int i = 0; i < 4001; ++i) ASSERT_EQ(tGps.pTrackPoints[i].lPressureAltitude, i);
  ASSERT_EQ(Decode(text.substr(0, 19 + 37)).result, 0);  // a second text replaces the first log
  EXPECT_EQ(tGps.nTrackCapacity, 2000);
}

TEST_F(IgcFiles, DamagedTextsFailCleanly) {
  std::mt19937 rng(4242);
  const std::string alphabet("ABHIGLC0123456789NSEW-:,DATE \r\n\n\n\x00\xFF", 36);
  const std::string good = "AXKX\r\nHFDTEDATE:090724,01\r\nB1200004630123N00701500EA0151001523\r\n"
                           "B1200014630123S00701500WV-0012-0003\r\nGAB\r\n";
  for (int round = 0; round < 600; ++round) {
    std::string text = round % 3 == 0 ? "AXKX\r\nHFDTE090724\r\n" : "";
    if (round % 3 == 2) {
      text = good;
      for (int k = 0; k < 3; ++k) text[rng() % text.size()] = alphabet[rng() % alphabet.size()];
    } else {
      for (size_t i = rng() % 400; i > 0; --i) text += round % 2 ? alphabet[rng() % alphabet.size()] : static_cast<char>(rng());
    }
    const Decoded d = Decode(text);
    EXPECT_EQ(d.result < 0, tGps.pTrackPoints == nullptr) << round;
    EXPECT_EQ(d.result < 0, !d.out.empty()) << round;
  }
  // Every cut of a real flight: points only grow as complete lines arrive.
  const std::string flight = test::ReadFile(test::DataFile("igc/pg-skytraxx-13min.igc"));
  int32_t previous = 0;
  for (size_t cut = 0; cut <= flight.size(); cut += 7) {
    if (Decode(flight.substr(0, cut)).result < 0) {
      ASSERT_EQ(tGps.pTrackPoints, nullptr) << cut;
    } else {
      ASSERT_GE(tGps.nTrackPoints, previous) << cut;
      previous = tGps.nTrackPoints;
    }
  }
  EXPECT_EQ(previous, 221);
}

struct RealFlight {
  const char* file;
  int32_t points, gRecords;
  uint32_t duration;  // first to last fix, midnight counted
  SystemTime first;
  double latitude, longitude;  // first fix, degrees
};

const RealFlight kFlights[] = {
    {"pg-flyskyhy-8h-midnight", 28399, 3, 28406, {2024, 2, 9, 23, 43, 25}, -(36 + 42.978 / 60), 147 + 7.370 / 60},
    {"gl-xcsoar-midnight-lf-task", 6752, 8, 21584, {2016, 11, 8, 22, 43, 17}, -(44 + 29.252 / 60), 169 + 59.323 / 60},
    {"gl-flarm-crcrlf", 5912, 1, 23872, {2008, 8, 16, 10, 11, 31}, 55 + 15.092 / 60, 12 + 4.239 / 60},
    {"pg-flytec6030-task", 4588, 4, 13871, {2008, 6, 7, 11, 29, 20}, 40 + 15.394 / 60, -(4 + 54.348 / 60)},
    {"hg-fai5-xctrack-10min", 583, 4, 582, {2020, 9, 4, 16, 27, 53}, 48 + 45.381 / 60, 8 + 24.437 / 60},
    {"pg-iqbasic-8s", 194, 1, 1625, {2023, 10, 4, 14, 30, 7}, 48 + 5.947 / 60, 16 + 56.479 / 60},
    {"pg-minimal-header-20s", 1699, 0, 33960, {2003, 5, 31, 7, 47, 16}, 45 + 21.888 / 60, 6 + 33.473 / 60},
    {"pg-skytraxx-13min", 221, 1, 220, {2021, 3, 6, 10, 34, 11}, 50 + 12.954 / 60, 5 + 30.990 / 60},
};

// Read, written and read again: the same points, but GNSS metres below zero
// (the writer rounds them up) and beyond the columns' limits.
TEST_F(IgcFiles, RealFlightsSurviveWritingAndReadingAgain) {
  for (const RealFlight& f : kFlights) {
    SCOPED_TRACE(f.file);
    Decoded d = Decode(test::ReadFile(test::DataFile(std::string("igc/") + f.file + ".igc")));
    ASSERT_EQ(d.result, f.gRecords) << d.out;
    EXPECT_EQ(d.out, "");
    const std::vector<TrackPoint> original(tGps.pTrackPoints, tGps.pTrackPoints + tGps.nTrackPoints);
    ASSERT_EQ(static_cast<int32_t>(original.size()), f.points);
    EXPECT_EQ(original.front().dwTime, ConvertSystemTimeToGpsTime(&f.first));
    EXPECT_EQ(original.back().dwTime - original.front().dwTime, f.duration);
    double lat = 0.0, lon = 0.0;
    ConvertArcToGeoPos(original.front().lLatitude, original.front().lLongitude, &lat, &lon);
    EXPECT_NEAR(lat * 180.0 / kPi, f.latitude, 1e-7);
    EXPECT_NEAR(lon * 180.0 / kPi, f.longitude, 1e-7);
    ASSERT_EQ(Decode(Encode(original, 1000000000u, 1)).result, 1);
    ASSERT_EQ(tGps.nTrackPoints, f.points);
    for (size_t i = 0; i < original.size(); ++i) {
      TrackPoint want = original[i];
      const int32_t metres = want.lGpsAltitude / 10;
      want.lGpsAltitude = metres >= 10000 ? 999990 : metres <= -1000 ? -99990 : metres < 0 ? (metres + 1) * 10 : want.lGpsAltitude;
      want.dwFlags = i == 0 ? 1u : 0u;
      ASSERT_EQ(std::memcmp(&tGps.pTrackPoints[i], &want, sizeof want), 0) << i;
    }
  }
  // Arbitrary positions come back within half a thousandth of a minute.
  std::mt19937 rng(99);
  std::uniform_int_distribution<int32_t> latitude(-1073541823, 1073541823), longitude(-2147283647, 2147283647);
  std::vector<TrackPoint> points;
  for (uint32_t i = 0; i < 3000; ++i) points.push_back({0, 900000000u + i, latitude(rng), longitude(rng), 0, 0});
  ASSERT_EQ(Decode(Encode(points, 0, 1)).result, 1);
  for (size_t i = 0; i < points.size(); ++i) {
    ASSERT_LE(std::abs(tGps.pTrackPoints[i].lLatitude - points[i].lLatitude), kMin1000ToArc / 2 + 1) << i;
    ASSERT_LE(std::abs(tGps.pTrackPoints[i].lLongitude - points[i].lLongitude), kMin1000ToArc / 2 + 1) << i;
  }
}

TEST_F(IgcFiles, RealFlightsRefusedOrNamingThePilot) {
  EXPECT_EQ(Decode(test::ReadFile(test::DataFile("igc/heli-flarm-timeback.igc"))).out, "Multiple A-records\n");
  EXPECT_EQ(Decode(test::ReadFile(test::DataFile("igc/pg-syride-navv3-corrupt-lf.igc"))).out,
            "Pos. error 11 on line 197\n");  // digits shifted into the N/S column
  EXPECT_EQ(tGps.pTrackPoints, nullptr);
  char field[51] = "\x01";
  ASSERT_EQ(Decode(test::ReadFile(test::DataFile("igc/pg-iqbasic-8s.igc")), field).result, 1);
  EXPECT_STREQ(field, "HFPLTPILOT:Michael Hollauf");
}

}  // namespace
