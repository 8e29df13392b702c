// Track file names: date part, pilot name, folders and the 255-character limit.
#include <gtest/gtest.h>

#include <string>

#include "core/run.h"
#include "output/file.h"
#include "support.h"
#include "waypoint_support.h"

namespace {

TEST(MakeLogFileName, BuildsNamesFromTheOutputNamePilotAndTime) {
  const uint32_t flight = test::GpsTime(2013, 7, 21, 13, 5, 59);
  const std::string dated = "2013-07-21_13-05";
  struct Case {
    std::string output;
    std::string pilot;
    uint32_t time;
    const char* extension;
    std::string expected;  // empty: refused
  } cases[] = {
      {"", "Ann Lee", flight, ".igc", dated + "_Ann_Lee.igc"},
      {"flights/", "Ann Lee", flight, ".kml", "flights/" + dated + "_Ann_Lee.kml"},
      {"myflight", "Ann Lee", flight, "-T.igc", "myflight-T.igc"},
      {"flight.txt", "", flight, ".kml", "flight.txt.kml"},
      {"", "", 0, "-T.kml", "1989-12-31_00-00-T.kml"},
      {"", "\x01", flight, ".igc", dated + ".igc"},         // name still to come from the instrument
      {"", "\xC3\xA9ric", flight, ".igc", dated + ".igc"},  // first byte 128 or above
      {"", "\x02x", flight, ".igc", dated + "_\x02x.igc"},
      {"", " Jo  B ", flight, ".igc", dated + "__Jo__B_.igc"},
      {"", std::string(50, 'p'), flight, ".igc", dated + "_" + std::string(50, 'p') + ".igc"},
      // 255 characters are accepted, 256 refused, in every branch.
      {std::string(251, 'n'), "Ann", flight, ".igc", std::string(251, 'n') + ".igc"},
      {std::string(252, 'n'), "Ann", flight, ".igc", ""},
      {std::string(249, 'n'), "", flight, "-T.igc", std::string(249, 'n') + "-T.igc"},
      {std::string(250, 'n'), "", flight, "-T.igc", ""},
      {std::string(226, 'd') + "/", "Ann Lee", flight, ".kml", std::string(226, 'd') + "/" + dated + "_Ann_Lee.kml"},
      {std::string(227, 'd') + "/", "Ann Lee", flight, ".kml", ""},
      {std::string(254, 'd') + "/", "", flight, ".kml", ""},
      {std::string(255, 'n'), "", flight, "", std::string(255, 'n')},
      {std::string(256, 'n'), "", flight, "", ""},
      {std::string(300, 'n'), "", flight, ".igc", ""},
  };
  for (const Case& c : cases) {
    test::FreshRunParameters();
    test::SetOutputName(c.output);
    std::snprintf(tGps.szPilotName, sizeof tGps.szPilotName, "%s", c.pilot.c_str());
    char buffer[kFileNameLimit + 1] = "untouched";
    testing::internal::CaptureStdout();
    int32_t result = MakeLogFileName(buffer, kFileNameLimit, c.time, c.extension);
    std::string out = testing::internal::GetCapturedStdout();
    if (c.expected.empty()) {
      EXPECT_EQ(result, -1) << c.output.size();
      EXPECT_EQ(out, "File name too long\n");
    } else {
      EXPECT_EQ(result, 0) << c.output.size() << " " << c.pilot;
      EXPECT_EQ(std::string(buffer), c.expected);
      EXPECT_EQ(out, "");
    }
  }
  test::FreshRunParameters();
}

}  // namespace
