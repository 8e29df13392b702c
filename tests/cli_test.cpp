// The program as a black box: arguments in, standard output and exit status out.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support.h"

namespace {

using test::RunKestrix;
using test::TempDir;

std::string Help() { return test::ReadFile(std::string(KESTRIX_TEST_DATA) + "/help.txt"); }

TEST(Cli, InformationalSwitchesAnswerBeforeAnyParsing) {
  TempDir dir;
  const std::string help = Help();
  ASSERT_FALSE(help.empty());
  struct Case {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {{}, help},
      {{"-h"}, help},
      {{"-h", "-v"}, help},
      {{"-v", "-h"}, "KestrixMac64 version 1.06\n"},
      {{"-gnothing", "-v"}, "KestrixMac64 version 1.06\n"},
      {{"stray", "-h", "--bogus"}, help},
  };
  for (const Case& c : cases) {
    test::RunResult r = RunKestrix(c.args, dir.path());
    EXPECT_EQ(r.out, c.out) << (c.args.empty() ? "(none)" : c.args[0]);
    EXPECT_EQ(r.status, 0);
  }
}

TEST(Cli, RejectedSwitchPrintsItsMessageAnEmptyLineAndExits255) {
  TempDir dir;
  std::string longPort = "-cu." + std::string(22, 'p');
  struct Case {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{"-gx"}, "Unsupported GPS: x\n"},
      {{"-g="}, "Unsupported GPS: \n"},
      {{"-g", "zz"}, "Unsupported GPS: zz\n"},
      {{"-cttyS0"}, "Unrecognized comm. port: ttyS0\n"},
      {{longPort}, "Too long comm. port name\n"},
      {{"-l\"flight.igc"}, "File name not enclosed in quotation marks: \"flight.igc\n"},
      {{"-l\""}, "File name not enclosed in quotation marks: \"\n"},
      {{"-L\"flights/igc"}, "File type not enclosed in quotation marks: \"flights/igc\n"},
      {{"-Lflights/gpx"}, "Unknown file type: flights/gpx\n"},
      {{"-w\"x"}, "File name not enclosed in quotation marks: \"x\n"},
      {{"-r"}, "No file name\n"},
      {{"-r="}, "No file name\n"},
      {{"-x"}, "No file name for file conversion\n"},
      {{"--gap=5m"}, "Bad -gap value\n"},
      {{"--gap", "21474836490"}, "Bad -gap value\n"},
      {{"-f=3"}, "Bad -f value\n"},
      {{"-fx"}, "Bad -f value\n"},
      {{"--foo"}, "Unrecognized command: -foo\n"},
      {{"-scroll"}, "Unrecognized command: scroll\n"},
      {{"--noanax"}, "Unrecognized command: -noanax\n"},
      {{"-"}, "Unrecognized command: \n"},
      // The first rejected switch ends the scan; later ones are not examined.
      {{"-gc", "-q", "-gx"}, "Unrecognized command: q\n"},
  };
  for (const Case& c : cases) {
    test::RunResult r = RunKestrix(c.args, dir.path());
    EXPECT_EQ(r.out, c.message + "\n") << c.args[0];
    EXPECT_EQ(r.status, 255) << c.args[0];
  }
}

