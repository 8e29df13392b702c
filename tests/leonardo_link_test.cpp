// Digifly Leonardo/Air downloads against the simulated instrument, in-process
// (every point checked against the IGC flight it was built from) and
// through the command line.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/time.h"
#include "driver/families.h"
#include "geo/conv.h"
#include "link/com.h"
#include "saved_support.h"
#include "serial/leonardo.h"
#include "sim/leonardo.h"
#include "sim_support.h"

namespace {

using sim::leonardo::LeonardoInstrument;
using test::Flight;
using test::ProgressText;

constexpr double kDegree = 3.14159265358979323846 / 180.0;

// A fix as the IGC text has it, with the GPS time of its own reading.
struct IgcFix {
  uint32_t time;
  double latitude;  // radians
  double longitude;
  int32_t pressure;
  int32_t gnss;
};

std::vector<IgcFix> ReadIgcFixes(const std::string& igc) {
  std::vector<IgcFix> fixes;
  std::istringstream in(igc);
  std::string line;
  uint32_t date = 0, day = 0;
  int previous = -1;
  while (std::getline(in, line)) {
    unsigned d, m, y;
    if (std::sscanf(line.c_str(), "HFDTEDATE:%2u%2u%2u", &d, &m, &y) == 3 ||
        std::sscanf(line.c_str(), "HFDTE%2u%2u%2u", &d, &m, &y) == 3) {
      SystemTime st{2000 + y, m, d, 0, 0, 0};
      date = ConvertSystemTimeToGpsTime(&st);
      continue;
    }
    int h, mi, s, latD, latM, latT, lonD, lonM, lonT, pressure, gnss;
    char ns, ew;
    if (std::sscanf(line.c_str(), "B%2d%2d%2d%2d%2d%3d%c%3d%2d%3d%c%*c%5d%5d", &h, &mi, &s, &latD, &latM, &latT, &ns,
                    &lonD, &lonM, &lonT, &ew, &pressure, &gnss) != 13) {
      continue;
    }
    int second = h * 3600 + mi * 60 + s;
    if (previous >= 0 && second + 3600 <= previous) day += 86400;  // past midnight
    previous = second;
    fixes.push_back({date + day + static_cast<uint32_t>(second),
                     (latD + (latM + latT / 1000.0) / 60.0) * kDegree * (ns == 'S' ? -1 : 1),
                     (lonD + (lonM + lonT / 1000.0) / 60.0) * kDegree * (ew == 'W' ? -1 : 1), pressure, gnss});
  }
  return fixes;
}

// The flight up to its `count`th fix: a real flight that is quick to send
// (the receiving thread takes 300 bytes every 10 ms).
std::string FirstFixes(const std::string& igc, int count) {
  int fixes = 0;
  size_t at = 0;
  while (at < igc.size() && fixes < count) {
    if (igc[at] == 'B') ++fixes;
    size_t end = igc.find('\n', at);
    at = end == std::string::npos ? igc.size() : end + 1;
  }
  return igc.substr(0, at);
}

// Arcs a float's rounding of `radians` may move the position: half a unit
// in the last place of the float, and one arc of rounding.
double FloatTolerance(double radians) { return std::fabs(radians) * std::ldexp(1.0, -24) * kRadiansToArc + 1.0; }

// The track log holds exactly `fixes`, less those `dropped` (by index).
void ExpectTrackLogIs(const std::vector<IgcFix>& fixes, bool (*dropped)(size_t), const std::string& what) {
  size_t n = 0;
  for (size_t i = 0; i < fixes.size(); ++i) {
    if (dropped != nullptr && dropped(i)) continue;
    ASSERT_LT(static_cast<int32_t>(n), tGps.nTrackPoints) << what << ": too few points";
    const TrackPoint& p = tGps.pTrackPoints[n];
    const IgcFix& f = fixes[i];
    int32_t lat = 0, lon = 0;
    ConvertGeoToArcPos(f.latitude, f.longitude, &lat, &lon);
    ASSERT_EQ(p.dwTime, f.time) << what << " fix " << i;
    ASSERT_LE(std::fabs(p.lLatitude - static_cast<double>(lat)), FloatTolerance(f.latitude)) << what << " fix " << i;
    ASSERT_LE(std::fabs(p.lLongitude - static_cast<double>(lon)), FloatTolerance(f.longitude)) << what << " fix " << i;
    ASSERT_EQ(p.lGpsAltitude, f.gnss * 10) << what << " fix " << i;
    ASSERT_EQ(p.lPressureAltitude, f.pressure) << what << " fix " << i;
    ASSERT_EQ(p.dwFlags, n == 0 ? 1u : 0u) << what << " fix " << i;
    ++n;
  }
  EXPECT_EQ(static_cast<int32_t>(n), tGps.nTrackPoints) << what;
  if (n > 0) {
    EXPECT_EQ(tGps.dwFirstPointTime, tGps.pTrackPoints[0].dwTime) << what;
  }
}

// A Leonardo instrument on a pseudo-terminal, served flat out.
class LeonardoRig {
 public:
  explicit LeonardoRig(sim::InstrumentSettings settings, std::vector<sim::LineFault> faults = {})
      : instrument_(new LeonardoInstrument(std::move(settings))),
        simulator_(std::unique_ptr<sim::Instrument>(instrument_), 0, std::move(faults)) {
    if (simulator_.Start() != 0) throw std::runtime_error(simulator_.error());
  }
  void Connect() const {
    std::snprintf(tGps.szComPort, sizeof tGps.szComPort, "%s", simulator_.path().c_str());
    tGps.dwGpsType = kGpsLeonardo;
  }
  void Stop() { simulator_.Stop(); }
  const LeonardoInstrument& instrument() const { return *instrument_; }
  std::vector<std::string> Commands() const {
    std::vector<std::string> texts;
    for (const sim::leonardo::Command& c : instrument_->commands()) texts.push_back(c.text);
    return texts;
  }

