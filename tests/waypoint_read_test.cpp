// Waypoint file readers: splitting, strict field decoding, line numbers,
// messages and --silent, and files written by an independent program.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "core/run.h"
#include "external_tools.h"
#include "output/file.h"
#include "support.h"
#include "waypoint_support.h"

namespace {

const std::string kOziProlog = "OziExplorer Waypoint File Version 1.1\r\nWGS 84\r\nReserved 2\r\nReserved 3\r\n";

// An Ozi line with the given fields 2 to 6, 11 and 15.
std::string OziLine(const std::string& id, const std::string& latitude, const std::string& longitude,
                    const std::string& date = "0", const std::string& comment = "", const std::string& feet = "-777",
                    const std::string& symbol = "0") {
  return "1," + id + "," + latitude + "," + longitude + "," + date + "," + symbol + ",1,3,0,65535," + comment +
         ",0,0,0," + feet + ",6,0,17\r\n";
}

std::vector<std::string> Split(std::string text, char* (*extract)(char*, char**), std::vector<bool>* more) {
  std::vector<std::string> pieces;
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back('\0');
  char* rest = buffer.data();
  while (rest != nullptr) {
    char* piece = nullptr;
    rest = extract(rest, &piece);
    pieces.emplace_back(piece);
    more->push_back(rest != nullptr);
  }
  return pieces;
}

TEST(ExtractLine, JoinsLineEndsSkipsLeadingBlanksAndStopsAtTheEnd) {
  struct Case {
    std::string text;
    std::vector<std::string> lines;
  } cases[] = {
      {"a\r\nb\r\n", {"a", "b"}},
      {"a\r\n\r\n\n\rb", {"a", "b"}},
      {"  a  \n   \nb", {"a  ", "", "b"}},  // a line of blanks stays a (bad) line
      {"\r\nx", {"", "x"}},
      {"only", {"only"}},
      {"", {""}},
  };
  for (const Case& c : cases) {
    std::vector<bool> more;
    EXPECT_EQ(Split(c.text, ExtractLine, &more), c.lines) << c.text;
    ASSERT_FALSE(more.empty());
    EXPECT_FALSE(more.back());
  }
}

TEST(ExtractItem, SplitsAtTheSeparatorAfterLeadingBlanks) {
  std::vector<bool> more;
  EXPECT_EQ(Split(" a, b ,,c", ExtractCommaItem, &more), (std::vector<std::string>{"a", "b ", "", "c"}));
  EXPECT_EQ(more, (std::vector<bool>{true, true, true, false}));
  more.clear();
  EXPECT_EQ(Split("a,", ExtractCommaItem, &more), (std::vector<std::string>{"a", ""}));
  more.clear();
  EXPECT_EQ(Split("TOP01  N 46", ExtractSpaceItem, &more), (std::vector<std::string>{"TOP01", "N", "46"}));
  EXPECT_EQ(more, (std::vector<bool>{true, true, false}));
}

TEST(DecodeWaypointId, AcceptsOneToSixPlainCharactersAndRefusesTheRest) {
  struct Case {
    const char* text;
    const char* id;  // null: refused
  } cases[] = {
      {"TOP01", "TOP01"}, {"  A-1  ", "A-1"}, {"abcdef", "abcdef"},  {"Z", "Z"},           {"09-az-", "09-az-"},
      {"", nullptr},      {"   ", nullptr},   {"abcdefg", nullptr},  {"a_b", nullptr},     {"a.b", nullptr},
      {"a b", nullptr},   {"ab\t", nullptr},  {"\xC3\xA9", nullptr}, {"TOP01 x", nullptr},
  };
  for (const Case& c : cases) {
    char id[7] = "junk";
    int32_t result = DecodeWaypointId(c.text, id);
    if (c.id == nullptr) {
      EXPECT_EQ(result, -1) << c.text;
    } else {
      EXPECT_EQ(result, 0) << c.text;
      EXPECT_STREQ(id, c.id);
    }
  }
}

TEST(DecodeWaypointCmt, KeepsFortyPlainCharactersAndHyphensTheRest) {
  struct Case {
    std::string text;
    std::string comment;
  } cases[] = {
      {"Col du Pr\xC3\xA9 2000m!", "Col du Pr-- 2000m-"},
      {"   Launch west   ", "Launch west"},
      {"a,b;c\t[A]", "a-b-c--A-"},
      {"", ""},
      {"    ", ""},
      {std::string(45, 'x'), std::string(40, 'x')},
      {std::string(39, 'x') + " y", std::string(39, 'x')},  // cut at 40, then the blank goes
  };
  for (const Case& c : cases) {
    char comment[41];
    std::memset(comment, '#', sizeof comment);
    DecodeWaypointCmt(c.text.c_str(), comment);
    EXPECT_EQ(std::string(comment), c.comment) << c.text;
  }
}

struct Decoded {
  int32_t result;
  std::string out;
  std::vector<Waypoint> waypoints;
};

Decoded Decode(int32_t (*decoder)(char*), const std::string& text, bool silent = false) {
  tGps.bSilent = silent ? 1 : 0;
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back('\0');
  testing::internal::CaptureStdout();
  Decoded d;
  d.result = decoder(buffer.data());
  d.out = testing::internal::GetCapturedStdout();
  d.waypoints.assign(tGps.pWaypoints, tGps.pWaypoints + tGps.nWaypoints);
  return d;
}

// What a decoded waypoint must hold; positions to 1e-7 degree.
struct Expected {
  const char* id;
  double latitude;
  double longitude;
  int32_t altitude;
  const char* comment;
  uint32_t flag;
  uint32_t time;
};

void ExpectWaypoint(const Waypoint& w, const Expected& e, double timeTolerance = 0.0) {
  EXPECT_STREQ(w.szId, e.id);
  EXPECT_NEAR(test::LatitudeOf(w), e.latitude, 1e-7) << e.id;
  EXPECT_NEAR(test::LongitudeOf(w), e.longitude, 1e-7) << e.id;
  EXPECT_EQ(w.lAltitude, e.altitude) << e.id;
  EXPECT_STREQ(w.szComment, e.comment);
  EXPECT_EQ(w.dwReserved, e.flag) << e.id;
  EXPECT_NEAR(static_cast<double>(w.dwTime), e.time, timeTolerance) << e.id;
}

class WaypointReaders : public testing::Test {
 protected:
  void SetUp() override { test::FreshRunParameters(); }
  void TearDown() override { test::FreshRunParameters(); }
  test::ClockFixture clock_;
};

TEST_F(WaypointReaders, OziFieldsDecodeIntoWaypoints) {
  const std::string text = kOziProlog +
                           OziLine("TOP01", "46.504306", "7.258389", "45000.5208333", "Launch west", "4101") +
                           "\r\n\r\n" +  // empty lines vanish
                           OziLine("  S  ", " -33.5", "-70.25", "1.0", "  Col du Pr\xC3\xA9 2000m! ", "-100", "") +
                           "   2,N,89.999999,-179.999999,0,7,1,3,0,65535,,0,0,0,1000";  // no line end
  Decoded d = Decode(DecodeOziWpts, text);
  ASSERT_EQ(d.result, 0) << d.out;
  EXPECT_EQ(d.out, "3 waypoints found\n");
  ASSERT_EQ(d.waypoints.size(), 3u);
  // Dates before the GPS epoch give 0, date 0 the current time; negative
  // heights become 0.
  ExpectWaypoint(d.waypoints[0],
                 {"TOP01", 46.504306, 7.258389, 1250, "Launch west", 0, test::GpsTime(2023, 3, 15, 12, 30, 0)});
  ExpectWaypoint(d.waypoints[1], {"S", -33.5, -70.25, 0, "Col du Pr-- 2000m-", 0, 0});
  ExpectWaypoint(d.waypoints[2], {"N", 89.999999, -179.999999, 305, "", 0, test::FixedClockGpsTime()});
}

TEST_F(WaypointReaders, OziDatesAndAltitudes) {
  struct Case {
    std::string date;
    std::string feet;
    uint32_t time;
    int32_t metres;
  } cases[] = {
      {"0", "-777", test::FixedClockGpsTime(), 0},
      {"0.0", "-777.9", test::FixedClockGpsTime(), 0},  // truncated to -777 first
      {"32873.5", "3", 43200, 1},                       // 0.9144 m
      {"32872", "1.9", 0, 0},                           // 1 ft is 0.3048 m
      {"32873.0000058", "2", 1, 1},                     // 0.5 s rounds up
      {"36892", "-1", test::GpsTime(2001, 1, 1, 0, 0, 0), 0},
      {"45000.25", "29029", test::GpsTime(2023, 3, 15, 6, 0, 0), 8848},
      {"1e3", "0", 0, 0},  // not a decimal number: the line is bad
  };
  for (const Case& c : cases) {
    Decoded d = Decode(DecodeOziWpts, kOziProlog + OziLine("A", "1", "2", c.date, "", c.feet));
    if (c.date == "1e3") {
      EXPECT_EQ(d.out, "Bad line 5\n");
      continue;
    }
    ASSERT_EQ(d.result, 0) << c.date << " " << d.out;
    EXPECT_EQ(d.waypoints[0].dwTime, c.time) << c.date;
    EXPECT_EQ(d.waypoints[0].lAltitude, c.metres) << c.feet;
  }
}

TEST_F(WaypointReaders, OziBadLinesAreNumberedAndEmptyTheList) {
  const std::string good = OziLine("OK", "45", "6");
  struct Case {
    std::string body;
    std::string message;
  } cases[] = {
      {good + OziLine("A", "90.0", "6"), "Bad line 6\n"},
      {good + OziLine("A", "-90", "6"), "Bad line 6\n"},
      {good + OziLine("A", "45", "-180.0"), "Bad line 6\n"},
      {good + OziLine("A", "45", "180"), "Bad line 6\n"},
      {good + OziLine("ABCDEFG", "45", "6"), "Bad line 6\n"},
      {good + OziLine("A_B", "45", "6"), "Bad line 6\n"},
      {good + OziLine("A.B", "45", "6"), "Bad line 6\n"},
      {good + OziLine("A B", "45", "6"), "Bad line 6\n"},
      {good + OziLine("A", "45", "6", "x"), "Bad line 6\n"},
      {good + OziLine("A", "45", "6", ""), "Bad line 6\n"},
      {good + OziLine("A", "45", "6", "0", "", "high"), "Bad line 6\n"},
      {good + OziLine("A", "45", "6", "0", "", "-777", "-1"), "Bad line 6\n"},
      {good + "\r\n\r\n" + good + "   \r\n" + good, "Bad line 7\n"},    // blanks only; empty lines not counted
      {good + "1,A,45,6,0,0,1,3,0,65535,c,0,0,0\r\n", "Bad line 6\n"},  // 14 fields
      {"1,A,45,6,0,0,1,3,0,65535,c,0,0,0,", "Bad line 5\n"},            // field 15 empty
      {"1,A\r\n" + good, "Bad line 5\n"},
  };
  for (const Case& c : cases) {
    Decoded d = Decode(DecodeOziWpts, kOziProlog + c.body);
    EXPECT_EQ(d.result, -1) << c.body;
    EXPECT_EQ(d.out, c.message) << c.body;
    EXPECT_TRUE(d.waypoints.empty());
    EXPECT_EQ(tGps.pWaypoints, nullptr);
    // --silent: the same outcome without a word.
    Decoded quiet = Decode(DecodeOziWpts, kOziProlog + c.body, true);
    EXPECT_EQ(quiet.result, -1);
    EXPECT_EQ(quiet.out, "");
  }
}

TEST_F(WaypointReaders, OziPrologNeedsFourLinesAndMore) {
  for (const std::string& text : {std::string("OziExplorer Waypoint File Version 1.1\r\nWGS 84\r\n"), kOziProlog,
                                  kOziProlog + "\r\n\r\n", std::string("OziExplorer Waypoint File")}) {
    Decoded d = Decode(DecodeOziWpts, text);
    EXPECT_EQ(d.result, -1);
    EXPECT_EQ(d.out, "Bad prolog\n");
    EXPECT_EQ(Decode(DecodeOziWpts, text, true).out, "");
  }
  // Four lines and anything after them: a line of blanks is a bad line 5.
  EXPECT_EQ(Decode(DecodeOziWpts, kOziProlog + "  ").out, "Bad line 5\n");
}

TEST_F(WaypointReaders, OziListsGrowPastTheirFirstRoom) {
  std::string text = kOziProlog;
  for (int i = 0; i < 250; ++i) text += OziLine("W" + std::to_string(i), "45", "6", "0", "", std::to_string(i * 10));
  Decoded d = Decode(DecodeOziWpts, text);
  ASSERT_EQ(d.result, 0);
  EXPECT_EQ(d.out, "250 waypoints found\n");
  ASSERT_EQ(d.waypoints.size(), 250u);
  EXPECT_EQ(tGps.nWaypointCapacity, 400);
  for (int i = 0; i < 250; ++i) EXPECT_EQ(std::string(d.waypoints[i].szId), "W" + std::to_string(i));
  EXPECT_EQ(d.waypoints[249].lAltitude, 759);  // 2490 ft
}

TEST_F(WaypointReaders, GeoLinesDecodeWithTheirFlag) {
  const std::string text =
      "$FormatGEO\r\n"
      "TOP01 N 46 30 15.5 E 007 15 30.2 1250 Launch west [A]\r\n"
      "LDG   s 33 55,5 w 70 30 12.4  11.6  \r\n"
      "B-2 N 46.5 E 7.25 -3 Ridge [a]\r\n"
      "C3 N 0 0 0 W 179 59 59.9 1250.5 mid [x]\r\n"
      "D4 N 1.0 E 1.0 0.4 [A]\r\n"
      "E5 N 1.0 E 1.0 7 not a flag]";
  Decoded d = Decode(DecodeGeoWpts, text);
  ASSERT_EQ(d.result, 0) << d.out;
  EXPECT_EQ(d.out, "6 waypoints found\n");
  ASSERT_EQ(d.waypoints.size(), 6u);
  const uint32_t now = test::FixedClockGpsTime();
  const Expected expected[] = {
      {"TOP01", 46 + 30 / 60.0 + 15.5 / 3600.0, 7 + 15 / 60.0 + 30.2 / 3600.0, 1250, "Launch west", 1, now},
      {"LDG", -(33 + 55.5 / 60.0), -(70 + 30 / 60.0 + 12.4 / 3600.0), 12, "", 0, now},
      {"B-2", 46.5, 7.25, 0, "Ridge", 1, now},
      {"C3", 0.0, -(179 + 59 / 60.0 + 59.9 / 3600.0), 1251, "mid", 0, now},
      {"D4", 1.0, 1.0, 0, "", 1, now},
      {"E5", 1.0, 1.0, 7, "not a flag-", 0, now},
  };
  for (size_t i = 0; i < 6; ++i) ExpectWaypoint(d.waypoints[i], expected[i]);
}

TEST_F(WaypointReaders, GeoBadLinesAndEmptyFiles) {
  const std::string head = "$FormatGEO\r\nOK N 1.0 E 1.0 5\r\n";
  struct Case {
    std::string text;
    std::string message;
  } cases[] = {
      {head + "TOP01\r\n", "Bad line 3\n"},                // no blank after the identifier
      {head + "TOP01 N 46.5 E 7.5\r\n", "Bad line 3\n"},   // no altitude
      {head + "TOP01 N 46.5 E 7.5 \r\n", "Bad line 3\n"},  // empty altitude
      {head + "TOP01 N 90 E 7.5 1\r\n", "Bad line 3\n"},
      {head + "TOP01 N 46.5 E 180 1\r\n", "Bad line 3\n"},
      {head + "TOP01 E 46.5 N 7.5 1\r\n", "Bad line 3\n"},
      {head + "TOP01 N 46 E 7.5 1\r\n", "Bad line 3\n"},  // a blank after degrees wants minutes
      {head + "TOP01 N 46 60 E 7.5 1\r\n", "Bad line 3\n"},
      {head + "TOP01 N 46.5,E 7.5 1\r\n", "Bad line 3\n"},
      {head + "TOP01 N 46.5 E 7.5 high\r\n", "Bad line 3\n"},
      {head + "TOOLONG N 46.5 E 7.5 1\r\n", "Bad line 3\n"},
      {head + "\r\n\r\nT_1 N 46.5 E 7.5 1\r\n", "Bad line 3\n"},
      {"$FormatGEO\r\n \r\n" + head, "Bad line 2\n"},
      {"$FormatGEO", ""},
      {"$FormatGEO\r\n\r\n", ""},
  };
  for (const Case& c : cases) {
    Decoded d = Decode(DecodeGeoWpts, c.text);
    EXPECT_EQ(d.result, -1) << c.text;
    EXPECT_EQ(d.out, c.message) << c.text;
    EXPECT_EQ(tGps.pWaypoints, nullptr);
    EXPECT_EQ(Decode(DecodeGeoWpts, c.text, true).out, "");
  }
}

class ReadWaypointFileTest : public WaypointReaders {
 protected:
  std::string Read(const std::string& name, int32_t* result) {
    test::SetOutputName(name);
    testing::internal::CaptureStdout();
    *result = ReadWaypointFile();
    return testing::internal::GetCapturedStdout();
  }
  test::TempDir dir_;
};

TEST_F(ReadWaypointFileTest, RecognisesTheFormatByItsFirstBytes) {
  dir_.Write("points.wpt", kOziProlog + OziLine("A", "1", "2") + OziLine("B", "3", "4"));
  dir_.Write("points.txt", "$FormatGEO\nA N 1.5 E 2.5 3\n");
  dir_.Write("points.geo", "$FormatGEOgraphic\r\nA N 1.5 E 2.5 3");
  int32_t result = -1;
  EXPECT_EQ(Read(dir_.File("points.wpt"), &result), "2 waypoints found\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(tGps.nWaypoints, 2);
  EXPECT_EQ(Read(dir_.File("points.txt"), &result), "1 waypoints found\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(tGps.nWaypoints, 1);
  EXPECT_EQ(Read(dir_.File("points.geo"), &result), "1 waypoints found\n");
}

TEST_F(ReadWaypointFileTest, FileProblemsAreReportedEvenWhenSilent) {
  dir_.Write("empty.wpt", "");
  dir_.Write("bom.wpt", "\xEF\xBB\xBF" + kOziProlog + OziLine("A", "1", "2"));
  dir_.Write("lower.wpt", "oziexplorer waypoint file\r\n");
  dir_.Write("good.wpt", kOziProlog + OziLine("A", "1", "2"));
  struct Case {
    std::string name;
    std::string message;
  } cases[] = {
      {dir_.File("missing.wpt"), "Couldn't open file for reading\n"},
      {dir_.path(), "Couldn't open file for reading\n"},
      {dir_.File("empty.wpt"), "File is empty\n"},
      {dir_.File("bom.wpt"), "Unrecognized waypoint file format\n"},
      {dir_.File("lower.wpt"), "Unrecognized waypoint file format\n"},
  };
  for (int silent : {0, 1}) {
    for (const Case& c : cases) {
      // A list left from before must not survive a failed read.
      int32_t result = 0;
      tGps.bSilent = 0;
      ASSERT_EQ(Read(dir_.File("good.wpt"), &result), "1 waypoints found\n");
      tGps.bSilent = silent;
      EXPECT_EQ(Read(c.name, &result), c.message);
      EXPECT_EQ(result, -1);
      EXPECT_EQ(tGps.nWaypoints, 0);
      EXPECT_EQ(tGps.pWaypoints, nullptr);
    }
  }
}

TEST_F(ReadWaypointFileTest, ReadsOziFilesThatGpsBabelWrote) {
  REQUIRE_TOOL("gpsbabel", "gpsbabel");
  dir_.Write("in.csv",
             "Name,Latitude,Longitude,Altitude,Description,Date,Time\n"
             "TOP01,46.504306,7.258389,1250,Launch west,2023/03/15,12:30:00\n"
             "LDG-2,-33.918861,-70.5,12.5,Landing field,2001/01/01,00:00:00\n"
             "Z9,0.000001,-179.999999,,Far,1995/06/30,23:59:59\n"
             "n,89.5,179.25,8848,Col,2024/02/29,06:00:00\n");
  std::string output;
  ASSERT_EQ(test::RunTool("gpsbabel -i unicsv -f " + test::ShellQuote(dir_.File("in.csv")) + " -o ozi -F " +
                              test::ShellQuote(dir_.File("babel.wpt")),
                          &output),
            0)
      << output;
  int32_t result = -1;
  ASSERT_EQ(Read(dir_.File("babel.wpt"), &result), "4 waypoints found\n");
  ASSERT_EQ(result, 0);
  // Altitudes go through whole feet and back; dates keep seven decimals of a day.
  const Expected expected[] = {
      {"TOP01", 46.504306, 7.258389, 1250, "Launch west", 0, test::GpsTime(2023, 3, 15, 12, 30, 0)},
      {"LDG-2", -33.918861, -70.5, 12, "Landing field", 0, test::GpsTime(2001, 1, 1, 0, 0, 0)},
      {"Z9", 0.000001, -179.999999, 0, "Far", 0, test::GpsTime(1995, 6, 30, 23, 59, 59)},
      {"n", 89.5, 179.25, 8848, "Col", 0, test::GpsTime(2024, 2, 29, 6, 0, 0)},
  };
  ASSERT_EQ(tGps.nWaypoints, 4);
  for (int i = 0; i < 4; ++i) ExpectWaypoint(tGps.pWaypoints[i], expected[i], 1.0);
}

TEST(UploadCommand, ReadsTheFileBeforeTheMissingUploadStep) {
  test::TempDir dir;
  dir.Write("points.wpt", kOziProlog + OziLine("A", "1", "2") + OziLine("B", "3", "4"));
  dir.Write("bad.wpt", kOziProlog + OziLine("A", "1", "2") + OziLine("B", "95", "4"));
  dir.Write("points.geo", "$FormatGEO\r\nA N 1.5 E 2.5 3\r\n");
  struct Case {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      // The file is read first; only then is the (here missing) port opened.
      {{"-gc", "-rpoints.wpt"}, "2 waypoints found\nCould not open COM port \n"},
      {{"-gy", "-rpoints.geo"}, "1 waypoints found\nCould not open COM port \n"},
      {{"-gyn", "--silent", "-rpoints.wpt"}, ""},
      {{"-gy", "-rbad.wpt"}, "Bad line 6\n"},
      {{"-gy", "--silent", "-rbad.wpt"}, ""},
      {{"-gc", "--silent", "-rmissing.wpt"}, "Couldn't open file for reading\n"},
      {{"-gm", "-rpoints.wpt"}, "Waypoint upload not supported for the selected GPS\n"},
  };
  for (const Case& c : cases) {
    test::RunResult r = test::RunKestrix(c.args, dir.path());
    EXPECT_EQ(r.out, c.out) << c.args[1];
    EXPECT_EQ(r.status, 0);
  }
}

}  // namespace
