// Flymaster transfers against the simulated instrument, in-process (checking
// what lands in the run parameters) and through the command line.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/time.h"
#include "driver/families.h"
#include "geo/conv.h"
#include "igc/igc.h"
#include "link/com.h"
#include "serial/flymaster.h"
#include "saved_support.h"
#include "sim/flymaster.h"
#include "sim_support.h"

namespace {

using test::Flight;
using test::SimRig;
namespace simfm = sim::flymaster;

constexpr double kDegree = 3.14159265358979323846 / 180.0;

std::string Opened(const std::string& port) { return "Opened port " + port + "\nStarting COM thread\n"; }

std::string WithChecksum(const std::string& sentence) {
  char tail[4];
  std::snprintf(tail, sizeof tail, "*%02X", sim::NmeaChecksum(sentence));
  return sentence + tail;
}

// The dump progress shows the raw text's length, 0 here, every 200 ms while
// bytes come in: how often depends on the machine, so those updates go.
std::string WithoutDumpUpdates(std::string out) {
  const std::string update = "\b0\b";
  for (size_t at = out.find(update); at != std::string::npos; at = out.find(update, at)) out.erase(at, 2);
  return out;
}

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

// The IGC reader's own reading of a flight: the points a download must match.
std::vector<TrackPoint> Reading(const std::string& igc) {
  test::FreshRunParameters();
  EXPECT_GT(DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(igc.data()), static_cast<int32_t>(igc.size()), nullptr,
                            0),
            0);
  std::vector<TrackPoint> points(tGps.pTrackPoints, tGps.pTrackPoints + tGps.nTrackPoints);
  test::FreshRunParameters();
  return points;
}

double KpaAltitude(double pressure) {
  return 44330.76953125 * (1.0 - std::pow(pressure / 10.0 / 1013.25, 0.19026120007038116));
}

int32_t OldAltitude(double pressure) {
  return static_cast<int32_t>((1.0 - std::pow(pressure / 10.0 / 1013.25, 0.190284)) * 44307.69 + 0.5);
}

uint32_t Now() {
  SystemTime now;
  GetDownloadTime(&now);
  return ConvertSystemTimeToGpsTime(&now);
}

std::string ListCommand(uint32_t start, const char* mode) {
  char command[48];
  flymaster::FormatTrackCommand(start, mode, command);
  std::string text = command;
  return text.substr(0, text.size() - 2);
}

// The sentences the instrument took, in order.
std::vector<std::string> Commands(const SimRig& rig) {
  std::vector<std::string> texts;
  for (const sim::flymaster::Command& c : rig.instrument<sim::flymaster::FlymasterInstrument>().commands()) {
    texts.push_back(c.text);
  }
  return texts;
}

const sim::flymaster::FlymasterInstrument& Instrument(const SimRig& rig) {
  return rig.instrument<sim::flymaster::FlymasterInstrument>();
}

// An entry point's run against the rig, with what it printed.
struct EntryRun {
  int32_t result;
  std::string out;
};

EntryRun RunEntry(SimRig* rig, int32_t (*entry)()) {
  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(entry);
  EntryRun run{result, testing::internal::GetCapturedStdout()};
  rig->Stop();
  return run;
}

// A stage run on an open port with a transfer that knows the flight's start.
struct StageRun {
  int32_t result;
  std::string out;
  std::vector<std::string> commands;
  std::string control;
};

template <typename Stage>
StageRun RunStage(SimRig* rig, int32_t gpsType, const char* serial, uint32_t start, Stage stage) {
  rig->Connect(gpsType);
  flymaster::FlymasterTransfer t;
  flymaster::ResetTransfer(&t);
  std::strcpy(t.serial, serial);
  t.trackCount = 1;
  t.trackStart[0] = start;
  testing::internal::CaptureStdout();
  EXPECT_EQ(OpenComPort(GetComSpeedForType(tGps.dwGpsType)), 0);
  int32_t result = stage(&t);
  CloseComPort();
  StageRun run{result, testing::internal::GetCapturedStdout(), {}, {}};
  rig->Stop();
  run.commands = Commands(*rig);
  run.control = Instrument(*rig).controlBytes();
  return run;
}

