// Waypoint file writers: exact bytes, names, the bounds rule, failures, and
// what independent tools make of the files.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "external_tools.h"
#include "output/file.h"
#include "support.h"
#include "waypoint_support.h"

namespace {

using test::MakeWaypoint;

const std::string kData = KESTRIX_TEST_DATA;

std::vector<Waypoint> GoldenList() {
  return {
      MakeWaypoint("LDG-2", 46.45, 7.1, -10, "", 0),
      MakeWaypoint("TOP01", 46.504306, 7.258389, 1250, "Launch west", test::GpsTime(2023, 3, 15, 12, 30, 0)),
      MakeWaypoint("S", -33.918861, -70.5, 0, "Forty characters of comment text exactly", 1),
  };
}

class WaypointWriters : public testing::Test {
 protected:
  void SetUp() override { test::FreshRunParameters(); }
  void TearDown() override { test::FreshRunParameters(); }

  // Runs one writer and returns what it printed.
  static std::string Run(int32_t (*writer)(), int32_t* result = nullptr) {
    testing::internal::CaptureStdout();
    int32_t r = writer();
    if (result != nullptr) *result = r;
    return testing::internal::GetCapturedStdout();
  }

  test::ClockFixture clock_;
  test::TempDir dir_;
};

TEST_F(WaypointWriters, WriteTheGoldenFilesByteForByte) {
  test::UseWaypoints(GoldenList());
  test::SetOutputName(dir_.File("points"));
  struct Case {
    int32_t (*writer)();
    const char* extension;
  } cases[] = {{SaveOziWaypoints, ".wpt"}, {SaveGpxWaypoints, ".gpx"}, {SaveKmlWaypoints, ".kml"}};
  for (const Case& c : cases) {
    int32_t result = -1;
    const std::string name = dir_.File(std::string("points") + c.extension);
    EXPECT_EQ(Run(c.writer, &result), "File " + name + " written\n");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(test::ReadFile(name), test::ReadFile(kData + "/waypoints/golden" + c.extension)) << c.extension;
  }
}

TEST_F(WaypointWriters, NamesComeFromTheOutputNameOrTheCurrentMinute) {
  struct Case {
    std::string output;
    const char* extension;
    std::string expected;  // empty: refused
  } cases[] = {
      {"", ".wpt", "2024-05-01_14-07.wpt"},
      {"", ".kml", "2024-05-01_14-07.kml"},
      {"foo", ".gpx", "foo.gpx"},
      // Folders get no date part here, unlike track names.
      {"points/", ".gpx", "points/.gpx"},
      {std::string(251, 'n'), ".wpt", std::string(251, 'n') + ".wpt"},
      {std::string(252, 'n'), ".wpt", ""},
      {std::string(255, 'n'), "", std::string(255, 'n')},
      {std::string(256, 'n'), "", ""},
      {std::string(300, 'n'), ".kml", ""},
  };
  for (const Case& c : cases) {
    test::SetOutputName(c.output);
    char buffer[kFileNameLimit + 1] = "untouched";
    testing::internal::CaptureStdout();
    int32_t result = MakeWptFileName(buffer, kFileNameLimit, c.extension);
    std::string out = testing::internal::GetCapturedStdout();
    if (c.expected.empty()) {
      EXPECT_EQ(result, -1) << c.output.size();
      EXPECT_EQ(out, "File name too long\n");
    } else {
      EXPECT_EQ(result, 0) << c.output.size();
      EXPECT_EQ(std::string(buffer), c.expected);
      EXPECT_EQ(out, "");
    }
  }
}

TEST_F(WaypointWriters, OziAltitudesAreFeetRoundedHalfAwayFromZero) {
  struct Case {
    int32_t metres;
    int32_t feet;
  } cases[] = {{0, 0},       {1, 3},       {2, 7},   {10, 33},      {-1, -3},     {-10, -33},
               {1250, 4101}, {1000, 3281}, {-2, -7}, {8848, 29029}, {-418, -1371}};
  std::vector<Waypoint> list;
  for (const Case& c : cases) list.push_back(MakeWaypoint("A", 1.0, 2.0, c.metres, "", 0));
  test::UseWaypoints(list);
  test::SetOutputName(dir_.File("feet"));
  ASSERT_EQ(Run(SaveOziWaypoints), "File " + dir_.File("feet.wpt") + " written\n");
  std::istringstream lines(test::ReadFile(dir_.File("feet.wpt")));
  std::string line;
  for (int i = 0; i < 4; ++i) std::getline(lines, line);
  for (const Case& c : cases) {
    ASSERT_TRUE(std::getline(lines, line));
    ASSERT_TRUE(line.ends_with("\r"));
    EXPECT_EQ(line.substr(line.rfind(", ") + 2), std::to_string(c.feet) + "\r") << c.metres;
  }
}

std::string BoundsLine(const std::string& gpx) {
  size_t start = gpx.find("    <bounds ");
  return start == std::string::npos ? "" : gpx.substr(start, gpx.find('\n', start) + 1 - start);
}

TEST_F(WaypointWriters, GpxBoundsOnlyTryTheMaximumWhenTheMinimumStays) {
  struct Case {
    std::vector<Waypoint> list;
    std::string bounds;
  } cases[] = {
      {{}, "minlat=\"171.887339\" minlon=\"171.887339\" maxlat=\"-171.887339\" maxlon=\"-171.887339\""},
      {{MakeWaypoint("A", 46.0, 7.0, 0, "", 0)},
       "minlat=\"46.000000\" minlon=\"7.000000\" maxlat=\"-171.887339\" maxlon=\"-171.887339\""},
      {{MakeWaypoint("A", 46.0, 7.0, 0, "", 0), MakeWaypoint("B", 45.0, 6.0, 0, "", 0)},
       "minlat=\"45.000000\" minlon=\"6.000000\" maxlat=\"-171.887339\" maxlon=\"-171.887339\""},
      {{MakeWaypoint("A", 46.0, 7.0, 0, "", 0), MakeWaypoint("B", 47.0, 6.0, 0, "", 0)},
       "minlat=\"46.000000\" minlon=\"6.000000\" maxlat=\"47.000000\" maxlon=\"-171.887339\""},
      // The first waypoint is only a minimum, even when it is the largest.
      {{MakeWaypoint("A", 46.0, 7.0, 0, "", 0), MakeWaypoint("B", 45.0, 8.0, 0, "", 0),
        MakeWaypoint("C", 45.5, 7.5, 0, "", 0)},
       "minlat=\"45.000000\" minlon=\"7.000000\" maxlat=\"45.500000\" maxlon=\"8.000000\""},
  };
  test::SetOutputName(dir_.File("bounds"));
  for (const Case& c : cases) {
    test::UseWaypoints(c.list);
    ASSERT_EQ(Run(SaveGpxWaypoints), "File " + dir_.File("bounds.gpx") + " written\n");
    EXPECT_EQ(BoundsLine(test::ReadFile(dir_.File("bounds.gpx"))), "    <bounds " + c.bounds + "/>\r\n")
        << c.list.size();
  }
}

// xmllint's verdict on a file: well-formed only, or valid against a schema.
struct XmlVerdict {
  int status;
  std::string output;
};

XmlVerdict XmlLint(const std::string& file, bool withSchema) {
  std::string command = "xmllint --nonet --noout ";
  if (withSchema) command += "--schema " + test::ShellQuote(kData + "/schemas/gpx.xsd") + " ";
  XmlVerdict verdict;
  verdict.status = test::RunTool(command + test::ShellQuote(file), &verdict.output);
  return verdict;
}

TEST_F(WaypointWriters, GpxValidatesExactlyWhenTheLatitudeMaximumWasRaised) {
  REQUIRE_TOOL("xmllint", "libxml2-utils");
  struct Case {
    std::string label;
    std::vector<Waypoint> list;
    bool valid;
  } cases[] = {
      {"golden", GoldenList(), true},
      {"rising", {MakeWaypoint("A", -10.0, -20.0, 5, "x", 0), MakeWaypoint("B", 10.0, 20.0, 5, "y", 0)}, true},
      {"empty", {}, false},
      {"one", {MakeWaypoint("A", 46.0, 7.0, 0, "", 0)}, false},
      {"falling", {MakeWaypoint("A", 46.0, 7.0, 0, "", 0), MakeWaypoint("B", 45.0, 6.0, 0, "", 0)}, false},
      // -171.887339 is a possible longitude: only the latitude maximum matters.
      {"latitude rises", {MakeWaypoint("A", 46.0, 7.0, 0, "", 0), MakeWaypoint("B", 47.0, 6.0, 0, "", 0)}, true},
      {"longitude rises", {MakeWaypoint("A", 46.0, 7.0, 0, "", 0), MakeWaypoint("B", 45.0, 8.0, 0, "", 0)}, false},
  };
  for (const Case& c : cases) {
    test::SetOutputName(dir_.File(c.label));
    test::UseWaypoints(c.list);
    ASSERT_EQ(Run(SaveGpxWaypoints), "File " + dir_.File(c.label + ".gpx") + " written\n");
    const std::string file = dir_.File(c.label + ".gpx");
    XmlVerdict formed = XmlLint(file, false);
    EXPECT_EQ(formed.status, 0) << c.label << ": " << formed.output;
    XmlVerdict valid = XmlLint(file, true);
    if (c.valid) {
      EXPECT_EQ(valid.status, 0) << c.label << ": " << valid.output;
    } else {
      EXPECT_NE(valid.status, 0) << c.label;
      EXPECT_NE(valid.output.find("'-171.887339'"), std::string::npos) << c.label << ": " << valid.output;
    }
  }
}

TEST_F(WaypointWriters, KmlIsWellFormedWithAndWithoutWaypoints) {
  REQUIRE_TOOL("xmllint", "libxml2-utils");
  for (const std::vector<Waypoint>& list : {GoldenList(), std::vector<Waypoint>{}}) {
    test::UseWaypoints(list);
    test::SetOutputName(dir_.File("k" + std::to_string(list.size())));
    const std::string file = dir_.File("k" + std::to_string(list.size()) + ".kml");
    ASSERT_EQ(Run(SaveKmlWaypoints), "File " + file + " written\n");
    XmlVerdict formed = XmlLint(file, false);
    EXPECT_EQ(formed.status, 0) << formed.output;
  }
}

// GPSBabel's unicsv rendering of a waypoint file: one map per waypoint.
std::vector<std::map<std::string, std::string>> ReadWithGpsBabel(const std::string& format, const std::string& file) {
  std::string output;
  const int status =
      test::RunTool("gpsbabel -i " + format + " -f " + test::ShellQuote(file) + " -o unicsv -F -", &output);
  EXPECT_EQ(status, 0) << output;
  std::vector<std::map<std::string, std::string>> rows;
  std::istringstream lines(output);
  std::string line;
  std::vector<std::string> header;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (char ch : line) {
      if (ch == '"') {
        quoted = !quoted;
      } else if (ch == ',' && !quoted) {
        fields.emplace_back();
      } else {
        fields.back() += ch;
      }
    }
    if (header.empty()) {
      header = fields;
      continue;
    }
    std::map<std::string, std::string> row;
    for (size_t i = 0; i < header.size() && i < fields.size(); ++i) row[header[i]] = fields[i];
    rows.push_back(row);
  }
  return rows;
}

