// Brauniger/Flytec transfers against the simulated instrument, in-process
// (checking what lands in the run parameters) and through the command line.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/time.h"
#include "driver/families.h"
#include "external_tools.h"
#include "geo/conv.h"
#include "kml_support.h"
#include "saved_support.h"
#include "link/com.h"
#include "serial/galileo.h"
#include "sim_support.h"

namespace {

using test::Flight;
using test::FlytecRig;
using test::ProgressText;

constexpr double kDegree = 3.14159265358979323846 / 180.0;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

// The B records of IGC text that end in a line feed.
size_t FixCount(const std::string& igc) {
  size_t fixes = 0;
  for (const std::string& line : Lines(igc.substr(0, igc.rfind('\n') + 1))) fixes += line.starts_with("B") ? 1 : 0;
  return fixes;
}

// The counts at which a download's progress shows: after a line that leaves
// the number of fixes at a multiple of 100.
std::vector<int> ProgressUpdates(const std::string& igc) {
  std::vector<int> updates;
  int fixes = 0;
  for (const std::string& line : Lines(igc)) {
    if (line.empty()) continue;
    if (line[0] == 'B') ++fixes;
    if (fixes > 0 && fixes % 100 == 0) updates.push_back(fixes);
  }
  return updates;
}

uint32_t GpsDate(uint32_t year, uint32_t month, uint32_t day) {
  SystemTime st{year, month, day, 0, 0, 0};
  return ConvertSystemTimeToGpsTime(&st);
}

std::string Opened(const std::string& port) { return "Opened port " + port + "\nStarting COM thread\n"; }

TEST(GalileoDownload, ARealFlightArrivesByteForByteAndEveryFixIsDecoded) {
  test::FreshRunParameters();
  const std::string igc = Flight("pg-brauniger-compeo-task.igc");
  FlytecRig rig({.flights = {igc}});
  rig.Connect();
  tGps.dwCommand = kCommandDownloadTrack;
  tGps.nFlightNumber = 1;
  tGps.szPilotName[0] = 1;  // take the name from the instrument
  SystemTime now;
  GetDownloadTime(&now);
  uint32_t before = ConvertSystemTimeToGpsTime(&now);

  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadGalileoTrackLog);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  ASSERT_EQ(result, 0) << out;
  EXPECT_EQ(out, Opened(tGps.szComPort) + "Product: COMPEO+, SN00565, SW3.25\nTrack list:\n" +
                     "1   05.09.08   10:56:40   03:17:16\n" + ProgressText("Points: ", ProgressUpdates(igc), 3914) +
                     "Exiting COM thread\n");
  EXPECT_EQ(rig.Commands(), (std::vector<std::string>{"$PBRSNP,*21", "$PBRTL,*74", "$PBRTR,00*6A"}));
  ASSERT_EQ(std::string(reinterpret_cast<char*>(tGps.pbRawLog), static_cast<size_t>(tGps.nRawLogLength)), igc);
  EXPECT_STREQ(tGps.szProduct, "COMPEO+, SN00565, SW3.25");
  EXPECT_STREQ(tGps.szPilotName, "CARAVITIS ALEX");
  EXPECT_EQ(tGps.bSignature, 1);
  EXPECT_EQ(tGps.bUtc, 1);
  EXPECT_EQ(tGps.bPressureAltitude, 1);
  EXPECT_GE(tGps.dwDownloadTime, before);
  EXPECT_LE(tGps.dwDownloadTime, before + 60);

  // Every fix against a reading of its own.
  ASSERT_EQ(tGps.nTrackPoints, 3914);
  uint32_t date = GpsDate(2008, 9, 5);
  int i = 0;
  for (const std::string& line : Lines(igc)) {
    if (line.empty() || line[0] != 'B') continue;
    int h, m, s, latD, latM, latT, lonD, lonM, lonT, pressure, gnss;
    char ns, ew;
    ASSERT_EQ(std::sscanf(line.c_str(), "B%2d%2d%2d%2d%2d%3d%c%3d%2d%3d%c%*c%5d%5d", &h, &m, &s, &latD, &latM, &latT,
                          &ns, &lonD, &lonM, &lonT, &ew, &pressure, &gnss),
              13);
    double lat = (latD + (latM + latT / 1000.0) / 60.0) * kDegree * (ns == 'S' ? -1 : 1);
    double lon = (lonD + (lonM + lonT / 1000.0) / 60.0) * kDegree * (ew == 'W' ? -1 : 1);
    int32_t latArc = 0, lonArc = 0;
    ConvertGeoToArcPos(lat, lon, &latArc, &lonArc);
    const TrackPoint& p = tGps.pTrackPoints[i];
    ASSERT_EQ(p.dwTime, date + static_cast<uint32_t>(h * 3600 + m * 60 + s)) << line;
    ASSERT_NEAR(p.lLatitude, latArc, 1) << line;
    ASSERT_NEAR(p.lLongitude, lonArc, 1) << line;
    ASSERT_EQ(p.lGpsAltitude, gnss * 10) << line;
    ASSERT_EQ(p.lPressureAltitude, pressure) << line;
    ASSERT_EQ(p.dwFlags, i == 0 ? 1u : 0u) << line;
    ++i;
  }
  EXPECT_EQ(tGps.dwFirstPointTime, date + 10 * 3600 + 56 * 60 + 40);
}

