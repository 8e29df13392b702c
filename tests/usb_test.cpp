// The Syride USB commands against emulated instruments: loading libusb, the
// reports, and the scenarios of tests/data/syride/scenarios.txt, whose
// output and traffic must be as recorded there.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "core/clock.h"
#include "core/run.h"
#include "support.h"
#include "usb/syride.h"
#include "usb_emulator.h"

namespace {

using usbemu::Answer;
using usbemu::Bytes;
using usbemu::Model;

// The wall clock stands still (a progress count shows only its first and
// last number) and the calendar shows kFrozenUtc.
const ClockSource kFrozen = {[]() -> uint64_t { return 0; }, SystemClock().processorMicroseconds,
                             []() -> int64_t { return test::kFrozenUtc; }};

struct Rig {
  usbemu::Bus bus;
  usbemu::Installed installed{&bus};
  const ClockSource* clock = UseClockSource(&kFrozen);
  Rig() { test::FreshRunParameters(); }
  ~Rig() {
    test::FreshRunParameters();
    UseClockSource(clock);
  }
};

std::string Short(const std::string& bytes) { return test::Sha256(bytes).substr(0, 16); }
std::string Text(uint32_t a, uint32_t b) { return std::to_string(a) + " " + std::to_string(b); }

// The track log and the raw text left in the run record.
std::string LogFacts() {
  std::string facts, track;
  for (int32_t i = 0; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    track += Text(p.dwFlags, p.dwTime) + " " + std::to_string(p.lLatitude) + " " + std::to_string(p.lLongitude) + " " +
             std::to_string(p.lGpsAltitude) + " " + std::to_string(p.lPressureAltitude) + "\n";
  }
  if (tGps.nTrackPoints > 0)
    facts += "track " + Text(tGps.nTrackPoints, tGps.pTrackPoints[0].dwTime) + " " + Short(track) + "\n";
  if (tGps.pbRawLog != nullptr) {
    facts += "raw " + std::to_string(tGps.nRawLogLength) + " " +
             Short(std::string(reinterpret_cast<const char*>(tGps.pbRawLog), tGps.nRawLogLength)) + "\n";
  }
  return facts;
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
  tGps.nFlightNumber = number == "all" ? 0 : std::stoi(number);
  if (command == "bulk" || number == "all") tGps.dwCommand = kCommandDownloadAllTracks;
  saved.clear();
  testing::internal::CaptureStdout();
  if (command == "download") result = DownloadSyrideTrackLog();
  if (command == "bulk") result = DownloadSyrideBulkTrackLog(Save);
  if (command == "open" || command == "identify" || command == "list") {
    syride::LoadLibUsbLibrary(1);
    result = command == "open" ? syride::OpenbHidDevice(&device) : syride::SyrideReadProductData(&device);
    if (command == "list" && result == 0) result = syride::SyrideReadTrackList(&device);
    syride::CloseHidDevice(&device);
    syride::CloseHidDevice(&device);  // once closed, nothing more to close
  }
  std::string out;
  for (const std::string& line : usbemu::Split(test::Escape(testing::internal::GetCapturedStdout()), '\n')) {
    out += "> " + (line.back() == ' ' ? line.substr(0, line.size() - 1) + "\\x20" : line) + "\n";
  }
  out += "result " + std::to_string(result) + "\n";
  if (device.dwProductId != 0) {
    out += "device " + Text(device.dwProductId, device.dwMajor) + "." + std::to_string(device.dwMinor) + " new " +
           Text(device.bNewFormat, device.bWaypointFormat) + "\n";
  }
  for (int32_t i = 0; i < (device.bListRead != 0 ? device.nFlights : 0); ++i) {
    const syride::FlightEntry& f = device.aFlights[i];
    out += "flight " + Text(f.dwStartTime, f.dwDuration) + " " + Text(f.dwStartValue, f.dwSize) + "\n";
  }
  out += saved + LogFacts();
  if (command == "download" && result == 0) {
    out += "flags " + Text(tGps.bUtc, tGps.bSignature) + " " + Text(tGps.bPressureAltitude, tGps.dwDownloadTime) + " " +
           std::to_string(tGps.dwFirstPointTime) + "\n";
  }
  for (size_t i = 0; i < bus.devices.size(); ++i) {
    const usbemu::Device& d = *bus.devices[i];
    std::string requests, reads;
    for (const usbemu::Report& r : d.requests) requests.append(r.begin(), r.end());
    for (const auto& [address, length] : d.memoryReads)
      reads += std::to_string(address) + " " + std::to_string(length) + "\n";
    if (d.opens == 0) continue;
    out += "device " + std::to_string(i) + " opened " + Text(d.opens, d.requests.size()) + " " + Short(requests) +
           " reads " + std::to_string(d.memoryReads.size()) + " " + Short(reads) + "\n";
  }
  return out + "libraries " + Text(bus.librariesOpened.size(), bus.inits) + " " + Text(bus.hidInits, bus.slept) + "\n";
}

TEST(UsbScenario, EveryScenarioAsRecorded) {
  std::ifstream file(std::string(KESTRIX_TEST_DATA) + "/syride/scenarios.txt");
  std::vector<std::string> names, expected;
  std::vector<std::vector<std::string>> setups;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line.rfind("case ", 0) == 0) {
      names.push_back(line.substr(5));
      setups.emplace_back();
      expected.emplace_back();
    } else if (line == "expect" || !expected.back().empty()) {
      expected.back() += line == "expect" ? "\n" : line + "\n";
    } else {
      setups.back().push_back(line);
    }
  }
  ASSERT_GT(names.size(), 40u);
  for (size_t i = 0; i < names.size(); ++i) {
    SCOPED_TRACE(names[i]);
    Rig rig;
    std::string typed;
    const std::vector<std::string> run = usbemu::Build(rig.bus, setups[i], &typed);
    test::FakeStdin input(typed);
    EXPECT_EQ("\n" + Transcript(rig.bus, run), expected[i]);
    EXPECT_EQ(rig.bus.Problems(), "");
  }
}

