// The Syride USB commands against emulated instruments: the scenarios of
// tests/data/syride/scenarios.txt (output and traffic as recorded there),
// lost transfers, the real libusb, and whole downloads through the program.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/clock.h"
#include "core/run.h"
#include "support.h"
#include "usb/syride.h"
#include "usb_emulator.h"

namespace {

using usbemu::Bytes;

// The wall clock stands still (a progress count shows only its first and
// last number) and the calendar shows kFrozenUtc.
const ClockSource kFrozen = {[]() -> uint64_t { return 0; }, SystemClock().processorMicroseconds,
                             []() -> int64_t { return test::kFrozenUtc; }};

struct Rig {
  usbemu::Bus bus;
  const ClockSource* clock = UseClockSource(&kFrozen);
  Rig() { test::FreshRunParameters(); }
  ~Rig() { test::FreshRunParameters(), UseClockSource(clock); }
};

std::string Short(const std::string& bytes) { return test::Sha256(bytes).substr(0, 16); }

// The values joined by spaces, as a line.
template <typename... T>
std::string Line(const T&... values) {
  std::ostringstream out;
  ((out << values << ' '), ...);
  std::string line = out.str();
  line.back() = '\n';
  return line;
}

// The track log and the raw text left in the run record.
std::string LogFacts() {
  std::string facts, track;
  for (const TrackPoint* p = tGps.pTrackPoints; p < tGps.pTrackPoints + tGps.nTrackPoints; ++p) {
    track += Line(p->dwFlags, p->dwTime, p->lLatitude, p->lLongitude, p->lGpsAltitude, p->lPressureAltitude);
  }
  if (tGps.nTrackPoints > 0) facts += Line("track", tGps.nTrackPoints, tGps.pTrackPoints[0].dwTime, Short(track));
  if (tGps.pbRawLog == nullptr) return facts;
  return facts + Line("raw", tGps.nRawLogLength, Short(std::string(tGps.pbRawLog, tGps.pbRawLog + tGps.nRawLogLength)));
}

std::string saved;  // what the track saver of a bulk download was handed
int32_t Save() {
  saved += "saved: " + LogFacts();
  return 0;
}

// Runs a scenario's command; its output ("> " lines, escaped), then the facts.
std::string Transcript(usbemu::Bus& bus, const std::vector<std::string>& run) {
  syride::SyrideDevice device{};
  int32_t result = 0;
  const std::string command = run.at(1), number = run.size() > 2 ? run[2] : "0";
  tGps.nFlightNumber = std::atoi(number.c_str());
  if (command == "bulk" || number == "all") tGps.dwCommand = kCommandDownloadAllTracks;
  saved.clear();
  testing::internal::CaptureStdout();
  if (command == "download") result = DownloadSyrideTrackLog();
  if (command == "bulk") result = DownloadSyrideBulkTrackLog(Save);
  std::string io;  // what each load or memory command gave
  if (command == "load") {
    io += Line("load", syride::LoadLibUsbLibrary(0), "closed", bus.librariesClosed, "hid", bus.hidInits);
    bus.libraryMissing = false, bus.missingSymbols.clear();
    io += Line("again", syride::LoadLibUsbLibrary(1));
    io += Line("again", syride::LoadLibUsbLibrary(1));
    for (const std::string& name : bus.symbolsLookedUp)
      io += name + (&name == &bus.symbolsLookedUp.back() ? "\n" : " ");
  }
  if (command == "open" || command == "identify" || command == "list" || command == "io") {
    syride::LoadLibUsbLibrary(1);
    const bool open = command == "open" || command == "io";
    result = open ? syride::OpenbHidDevice(&device) : syride::SyrideReadProductData(&device);
    if (command == "list" && result == 0) result = syride::SyrideReadTrackList(&device);
    Bytes data(512);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7 + 1);
    for (size_t i = 2; command == "io" && i < run.size(); ++i) {
      const std::vector<std::string> op = usbemu::Split(run[i], ':');
      const uint32_t address = std::stoul(op[1], nullptr, 0), length = op.size() > 2 ? std::stoul(op[2]) : 0;
      const int32_t done = op[0] == "write"   ? syride::USB_WriteData(&device, address, data.data(), length)
                           : op[0] == "block" ? syride::USB_WriteBlock(&device, address, data.data())
                           : op[0] == "erase" ? syride::USB_EraseFlashSubSector(&device, address)
                           : op[0] == "track" ? syride::ReadSelectedTrack(&device, static_cast<int32_t>(address))
                                              : syride::USB_ReadData(&device, address, data.data(), length);
      io += Line(run[i], done, Short(std::string(data.begin(), data.begin() + length)));
    }
    syride::CloseHidDevice(&device);
    syride::CloseHidDevice(&device);  // once closed, nothing more to close
  }
  std::string out;
  for (const std::string& line : usbemu::Split(test::Escape(testing::internal::GetCapturedStdout()), '\n')) {
    out += "> " + (line.back() == ' ' ? line.substr(0, line.size() - 1) + "\\x20" : line) + "\n";
  }
  out += Line("result", result) + io;
  if (device.dwProductId != 0) {
    out += Line("device", device.dwProductId, std::to_string(device.dwMajor) + "." + std::to_string(device.dwMinor),
                "new", +device.bNewFormat, device.bWaypointFormat);
  }
  for (int32_t i = 0; i < (device.bListRead != 0 ? device.nFlights : 0); ++i) {
    const syride::FlightEntry& f = device.aFlights[i];
    out += Line("flight", f.dwStartTime, f.dwDuration, f.dwStartValue, f.dwSize);
  }
  out += saved + LogFacts();
  if (command == "download" && result == 0) {
    out +=
        Line("flags", tGps.bUtc, tGps.bSignature, tGps.bPressureAltitude, tGps.dwDownloadTime, tGps.dwFirstPointTime);
  }
  for (size_t i = 0; i < bus.devices.size(); ++i) {
    const usbemu::Device& d = *bus.devices[i];
    std::string requests, reads;
    for (const usbemu::Report& r : d.requests) requests.append(r.begin(), r.end());
    for (const auto& [address, length] : d.memoryReads) reads += Line(address, length);
    if (d.opens > 0) {
      out += Line("device", i, "opened", d.opens, d.requests.size(), Short(requests), "reads", d.memoryReads.size(),
                  Short(reads));
    }
  }
  return out + Line("libraries", bus.librariesOpened.size(), bus.inits, bus.hidInits, bus.slept);
}