TEST(Flymaster2xx, ARealFlightComesBackAsTheInstrumentWroteIt) {
  test::FreshRunParameters();
  const std::string igc = Flight("pg-flymaster-b203-4h.igc");
  const std::vector<TrackPoint> expected = Reading(igc);
  SimRig rig("flymaster", {.firmware = "2.02a", .serial = "2719", .flights = {igc}, .faults = {"family=2", "hardware=45571"}});
  rig.Connect(kGpsFlymasterNew);
  tGps.dwCommand = kCommandDownloadTrack;
  tGps.nFlightNumber = 1;
  tGps.szPilotName[0] = 1;
  uint32_t before = Now();

  auto [result, out] = RunEntry(&rig, DownloadFlymasterTrackLog);
  ASSERT_EQ(result, 0) << out;
  const size_t dumpSize = simfm::BuildDump(igc, {.family = 2, .pilot = "bEn!"}).bytes.size();
  EXPECT_EQ(WithoutDumpUpdates(out), Opened(tGps.szComPort) + "Product: Flymaster GPS  SN2719  SW2.02a\n" +
                                         "Track list:\n 1   06.06.19   10:39:09   03:55:41\n" + "Bytes: 0\b" +
                                         std::to_string(dumpSize) + "\nGot 14142 points\nExiting COM thread\n");
  EXPECT_EQ(Commands(rig), (std::vector<std::string>{"$PFMSNP,*21", "$PFMDNL,LST,*72",
                                                      ListCommand(expected[0].dwTime, "4")}));
  // The text is the instrument's own file with the program's L record.
  std::string text = igc;
  const std::string after = "HFALPALTPRESSURE:ISA\r\n";
  text.insert(text.find(after) + after.size(), "LPLTKestrixLinux 1.06\r\n");
  ASSERT_EQ(std::string(reinterpret_cast<char*>(tGps.pbRawLog), static_cast<size_t>(tGps.nRawLogLength)), text);
  ASSERT_EQ(tGps.nTrackPoints, 14142);
  for (int i = 0; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    const TrackPoint& e = expected[static_cast<size_t>(i)];
    ASSERT_TRUE(p.dwTime == e.dwTime && p.lLatitude == e.lLatitude && p.lLongitude == e.lLongitude &&
                p.lGpsAltitude == e.lGpsAltitude && p.lPressureAltitude == e.lPressureAltitude &&
                p.dwFlags == e.dwFlags)
        << i;
  }
  EXPECT_EQ(tGps.dwFirstPointTime, expected[0].dwTime);
  EXPECT_STREQ(tGps.szProduct, "Flymaster GPS  SN2719  SW2.02a");
  EXPECT_STREQ(tGps.szPilotName, "bEn!");
  EXPECT_EQ(tGps.bUtc + tGps.bSignature + tGps.bPressureAltitude, 3);
  EXPECT_GE(tGps.dwDownloadTime, before);
  EXPECT_LE(tGps.dwDownloadTime, before + 120);
}

