// What each switch stores in the run parameters.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "driver/cmd.h"
#include "core/run.h"
#include "support.h"

namespace {

// Parses like the program does: fresh parameters, output captured.
int Parse(std::initializer_list<std::string> args, std::string* out = nullptr) {
  test::FreshRunParameters();
  std::vector<std::string> copies(args);
  std::vector<char*> argv;
  for (std::string& a : copies) argv.push_back(a.data());
  testing::internal::CaptureStdout();
  int result = ParseArguments(static_cast<int>(argv.size()), argv.data());
  std::fflush(stdout);
  std::string printed = testing::internal::GetCapturedStdout();
  if (out != nullptr) *out = printed;
  return result;
}

TEST(ParseArguments, InstrumentTypesAndTheirValueForms) {
  struct Case {
    std::initializer_list<std::string> args;
    int32_t type;
  } cases[] = {
      {{"-gc"}, 1},  {{"-gy"}, 5},   {{"-gyn"}, 10},  {{"-gda"}, 13},       {{"-giq"}, 7},
      {{"-gas"}, 11}, {{"-gm"}, 3},  {{"-gsy"}, 9},   {{"-g=yn"}, 10},      {{"-g", "iq"}, 7},
      {{"-g"}, 0},   {{"-g", "-gm"}, 3},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Parse(c.args), 0) << *c.args.begin();
    EXPECT_EQ(tGps.dwGpsType, c.type) << *c.args.begin();
  }
}

TEST(ParseArguments, SerialPortNames) {
  EXPECT_EQ(Parse({"-cu.usbserial-1"}), 0);
  EXPECT_STREQ(tGps.szComPort, "/dev/cu.usbserial-1");
  EXPECT_EQ(Parse({"-c=u.A"}), 0);
  EXPECT_STREQ(tGps.szComPort, "/dev/cu.A");
  EXPECT_EQ(Parse({"-c", "u.X"}), 0);
  EXPECT_STREQ(tGps.szComPort, "/dev/cu.X");
  // A lone "-c" before another switch drops the port and reads that switch.
  EXPECT_EQ(Parse({"-c", "-gc"}), 0);
  EXPECT_STREQ(tGps.szComPort, "");
  EXPECT_EQ(tGps.dwGpsType, 1);
  std::string longest(21, 'n');
  EXPECT_EQ(Parse({"-cu." + longest}), 0);
  EXPECT_EQ(std::string(tGps.szComPort), "/dev/cu." + longest);
  std::string out;
  EXPECT_EQ(Parse({"-cu." + longest + "n"}, &out), -1);
  EXPECT_EQ(out, "Too long comm. port name\n");
}

TEST(ParseArguments, TrackFileNamesAndTypes) {
  struct Case {
    std::string arg;
    const char* name;
    uint32_t types;
    uint32_t command;
  } cases[] = {
      {"-l", "", 3, 1},
      {"-lflight.kml", "flight", 1, 1},
      {"-l=flight.igc", "flight", 2, 1},
      {"-lflight.IGC", "flight.IGC", 3, 1},
      {"-l.igc", "", 2, 1},
      {"-lab", "ab", 3, 1},
      {"-l\"my flight.igc\"", "my flight", 2, 1},
      {"-l\"\"", "", 3, 1},
      {"-L", "", 3, 5},
      {"-Lflights/igc", "flights/", 2, 5},
      {"-L=out/kml", "out/", 1, 5},
      {"-Lkml", "", 1, 5},
      {"-Lab", "ab", 3, 5},
      {"-w", "", 7, 2},
      {"-wpoints.wpt", "points", 1, 2},
      {"-wpoints.gpx", "points", 2, 2},
      {"-wpoints.kml", "points", 4, 2},
      {"-wpoints.txt", "points.txt", 7, 2},
      {"-rpoints.wpt", "points.wpt", 0, 4},
      {"-xflight.igc", "flight.igc", 0, 3},
      {"-x=\"a b.igc\"", "a b.igc", 0, 3},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Parse({c.arg}), 0) << c.arg;
    EXPECT_STREQ(tGps.szFileName, c.name) << c.arg;
    EXPECT_EQ(tGps.dwFileTypes, c.types) << c.arg;
    EXPECT_EQ(tGps.dwCommand, c.command) << c.arg;
  }
}

TEST(ParseArguments, LongFileNamesAreCutTo300Characters) {
  std::string name(400, 'a');
  EXPECT_EQ(Parse({"-l" + name + ".igc"}), 0);
  EXPECT_EQ(std::string(tGps.szFileName), std::string(300, 'a'));
  EXPECT_EQ(tGps.dwFileTypes, 2u);
}

TEST(ParseArguments, LastCommandWinsButNamesComeFromTheLastHandlerThatSetThem) {
  EXPECT_EQ(Parse({"-lone.igc", "-Lall/kml"}), 0);
  EXPECT_EQ(tGps.dwCommand, 5u);
  EXPECT_STREQ(tGps.szFileName, "all/");
  EXPECT_EQ(tGps.dwFileTypes, 1u);
  // "-r" leaves the file types of an earlier switch alone.
  EXPECT_EQ(Parse({"-wpoints.gpx", "-rup.wpt"}), 0);
  EXPECT_EQ(tGps.dwCommand, 4u);
  EXPECT_STREQ(tGps.szFileName, "up.wpt");
  EXPECT_EQ(tGps.dwFileTypes, 2u);
}

TEST(ParseArguments, GapAndFlightNumbers) {
  EXPECT_EQ(Parse({"--gap=0"}), 0);
  EXPECT_EQ(tGps.nGapSeconds, 0);
  EXPECT_EQ(Parse({"--gap="}), 0);
  EXPECT_EQ(tGps.nGapSeconds, 0);
  EXPECT_EQ(Parse({"--gap", " 5 "}), 0);
  EXPECT_EQ(tGps.nGapSeconds, 300);
  EXPECT_EQ(Parse({"--gap"}), 0);
  EXPECT_EQ(tGps.nGapSeconds, -1);
  EXPECT_EQ(Parse({"--gap", "--scroll"}), 0);
  EXPECT_EQ(tGps.nGapSeconds, -1);
  EXPECT_EQ(tGps.bScroll, 1);
  EXPECT_EQ(Parse({"-f"}), 0);
  EXPECT_EQ(tGps.nFlightNumber, 0);
  EXPECT_EQ(Parse({"-f12"}), 0);
  EXPECT_EQ(tGps.nFlightNumber, 12);
  EXPECT_EQ(Parse({}), 0);
  EXPECT_EQ(tGps.nFlightNumber, -1);
}

TEST(ParseArguments, FlagsAndIgnoredArguments) {
  EXPECT_EQ(Parse({"first", "--noana", "between", "--trim", "--debug", "--silent", "--skip"}), 0);
  EXPECT_EQ(tGps.bNoAnalysis, 1);
  EXPECT_EQ(tGps.bTrim, 1);
  EXPECT_EQ(tGps.bDebug, 1);
  EXPECT_EQ(tGps.bSilent, 1);
  EXPECT_EQ(tGps.bSkipExisting, 1);
  EXPECT_EQ(tGps.bScroll, 0);
  EXPECT_EQ(tGps.dwCommand, 0u);
}

TEST(ParseArguments, OverlongSwitchIsCutBeforeClassification) {
  std::string out;
  EXPECT_EQ(Parse({"-q" + std::string(2000, 'z')}, &out), -1);
  EXPECT_EQ(out, "Unrecognized command: q" + std::string(1022, 'z') + "\n");
}

}  // namespace