 private:
  LeonardoInstrument* instrument_;
  sim::Simulator simulator_;
};

std::string Framed(const std::string& body) {
  char tail[8];
  std::snprintf(tail, sizeof tail, "*%02X", sim::NmeaChecksum(body));
  return "$" + body + tail;
}

const std::string kIdentify = Framed("PDGFVID");
const std::string kList = Framed("PDGFFLL");

// Where flight `number` (1: newest) lies: the block reads it takes and the
// point count after each block but the last.
struct Reads {
  std::vector<std::string> commands;
  std::vector<int> progress;
};

Reads BlockReads(const LeonardoInstrument& instrument, int number) {
  const auto& stored = instrument.stored();
  const sim::leonardo::StoredFlight& f = stored[stored.size() - static_cast<size_t>(number)];
  const int perBlock = sim::leonardo::kRecordsPerBlock;
  const int last = f.firstRecord + f.records - 1;
  Reads reads;
  for (int block = f.firstRecord / perBlock; block <= last / perBlock; ++block) {
    int stop = block < last / perBlock ? 4094 : (last % perBlock + 1) * sim::leonardo::kRecordSize;
    reads.commands.push_back(Framed("PDGFRMM,2," + std::to_string(block) + ",00," + std::to_string(stop)));
    if (block < last / perBlock) reads.progress.push_back((block + 1) * perBlock - f.firstRecord);
  }
  return reads;
}

std::string Opened(const std::string& port) { return "Opened port " + port + "\nStarting COM thread\n"; }

const std::string kProduct = "Product: DIGIFLY AIR BT, SN10394, SW141a-012\n";
const std::string kIqLine = " 1   04.10.23   14:30:07   00:27:05\n";
const std::string kSkyLine = " 2   06.03.21   10:34:11   00:03:40\n";
const std::string kXctLine = " 3   04.09.20   16:27:53   00:09:42\n";

TEST(LeonardoDownload, EachFlightOfTheMemoryArrivesAsItsIgcFixes) {
  // Newest first; neighbours share blocks.
  const std::vector<std::string> flights = {Flight("pg-iqbasic-8s.igc"), Flight("pg-skytraxx-13min.igc"),
                                            Flight("hg-fai5-xctrack-10min.igc")};
  LeonardoRig rig({.pilot = "  Jane   Doe ", .flights = flights});
  for (int number = 1; number <= 3; ++number) {
    const std::string what = "flight " + std::to_string(number);
    test::FreshRunParameters();
    rig.Connect();
    tGps.dwCommand = kCommandDownloadTrack;
    tGps.nFlightNumber = number;
    tGps.szPilotName[0] = 1;  // take the name from the instrument
    SystemTime now;
    GetDownloadTime(&now);
    const uint32_t before = ConvertSystemTimeToGpsTime(&now);

    testing::internal::CaptureStdout();
    int32_t result = test::RunInstrumentCommand(DownloadLeonardoTrackLog);
    std::string out = testing::internal::GetCapturedStdout();

    ASSERT_EQ(result, 0) << what << "\n" << out;
    const std::vector<IgcFix> fixes = ReadIgcFixes(flights[static_cast<size_t>(number - 1)]);
    ExpectTrackLogIs(fixes, nullptr, what);
    const Reads reads = BlockReads(rig.instrument(), number);
    EXPECT_EQ(out, Opened(tGps.szComPort) + kProduct + "Track list:\n" + kIqLine + kSkyLine + kXctLine +
                       ProgressText("Points: ", reads.progress, static_cast<int>(fixes.size())) +
                       "Exiting COM thread\n")
        << what;
    EXPECT_STREQ(tGps.szProduct, "DIGIFLY AIR BT, SN10394, SW141a-012");
    EXPECT_STREQ(tGps.szPilotName, "Jane Doe");
    EXPECT_EQ(tGps.bUtc, 1);
    EXPECT_EQ(tGps.bSignature, 1);
    EXPECT_EQ(tGps.bPressureAltitude, 1);
    EXPECT_EQ(tGps.nRawLogLength, 0) << "no instrument text to keep";
    EXPECT_GE(tGps.dwDownloadTime, before);
    EXPECT_LE(tGps.dwDownloadTime, before + 60);
  }
  rig.Stop();
  std::vector<std::string> expected;
  for (int number = 1; number <= 3; ++number) {
    expected.push_back(kIdentify);
    expected.push_back(kList);
    for (const std::string& c : BlockReads(rig.instrument(), number).commands) expected.push_back(c);
  }
  EXPECT_EQ(rig.Commands(), expected);
  EXPECT_EQ(BlockReads(rig.instrument(), 3).commands.size(), 4u);
}

TEST(LeonardoDownload, FirmwareFourAndFixesWithoutAPosition) {
  // With 4.x firmware the QNH bytes hold a counter: the pressure altitude
  // must still be the logged one. Every tenth fix has no usable position.
  test::FreshRunParameters();
  const std::string flight = FirstFixes(Flight("pg-flytec6030-task.igc"), 1000);
  LeonardoRig rig({.model = "LEONARDO", .firmware = "4.05", .serial = "7", .flights = {flight}, .faults = {"no-fix"}});
  rig.Connect();
  tGps.dwCommand = kCommandDownloadTrack;
  tGps.nFlightNumber = 1;
  std::snprintf(tGps.szPilotName, sizeof tGps.szPilotName, "Given Name");

  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadLeonardoTrackLog);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  ASSERT_EQ(result, 0) << out;
  EXPECT_EQ(out.substr(0, out.find("Track list")), Opened(tGps.szComPort) + "Product: Digifly LEONARDO, SN7, SW4.05\n");
  EXPECT_STREQ(tGps.szPilotName, "Given Name") << "a name given is kept";
  // West longitudes.
  const std::vector<IgcFix> fixes = ReadIgcFixes(flight);
  ASSERT_EQ(fixes.size(), 1000u);
  ExpectTrackLogIs(fixes, [](size_t i) { return i % 10 == 9; }, "6030 flight");
  EXPECT_LT(tGps.pTrackPoints[0].lLongitude, 0);
}