TEST(Flymaster2xx, BothFixFamiliesAndATaskMakeTheIgcText) {
  test::FreshRunParameters();
  const std::string igc = Flight("pg-brauniger-compeo-task.igc");
  const std::vector<simfm::Fix> fixes = simfm::ReadFixes(igc);
  ASSERT_EQ(fixes.size(), 3914u);
  SimRig rig("flymaster", {.firmware = "2.05", .serial = "565", .flights = {igc}});
  const simfm::Dump dump = simfm::BuildDump(igc, {.build = 5330, .pilot = "CARAVITIS ALEX"});
  StageRun run = RunStage(&rig, kGpsFlymasterNew, "565", fixes[0].time,
                          [](flymaster::FlymasterTransfer* t) { return flymaster::ReadTrackLog2xx(t, 1); });
  ASSERT_EQ(run.result, 0) << run.out;
  EXPECT_EQ(WithoutDumpUpdates(run.out), Opened(tGps.szComPort) + "Bytes: 0\b" + std::to_string(dump.bytes.size()) +
                                             "\nGot 3914 points\nExiting COM thread\n");
  EXPECT_EQ(run.commands, (std::vector<std::string>{ListCommand(fixes[0].time, "4")}));

  std::vector<std::string> lines =
      Lines(std::string(reinterpret_cast<char*>(tGps.pbRawLog), static_cast<size_t>(tGps.nRawLogLength)));
  ASSERT_EQ(lines.size(), 15u + 9u + 3914u + 1u);
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 24),
            (std::vector<std::string>{
                "AXFI000565",
                "HFDTEDATE:050908",
                "HFPLTPILOTINCHARGE:CARAVITIS ALEX",
                "HFCM2CREW2:NIL",
                "HFGTYGLIDERTYPE:NKN",
                "HFGIDGLIDERID:NKN",
                "HFDTMGPSDATUM:WGS84",
                "HFRFWFIRMWAREVERSION:2.05a",
                "HFRHWHARDWAREVERSION:1.0",
                "HFFTYFRTYPE:Flymaster,GPS,B203",
                "HFGPSRECEIVER:UBLOX,NEO8,56,50000,GPS,GLO,GAL",
                "HFPRSPRESSALTSENSOR:FREESCALE,MPXA6115A,13608",
                "HFALGALTGPS:GEO",
                "HFALPALTPRESSURE:ISA",
                "LPLTKestrixLinux 1.06",
                "C050908104640000000000004",
                "C0000000N00000000WTAKEOFF",
                "C3900205N02119848ESTARTT01071 T01071 TA",
                "C3907536N02114997ETURNW07084 W07084 HE",
                "C3907536N02114997ETURNW07084 W07084 HE",
                "C3900205N02119848ETURNT01071 T01071 TA",
                "C3912048N02115812ETURNW09092 W09092 KA",
                "C3900649N02118746EFINISHL01027 L01027 LA",
                "C0000000N00000000WLANDING",
            }));
  // Every fix against the flight's own B record.
  std::vector<std::string> original;
  for (const std::string& line : Lines(igc)) {
    if (!line.empty() && line[0] == 'B') original.push_back(line);
  }
  int families[3] = {};
  for (size_t i = 0; i < original.size(); ++i) {
    const std::string& got = lines[24 + i];
    const std::string& want = original[i];
    const simfm::StoredFix& stored = dump.fixes[i];
    ++families[stored.family];
    ASSERT_EQ(got.size(), 35u) << got;
    ASSERT_EQ(got.substr(0, 25), want.substr(0, 25)) << i;
    int32_t pressure = std::atoi(got.substr(25, 5).c_str());
    if (stored.family == 2) {
      ASSERT_EQ(got.substr(25, 5), want.substr(25, 5)) << i;
    } else {
      ASSERT_NEAR(pressure, KpaAltitude(stored.pressure), 1.0) << i;
      ASSERT_NEAR(pressure, std::atoi(want.substr(25, 5).c_str()), 2.0) << i;
    }
    ASSERT_EQ(got.substr(30, 5), want[24] == 'A' ? want.substr(30, 5) : "00000") << i;
  }
  EXPECT_GT(families[1], 1900);
  EXPECT_GT(families[2], 1900);
  std::string signature = "G";
  for (size_t i = dump.bytes.size() - 32; i < dump.bytes.size(); ++i) {
    char hex[3];
    std::snprintf(hex, sizeof hex, "%02X", static_cast<uint8_t>(dump.bytes[i]));
    signature += hex;
  }
  EXPECT_EQ(lines.back(), signature);
  EXPECT_EQ(tGps.nTrackPoints, 3914);
}

TEST(FlymasterPre202, TheDumpDecodesStraightIntoPoints) {
  test::FreshRunParameters();
  const std::string igc = Flight("pg-brauniger-compeo-task.igc");
  const std::vector<TrackPoint> expected = Reading(igc);
  const simfm::Dump dump = simfm::BuildDump(igc, {.kind = simfm::DumpKind::kPre202});
  SimRig rig("flymaster", {.firmware = "2.01", .flights = {igc}});
  uint32_t before = Now();
  StageRun run = RunStage(&rig, kGpsFlymasterNew, "1234", expected[0].dwTime,
                          [](flymaster::FlymasterTransfer* t) { return flymaster::ReadTrackLogNew(t, 1); });
  ASSERT_EQ(run.result, 0) << run.out;
  EXPECT_EQ(run.out, Opened(tGps.szComPort) + "Exiting COM thread\n");
  EXPECT_EQ(run.commands, (std::vector<std::string>{ListCommand(expected[0].dwTime, "2")}));
  ASSERT_EQ(tGps.nTrackPoints, 3914);
  EXPECT_EQ(tGps.pbRawLog, nullptr) << "no IGC text from these instruments";
  for (int i = 0; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    const TrackPoint& e = expected[static_cast<size_t>(i)];
    ASSERT_EQ(p.dwTime, e.dwTime) << i;
    ASSERT_EQ(p.dwFlags, e.dwFlags) << i;
    ASSERT_EQ(p.lLatitude, e.lLatitude) << i;
    ASSERT_NEAR(p.lLongitude, e.lLongitude, 1) << i;  // the kept half-unit loss
    ASSERT_EQ(p.lGpsAltitude, e.lGpsAltitude) << i;
    ASSERT_EQ(p.lPressureAltitude, OldAltitude(dump.fixes[static_cast<size_t>(i)].pressure)) << i;
    ASSERT_NEAR(p.lPressureAltitude, e.lPressureAltitude, 2) << i;
  }
  EXPECT_EQ(tGps.bUtc + tGps.bSignature + tGps.bPressureAltitude, 3);
  EXPECT_GE(tGps.dwDownloadTime, before);
}

