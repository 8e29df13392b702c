// Reading "kestrix.cfg" into the run parameters.
#include <gtest/gtest.h>

#include <string>

#include "driver/config.h"
#include "core/run.h"
#include "support.h"

namespace {

// Reads `text` as the configuration file; returns what was printed.
std::string ReadConfig(const std::string& text) {
  test::TempDir dir;
  dir.Write("kestrix.cfg", text);
  test::FreshRunParameters();
  testing::internal::CaptureStdout();
  test::InDirectory(dir.path(), [] { GetConfigParameters(); });
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST(Config, MissingFileLeavesEverythingDisabledAndSilent) {
  test::TempDir dir;
  test::FreshRunParameters();
  testing::internal::CaptureStdout();
  test::InDirectory(dir.path(), [] { GetConfigParameters(); });
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_STREQ(tGps.szIgcPilotName, "");
  EXPECT_EQ(tGps.nTrimLocationInterval, 0);
  EXPECT_EQ(tGps.bConfigShowParameters, 0);
}

TEST(Config, TextValuesQuotedUnquotedAndCut) {
  ReadConfig(
      "IGC_PILOT_NAME: \"Jane Doe\"\n"
      "IGC_GLIDER_TYPE: Jane Doe\n"
      "IGC_GLIDER_ID:\tG-123\n"
      "IGC_SITE_NAME: \"A;B\"\n"
      "IGC_COMP_CLASS: Open\n"
      "  TASK_TAKEOFF_SCRIPT: ignored\n"
      "TASK_LANDING_SCRIPT: \"unterminated\n");
  EXPECT_STREQ(tGps.szIgcPilotName, "Jane Doe");
  EXPECT_STREQ(tGps.szIgcGliderType, "Jane");
  EXPECT_STREQ(tGps.szIgcGliderId, "G-123\n");  // the line feed stays: deliberate
  EXPECT_STREQ(tGps.szIgcSiteName, "A");
  EXPECT_STREQ(tGps.szIgcCompClass, "Open\n");
  EXPECT_STREQ(tGps.szTaskTakeoffScript, "");
  EXPECT_STREQ(tGps.szTaskLandingScript, "unterminated\n");
}

TEST(Config, TextValuesStopAtTheirMaximum) {
  ReadConfig("IGC_PILOT_NAME: \"" + std::string(120, 'p') + "\"\nTASK_TAKEOFF_SCRIPT: \"" +
             std::string(230, 's') + "\"\n");
  EXPECT_EQ(std::string(tGps.szIgcPilotName), std::string(80, 'p'));
  EXPECT_EQ(std::string(tGps.szTaskTakeoffScript), std::string(230, 's'));
}

TEST(Config, NumericValuesFlagsAndRepeatedKeys) {
  std::string out = ReadConfig(
      "TRIM_TAKEOFF_PREPEND: -5\n"
      "TRIM_LOCATION_INTERVAL:20\n"
      "TRIM_LOCATION_INTERVAL: 40   ; the later line wins\n"
      "TRIM_LOCATION_DISTANCE: 1000\n"
      "TRIM_IMPERIAL_UNITS: 1\n"
      "TRIM_LANDING_APPEND: 0\n"
      "TASK_TAKEOFF_BOX_HEIGHT: x12\n"
      "TASK_LANDING_DISTANCE :  7\n"
      "CONFIG_SHOW_PARAMETERS: 2\n");
  EXPECT_EQ(out, "");
  EXPECT_EQ(tGps.nTrimTakeoffPrepend, 0);
  EXPECT_EQ(tGps.nTrimLocationInterval, 40);
  EXPECT_EQ(tGps.nTrimLocationDistance, 1000);  // feet convert only in the echo
  EXPECT_EQ(tGps.nTrimLandingAppend, 0);
  EXPECT_EQ(tGps.nTaskTakeoffBoxHeight, 0);
  EXPECT_EQ(tGps.nTaskLandingDistance, 0);  // blank before the colon: no match
  EXPECT_EQ(tGps.bConfigShowParameters, 0);
}

TEST(Config, ImperialDistancesConvertWhenEchoed) {
  std::string out = ReadConfig(
      "CONFIG_SHOW_PARAMETERS: 1\n"
      "TRIM_IMPERIAL_UNITS: 1\n"
      "TRIM_LOCATION_INTERVAL: 10\n"
      "TRIM_LOCATION_DISTANCE: 1000\n"
      "TRIM_TAKEOFF_INTERVAL: 5\n"
      "TRIM_TAKEOFF_DISTANCE: 1\n"
      "TRIM_LANDING_DISTANCE: 2\n"
      "TASK_IMPERIAL_UNITS: 1\n"
      "TASK_TAKEOFF_BOX_RADIUS: 3281\n"
      "TASK_TAKEOFF_BOX_HEIGHT: 100000000\n");
  EXPECT_EQ(tGps.nTrimLocationDistance, 305);
  EXPECT_EQ(tGps.nTrimTakeoffDistance, 0);  // (3048 + 5000) / 10000
  EXPECT_EQ(tGps.nTrimLandingDistance, 1);
  EXPECT_EQ(tGps.nTrimLocationInterval, 10);  // intervals are never converted
  EXPECT_EQ(tGps.nTaskTakeoffBoxRadius, 1000);
  EXPECT_EQ(tGps.nTaskTakeoffBoxHeight, 30480000);
  EXPECT_NE(out.find("Config: TRIM_LOCATION_DISTANCE   = 305 m\n"), std::string::npos);
  // Takeoff interval set but distance rounded to 0 in metres: the group is off.
  EXPECT_NE(out.find("Config: Trim takeoff detection based on speed disabled\n"), std::string::npos);
  EXPECT_NE(out.find("Config: TASK_TAKEOFF_BOX_RADIUS  = 1000 m\n"), std::string::npos);
}

TEST(Config, CommentMarksAndCarriageReturnsEndTheLine) {
  ReadConfig(
      "# IGC_PILOT_NAME: Nobody\r\n"
      "IGC_PILOT_NAME: Pilot*Star\r\n"
      "IGC_GLIDER_TYPE: Wing#2\n"
      "\n"
      "IGC_SITE_NAME: Site\r\n");
  EXPECT_STREQ(tGps.szIgcPilotName, "Pilot");
  EXPECT_STREQ(tGps.szIgcGliderType, "Wing");
  EXPECT_STREQ(tGps.szIgcSiteName, "Site");
}

TEST(Config, GetStringParameterMatchesOnlyAtTheLineStart) {
  char value[8] = "keep";
  EXPECT_EQ(GetStringParameter("KEY", "KEY:", value, 7), 0);
  EXPECT_STREQ(value, "keep");
  EXPECT_EQ(GetStringParameter(" KEY: v", "KEY:", value, 7), 0);
  EXPECT_EQ(GetStringParameter("KEY:", "KEY:", value, 7), 1);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(GetStringParameter("KEY: \t\"a b\" c", "KEY:", value, 7), 1);
  EXPECT_STREQ(value, "a b");
  EXPECT_EQ(GetStringParameter("KEY: abcdefghij", "KEY:", value, 7), 1);
  EXPECT_STREQ(value, "abcdefg");
}

}  // namespace