std::vector<std::string> gSavedLogs;
std::vector<int32_t> gSavedFixes;
std::vector<int32_t> gSavedSignatures;

int32_t KeepTrack() {
  gSavedLogs.emplace_back(reinterpret_cast<char*>(tGps.pbRawLog), static_cast<size_t>(tGps.nRawLogLength));
  gSavedFixes.push_back(tGps.nTrackPoints);
  gSavedSignatures.push_back(tGps.bSignature);
  return 0;
}

TEST(GalileoDownload, TheBulkWalkHandsOverEveryListedFlightAsItCame) {
  test::FreshRunParameters();
  const std::vector<std::string> flights = {Flight("pg-iqbasic-8s.igc"), Flight("pg-minimal-header-20s.igc"),
                                            Flight("pg-skytraxx-13min.igc")};
  FlytecRig rig({.model = "6030", .firmware = "1.00", .flights = flights});
  rig.Connect();
  tGps.dwCommand = kCommandDownloadAllTracks;
  gSavedLogs.clear();
  gSavedFixes.clear();
  gSavedSignatures.clear();

  testing::internal::CaptureStdout();
  galileo::GalileoTransfer transfer;
  galileo::ResetTransfer(&transfer);
  ASSERT_EQ(OpenComPort(GetComSpeedForType(tGps.dwGpsType)), 0);
  int32_t result = galileo::ReadProductData(&transfer);
  if (result == 0) result = galileo::ReadTrackList(&transfer);
  if (result == 0) result = galileo::ReadAllTrackLogs(&transfer, KeepTrack);
  CloseComPort();
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  ASSERT_EQ(result, 0) << out;
  EXPECT_EQ(gSavedLogs, flights);
  EXPECT_EQ(gSavedFixes, (std::vector<int32_t>{194, 1699, 221}));
  EXPECT_EQ(gSavedSignatures, (std::vector<int32_t>{1, 0, 1})) << "the flight without G records";
  EXPECT_EQ(tGps.pbRawLog, nullptr);
  EXPECT_EQ(tGps.nTrackPoints, 0);
  EXPECT_EQ(rig.Commands(), (std::vector<std::string>{"$PBRSNP,*21", "$PBRTL,*74", "$PBRTR,00*6A", "$PBRTR,01*6B",
                                                      "$PBRTR,02*68"}));
  std::string expected = Opened(tGps.szComPort) + "Product: 6030, SN00565, SW1.00\nTrack list:\n" +
                         "1   04.10.23   14:30:07   00:27:05\n2   31.05.03   07:47:16   09:26:00\n" +
                         "3   06.03.21   10:34:11   00:03:40\n";
  for (int n = 0; n < 3; ++n) {
    expected += "Reading track " + std::to_string(n + 1) + "\n" +
                ProgressText("Points: ", ProgressUpdates(flights[n]), gSavedFixes[n]);
    if (n == 1) expected += "No G-records found\n";
  }
  EXPECT_EQ(out, expected + "Exiting COM thread\n");
}

std::vector<sim::SimWaypoint> SomeWaypoints() {
  std::vector<sim::SimWaypoint> list = {
      {"TOP01", "Launch west", 46.504167, 7.258333, 1250},
      {"", "", -33.5, -70.25, 0},
      {"ab cd", "low  Meadow", 0.5, -0.5, -12},
      {"", "peak three", 45.0, 6.0, 3003},
  };
  for (int i = 0; i < 7; ++i) {
    list.push_back({"WP" + std::to_string(i), "point " + std::to_string(i), 46.0 + i / 100.0, 8.0, 500 + i});
  }
  return list;
}