TEST(FlymasterOlderModel, BlocksAreAcknowledgedOneByOne) {
  test::FreshRunParameters();
  const std::string igc = Flight("pg-skytraxx-13min.igc");
  const std::vector<TrackPoint> expected = Reading(igc);
  SimRig rig("flymaster", {.model = "B1NAV", .firmware = "1.20", .flights = {igc}, .faults = {"bad-block-checksum"}});
  rig.Connect(kGpsFlymaster);
  tGps.dwCommand = kCommandDownloadTrack;
  tGps.nFlightNumber = 1;

  auto [result, out] = RunEntry(&rig, DownloadFlymasterTrackLog);
  ASSERT_EQ(result, 0) << out;
  EXPECT_EQ(out, Opened(tGps.szComPort) + "Product: Flymaster B1NAV  SN1234  SW1.20\n" +
                     "Track list:\n 1   06.03.21   10:34:11   00:03:40\n" +
                     test::ProgressText("Points: ", {200}, 221) + "Exiting COM thread\n");
  EXPECT_EQ(Commands(rig), (std::vector<std::string>{"$PBRSNP,*21", "$PFMDNL,LST,*72",
                                                      ListCommand(expected[0].dwTime, "")}));
  const simfm::BlockTransfer blocks = simfm::BuildBlockTransfer(igc, "B1NAV", "");
  // Every block accepted; the damaged one first refused, then taken.
  std::string control(blocks.blocks.size() + 1, '\xB1');
  size_t firstTrack = 0;
  while (blocks.blocks[firstTrack].type != 0xA2) ++firstTrack;
  control[firstTrack] = '\xB2';
  EXPECT_EQ(Instrument(rig).controlBytes(), control);
  ASSERT_EQ(tGps.nTrackPoints, 221);
  for (int i = 0; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    const TrackPoint& e = expected[static_cast<size_t>(i)];
    ASSERT_EQ(p.dwTime, e.dwTime) << i;
    ASSERT_EQ(p.dwFlags, e.dwFlags) << i;
    ASSERT_EQ(p.lLatitude, e.lLatitude) << i;
    ASSERT_EQ(p.lLongitude, e.lLongitude) << i;
    ASSERT_EQ(p.lGpsAltitude, e.lGpsAltitude) << i;
    ASSERT_EQ(p.lPressureAltitude, OldAltitude(blocks.fixes[static_cast<size_t>(i)].pressure)) << i;
  }
  EXPECT_EQ(tGps.bUtc + tGps.bSignature + tGps.bPressureAltitude, 3);
}

std::vector<sim::SimWaypoint> SomeWaypoints() {
  std::vector<sim::SimWaypoint> list = {
      {"TOP01", "Launch west", 46.504167, 7.258333, 1250, 1},
      {"", "low  Meadow", -33.5, -70.25, -12, 0},
      {"X", "", 0.5, -0.5, 0, 2},
  };
  for (int i = 0; i < 8; ++i) {
    list.push_back({"", "point " + std::to_string(i), 46.0 + i / 100.0, 8.0, 500 + i, i % 2});
  }
  return list;
}

TEST(FlymasterWaypoints, DownloadFillsTheWaypointList) {
  test::FreshRunParameters();
  const std::vector<sim::SimWaypoint> stored = SomeWaypoints();
  SimRig rig("flymaster", {.firmware = "1.19", .waypoints = stored});
  rig.Connect(kGpsFlymaster);
  tGps.dwCommand = kCommandDownloadWaypoints;
  uint32_t before = Now();

  auto [result, out] = RunEntry(&rig, DownloadFlymasterWaypoints);
  ASSERT_EQ(result, 0) << out;
  EXPECT_EQ(out, Opened(tGps.szComPort) + "Product: Flymaster GPS  SN1234  SW1.19\n" +
                     test::ProgressText("Waypoints: ", {10}, 11) + "Exiting COM thread\n");
  EXPECT_EQ(Commands(rig), (std::vector<std::string>{"$PBRSNP,*21", "$PFMWPL,*3c"}));
  ASSERT_EQ(tGps.nWaypoints, 11);
  const char* ids[] = {"LAUNCH", "LOW", "X"};
  const char* comments[] = {"Launch west", "low Meadow", "X"};
  for (int i = 0; i < tGps.nWaypoints; ++i) {
    const Waypoint& w = tGps.pWaypoints[i];
    const sim::SimWaypoint& s = stored[static_cast<size_t>(i)];
    EXPECT_STREQ(w.szId, i < 3 ? ids[i] : "POINT") << i;
    EXPECT_STREQ(w.szComment, i < 3 ? comments[i] : s.name.c_str()) << i;
    // Heights are rounded by adding a half and truncating.
    EXPECT_EQ(w.lAltitude, s.altitude < 0 ? s.altitude + 1 : s.altitude) << i;
    EXPECT_EQ(w.dwReserved, s.flag == 1 ? 1u : 0u) << i;
    EXPECT_GE(w.dwTime, before) << i;
    int32_t lat = 0, lon = 0;
    ConvertGeoToArcPos(std::round(s.latitude * 1e6) / 1e6 * kDegree, std::round(s.longitude * 1e6) / 1e6 * kDegree,
                       &lat, &lon);
    EXPECT_NEAR(w.lLatitude, lat, 1) << i;
    EXPECT_NEAR(w.lLongitude, lon, 1) << i;
  }
}