TEST_F(WaypointWriters, GpsBabelReadsOurOziAndGpxFilesBackToTheSameWaypoints) {
  REQUIRE_TOOL("gpsbabel", "gpsbabel");
  const std::vector<Waypoint> list = {
      MakeWaypoint("TOP01", 46.504306, 7.258389, 1250, "Launch west", test::GpsTime(2023, 3, 15, 12, 30, 0)),
      MakeWaypoint("LDG-2", -33.918861, -70.5, 12, "Landing", 0),
      MakeWaypoint("Z9", 0.000001, -179.999999, 4321, "", 86400),
      MakeWaypoint("north", 89.5, 179.25, 0, "Ice", 1),
  };
  test::UseWaypoints(list);
  test::SetOutputName(dir_.File("babel"));
  Run(SaveOziWaypoints);
  Run(SaveGpxWaypoints);
  struct Case {
    const char* format;
    const char* file;
    double altitudeTolerance;  // the Ozi file holds whole feet
  } cases[] = {{"ozi", "babel.wpt", 0.5 * 0.3048 + 1e-6}, {"gpx", "babel.gpx", 1e-6}};
  for (const Case& c : cases) {
    auto rows = ReadWithGpsBabel(c.format, dir_.File(c.file));
    ASSERT_EQ(rows.size(), list.size()) << c.format;
    for (size_t i = 0; i < list.size(); ++i) {
      EXPECT_EQ(rows[i]["Name"], list[i].szId) << c.format;
      EXPECT_NEAR(std::stod(rows[i]["Latitude"]), test::LatitudeOf(list[i]), 1e-6) << c.format << " " << i;
      EXPECT_NEAR(std::stod(rows[i]["Longitude"]), test::LongitudeOf(list[i]), 1e-6) << c.format << " " << i;
      // unicsv prints one decimal; GPSBabel reads the exact value.
      EXPECT_NEAR(std::stod(rows[i]["Altitude"]), list[i].lAltitude, c.altitudeTolerance + 0.05)
          << c.format << " " << i;
    }
  }
}

