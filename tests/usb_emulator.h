// Emulated Syride instruments behind the hidapi and libusb interfaces the
// download code uses, and the memory images of flights put into them.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "usb/syride.h"

namespace usbemu {

using Report = std::array<uint8_t, 64>;
using Bytes = std::vector<uint8_t>;
enum class Model { kNav, kNavV3, kEvolution };
enum class Answer { kGood, kBadStatus, kBadChecksum };

// One instrument on the bus (or any other USB device when its ids say so).
struct Device {
  Model model = Model::kNav;
  uint16_t vendor = syride::kVendorId, product = syride::kProductNav;
  uint32_t major = 1, minor = 21;
  std::vector<Bytes> entries;        // answers to the flight list command
  std::map<uint64_t, Bytes> memory;  // by byte address (SYS'Evolution: block x 512 + offset); the rest reads 0xFF
  // Faults: answers marked bad carry a scrambled payload, so a reader that takes them shows it;
  // the n-th write or read (from 1) fails, moving nothing or, when short, half a report.
  std::function<Answer(const Report& request, int answerNumber)> answer;
  int failWriteAt = 0, failReadAt = 0;
  bool shortTransfer = false, openFails = false, productStringFails = false;
  // What the instrument saw.
  std::vector<Report> requests;
  std::vector<std::pair<uint64_t, uint32_t>> memoryReads;  // byte address, length
  std::string violations;
  int writes = 0, reads = 0, opens = 0, closes = 0;
  bool hasAnswer = false;
  Report pending{};

  void Receive(const uint8_t* report);
};

// The USB bus and the run-time loader as the download code sees them, for
// the lifetime of the object.
struct Bus {
  Bus();
  ~Bus();
  std::vector<std::unique_ptr<Device>> devices;  // libusb's list order
  bool libraryMissing = false, initGivesNoContext = false, listEmpty = false;
  std::vector<std::string> missingSymbols, librariesOpened, symbolsLookedUp;
  int librariesClosed = 0, inits = 0, hidInits = 0, listsOutstanding = 0, listsFreedWithoutUnref = 0;
  uint64_t slept = 0;  // microseconds

  Device& Add(Model model, uint32_t major, uint32_t minor);  // an Evolution with a blank waypoint block
  std::string Problems() const;                              // rules broken, handles or lists left open
};

// Builds the bus from the setup lines of a scenario (tests/data/syride/scenarios.txt
// describes them); returns its "run" line split in words, `typed` the escaped text of its "stdin" line.
std::vector<std::string> Build(Bus& bus, const std::vector<std::string>& lines, std::string* typed);
std::vector<std::string> Split(const std::string& text, char by);

struct Chunk {
  uint16_t id, options;
  Bytes data;
  bool badChecksum = false;
};
// A compressed-memory container: the signature, then the chunks as given.
Bytes Container(const std::vector<Chunk>& chunks);
Bytes ReadBytes(const std::string& path);

}  // namespace usbemu