TEST(FlymasterWaypoints, UploadIsAnsweredWaypointByWaypoint) {
  test::FreshRunParameters();
  SimRig rig("flymaster", {.firmware = "1.19"});  // the first that takes marks
  rig.Connect(kGpsFlymasterNew);
  tGps.dwCommand = kCommandUploadWaypoints;
  const struct {
    double lat, lon;
    int32_t altitude;
    const char* comment;
    uint32_t marker;
  } sources[] = {
      {46 + 30.25 / 60, 7 + 15.5 / 60, 1250, "Col d'Aze", 1},
      {-(34 + 12.345 / 60), -(121 + 59.999 / 60), 12000, "a_very-long name of a place", 0},
      {0.5, 0.25, -3, "", 1},
  };
  for (const auto& s : sources) {
    Waypoint w{};
    ConvertGeoToArcPos(s.lat * kDegree, s.lon * kDegree, &w.lLatitude, &w.lLongitude);
    w.lAltitude = s.altitude;
    std::snprintf(w.szComment, sizeof w.szComment, "%s", s.comment);
    w.dwReserved = s.marker;
    ASSERT_EQ(AppendWaypoint(w), 0);
  }

  auto [result, out] = RunEntry(&rig, UploadFlymasterWaypoints);
  ASSERT_EQ(result, 0) << out;
  EXPECT_EQ(out, Opened(tGps.szComPort) + "Product: Flymaster GPS  SN1234  SW1.19\nWaypoints: 0\b1\b2\b3\n" +
                     "Exiting COM thread\n");
  const auto& commands = Instrument(rig).commands();
  ASSERT_EQ(commands.size(), 4u);
  EXPECT_EQ(commands[1].text, WithChecksum("$PFMWPR,4630.250,N,00715.500,E,,Col d'Aze       ,1250,1"));
  EXPECT_EQ(commands[2].text, WithChecksum("$PFMWPR,3412.345,S,12159.999,W,,a_very-long name,9999"));
  EXPECT_EQ(commands[3].text, WithChecksum("$PFMWPR,0030.000,N,00015.000,E,,                ,0000,1"));
  for (size_t i = 2; i < commands.size(); ++i) {
    EXPECT_GE(commands[i].micros - commands[i - 1].micros, 100000u) << "spacing before sentence " << i;
  }
  const auto& uploaded = Instrument(rig).uploaded();
  ASSERT_EQ(uploaded.size(), 3u);
  EXPECT_EQ(uploaded[0].name, "Col d'Aze");
  EXPECT_EQ(uploaded[0].flag, 1);
  EXPECT_EQ(uploaded[1].flag, 0);
  EXPECT_NEAR(uploaded[1].longitude, -(121 + 59.999 / 60), 1e-9);
  EXPECT_EQ(uploaded[1].altitude, 9999);
}

// Through the command line: each scenario runs its own instrument; all run
// at once so that the silence limits are waited out together.
class FlymasterCommandLine : public testing::Test {
 protected:
  void SetUp() override {
    std::string problem = test::PortLinkProblem();
    if (!problem.empty()) GTEST_SKIP() << "cannot link /dev/cu.<name> to a simulator here: " << problem;
  }
};

test::Scenario Case(const std::string& label, const std::string& gps, sim::InstrumentSettings settings,
                   std::vector<std::string> args, std::string input = "") {
  return test::Scenario{.label = label,
                        .family = "flymaster",
                        .settings = std::move(settings),
                        .args = std::move(args),
                        .input = std::move(input),
                        .gps = gps};
}

// Bytes the program sent after its last line: the block answers.
std::string ControlBytes(const std::string& received) {
  size_t end = received.rfind('\n');
  return end == std::string::npos ? received : received.substr(end + 1);
}

const std::string kIqBase = "2023-10-04_14-30", kSkyBase = "2021-03-06_10-34";