// A small flight of each model: every transfer of its download lost in turn,
// on the way out or back, moving nothing or half a report.
TEST(UsbScenario, EveryLostTransferEndsCleanly) {
  const std::vector<std::vector<std::string>> models = {
      {"device nav 1 0", "nav first:61 old 2", "run download 1"},
      {"device v3 3 0", "v3 first:61 old 2", "run download 1"},
      {"device evo 2 35", "evo syride/one-fix.6pk 2 61 2023-10-07T13:54:08", "run download 1"}};
  const std::string messages =
      "> USB HID access error (version)\n> USB HID access error (SNR)\n"
      "> USB HID access error\n> Flight memory / duration inconsistency\n";
  for (const std::vector<std::string>& setup : models) {
    std::string typed;
    std::vector<usbemu::Report> requests;
    {
      Rig rig;
      ASSERT_NE(Transcript(rig.bus, usbemu::Build(rig.bus, setup, &typed)).find("result 0\n"), std::string::npos);
      requests = rig.bus.devices[0]->requests;
    }
    ASSERT_GT(requests.size(), 10u);
    for (size_t k = 1; k <= requests.size(); ++k) {
      for (const char* fault : {" write=", " read=", " short write=", " short read="}) {
        SCOPED_TRACE(setup[0] + fault + std::to_string(k));
        Rig rig;
        std::vector<std::string> lines = setup;
        lines[0] += fault + std::to_string(k);
        const std::string out = Transcript(rig.bus, usbemu::Build(rig.bus, lines, &typed));
        EXPECT_EQ(rig.bus.Problems(), "");
        const usbemu::Report& r = requests[k - 1];
        if (r[1] == syride::kCommandReadMemory && r[2] == 0x49 && r[3] == 0xF6 && r[4] == 0x10) {
          // The waypoint block only serves the waypoint format: the download goes on.
          EXPECT_NE(out.find("result 0\n"), std::string::npos);
          continue;
        }
        const size_t end = out.find("result -1\n");
        ASSERT_NE(end, std::string::npos);
        const std::string last = out.substr(out.rfind("> ", end), end - out.rfind("> ", end));
        EXPECT_NE(messages.find(last), std::string::npos) << last;
        EXPECT_EQ(out.find("track "), std::string::npos);
        EXPECT_EQ(out.find("raw "), std::string::npos);
      }
    }
  }
}

