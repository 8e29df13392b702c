// The -x conversion end to end: every real flight through the program, the
// output name rules, and every way a conversion fails without leaving files.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "driver/convert.h"
#include "core/run.h"
#include "external_tools.h"
#include "igc/igc.h"
#include "kml_support.h"
#include "output/file.h"
#include "support.h"
#include "waypoint_support.h"

namespace {

const std::string kData = KESTRIX_TEST_DATA;
const std::string kAnalysis =
    "Computing statistics\nFinding greatest out-and-return (gap = 800m)\nFinding greatest triangles (gap = 800m)\n";

std::vector<std::string> FilesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    names.push_back(std::filesystem::relative(entry.path(), folder).string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The B records of IGC text that end in a line feed, as text.
std::vector<std::string> BRecords(const std::string& igc) {
  std::vector<std::string> records;
  size_t start = 0;
  for (size_t end = igc.find('\n'); end != std::string::npos; start = end + 1, end = igc.find('\n', start)) {
    if (igc[start] == 'B') records.push_back(igc.substr(start, end - start));
  }
  return records;
}

// Longitude, latitude in degrees and GNSS metres of a B record.
void Position(const std::string& b, double* longitude, double* latitude, int* metres) {
  *latitude = std::stoi(b.substr(7, 2)) + std::stoi(b.substr(9, 5)) / 60000.0;
  *longitude = std::stoi(b.substr(15, 3)) + std::stoi(b.substr(18, 5)) / 60000.0;
  if (b[14] == 'S') *latitude = -*latitude;
  if (b[23] == 'W') *longitude = -*longitude;
  *metres = std::stoi(b.substr(30, 5));
}

void ExpectSamePosition(const std::string& coordinate, const std::string& b) {
  double longitude, latitude, writtenLongitude, writtenLatitude;
  int metres, writtenMetres;
  Position(b, &longitude, &latitude, &metres);
  ASSERT_EQ(std::sscanf(coordinate.c_str(), "%lf,%lf,%d", &writtenLongitude, &writtenLatitude, &writtenMetres), 3)
      << coordinate;
  EXPECT_NEAR(writtenLongitude, longitude, 1.5e-6) << b;
  EXPECT_NEAR(writtenLatitude, latitude, 1.5e-6) << b;
  EXPECT_EQ(writtenMetres, metres) << b;
}

struct Conversion {
  std::string flight;
  test::RunResult result;
  std::vector<std::string> files;
  std::string kml;
  std::string xmlProblem;
};

TEST(ConvertCommand, EveryRealFlightBecomesAWellFormedKmlDocument) {
  REQUIRE_TOOL("xmllint", "libxml2-utils");
  std::vector<Conversion> runs;
  for (const auto& entry : std::filesystem::directory_iterator(kData + "/igc")) {
    if (entry.path().extension() == ".igc") runs.push_back({entry.path().filename().string(), {}, {}, {}, {}});
  }
  ASSERT_EQ(runs.size(), 26u);
  std::atomic<size_t> next{0};
  auto worker = [&] {
    for (size_t i = next++; i < runs.size(); i = next++) {
      Conversion& c = runs[i];
      test::TempDir dir;
      std::filesystem::copy_file(kData + "/igc/" + c.flight, dir.File(c.flight));
      c.result = test::RunKestrix({"-x" + c.flight}, dir.path());
      c.files = FilesIn(dir.path());
      const std::string kml = c.flight.substr(0, c.flight.size() - 4) + ".kml";
      if (std::filesystem::exists(dir.File(kml))) {
        c.kml = test::ReadFile(dir.File(kml));
        c.xmlProblem = test::XmlProblem(dir.File(kml));
      }
    }
  };
  std::thread helper(worker);
  worker();
  helper.join();

  // Two files are refused by the reader, as they are meant to be.
  const std::map<std::string, std::string> refused = {
      {"heli-flarm-timeback.igc", "Multiple A-records\n"},
      {"pg-syride-navv3-corrupt-lf.igc", "Pos. error 11 on line 197\n"}};
  for (const Conversion& c : runs) {
    SCOPED_TRACE(c.flight);
    EXPECT_EQ(c.result.status, 0);
    const std::string name = c.flight.substr(0, c.flight.size() - 4);
    if (refused.contains(c.flight)) {
      EXPECT_EQ(c.result.out, refused.at(c.flight));
      EXPECT_EQ(c.files, std::vector<std::string>{c.flight});
      continue;
    }
    const std::vector<std::string> fixes = BRecords(test::ReadFile(kData + "/igc/" + c.flight));
    EXPECT_EQ(c.result.out, "Source file decoded (" + std::to_string(fixes.size()) + " points)\n" + kAnalysis +
                                "File " + name + ".kml written, NO signature\n");
    EXPECT_EQ(c.files, (std::vector<std::string>{c.flight, name + ".kml"}));
    EXPECT_EQ(c.xmlProblem, "");
    test::TrackMetadata track;
    std::string error;
    ASSERT_TRUE(test::ReadTrackMetadata(c.kml, &track, &error)) << error;
    EXPECT_FALSE(track.hash.has_value());
    EXPECT_FALSE(track.instrument.has_value());
    EXPECT_TRUE(track.downloaded.has_value());
    EXPECT_FALSE(track.timeOfFirstPoint.ends_with("Z"));
    ASSERT_TRUE(track.pressure.has_value());
    EXPECT_EQ(test::ListLayoutProblem(track.seconds, 25), "");
    EXPECT_EQ(test::ListLayoutProblem(track.coordinates, 5), "");
    const std::vector<std::string> coordinates = test::ListValues(track.coordinates);
    ASSERT_EQ(coordinates.size(), fixes.size());
    EXPECT_EQ(test::ListValues(track.seconds).size(), fixes.size());
    EXPECT_EQ(test::ListValues(*track.pressure).size(), fixes.size());
    ExpectSamePosition(coordinates.front(), fixes.front());
    ExpectSamePosition(coordinates.back(), fixes.back());
  }
}

// A small flight: `fixes` B records 10 s apart from 13:05:00 on 2013-07-21.
std::string SmallFlight(int fixes) {
  std::string igc = "AXXX001\r\nHFDTE210713\r\n";
  for (int i = 0; i < fixes; ++i) {
    char line[64];
    const int second = 13 * 3600 + 5 * 60 + 10 * i;
    std::snprintf(line, sizeof line, "B%02d%02d%02d46%05dN00715000EA%05d%05d\r\n", second / 3600, second / 60 % 60,
                  second % 60, 30000 + 100 * i, 900 + i, 1000 + i);
    igc += line;
  }
  return igc;
}

TEST(ConvertCommand, OutputNamesAndFailures) {
  const std::string done = kAnalysis;
  struct Case {
    std::string label;
    std::vector<std::pair<std::string, std::string>> files;  // made before the run; "/" ending: a folder
    std::vector<std::string> args;
    std::string out;
    std::vector<std::string> after;
    std::string changed;  // a file whose content must now be a KML document
  } cases[] = {
      {"plain",
       {{"f.igc", SmallFlight(5)}},
       {"-xf.igc"},
       "Source file decoded (5 points)\n" + done + "File f.kml written, NO signature\n",
       {"f.igc", "f.kml"},
       "f.kml"},
      {"upper-case ending",
       {{"flight.IGC", SmallFlight(5)}},
       {"-xflight.IGC"},
       "Source file decoded (5 points)\n" + done + "File flight.IGC.kml written, NO signature\n",
       {"flight.IGC", "flight.IGC.kml"},
       "flight.IGC.kml"},
      {"only the ending",
       {{".igc", SmallFlight(5)}},
       {"-x.igc"},
       "Source file decoded (5 points)\n" + done + "File .igc.kml written, NO signature\n",
       {".igc", ".igc.kml"},
       ".igc.kml"},
      {"other ending",
       {{"f.txt", SmallFlight(6)}},
       {"-xf.txt"},
       "Source file decoded (6 points)\n" + done + "File f.txt.kml written, NO signature\n",
       {"f.txt", "f.txt.kml"},
       "f.txt.kml"},
      {"in a folder",
       {{"in/", ""}, {"in/a.igc", SmallFlight(5)}},
       {"-xin/a.igc"},
       "Source file decoded (5 points)\n" + done + "File in/a.kml written, NO signature\n",
       {"in", "in/a.igc", "in/a.kml"},
       "in/a.kml"},
      {"missing", {}, {"-xmissing.igc"}, "Couldn't open source file missing.igc\n", {}, ""},
      {"a folder as source", {{"d.igc/", ""}}, {"-xd.igc"}, "Couldn't open source file d.igc\n", {"d.igc"}, ""},
      {"empty", {{"e.igc", ""}}, {"-xe.igc"}, "Source file ftell() error\n", {"e.igc"}, ""},
      {"no A record", {{"n.igc", "LXXX nothing\r\n"}}, {"-xn.igc"}, "No A-record found\n", {"n.igc"}, ""},
      {"B before A", {{"b.igc", "HFDTE210713\r\n" + SmallFlight(5)}}, {"-xb.igc"}, "Missing A-record\n", {"b.igc"}, ""},
      {"four fixes",
       {{"s.igc", SmallFlight(4)}},
       {"-xs.igc"},
       "Source file decoded (4 points)\nToo few points for a .kml file\n",
       {"s.igc"},
       ""},
      {"output is a folder",
       {{"f.igc", SmallFlight(5)}, {"f.kml/", ""}},
       {"-xf.igc"},
       "Source file decoded (5 points)\n" + done + "Couldn't open file f.kml for writing\n",
       {"f.igc", "f.kml"},
       ""},
      // The conversion names its own file: --skip does not protect it.
      {"skip",
       {{"f.igc", SmallFlight(5)}, {"f.kml", "old"}},
       {"-xf.igc", "--skip"},
       "Source file decoded (5 points)\n" + done + "File f.kml written, NO signature\n",
       {"f.igc", "f.kml"},
       "f.kml"},
      {"no name", {}, {"-x"}, "No file name for file conversion\n\n", {}, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    test::TempDir dir;
    for (const auto& [name, text] : c.files) {
      if (name.ends_with("/")) {
        std::filesystem::create_directory(dir.File(name));
      } else {
        dir.Write(name, text);
      }
    }
    const test::RunResult r = test::RunKestrix(c.args, dir.path());
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.status, c.label == "no name" ? 255 : 0);
    EXPECT_EQ(FilesIn(dir.path()), c.after);
    if (!c.changed.empty()) {
      EXPECT_TRUE(test::ReadFile(dir.File(c.changed)).starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"));
    }
    for (const auto& [name, text] : c.files) {
      if (!name.ends_with("/") && name != c.changed) {
        EXPECT_EQ(test::ReadFile(dir.File(name)), text) << name;
      }
    }
  }
}

TEST(ConvertCommand, AWriteThatRunsOutOfRoomLeavesNoFile) {
  test::TempDir dir;
  std::filesystem::copy_file(kData + "/igc/pg-iqbasic-8s.igc", dir.File("big.igc"));
  // 4 blocks of 512 bytes may be written; the document needs about 15 000.
  std::string out;
  const int status = test::RunTool("cd " + test::ShellQuote(dir.path()) + " && ulimit -f 4 && trap '' XFSZ && exec " +
                                       test::ShellQuote(KESTRIX_EXE) + " -xbig.igc",
                                   &out);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(out, "Source file decoded (194 points)\n" + kAnalysis + "Error writing to big.kml\n");
  EXPECT_EQ(FilesIn(dir.path()), std::vector<std::string>{"big.igc"});
}

TEST(ConvertCommand, InProcessTheFileSourceSettingsAndTheClock) {
  test::FreshRunParameters();
  test::ClockFixture clock;
  test::TempDir dir;
  dir.Write("f.igc", SmallFlight(12));
  test::SetOutputName("f.igc");
  std::snprintf(tGps.szProduct, sizeof tGps.szProduct, "left from before");
  tGps.bSignature = 1;
  tGps.bUtc = 1;
  int32_t result = -1;
  testing::internal::CaptureStdout();
  test::InDirectory(dir.path(), [&] { result = TranslateIgcLog(); });
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(out, "Source file decoded (12 points)\n" + kAnalysis + "File f.kml written, NO signature\n");
  EXPECT_EQ(tGps.bSignature, 0);
  EXPECT_EQ(tGps.bUtc, 0);
  EXPECT_EQ(tGps.bPressureAltitude, 1);
  EXPECT_EQ(tGps.dwDownloadTime, test::FixedClockGpsTime());
  EXPECT_STREQ(tGps.szProduct, "");
  EXPECT_EQ(tGps.pTrackPoints, nullptr);
  EXPECT_EQ(tGps.nTrackPoints, 0);
  test::TrackMetadata track;
  std::string error;
  ASSERT_TRUE(test::ReadTrackMetadata(test::ReadFile(dir.File("f.kml")), &track, &error)) << error;
  EXPECT_EQ(track.timeOfFirstPoint, "2013-07-21T13:05:00");
  EXPECT_EQ(track.downloaded.value_or(""), "2024-05-01T14:07:09Z");
  EXPECT_EQ(test::ListValues(*track.pressure).front(), "900");
  EXPECT_EQ(test::ListValues(track.seconds).back(), "110");

  // A failed conversion frees the track as well.
  dir.Write("g.igc", SmallFlight(3));
  test::SetOutputName("g.igc");
  testing::internal::CaptureStdout();
  test::InDirectory(dir.path(), [&] { result = TranslateIgcLog(); });
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Source file decoded (3 points)\nToo few points for a .kml file\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(tGps.pTrackPoints, nullptr);
  test::FreshRunParameters();
}

}  // namespace