TEST_F(FlymasterCommandLine, DownloadsByTypeAndFirmwareSelectionsAndWaypoints) {
  const std::string sky = Flight("pg-skytraxx-13min.igc"), iq = Flight("pg-iqbasic-8s.igc");
  const uint32_t skyStart = simfm::ReadFixes(sky)[0].time, iqStart = simfm::ReadFixes(iq)[0].time;
  const size_t skyDump = simfm::BuildDump(sky, {.build = 5278, .pilot = "Test Pilot"}).bytes.size();
  const size_t debugDump = simfm::BuildDump(sky, {.build = 5304, .pilot = "Test Pilot"}).bytes.size();
  test::TempDir files;
  files.Write("points.geo",
              "$FormatGEO\r\nCOL N 46 30 15.00 E 007 15 30.00 1250 Col d'Aze [A]\r\n"
              "LOW S 33 30 00.00 W 070 15 00.00 12 low meadow\r\n");
  const std::string geo = "-r" + files.File("points.geo");
  std::vector<test::Scenario> runs = {
      Case("2.03", "-gyn", {.firmware = "2.03", .pilot = "Test Pilot", .flights = {iq, sky}}, {"-f2", "-l"}),
      Case("2.01", "-gyn", {.firmware = "2.01", .flights = {iq, sky}}, {"-f2", "-l"}),
      Case("10.1", "-gyn", {.firmware = "10.1", .flights = {sky}}, {"-f1", "-l"}),
      Case("older", "-gy", {.firmware = "2.03", .flights = {iq, sky}}, {"-l"}, "1\n"),
      Case("bulk", "-gyn", {.flights = {iq, sky}}, {"-L"}),
      Case("list only", "-gyn", {.flights = {iq, sky}}, {"-f0", "-l"}),
      Case("no flights", "-gyn", {}, {"-f1", "-l"}),
      Case("waypoints", "-gyn", {.firmware = "2.05", .waypoints = SomeWaypoints()}, {"-w"}),
      Case("upload", "-gyn", {.firmware = "2.05"}, {geo}),
      Case("upload 1.18", "-gy", {.firmware = "1.18"}, {geo}),
      Case("upload 1.14", "-gy", {.firmware = "1.14"}, {geo}),
      Case("debug", "-gyn", {.pilot = "Test Pilot", .flights = {sky}}, {"-f1", "-l", "--debug"}),
  };
  test::RunScenarios(&runs);

  const std::string list2 = "Track list:\n 1   04.10.23   14:30:07   00:27:05\n 2   06.03.21   10:34:11   00:03:40\n";
  const std::string col = "$PFMWPR,4630.250,N,00715.500,E,,Col d-Aze       ,1250";
  const std::string low = "$PFMWPR,3330.000,S,07015.000,W,,low meadow      ,0012";
  struct Expected {
    std::string out;
    std::vector<std::string> commands;
  } expected[] = {
      {"Product: Flymaster GPS  SN1234  SW2.03\n" + list2 + "Bytes: 0\b" + std::to_string(skyDump) +
           "\nGot 221 points\nExiting COM thread\n" + test::SavedOutput(kSkyBase, 8624, true),
       {"$PFMSNP,*21", "$PFMDNL,LST,*72", ListCommand(skyStart, "4")}},
      {"Product: Flymaster GPS  SN1234  SW2.01\n" + list2 + "Exiting COM thread\n" +
           test::SavedOutput(kSkyBase, std::nullopt, true),
       {"$PFMSNP,*21", "$PFMDNL,LST,*72", ListCommand(skyStart, "2")}},
      {"Product: Flymaster GPS  SN1234  SW10.1\nTrack list:\n 1   06.03.21   10:34:11   00:03:40\n"
       "Exiting COM thread\n" +
           test::SavedOutput(kSkyBase, std::nullopt, true),
       {"$PFMSNP,*21", "$PFMDNL,LST,*72", ListCommand(skyStart, "2")}},
      {"Product: Flymaster GPS  SN1234  SW2.03\n" + list2 + "Select: " + test::ProgressText("Points: ", {}, 194) +
           "Exiting COM thread\n" + test::SavedOutput(kIqBase, std::nullopt, true),
       {"$PBRSNP,*21", "$PFMDNL,LST,*72", ListCommand(iqStart, "")}},
      {"Product: Flymaster GPS  SN1234  SW2.04\nTrack list:\nExiting COM thread\n", {"$PFMSNP,*21", "$PFMDNL,LST,*72"}},
      {"Product: Flymaster GPS  SN1234  SW2.04\n" + list2 + "Flight number out of range\nExiting COM thread\n",
       {"$PFMSNP,*21", "$PFMDNL,LST,*72"}},
      {"Product: Flymaster GPS  SN1234  SW2.04\nTrack list:\nNo tracks found\nExiting COM thread\n",
       {"$PFMSNP,*21", "$PFMDNL,LST,*72"}},
      {"Product: Flymaster GPS  SN1234  SW2.05\n" + test::ProgressText("Waypoints: ", {10}, 11) +
           "Exiting COM thread\n",
       {"$PFMSNP,*21", "$PFMWPL,*3c"}},
      {"2 waypoints found\nProduct: Flymaster GPS  SN1234  SW2.05\nWaypoints: 0\b1\b2\nExiting COM thread\n",
       {"$PFMSNP,*21", WithChecksum(col + ",1"), WithChecksum(low)}},
      {"2 waypoints found\nProduct: Flymaster GPS  SN1234  SW1.18\nWaypoints: 0\b1\b2\nExiting COM thread\n",
       {"$PBRSNP,*21", WithChecksum(col), WithChecksum(low)}},
      {"2 waypoints found\nProduct: Flymaster GPS  SN1234  SW1.14\nWaypoints: 0\b1\b2\nExiting COM thread\n",
       {"$PBRSNP,*21", WithChecksum(col), WithChecksum(low)}},
      {"Product: Flymaster GPS  SN1234  SW2.04\nTrack list:\n 1   06.03.21   10:34:11   00:03:40\nBytes: 0\b" +
           std::to_string(debugDump) + "\nDebug file flymaster2yy.dat written\nGot 221 points\nExiting COM thread\n" +
           test::SavedOutput(kSkyBase, 8624, true),
       {"$PFMSNP,*21", "$PFMDNL,LST,*72", ListCommand(skyStart, "4")}},
  };
  for (size_t i = 0; i < runs.size(); ++i) {
    const test::Scenario& s = runs[i];
    std::string out = WithoutDumpUpdates(s.result.out);
    const std::string opened = "Opened port /dev/cu." + s.port + "\nStarting COM thread\n";
    size_t at = out.find(opened);
    ASSERT_NE(at, std::string::npos) << s.label << ": " << s.result.out;
    out.erase(at, opened.size());
    // The waypoint files are the writers' business; here only that they came.
    if (s.label == "waypoints") {
      out = out.substr(0, out.find("Exiting COM thread\n") + 19);
      EXPECT_EQ(s.files.size(), 3u);
    } else if (s.label == "debug") {
      EXPECT_EQ(s.files.size(), 3u);
      EXPECT_TRUE(s.contents.contains("flymaster2yy.dat"));
    } else {
      EXPECT_EQ(s.files.size(), i < 4 ? 2u : 0u) << s.label;
    }
    EXPECT_EQ(out, expected[i].out) << s.label;
    EXPECT_EQ(s.commands, expected[i].commands) << s.label;
    EXPECT_EQ(s.result.status, 0) << s.label;
  }
  EXPECT_EQ(ControlBytes(runs[3].received), std::string(simfm::BuildBlockTransfer(iq, "GPS", "").blocks.size(), '\xB1'));
  // Every reader's flight comes back as the one the instrument was built
  // from; the 2.02+ dump stores pressure, which comes back within a metre.
  const struct {
    size_t run;
    const std::string& base;
    const std::string& flight;
    size_t points;
    const char* product;
  } saved[] = {{0, kSkyBase, sky, 221, "Flymaster GPS SN1234 SW2.03"},
               {1, kSkyBase, sky, 221, "Flymaster GPS SN1234 SW2.01"},
               {2, kSkyBase, sky, 221, "Flymaster GPS SN1234 SW10.1"},
               {3, kIqBase, iq, 194, "Flymaster GPS SN1234 SW2.03"}};
  for (const auto& f : saved) {
    test::ExpectSavedFlight(runs[f.run], f.base, std::nullopt, f.points, true, f.product);
    if (runs[f.run].contents.contains(f.base + ".igc")) {
      EXPECT_TRUE(test::SameFixes(runs[f.run].contents.at(f.base + ".igc"), f.flight, f.run == 0 ? 1 : 0))
          << runs[f.run].label;
    }
  }
}

