// The Syride USB command layer against emulated instruments: loading libusb,
// finding the device, identification, the flight list and the downloads.
#include "usb/syride.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "core/run.h"
#include "support.h"
#include "syride_emulator.h"

namespace {

using emu::Answer;
using emu::Model;

const std::string kData = KESTRIX_TEST_DATA;
constexpr uint32_t kGpsEpochUnix = 631065600;

// A bus with the emulated instruments installed, fresh run parameters and
// the test consumers of downloaded flights.
struct Rig {
  emu::Bus bus;
  emu::Installed installed{&bus};
  emu::Consumers consumers;
  Rig() { test::FreshRunParameters(); }
  ~Rig() { test::FreshRunParameters(); }
};

template <typename F>
std::string Captured(F body) {
  testing::internal::CaptureStdout();
  body();
  return testing::internal::GetCapturedStdout();
}

// Standard input holding `text` for the lifetime of the object.
class StdinText {
 public:
  explicit StdinText(const std::string& text) {
    int p[2];
    if (pipe(p) != 0) throw std::runtime_error("pipe");
    if (write(p[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) throw std::runtime_error("write");
    close(p[1]);
    saved_ = dup(STDIN_FILENO);
    dup2(p[0], STDIN_FILENO);
    close(p[0]);
  }
  ~StdinText() {
    dup2(saved_, STDIN_FILENO);
    close(saved_);
  }

 private:
  int saved_;
};

// A flight one fix a second, with the positions as the IGC file wrote them.
struct Series {
  uint32_t unixStart = 0;
  std::vector<emu::Fix> fixes;
  std::vector<int32_t> lat1000, lon1000;  // thousandths of a minute; 0 where there is no fix
  std::vector<bool> fixed;

  void Append(const emu::IgcFlight& flight, size_t i) {
    fixes.push_back(flight.fixes[i]);
    lat1000.push_back(flight.latitudeMin1000[i]);
    lon1000.push_back(flight.longitudeMin1000[i]);
    fixed.push_back(true);
  }
  void AppendNoFix(int32_t barometric) {
    fixes.push_back({emu::kNoFix, emu::kNoFix, barometric, barometric + 40});
    lat1000.push_back(0);
    lon1000.push_back(0);
    fixed.push_back(false);
  }
  uint16_t duration() const { return static_cast<uint16_t>(fixes.size()); }
  size_t fixCount() const { return static_cast<size_t>(std::count(fixed.begin(), fixed.end(), true)); }
};

const emu::IgcFlight& RealFlight() {
  static const emu::IgcFlight flight = emu::ReadIgcFlight(kData + "/syride/pg-syride-navv3-lf.igc");
  return flight;
}

// The real flight: forwards; forwards then back again; or after a minute
// waiting for a fix.
Series Forwards(size_t seconds = 0) {
  const emu::IgcFlight& flight = RealFlight();
  Series s;
  s.unixStart = flight.unixStart;
  size_t n = seconds == 0 ? flight.fixes.size() : seconds;
  for (size_t i = 0; i < n; ++i) s.Append(flight, i);
  return s;
}

Series ThereAndBack() {
  Series s = Forwards();
  const emu::IgcFlight& flight = RealFlight();
  for (size_t i = flight.fixes.size(); i-- > 0;) s.Append(flight, i);
  return s;
}

Series AfterAMinuteWithoutFix() {
  const emu::IgcFlight& flight = RealFlight();
  Series s;
  s.unixStart = flight.unixStart - 60;
  for (int i = 0; i < 60; ++i) s.AppendNoFix(flight.fixes[0].barometric);
  for (size_t i = 0; i < flight.fixes.size(); ++i) s.Append(flight, i);
  return s;
}

std::vector<uint8_t> Memory(const Series& s, bool newFormat) {
  std::vector<uint8_t> bytes = emu::EncodeFlightMemory(s.fixes, newFormat);
  if (bytes.empty()) throw std::runtime_error("flight does not fit the delta records");
  return bytes;
}

int32_t ArcsOf(int32_t min1000) { return static_cast<int32_t>(std::llround(min1000 * 198.8410785185)); }

// The track log against the flight it came from.
void ExpectTrack(const Series& s, bool newFormat) {
  ASSERT_EQ(static_cast<size_t>(tGps.nTrackPoints), s.fixCount());
  size_t n = 0;
  for (size_t i = 0; i < s.fixes.size(); ++i) {
    if (!s.fixed[i]) continue;
    const TrackPoint& p = tGps.pTrackPoints[n++];
    SCOPED_TRACE("second " + std::to_string(i));
    ASSERT_EQ(p.dwTime, s.unixStart - kGpsEpochUnix + i);
    ASSERT_EQ(p.dwFlags, i == 0 ? 1u : 0u);
    // 1e-7 degrees and thousandths of a minute round differently.
    ASSERT_NEAR(p.lLatitude, ArcsOf(s.lat1000[i]), 2);
    ASSERT_NEAR(p.lLongitude, ArcsOf(s.lon1000[i]), 2);
    ASSERT_EQ(p.lGpsAltitude, s.fixes[i].barometric * 10);
    size_t key = i - i % 60;
    int32_t second = s.fixes[key].gps + s.fixes[i].barometric - s.fixes[key].barometric;
    ASSERT_EQ(p.lPressureAltitude, newFormat ? second : 0);
  }
}

void ExpectCleanBus(const emu::Bus& bus) {
  EXPECT_EQ(bus.Violations(), std::vector<std::string>{});
  EXPECT_EQ(bus.OpenHandles(), 0);
  EXPECT_EQ(bus.listsOutstanding, 0);
  EXPECT_EQ(bus.listsFreedWithoutUnref, 0);
}

std::string Tail(const std::string& out) {
  size_t end = out.size() > 0 ? out.size() - 1 : 0;
  size_t start = out.rfind('\n', end > 0 ? end - 1 : 0);
  return start == std::string::npos ? out : out.substr(start + 1);
}

uint32_t Unix(int year, int month, int day, int hour, int minute, int second) {
  std::tm t{};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  return static_cast<uint32_t>(timegm(&t));
}

std::vector<uint8_t> WaypointBlock(bool newFormat) {
  std::vector<uint8_t> block(512, 0x20);
  for (int i = 508; i < 512; ++i) block[static_cast<size_t>(i)] = 0xFE;
  if (!newFormat) block[511] = 0xFF;
  return block;
}

emu::Device& AddEvolution(emu::Bus& bus, uint32_t major = 2, uint32_t minor = 35) {
  emu::Device& device = bus.Add(Model::kEvolution, major, minor);
  device.Store(uint64_t{syride::kEvolutionWaypointBlock} * 512, WaypointBlock(true));
  return device;
}

// ---------------------------------------------------------------------------
// Loading libusb

TEST(LoadLibUsbLibrary, LoadsOnceLooksUpEverySymbolAndInitialisesOnce) {
#ifdef __APPLE__
  EXPECT_STREQ(syride::kLibUsbLibraryName, "libusb-1.0.0.dylib");
#else
  EXPECT_STREQ(syride::kLibUsbLibraryName, "libusb-1.0.so.0");
#endif
  Rig rig;
  EXPECT_EQ(syride::LoadLibUsbLibrary(0), 0);
  EXPECT_EQ(rig.bus.librariesOpened, std::vector<std::string>{syride::kLibUsbLibraryName});
  const std::vector<std::string> symbols = {"libusb_init",
                                            "libusb_get_device_list",
                                            "libusb_free_device_list",
                                            "libusb_get_device_descriptor",
                                            "libusb_open",
                                            "libusb_close",
                                            "libusb_kernel_driver_active",
                                            "libusb_detach_kernel_driver",
                                            "libusb_claim_interface",
                                            "libusb_release_interface",
                                            "libusb_open_device_with_vid_pid"};
  EXPECT_EQ(rig.bus.symbolsLookedUp, symbols);
  EXPECT_EQ(rig.bus.inits, 1);
  EXPECT_EQ(rig.bus.hidInits, 0);
  EXPECT_EQ(syride::LoadLibUsbLibrary(1), 0);
  EXPECT_EQ(syride::LoadLibUsbLibrary(1), 0);
  EXPECT_EQ(rig.bus.librariesOpened.size(), 1u);
  EXPECT_EQ(rig.bus.symbolsLookedUp.size(), symbols.size());
  EXPECT_EQ(rig.bus.inits, 1);
  EXPECT_EQ(rig.bus.hidInits, 1);
}

TEST(LoadLibUsbLibrary, OnlyTheFourEnumerationFunctionsAreRequired) {
  for (int i = 0; i < 11; ++i) {
    std::string missing = syride::kLibUsbSymbolNames[i];
    SCOPED_TRACE(missing);
    Rig rig;
    rig.bus.missingSymbols = {missing};
    rig.bus.Add(Model::kNav, 1, 21);
    bool required = i < syride::kLibUsbRequiredSymbols;
    EXPECT_EQ(syride::LoadLibUsbLibrary(1), required ? -1 : 0);
    EXPECT_EQ(rig.bus.librariesClosed, required ? 1 : 0);
    syride::SyrideDevice device{};
    std::string out = Captured([&] { EXPECT_EQ(syride::OpenbHidDevice(&device), required ? -1 : 0); });
    EXPECT_EQ(out, required ? "Failed to initialize libusb\n" : "");
    syride::CloseHidDevice(&device);
    ExpectCleanBus(rig.bus);
  }
}

TEST(LoadLibUsbLibrary, AMissingLibraryFailsAndIsTriedAgain) {
  Rig rig;
  rig.bus.libraryMissing = true;
  EXPECT_EQ(syride::LoadLibUsbLibrary(1), -1);
  EXPECT_EQ(rig.bus.hidInits, 0);
  rig.bus.libraryMissing = false;
  EXPECT_EQ(syride::LoadLibUsbLibrary(1), 0);
  EXPECT_EQ(rig.bus.librariesOpened.size(), 2u);
  EXPECT_EQ(rig.bus.hidInits, 1);
}

TEST(LoadLibUsbLibrary, FindsTheInstalledLibrary) {
  // In a child: the real library starts threads of its own and is never unloaded.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    syride::UseUsbPlatform(nullptr);
    _exit(syride::LoadLibUsbLibrary(0) == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ---------------------------------------------------------------------------
// Finding the instrument

TEST(OpenbHidDevice, TakesTheFirstSyrideInListOrderThatOpens) {
  Rig rig;
  emu::Device& mouse = rig.bus.Add(Model::kNav, 1, 0);
  mouse.vendor = 0x046D;
  mouse.product = 0xC077;
  emu::Device& other = rig.bus.Add(Model::kNav, 1, 0);
  other.product = 0x5740;  // same maker, not an instrument
  emu::Device& evolution = AddEvolution(rig.bus);
  evolution.openFails = true;
  emu::Device& nav = rig.bus.Add(Model::kNav, 1, 21);
  emu::Device& v3 = rig.bus.Add(Model::kNavV3, 3, 16);
  ASSERT_EQ(syride::LoadLibUsbLibrary(1), 0);
  syride::SyrideDevice device{};
  EXPECT_EQ(Captured([&] { EXPECT_EQ(syride::OpenbHidDevice(&device), 0); }), "Unable to open USB device 0483 5758\n");
  EXPECT_EQ(device.dwProductId, syride::kProductNav);
  EXPECT_EQ(nav.opens, 1);
  EXPECT_EQ(v3.opens + mouse.opens + other.opens, 0);
  syride::CloseHidDevice(&device);
  syride::CloseHidDevice(&device);  // once closed, nothing more to close
  EXPECT_EQ(nav.closes, 1);
  ExpectCleanBus(rig.bus);
}

TEST(OpenbHidDevice, TwoInstrumentsTheFirstInListOrderWins) {
  Rig rig;
  AddEvolution(rig.bus);
  rig.bus.Add(Model::kNav, 1, 21);
  std::string out = Captured([] {
    syride::SyrideDevice device{};
    syride::LoadLibUsbLibrary(1);
    EXPECT_EQ(syride::SyrideReadProductData(&device), 0);
    EXPECT_EQ(device.dwProductId, syride::kProductEvolution);
    syride::CloseHidDevice(&device);
  });
  EXPECT_EQ(out,
            "Syride SYS\xC2\xB4"
            "Evolution, SNR 4711, SW 2.35\n");
  EXPECT_EQ(rig.bus.devices[1]->requests.size(), 0u);
  ExpectCleanBus(rig.bus);
}

TEST(OpenbHidDevice, Failures) {
  struct Case {
    const char* what;
    void (*setUp)(emu::Bus&);
    std::string out;
  };
  const Case cases[] = {
      {"no instrument",
       [](emu::Bus& bus) {
         bus.Add(Model::kNav, 1, 0).vendor = 0x1234;
         bus.Add(Model::kNav, 1, 0).product = 0x5755;
       },
       "No matching USB vendor/product ID\n"},
      {"empty device list", [](emu::Bus& bus) { bus.listEmpty = true; }, "Failed to get USB device list\n"},
      {"no libusb context", [](emu::Bus& bus) { bus.initGivesNoContext = true; }, "Failed to initialize libusb\n"},
      {"every instrument busy",
       [](emu::Bus& bus) {
         bus.Add(Model::kNavV3, 3, 16).openFails = true;
         bus.Add(Model::kNav, 1, 21).openFails = true;
       },
       "Unable to open USB device 0483 5754\nUnable to open USB device 0483 5753\nNo matching USB vendor/product ID\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Rig rig;
    c.setUp(rig.bus);
    syride::LoadLibUsbLibrary(1);
    syride::SyrideDevice device{};
    EXPECT_EQ(Captured([&] { EXPECT_EQ(syride::OpenbHidDevice(&device), -1); }), c.out);
    EXPECT_EQ(device.hDevice, nullptr);
    ExpectCleanBus(rig.bus);
    // Identification reports it in its own words.
    EXPECT_EQ(Captured([&] { EXPECT_EQ(syride::SyrideReadProductData(&device), -1); }),
              c.out + "USB HID search. No matching devices found\n");
  }
}

// ---------------------------------------------------------------------------
// Identification

TEST(SyrideReadProductData, ModelsFirmwareGatesAndProductTexts) {
  struct Case {
    Model model;
    uint32_t major, minor;
    int32_t result;
    uint8_t newFormat;
    std::string product;  // empty when refused
  };
  const Case cases[] = {
      {Model::kNav, 1, 20, 0, 0, "Syride SYS\xC2\xB4Nav, SNR 4711, SW 1.20"},
      {Model::kNav, 1, 21, 0, 1, "Syride SYS\xC2\xB4Nav, SNR 4711, SW 1.21"},
      {Model::kNav, 0, 99, 0, 0, "Syride SYS\xC2\xB4Nav, SNR 4711, SW 0.99"},
      {Model::kNav, 2, 0, 0, 1, "Syride SYS\xC2\xB4Nav, SNR 4711, SW 2.0"},
      {Model::kNavV3, 3, 15, 0, 0, "Syride SYS\xC2\xB4Nav V3, SNR 4711, SW 3.15"},
      {Model::kNavV3, 3, 16, 0, 1, "Syride SYS\xC2\xB4Nav V3, SNR 4711, SW 3.16"},
      {Model::kNavV3, 2, 99, 0, 0, "Syride SYS\xC2\xB4Nav V3, SNR 4711, SW 2.99"},
      {Model::kNavV3, 4, 0, 0, 1, "Syride SYS\xC2\xB4Nav V3, SNR 4711, SW 4.0"},
      {Model::kEvolution, 2, 34, -1, 0, ""},
      {Model::kEvolution, 1, 99, -1, 0, ""},
      {Model::kEvolution, 2, 35, 0, 1,
       "Syride SYS\xC2\xB4"
       "Evolution, SNR 4711, SW 2.35"},
      {Model::kEvolution, 3, 0, 0, 1,
       "Syride SYS\xC2\xB4"
       "Evolution, SNR 4711, SW 3.0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.major) + "." + std::to_string(c.minor));
    Rig rig;
    emu::Device& instrument =
        c.model == Model::kEvolution ? AddEvolution(rig.bus, c.major, c.minor) : rig.bus.Add(c.model, c.major, c.minor);
    syride::LoadLibUsbLibrary(1);
    syride::SyrideDevice device{};
    std::string out = Captured([&] { EXPECT_EQ(syride::SyrideReadProductData(&device), c.result); });
    EXPECT_EQ(device.dwMajor, c.major);
    EXPECT_EQ(device.dwMinor, c.minor);
    EXPECT_EQ(instrument.opens, 1);
    if (c.result < 0) {
      EXPECT_EQ(out, "Unsupported Syride version\n");
      EXPECT_EQ(rig.bus.slept, 0u);
    } else {
      EXPECT_EQ(device.bNewFormat, c.newFormat);
      EXPECT_EQ(std::string(tGps.szProduct), c.product);
      EXPECT_EQ(out, c.product + "\n");
      EXPECT_EQ(rig.bus.slept, 200000u);
    }
    syride::CloseHidDevice(&device);
    ExpectCleanBus(rig.bus);
  }
}

TEST(SyrideReadProductData, EvolutionWaypointFormatFromItsBlock) {
  for (bool marked : {true, false}) {
    Rig rig;
    emu::Device& instrument = AddEvolution(rig.bus);
    instrument.Store(uint64_t{0x10F649} * 512, WaypointBlock(marked));
    syride::LoadLibUsbLibrary(1);
    syride::SyrideDevice device{};
    Captured([&] { EXPECT_EQ(syride::SyrideReadProductData(&device), 0); });
    EXPECT_EQ(device.bWaypointFormat, marked ? 1u : 0u);
    // Eight pieces of 61 bytes and one of 24, in order through the block.
    ASSERT_EQ(instrument.memoryReads.size(), 9u);
    for (size_t i = 0; i < 9; ++i) {
      EXPECT_EQ(instrument.memoryReads[i].first, uint64_t{0x10F649} * 512 + 61 * i);
      EXPECT_EQ(instrument.memoryReads[i].second, i < 8 ? 61u : 24u);
    }
    syride::CloseHidDevice(&device);
    ExpectCleanBus(rig.bus);
  }
}

TEST(SyrideReadProductData, FailuresAndRepeatedAnswers) {
  struct Case {
    const char* what;
    void (*fault)(emu::Device&);
    int32_t result;
    std::string out;
    size_t requests;
  };
  const Case cases[] = {
      {"no product name", [](emu::Device& d) { d.productStringFails = true; }, -1,
       "USB HID search. Could not obtain product name of matching device\n", 0},
      {"version request lost", [](emu::Device& d) { d.failWriteAt = 1; }, -1, "USB HID access error (version)\n", 0},
      {"version answer short",
       [](emu::Device& d) {
         d.failReadAt = 1;
         d.shortTransfer = true;
       },
       -1, "USB HID access error (version)\n", 1},
      {"serial number answer lost", [](emu::Device& d) { d.failReadAt = 2; }, -1, "USB HID access error (SNR)\n", 2},
      {"bad answers asked again",
       [](emu::Device& d) {
         d.answer = [](const emu::Report&, int n) {
           return n <= 2 ? Answer::kBadStatus : n == 4 ? Answer::kBadChecksum : Answer::kGood;
         };
       },
       0, "Syride SYS\xC2\xB4Nav V3, SNR 4711, SW 3.16\n", 5},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Rig rig;
    emu::Device& instrument = rig.bus.Add(Model::kNavV3, 3, 16);
    c.fault(instrument);
    syride::LoadLibUsbLibrary(1);
    syride::SyrideDevice device{};
    EXPECT_EQ(Captured([&] { EXPECT_EQ(syride::SyrideReadProductData(&device), c.result); }), c.out);
    EXPECT_EQ(instrument.requests.size(), c.requests);
    if (c.result == 0) {
      EXPECT_EQ(device.bNewFormat, 1);
    }
    syride::CloseHidDevice(&device);
    ExpectCleanBus(rig.bus);
  }
}

// ---------------------------------------------------------------------------
// The flight list

struct ListedFlight {
  uint32_t unix;
  uint16_t duration;
  uint8_t sector;
};

emu::Device& NavWithList(emu::Bus& bus, const std::vector<ListedFlight>& flights) {
  emu::Device& nav = bus.Add(Model::kNav, 1, 21);
  for (const ListedFlight& f : flights) {
    emu::AddNavFlight(nav, f.unix, f.duration, {f.sector}, std::vector<uint8_t>(f.duration * 15u + 8u, 0));
  }
  return nav;
}

std::string ListAndChoose(syride::SyrideDevice* device, int32_t* choice) {
  return Captured([&] {
    syride::LoadLibUsbLibrary(1);
    if (syride::SyrideReadProductData(device) == 0) *choice = syride::SyrideReadTrackList(device);
    syride::CloseHidDevice(device);
  });
}

TEST(SyrideReadTrackList, PrintsEveryFlightAndStoresItsEntry) {
  Rig rig;
  NavWithList(rig.bus, {{Unix(2023, 10, 7, 13, 54, 8), 4011, 9},
                        {Unix(2009, 1, 31, 0, 0, 59), 59, 17},
                        {Unix(2024, 2, 29, 23, 59, 0), 36000, 254}});
  tGps.nFlightNumber = 2;
  syride::SyrideDevice device{};
  int32_t choice = 0;
  std::string out = ListAndChoose(&device, &choice);
  EXPECT_EQ(choice, 2);
  EXPECT_EQ(out,
            "Syride SYS\xC2\xB4Nav, SNR 4711, SW 1.21\n"
            "  1  07.10.23  13:54:08  01:06:51\n"
            "  2  31.01.09  00:00:59  00:00:59\n"
            "  3  29.02.24  23:59:00  10:00:00\n");
  ASSERT_EQ(device.nFlights, 3);
  EXPECT_EQ(device.bListRead, 1);
  EXPECT_EQ(device.aFlights[0].dwStartTime, Unix(2023, 10, 7, 13, 54, 8) - kGpsEpochUnix);
  EXPECT_EQ(device.aFlights[0].dwDuration, 4011u);
  EXPECT_EQ(device.aFlights[0].dwStartValue, 9u * 65536);
  EXPECT_EQ(device.aFlights[2].dwStartValue, 254u * 65536);
  EXPECT_EQ(device.aFlights[2].dwSize, 0u);
  // Entry requests carry their index in byte 2.
  const auto& requests = rig.bus.devices[0]->requests;
  ASSERT_EQ(requests.size(), 6u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(requests[static_cast<size_t>(3 + i)][1], syride::kCommandFlightEntry);
    EXPECT_EQ(requests[static_cast<size_t>(3 + i)][2], i);
  }
  ExpectCleanBus(rig.bus);
}

TEST(SyrideReadTrackList, EvolutionEntriesCarryStartValueAndSize) {
  Rig rig;
  emu::Device& evolution = AddEvolution(rig.bus);
  emu::AddEvolutionFlight(evolution, Unix(2019, 6, 8, 9, 1, 2), 31541, 0x1234, std::vector<uint8_t>(70000, 1));
  tGps.nFlightNumber = 1;
  syride::SyrideDevice device{};
  int32_t choice = 0;
  std::string out = ListAndChoose(&device, &choice);
  EXPECT_EQ(choice, 1);
  EXPECT_NE(out.find("\n  1  08.06.19  09:01:02  08:45:41\n"), std::string::npos);
  EXPECT_EQ(device.aFlights[0].dwStartValue, 0x1234u);
  EXPECT_EQ(device.aFlights[0].dwDuration, 31541u);
  EXPECT_EQ(device.aFlights[0].dwSize, 70000u);
  ExpectCleanBus(rig.bus);
}

TEST(SyrideReadTrackList, ChoosingAFlight) {
  struct Case {
    int32_t flightNumber;
    const char* typed;
    int32_t choice;
    std::string tail;  // what follows the list
  };
  const Case cases[] = {
      {1, "", 1, ""},
      {2, "", 2, ""},
      {3, "", -1, "Flight number out of range\n"},
      {0, "", -1, "Flight number out of range\n"},
      {-1, "2\n", 2, "Select: "},
      {-1, " 1 \n", 1, "Select: "},
      {-1, "x1\n", -1, "Select: No flight number found\n"},
      {-1, "", -1, "Select: No flight number found\n"},
      {-1, "3\n", -1, "Select: Flight number out of range\n"},
      {-1, "0\n", -1, "Select: Flight number out of range\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.flightNumber) + " / " + c.typed);
    Rig rig;
    NavWithList(rig.bus, {{Unix(2020, 5, 1, 10, 0, 0), 100, 1}, {Unix(2020, 5, 2, 10, 0, 0), 200, 2}});
    tGps.nFlightNumber = c.flightNumber;
    StdinText input(c.typed);
    syride::SyrideDevice device{};
    int32_t choice = 0;
    std::string out = ListAndChoose(&device, &choice);
    EXPECT_EQ(choice, c.choice);
    const std::string list =
        "Syride SYS\xC2\xB4Nav, SNR 4711, SW 1.21\n  1  01.05.20  10:00:00  00:01:40\n"
        "  2  02.05.20  10:00:00  00:03:20\n";
    EXPECT_EQ(out, list + c.tail);
  }
}

TEST(SyrideReadTrackList, AllTracksDownloadTakesEveryFlightSilently) {
  Rig rig;
  NavWithList(rig.bus, {{Unix(2020, 5, 1, 10, 0, 0), 100, 1}, {Unix(2020, 5, 2, 10, 0, 0), 200, 2}});
  tGps.dwCommand = kCommandDownloadAllTracks;
  syride::SyrideDevice device{};
  int32_t choice = -5;
  EXPECT_EQ(ListAndChoose(&device, &choice), "Syride SYS\xC2\xB4Nav, SNR 4711, SW 1.21\n");
  EXPECT_EQ(choice, 0);
  EXPECT_EQ(device.nFlights, 2);
}

TEST(SyrideReadTrackList, EmptyListAndAccessErrors) {
  struct Case {
    const char* what;
    int failWriteAt;
    size_t flights;
    std::string tail;
  };
  const Case cases[] = {
      {"no flights", 0, 0, "No track list entries\n"},
      {"count lost", 3, 2, "USB HID access error\n"},
      {"second entry lost", 5, 2, "USB HID access error\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Rig rig;
    std::vector<ListedFlight> flights;
    for (size_t i = 0; i < c.flights; ++i) flights.push_back({Unix(2020, 5, 1, 10, 0, 0), 100, 1});
    emu::Device& nav = NavWithList(rig.bus, flights);
    nav.failWriteAt = c.failWriteAt;
    tGps.nFlightNumber = 1;
    syride::SyrideDevice device{};
    int32_t choice = 0;
    std::string out = ListAndChoose(&device, &choice);
    EXPECT_EQ(choice, -1);
    EXPECT_EQ(Tail(out), c.tail);
    ExpectCleanBus(rig.bus);
  }
}

// ---------------------------------------------------------------------------
// Downloads

struct Download {
  int32_t result = 0;
  std::string out;
  uint32_t before = 0, after = 0;  // GPS time around the download
};

uint32_t GpsNow() { return static_cast<uint32_t>(std::time(nullptr)) - kGpsEpochUnix; }

Download RunDownload(int32_t (*command)()) {
  Download d;
  d.before = GpsNow();
  d.out = Captured([&] { d.result = command(); });
  d.after = GpsNow();
  return d;
}

TEST(DownloadSyrideTrackLog, SysNavOldLayoutFollowsTheSectorChain) {
  Rig rig;
  Series flight = ThereAndBack();
  std::vector<uint8_t> memory = Memory(flight, false);
  ASSERT_EQ(memory.size(), 112986u);  // 8022 x 14 + 8 + 134 x 5: two sectors
  emu::Device& nav = rig.bus.Add(Model::kNav, 1, 20);
  // The chain goes on past the flight's bytes to sector 12.
  emu::AddNavFlight(nav, flight.unixStart, flight.duration(), {7, 3, 12}, memory);
  tGps.nFlightNumber = 1;
  Download d = RunDownload(DownloadSyrideTrackLog);
  ASSERT_EQ(d.result, 0) << d.out;
  ExpectTrack(flight, false);
  EXPECT_EQ(d.out.rfind("Syride SYS\xC2\xB4Nav, SNR 4711, SW 1.20\n  1  07.10.23  13:54:08  02:13:42\nBytes: 0", 0),
            0u);
  EXPECT_EQ(Tail(d.out).substr(Tail(d.out).size() - 7), "112986\n");
  EXPECT_EQ(tGps.bUtc, 1);
  EXPECT_EQ(tGps.bSignature, 1);
  EXPECT_EQ(tGps.bPressureAltitude, 1);
  EXPECT_GE(tGps.dwDownloadTime, d.before);
  EXPECT_LE(tGps.dwDownloadTime, d.after);
  EXPECT_EQ(tGps.pbRawLog, nullptr);
  // Sector bytes of all three sectors, data read from the first two only.
  std::vector<uint64_t> sectorReads;
  uint64_t fromTwelve = 0;
  for (const auto& [address, length] : nav.memoryReads) {
    if (length == 1) sectorReads.push_back(address);
    if (address >= 12 * 65536 + 24 && address < 13 * 65536) fromTwelve += length;
  }
  EXPECT_EQ(sectorReads, (std::vector<uint64_t>{7 * 65536 + 3, 3 * 65536 + 3, 12 * 65536 + 3}));
  EXPECT_EQ(fromTwelve, 0u);
  ExpectCleanBus(rig.bus);
}

TEST(DownloadSyrideTrackLog, SysNavNewLayoutSkipsTheMinuteWithoutFix) {
  Rig rig;
  Series flight = AfterAMinuteWithoutFix();
  std::vector<uint8_t> memory = Memory(flight, true);
  ASSERT_EQ(memory.size(), 4071u * 15 + 8 + 68 * 6);
  emu::Device& nav = rig.bus.Add(Model::kNav, 1, 21);
  emu::AddNavFlight(nav, Unix(2020, 1, 1, 0, 0, 0), 100, {1}, std::vector<uint8_t>(1508, 0));
  emu::AddNavFlight(nav, flight.unixStart, flight.duration(), {40}, memory);
  tGps.nFlightNumber = 2;
  Download d = RunDownload(DownloadSyrideTrackLog);
  ASSERT_EQ(d.result, 0) << d.out;
  ExpectTrack(flight, true);
  EXPECT_EQ(tGps.pTrackPoints[0].dwTime, RealFlight().unixStart - kGpsEpochUnix);
  ExpectCleanBus(rig.bus);
}

TEST(DownloadSyrideTrackLog, SysNavV3ReadsFromTheWrappedAddress) {
  for (auto [minor, newFormat] : {std::pair{15u, false}, std::pair{16u, true}}) {
    SCOPED_TRACE(minor);
    Rig rig;
    Series flight = Forwards();
    emu::Device& v3 = rig.bus.Add(Model::kNavV3, 3, minor);
    emu::AddV3Flight(v3, flight.unixStart, flight.duration(), 0x2A, Memory(flight, newFormat));
    tGps.nFlightNumber = 1;
    Download d = RunDownload(DownloadSyrideTrackLog);
    ASSERT_EQ(d.result, 0) << d.out;
    ExpectTrack(flight, newFormat);
    // (0x2A0000 x 2432 + 34916) x 512 keeps only 34916 x 512 in 32 bits.
    ASSERT_FALSE(v3.memoryReads.empty());
    EXPECT_EQ(v3.memoryReads.front().first, 34916u * 512);
    uint64_t next = v3.memoryReads.front().first;
    for (const auto& [address, length] : v3.memoryReads) {
      EXPECT_EQ(address, next);
      next += length;
    }
    EXPECT_EQ(next - 34916u * 512, syride::FlightMemorySize(flight.duration(), newFormat));
    ExpectCleanBus(rig.bus);
  }
}

TEST(DownloadSyrideTrackLog, EvolutionUnpacksItsContainer) {
  Rig rig;
  std::vector<uint8_t> archive = emu::ReadBytes(kData + "/fastlz/sixpack/pg-syride-evolution-9h.l1.6pk");
  std::vector<uint8_t> original = emu::ReadBytes(kData + "/fastlz/raw/igc-syride-evolution.igc");
  emu::Device& evolution = AddEvolution(rig.bus, 2, 73);
  emu::AddEvolutionFlight(evolution, Unix(2019, 6, 8, 9, 1, 2), 31541, 3, archive);
  tGps.nFlightNumber = 1;
  Download d = RunDownload(DownloadSyrideTrackLog);
  ASSERT_EQ(d.result, 0) << Tail(d.out);
  EXPECT_NE(d.out.find("612772\nDecompressed length 1481859\nGot 28478 points\n"), std::string::npos);
  ASSERT_EQ(tGps.nRawLogLength, 1481859);
  EXPECT_TRUE(std::equal(original.begin(), original.end(), tGps.pbRawLog));
  EXPECT_EQ(tGps.nTrackPoints, 28478);
  EXPECT_EQ(tGps.dwFirstPointTime, tGps.pTrackPoints[0].dwTime);
  EXPECT_EQ(tGps.bSignature, 1);
  // The flight's blocks start at 3 x 2432 + 1583024; no piece crosses a block's end.
  uint64_t first = (3 * 2432 + 1583024) * uint64_t{512};
  uint64_t read = 0;
  for (const auto& [address, length] : evolution.memoryReads) {
    if (address < first) continue;
    EXPECT_EQ(address, first + read);
    EXPECT_LE(address % 512 + length, 512u);
    read += length;
  }
  EXPECT_EQ(read, archive.size());
  ExpectCleanBus(rig.bus);
}

TEST(DownloadSyrideTrackLog, MemoryShorterThanTheDurationIsInconsistent) {
  Rig rig;
  Series flight = ThereAndBack();
  emu::Device& nav = rig.bus.Add(Model::kNav, 1, 20);
  // The chain ends after the first sector: 65512 of 112986 bytes.
  emu::AddNavFlight(nav, flight.unixStart, flight.duration(), {7}, Memory(flight, false));
  tGps.nFlightNumber = 1;
  Download d = RunDownload(DownloadSyrideTrackLog);
  EXPECT_EQ(d.result, -1);
  EXPECT_EQ(Tail(d.out), "Flight memory / duration inconsistency\n");
  EXPECT_NE(d.out.find("65512\n"), std::string::npos);
  EXPECT_EQ(tGps.nTrackPoints, 0);
  ExpectCleanBus(rig.bus);
}

TEST(DownloadSyrideTrackLog, AnswersWithBadStatusOrChecksumAreAskedAgain) {
  // Every 7th answer with a bad status, every 11th with a bad checksum, all
  // with scrambled payload; the sector number reads are not checked by the
  // instrument's protocol and are spared.
  auto faults = [](const emu::Report& r, int n) {
    if (r[1] == syride::kCommandReadMemory && r[6] == 1) return Answer::kGood;
    return n % 7 == 0 ? Answer::kBadStatus : n % 11 == 0 ? Answer::kBadChecksum : Answer::kGood;
  };
  for (Model model : {Model::kNav, Model::kNavV3, Model::kEvolution}) {
    Rig rig;
    Series flight = Forwards(1000);
    emu::Device& device = model == Model::kEvolution ? AddEvolution(rig.bus) : rig.bus.Add(model, 9, 0);
    std::vector<uint8_t> archive = emu::ReadBytes(kData + "/fastlz/sixpack/evolution-head-131092.l2.6pk");
    if (model == Model::kNav) emu::AddNavFlight(device, flight.unixStart, flight.duration(), {5}, Memory(flight, true));
    if (model == Model::kNavV3) emu::AddV3Flight(device, flight.unixStart, flight.duration(), 0, Memory(flight, true));
    if (model == Model::kEvolution) emu::AddEvolutionFlight(device, flight.unixStart, 1000, 77, archive);
    device.answer = faults;
    tGps.nFlightNumber = 1;
    Download d = RunDownload(DownloadSyrideTrackLog);
    ASSERT_EQ(d.result, 0) << Tail(d.out);
    if (model == Model::kEvolution) {
      std::vector<uint8_t> original = emu::ReadBytes(kData + "/fastlz/sixpack/evolution-head-131092.igc");
      ASSERT_EQ(tGps.nRawLogLength, 131092);
      EXPECT_TRUE(std::equal(original.begin(), original.end(), tGps.pbRawLog));
    } else {
      ExpectTrack(flight, true);
    }
    size_t repeated = 0;
    for (size_t i = 1; i < device.requests.size(); ++i) repeated += device.requests[i] == device.requests[i - 1];
    EXPECT_GE(repeated, device.requests.size() / 7);
    ExpectCleanBus(rig.bus);
  }
}

// A small flight of each model.
void AddSmallFlight(emu::Bus& bus, Model model) {
  Series flight = Forwards(61);
  if (model == Model::kEvolution) {
    // A stored container: header chunk and one data chunk.
    std::string text = "AXSE01\r\nHFDTE071023\r\nB1354084052509N00341644WA0149001678\r\n";
    std::vector<uint8_t> header(16, 0);
    header[0] = static_cast<uint8_t>(text.size());
    std::vector<uint8_t> container = emu::Container({{1, 0, header}, {17, 0, {text.begin(), text.end()}}});
    emu::AddEvolutionFlight(AddEvolution(bus), flight.unixStart, 61, 2, container);
  } else {
    emu::Device& device = bus.Add(model, model == Model::kNav ? 1 : 3, 0);
    if (model == Model::kNav) emu::AddNavFlight(device, flight.unixStart, 61, {2}, Memory(flight, false));
    if (model == Model::kNavV3) emu::AddV3Flight(device, flight.unixStart, 61, 2, Memory(flight, false));
  }
}

TEST(DownloadSyrideTrackLog, EveryLostTransferEndsCleanly) {
  const std::vector<std::string> messages = {"USB HID access error (version)\n", "USB HID access error (SNR)\n",
                                             "USB HID access error\n", "Flight memory / duration inconsistency\n"};
  for (Model model : {Model::kNav, Model::kNavV3, Model::kEvolution}) {
    int transfers;
    std::vector<bool> waypointBlock;  // transfers that read the SYS'Evolution waypoint block
    {
      Rig rig;
      AddSmallFlight(rig.bus, model);
      tGps.nFlightNumber = 1;
      ASSERT_EQ(RunDownload(DownloadSyrideTrackLog).result, 0);
      const emu::Device& device = *rig.bus.devices[0];
      transfers = device.writes;
      for (const emu::Report& r : device.requests) {
        waypointBlock.push_back(model == Model::kEvolution && r[1] == syride::kCommandReadMemory && r[2] == 0x49 &&
                                r[3] == 0xF6 && r[4] == 0x10);
      }
    }
    ASSERT_GT(transfers, 10);
    for (int k = 1; k <= transfers; ++k) {
      for (int mode = 0; mode < 4; ++mode) {
        SCOPED_TRACE("model " + std::to_string(static_cast<int>(model)) + " transfer " + std::to_string(k) + " mode " +
                     std::to_string(mode));
        Rig rig;
        AddSmallFlight(rig.bus, model);
        emu::Device& device = *rig.bus.devices[0];
        (mode % 2 == 0 ? device.failWriteAt : device.failReadAt) = k;
        device.shortTransfer = mode >= 2;
        tGps.nFlightNumber = 1;
        Download d = RunDownload(DownloadSyrideTrackLog);
        ExpectCleanBus(rig.bus);
        if (waypointBlock[static_cast<size_t>(k - 1)]) {
          // That block only serves the waypoint format; the download goes on.
          EXPECT_EQ(d.result, 0);
          EXPECT_EQ(device.violations.size(), 0u);
          continue;
        }
        EXPECT_EQ(d.result, -1);
        EXPECT_NE(std::find(messages.begin(), messages.end(), Tail(d.out)), messages.end()) << Tail(d.out);
        EXPECT_EQ(tGps.nTrackPoints, 0);
        EXPECT_EQ(tGps.pbRawLog, nullptr);
      }
    }
  }
}

TEST(DownloadSyrideBulkTrackLog, SavesEveryFlightAndFreesItAfterwards) {
  Rig rig;
  tGps.dwCommand = kCommandDownloadAllTracks;
  emu::Device& nav = rig.bus.Add(Model::kNav, 1, 21);
  Series first = Forwards(61), second = Forwards(200), third = AfterAMinuteWithoutFix();
  emu::AddNavFlight(nav, first.unixStart, first.duration(), {3}, Memory(first, true));
  emu::AddNavFlight(nav, second.unixStart + 3600, second.duration(), {4}, Memory(second, true));
  emu::AddNavFlight(nav, third.unixStart, third.duration(), {9}, Memory(third, true));
  Download d = RunDownload([] { return DownloadSyrideBulkTrackLog(emu::Consumers::Save); });
  EXPECT_EQ(d.result, 0);
  // A fresh process: the all-tracks download loads libusb itself.
  EXPECT_EQ(rig.bus.librariesOpened.size(), 1u);
  EXPECT_EQ(rig.bus.hidInits, 1);
  EXPECT_EQ(d.out.find("  1  "), std::string::npos);  // no list
  ASSERT_EQ(emu::Consumers::saved.size(), 3u);
  uint32_t start = RealFlight().unixStart - kGpsEpochUnix;
  EXPECT_EQ(emu::Consumers::saved[0].points, 61);
  EXPECT_EQ(emu::Consumers::saved[0].firstTime, start);
  EXPECT_EQ(emu::Consumers::saved[0].lastTime, start + 60);
  EXPECT_EQ(emu::Consumers::saved[1].points, 200);
  EXPECT_EQ(emu::Consumers::saved[1].firstTime, start + 3600);
  EXPECT_EQ(emu::Consumers::saved[2].points, 4011);
  EXPECT_EQ(emu::Consumers::saved[2].firstTime, start);
  EXPECT_EQ(tGps.pTrackPoints, nullptr);
  EXPECT_EQ(tGps.nTrackPoints, 0);
  ExpectCleanBus(rig.bus);
}

TEST(DownloadSyrideBulkTrackLog, EvolutionFlightsKeepTheirOwnText) {
  Rig rig;
  tGps.dwCommand = kCommandDownloadAllTracks;
  emu::Device& evolution = AddEvolution(rig.bus);
  std::vector<uint8_t> head = emu::ReadBytes(kData + "/fastlz/sixpack/evolution-head-131092.l2.6pk");
  std::vector<uint8_t> task = emu::ReadBytes(kData + "/fastlz/sixpack/hg-flytec6030-litespeed-task.l1.6pk");
  emu::AddEvolutionFlight(evolution, Unix(2019, 6, 8, 9, 0, 0), 3600, 10, head);
  emu::AddEvolutionFlight(evolution, Unix(2014, 3, 15, 9, 0, 0), 10616, 40, task);
  Download d = RunDownload([] { return DownloadSyrideBulkTrackLog(emu::Consumers::Save); });
  EXPECT_EQ(d.result, 0);
  ASSERT_EQ(emu::Consumers::saved.size(), 2u);
  EXPECT_EQ(emu::Consumers::saved[0].rawLength, 131092);
  EXPECT_EQ(emu::Consumers::saved[1].rawLength, 207654);
  EXPECT_EQ(emu::Consumers::saved[1].points, 5175);
  EXPECT_EQ(tGps.pbRawLog, nullptr);
  EXPECT_EQ(tGps.nRawLogLength, 0);
  ExpectCleanBus(rig.bus);
}

TEST(DownloadSyrideBulkTrackLog, StopsAtTheFirstFailingFlight) {
  Rig rig;
  tGps.dwCommand = kCommandDownloadAllTracks;
  emu::Device& nav = rig.bus.Add(Model::kNav, 1, 21);
  Series flight = Forwards(100);
  emu::AddNavFlight(nav, flight.unixStart, 100, {3}, Memory(flight, true));
  // Two sectors of bytes behind a chain of one.
  Series longer = ThereAndBack();
  emu::AddNavFlight(nav, longer.unixStart, longer.duration(), {4}, Memory(longer, true));
  emu::AddNavFlight(nav, flight.unixStart, 100, {5}, Memory(flight, true));
  Download d = RunDownload([] { return DownloadSyrideBulkTrackLog(emu::Consumers::Save); });
  EXPECT_EQ(d.result, -1);
  EXPECT_EQ(Tail(d.out), "Flight memory / duration inconsistency\n");
  ASSERT_EQ(emu::Consumers::saved.size(), 1u);
  EXPECT_EQ(emu::Consumers::saved[0].points, 100);
  ExpectCleanBus(rig.bus);
}

// ---------------------------------------------------------------------------
// Reports and the other commands

TEST(SyrideReports, ChecksumCoversBytesOneTo62) {
  emu::Report report{};
  EXPECT_EQ(syride::USB_CheckChecksum(report.data()), 1);
  report[0] = 0x55;  // not part of the sum
  EXPECT_EQ(syride::USB_CheckChecksum(report.data()), 1);
  for (size_t i = 1; i <= 62; ++i) report[i] = static_cast<uint8_t>(i * 5);
  uint32_t sum = 0;
  for (size_t i = 1; i <= 62; ++i) sum += report[i];
  report[63] = static_cast<uint8_t>(sum);
  EXPECT_EQ(syride::USB_CheckChecksum(report.data()), 1);
  report[62] ^= 1;
  EXPECT_EQ(syride::USB_CheckChecksum(report.data()), 0);
  report[62] ^= 1;
  report[63] += 1;
  EXPECT_EQ(syride::USB_CheckChecksum(report.data()), 0);
}

TEST(SyrideReports, TheOutputReportKeepsWhatThePreviousCommandLeft) {
  Rig rig;
  emu::Device& evolution = AddEvolution(rig.bus);
  emu::AddEvolutionFlight(evolution, Unix(2020, 1, 1, 0, 0, 0), 10, 0, std::vector<uint8_t>(10, 0));
  tGps.nFlightNumber = 1;
  syride::SyrideDevice device{};
  int32_t choice = 0;
  ListAndChoose(&device, &choice);
  ASSERT_EQ(choice, 1);
  // The last piece of the waypoint block read, then the flight count.
  const auto& r = evolution.requests;
  ASSERT_EQ(r.size(), 2u + 9u + 2u);
  const emu::Report& lastPiece = r[10];
  const emu::Report& count = r[11];
  EXPECT_EQ(count[1], syride::kCommandFlightCount);
  EXPECT_EQ(lastPiece[6], 24);
  EXPECT_EQ(lastPiece[8], 488 & 0xFF);
  EXPECT_EQ(lastPiece[9], 488 >> 8);
  EXPECT_TRUE(std::equal(count.begin() + 2, count.begin() + 63, lastPiece.begin() + 2));
  // The entry request changes byte 2 only.
  EXPECT_EQ(r[12][2], 0);
  EXPECT_TRUE(std::equal(r[12].begin() + 3, r[12].begin() + 63, lastPiece.begin() + 3));
  ExpectCleanBus(rig.bus);
}

TEST(SyrideReports, ReadDataTakesAnswersUnchecked) {
  Rig rig;
  emu::Device& nav = rig.bus.Add(Model::kNav, 1, 21);
  std::vector<uint8_t> bytes(100);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i);
  nav.Store(0x1000, bytes);
  nav.answer = [](const emu::Report&, int) { return Answer::kBadStatus; };
  syride::LoadLibUsbLibrary(1);
  syride::SyrideDevice device{};
  ASSERT_EQ(syride::OpenbHidDevice(&device), 0);
  std::vector<uint8_t> got(100);
  EXPECT_EQ(syride::USB_ReadData(&device, 0x1000, got.data(), 100), 0);
  EXPECT_EQ(nav.requests.size(), 2u);
  EXPECT_EQ(got[0], 0x00 ^ 0xA5);  // as scrambled by the bad answer
  EXPECT_EQ(got[99], 99 ^ 0xA5);
  nav.failReadAt = 3;
  EXPECT_EQ(syride::USB_ReadData(&device, 0x1000, got.data(), 10), -1);
  syride::CloseHidDevice(&device);
  ExpectCleanBus(rig.bus);
}

TEST(SyrideReports, WritingAndErasing) {
  Rig rig;
  emu::Device& evolution = AddEvolution(rig.bus);
  emu::Device& nav = rig.bus.Add(Model::kNav, 1, 21);
  syride::LoadLibUsbLibrary(1);
  std::vector<uint8_t> block(512);
  for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(i * 7 + 1);

  syride::SyrideDevice device{};
  ASSERT_EQ(syride::OpenbHidDevice(&device), 0);
  evolution.answer = [](const emu::Report& r, int n) {
    return r[1] == syride::kCommandWriteBuffer && n % 4 == 0 ? Answer::kBadStatus : Answer::kGood;
  };
  EXPECT_EQ(syride::USB_WriteBlock(&device, 0x10F649, block.data()), 0);
  ASSERT_EQ(evolution.commits.size(), 1u);
  EXPECT_EQ(evolution.commits[0].first, 0x10F649u);
  EXPECT_TRUE(evolution.commits[0].second == block);
  std::vector<std::pair<int, int>> pieces;  // offset, length; a repeated piece counted once
  for (const emu::Report& r : evolution.requests) {
    if (r[1] != syride::kCommandWriteBuffer) continue;
    std::pair<int, int> piece{r[2] | (r[3] << 8), r[4]};
    if (pieces.empty() || pieces.back() != piece) pieces.push_back(piece);
  }
  std::vector<std::pair<int, int>> expected;
  for (int i = 0; i < 8; ++i) expected.emplace_back(58 * i, 58);
  expected.emplace_back(464, 48);
  EXPECT_EQ(pieces, expected);
  EXPECT_GT(evolution.requests.size(), 10u);
  // An erase starts from a cleared report, whatever the writes left in it.
  EXPECT_EQ(syride::USB_EraseFlashSubSector(&device, 0x30000), 0);
  EXPECT_EQ(evolution.erases, std::vector<uint32_t>{0x30000});
  syride::CloseHidDevice(&device);

  evolution.openFails = true;
  Captured([&] { ASSERT_EQ(syride::OpenbHidDevice(&device), 0); });
  ASSERT_EQ(device.dwProductId, syride::kProductNav);
  std::vector<uint8_t> data(block.begin(), block.begin() + 150);
  EXPECT_EQ(syride::USB_WriteData(&device, 0x20000, data.data(), 150), 0);
  ASSERT_EQ(nav.commits.size(), 1u);
  EXPECT_EQ(nav.commits[0].first, 0x20000u);
  EXPECT_TRUE(std::equal(data.begin(), data.end(), nav.commits[0].second.begin()));
  ASSERT_EQ(nav.requests.size(), 4u);
  EXPECT_EQ(nav.requests[0][3], 59);
  EXPECT_EQ(nav.requests[1][2], 59);
  EXPECT_EQ(nav.requests[2][2], 118);
  EXPECT_EQ(nav.requests[2][3], 32);
  nav.failWriteAt = 5;
  EXPECT_EQ(syride::USB_WriteData(&device, 0x20000, data.data(), 10), -1);
  syride::CloseHidDevice(&device);
  evolution.openFails = false;
  ExpectCleanBus(rig.bus);
}

}  // namespace