TEST(Cli, DispatchMessagesForCommandsWithoutASupportedInstrument) {
  TempDir dir;
  struct Case {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {{"-l"}, "No GPS type specified\n"},
      {{"-L"}, "No/unsupported GPS type specified\n"},
      {{"-Lflights/igc", "-giq"}, "No/unsupported GPS type specified\n"},
      {{"-Lflights/igc", "-gm"}, "No/unsupported GPS type specified\n"},
      {{"-w", "-gsy"}, "Waypoint download not supported for the selected GPS\n"},
      {{"-wpoints.gpx", "-gas"}, "Waypoint download not supported for the selected GPS\n"},
      {{"-rmissing.wpt", "-giq"}, "Waypoint upload not supported for the selected GPS\n"},
      {{"-f3"}, "No GPS command found\n"},
      {{"--noana", "--scroll", "--trim", "--debug", "--silent", "--skip"}, "No GPS command found\n"},
      {{"nothing", "here"}, "No GPS command found\n"},
      // "-g" alone followed by a switch drops the type silently.
      {{"-g", "-l"}, "No GPS type specified\n"},
      // The last command switch decides.
      {{"-gsy", "-l", "-w"}, "Waypoint download not supported for the selected GPS\n"},
  };
  for (const Case& c : cases) {
    test::RunResult r = RunKestrix(c.args, dir.path());
    EXPECT_EQ(r.out, c.out) << c.args[0];
    EXPECT_EQ(r.status, 0) << c.args[0];
  }
}

TEST(Cli, ConfigurationEchoComesBeforeTheCommand) {
  TempDir dir;
  dir.Write("kestrix.cfg",
            "CONFIG_SHOW_PARAMETERS: 1\r\n"
            "IGC_PILOT_NAME: \"Jane Doe\"   # who flies\r\n"
            "IGC_GLIDER_TYPE: Alpha Beta\n"
            "IGC_SITE_NAME: \"A;B\"\n"
            "TRIM_IMPERIAL_UNITS: 1\n"
            "TRIM_LOCATION_INTERVAL: 30\n"
            "TRIM_LOCATION_DISTANCE: 1000\n"
            "TRIM_TAKEOFF_BOX_RADIUS: 328\n"
            "TRIM_TAKEOFF_BOX_HEIGHT:50\n"
            "TRIM_TAKEOFF_BOX_PREPEND: -5\n"
            "TASK_LANDING_INTERVAL: 60\n"
            "TASK_LANDING_DISTANCE: 100\n"
            "TASK_TAKEOFF_SCRIPT: start.sh\n");
  test::RunResult r = RunKestrix({"-f1"}, dir.path());
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "\n"
            "Config: IGC_PILOT_NAME  = \"Jane Doe\"\n"
            "Config: IGC_GLIDER_TYPE = \"Alpha\"\n"
            "Config: IGC_GLIDER_ID   = \"\"\n"
            "Config: IGC_SITE_NAME   = \"A\"\n"
            "Config: IGC_COMP_CLASS  = \"\"\n"
            "\n"
            "Config: TRIM_LOCATION_INTERVAL   = 30 s\n"
            "Config: TRIM_LOCATION_DISTANCE   = 305 m\n"
            "Config: Trim takeoff detection based on speed disabled\n"
            "Config: TRIM_TAKEOFF_BOX_RADIUS  = 100 m\n"
            "Config: TRIM_TAKEOFF_BOX_HEIGHT  = 15 m\n"
            "Config: TRIM_TAKEOFF_BOX_PREPEND = 0 s\n"
            "Config: Trim landing detection disabled\n"
            "\n"
            "Config: Task location detection disabled\n"
            "Config: Task takeoff detection based on speed disabled\n"
            "Config: Task takeoff detection based on box exit disabled\n"
            "Config: TASK_LANDING_INTERVAL = 60 s\n"
            "Config: TASK_LANDING_DISTANCE = 100 m\n"
            "\n"
            "Config: TASK_TAKEOFF_SCRIPT = \"start.sh\n\"\n"
            "Config: TASK_LANDING_SCRIPT = \"\"\n"
            "\n"
            "No GPS command found\n");
}

TEST(Cli, ConfigurationIsReadBeforeSwitchesAreRejected) {
  TempDir dir;
  dir.Write("kestrix.cfg", "CONFIG_SHOW_PARAMETERS: 1\n");
  test::RunResult r = RunKestrix({"-gq"}, dir.path());
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.out.rfind("\nConfig: IGC_PILOT_NAME  = \"\"\n", 0), 0u);
  EXPECT_TRUE(r.out.ends_with("\nUnsupported GPS: q\n\n"));
}

}  // namespace
