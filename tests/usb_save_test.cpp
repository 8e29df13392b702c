// Syride downloads through the whole program in this process: the emulated
// instrument on the bus, the command line, and the files left in the folder.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/run.h"
#include "igc/igc.h"
#include "support.h"
#include "usb_emulator.h"

namespace {

const std::string kSixpack = std::string(KESTRIX_TEST_DATA) + "/fastlz/sixpack/";

// kestrix with `args` in `dir`, against an emulated bus built from `setup`.
test::RunResult Kestrix(const test::TempDir& dir, const std::vector<std::string>& setup,
                        const std::vector<std::string>& args) {
  usbemu::Bus bus;
  usbemu::Installed installed(&bus);
  std::string typed;
  usbemu::Build(bus, setup, &typed);
  test::RunResult run = test::RunInProcess(args, dir.path());
  test::FreshRunParameters();
  EXPECT_EQ(bus.Problems(), "");
  return run;
}

TEST(UsbSave, ASysNavFlightBecomesASignedIgcFileAndADocument) {
  test::TempDir dir;
  const test::RunResult run = Kestrix(dir, {"device nav 1 21", "nav all new 3"}, {"-gsy", "-f1", "-l"});
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(
      run.out.ends_with("\nMaking igc log\nFile 2023-10-07_13-54.igc written\nComputing statistics\n"
                        "Finding greatest out-and-return (gap = 800m)\nFinding greatest triangles (gap = 800m)\n"
                        "File 2023-10-07_13-54.kml written, signature OK\n"))
      << run.out;
  EXPECT_EQ(test::FilesIn(dir.path()), (std::vector<std::string>{"2023-10-07_13-54.igc", "2023-10-07_13-54.kml"}));
  const std::string igc = test::ReadFile(dir.File("2023-10-07_13-54.igc"));
  EXPECT_TRUE(igc.starts_with("AXKX Syride SYS\xC2\xB4Nav, SNR 4711, SW 1.21\r\n")) << igc.substr(0, 60);
  EXPECT_NE(igc.find("\r\nG"), std::string::npos) << "signed";
  testing::internal::CaptureStdout();
  const int32_t read =
      DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(igc.data()), static_cast<int32_t>(igc.size()), nullptr, 0);
  testing::internal::GetCapturedStdout();
  EXPECT_GE(read, 0);
  EXPECT_EQ(tGps.nTrackPoints, 4011);
  test::FreshRunParameters();
}

TEST(UsbSave, AllEvolutionFlightsAreWrittenAsTheyCameAndARepeatAddsNothing) {
  // Named after the date line and the first fix of their text, in list order.
  const std::vector<std::string> setup = {
      "device evo 2 35", "evo fastlz/sixpack/hg-flytec6030-litespeed-task.l1.6pk 40 10616 2014-03-15T09:00:00",
      "evo fastlz/sixpack/evolution-head-131092.l2.6pk 10 3600 2019-06-08T09:00:00"};
  const std::string task = "2014-03-15_02-04.igc", head = "2019-06-08_08-03.igc";
  test::TempDir dir;
  test::RunResult run = Kestrix(dir, setup, {"-gsy", "-Ligc"});
  EXPECT_EQ(run.status, 0);
  const size_t first = run.out.find("Raw igc log downloaded (207654 bytes)\nFile " + task + " written\n");
  const size_t second = run.out.find("Raw igc log downloaded (131092 bytes)\nFile " + head + " written\n");
  EXPECT_TRUE(first < second && second != std::string::npos) << run.out;
  EXPECT_EQ(run.out.find(".kml"), std::string::npos) << "igc only";
  EXPECT_EQ(test::FilesIn(dir.path()), (std::vector<std::string>{task, head}));
  EXPECT_TRUE(test::ReadFile(dir.File(task)) == test::ReadFile(kSixpack + "hg-flytec6030-litespeed-task.igc"));
  EXPECT_TRUE(test::ReadFile(dir.File(head)) == test::ReadFile(kSixpack + "evolution-head-131092.igc"));
  // Again with --skip: both are there already and stay as they are.
  dir.Write(task, "kept");
  run = Kestrix(dir, setup, {"-gsy", "-Ligc", "--skip"});
  EXPECT_NE(run.out.find("File " + task + " already exists\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("File " + head + " already exists\n"), std::string::npos) << run.out;
  EXPECT_EQ(test::ReadFile(dir.File(task)), "kept");
  EXPECT_TRUE(test::ReadFile(dir.File(head)) == test::ReadFile(kSixpack + "evolution-head-131092.igc"));
  EXPECT_EQ(test::FilesIn(dir.path()).size(), 2u);
}

}  // namespace