std::vector<int32_t> gSavedCounts;
std::vector<uint32_t> gSavedFirstTimes;
std::vector<uint32_t> gSavedLastTimes;
std::vector<int32_t> gSavedSegmentStarts;

int32_t KeepTrack() {
  gSavedCounts.push_back(tGps.nTrackPoints);
  gSavedFirstTimes.push_back(tGps.nTrackPoints > 0 ? tGps.pTrackPoints[0].dwTime : 0);
  gSavedLastTimes.push_back(tGps.nTrackPoints > 0 ? tGps.pTrackPoints[tGps.nTrackPoints - 1].dwTime : 0);
  int32_t starts = 0;
  for (int32_t i = 0; i < tGps.nTrackPoints; ++i) starts += tGps.pTrackPoints[i].dwFlags & kTrackPointNewSegment;
  gSavedSegmentStarts.push_back(starts);
  return 0;
}

TEST(LeonardoDownload, TheBulkWalkHandsOverEveryFlightNewestFirst) {
  test::FreshRunParameters();
  const std::vector<std::string> flights = {Flight("pg-iqbasic-8s.igc"), Flight("pg-skytraxx-13min.igc"),
                                            Flight("hg-fai5-xctrack-10min.igc")};
  LeonardoRig rig({.flights = flights});
  rig.Connect();
  tGps.dwCommand = kCommandDownloadAllTracks;
  gSavedCounts.clear();
  gSavedFirstTimes.clear();
  gSavedLastTimes.clear();
  gSavedSegmentStarts.clear();

  testing::internal::CaptureStdout();
  leonardo::LeonardoTransfer transfer;
  leonardo::ResetTransfer(&transfer);
  ASSERT_EQ(OpenComPort(GetComSpeedForType(tGps.dwGpsType)), 0);
  int32_t result = leonardo::ReadProductData(&transfer);
  if (result == 0) result = leonardo::ReadTrackList(&transfer);
  if (result == 0) result = leonardo::ReadAllTrackLogs(&transfer, KeepTrack);
  CloseComPort();
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  ASSERT_EQ(result, 0) << out;
  std::vector<int32_t> counts;
  std::vector<uint32_t> firsts, lasts;
  std::string expected = Opened(tGps.szComPort) + kProduct + "Track list:\n" + kIqLine + kSkyLine + kXctLine;
  std::vector<std::string> commands = {kIdentify, kList};
  for (int n = 1; n <= 3; ++n) {
    const std::vector<IgcFix> fixes = ReadIgcFixes(flights[static_cast<size_t>(n - 1)]);
    counts.push_back(static_cast<int32_t>(fixes.size()));
    firsts.push_back(fixes.front().time);
    lasts.push_back(fixes.back().time);
    const Reads reads = BlockReads(rig.instrument(), n);
    expected += "Reading track " + std::to_string(n) + "\n" +
                ProgressText("Points: ", reads.progress, static_cast<int>(fixes.size()));
    commands.insert(commands.end(), reads.commands.begin(), reads.commands.end());
  }
  EXPECT_EQ(out, expected + "Exiting COM thread\n");
  EXPECT_EQ(gSavedCounts, counts);
  EXPECT_EQ(gSavedFirstTimes, firsts);
  EXPECT_EQ(gSavedLastTimes, lasts);
  EXPECT_EQ(gSavedSegmentStarts, (std::vector<int32_t>{1, 1, 1})) << "each track starts afresh";
  EXPECT_EQ(rig.Commands(), commands);
  EXPECT_EQ(tGps.pTrackPoints, nullptr);
  EXPECT_EQ(tGps.nTrackPoints, 0);
}