TEST_F(WaypointWriters, SkipLeavesAnExistingFileAloneAfterBuildingTheText) {
  test::UseWaypoints(GoldenList());
  test::SetOutputName(dir_.File("kept"));
  tGps.bSkipExisting = 1;
  for (int32_t (*writer)() : {SaveOziWaypoints, SaveGpxWaypoints, SaveKmlWaypoints}) {
    int32_t result = 0;
    // The first run writes; the second finds the file and keeps it.
    std::string first = Run(writer, &result);
    ASSERT_EQ(result, 0) << first;
    const std::string name = first.substr(5, first.size() - 5 - std::string(" written\n").size());
    dir_.Write(std::filesystem::path(name).filename().string(), "mine");
    EXPECT_EQ(Run(writer, &result), "File " + name + " already exists\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(test::ReadFile(name), "mine");
  }
  // Without --skip the same file is replaced.
  tGps.bSkipExisting = 0;
  EXPECT_EQ(Run(SaveOziWaypoints), "File " + dir_.File("kept.wpt") + " written\n");
  EXPECT_EQ(test::ReadFile(dir_.File("kept.wpt")), test::ReadFile(kData + "/waypoints/golden.wpt"));
}

TEST_F(WaypointWriters, UnwritableOrTooLongNamesWriteNothing) {
  test::UseWaypoints(GoldenList());
  dir_.Write("plain", "a file, not a folder");
  struct Case {
    std::string output;
    std::string message;
  } cases[] = {
      {dir_.File("missing/points"), "Couldn't open file " + dir_.File("missing/points") + ".gpx for writing\n"},
      {dir_.File("plain/points"), "Couldn't open file " + dir_.File("plain/points") + ".gpx for writing\n"},
      {dir_.File(std::string(256, 'x')), "File name too long\n"},
  };
  for (const Case& c : cases) {
    test::SetOutputName(c.output);
    int32_t result = 0;
    EXPECT_EQ(Run(SaveGpxWaypoints, &result), c.message);
    EXPECT_EQ(result, -1);
  }
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
    left.push_back(entry.path().filename().string());
  }
  EXPECT_EQ(left, std::vector<std::string>{"plain"});
  EXPECT_EQ(test::ReadFile(dir_.File("plain")), "a file, not a folder");
}

// Lowers the file size limit of this process, so that writes stop part-way.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
    rlimit lowered = saved_;
    lowered.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &lowered);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, previousHandler_);
  }

 private:
  rlimit saved_{};
  void (*previousHandler_)(int);
};

TEST_F(WaypointWriters, AWriteThatStopsPartWayLeavesNoFile) {
  std::vector<Waypoint> list;
  for (int i = 0; i < 200; ++i) list.push_back(MakeWaypoint("W" + std::to_string(i), 45.0, 6.0, i, "c", 0));
  test::UseWaypoints(list);
  test::SetOutputName(dir_.File("cut"));
  struct Case {
    int32_t (*writer)();
    const char* extension;
  } cases[] = {{SaveOziWaypoints, ".wpt"}, {SaveGpxWaypoints, ".gpx"}, {SaveKmlWaypoints, ".kml"}};
  for (const Case& c : cases) {
    std::string out;
    int32_t result = 0;
    {
      FileSizeLimit limit(4096);
      out = Run(c.writer, &result);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(out, "Error writing to " + dir_.File("cut") + c.extension + "\n");
  }
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

}  // namespace
