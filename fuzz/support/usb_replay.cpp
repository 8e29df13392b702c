#include "usb_replay.h"

#include <algorithm>
#include <cstring>
#include <cwchar>

// The library's header uses zero-length arrays.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#include <libusb.h>
#pragma GCC diagnostic pop

#include "core/bytes.h"
#include "core/run.h"
#include "fuzz_support.h"
#include "igc/igc.h"
#include "usb/fastlz.h"
#include "usb/syride.h"

namespace fuzz::usb {

namespace {

struct Instrument {
  const uint8_t* script = nullptr;
  size_t size = 0;
  size_t position = 0;
  ReplayModel model = ReplayModel::kNav;
  uint16_t product = syride::kProductNav;
  ReplayFault fault = ReplayFault::kNone;
  int faultAt = 0;
  int writes = 0;
  int reads = 0;
  int answers = 0;
  int opens = 0;
  int closes = 0;
  bool pending = false;  // an answer waits to be read
  bool gone = false;     // the script ran out
  uint8_t answer[syride::kReportSize] = {};
};

Instrument instrument;
int contextToken;
int deviceToken;

void PutLe32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

bool FaultHits(ReplayFault kind, int count) { return instrument.fault == kind && instrument.faultAt == count; }

bool PlatformFails(PlatformFault part) {
  return instrument.fault == ReplayFault::kPlatform && instrument.faultAt == static_cast<int>(part);
}

// libusb as the run-time loader hands it out: one device on the bus.
int Init(libusb_context** context) {
  if (PlatformFails(PlatformFault::kNoContext)) {
    *context = nullptr;
    return LIBUSB_ERROR_OTHER;
  }
  *context = reinterpret_cast<libusb_context*>(&contextToken);
  return 0;
}

ssize_t GetDeviceList(libusb_context* context, libusb_device*** list) {
  FUZZ_CHECK(context == reinterpret_cast<libusb_context*>(&contextToken));
  static libusb_device* devices[2];
  devices[0] = reinterpret_cast<libusb_device*>(&deviceToken);
  devices[1] = nullptr;
  *list = devices;
  return PlatformFails(PlatformFault::kNoDevice) ? 0 : 1;
}

void FreeDeviceList(libusb_device** /*list*/, int /*unref*/) {}

int GetDeviceDescriptor(libusb_device* device, libusb_device_descriptor* descriptor) {
  FUZZ_CHECK(device == reinterpret_cast<libusb_device*>(&deviceToken));
  std::memset(descriptor, 0, sizeof *descriptor);
  descriptor->idVendor = PlatformFails(PlatformFault::kOtherMaker) ? 0x0403 : syride::kVendorId;
  descriptor->idProduct = instrument.product;
  return 0;
}

void* OpenLibrary(const char* /*name*/) {
  return PlatformFails(PlatformFault::kNoLibrary) ? nullptr : &instrument;
}

void* FindSymbol(void* /*library*/, const char* name) {
  if (PlatformFails(PlatformFault::kNoFunction) && std::strcmp(name, "libusb_get_device_descriptor") == 0) {
    return nullptr;
  }
  if (std::strcmp(name, "libusb_init") == 0) return reinterpret_cast<void*>(&Init);
  if (std::strcmp(name, "libusb_get_device_list") == 0) return reinterpret_cast<void*>(&GetDeviceList);
  if (std::strcmp(name, "libusb_free_device_list") == 0) return reinterpret_cast<void*>(&FreeDeviceList);
  if (std::strcmp(name, "libusb_get_device_descriptor") == 0) return reinterpret_cast<void*>(&GetDeviceDescriptor);
  return nullptr;  // the optional ones: a download must not need them
}

void CloseLibrary(void* /*library*/) {}

int HidInit() { return 0; }

hid_device* HidOpen(unsigned short vendor, unsigned short product, const wchar_t* /*serial*/) {
  FUZZ_CHECK(vendor == syride::kVendorId && product == instrument.product);
  FUZZ_CHECK(instrument.opens == instrument.closes);
  if (PlatformFails(PlatformFault::kOpenFails)) return nullptr;
  ++instrument.opens;
  return reinterpret_cast<hid_device*>(&instrument);
}

void HidClose(hid_device* handle) {
  FUZZ_CHECK(handle == reinterpret_cast<hid_device*>(&instrument));
  ++instrument.closes;
}

int HidGetProductString(hid_device* /*handle*/, wchar_t* text, size_t length) {
  if (PlatformFails(PlatformFault::kNoProductName)) return -1;
  std::wcsncpy(text, L"SYRIDE", length);
  if (length > 0) text[length - 1] = L'\0';
  return 0;
}

// Payload bytes the answer to `request` takes from the script. A download
// only asks; a command that would change the instrument's memory is a fault.
size_t AnswerSize(const uint8_t* request) {
  const bool evolution = instrument.model == ReplayModel::kEvolution;
  switch (request[1]) {
    case syride::kCommandVersion:
      return kVersionAnswer;
    case syride::kCommandSerialNumber:
      return kSerialAnswer;
    case syride::kCommandFlightCount:
      return 1;
    case syride::kCommandFlightEntry:
      return evolution ? kEvolutionEntryAnswer : kNavEntryAnswer;
    case syride::kCommandReadMemory: {
      const uint32_t length = request[6];
      FUZZ_CHECK(length >= 1 && length <= syride::kPayloadSize);
      if (evolution) {
        FUZZ_CHECK(request[7] == 0);
        FUZZ_CHECK(uint64_t{ReadUnsignedLong(request + 8)} + length <= syride::kEvolutionBlockSize);
      }
      return length;
    }
    default:
      Fail("a download sent a command that is not a question", __FILE__, __LINE__);
  }
}

void Respond(const uint8_t* request) {
  const size_t need = AnswerSize(request);
  ++instrument.answers;
  uint8_t* answer = instrument.answer;
  std::memset(answer, 0, syride::kReportSize);
  answer[0] = 1;
  const bool badStatus = FaultHits(ReplayFault::kBadStatus, instrument.answers);
  const bool badChecksum = FaultHits(ReplayFault::kBadChecksum, instrument.answers);
  if (badStatus || badChecksum) {
    // Garbage in the payload: a module that takes it shows it in the data.
    std::memset(answer + 1, 0xA5, syride::kPayloadSize);
  } else {
    if (instrument.size - instrument.position < need) {
      instrument.gone = true;
      return;
    }
    std::memcpy(answer + 1, instrument.script + instrument.position, need);
    instrument.position += need;
    if (request[1] == syride::kCommandFlightEntry && instrument.model == ReplayModel::kEvolution) {
      PutLe32(answer + 1 + 20, std::min(ReadUnsignedLong(answer + 1 + 20), kMaxEvolutionFlightBytes));
    }
  }
  answer[syride::kStatusByte] = badStatus ? 0x15 : syride::kStatusValid;
  uint8_t sum = 0;
  for (int i = 1; i < syride::kChecksumByte; ++i) sum = static_cast<uint8_t>(sum + answer[i]);
  answer[syride::kChecksumByte] = badChecksum ? static_cast<uint8_t>(sum + 1) : sum;
  instrument.pending = true;
}

int HidWrite(hid_device* handle, const unsigned char* data, size_t length) {
  FUZZ_CHECK(handle == reinterpret_cast<hid_device*>(&instrument));
  FUZZ_CHECK(instrument.opens > instrument.closes);
  FUZZ_CHECK(length == syride::kReportSize);
  FUZZ_CHECK(!instrument.pending);  // every write is followed by a read
  FUZZ_CHECK(data[0] == 1);
  FUZZ_CHECK(syride::USB_CheckChecksum(data) == 1);
  ++instrument.writes;
  if (FaultHits(ReplayFault::kWriteFails, instrument.writes)) return -1;
  if (FaultHits(ReplayFault::kShortWrite, instrument.writes)) return 32;
  if (instrument.gone) return -1;
  Respond(data);
  return syride::kReportSize;
}

int HidRead(hid_device* handle, unsigned char* data, size_t length) {
  FUZZ_CHECK(handle == reinterpret_cast<hid_device*>(&instrument));
  FUZZ_CHECK(length == syride::kReportSize);
  ++instrument.reads;
  const bool pending = instrument.pending;
  instrument.pending = false;
  if (FaultHits(ReplayFault::kReadFails, instrument.reads)) return -1;
  if (FaultHits(ReplayFault::kShortRead, instrument.reads)) return 32;
  if (!pending) {
    FUZZ_CHECK(instrument.gone);  // otherwise a read without a request
    return -1;
  }
  std::memcpy(data, instrument.answer, syride::kReportSize);
  return syride::kReportSize;
}

void Sleep(uint32_t /*microseconds*/) {}

const syride::UsbPlatform kReplayPlatform = {
    OpenLibrary, FindSymbol, CloseLibrary, HidInit, HidOpen, HidWrite, HidRead, HidGetProductString, HidClose, Sleep,
};

// Files are not the subject here: a saved flight is only looked at.
int32_t KeepTrack() {
  FUZZ_CHECK(tGps.nTrackPoints >= 0 && tGps.nTrackPoints <= tGps.nTrackCapacity);
  return 0;
}

}  // namespace

ReplayResult RunSyrideReplay(const uint8_t* script, size_t size) {
  uint8_t setup[kSetupBytes] = {};
  std::memcpy(setup, script, std::min(size, kSetupBytes));
  const size_t skipped = std::min(size, kSetupBytes);

  instrument = Instrument{};
  instrument.script = script + skipped;
  instrument.size = size - skipped;
  instrument.model = static_cast<ReplayModel>(std::min(setup[0] & 3, 2));
  instrument.product = instrument.model == ReplayModel::kNav     ? syride::kProductNav
                       : instrument.model == ReplayModel::kNavV3 ? syride::kProductNavV3
                                                                 : syride::kProductEvolution;
  instrument.fault = static_cast<ReplayFault>((setup[0] >> 3) & 7);
  instrument.faultAt = setup[2];
  const bool bulk = (setup[0] & 4) != 0;

  FreshRunParameters();
  tGps.dwGpsType = kGpsSyride;
  tGps.dwCommand = bulk ? kCommandDownloadAllTracks : kCommandDownloadTrack;
  tGps.nFlightNumber = setup[1];  // never -1: nothing may wait for the terminal
  syride::UseUsbPlatform(&kReplayPlatform);
  const int32_t status = bulk ? DownloadSyrideBulkTrackLog(KeepTrack) : DownloadSyrideTrackLog();
  syride::UseUsbPlatform(nullptr);

  FUZZ_CHECK(instrument.opens == instrument.closes);
  FUZZ_CHECK(!instrument.pending);
  return {status, instrument.answers, instrument.model, bulk};
}

}  // namespace fuzz::usb
