// Brauniger/Flytec decoders and formatters, fed directly without a port.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/time.h"
#include "geo/conv.h"
#include "serial/galileo.h"
#include "support.h"

namespace {

using galileo::GalileoTransfer;

std::string Hex(unsigned value, bool lower = false) {
  char text[4];
  std::snprintf(text, sizeof text, lower ? "%02x" : "%02X", value & 0xFF);
  return text;
}

unsigned Xor(const std::string& body) {
  unsigned x = 0;
  for (char c : body) x ^= static_cast<unsigned char>(c);
  return x;
}

// "$" body "*" checksum CR LF, the checksum written as asked.
std::string Sentence(const std::string& body, bool lower = false) {
  return "$" + body + "*" + Hex(Xor(body), lower) + "\r\n";
}

// Feeds bytes until a decoder answers something else than 1; that answer,
// or 1 when every byte was taken.
template <typename Decode>
int32_t Feed(GalileoTransfer* t, const std::string& bytes, Decode decode) {
  for (char c : bytes) {
    t->byte = static_cast<uint8_t>(c);
    int32_t result = decode(t);
    if (result != 1) return result;
  }
  return 1;
}

int32_t FeedProduct(GalileoTransfer* t, const std::string& bytes) {
  return Feed(t, bytes, galileo::DecodeProductData);
}
int32_t FeedList(GalileoTransfer* t, const std::string& bytes) {
  return Feed(t, bytes, galileo::DecodeTrackListData);
}
int32_t FeedWaypoint(GalileoTransfer* t, const std::string& bytes) {
  return Feed(t, bytes, [](GalileoTransfer* x) { return galileo::DecodeWptByte(x, x->byte); });
}

// A serial number that gives the product sentence the wanted checksum.
std::string SerialForChecksum(unsigned wanted) {
  std::string symbols;
  for (char c = '!'; c <= '~'; ++c) {
    if (c != ',' && c != '*') symbols += c;
  }
  for (char a : symbols) {
    for (char b : symbols) {
      std::string serial = std::string("SN") + a + b;
      if (Xor("PBRSNP,COMPEO+,Jane Doe," + serial + ",3.25") == wanted) return serial;
    }
  }
  return "";
}

TEST(GalileoProduct, DecodesTheIdentificationAndKeepsTheLowerCaseQuirk) {
  GalileoTransfer t;
  galileo::ResetTransfer(&t);
  ASSERT_EQ(FeedProduct(&t, "\r\n$PB$PBRSNP,compeo+,  Jane   Doe ,00565,3.25*" +
                                Hex(Xor("PBRSNP,compeo+,  Jane   Doe ,00565,3.25")) + "\r\n"),
            0);
  EXPECT_STREQ(t.model, "COMPEO+");
  EXPECT_STREQ(t.pilot, "Jane Doe");
  EXPECT_STREQ(t.serial, "00565");
  EXPECT_STREQ(t.firmware, "3.25");
  EXPECT_STREQ(t.summary, "COMPEO+, SN00565, SW3.25");

  // Lower-case checksum digits count "f" as 10 and "a" as 5.
  std::string as2A = SerialForChecksum(0x2A), as25 = SerialForChecksum(0x25), as1F = SerialForChecksum(0x1F);
  ASSERT_FALSE(as2A.empty() || as25.empty() || as1F.empty());
  struct Case {
    std::string serial, checksum;
    int32_t result;
  } cases[] = {
      {as2A, "2A", 0}, {as2A, "2a", -13}, {as25, "2a", 0}, {as1F, "1F", 0}, {as1F, "1f", -13},
  };
  for (const Case& c : cases) {
    galileo::ResetTransfer(&t);
    EXPECT_EQ(FeedProduct(&t, "$PBRSNP,COMPEO+,Jane Doe," + c.serial + ",3.25*" + c.checksum + "\r\n"), c.result)
        << c.checksum;
  }
}

TEST(GalileoProduct, FormatFaultsHaveTheirOwnCodes) {
  const std::string longText(81, 'M');
  struct Case {
    std::string bytes;
    int32_t result;
  } cases[] = {
      {"$PBRSNP,COMP\rEO", -1},
      {"$PBRSNP, COMPEO,", -2},
      {"$PBRSNP," + longText, -2},
      {"$PBRSNP,COMPEO,Jane\n", -3},
      {"$PBRSNP,COMPEO,   ,", -4},
      {"$PBRSNP,COMPEO,,", -4},
      {"$PBRSNP,COMPEO," + longText, -4},
      {"$PBRSNP,COMPEO,Jane,12\r", -5},
      {"$PBRSNP,COMPEO,Jane, 12,", -7},
      {"$PBRSNP,COMPEO,Jane,12,3.\n", -8},
      {"$PBRSNP,COMPEO,Jane,12, 3.25*", -9},
      {"$PBRSNP,COMPEO,Jane,12,3.25*4\r", -10},
      {"$PBRSNP,COMPEO,Jane,12,3.25*4G", -11},
      {"$PBRSNP,COMPEO,Jane,12,3.25*41\n", -12},
      {"$PBRSNP,COMPEO,Jane,12,3.25*00\r\n", -13},
  };
  for (const Case& c : cases) {
    GalileoTransfer t;
    galileo::ResetTransfer(&t);
    EXPECT_EQ(FeedProduct(&t, c.bytes), c.result) << c.bytes;
  }
  GalileoTransfer t;
  galileo::ResetTransfer(&t);
  t.state = 7;
  EXPECT_EQ(FeedProduct(&t, "x"), -14);
}

TEST(GalileoList, EntriesAreLaidOutAsTheyArrive) {
  GalileoTransfer t;
  galileo::ResetTransfer(&t);
  std::string stream = "noise$P" + Sentence("PBRTL,3,0,05.09.08,10:56:40,03:17:16") + "$$" +
                       Sentence("PBRTL,3,9,1.1.1,2:2:2,3:3:3", true) +
                       Sentence("PBRTL,3,250,d,t,u") +
                       Sentence("PBRTL,3,4," + std::string(33, 'D') + "," + std::string(10, 'T') + ",x");
  EXPECT_EQ(FeedList(&t, stream), 1) << "the list decoder never completes on its own";
  EXPECT_STREQ(t.list[0], "1   05.09.08   10:56:40   03:17:16");
  EXPECT_STREQ(t.list[9], "10  1.1.1   2:2:2   3:3:3");
  // Indexes of 100 and more land in the last entry.
  EXPECT_STREQ(t.list[99] + 2, "  d   t   u");
  // Past 36 characters a field gets no separating blanks; entries stop at 39.
  EXPECT_STREQ(t.list[4], ("5   " + std::string(33, 'D') + "TT").c_str());
  for (int i : {1, 2, 3, 5, 98}) EXPECT_EQ(t.list[i][0], '\0') << i;

  struct Case {
    std::string bytes;
    int32_t result;
  } cases[] = {
      {"$PBRTL,3\r", -1},  {"$PBRTL,x", -2},        {"$PBRTL,3,\n", -3},      {"$PBRTL,3,a", -4},
      {"$PBRTL,3,0,0\r", -5}, {"$PBRTL,3,0,d,1\n", -6}, {"$PBRTL,3,0,d,t,1\r", -7},
      {"$PBRTL,3,0,d,t,u*1\n", -8}, {"$PBRTL,3,0,d,t,u*1x", -9}, {"$PBRTL,3,0,d,t,u*12\n", -10},
      {"$PBRTL,3,0,d,t,u*00\r\n", -11},
  };
  for (const Case& c : cases) {
    galileo::ResetTransfer(&t);
    EXPECT_EQ(FeedList(&t, c.bytes), c.result) << c.bytes;
  }
  galileo::ResetTransfer(&t);
  t.state = 8;
  EXPECT_EQ(FeedList(&t, "x"), -12);
}

TEST(GalileoList, SelectionRules) {
  struct Case {
    int32_t command;
    int32_t flightNumber;
    std::string typed;
    int32_t result;
    std::string message;
  } cases[] = {
      {kCommandDownloadTrack, 2, "", 2, ""},
      {kCommandDownloadTrack, 5, "", -1, "Flight number out of range\n"},  // only 3 are listed
      {kCommandDownloadTrack, 3, "", -1, "No match for flight number 3 in flight list\n"},
      {kCommandDownloadTrack, 0, "", -1, ""},
      {kCommandDownloadTrack, -1, "5\n", 5, "Select: "},
      {kCommandDownloadTrack, -1, "  2 please\n", 2, "Select: "},
      {kCommandDownloadTrack, -1, "4\n", -1, "Select: No match for flight number 4 in flight list\n"},
      {kCommandDownloadTrack, -1, "100\n", -1, "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "0\n", -1, "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "-2\n", -1, "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "99999999999999999999\n", -1, "Select: Flight number out of range\n"},
      {kCommandDownloadTrack, -1, "abc\n", -1, "Select: No flight number found\n"},
      {kCommandDownloadTrack, -1, "", -1, "Select: No flight number found\n"},
      {kCommandDownloadAllTracks, -1, "", 0, ""},
  };
  for (const Case& c : cases) {
    test::FreshRunParameters();
    tGps.dwCommand = c.command;
    tGps.nFlightNumber = c.flightNumber;
    GalileoTransfer t;
    galileo::ResetTransfer(&t);
    std::snprintf(t.list[0], galileo::kListEntrySize, "1   a");
    std::snprintf(t.list[1], galileo::kListEntrySize, "2   b");
    std::snprintf(t.list[4], galileo::kListEntrySize, "5   c");
    test::FakeStdin input(c.typed);
    testing::internal::CaptureStdout();
    EXPECT_EQ(galileo::SelectFlight(&t), c.result) << c.flightNumber << " " << c.typed;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "1   a\n2   b\n5   c\n" + c.message) << c.typed;
  }
  for (int32_t command : {kCommandDownloadTrack, kCommandDownloadAllTracks}) {
    test::FreshRunParameters();
    tGps.dwCommand = command;
    GalileoTransfer t;
    galileo::ResetTransfer(&t);
    testing::internal::CaptureStdout();
    bool bulk = command == kCommandDownloadAllTracks;
    EXPECT_EQ(galileo::SelectFlight(&t), bulk ? -1 : 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              bulk ? "No track list found\n" : "No list found. Selecting latest flight\n");
  }
}

int32_t DecodeLine(GalileoTransfer* t, const std::string& line) {
  std::snprintf(t->sentence, sizeof t->sentence, "%s", line.c_str());
  t->index = static_cast<int32_t>(line.size());
  return galileo::DecodeLogSentence(t);
}

uint32_t GpsTime(uint32_t year, uint32_t month, uint32_t day, uint32_t secondOfDay) {
  SystemTime st{year, month, day, 0, 0, 0};
  return ConvertSystemTimeToGpsTime(&st) + secondOfDay;
}

TEST(GalileoLog, FixesAreReadFromFixedColumns) {
  test::FreshRunParameters();
  GalileoTransfer t;
  galileo::ResetTransfer(&t);
  ASSERT_EQ(DecodeLine(&t, "HFDTE050908\r"), 0);
  EXPECT_EQ(t.flightDate, GpsTime(2008, 9, 5, 0));
  ASSERT_EQ(DecodeLine(&t, "B1056403900201N02119819EA0065600707000\r"), 0);
  ASSERT_EQ(DecodeLine(&t, "B1056433412345S12159999WA-0012-0003\r"), 0);
  ASSERT_EQ(tGps.nTrackPoints, 2);

  const double degree = 3.14159265358979323846 / 180.0;
  struct Expected {
    double latitude, longitude;
    uint32_t time, flags;
    int32_t gps, pressure;
  } expected[] = {
      {(39 + 0.201 / 60) * degree, (21 + 19.819 / 60) * degree, GpsTime(2008, 9, 5, 39400), 1, 7070, 656},
      {-(34 + 12.345 / 60) * degree, -(121 + 59.999 / 60) * degree, GpsTime(2008, 9, 5, 39403), 0, -30, -12},
  };
  for (int i = 0; i < 2; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    int32_t lat = 0, lon = 0;
    ConvertGeoToArcPos(expected[i].latitude, expected[i].longitude, &lat, &lon);
    EXPECT_NEAR(p.lLatitude, lat, 1) << i;
    EXPECT_NEAR(p.lLongitude, lon, 1) << i;
    EXPECT_EQ(p.dwTime, expected[i].time) << i;
    EXPECT_EQ(p.dwFlags, expected[i].flags) << i;
    EXPECT_EQ(p.lGpsAltitude, expected[i].gps) << i;
    EXPECT_EQ(p.lPressureAltitude, expected[i].pressure) << i;
  }
  EXPECT_EQ(tGps.dwFirstPointTime, GpsTime(2008, 9, 5, 39400));
}

TEST(GalileoLog, TheRightmostBadFieldIsReported) {
  const std::string good = "B1056403900201N02119819EA0065600707000\r";
  auto with = [&good](size_t position, const std::string& text) {
    std::string line = good;
    line.replace(position - 1, text.size(), text);
    return line;
  };
  struct Case {
    std::string line;
    int32_t result;
  } cases[] = {
      {good, 0},
      {good.substr(0, 34), -24},
      {with(31, "0070x"), -7},
      {with(26, "x"), -7},
      {with(24, "X"), -12},
      {with(21, "8x9"), -8},
      {with(19, "1x"), -9},
      {with(16, "x21"), -10},
      {with(16, "180"), -11},
      {with(15, "X"), -17},
      {with(12, "2x1"), -13},
      {with(10, "x0"), -14},
      {with(10, "75"), 0},  // minutes are not range checked
      {with(8, "3x"), -15},
      {with(8, "90"), -16},
      {with(6, "4x"), -18},
      {with(6, "60"), -19},
      {with(4, "5x"), -20},
      {with(4, "60"), -21},
      {with(2, "x0"), -22},
      {with(2, "24"), -23},
      {with(4, "  "), 0},  // blank digits decode as 0
      {with(24, "X").replace(1, 2, "24"), -12},
      {with(8, "90").replace(30, 1, "x"), -7},
  };
  for (const Case& c : cases) {
    test::FreshRunParameters();
    GalileoTransfer t;
    galileo::ResetTransfer(&t);
    DecodeLine(&t, "HFDTE050908\r");
    EXPECT_EQ(DecodeLine(&t, c.line), c.result) << c.line;
  }
  test::FreshRunParameters();
  GalileoTransfer t;
  galileo::ResetTransfer(&t);
  EXPECT_EQ(DecodeLine(&t, good), -25) << "a fix before any date";
}

TEST(GalileoLog, HeaderRecordsAndTheDayRollover) {
  struct Case {
    std::string line;
    int32_t result;
  } cases[] = {
      {"HFDTEDATE:150726,01\r", -1}, {"HFDTE05x908\r", -2}, {"HFDTE051308\r", -3}, {"HFDTE050008\r", -3},
      {"HFDTEx50908\r", -4},          {"HFDTE000908\r", -5}, {"HFDTE320908\r", -5}, {"HFDTE0509\r", 0},
      {"HFPLTPILOT:X\r", 0},          {"ABRA00565\r", 0},     {"ABRA0\r", -28},      {"AB-A005\r", -29},
      {"ABRA0-5\r", -29},             {"LXXXnonsense", 0},    {"I013638TAS\r", 0},   {"C3900149N021\r", 0},
  };
  for (const Case& c : cases) {
    test::FreshRunParameters();
    GalileoTransfer t;
    galileo::ResetTransfer(&t);
    EXPECT_EQ(DecodeLine(&t, c.line), c.result) << c.line;
  }

  test::FreshRunParameters();
  GalileoTransfer t;
  galileo::ResetTransfer(&t);
  DecodeLine(&t, "ABRA00565\r");
  EXPECT_STREQ(t.manufacturer, "BRA");
  EXPECT_STREQ(t.loggerSerial, "005");
  DecodeLine(&t, "G1234\r");
  DecodeLine(&t, "G5678\r");
  EXPECT_EQ(t.gRecords, 2);

  // 23:59:50, 00:00:05 (next day), 23:30:05 (later that day), 23:00:05
  // (back 30 minutes: same day), 22:00:05 (back an hour: one more day).
  DecodeLine(&t, "HFDTE311224\r");
  const char* times[] = {"235950", "000005", "233005", "230005", "220005"};
  for (const char* hms : times) {
    ASSERT_EQ(DecodeLine(&t, std::string("B") + hms + "3900201N02119819EA0065600707000\r"), 0) << hms;
  }
  uint32_t day = GpsTime(2024, 12, 31, 0);
  uint32_t expected[] = {day + 86390, day + 86405, day + 86400 + 84605, day + 86400 + 82805,
                         day + 2 * 86400 + 79205};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(tGps.pTrackPoints[i].dwTime, expected[i]) << times[i];
}

TEST(GalileoWaypoints, SentencesDecodeIntoPositionsAndTexts) {
  const double minute = 0.0002908882086657;
  struct Case {
    std::string body;
    double latitude, longitude;  // minutes
    std::string id, name, altitude;
  } good[] = {
      {"PBRWPS,4630.250,N,00715.500,E,TOP01,Launch west,1250", 2790.25, 435.5, "TOP01", "Launch west", "1250"},
      {"PBRWPS,3412.5,S,12159.999,W,ab cd,x,-12", -2052.5, -7319.999, "ab cd", "x", "-12"},
      {"PBRWPS,8959.999,,17959,,,,", 5399.999, 10799, "", "", ""},
      {"PBRWPS,0000,N,00000,E,AB", 0, 0, "AB", "", ""},
  };
  for (const Case& c : good) {
    GalileoTransfer t;
    galileo::ResetTransfer(&t);
    ASSERT_EQ(FeedWaypoint(&t, "xx" + Sentence(c.body)), 0) << c.body;
    EXPECT_NEAR(t.latitude, c.latitude * minute, 1e-12) << c.body;
    EXPECT_NEAR(t.longitude, c.longitude * minute, 1e-12) << c.body;
    EXPECT_EQ(t.id, c.id);
    EXPECT_EQ(t.name, c.name);
    EXPECT_EQ(t.altitude, c.altitude);
  }

  const std::string head = "$PBRWPS,4630.250,N,00715.500,E,";
  std::string lowered = Sentence("PBRWPS,0,,0,,W", true);  // checksum 6f
  struct Fault {
    std::string bytes;
    int32_t result;
  } faults[] = {
      {"$PBRWPS,8960.000,", -1}, {"$PBRWPS,46a", -2},         {"$PBRWPS,4630.2x", -3},
      {"$PBRWPS,4630.250,X", -4}, {"$PBRWPS,4630.250,NN", -5}, {"$PBRWPS,1,N,17960", -6},
      {"$PBRWPS,1,N,7x", -7},     {"$PBRWPS,1,N,7.1x", -8},    {"$PBRWPS,1,N,7,X", -9},
      {"$PBRWPS,1,N,7,EE", -10},  {head + "AB\r", -11},         {head + "ABCDEFG", -12},
      {head + "A,B\n", -13},      {head + "A," + std::string(18, 'n'), -14},
      {head + "A,B,x", -15},      {head + "A,B,1-", -15},       {head + "A,B,123456", -16},
      {lowered, -18},             {head + "A*x", -17},          {head + "A*00X", -19},
      {head + "A*00\rX", -21},    {head + "A*00\r\n", -20},
  };
  for (const Fault& f : faults) {
    GalileoTransfer t;
    galileo::ResetTransfer(&t);
    EXPECT_EQ(FeedWaypoint(&t, f.bytes), f.result) << f.bytes;
  }
}

TEST(GalileoCommands, FlightCommandsAndUploadSentences) {
  for (int32_t n : {1, 10, 42, 100}) {
    char digits[12];
    std::snprintf(digits, sizeof digits, "%02d", n - 1);
    std::string body = std::string("PBRTR,") + digits;
    char command[20];
    galileo::FormatFlightCommand(n, command);
    EXPECT_EQ(command, "\x11" + Sentence(body)) << n;
  }

  auto make = [](double latDegrees, double lonDegrees, int32_t altitude, const char* comment) {
    Waypoint w{};
    const double degree = 3.14159265358979323846 / 180.0;
    ConvertGeoToArcPos(latDegrees * degree, lonDegrees * degree, &w.lLatitude, &w.lLongitude);
    w.lAltitude = altitude;
    std::snprintf(w.szComment, sizeof w.szComment, "%s", comment);
    return w;
  };
  struct Case {
    Waypoint waypoint;
    std::string body;
  } cases[] = {
      {make(46 + 30.25 / 60, 7 + 15.5 / 60, 1250, "Launch west"),
       "PBRWPR,4630.250,N,00715.500,E,,Launch west      ,1250"},
      {make(-(34 + 12.345 / 60), -(121 + 59.9996 / 60), 12000, "Twenty characters!!!"),
       "PBRWPR,3412.345,S,12200.000,W,,Twenty characters,9999"},
      {make(0, 0, -5, "abc"), "PBRWPR,0000.000,N,00000.000,E,,abc              ,0000"},
  };
  for (const Case& c : cases) {
    char sentence[80];
    int length = galileo::FormatWaypointSentence(c.waypoint, sentence);
    EXPECT_EQ(std::string(sentence, static_cast<size_t>(length)), Sentence(c.body));
  }
}

}  // namespace