TEST(UsbScenario, EveryScenarioAsRecorded) {
  std::ifstream file(std::string(KESTRIX_TEST_DATA) + "/syride/scenarios.txt");
  std::vector<std::vector<std::string>> setups;  // name, setup lines, "expect" and what follows
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("case ", 0) == 0) setups.emplace_back();
    if (!line.empty() && line[0] != '#') setups.back().push_back(line);
  }
  ASSERT_GT(setups.size(), 40u);
  for (std::vector<std::string>& lines : setups) {
    SCOPED_TRACE(lines[0]);
    const auto expect = std::find(lines.begin(), lines.end(), "expect");
    std::string expected, typed;
    for (auto line = expect + 1; line < lines.end(); ++line) expected += *line + "\n";
    Rig rig;
    const std::vector<std::string> run = usbemu::Build(rig.bus, {lines.begin() + 1, expect}, &typed);
    test::FakeStdin input(test::Unescape(typed));
    EXPECT_EQ(Transcript(rig.bus, run), expected);
    EXPECT_EQ(rig.bus.Problems(), "");
  }
}

// A small flight of each model: every transfer of its download lost in turn,
// on the way out or back, moving nothing or half a report.
TEST(UsbScenario, EveryLostTransferEndsCleanly) {
  const std::string messages =
      "> USB HID access error (version)\n> USB HID access error (SNR)\n"
      "> USB HID access error\n> Flight memory / duration inconsistency\n";
  for (const auto& [device, flight] :
       std::vector<std::pair<std::string, std::string>>{{"device nav 1 0", "nav first:61 old 2"},
                                                        {"device v3 3 0", "v3 first:61 old 2"},
                                                        {"device evo 2 35", "evo syride/one-fix.6pk 2 61"}}) {
    std::string typed;
    std::vector<usbemu::Report> requests;
    {
      Rig rig;
      ASSERT_NE(
          Transcript(rig.bus, usbemu::Build(rig.bus, {device, flight, "run download 1"}, &typed)).find("result 0"),
          std::string::npos);
      requests = rig.bus.devices[0]->requests;
    }
    for (size_t k = 1; k <= requests.size(); ++k) {
      for (const char* fault : {" write=", " read=", " short write=", " short read="}) {
        SCOPED_TRACE(device + fault + std::to_string(k));
        Rig rig;
        const std::string out = Transcript(
            rig.bus, usbemu::Build(rig.bus, {device + fault + std::to_string(k), flight, "run download 1"}, &typed));
        EXPECT_EQ(rig.bus.Problems(), "");
        const usbemu::Report& r = requests[k - 1];
        // The waypoint block only serves the waypoint format: the download goes on.
        const bool waypoints = r[1] == syride::kCommandReadMemory && r[2] == 0x49 && r[3] == 0xF6 && r[4] == 0x10;
        const size_t end = out.find(waypoints ? "result 0\n" : "result -1\n"), last = out.rfind("> ", end);
        ASSERT_NE(end, std::string::npos);
        EXPECT_TRUE(waypoints || messages.find(out.substr(last, end - last)) != std::string::npos) << out;
        EXPECT_TRUE(waypoints || (out.find("track ") == std::string::npos && out.find("raw ") == std::string::npos));
      }
    }
  }
}