TEST(GalileoWaypoints, DownloadFillsTheWaypointList) {
  test::FreshRunParameters();
  const std::vector<sim::SimWaypoint> stored = SomeWaypoints();
  FlytecRig rig({.waypoints = stored});
  rig.Connect();
  tGps.dwCommand = kCommandDownloadWaypoints;

  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadGalileoWaypoints);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  ASSERT_EQ(result, 0) << out;
  EXPECT_EQ(out, Opened(tGps.szComPort) + "Product: COMPEO+, SN00565, SW3.25\n" +
                     ProgressText("Waypoints: ", {10}, 11) + "Exiting COM thread\n");
  EXPECT_EQ(rig.Commands(), (std::vector<std::string>{"$PBRSNP,*21", "$PBRWPS,*38"}));
  ASSERT_EQ(tGps.nWaypoints, 11);
  const char* ids[] = {"TOP01", "Z", "AB", "PEAK"};
  const char* comments[] = {"LAUNCH WEST", "", "LOW MEADOW", "PEAK THREE"};
  for (int i = 0; i < tGps.nWaypoints; ++i) {
    const Waypoint& w = tGps.pWaypoints[i];
    const sim::SimWaypoint& s = stored[static_cast<size_t>(i)];
    EXPECT_STREQ(w.szId, i < 4 ? ids[i] : ("WP" + std::to_string(i - 4)).c_str());
    EXPECT_STREQ(w.szComment, i < 4 ? comments[i] : ("POINT " + std::to_string(i - 4)).c_str());
    EXPECT_EQ(w.lAltitude, s.altitude);
    // The instrument sends thousandths of a minute.
    int32_t lat = 0, lon = 0;
    ConvertGeoToArcPos(std::round(s.latitude * 60000) / 60000 * kDegree,
                       std::round(s.longitude * 60000) / 60000 * kDegree, &lat, &lon);
    EXPECT_NEAR(w.lLatitude, lat, 2) << i;
    EXPECT_NEAR(w.lLongitude, lon, 2) << i;
  }
}

TEST(GalileoWaypoints, UploadSendsOneSentenceEvery300Milliseconds) {
  test::FreshRunParameters();
  FlytecRig rig({});
  rig.Connect();
  tGps.dwCommand = kCommandUploadWaypoints;
  struct Source {
    double latitude, longitude;
    int32_t altitude;
    const char* comment;
  } sources[] = {
      {46 + 30.25 / 60, 7 + 15.5 / 60, 12000, "Launch west"},
      {-(34 + 12.345 / 60), -(121 + 59.999 / 60), -5, "Twenty characters!!!"},
      {0.5, 0.25, 731, "abc"},
  };
  for (const Source& s : sources) {
    Waypoint w{};
    ConvertGeoToArcPos(s.latitude * kDegree, s.longitude * kDegree, &w.lLatitude, &w.lLongitude);
    w.lAltitude = s.altitude;
    std::snprintf(w.szComment, sizeof w.szComment, "%s", s.comment);
    ASSERT_EQ(AppendWaypoint(w), 0);
  }

  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(UploadGalileoWaypoints);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  ASSERT_EQ(result, 0);
  EXPECT_EQ(out, Opened(tGps.szComPort) + "Product: COMPEO+, SN00565, SW3.25\n" +
                     ProgressText("Waypoints: ", {1, 2, 3}, 3) + "Exiting COM thread\n");
  const auto& commands = rig.instrument().commands();
  ASSERT_EQ(commands.size(), 4u);
  EXPECT_EQ(commands[1].text, "$PBRWPR,4630.250,N,00715.500,E,,Launch west      ,9999*0A");
  EXPECT_EQ(commands[2].text, "$PBRWPR,3412.345,S,12159.999,W,,Twenty characters,0000*03");
  EXPECT_EQ(commands[3].text, "$PBRWPR,0030.000,N,00015.000,E,,abc              ,0731*60");
  for (size_t i = 2; i < commands.size(); ++i) {
    EXPECT_GE(commands[i].micros - commands[i - 1].micros, 200000u) << "spacing before sentence " << i;
  }
  // The instrument took every sentence (it checks their checksums).
  ASSERT_EQ(rig.instrument().waypoints().size(), 3u);
  EXPECT_EQ(rig.instrument().waypoints()[1].name, "Twenty characters");
  EXPECT_NEAR(rig.instrument().waypoints()[1].longitude, -(121 + 59.999 / 60), 1e-9);
}