// Through the command line: each scenario runs its own instrument; all run
// at once so that the silence limits are waited out together.
class LeonardoCommandLine : public testing::Test {
 protected:
  void SetUp() override {
    std::string problem = test::PortLinkProblem();
    if (!problem.empty()) GTEST_SKIP() << "cannot link /dev/cu.<name> to a simulator here: " << problem;
  }
};

test::Scenario Case(const std::string& label, sim::InstrumentSettings settings, std::vector<std::string> args,
                   std::vector<sim::LineFault> faults = {}, const std::string& input = "") {
  return {.label = label,
          .family = "leonardo",
          .settings = std::move(settings),
          .faults = std::move(faults),
          .args = std::move(args),
          .input = input};
}

// The program's own port lines around `middle`.
std::string Session(const test::Scenario& s, const std::string& middle) {
  return "Opened port /dev/cu." + s.port + "\nStarting COM thread\n" + middle + "Exiting COM thread\n";
}

const std::string kIqBase = "2023-10-04_14-30", kSkyBase = "2021-03-06_10-34";
// The instrument sends no text: the program writes the IGC file itself.
const std::string kSavedIq = test::SavedOutput(kIqBase, std::nullopt, true);
const std::string kSavedSky = test::SavedOutput(kSkyBase, std::nullopt, true);

