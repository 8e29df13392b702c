// Waypoint files: the writers' exact bytes, the GPX bounds rule and what
// independent tools (xmllint with the GPX schema, GPSBabel) make of our
// files and theirs; reading whole files and every way a write fails.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "external_tools.h"
#include "kml_support.h"
#include "output/file.h"
#include "support.h"
#include "waypoint_support.h"

namespace {

using test::MakeWaypoint;

std::vector<Waypoint> GoldenList() {
  return {MakeWaypoint("LDG-2", 46.45, 7.1, -10, "", 0),
          MakeWaypoint("TOP01", 46.504306, 7.258389, 1250, "Launch west", test::GpsTime(2023, 3, 15, 12, 30, 0)),
          MakeWaypoint("S", -33.918861, -70.5, 0, "Forty characters of comment text exactly", 1)};
}

using Writer = int32_t (*)();
const std::pair<Writer, std::string> kWriters[] = {
    {SaveOziWaypoints, ".wpt"}, {SaveGpxWaypoints, ".gpx"}, {SaveKmlWaypoints, ".kml"}};

class WaypointFiles : public testing::Test {
 protected:
  void SetUp() override { test::FreshRunParameters(); }
  void TearDown() override { test::FreshRunParameters(); }

  // Writes `list` under `name` with `writer`; gives what it printed.
  std::string Write(Writer writer, const std::vector<Waypoint>& list, const std::string& name, int32_t* result = nullptr) {
    test::UseWaypoints(list);
    test::SetOutputName(dir_.File(name));
    testing::internal::CaptureStdout();
    const int32_t r = writer();
    if (result != nullptr) *result = r;
    return testing::internal::GetCapturedStdout();
  }
  std::string Read(const std::string& name, int32_t* result) {
    test::SetOutputName(name);
    testing::internal::CaptureStdout();
    *result = ReadWaypointFile();
    return testing::internal::GetCapturedStdout();
  }

