// A Syride instrument that answers from a script (the fuzz input), behind
// the platform interface the USB module uses.
//
// Script layout:
//   byte 0  bits 0-1: model (0 SYS'Nav, 1 SYS'Nav V3, 2 and 3 SYS'Evolution)
//           bit 2: all-tracks download instead of one track
//           bits 3-5: one fault (ReplayFault) at the answer numbered in byte 2
//   byte 1  flight number for a one-track download (0 lists only)
//   byte 2  number (from 1) of the answer, write or read the fault hits, 0:
//           none; for kPlatform which part of the platform fails (PlatformFault)
//   then the answers' payloads in the order the download asks for them:
//     version 8 bytes, serial number 12, flight count 1, each list entry 29
//     (SYS'Evolution) or 20, each memory read as many bytes as it asks for.
// When the script cannot fill an answer the instrument is gone: the read fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz::usb {

enum class ReplayModel : uint8_t { kNav = 0, kNavV3 = 1, kEvolution = 2 };

enum class ReplayFault : uint8_t {
  kNone = 0,
  kBadStatus = 1,    // that answer says "not valid" (the module repeats the command)
  kBadChecksum = 2,  // that answer's checksum is off by one
  kWriteFails = 3,
  kReadFails = 4,
  kShortWrite = 5,  // 32 bytes move instead of 64
  kShortRead = 6,
  kPlatform = 7,
};

enum class PlatformFault : uint8_t {
  kNoProductName = 0,  // the product name cannot be read
  kOpenFails = 1,
  kNoDevice = 2,     // the bus is empty
  kOtherMaker = 3,   // only a device of another maker
  kNoLibrary = 4,    // libusb cannot be loaded
  kNoContext = 5,    // libusb gives no context
  kNoFunction = 6,   // libusb lacks a function a download needs
};

constexpr size_t kSetupBytes = 3;
constexpr size_t kVersionAnswer = 8;
constexpr size_t kSerialAnswer = 12;
constexpr size_t kNavEntryAnswer = 20;
constexpr size_t kEvolutionEntryAnswer = 29;
// A flight list entry never announces more SYS'Evolution memory than this;
// a fuzz input could not hold more, and the module would first allocate it.
constexpr uint32_t kMaxEvolutionFlightBytes = 1u << 20;

struct ReplayResult {
  int32_t status;   // what the download command returned
  int32_t answers;  // answers given
  ReplayModel model;
  bool bulk;
};

// Runs the download the script's setup asks for with fresh run parameters and
// checks what every download owes the instrument: well-formed requests and the
// device closed again. The track log and raw log are left for the caller.
ReplayResult RunSyrideReplay(const uint8_t* script, size_t size);

}  // namespace fuzz::usb