// Through the command line: each scenario runs its own instrument; all run
// at once so that the silence limits are waited out together.
class GalileoCommandLine : public testing::Test {
 protected:
  void SetUp() override {
    std::string problem = test::PortLinkProblem();
    if (!problem.empty()) GTEST_SKIP() << "cannot link /dev/cu.<name> to a simulator here: " << problem;
  }
};

// What saving prints and leaves for this instrument's raw text.
std::string Saving(const std::string& base, size_t bytes, bool signature) {
  return test::SavedOutput(base, bytes, signature);
}

void ExpectSavedFlight(const test::Scenario& s, const std::string& base, const std::string& igc, size_t points,
                       bool signature, const std::string& product = "COMPEO+, SN00565, SW3.25") {
  test::ExpectSavedFlight(s, base, igc, points, signature, product);
}

TEST_F(GalileoCommandLine, DownloadsSelectionsListsAndWaypoints) {
  REQUIRE_TOOL("xmllint", "libxml2-utils");
  const std::string iq = Flight("pg-iqbasic-8s.igc"), sky = Flight("pg-skytraxx-13min.igc");
  const std::string list = "Track list:\n1   04.10.23   14:30:07   00:27:05\n2   06.03.21   10:34:11   00:03:40\n";
  const std::string product = "Product: COMPEO+, SN00565, SW3.25\n";
  const std::string iqPoints = ProgressText("Points: ", ProgressUpdates(iq), 194);
  const std::string skyPoints = ProgressText("Points: ", {100, 200}, 221);
  std::vector<test::Scenario> runs = {
      {.label = "-f2", .settings = {.flights = {iq, sky}}, .args = {"-f2", "-l"}},
      {.label = "typed", .settings = {.flights = {iq, sky}}, .args = {"-l"}, .input = "2\n"},
      {.label = "old firmware", .settings = {.model = "COMPEO", .firmware = "2.19", .flights = {iq, sky}},
       .args = {"-f2", "-l"}},
      {.label = "list only", .settings = {.model = "COMPEO", .firmware = "2.20", .flights = {iq, sky}},
       .args = {"-f0", "-l"}},
      {.label = "all", .settings = {.flights = {iq, sky}}, .args = {"-L"}},
      {.label = "waypoints", .settings = {.waypoints = SomeWaypoints()}, .args = {"-w"}},
      {.label = "empty list", .settings = {.model = "GALILEO", .firmware = "3.0"}, .args = {"-f1", "-l"}},
  };
  test::RunScenarios(&runs);

  // A single download is saved after the port is closed, each flight of an
  // all-tracks download as soon as it is in.
  const std::string iqBase = "2023-10-04_14-30", skyBase = "2021-03-06_10-34";
  const std::string savedIq = Saving(iqBase, iq.size(), true), savedSky = Saving(skyBase, sky.size(), true);
  struct Expected {
    std::string out;
    std::vector<std::string> commands;
    std::string after;  // printed after the port was closed
  } expected[] = {
      {product + list + skyPoints, {"$PBRSNP,*21", "$PBRTL,*74", "$PBRTR,01*6B"}, savedSky},
      {product + list + "Select: " + skyPoints, {"$PBRSNP,*21", "$PBRTL,*74", "$PBRTR,01*6B"}, savedSky},
      {"Product: COMPEO, SN00565, SW2.19\n" + iqPoints, {"$PBRSNP,*21", "$PBRIGC,*21"}, savedIq},
      {"Product: COMPEO, SN00565, SW2.20\n" + list, {"$PBRSNP,*21", "$PBRTL,*74"}, ""},
      {product + list + "Reading track 1\n" + iqPoints + savedIq + "Reading track 2\n" + skyPoints + savedSky,
       {"$PBRSNP,*21", "$PBRTL,*74", "$PBRTR,00*6A", "$PBRTR,01*6B"}, ""},
      {product + ProgressText("Waypoints: ", {10}, 11), {"$PBRSNP,*21", "$PBRWPS,*38"}, ""},
      {"Product: GALILEO, SN00565, SW3.0\nTrack list:\nNo list found. Selecting latest flight\nPoints: 0\b0\n",
       {"$PBRSNP,*21", "$PBRTL,*74", "$PBRTR,00*6A"}, ""},
  };
  for (size_t i = 0; i < runs.size(); ++i) {
    const test::Scenario& s = runs[i];
    EXPECT_EQ(s.result.status, 0) << s.label;
    if (s.label == "waypoints") {
      // Their files are the waypoint writers' business.
      EXPECT_TRUE(s.result.out.starts_with("Opened port /dev/cu." + s.port + "\nStarting COM thread\n" +
                                           expected[i].out + "Exiting COM thread\n"))
          << s.result.out;
    } else {
      EXPECT_EQ(s.result.out, "Opened port /dev/cu." + s.port + "\nStarting COM thread\n" + expected[i].out +
                                  "Exiting COM thread\n" + expected[i].after)
          << s.label;
    }
    EXPECT_EQ(s.commands, expected[i].commands) << s.label;
  }
  for (size_t i : {0, 1}) {
    EXPECT_EQ(runs[i].files.size(), 2u) << runs[i].label;
    ExpectSavedFlight(runs[i], skyBase, sky, 221, true);
  }
  EXPECT_EQ(runs[2].files.size(), 2u);
  ExpectSavedFlight(runs[2], iqBase, iq, 194, true, "COMPEO, SN00565, SW2.19");
  EXPECT_TRUE(runs[3].files.empty());
  EXPECT_EQ(runs[4].files.size(), 4u);
  ExpectSavedFlight(runs[4], iqBase, iq, 194, true);
  ExpectSavedFlight(runs[4], skyBase, sky, 221, true);
  EXPECT_TRUE(runs[6].files.empty());
}