  test::ClockFixture clock_;
  test::TempDir dir_;
};

TEST_F(WaypointFiles, WritersMakeTheGoldenFilesAndSkipKeepsWhatIsThere) {
  for (const auto& [writer, extension] : kWriters) {
    int32_t result = -1;
    EXPECT_EQ(Write(writer, GoldenList(), "points", &result), "File " + dir_.File("points" + extension) + " written\n");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(test::ReadFile(dir_.File("points" + extension)), test::ReadFile(test::DataFile("waypoints/golden" + extension)));
    dir_.Write("points" + extension, "mine");
    tGps.bSkipExisting = 1;
    EXPECT_EQ(Write(writer, GoldenList(), "points", &result), "File " + dir_.File("points" + extension) + " already exists\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(test::ReadFile(dir_.File("points" + extension)), "mine");
    tGps.bSkipExisting = 0;
  }
}

TEST_F(WaypointFiles, OziFeetRoundHalfAwayFromZero) {
  const std::vector<std::pair<int32_t, int32_t>> cases = {{0, 0},       {1, 3},       {2, 7},   {10, 33},
                                                          {-1, -3},     {-10, -33},   {1250, 4101}, {1000, 3281},
                                                          {-2, -7},     {8848, 29029}, {-418, -1371}};
  std::vector<Waypoint> list;
  for (const auto& [metres, feet] : cases) list.push_back(MakeWaypoint("A", 1.0, 2.0, metres, "", 0));
  Write(SaveOziWaypoints, list, "feet");
  std::istringstream lines(test::ReadFile(dir_.File("feet.wpt")));
  std::string line;
  for (int i = 0; i < 4; ++i) std::getline(lines, line);
  for (const auto& [metres, feet] : cases) {
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(line.substr(line.rfind(", ") + 2), std::to_string(feet) + "\r") << metres;
  }
}

// The bounds start inverted and only a waypoint that leaves the minimum
// alone may raise the maximum; a schema refuses what that leaves behind.
TEST_F(WaypointFiles, GpxBoundsAndWhatTheSchemaMakesOfThem) {
  const std::string unset = "-171.887339";
  const Waypoint a = MakeWaypoint("A", 46.0, 7.0, 0, "", 0);
  struct Case {
    std::vector<Waypoint> list;
    std::string bounds;
    bool valid;
  } cases[] = {
      {{}, "minlat=\"171.887339\" minlon=\"171.887339\" maxlat=\"" + unset + "\" maxlon=\"" + unset + "\"", false},
      {{a}, "minlat=\"46.000000\" minlon=\"7.000000\" maxlat=\"" + unset + "\" maxlon=\"" + unset + "\"", false},
      {{a, MakeWaypoint("B", 45.0, 6.0, 0, "", 0)},
       "minlat=\"45.000000\" minlon=\"6.000000\" maxlat=\"" + unset + "\" maxlon=\"" + unset + "\"", false},
      {{a, MakeWaypoint("B", 47.0, 6.0, 0, "", 0)},
       "minlat=\"46.000000\" minlon=\"6.000000\" maxlat=\"47.000000\" maxlon=\"" + unset + "\"", true},
      {{a, MakeWaypoint("B", 45.0, 8.0, 0, "", 0)},
       "minlat=\"45.000000\" minlon=\"7.000000\" maxlat=\"" + unset + "\" maxlon=\"8.000000\"", false},
      {{a, MakeWaypoint("B", 45.0, 8.0, 0, "", 0), MakeWaypoint("C", 45.5, 7.5, 0, "", 0)},
       "minlat=\"45.000000\" minlon=\"7.000000\" maxlat=\"45.500000\" maxlon=\"8.000000\"", true},
      {{MakeWaypoint("A", -10.0, -20.0, 5, "x", 0), MakeWaypoint("B", 10.0, 20.0, 5, "y", 0)}, "", true},
      {GoldenList(), "", true},
  };
  const bool xmllint = test::HaveTool("xmllint");
  for (size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    const std::string name = "b" + std::to_string(i);
    EXPECT_EQ(Write(SaveGpxWaypoints, c.list, name), "File " + dir_.File(name + ".gpx") + " written\n");
    const std::string gpx = test::ReadFile(dir_.File(name + ".gpx"));
    if (!c.bounds.empty()) {
      EXPECT_NE(gpx.find("\r\n    <bounds " + c.bounds + "/>\r\n"), std::string::npos) << i;
    }
    if (!xmllint) continue;
    std::string said;
    const std::string lint = "xmllint --nonet --noout ";
    EXPECT_EQ(test::RunTool(lint + test::ShellQuote(dir_.File(name + ".gpx")), &said), 0) << said;
    const int status = test::RunTool(
        lint + "--schema " + test::ShellQuote(test::DataFile("schemas/gpx.xsd")) + " " + test::ShellQuote(dir_.File(name + ".gpx")),
        &said);
    EXPECT_EQ(status == 0, c.valid) << i << ": " << said;
    if (!c.valid) {
      EXPECT_NE(said.find("'" + unset + "'"), std::string::npos) << said;
    }
  }
  if (!xmllint) GTEST_SKIP() << "xmllint is not installed (Debian package libxml2-utils)";
  for (const std::vector<Waypoint>& list : {GoldenList(), std::vector<Waypoint>{}}) {
    Write(SaveKmlWaypoints, list, "k");
    EXPECT_EQ(test::XmlProblem(dir_.File("k.kml")), "");
  }
}

// GPSBabel's unicsv rendering of a file: one map per waypoint.
std::vector<std::map<std::string, std::string>> ReadWithGpsBabel(const std::string& format, const std::string& file) {
  std::string output;
  EXPECT_EQ(test::RunTool("gpsbabel -i " + format + " -f " + test::ShellQuote(file) + " -o unicsv -F -", &output), 0)
      << output;
  std::vector<std::map<std::string, std::string>> rows;
  std::vector<std::string> header;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.ends_with("\r")) line.pop_back();
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (char ch : line) {
      if (ch == '"') quoted = !quoted;
      else if (ch == ',' && !quoted) fields.emplace_back();
      else fields.back() += ch;
    }
    if (header.empty()) {
      header = fields;
      continue;
    }
    rows.emplace_back();
    for (size_t i = 0; i < header.size() && i < fields.size(); ++i) rows.back()[header[i]] = fields[i];
  }
  return rows;
}