TEST(UsbLoad, OnlyTheFourEnumerationFunctionsAreRequiredAndAFailedLoadIsTriedAgain) {
#ifndef __APPLE__
  EXPECT_STREQ(syride::kLibUsbLibraryName, "libusb-1.0.so.0");
#endif
  const std::string names =
      "libusb_init libusb_get_device_list libusb_free_device_list libusb_get_device_descriptor "
      "libusb_open libusb_close libusb_kernel_driver_active libusb_detach_kernel_driver "
      "libusb_claim_interface libusb_release_interface libusb_open_device_with_vid_pid";
  for (int i = 0; i < 11; ++i) {
    SCOPED_TRACE(syride::kLibUsbSymbolNames[i]);
    Rig rig;
    rig.bus.missingSymbols = {syride::kLibUsbSymbolNames[i]};
    const bool required = i < syride::kLibUsbRequiredSymbols;
    EXPECT_EQ(syride::LoadLibUsbLibrary(0), required ? -1 : 0);
    EXPECT_EQ(rig.bus.symbolsLookedUp, usbemu::Split(names, ' '));
    EXPECT_EQ(rig.bus.librariesClosed, required ? 1 : 0);
    rig.bus.missingSymbols.clear();
    EXPECT_EQ(rig.bus.hidInits, 0);
    EXPECT_EQ(syride::LoadLibUsbLibrary(1), 0);
    EXPECT_EQ(syride::LoadLibUsbLibrary(1), 0);
    EXPECT_EQ(rig.bus.librariesOpened, std::vector<std::string>(required ? 2 : 1, syride::kLibUsbLibraryName));
    EXPECT_EQ(rig.bus.inits, 1);
    EXPECT_EQ(rig.bus.hidInits, 1);
  }
}

TEST(UsbLoad, FindsTheInstalledLibrary) {
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

TEST(UsbReports, ReadingUncheckedWritingAndErasing) {
  Rig rig;
  usbemu::Device& evolution = rig.bus.Add(Model::kEvolution, 2, 35);
  usbemu::Device& nav = rig.bus.Add(Model::kNav, 1, 21);
  syride::LoadLibUsbLibrary(1);
  Bytes block(512);
  for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(i * 7 + 1);
  syride::SyrideDevice device{};
  ASSERT_EQ(syride::OpenbHidDevice(&device), 0);
  evolution.answer = [](const usbemu::Report& r, int n) {
    return r[1] == syride::kCommandWriteBuffer && n % 4 == 0 ? Answer::kBadStatus : Answer::kGood;
  };
  EXPECT_EQ(syride::USB_WriteBlock(&device, 0x10F649, block.data()), 0);
  ASSERT_EQ(evolution.commits.size(), 1u);
  EXPECT_EQ(evolution.commits[0].first, 0x10F649u);
  EXPECT_TRUE(evolution.commits[0].second == block);
  std::vector<std::pair<int, int>> pieces, expected;  // offset, length; a repeated piece counted once
  for (const usbemu::Report& r : evolution.requests) {
    const std::pair<int, int> piece{r[2] | (r[3] << 8), r[4]};
    if (r[1] == syride::kCommandWriteBuffer && (pieces.empty() || pieces.back() != piece)) pieces.push_back(piece);
  }
  for (int i = 0; i < 9; ++i) expected.emplace_back(58 * i, i < 8 ? 58 : 48);
  EXPECT_EQ(pieces, expected);
  EXPECT_EQ(evolution.requests.size(), 10u + 2u);  // two asked again
  // An erase starts from a cleared report, whatever the writes left in it.
  EXPECT_EQ(syride::USB_EraseFlashSubSector(&device, 0x30000), 0);
  EXPECT_EQ(evolution.erases, std::vector<uint32_t>{0x30000});
  syride::CloseHidDevice(&device);

  evolution.openFails = true;
  testing::internal::CaptureStdout();
  ASSERT_EQ(syride::OpenbHidDevice(&device), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(syride::USB_WriteData(&device, 0x20000, block.data(), 150), 0);
  ASSERT_EQ(nav.commits.size(), 1u);
  EXPECT_EQ(nav.commits[0].first, 0x20000u);
  EXPECT_TRUE(std::equal(block.begin(), block.begin() + 150, nav.commits[0].second.begin()));
  ASSERT_EQ(nav.requests.size(), 4u);
  EXPECT_EQ(Text(nav.requests[0][3], nav.requests[1][2]) + " " + Text(nav.requests[2][2], nav.requests[2][3]),
            "59 59 118 32");
  // Memory reads take any answer, bad ones too.
  nav.memory[0x1000] = block;
  nav.answer = [](const usbemu::Report&, int) { return Answer::kBadStatus; };
  Bytes got(100);
  EXPECT_EQ(syride::USB_ReadData(&device, 0x1000, got.data(), 100), 0);
  EXPECT_EQ(nav.requests.size(), 6u);
  EXPECT_EQ(got[0], block[0] ^ 0xA5);
  EXPECT_EQ(got[99], block[99] ^ 0xA5);
  nav.failWriteAt = 7;
  EXPECT_EQ(syride::USB_WriteData(&device, 0x20000, block.data(), 10), -1);
  nav.failWriteAt = 0;
  nav.failReadAt = 7;
  EXPECT_EQ(syride::USB_ReadData(&device, 0x1000, got.data(), 10), -1);
  syride::CloseHidDevice(&device);
  EXPECT_EQ(rig.bus.Problems(), "");
}

}  // namespace