TEST(UsbLoad, FindsTheInstalledLibrary) {
#ifndef __APPLE__
  EXPECT_STREQ(syride::kLibUsbLibraryName, "libusb-1.0.so.0");
#endif
  // In a child: the real library starts threads of its own and is never unloaded.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    syride::UseUsbPlatform(nullptr);
    _exit(syride::LoadLibUsbLibrary(0) == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// kestrix with `args` in `dir`, against an emulated bus built from `setup`.
test::RunResult Kestrix(const test::TempDir& dir, const std::vector<std::string>& setup,
                        const std::vector<std::string>& args) {
  usbemu::Bus bus;
  std::string typed;
  usbemu::Build(bus, setup, &typed);
  test::RunResult run = test::RunInProcess(args, dir.path());
  test::FreshRunParameters();
  EXPECT_EQ(bus.Problems(), "");
  return run;
}

TEST(UsbSave, ASysNavFlightBecomesASignedIgcFileAndADocument) {
  test::TempDir dir;
  const test::RunResult run = Kestrix(dir, {"device nav 1 21", "nav forth new 3"}, {"-gsy", "-f1", "-l"});
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
  const std::vector<std::string> lines = usbemu::Split(igc, '\n');
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const std::string& line) { return line[0] == 'B'; }), 4011);
}

TEST(UsbSave, AllEvolutionFlightsAreWrittenAsTheyCame) {
  // Named after the date line and the first fix of their text, in list order.
  const std::vector<std::string> setup = {
      "device evo 2 35", "evo fastlz/sixpack/hg-flytec6030-litespeed-task.l1.6pk 40 10616 2014-03-15T09:00:00",
      "evo fastlz/sixpack/evolution-head-131092.l2.6pk 10 3600 2019-06-08T09:00:00"};
  const std::string task = "2014-03-15_02-04.igc", head = "2019-06-08_08-03.igc";
  test::TempDir dir;
  const test::RunResult run = Kestrix(dir, setup, {"-gsy", "-Ligc"});
  EXPECT_EQ(run.status, 0);
  const size_t first = run.out.find("Raw igc log downloaded (207654 bytes)\nFile " + task + " written\n");
  const size_t second = run.out.find("Raw igc log downloaded (131092 bytes)\nFile " + head + " written\n");
  EXPECT_TRUE(first < second && second != std::string::npos) << run.out;
  EXPECT_EQ(test::FilesIn(dir.path()), (std::vector<std::string>{task, head}));
  const std::string sixpack = std::string(KESTRIX_TEST_DATA) + "/fastlz/sixpack/";
  EXPECT_TRUE(test::ReadFile(dir.File(task)) == test::ReadFile(sixpack + "hg-flytec6030-litespeed-task.igc"));
  EXPECT_TRUE(test::ReadFile(dir.File(head)) == test::ReadFile(sixpack + "evolution-head-131092.igc"));
}

}  // namespace