TEST_F(WaypointFiles, GpsBabelReadsOurFilesAndWeReadItsOzi) {
  REQUIRE_TOOL("gpsbabel", "gpsbabel");
  const std::vector<Waypoint> list = {
      MakeWaypoint("TOP01", 46.504306, 7.258389, 1250, "Launch west", test::GpsTime(2023, 3, 15, 12, 30, 0)),
      MakeWaypoint("LDG-2", -33.918861, -70.5, 12, "Landing", 0), MakeWaypoint("Z9", 0.000001, -179.999999, 4321, "", 86400),
      MakeWaypoint("north", 89.5, 179.25, 0, "Ice", 1)};
  Write(SaveOziWaypoints, list, "babel");
  Write(SaveGpxWaypoints, list, "babel");
  for (const auto& [format, feet] : {std::pair<std::string, bool>{"ozi", true}, {"gpx", false}}) {
    auto rows = ReadWithGpsBabel(format, dir_.File("babel." + std::string(format == "ozi" ? "wpt" : "gpx")));
    ASSERT_EQ(rows.size(), list.size()) << format;
    for (size_t i = 0; i < list.size(); ++i) {
      EXPECT_EQ(rows[i]["Name"], list[i].szId) << format;
      EXPECT_NEAR(std::stod(rows[i]["Latitude"]), test::LatitudeOf(list[i]), 1e-6) << format << " " << i;
      EXPECT_NEAR(std::stod(rows[i]["Longitude"]), test::LongitudeOf(list[i]), 1e-6) << format << " " << i;
      // The Ozi file holds whole feet; unicsv prints one decimal.
      EXPECT_NEAR(std::stod(rows[i]["Altitude"]), list[i].lAltitude, (feet ? 0.1524 : 0.0) + 0.05) << format << " " << i;
    }
  }
  dir_.Write("in.csv",
             "Name,Latitude,Longitude,Altitude,Description,Date,Time\n"
             "TOP01,46.504306,7.258389,1250,Launch west,2023/03/15,12:30:00\n"
             "LDG-2,-33.918861,-70.5,12.5,Landing field,2001/01/01,00:00:00\n"
             "Z9,0.000001,-179.999999,,Far,1995/06/30,23:59:59\n"
             "n,89.5,179.25,8848,Col,2024/02/29,06:00:00\n");
  std::string output;
  ASSERT_EQ(test::RunTool("gpsbabel -i unicsv -f " + test::ShellQuote(dir_.File("in.csv")) + " -o ozi -F " +
                              test::ShellQuote(dir_.File("theirs.wpt")), &output), 0) << output;
  int32_t result = -1;
  ASSERT_EQ(Read(dir_.File("theirs.wpt"), &result), "4 waypoints found\n");
  const std::vector<Waypoint> expected = {  // altitudes through whole feet, dates to seven decimals of a day
      MakeWaypoint("TOP01", 46.504306, 7.258389, 1250, "Launch west", test::GpsTime(2023, 3, 15, 12, 30, 0)),
      MakeWaypoint("LDG-2", -33.918861, -70.5, 12, "Landing field", test::GpsTime(2001, 1, 1, 0, 0, 0)),
      MakeWaypoint("Z9", 0.000001, -179.999999, 0, "Far", test::GpsTime(1995, 6, 30, 23, 59, 59)),
      MakeWaypoint("n", 89.5, 179.25, 8848, "Col", test::GpsTime(2024, 2, 29, 6, 0, 0))};
  ASSERT_EQ(tGps.nWaypoints, 4);
  for (int i = 0; i < 4; ++i) {
    const Waypoint& w = tGps.pWaypoints[i];
    EXPECT_STREQ(w.szId, expected[i].szId);
    EXPECT_NEAR(test::LatitudeOf(w), test::LatitudeOf(expected[i]), 1e-7) << i;
    EXPECT_NEAR(test::LongitudeOf(w), test::LongitudeOf(expected[i]), 1e-7) << i;
    EXPECT_EQ(w.lAltitude, expected[i].lAltitude) << i;
    EXPECT_STREQ(w.szComment, expected[i].szComment);
    EXPECT_NEAR(static_cast<double>(w.dwTime), expected[i].dwTime, 1.0) << i;
  }
}

