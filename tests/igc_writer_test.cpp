// The IGC writer: header, B records, altitude clamps, checksum and security line.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "geo/conv.h"
#include "geo/time.h"
#include "igc/igc.h"

namespace {

uint32_t Gps(uint32_t y, uint32_t mo, uint32_t d, uint32_t h = 0, uint32_t mi = 0, uint32_t s = 0) {
  const SystemTime t{y, mo, d, h, mi, s};
  return ConvertSystemTimeToGpsTime(&t);
}

// Degrees and thousandths of minutes to arcs, the long way round.
int32_t Arc(int degrees, int min1000) {
  double value = (std::abs(degrees) + std::abs(min1000) / 60000.0) * (degrees < 0 || min1000 < 0 ? -1 : 1);
  int32_t lat = 0, lon = 0;
  ConvertGeoToArcPos(value * 3.14159265358979323846 / 180.0, 0.0, &lat, &lon);
  return lat;
}

struct Headers {
  const char* pilot = nullptr;
  const char* gliderType = nullptr;
  const char* gliderId = nullptr;
  const char* compClass = nullptr;
  const char* site = nullptr;
  const char* product = nullptr;
  const char* prefix = nullptr;
  std::vector<std::string> extra;
};

std::string Encode(const std::vector<TrackPoint>& points, const Headers& h, uint32_t downloadTime, int security) {
  std::vector<IgcHeaderLine> extra(h.extra.size());
  for (size_t i = 0; i < h.extra.size(); ++i) snprintf(extra[i], sizeof extra[i], "%s", h.extra[i].c_str());
  char* text = nullptr;
  const int32_t n = EncodeIgcLog(points.data(), static_cast<uint32_t>(points.size()), h.pilot, h.gliderType,
                                 h.gliderId, h.compClass, h.site, h.product, h.prefix,
                                 extra.empty() ? nullptr : extra.data(), static_cast<int32_t>(extra.size()),
                                 downloadTime, &text, security);
  EXPECT_GE(n, 0);
  if (n < 0 || text == nullptr) return {};
  std::string out(text, static_cast<size_t>(n));
  EXPECT_EQ(text[n], '\0');
  std::free(text);
  return out;
}

TrackPoint Point(uint32_t time, int32_t lat, int32_t lon, int32_t gpsDm, int32_t pressure) {
  return TrackPoint{0, time, lat, lon, gpsDm, pressure};
}

// The security line recomputed from its definition, with zlib's CRC-32
// (zlib's value is the running checksum inverted) and a bit-by-bit scramble.
std::string ExpectedSecurityLine(const std::string& protectedText) {
  auto runningCrc = [](const std::string& bytes) {
    return ~static_cast<uint32_t>(crc32(0L, reinterpret_cast<const Bytef*>(bytes.data()),
                                        static_cast<uInt>(bytes.size())));
  };
  const uint32_t c = runningCrc(protectedText + "1");
  std::string second;
  for (int shift = 24; shift >= 0; shift -= 8) second += static_cast<char>((c >> shift) & 0xFFu);
  const uint32_t d = runningCrc(second + "1111");
  const uint64_t block = static_cast<uint64_t>(c) | static_cast<uint64_t>(d) << 32;  // byte 0 lowest
  uint64_t scrambled = 0;
  for (int bit = 0; bit < 64; ++bit) {
    if ((block >> abScramble[bit]) & 1u) scrambled |= uint64_t{1} << bit;
  }
  char line[24];
  snprintf(line, sizeof line, "G%016llX\r\n", static_cast<unsigned long long>(scrambled));
  return line;
}

TEST(IgcWriter, WholeFileWithEveryHeaderLine) {
  Headers h;
  h.pilot = "Anna Berg";
  h.gliderType = "Alpha 7";
  h.gliderId = "D-1234";
  h.compClass = "Sport";
  h.site = "Ridge";
  h.product = "Model X SN 42 v1.2";
  h.extra = {"HFFTYFRTYPE:Test", "HOSITSITE:Other"};
  const std::vector<TrackPoint> points = {
      Point(Gps(2024, 7, 9, 11, 5, 3), Arc(46, 30123), Arc(7, 1500), 15234, 1510),
      Point(Gps(2024, 7, 9, 11, 5, 4), Arc(-33, 59999), Arc(-70, 7), 9, -12),
  };
  const std::string text = Encode(points, h, Gps(2024, 7, 10, 18, 2, 59), 0);
  EXPECT_EQ(text,
            "AXKX Model X SN 42 v1.2\r\n"
            "HFDTEDATE:090724,01\r\n"
            "HFPLTPILOT: Anna Berg\r\n"
            "HFGTYGLIDERTYPE: Alpha 7\r\n"
            "HFGTYGLIDERID: D-1234\r\n"
            "HFDTM100GPSDATUM: WGS-84\r\n"
            "HFCCLCOMPETITION CLASS: Sport\r\n"
            "HFSITSITE: Ridge\r\n"
            "HFFTYFRTYPE:Test\r\n"
            "HOSITSITE:Other\r\n"
            "B1105034630123N00701500EA0151001523\r\n"
            "B1105043359999S07000007WA-001200001\r\n"
            "LXKX KestrixMac64 version 1.06\r\n"
            "LXKX Downloaded 2024-07-10  18:02:59\r\n");
}

TEST(IgcWriter, AbsentAndEmptyTextsLeaveTheLabelsStanding) {
  const std::vector<TrackPoint> points = {Point(Gps(2001, 2, 3), 0, 0, 0, 0)};
  Headers absent;
  Headers empty;
  empty.pilot = empty.gliderType = empty.gliderId = empty.compClass = empty.site = empty.product = empty.prefix = "";
  const std::string a = Encode(points, absent, 0, 0);
  EXPECT_EQ(a, Encode(points, empty, 0, 0));
  EXPECT_EQ(a.substr(0, a.find("B0000")),
            "AXKX \r\nHFDTEDATE:030201,01\r\nHFPLTPILOT: \r\nHFGTYGLIDERTYPE: \r\nHFGTYGLIDERID: \r\n"
            "HFDTM100GPSDATUM: WGS-84\r\nHFCCLCOMPETITION CLASS: \r\nHFSITSITE: \r\n");
  // Zero latitude and longitude are north and east.
  EXPECT_NE(a.find("B0000000000000N00000000EA0000000000\r\n"), std::string::npos);
}

TEST(IgcWriter, ARecordPrefixGoesBeforeTheBlank) {
  Headers h;
  h.prefix = "001";
  h.product = "Box";
  const std::string text = Encode({Point(0, 0, 0, 0, 0)}, h, 0, 0);
  EXPECT_EQ(text.substr(0, text.find('\n') + 1), "AXKX001 Box\r\n");
}

TEST(IgcWriter, AltitudeClampsAndTheDecimetreRule) {
  struct Case {
    int32_t gpsDecimetres;
    int32_t pressure;
    const char* written;  // pressure then GNSS
  } cases[] = {
      {-15, 0, "00000-0001"},   {-15, -1, "-0001-0001"}, {14, 1, "0000100001"},
      {-4, 0, "0000000000"},    {15, 0, "0000000002"},   {99999, 99999, "9999910000"},
      {100000, 100000, "9999999999"}, {123456, 123456, "9999999999"}, {-9999, -9999, "-9999-0999"},
      {-10000, -10000, "-9999-9999"}, {-12345, -12345, "-9999-9999"}, {-25, 37, "00037-0002"},
  };
  for (const Case& c : cases) {
    const std::string text = Encode({Point(0, 0, 0, c.gpsDecimetres, c.pressure)}, {}, 0, 0);
    const std::string expected = std::string("B0000000000000N00000000EA") + c.written + "\r\n";
    EXPECT_NE(text.find(expected), std::string::npos) << c.gpsDecimetres << " dm, " << c.pressure << " m";
  }
}

TEST(IgcWriter, PositionsRoundToTheNearestThousandthOfAMinute) {
  struct Case {
    int32_t lat, lon;
    const char* written;
  } cases[] = {
      {Arc(89, 59999), Arc(179, 59999), "8959999N17959999E"},
      {Arc(-89, 59999), Arc(-179, 59999), "8959999S17959999W"},
      {Arc(12, 345), Arc(-1, 0), "1200345N00100000W"},
      {99, -99, "0000000N00000000E"},  // under half a thousandth: rounds to zero, sign dropped
      {100, -100, "0000001N00000001W"},
  };
  for (const Case& c : cases) {
    const std::string text = Encode({Point(0, c.lat, c.lon, 0, 0)}, {}, 0, 0);
    EXPECT_NE(text.find(std::string("B000000") + c.written + "A"), std::string::npos) << c.written;
  }
}

TEST(IgcWriter, DateComesFromTheFirstPointEvenWhenNoneIsCounted) {
  std::vector<TrackPoint> points = {Point(Gps(2099, 12, 31, 23, 59, 59), 0, 0, 0, 0),
                                    Point(Gps(2100, 1, 1, 0, 0, 1), 0, 0, 0, 0)};
  char* text = nullptr;
  const int32_t n = EncodeIgcLog(points.data(), 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                 nullptr, 0, 0, &text, 0);
  ASSERT_GT(n, 0);
  const std::string s(text, static_cast<size_t>(n));
  std::free(text);
  EXPECT_NE(s.find("HFDTEDATE:311299,01\r\n"), std::string::npos);
  EXPECT_EQ(s.find("\nB"), std::string::npos);
  // With both points counted the second day shows only in the B record.
  const std::string both = Encode(points, {}, 0, 0);
  EXPECT_NE(both.find("HFDTEDATE:311299,01\r\nHFPLT"), std::string::npos);
  EXPECT_NE(both.find("\nB000001"), std::string::npos);
}

TEST(IgcWriter, SecurityLineMatchesItsDefinition) {
  Headers h;
  h.pilot = "P";
  h.product = "Instrument \xE9";  // bytes above 127 are checksummed as unsigned
  std::vector<TrackPoint> points;
  for (uint32_t i = 0; i < 50; ++i) {
    points.push_back(Point(Gps(2023, 5, 6, 12) + i, Arc(45, static_cast<int>(i * 37)), Arc(6, 100), 12000, 1180));
  }
  const uint32_t downloaded = Gps(2023, 5, 7, 8, 0, 0);
  const std::string plain = Encode(points, h, downloaded, 0);
  const std::string secured = Encode(points, h, downloaded, 1);
  ASSERT_EQ(secured.size(), plain.size() + 19);
  EXPECT_EQ(secured.substr(0, plain.size()), plain);
  EXPECT_EQ(secured.substr(plain.size()), ExpectedSecurityLine(plain));
  EXPECT_EQ(plain.substr(plain.size() - 38), "LXKX Downloaded 2023-05-07  08:00:00\r\n");
}

TEST(IgcWriter, EveryProtectedByteChangesTheSecurityLine) {
  const std::string secured = Encode({Point(Gps(2022, 1, 2, 3, 4, 5), Arc(1, 2), Arc(3, 4), 50, 6)}, {}, 0, 1);
  const std::string protectedText = secured.substr(0, secured.size() - 19);
  const std::string line = secured.substr(secured.size() - 19);
  ASSERT_EQ(line, ExpectedSecurityLine(protectedText));
  for (size_t i = 0; i < protectedText.size(); ++i) {
    std::string altered = protectedText;
    altered[i] = static_cast<char>(altered[i] ^ 0x20);
    EXPECT_NE(ExpectedSecurityLine(altered), line) << "byte " << i;
  }
  // Every field the writer is given reaches the protected text.
  EXPECT_NE(Encode({Point(Gps(2022, 1, 2, 3, 4, 5), Arc(1, 2), Arc(3, 4), 50, 7)}, {}, 0, 1), secured);
  EXPECT_NE(Encode({Point(Gps(2022, 1, 2, 3, 4, 5), Arc(1, 2), Arc(3, 4), 50, 6)}, {}, 1, 1), secured);
}

TEST(IgcWriter, LongLogsGrowTheBufferWithoutLosingText) {
  std::vector<TrackPoint> points;
  for (uint32_t i = 0; i < 3000; ++i) points.push_back(Point(Gps(2020, 6, 1) + i, Arc(10, 0), Arc(20, 0), 10 * i, i));
  const std::string text = Encode(points, {}, 0, 1);
  const size_t header = 7 + 21 + 14 + 19 + 17 + 26 + 26 + 13;
  EXPECT_EQ(text.size(), header + 3000 * 37 + 32 + 38 + 19);
  EXPECT_EQ(text.substr(header + 2999 * 37, 37), "B0049591000000N02000000EA0299902999\r\n");
  EXPECT_EQ(text.substr(text.size() - 19), ExpectedSecurityLine(text.substr(0, text.size() - 19)));
}

TEST(AddIgcString, DoublesTheBufferAndChecksumsOnlyWhenAsked) {
  int32_t capacity = 8;
  int32_t length = 0;
  char* buffer = static_cast<char*>(std::malloc(static_cast<size_t>(capacity)));
  ASSERT_NE(buffer, nullptr);
  buffer[0] = '\0';
  uint32_t crc = 0xFFFFFFFFu;
  ASSERT_EQ(AddIgcString(&buffer, &capacity, &length, "abcdefg", &crc), 0);  // 7 + NUL fits exactly
  EXPECT_EQ(capacity, 8);
  ASSERT_EQ(AddIgcString(&buffer, &capacity, &length, "h", nullptr), 0);
  EXPECT_EQ(capacity, 16);
  EXPECT_EQ(length, 8);
  EXPECT_STREQ(buffer, "abcdefgh");
  EXPECT_EQ(crc, ~static_cast<uint32_t>(crc32(0L, reinterpret_cast<const Bytef*>("abcdefg"), 7)));
  std::free(buffer);
}

TEST(AddIgcString, FailedGrowthFreesTheBuffer) {
  // A capacity that cannot be doubled any more within 32 bits.
  int32_t capacity = 0x40000001;
  int32_t length = capacity - 1;
  char* buffer = static_cast<char*>(std::malloc(16));
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(AddIgcString(&buffer, &capacity, &length, "x", nullptr), -1);
  EXPECT_EQ(buffer, nullptr);  // freed (the sanitizer would report a leak otherwise)
}

TEST(Crc32, TableIsTheReflectedIeeeTable) {
  EXPECT_EQ(adwCrc32Table[0], 0u);
  EXPECT_EQ(adwCrc32Table[1], 0x77073096u);
  EXPECT_EQ(adwCrc32Table[128], 0xEDB88320u);
  EXPECT_EQ(adwCrc32Table[255], 0x2D02EF8Du);
  for (uint32_t i = 0; i < 256; ++i) {
    const uint8_t byte = static_cast<uint8_t>(i);
    EXPECT_EQ(~Crc32(byte, 0xFFFFFFFFu), static_cast<uint32_t>(crc32(0L, &byte, 1))) << i;
  }
}

TEST(Crc32, RunningValueIsZlibsValueInverted) {
  std::mt19937 rng(7);
  for (size_t size : {0u, 1u, 3u, 64u, 1000u, 4099u}) {
    std::string text;
    for (size_t i = 0; i < size; ++i) text += static_cast<char>(1 + rng() % 255);  // no NUL inside
    uint32_t running = 0xFFFFFFFFu;
    UpdateCrc(text.c_str(), &running);
    const uint32_t reference =
        static_cast<uint32_t>(crc32(0L, reinterpret_cast<const Bytef*>(text.data()), static_cast<uInt>(size)));
    EXPECT_EQ(running, ~reference) << size;
  }
  // UpdateCrc stops at the terminator.
  uint32_t a = 0xFFFFFFFFu, b = 0xFFFFFFFFu;
  UpdateCrc("abc\0def", &a);
  UpdateCrc("abc", &b);
  EXPECT_EQ(a, b);
}

TEST(Scramble, TableIsAPermutationOfTheSixtyFourBits) {
  std::set<int> seen;
  for (uint8_t e : abScramble) {
    EXPECT_LT(e, 64);
    seen.insert(e);
  }
  EXPECT_EQ(seen.size(), 64u);
}

TEST(Scramble, OutputBitTakesTheInputBitTheTableNames) {
  for (int source = 0; source < 64; ++source) {
    uint8_t block[8] = {};
    block[source / 8] = static_cast<uint8_t>(1u << (source % 8));
    ScrambleString(block, abScramble);
    int target = -1;
    for (int k = 0; k < 64; ++k) {
      if (abScramble[k] == source) target = k;
    }
    for (int k = 0; k < 64; ++k) {
      EXPECT_EQ((block[k / 8] >> (k % 8)) & 1, k == target ? 1 : 0) << "input bit " << source << ", output bit " << k;
    }
  }
  // A table that reverses the bit order, to pin the byte and bit numbering.
  uint8_t reverse[64];
  for (int k = 0; k < 64; ++k) reverse[k] = static_cast<uint8_t>(63 - k);
  uint8_t block[8] = {0x01, 0x80, 0, 0, 0, 0, 0x0F, 0x00};
  ScrambleString(block, reverse);
  const uint8_t expected[8] = {0x00, 0xF0, 0, 0, 0, 0, 0x01, 0x80};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(block[i], expected[i]) << i;
}

}  // namespace
