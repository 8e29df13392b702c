// Formatters, tables and conversions of the serial families and of time,
// checked against texts and formulas written out independently.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <filesystem>
#include <numbers>
#include <string>

#include "geo/conv.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "serial/ascent.h"
#include "serial/flymaster.h"
#include "serial/galileo.h"
#include "serial/iqbasic.h"
#include "serial/leonardo.h"
#include "support.h"
#include "waypoint_support.h"

namespace {

using flymaster::FlymasterTransfer;
using test::GpsTime;

constexpr double kDegree = std::numbers::pi / 180.0;

unsigned Xor(const std::string& body) {
  unsigned x = 0;
  for (char c : body) x ^= static_cast<unsigned char>(c);
  return x;
}

// "$" body "*" checksum CR LF.
std::string Sentence(const std::string& body) {
  char tail[8];
  std::snprintf(tail, sizeof tail, "*%02X\r\n", Xor(body));
  return "$" + body + tail;
}

struct Fresh {
  explicit Fresh(int32_t gpsType = kGpsFlymasterNew) {
    test::FreshRunParameters();
    tGps.dwGpsType = gpsType;
    flymaster::ResetTransfer(&t);
  }
  FlymasterTransfer t;
};

Waypoint MakeWaypoint(double lat, double lon, int32_t altitude, const char* comment, uint32_t flag = 0) {
  Waypoint w{};
  ConvertGeoToArcPos(lat * kDegree, lon * kDegree, &w.lLatitude, &w.lLongitude);
  w.lAltitude = altitude;
  std::snprintf(w.szComment, sizeof w.szComment, "%s", comment);
  w.dwReserved = flag;
  return w;
}

TEST(SerialFormats, FlymasterTheReaderFollowsTypeAndFirmwareComparedAsText) {
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

TEST(SerialFormats, FlymasterTrackCommandsCarryTheStartAndTheirChecksum) {
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

TEST(SerialFormats, FlymasterTaskNumberCountsTracksOfTheSameDay) {
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

TEST(SerialFormats, FlymasterAltitudeEveryTableEntryIsTheFormulaTruncated) {
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

TEST(SerialFormats, FlymasterAltitudeValuesOutsideTheTableUseTheFormula) {
  EXPECT_EQ(flymaster::PressureToAltitude(10132), flymaster::g_ciAltitudes[9132]);
  EXPECT_EQ(flymaster::PressureToAltitude(10132), 0);
  EXPECT_EQ(flymaster::PressureToAltitude(10999), flymaster::g_ciAltitudes[9999]);
  EXPECT_EQ(flymaster::PressureToAltitude(11000), -698);
  EXPECT_EQ(flymaster::PressureToAltitude(12000), -1449);
  EXPECT_EQ(flymaster::PressureToAltitude(999), 15802);
  EXPECT_EQ(flymaster::PressureToAltitude(0), 44330);
  EXPECT_EQ(flymaster::PressureToAltitude(-5), INT32_MIN) << "no number: the hardware's indefinite value";
}

TEST(SerialFormats, FlymasterLocationThreeBytesAndTheSignBitOfTheFourth) {
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

TEST(SerialFormats, FlymasterUploadSentencesAreFormattedAsStored) {
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

TEST(SerialFormats, FlymasterNamesAreNormalisedToTheInstrumentsAlphabet) {
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

// The debug file is the dump scrambled with the IGC key, so that it
// replays to the same bytes; a folder in its way is reported.
TEST(SerialFormats, FlymasterDebugDumpTheScrambledFileReplaysToTheSameBytes) {
  std::string dump;
  for (int i = 0; i < 300; ++i) dump.push_back(static_cast<char>(i * 7 + 3));
  test::TempDir dir;
  std::string out;
  test::InDirectory(dir.path(), [&] {
    testing::internal::CaptureStdout();
    EXPECT_EQ(flymaster::SaveDebugData(reinterpret_cast<const uint8_t*>(dump.data()), 300), 0);
    out = testing::internal::GetCapturedStdout();
  });
  EXPECT_EQ(out, "Debug file flymaster2yy.dat written\n");
  std::string replay = test::ReadFile(dir.File("flymaster2yy.dat"));
  ASSERT_EQ(replay.size(), dump.size());
  EXPECT_NE(replay, dump);
  for (size_t i = 0; i < replay.size(); ++i) replay[i] = static_cast<char>(replay[i] ^ abScramble[i % 59]);
  EXPECT_EQ(replay, dump);
  std::filesystem::create_directories(dir.File("locked/flymaster2yy.dat"));
  test::InDirectory(dir.File("locked"), [&] {
    testing::internal::CaptureStdout();
    EXPECT_EQ(flymaster::SaveDebugData(reinterpret_cast<const uint8_t*>(dump.data()), 10), -1);
    out = testing::internal::GetCapturedStdout();
  });
  EXPECT_EQ(out, "Saving debug data: Failed to create debug file\n");
}

TEST(SerialFormats, GalileoFlightCommandsAndUploadSentences) {
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

SystemTime Make(uint32_t y, uint32_t mo, uint32_t d, uint32_t h = 0, uint32_t mi = 0, uint32_t s = 0) {
  return SystemTime{y, mo, d, h, mi, s};
}

void ExpectSame(const SystemTime& a, const SystemTime& b) {
  EXPECT_EQ(a.wYear, b.wYear);
  EXPECT_EQ(a.wMonth, b.wMonth);
  EXPECT_EQ(a.wDay, b.wDay);
  EXPECT_EQ(a.wHour, b.wHour);
  EXPECT_EQ(a.wMinute, b.wMinute);
  EXPECT_EQ(a.wSecond, b.wSecond);
}

TEST(SerialFormats, GpsTimeEveryDayFrom1990To2099ConvertsBothWays) {
  // Walk the calendar independently of the conversion under test.
  static constexpr uint32_t kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  uint32_t expected = 86400u;  // 1990-01-01
  int failures = 0;
  for (uint32_t year = 1990; year <= 2099; ++year) {
    for (uint32_t month = 1; month <= 12; ++month) {
      uint32_t days = kMonthDays[month - 1] + (month == 2 && year % 4 == 0 ? 1 : 0);
      for (uint32_t day = 1; day <= days; ++day) {
        SystemTime t = Make(year, month, day, 23, 59, 59);
        uint32_t gps = ConvertSystemTimeToGpsTime(&t);
        SystemTime back{};
        ConvertGpsTimeToSystemTime(gps, &back);
        bool ok = gps == expected + 86399u && back.wYear == year && back.wMonth == month &&
                  back.wDay == day && back.wHour == 23 && back.wMinute == 59 && back.wSecond == 59;
        SystemTime midnight{};
        ConvertGpsTimeToSystemTime(expected, &midnight);
        ok = ok && midnight.wDay == day && midnight.wHour == 0 && midnight.wSecond == 0;
        if (!ok && ++failures < 5) ADD_FAILURE() << year << "-" << month << "-" << day;
        expected += 86400u;
      }
    }
  }
  EXPECT_EQ(failures, 0);
  // The epoch is the last day of 1989.
  SystemTime epoch{};
  ConvertGpsTimeToSystemTime(0, &epoch);
  ExpectSame(epoch, Make(1989, 12, 31));
}

TEST(SerialFormats, GpsTimeYear2100IsTakenAsLeapDeliberately) {
  SystemTime t = Make(2100, 2, 29);
  SystemTime back{};
  ConvertGpsTimeToSystemTime(ConvertSystemTimeToGpsTime(&t), &back);
  ExpectSame(back, t);
}

TEST(SerialFormats, ArcsRadiansBothWaysRoundHalfAwayFromZero) {
  double lat = 0, lon = 0;
  ConvertArcToGeoPos(1 << 30, INT32_MIN, &lat, &lon);
  EXPECT_DOUBLE_EQ(lat, std::numbers::pi / 2);
  EXPECT_DOUBLE_EQ(lon, -std::numbers::pi);
  int32_t a = 0, b = 0;
  const double arc = std::numbers::pi / 2147483648.0;
  ConvertGeoToArcPos(0.5 * arc, -0.5 * arc, &a, &b);
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, -1);
  ConvertGeoToArcPos(0.49 * arc, -0.49 * arc, &a, &b);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 0);
  ConvertGeoToArcPos(std::numbers::pi / 4, -std::numbers::pi / 2, &a, &b);
  EXPECT_EQ(a, 1 << 29);
  EXPECT_EQ(b, -(1 << 30));
}

TEST(SerialFormats, ArcsSecondsAndMinutesScales) {
  int32_t a = 0, b = 0;
  ConvertArcToGeoMin1000(1, 100, &a, &b);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 1);  // 0.503 rounds up
  ConvertArcToGeoMin1000(-100, 1 << 30, &a, &b);
  EXPECT_EQ(a, -1);
  EXPECT_EQ(b, 5400000);  // 90 degrees
  ConvertArcToGeoSec100(1 << 30, -(1 << 30), &a, &b);
  EXPECT_EQ(a, 32400000);
  EXPECT_EQ(b, -32400000);
  ConvertArcToGeoSec100(17, -17, &a, &b);  // 0.513 hundredths
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, -1);
}

// 2021-03-06 10:34:11 in seconds from 1980-01-06, and 220 s later.
constexpr uint32_t kTakeoff = 1299062051;
constexpr uint32_t kLanding = kTakeoff + 220;

TEST(SerialFormats, LeonardoCommandsAreFramedWithTheirChecksum) {
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

// Control byte 0x0B (13 satellites), time 1300000000, latitude 0.8 and
// longitude -0.1 radians as floats, QNE -12 m, vario -2.5 m/s, 41 and
// 37 km/h, QNH 1234 m, GPS altitude 2345 m.
constexpr uint8_t kRecord[leonardo::kRecordSize] = {0x0B, 0x00, 0x6D, 0x7C, 0x4D, 0xCD, 0xCC, 0x4C,
                                                    0x3F, 0xCD, 0xCC, 0xCC, 0xBD, 0xFF, 0xF4, 0xFF,
                                                    0xE7, 41,   37,   0x04, 0xD2, 0x09, 0x29};

TEST(SerialFormats, LeonardoRecordFieldsWithTheirByteOrderAndSign) {
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

TEST(SerialFormats, LeonardoRecordOnlyPlausibleFixesOfTheFlightBecomePoints) {
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

TEST(SerialFormats, AscentSupportedFirmwareAndThePacketRequest) {
  const std::pair<uint32_t, bool> cases[] = {{0, false},     {1355, false}, {1356, true},  {1999, true},
                                             {2000, false},  {2367, false}, {2368, true},  {65535, true}};
  for (const auto& [firmware, supported] : cases) EXPECT_EQ(ascent::IsSupportedFirmware(firmware), supported) << firmware;
  uint8_t request[5];
  ascent::FormatPacketRequest(0x1234, 3, request);
  EXPECT_EQ(std::string(request, request + 5), std::string("\x03\x08\x12\x34\x03", 5));
}

TEST(SerialFormats, IqBasicProductTextAndFlightCommands) {
  char text[81];
  iqbasic::FormatProduct(1, 1234, 2826, text, sizeof text);
  EXPECT_STREQ(text, "IQ-BASIC, SW 1.2.34, S/N 2826");
  iqbasic::FormatProduct(0, 1307, 7489, text, sizeof text);
  EXPECT_STREQ(text, "6015, SW 1.3.07, S/N 7489");
  iqbasic::FormatProduct(7, 20005, 0, text, sizeof text);
  EXPECT_STREQ(text, "IQ-BASIC, SW 20.0.05, S/N 0");
  char command[16];
  iqbasic::FormatFlightCommand(1, command);
  EXPECT_STREQ(command, "ACT_21_00\r\n");
  iqbasic::FormatFlightCommand(16, command);
  EXPECT_STREQ(command, "ACT_21_0F\r\n");
  iqbasic::FormatFlightCommand(99, command);
  EXPECT_STREQ(command, "ACT_21_62\r\n");
}

}  // namespace
