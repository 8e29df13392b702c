// Syride downloads through the whole program in-process: the emulated
// instrument on the bus, KestrixMain with the command line, and the files
// the saving pipeline leaves in the folder.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "core/run.h"
#include "driver/main.h"
#include "geo/time.h"
#include "external_tools.h"
#include "igc/igc.h"
#include "kml_support.h"
#include "support.h"
#include "syride_emulator.h"

namespace {

const std::string kData = KESTRIX_TEST_DATA;
const std::string kAnalysis =
    "Computing statistics\nFinding greatest out-and-return (gap = 800m)\nFinding greatest triangles (gap = 800m)\n";
constexpr uint32_t kUnixOfGpsEpoch = 631065600;

struct ProgramRun {
  std::string out;
  int status = -1;
};

// kestrix with `args` in `folder`, against whatever the bus holds.
ProgramRun Kestrix(const std::string& folder, std::vector<std::string> args) {
  args.insert(args.begin(), "kestrix");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  ProgramRun run;
  test::FakeStdin nobodyTypes("");
  testing::internal::CaptureStdout();
  test::InDirectory(folder, [&] { run.status = KestrixMain(static_cast<int>(argv.size()), argv.data()); });
  run.out = testing::internal::GetCapturedStdout();
  test::FreshRunParameters();
  return run;
}

std::vector<std::string> Files(const test::TempDir& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Points in IGC text, read by the program's own reader into a scratch log.
int32_t PointsIn(const std::string& igc) {
  test::FreshRunParameters();
  testing::internal::CaptureStdout();
  const int32_t decoded =
      DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(igc.data()), static_cast<int32_t>(igc.size()), nullptr, 0);
  testing::internal::GetCapturedStdout();
  const int32_t count = decoded < 0 ? -1 : tGps.nTrackPoints;
  test::FreshRunParameters();
  return count;
}

// The file name a track gets from the time of its first fix.
std::string NameFromUnix(uint32_t unixTime) {
  SystemTime t{};
  ConvertGpsTimeToSystemTime(unixTime - kUnixOfGpsEpoch, &t);
  char name[32];
  std::snprintf(name, sizeof name, "%d-%02d-%02d_%02d-%02d", static_cast<int>(t.wYear), static_cast<int>(t.wMonth),
                static_cast<int>(t.wDay), static_cast<int>(t.wHour), static_cast<int>(t.wMinute));
  return name;
}

// The same from IGC text: its date line and its first B record.
std::string NameFromIgc(const std::string& igc) {
  const size_t date = igc.find("HFDTE");
  size_t digits = date + 5;
  while (digits < igc.size() && (igc[digits] < '0' || igc[digits] > '9')) ++digits;
  const size_t fix = igc.find("\nB") + 2;
  return "20" + igc.substr(digits + 4, 2) + "-" + igc.substr(digits + 2, 2) + "-" + igc.substr(digits, 2) + "_" +
         igc.substr(fix, 2) + "-" + igc.substr(fix + 2, 2);
}

TEST(SyrideSaving, OneSysNavFlightBecomesAnEncodedIgcFileAndASignedDocument) {
  REQUIRE_TOOL("xmllint", "libxml2-utils");
  emu::Bus bus;
  emu::Installed installed(&bus);
  const emu::IgcFlight flight = emu::ReadIgcFlight(kData + "/syride/pg-syride-navv3-lf.igc");
  ASSERT_FALSE(flight.fixes.empty());
  const std::vector<uint8_t> memory = emu::EncodeFlightMemory(flight.fixes, true);
  ASSERT_FALSE(memory.empty());
  emu::Device& nav = bus.Add(emu::Model::kNav, 1, 21);
  emu::AddNavFlight(nav, flight.unixStart, static_cast<uint16_t>(flight.fixes.size()), {3}, memory);

  test::TempDir dir;
  const ProgramRun run = Kestrix(dir.path(), {"-gsy", "-f1", "-l"});
  EXPECT_EQ(run.status, 0);
  const std::string base = NameFromUnix(flight.unixStart);
  EXPECT_TRUE(run.out.ends_with("\nMaking igc log\nFile " + base + ".igc written\n" + kAnalysis + "File " + base +
                                ".kml written, signature OK\n"))
      << run.out;
  EXPECT_EQ(Files(dir), (std::vector<std::string>{base + ".igc", base + ".kml"}));

  const std::string igc = test::ReadFile(dir.File(base + ".igc"));
  EXPECT_TRUE(igc.starts_with("AXKX Syride SYS\xC2\xB4Nav, SNR 4711, SW 1.21\r\n")) << igc.substr(0, 60);
  EXPECT_NE(igc.find("\r\nG"), std::string::npos) << "signed";
  EXPECT_EQ(PointsIn(igc), static_cast<int32_t>(flight.fixes.size()));

  const std::string kml = test::ReadFile(dir.File(base + ".kml"));
  EXPECT_EQ(test::XmlTextProblem(kml), "");
  test::TrackMetadata track;
  std::string error;
  ASSERT_TRUE(test::ReadTrackMetadata(kml, &track, &error)) << error;
  EXPECT_EQ(test::ListValues(track.coordinates).size(), flight.fixes.size());
  EXPECT_TRUE(track.timeOfFirstPoint.ends_with("Z"));
  // The product text carries a byte above 127: the digest packs it signed.
  EXPECT_EQ(track.instrument.value_or(""), "Syride SYS\xC2\xB4Nav, SNR 4711, SW 1.21");
  ASSERT_TRUE(track.hash.has_value());
  EXPECT_EQ(*track.hash, test::HashStringDigest(test::DigestInput(track)));
  EXPECT_NE(*track.hash, test::Sha1Hex(test::DigestInput(track)));
  EXPECT_EQ(bus.OpenHandles(), 0);
  EXPECT_EQ(bus.Violations(), std::vector<std::string>{});
}

TEST(SyrideSaving, AllEvolutionFlightsAreWrittenAsTheyCameAndARepeatAddsNothing) {
  emu::Bus bus;
  emu::Installed installed(&bus);
  emu::Device& evolution = bus.Add(emu::Model::kEvolution, 2, 35);
  // The waypoint block the identification looks at: blank, new format.
  std::vector<uint8_t> waypointBlock(512, 0x20);
  std::fill(waypointBlock.end() - 4, waypointBlock.end(), 0xFE);
  evolution.Store(uint64_t{syride::kEvolutionWaypointBlock} * 512, waypointBlock);
  const std::string sixpack = kData + "/fastlz/sixpack/";
  const std::string task = test::ReadFile(sixpack + "hg-flytec6030-litespeed-task.igc");
  const std::string head = test::ReadFile(sixpack + "evolution-head-131092.igc");
  emu::AddEvolutionFlight(evolution, 1402822800, 10616, 40,
                          emu::ReadBytes(sixpack + "hg-flytec6030-litespeed-task.l1.6pk"));
  emu::AddEvolutionFlight(evolution, 1559984400, 3600, 10, emu::ReadBytes(sixpack + "evolution-head-131092.l2.6pk"));

  test::TempDir dir;
  ProgramRun run = Kestrix(dir.path(), {"-gsy", "-Ligc"});
  EXPECT_EQ(run.status, 0);
  const std::string taskName = NameFromIgc(task) + ".igc", headName = NameFromIgc(head) + ".igc";
  const size_t first = run.out.find("Raw igc log downloaded (" + std::to_string(task.size()) + " bytes)\nFile " +
                                    taskName + " written\n");
  const size_t second = run.out.find("Raw igc log downloaded (" + std::to_string(head.size()) + " bytes)\nFile " +
                                     headName + " written\n");
  EXPECT_NE(first, std::string::npos) << run.out;
  EXPECT_NE(second, std::string::npos) << run.out;
  EXPECT_LT(first, second) << "in list order";
  EXPECT_EQ(run.out.find(".kml"), std::string::npos) << "igc only";
  EXPECT_EQ(Files(dir), (std::vector<std::string>{taskName, headName}));
  EXPECT_TRUE(test::ReadFile(dir.File(taskName)) == task);
  EXPECT_TRUE(test::ReadFile(dir.File(headName)) == head);

  // Again with --skip: both are there already and stay as they are.
  dir.Write(taskName, "kept");
  run = Kestrix(dir.path(), {"-gsy", "-Ligc", "--skip"});
  EXPECT_NE(run.out.find("File " + taskName + " already exists\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("File " + headName + " already exists\n"), std::string::npos) << run.out;
  EXPECT_EQ(test::ReadFile(dir.File(taskName)), "kept");
  EXPECT_TRUE(test::ReadFile(dir.File(headName)) == head);
  EXPECT_EQ(Files(dir).size(), 2u);
  EXPECT_EQ(bus.OpenHandles(), 0);
  EXPECT_EQ(bus.Violations(), std::vector<std::string>{});
}

}  // namespace