TEST_F(GalileoCommandLine, FaultsEndTheTransferWithTheirMessage) {
  REQUIRE_TOOL("xmllint", "libxml2-utils");
  const std::string iq = Flight("pg-iqbasic-8s.igc");
  // The flight answers the third command; the cut and the pause fall into
  // the 43rd fix.
  size_t fix43 = 0;
  for (int n = 0; n < 43; ++n) fix43 = iq.find("\nB", fix43) + 1;
  const size_t cut = fix43 + 10;
  std::vector<test::Scenario> runs = {
      // This serial number makes the product checksum 1E: sent as "1e".
      {.label = "lower-case checksum", .settings = {.serial = "SX", .flights = {iq}, .faults = {"lower-case-checksum"}},
       .args = {"-f1", "-l"}},
      {.label = "no pilot", .settings = {.pilot = "  ", .flights = {iq}}, .args = {"-f1", "-l"}},
      {.label = "mute", .settings = {.flights = {iq}, .faults = {"mute"}}, .args = {"-f1", "-l"}},
      {.label = "bad record", .settings = {.flights = {iq}, .faults = {"bad-record-type"}}, .args = {"-f1", "-l"}},
      {.label = "long line", .settings = {.flights = {iq}, .faults = {"long-line"}}, .args = {"-f1", "-l"}},
      {.label = "no A record", .settings = {.flights = {iq}, .faults = {"no-a-record"}}, .args = {"-f1", "-l"}},
      {.label = "long date form", .settings = {.flights = {Flight("hg-fai5-xctrack-10min.igc")}},
       .args = {"-f1", "-l"}},
      {.label = "cut", .settings = {.flights = {iq}}, .faults = {{sim::FaultKind::kCut, 3, int64_t(cut)}},
       .args = {"-f1", "-l"}},
      {.label = "pause", .settings = {.flights = {iq}}, .faults = {{sim::FaultKind::kPause, 3, int64_t(cut), 2600}},
       .args = {"-f1", "-l"}},
  };
  test::RunScenarios(&runs);

  const std::string product = "Product: COMPEO+, SN00565, SW3.25\n";
  const std::string list = "Track list:\n1   04.10.23   14:30:07   00:27:05\n";
  // The G records come last: a shortened flight has none. What came is
  // saved as it came, unsigned.
  const std::string partial = product + list + ProgressText("Points: ", {}, 42) + "No G-records found\n" +
                              "Exiting COM thread\n" + Saving("2023-10-04_14-30", 2509, false);
  const std::string expected[] = {
      "Product: Format error 13\n",
      "Product: Bad/missing user name\n",
      "Product: Timeout\n",
      product + list + "Points: 0 Bad record type x (78)\n",
      product + list + "Points: 0 Too long log sentence\n",
      product + list + ProgressText("Points: ", ProgressUpdates(iq), 194) + "Bad or missing A-record\n",
      product + "Track list:\n1   04.09.20   16:27:53   00:09:42\nPoints: 0 Format error 1\n",
      partial,
      partial,
  };
  for (size_t i = 0; i < runs.size(); ++i) {
    const test::Scenario& s = runs[i];
    std::string out = "Opened port /dev/cu." + s.port + "\nStarting COM thread\n" + expected[i];
    if (expected[i] != partial) out += "Exiting COM thread\n";
    EXPECT_EQ(s.result.out, out) << s.label;
    EXPECT_EQ(s.result.status, 0) << s.label;
    if (expected[i] == partial) {
      ExpectSavedFlight(s, "2023-10-04_14-30", iq.substr(0, 2509), 42, false);
      EXPECT_EQ(s.files.size(), 2u) << s.label;
    } else {
      EXPECT_TRUE(s.files.empty()) << s.label;
    }
  }
}