TEST_F(LeonardoCommandLine, DownloadsListsAndSelections) {
  const std::string iq = Flight("pg-iqbasic-8s.igc"), sky = Flight("pg-skytraxx-13min.igc");
  const sim::InstrumentSettings two{.flights = {iq, sky}};
  std::vector<test::Scenario> runs = {
      Case("-f1", two, {"-f1", "-l"}),
      Case("all", two, {"-L"}),
      Case("typed", two, {"-l"}, {}, "2\n"),
      Case("list only", two, {"-f0", "-l"}),
      Case("out of range", two, {"-f3", "-l"}),
      // A pause shorter than the silence limit inside a block.
      Case("pause", two, {"-f1", "-l"}, {{sim::FaultKind::kPause, 3, 3000, 1000}}),
  };
  test::RunScenarios(&runs);

  // The memory: three erased records, sky (records 3 to 223), iq (224 to
  // 417); 178 records a block.
  const std::string iqReads[] = {Framed("PDGFRMM,2,1,00,4094"), Framed("PDGFRMM,2,2,00,1426")};
  const std::string skyReads[] = {Framed("PDGFRMM,2,0,00,4094"), Framed("PDGFRMM,2,1,00,1058")};
  const std::string list = "Track list:\n" + kIqLine + kSkyLine;
  const std::string iqPoints = ProgressText("Points: ", {132}, 194);
  const std::string skyPoints = ProgressText("Points: ", {175}, 221);
  struct Expected {
    std::string out;
    std::vector<std::string> commands;
    std::string after;
  } expected[] = {
      {kProduct + list + iqPoints, {kIdentify, kList, iqReads[0], iqReads[1]}, kSavedIq},
      {kProduct + list + "Reading track 1\n" + iqPoints + kSavedIq + "Reading track 2\n" + skyPoints + kSavedSky,
       {kIdentify, kList, iqReads[0], iqReads[1], skyReads[0], skyReads[1]},
       ""},
      {kProduct + list + "Select: " + skyPoints, {kIdentify, kList, skyReads[0], skyReads[1]}, kSavedSky},
      {kProduct + list, {kIdentify, kList}, ""},
      {kProduct + list + "Flight number out of range\n", {kIdentify, kList}, ""},
      {kProduct + list + iqPoints, {kIdentify, kList, iqReads[0], iqReads[1]}, kSavedIq},
  };
  const size_t files[] = {2, 4, 2, 0, 0, 2};
  for (size_t i = 0; i < runs.size(); ++i) {
    const test::Scenario& s = runs[i];
    EXPECT_EQ(s.result.status, 0) << s.label;
    EXPECT_EQ(s.result.out, Session(s, expected[i].out) + expected[i].after) << s.label;
    EXPECT_EQ(s.commands, expected[i].commands) << s.label;
    EXPECT_EQ(s.files.size(), files[i]) << s.label;
  }
  const std::string product = "DIGIFLY AIR BT, SN10394, SW141a-012";
  const std::pair<size_t, const char*> saved[] = {{0, "iq"}, {1, "iq"}, {1, "sky"}, {2, "sky"}, {5, "iq"}};
  for (const auto& [run, which] : saved) {
    const bool isIq = which == std::string("iq");
    const std::string& base = isIq ? kIqBase : kSkyBase;
    test::ExpectSavedFlight(runs[run], base, std::nullopt, isIq ? 194 : 221, true, product);
    if (runs[run].contents.contains(base + ".igc")) {
      EXPECT_TRUE(test::SameFixes(runs[run].contents.at(base + ".igc"), isIq ? iq : sky)) << runs[run].label;
    }
  }
}

TEST_F(LeonardoCommandLine, FaultsEndTheDownloadWithTheirMessage) {
  const std::string iq = Flight("pg-iqbasic-8s.igc"), sky = Flight("pg-skytraxx-13min.igc");
  const sim::InstrumentSettings two{.flights = {iq, sky}};
  auto with = [&](const char* fault) { return sim::InstrumentSettings{.flights = {iq, sky}, .faults = {fault}}; };
  std::vector<test::Scenario> runs = {
      Case("mute", with("mute"), {"-f1", "-l"}),
      Case("bad checksums", with("bad-checksum"), {"-f1", "-l"}),
      Case("empty list", {}, {"-f1", "-l"}),
      Case("empty list, all", {}, {"-L"}),
      Case("bad block checksum", with("bad-block-checksum"), {"-f1", "-l"}),
      Case("short block", with("short-block"), {"-f1", "-l"}),
      Case("short block, all", with("short-block"), {"-L"}),
      // Replies: 1 identification, 2 list, 3 and 4 the blocks.
      Case("cut in the first block", two, {"-f1", "-l"}, {{sim::FaultKind::kCut, 3, 3000}}),
      Case("cut in the second block", two, {"-f1", "-l"}, {{sim::FaultKind::kCut, 4, 100}}),
      Case("cut before the checksum", two, {"-f1", "-l"}, {{sim::FaultKind::kCut, 4, 2 * 1426 + 10}}),
      Case("corrupt block byte", two, {"-f1", "-l"}, {{sim::FaultKind::kFlip, 3, 500}}),
      Case("corrupt list byte", two, {"-f1", "-l"}, {{sim::FaultKind::kFlip, 2, 20}}),
      Case("corrupt identification", two, {"-f1", "-l"}, {{sim::FaultKind::kFlip, 1, 12}}),
  };
  test::RunScenarios(&runs);

  const std::string list = "Track list:\n" + kIqLine + kSkyLine;
  const std::string expected[] = {
      "Product: Timeout\n",
      "Product: Checksum error\n",
      kProduct + "Track list:\nNo tracks found\n",
      kProduct + "Track list:\nNo tracks found\n",
      kProduct + list + "Points: 0 Checksum error in block 1\n",
      kProduct + list + "Points: 0 Block 1: 4071 bytes instead of 4094\n",
      kProduct + list + "Reading track 1\nPoints: 0 Block 1: 4071 bytes instead of 4094\n",
      kProduct + list + "Points: 0 Timeout in block 1\n",
      kProduct + list + "Points: 0\b132 Timeout in block 2\n",
      kProduct + list + "Points: 0\b132 Timeout in block 2\n",
      kProduct + list + "Points: 0 Checksum error in block 1\n",
      kProduct + "Track list:\nChecksum error\n",
      "Product: Checksum error\n",
  };
  for (size_t i = 0; i < runs.size(); ++i) {
    const test::Scenario& s = runs[i];
    EXPECT_EQ(s.result.out, Session(s, expected[i])) << s.label;
    EXPECT_EQ(s.result.status, 0) << s.label;
    EXPECT_TRUE(s.files.empty()) << s.label;
  }
}

