// Emulated Syride instruments behind the hidapi and libusb interfaces the
// download code uses, and helpers that turn a real flight into their memory.
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

namespace emu {

using Report = std::array<uint8_t, 64>;

enum class Model { kNav, kNavV3, kEvolution };

enum class Answer { kGood, kBadStatus, kBadChecksum };

// One instrument on the bus (or any other USB device when its ids say so).
struct Device {
  Model model = Model::kNav;
  uint16_t vendor = syride::kVendorId;
  uint16_t product = syride::kProductNav;
  uint32_t major = 1;
  uint32_t minor = 21;
  uint32_t serial = 4711;
  std::vector<std::vector<uint8_t>> entries;  // answers to the flight list command

  // Faults. Answers the predicate marks bad carry scrambled payload, so a
  // reader that takes them shows it in the data.
  std::function<Answer(const Report& request, int answerNumber)> answer;
  int failWriteAt = 0;  // the n-th write (from 1) fails; 0: never
  int failReadAt = 0;
  bool shortTransfer = false;  // a failing transfer moves 32 bytes instead of none
  bool openFails = false;
  bool productStringFails = false;

  // What the instrument saw.
  std::vector<Report> requests;
  std::vector<std::pair<uint64_t, uint32_t>> memoryReads;  // byte address, length
  std::vector<std::string> violations;
  int writes = 0;
  int reads = 0;
  int opens = 0;
  int closes = 0;
  std::vector<uint8_t> transferBuffer = std::vector<uint8_t>(512, 0);
  std::vector<std::pair<uint32_t, std::vector<uint8_t>>> commits;
  std::vector<uint32_t> erases;

  // Memory by byte address (SYS'Evolution: block x 512 + offset); unwritten flash reads 0xFF.
  void Store(uint64_t address, const std::vector<uint8_t>& bytes);
  uint8_t Load(uint64_t address) const;

  void Receive(const uint8_t* report);
  bool hasAnswer = false;
  Report pending{};

 private:
  std::map<uint64_t, std::vector<uint8_t>> memory_;
  Report Respond(const Report& request);
};

// The USB bus and the run-time loader as the download code sees them.
struct Bus {
  std::vector<std::unique_ptr<Device>> devices;  // libusb's list order
  bool libraryMissing = false;
  std::vector<std::string> missingSymbols;
  bool initGivesNoContext = false;
  bool listEmpty = false;

  std::vector<std::string> librariesOpened;
  std::vector<std::string> symbolsLookedUp;
  int librariesClosed = 0;
  int inits = 0;
  int hidInits = 0;
  int listsOutstanding = 0;
  int listsFreedWithoutUnref = 0;
  uint64_t slept = 0;  // microseconds

  Device& Add(Model model, uint32_t major, uint32_t minor);
  int OpenHandles() const;
  std::vector<std::string> Violations() const;
};

// Installs `bus` behind the download code for the lifetime of the object.
class Installed {
 public:
  explicit Installed(Bus* bus);
  ~Installed();
  Installed(const Installed&) = delete;
  Installed& operator=(const Installed&) = delete;
};

// Receives each flight a bulk download saves (Save is its track saver).
struct Consumers {
  struct Saved {
    int32_t points;
    uint32_t firstTime;
    uint32_t lastTime;
    int32_t rawLength;
  };
  static std::vector<Saved> saved;
  static int32_t Save();

  Consumers();
  Consumers(const Consumers&) = delete;
  Consumers& operator=(const Consumers&) = delete;
};

// A position of a flight second as a SYS'Nav records it.
struct Fix {
  int32_t latitude;    // 1e-7 degrees
  int32_t longitude;   // 1e-7 degrees
  int32_t barometric;  // metres
  int32_t gps;         // metres
};

constexpr int32_t kNoFix = 5000000;

struct IgcFlight {
  uint32_t unixStart = 0;
  std::vector<Fix> fixes;                                  // one a second
  std::vector<int32_t> latitudeMin1000, longitudeMin1000;  // as written in the file
};

// Reads the B records of an IGC file with one fix a second.
IgcFlight ReadIgcFlight(const std::string& path);

// The per-second memory image of `fixes`, or empty when a delta does not fit.
std::vector<uint8_t> EncodeFlightMemory(const std::vector<Fix>& fixes, bool newFormat);

// Puts a flight into an instrument: memory where the readers look for it and
// a list entry. SYS'Nav: the bytes follow the sector chain `sectors` (the
// first names the flight's start); the chain may run past the bytes.
void AddNavFlight(Device& device, uint32_t unixStart, uint16_t duration, const std::vector<uint8_t>& sectors,
                  const std::vector<uint8_t>& bytes);
void AddV3Flight(Device& device, uint32_t unixStart, uint16_t duration, uint8_t startHigh,
                 const std::vector<uint8_t>& bytes);
void AddEvolutionFlight(Device& device, uint32_t unixStart, uint16_t duration, uint16_t startValue,
                        const std::vector<uint8_t>& bytes);

// A compressed-memory container: the signature, then the chunks as given.
struct Chunk {
  uint16_t id;
  uint16_t options;
  std::vector<uint8_t> data;
  bool badChecksum = false;
};
std::vector<uint8_t> Container(const std::vector<Chunk>& chunks);

std::vector<uint8_t> ReadBytes(const std::string& path);

}  // namespace emu