TEST_F(FlymasterCommandLine, FaultsEndTheTransferWithTheirMessage) {
  const std::string sky = Flight("pg-skytraxx-13min.igc");
  const size_t skyDump = simfm::BuildDump(sky, {.build = 5304, .pilot = "x"}).bytes.size();
  const size_t skyNew = simfm::BuildDump(sky, {.kind = simfm::DumpKind::kPre202}).bytes.size();
  const size_t skyBlocks = simfm::BuildBlockTransfer(sky, "GPS", "").blocks.size();
  test::TempDir files;
  std::string geo = "$FormatGEO\r\n";
  for (int i = 1; i <= 3; ++i) geo += "P" + std::to_string(i) + " N 46 00 00.00 E 008 00 00.00 500 Point " +
                                      std::to_string(i) + "\r\n";
  files.Write("points.geo", geo);
  const std::string upload = "-r" + files.File("points.geo");
  auto older = [&](const std::string& fault) {
    return Case(fault, "-gy", {.flights = {sky}, .faults = {fault}}, {"-f1", "-l"});
  };
  std::vector<test::Scenario> runs = {
      older("short-info"),
      older("short-key"),
      older("bad-latitude"),
      older("bad-longitude"),
      older("track-first"),
      older("odd-track-block"),
      older("no-info"),
      older("stall"),
      Case("dump checksum", "-gyn", {.flights = {sky}, .faults = {"bad-dump-checksum"}}, {"-f1", "-l"}),
      Case("no signature", "-gyn", {.flights = {sky}, .faults = {"no-signature"}}, {"-f1", "-l"}),
      Case("extra byte", "-gyn", {.firmware = "2.00", .flights = {sky}, .faults = {"extra-byte"}}, {"-f1", "-l"}),
      Case("mute", "-gyn", {.faults = {"mute"}}, {"-w"}),
      Case("nak", "-gyn", {.faults = {"nak:2"}}, {upload}),
      Case("echo", "-gyn", {.faults = {"bad-echo:1", "wrong-tag:3"}}, {upload}),
      Case("answers", "-gy", {.faults = {"short-answer:2", "bad-answer:3"}}, {upload}),
      Case("no answer", "-gyn", {.faults = {"nak:1", "no-answer:2"}}, {upload}),
  };
  test::RunScenarios(&runs);

  const std::string product = "Product: Flymaster GPS  SN1234  SW2.04\n";
  const std::string list = "Track list:\n 1   06.03.21   10:34:11   00:03:40\n";
  const std::string start = product + list;
  const std::string points = "Points: 0";
  struct Expected {
    std::string out;
    std::string control;  // what the program answered the blocks with
  } expected[] = {
      {start + points + " Bad flight info block length\n", "\xB3"},
      {start + points + " Bad key track position block length\n", "\xB1\xB3"},
      {start + points + " Latitude outside valid range\n", "\xB1\xB3"},
      {start + points + " Longitude value outside valid range\n", "\xB1\xB3"},
      {start + points + " Missing key track position block\n", "\xB1\xB3"},
      {start + points + " Bad track position block length\n", "\xB1\xB1\xB3"},
      {start + points + "\b200 Missing flight info block\n", std::string(skyBlocks - 1, '\xB1') + "\xB3"},
      {start + points + " Timeout\n", "\xB1\xB3"},
      {start + "Bytes: 0\b" + std::to_string(skyDump) + "\nBad checksum\n", ""},
      {start + "Bytes: 0\b" + std::to_string(skyDump - 1) + "\nMissing checksum and signature\n", ""},
      {"Product: Flymaster GPS  SN1234  SW2.00\n" + list + "Bad track log data length (" +
           std::to_string(skyNew + 1) + ")\n",
       ""},
      {"Product: Timeout\n", ""},
      {"3 waypoints found\n" + product + "Waypoints: 0\b1\b2\b33, 1 errors, first error was type 4\n", ""},
      {"3 waypoints found\n" + product + "Waypoints: 0\b1\b2\b33, 2 errors, first error was type 5\n", ""},
      {"3 waypoints found\n" + product + "Waypoints: 0\b1\b2\b33, 2 errors, first error was type 3\n", ""},
      {"3 waypoints found\n" + product + "Waypoints: 0\b1\b2\b2, timeout, 1 errors\n", ""},
  };
  for (size_t i = 0; i < runs.size(); ++i) {
    const test::Scenario& s = runs[i];
    std::string out = WithoutDumpUpdates(s.result.out);
    const std::string opened = "Opened port /dev/cu." + s.port + "\nStarting COM thread\n";
    size_t at = out.find(opened);
    ASSERT_NE(at, std::string::npos) << s.label << ": " << s.result.out;
    EXPECT_EQ(out.erase(at, opened.size()), expected[i].out + "Exiting COM thread\n") << s.label;
    EXPECT_EQ(s.result.status, 0) << s.label;
    EXPECT_TRUE(s.files.empty()) << s.label;
    if (s.gps == "-gy" && s.args[0] == "-f1") {
      EXPECT_EQ(ControlBytes(s.received), expected[i].control) << s.label;
    }
  }
}

}  // namespace