// A corrupted byte anywhere in the conversation ends it with a message or
// a complete flight, never with a crash or an open port.
TEST_F(LeonardoCommandLine, ACorruptByteAnywhereLeavesTheProgramInCharge) {
  const std::string iq = Flight("pg-iqbasic-8s.igc"), sky = Flight("pg-skytraxx-13min.igc");
  std::vector<test::Scenario> runs;
  const std::pair<int, int64_t> flips[] = {{1, 0},  {1, 1},   {1, 8},    {1, 9},    {1, 30},   {1, 45},
                                           {2, 0},  {2, 9},   {2, 10},   {2, 11},   {2, 70},   {3, 0},
                                           {3, 8},  {3, 9},   {3, 4000}, {3, 8197}, {3, 8198}, {4, 2862},
                                           {4, 2863}, {4, 2864}};
  for (const auto& [reply, offset] : flips) {
    runs.push_back(Case(std::to_string(reply) + ":" + std::to_string(offset), {.flights = {iq, sky}}, {"-f1", "-l"},
                       {{sim::FaultKind::kFlip, reply, offset}}));
  }
  test::RunScenarios(&runs);
  for (const test::Scenario& s : runs) {
    EXPECT_EQ(s.result.status, 0) << s.label;
    EXPECT_TRUE(s.result.out.ends_with("Exiting COM thread\n") ||
                s.result.out.ends_with("194\nExiting COM thread\n" + kSavedIq))
        << s.label << ": " << s.result.out;
    EXPECT_EQ(s.files.size(), s.result.out.ends_with(kSavedIq) ? 2u : 0u) << s.label;
  }
}

// kestrix-sim serves the family too, at the instrument's line speed.
TEST_F(LeonardoCommandLine, KestrixSimServesTheFamily) {
  const std::string port = test::UniquePortName();
  const std::string flight = std::string(KESTRIX_TEST_DATA) + "/igc/pg-iqbasic-8s.igc";
  test::SimProgram simulator({"leonardo", "--serial", "55", "--flights", flight, "--port", port});
  EXPECT_NE(simulator.greeting().find("Serving leonardo on /dev/pts/"), std::string::npos) << simulator.greeting();

  test::TempDir dir;
  test::RunResult r = test::RunKestrix({"-gda", "-cu." + port, "-f1", "-l"}, dir.path());
  EXPECT_NE(r.out.find("Product: DIGIFLY AIR BT, SN55, SW141a-012\nTrack list:\n" + kIqLine), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find(ProgressText("Points: ", {175}, 194) + "Exiting COM thread\n"), std::string::npos) << r.out;

  int status = -1;
  std::string trace = simulator.Stop(&status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(trace, "<- " + kIdentify + "\n-> identification DIGIFLY AIR BT 141a-012\n<- " + kList +
                       "\n-> list of 1 flights\n<- " + Framed("PDGFRMM,2,0,00,4094") + "\n-> block 0 (4094 bytes)\n<- " +
                       Framed("PDGFRMM,2,1,00,437") + "\n-> block 1 (437 bytes)\nStopped\n");
}

}  // namespace