// A corrupted byte anywhere in the conversation ends it with a message or
// a shorter flight, never with a crash or an open port.
TEST_F(GalileoCommandLine, ACorruptByteAnywhereLeavesTheProgramInCharge) {
  REQUIRE_TOOL("xmllint", "libxml2-utils");
  const std::string iq = Flight("pg-iqbasic-8s.igc");
  std::vector<test::Scenario> runs;
  const std::pair<int, int64_t> flips[] = {{1, 0},  {1, 3},   {1, 9},   {1, 20},   {1, 36},   {1, 39},
                                           {2, 0},  {2, 8},   {2, 30},  {2, 45},   {3, 0},    {3, 1},
                                           {3, 15}, {3, 400}, {3, 700}, {3, 5000}, {3, 10000}};
  for (const auto& [reply, offset] : flips) {
    runs.push_back({.label = std::to_string(reply) + ":" + std::to_string(offset),
                    .settings = {.flights = {iq}},
                    .faults = {{sim::FaultKind::kFlip, reply, offset}},
                    .args = {"-f1", "-l"}});
  }
  test::RunScenarios(&runs);
  for (const test::Scenario& s : runs) {
    SCOPED_TRACE(s.label + ": " + s.result.out);
    EXPECT_EQ(s.result.status, 0);
    // Either nothing came and nothing was written, or the flight that came
    // was saved: every file written is announced and the raw file holds
    // what the program said it got.
    const size_t closed = s.result.out.find("Exiting COM thread\n");
    ASSERT_NE(closed, std::string::npos);
    std::string after = s.result.out.substr(closed + 19);
    if (after.empty()) {
      EXPECT_TRUE(s.files.empty());
      continue;
    }
    // A corrupted fix may catch the eye of the checks first: a time going
    // back is kept (nobody answers), an impossible speed is dropped.
    const size_t saving = after.find("Raw igc log downloaded");
    ASSERT_NE(saving, std::string::npos);
    const std::string checks = after.substr(0, saving);
    after = after.substr(saving);
    int removed = 0;
    const size_t dropped = checks.find(" positions have been removed in speed analysis\n");
    if (dropped != std::string::npos) removed = std::stoi(checks.substr(checks.rfind('\n', dropped) + 1));
    unsigned long bytes = 0;
    char base[64] = "";
    ASSERT_EQ(std::sscanf(after.c_str(), "Raw igc log downloaded (%lu bytes)\nFile %63[^.].igc written\n", &bytes,
                          base),
              2);
    EXPECT_EQ(s.files.size(), 2u);
    ASSERT_TRUE(s.contents.contains(std::string(base) + ".igc"));
    EXPECT_EQ(s.contents.at(std::string(base) + ".igc").size(), bytes);
    const bool signature = after.ends_with("signature OK\n");
    EXPECT_EQ(after, Saving(base, bytes, signature));
    const std::string& raw = s.contents.at(std::string(base) + ".igc");
    ExpectSavedFlight(s, base, raw, FixCount(raw) - static_cast<size_t>(removed), signature);
  }
}

TEST(GalileoCommandLineNoPort, AMissingPortIsReportedUnlessSilent) {
  test::TempDir dir;
  test::RunResult r = test::RunKestrix({"-gc", "-cu.kestrix-none", "-f1", "-l"}, dir.path());
  EXPECT_EQ(r.out, "Could not open COM port /dev/cu.kestrix-none\n");
  r = test::RunKestrix({"-gc", "-cu.kestrix-none", "-w", "--silent"}, dir.path());
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.status, 0);
}

}  // namespace