TEST_F(WaypointFiles, ReadingRecognisesTheFormatAndReportsFileProblemsEvenWhenSilent) {
  const std::string ozi = "OziExplorer Waypoint File Version 1.1\r\nWGS 84\r\nReserved 2\r\nReserved 3\r\n"
                          "1,A,1,2,0,0,1,3,0,65535,,0,0,0,-777,6,0,17\r\n";
  dir_.Write("points.wpt", ozi + "1,B,3,4,0,0,1,3,0,65535,,0,0,0,-777,6,0,17\r\n");
  dir_.Write("points.txt", "$FormatGEO\nA N 1.5 E 2.5 3\n");
  dir_.Write("points.geo", "$FormatGEOgraphic\r\nA N 1.5 E 2.5 3");
  dir_.Write("empty.wpt", "");
  dir_.Write("bom.wpt", "\xEF\xBB\xBF" + ozi);
  dir_.Write("lower.wpt", "oziexplorer waypoint file\r\n");
  std::string many = ozi;
  for (int i = 1; i < 250; ++i) many += "1,W" + std::to_string(i) + ",45,6,0,0,1,3,0,65535,,0,0,0," + std::to_string(i * 10) + ",6,0,17\r\n";
  dir_.Write("many.wpt", many);
  int32_t result = -1;
  EXPECT_EQ(Read(dir_.File("many.wpt"), &result), "250 waypoints found\n");  // the list grows past its first room
  EXPECT_EQ(tGps.nWaypointCapacity, 400);
  EXPECT_STREQ(tGps.pWaypoints[249].szId, "W249");
  EXPECT_EQ(tGps.pWaypoints[249].lAltitude, 759);  // 2490 ft
  for (const auto& [name, count] : {std::pair<std::string, int32_t>{"points.wpt", 2}, {"points.txt", 1}, {"points.geo", 1}}) {
    EXPECT_EQ(Read(dir_.File(name), &result), std::to_string(count) + " waypoints found\n");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(tGps.nWaypoints, count);
  }
  const std::pair<std::string, std::string> problems[] = {
      {dir_.File("missing.wpt"), "Couldn't open file for reading\n"}, {dir_.path(), "Couldn't open file for reading\n"},
      {dir_.File("empty.wpt"), "File is empty\n"}, {dir_.File("bom.wpt"), "Unrecognized waypoint file format\n"},
      {dir_.File("lower.wpt"), "Unrecognized waypoint file format\n"}};
  for (int silent : {0, 1}) {
    for (const auto& [name, message] : problems) {
      tGps.bSilent = 0;
      ASSERT_EQ(Read(dir_.File("points.geo"), &result), "1 waypoints found\n");  // a list that must not survive
      tGps.bSilent = silent;
      EXPECT_EQ(Read(name, &result), message);
      EXPECT_EQ(result, -1);
      EXPECT_EQ(tGps.nWaypoints, 0);
      EXPECT_EQ(tGps.pWaypoints, nullptr);
    }
  }
}

// Lowers this process's file size limit, so that writes stop part-way.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    rlimit lowered = saved_;
    lowered.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &lowered);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, handler_);
  }

 private:
  void (*handler_)(int);
  rlimit saved_{};
};

TEST_F(WaypointFiles, FailedWritesLeaveNothing) {
  dir_.Write("plain", "a file, not a folder");
  const std::pair<std::string, std::string> names[] = {
      {"missing/points", "Couldn't open file " + dir_.File("missing/points") + ".gpx for writing\n"},
      {"plain/points", "Couldn't open file " + dir_.File("plain/points") + ".gpx for writing\n"},
      {std::string(256, 'x'), "File name too long\n"}};
  int32_t result = 0;
  for (const auto& [name, message] : names) {
    EXPECT_EQ(Write(SaveGpxWaypoints, GoldenList(), name, &result), message);
    EXPECT_EQ(result, -1);
  }
  std::vector<Waypoint> many;
  for (int i = 0; i < 200; ++i) many.push_back(MakeWaypoint("W" + std::to_string(i), 45.0, 6.0, i, "c", 0));
  for (const auto& [writer, extension] : kWriters) {
    std::string out;
    {
      FileSizeLimit limit(4096);
      out = Write(writer, many, "cut", &result);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(out, "Error writing to " + dir_.File("cut") + extension + "\n");
  }
  EXPECT_EQ(test::FilesIn(dir_.path()), std::vector<std::string>{"plain"});
  EXPECT_EQ(test::ReadFile(dir_.File("plain")), "a file, not a folder");
}

}  // namespace
