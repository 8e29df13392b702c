#include "usb/syride.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

// The library's header uses zero-length arrays.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#include <libusb.h>
#pragma GCC diagnostic pop

#include "core/bytes.h"
#include "core/console.h"
#include "core/memory.h"
#include "core/run.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "usb/fastlz.h"

namespace syride {

#ifdef __APPLE__
const char* const kLibUsbLibraryName = "libusb-1.0.0.dylib";
#else
const char* const kLibUsbLibraryName = "libusb-1.0.so.0";
#endif

// Looked up in this order; the first four enumerate the devices and are required.
const char* const kLibUsbSymbolNames[11] = {
    "libusb_init",
    "libusb_get_device_list",
    "libusb_free_device_list",
    "libusb_get_device_descriptor",
    "libusb_open",
    "libusb_close",
    "libusb_kernel_driver_active",
    "libusb_detach_kernel_driver",
    "libusb_claim_interface",
    "libusb_release_interface",
    "libusb_open_device_with_vid_pid",
};

namespace {

enum LibUsbSymbol { kInit, kGetDeviceList, kFreeDeviceList, kGetDeviceDescriptor, kSymbolCount = 11 };
static_assert(sizeof kLibUsbSymbolNames / sizeof kLibUsbSymbolNames[0] == kSymbolCount);

// SYS'Nav memory: 64 KiB sectors, each starting with a 24-byte header whose
// byte 3 names the next sector of the chain.
constexpr uint32_t kSectorSize = 65536;
constexpr uint32_t kSectorHeader = 24;
constexpr uint32_t kSectorData = kSectorSize - kSectorHeader;
constexpr uint8_t kLastSector = 255;
constexpr uint32_t kMaxSectors = 256;  // a longer chain can only be a loop

// Per-second records.
constexpr uint32_t kMemoryHeader = 8;
constexpr uint32_t kKeyInterval = 60;
constexpr uint32_t kKeyOld = 19, kDeltaOld = 14;
constexpr uint32_t kKeyNew = 21, kDeltaNew = 15;
constexpr int32_t kNoFixArc = 5965232;             // 0.5 degrees

constexpr uint32_t kV3Base = 34916;
constexpr uint32_t kEvolutionBase = 1583024;
constexpr uint32_t kStartValueStride = 2432;

// The compressed container: a signature, then chunks of a 16-byte header
// (id, options, size, Adler-32) and their data.
constexpr uint8_t kContainerSignature[8] = {137, 54, 80, 75, 13, 10, 26, 10};
constexpr uint32_t kChunkHeader = 16;
constexpr uint16_t kChunkFileHeader = 1, kChunkData = 17;  // ids
constexpr uint16_t kStored = 0, kCompressed = 1;           // options of a data chunk

constexpr uint32_t kIdentificationPause = 200000;
constexpr int kSelectLineSize = 81;

void* RealOpenLibrary(const char* name) { return dlopen(name, RTLD_NOW | RTLD_LOCAL); }
void* RealFindSymbol(void* library, const char* name) { return dlsym(library, name); }
void RealCloseLibrary(void* library) { dlclose(library); }
void RealSleep(uint32_t microseconds) { usleep(microseconds); }

const UsbPlatform kRealPlatform = {
    RealOpenLibrary, RealFindSymbol, RealCloseLibrary,       hid_init,  hid_open,
    hid_write,       hid_read,       hid_get_product_string, hid_close, RealSleep,
};

const UsbPlatform* pPlatform = &kRealPlatform;

struct LibUsbState {
  void* pLibrary;
  void* apSymbols[kSymbolCount];
  libusb_context* pContext;
  bool bContextMade;
  bool bHidInitialised;
};

LibUsbState tLibUsb;

template <typename Function>
Function Symbol(LibUsbSymbol which) {
  return reinterpret_cast<Function>(tLibUsb.apSymbols[which]);
}


bool IsEvolution(const SyrideDevice* device) {
  return device->dwProductId != kProductNav && device->dwProductId != kProductNavV3;
}

bool AnswerIsValid(const SyrideDevice* device) {
  return device->abInput[kStatusByte] == kStatusValid && USB_CheckChecksum(device->abInput) == 1;
}

// Sends the command prepared in the output report until the instrument answers
// it properly; a failed transfer ends the attempt at once.
int32_t ExchangeUntilValid(SyrideDevice* device) {
  do {
    if (USB_Action(device) < 0) return -1;
  } while (!AnswerIsValid(device));
  return 0;
}

int32_t ReadPiece(SyrideDevice* device, uint32_t address, uint8_t* destination, uint32_t length) {
  device->abOutput[1] = kCommandReadMemory;
  WriteUnsignedLong(device->abOutput + 2, address);
  device->abOutput[6] = static_cast<uint8_t>(length);
  if (ExchangeUntilValid(device) < 0) return -1;
  std::memcpy(destination, device->abInput + 1, length);
  return 0;
}

int32_t ReadEvolutionPiece(SyrideDevice* device, uint32_t block, uint32_t offset, uint8_t* destination,
                           uint32_t length) {
  device->abOutput[1] = kCommandReadMemory;
  WriteUnsignedLong(device->abOutput + 2, block);
  device->abOutput[6] = static_cast<uint8_t>(length);
  device->abOutput[7] = 0;
  WriteUnsignedLong(device->abOutput + 8, offset);
  if (ExchangeUntilValid(device) < 0) return -1;
  std::memcpy(destination, device->abInput + 1, length);
  return 0;
}

// Reads `length` bytes from `address` on in checked pieces, counting them into `total`.
int32_t ReadSpan(SyrideDevice* device, uint32_t address, uint8_t* destination, uint32_t length,
                 ProgressCounter* progress, uint32_t* total) {
  while (length > 0) {
    uint32_t piece = length < kPayloadSize ? length : kPayloadSize;
    if (ReadPiece(device, address, destination, piece) < 0) return -1;
    address += piece;
    destination += piece;
    length -= piece;
    *total += piece;
    progress->Update(static_cast<int32_t>(*total));
  }
  return 0;
}


// Fills the instrument's write buffer piece by piece, then commits it to
// `address`. The SYS'Evolution block commands carry a two-byte offset, so
// one byte less of data fits their pieces.
int32_t WriteThroughBuffer(SyrideDevice* device, uint32_t address, const uint8_t* data, uint32_t length,
                           bool wideOffset) {
  const uint32_t header = wideOffset ? 5 : 4;
  const uint32_t room = static_cast<uint32_t>(kChecksumByte) - header;  // up to the checksum byte
  for (uint32_t offset = 0; offset < length;) {
    uint32_t piece = length - offset < room ? length - offset : room;
    uint8_t* out = device->abOutput;
    out[1] = kCommandWriteBuffer;
    out[2] = static_cast<uint8_t>(offset);
    if (wideOffset) out[3] = static_cast<uint8_t>(offset >> 8);
    out[header - 1] = static_cast<uint8_t>(piece);
    std::memcpy(out + header, data + offset, piece);
    if (ExchangeUntilValid(device) < 0) return -1;
    offset += piece;
  }
  device->abOutput[1] = kCommandCommitBuffer;
  WriteUnsignedLong(device->abOutput + 2, address);
  return ExchangeUntilValid(device);
}

int32_t ArcFromDegree7(int32_t value) {
  // Wraps like the 32-bit field it fills when garbage comes in.
  return static_cast<int32_t>(static_cast<int64_t>(std::round(value * kDegree7ToArc)));
}

int32_t Subtract(int32_t running, int32_t delta) {
  return static_cast<int32_t>(static_cast<uint32_t>(running) - static_cast<uint32_t>(delta));
}


int32_t DecompressFailure(const char* message, uint8_t* output) {
  std::printf("%s", message);
  std::free(output);
  return -1;
}

}  // namespace

void UseUsbPlatform(const UsbPlatform* platform) {
  pPlatform = platform != nullptr ? platform : &kRealPlatform;
  // A real library stays mapped: libusb may run threads of its own.
  tLibUsb = LibUsbState{};
}

int32_t LoadLibUsbLibrary(int32_t initialiseHid) {
  if (tLibUsb.pLibrary == nullptr) {
    void* library = pPlatform->openLibrary(kLibUsbLibraryName);
    if (library == nullptr) return -1;
    void* symbols[kSymbolCount];
    for (int i = 0; i < kSymbolCount; ++i) symbols[i] = pPlatform->findSymbol(library, kLibUsbSymbolNames[i]);
    for (int i = 0; i < kLibUsbRequiredSymbols; ++i) {
      if (symbols[i] == nullptr) {
        pPlatform->closeLibrary(library);
        return -1;
      }
    }
    tLibUsb.pLibrary = library;
    std::memcpy(tLibUsb.apSymbols, symbols, sizeof symbols);
  }
  if (!tLibUsb.bContextMade) {
    tLibUsb.bContextMade = true;
    Symbol<int (*)(libusb_context**)>(kInit)(&tLibUsb.pContext);
  }
  if (initialiseHid != 0 && !tLibUsb.bHidInitialised) {
    tLibUsb.bHidInitialised = true;
    pPlatform->hidInit();
  }
  return 0;
}

int32_t OpenbHidDevice(SyrideDevice* device) {
  auto init = Symbol<int (*)(libusb_context**)>(kInit);
  if (tLibUsb.pContext == nullptr && init != nullptr) init(&tLibUsb.pContext);
  if (tLibUsb.pContext == nullptr) {
    std::printf("Failed to initialize libusb\n");
    return -1;
  }
  auto getList = Symbol<ssize_t (*)(libusb_context*, libusb_device***)>(kGetDeviceList);
  auto freeList = Symbol<void (*)(libusb_device**, int)>(kFreeDeviceList);
  auto describe = Symbol<int (*)(libusb_device*, libusb_device_descriptor*)>(kGetDeviceDescriptor);
  libusb_device** list = nullptr;
  ssize_t count = getList(tLibUsb.pContext, &list);
  if (count < 1) {
    if (list != nullptr) freeList(list, 1);
    std::printf("Failed to get USB device list\n");
    return -1;
  }
  for (ssize_t i = 0; i < count; ++i) {
    libusb_device_descriptor descriptor{};
    if (describe(list[i], &descriptor) < 0) continue;
    uint16_t product = descriptor.idProduct;
    if (descriptor.idVendor != kVendorId ||
        (product != kProductNav && product != kProductNavV3 && product != kProductEvolution)) {
      continue;
    }
    hid_device* handle = pPlatform->hidOpen(descriptor.idVendor, product, nullptr);
    if (handle != nullptr) {
      device->hDevice = handle;
      device->dwProductId = product;
      freeList(list, 1);
      return 0;
    }
    std::printf("Unable to open USB device %04x %04x\n", descriptor.idVendor, product);
  }
  freeList(list, 1);
  std::printf("No matching USB vendor/product ID\n");
  return -1;
}

void CloseHidDevice(SyrideDevice* device) {
  if (device->hDevice == nullptr) return;
  pPlatform->hidClose(device->hDevice);
  device->hDevice = nullptr;
}

int32_t USB_CheckChecksum(const uint8_t* report) {
  uint8_t sum = 0;
  for (int i = 1; i < kChecksumByte; ++i) sum = static_cast<uint8_t>(sum + report[i]);
  return sum == report[kChecksumByte] ? 1 : 0;
}

int32_t USB_Action(SyrideDevice* device) {
  uint8_t* out = device->abOutput;
  out[0] = 1;
  uint8_t sum = 0;
  for (int i = 1; i < kChecksumByte; ++i) sum = static_cast<uint8_t>(sum + out[i]);
  out[kChecksumByte] = sum;
  if (pPlatform->hidWrite(device->hDevice, out, kReportSize) != kReportSize) return -1;
  if (pPlatform->hidRead(device->hDevice, device->abInput, kReportSize) != kReportSize) return -1;
  return 0;
}

int32_t USB_GetProductValue(SyrideDevice* device, uint8_t command, void* destination, uint32_t length) {
  device->abOutput[1] = command;
  if (ExchangeUntilValid(device) < 0) return -1;
  // Only the payload is copied, whatever the caller asks for.
  std::memcpy(destination, device->abInput + 1, length < kPayloadSize ? length : kPayloadSize);
  return 0;
}

int32_t USB_GetProductValueVar(SyrideDevice* device, uint8_t command, uint8_t parameter, void* destination,
                               uint32_t length) {
  device->abOutput[2] = parameter;
  return USB_GetProductValue(device, command, destination, length);
}

int32_t USB_ReadData(SyrideDevice* device, uint32_t address, uint8_t* destination, uint32_t length) {
  while (length > 0) {
    uint32_t piece = length < kPayloadSize ? length : kPayloadSize;
    device->abOutput[1] = kCommandReadMemory;
    WriteUnsignedLong(device->abOutput + 2, address);
    device->abOutput[6] = static_cast<uint8_t>(piece);
    if (USB_Action(device) < 0) return -1;
    std::memcpy(destination, device->abInput + 1, piece);
    address += piece;
    destination += piece;
    length -= piece;
  }
  return 0;
}

uint32_t USB_ReadEvolutionBlock(SyrideDevice* device, uint32_t block, uint8_t* destination) {
  for (uint32_t offset = 0; offset < kEvolutionBlockSize;) {
    uint32_t piece = kEvolutionBlockSize - offset < kPayloadSize ? kEvolutionBlockSize - offset : kPayloadSize;
    if (ReadEvolutionPiece(device, block, offset, destination + offset, piece) < 0) return 0;
    offset += piece;
  }
  return kEvolutionBlockSize;
}

int32_t USB_WriteData(SyrideDevice* device, uint32_t address, const uint8_t* data, uint32_t length) {
  return WriteThroughBuffer(device, address, data, length, false);
}

int32_t USB_WriteBlock(SyrideDevice* device, uint32_t address, const uint8_t* data) {
  return WriteThroughBuffer(device, address, data, kEvolutionBlockSize, true);
}

int32_t USB_EraseFlashSubSector(SyrideDevice* device, uint32_t address) {
  std::memset(device->abOutput, 0, sizeof device->abOutput);
  device->abOutput[1] = kCommandEraseSubSector;
  WriteUnsignedLong(device->abOutput + 2, address);
  return ExchangeUntilValid(device);
}

int32_t SyrideReadProductData(SyrideDevice* device) {
  if (OpenbHidDevice(device) < 0) {
    std::printf("USB HID search. No matching devices found\n");
    return -1;
  }
  wchar_t name[20];
  if (pPlatform->hidGetProductString(device->hDevice, name, 20) < 0) {
    std::printf("USB HID search. Could not obtain product name of matching device\n");
    return -1;
  }
  uint8_t version[8];
  if (USB_GetProductValue(device, kCommandVersion, version, sizeof version) < 0) {
    std::printf("USB HID access error (version)\n");
    return -1;
  }
  device->dwMajor = ReadUnsignedLong(version);
  device->dwMinor = ReadUnsignedLong(version + 4);
  uint8_t serialAnswer[12];
  if (USB_GetProductValue(device, kCommandSerialNumber, serialAnswer, sizeof serialAnswer) < 0) {
    std::printf("USB HID access error (SNR)\n");
    return -1;
  }
  int serial = static_cast<int32_t>(ReadUnsignedLong(serialAnswer));
  uint32_t major = device->dwMajor;
  uint32_t minor = device->dwMinor;
  // The accent after "SYS" is U+00B4, kept as UTF-8.
  const char* format;
  if (device->dwProductId == kProductNav) {
    device->bNewFormat = major >= 2 || (major == 1 && minor >= 21);
    format = "Syride SYS\xC2\xB4Nav, SNR %d, SW %d.%d";
  } else if (device->dwProductId == kProductNavV3) {
    device->bNewFormat = major >= 4 || (major == 3 && minor >= 16);
    format = "Syride SYS\xC2\xB4Nav V3, SNR %d, SW %d.%d";
  } else {
    if (major < 2 || (major == 2 && minor < 35)) {
      std::printf("Unsupported Syride version\n");
      return -1;
    }
    device->bNewFormat = 1;
    uint8_t block[kEvolutionBlockSize] = {};
    USB_ReadEvolutionBlock(device, kEvolutionWaypointBlock, block);
    device->bWaypointFormat = ReadUnsignedLong(block + kEvolutionBlockSize - 4) == 0xFEFEFEFEu ? 1 : 0;
    format =
        "Syride SYS\xC2\xB4"
        "Evolution, SNR %d, SW %d.%d";
  }
  std::snprintf(tGps.szProduct, sizeof tGps.szProduct, format, serial, static_cast<int>(major),
                static_cast<int>(minor));
  std::printf("%s\n", tGps.szProduct);
  pPlatform->sleepMicroseconds(kIdentificationPause);
  return 0;
}

int32_t SyrideReadTrackList(SyrideDevice* device) {
  uint8_t count = 0;
  if (USB_GetProductValue(device, kCommandFlightCount, &count, 1) < 0) {
    std::printf("USB HID access error\n");
    return -1;
  }
  if (count == 0) {
    std::printf("No track list entries\n");
    return -1;
  }
  const bool evolution = IsEvolution(device);
  const bool bulk = tGps.dwCommand == kCommandDownloadAllTracks;
  for (int i = 0; i < count; ++i) {
    uint8_t entry[29] = {};
    if (USB_GetProductValueVar(device, kCommandFlightEntry, static_cast<uint8_t>(i), entry, evolution ? 29 : 20) < 0) {
      std::printf("USB HID access error\n");
      return -1;
    }
    FlightEntry& flight = device->aFlights[i];
    flight.dwStartTime = ReadUnsignedLong(entry) - kDeviceToGpsTime;
    flight.dwDuration = ReadUnsignedShort(entry + 8);
    if (evolution) {
      flight.dwStartValue = ReadUnsignedShort(entry + 6);
      flight.dwSize = ReadUnsignedLong(entry + 20);
    } else {
      flight.dwStartValue = static_cast<uint32_t>(entry[6]) << 16;
      flight.dwSize = 0;
    }
    if (!bulk) {
      SystemTime start;
      ConvertGpsTimeToSystemTime(flight.dwStartTime, &start);
      uint32_t d = flight.dwDuration;
      std::printf("%3d  %02d.%02d.%02d  %02d:%02d:%02d  %02u:%02u:%02u\n", i + 1, static_cast<int>(start.wDay),
                  static_cast<int>(start.wMonth), static_cast<int>(start.wYear % 100), static_cast<int>(start.wHour),
                  static_cast<int>(start.wMinute), static_cast<int>(start.wSecond), d / 3600, (d / 60) % 60, d % 60);
    }
  }
  device->nFlights = count;
  device->bListRead = 1;
  if (bulk) return 0;
  return ChooseFlightNumber(count, kSelectLineSize, true);
}

uint32_t FlightMemorySize(uint32_t duration, uint8_t newFormat) {
  uint32_t keys = (duration + kKeyInterval - 1) / kKeyInterval;
  if (newFormat != 0) return duration * kDeltaNew + kMemoryHeader + keys * (kKeyNew - kDeltaNew);
  return duration * kDeltaOld + kMemoryHeader + keys * (kKeyOld - kDeltaOld);
}

int32_t ReadSelectedTrack(SyrideDevice* device, int32_t index) {
  if (index < 0 || index >= device->nFlights) {
    std::printf("Flight number out of range\n");
    return -1;
  }
  SetLogFlags(1, 1, 1, GetCurrentGpsTime());
  const FlightEntry& flight = device->aFlights[index];
  const bool evolution = IsEvolution(device);
  uint32_t expected = evolution ? flight.dwSize : FlightMemorySize(flight.dwDuration, device->bNewFormat);
  std::unique_ptr<uint8_t[]> memory(new (std::nothrow) uint8_t[expected]);
  if (!memory) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  uint32_t got;
  if (evolution) {
    got = USB_GetFlightMemoryEvolution(device, memory.get(), flight.dwStartValue, expected);
  } else if (device->dwProductId == kProductNavV3) {
    got = USB_GetFlightMemoryV3(device, memory.get(), flight.dwStartValue, expected);
  } else {
    got = USB_GetFlightMemory(device, memory.get(), flight.dwStartValue, expected);
  }
  if (got != expected) {
    std::printf("Flight memory / duration inconsistency\n");
    return -1;
  }
  if (evolution) return DecodeEvolutionFlightMemory(memory.get(), expected);

  uint32_t room = flight.dwDuration > 0 ? flight.dwDuration : 1;
  auto* points = static_cast<TrackPoint*>(pAllocate(sizeof(TrackPoint) * room));
  if (points == nullptr) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  int32_t count = DecodeFlightMemory(memory.get(), points, flight.dwDuration, flight.dwStartTime, device->bNewFormat);
  if (count > 0) {
    std::free(tGps.pTrackPoints);
    tGps.pTrackPoints = points;
    tGps.nTrackCapacity = static_cast<int32_t>(room);
    tGps.nTrackPoints = count;
  } else {
    std::free(points);
  }
  return 0;
}

uint32_t USB_GetFlightMemory(SyrideDevice* device, uint8_t* buffer, uint32_t start, uint32_t size) {
  ProgressCounter progress("Bytes: ");
  uint32_t got = 0;
  uint32_t address = start;
  uint8_t next = kLastSector;
  uint32_t visited = 0;
  do {
    if (USB_ReadData(device, address + 3, &next, 1) < 0) {
      progress.Finish(static_cast<int32_t>(got));
      return 0;
    }
    address += kSectorHeader;
    uint32_t wanted = size - got < kSectorData ? size - got : kSectorData;
    if (ReadSpan(device, address, buffer + got, wanted, &progress, &got) < 0) {
      progress.Finish(static_cast<int32_t>(got));
      return 0;
    }
    address = static_cast<uint32_t>(next) * kSectorSize;
  } while (next < kLastSector && ++visited < kMaxSectors);
  progress.Finish(static_cast<int32_t>(got));
  return got;
}

uint32_t USB_GetFlightMemoryV3(SyrideDevice* device, uint8_t* buffer, uint32_t start, uint32_t size) {
  ProgressCounter progress("Bytes: ");
  // 32-bit arithmetic as the instrument's address has always been computed:
  // with start values in steps of 65536 it wraps.
  uint32_t address = (start * kStartValueStride + kV3Base) * 512u;
  uint32_t got = 0;
  int32_t result = ReadSpan(device, address, buffer, size, &progress, &got);
  progress.Finish(static_cast<int32_t>(got));
  return result < 0 ? 0 : got;
}

uint32_t USB_GetFlightMemoryEvolution(SyrideDevice* device, uint8_t* buffer, uint32_t start, uint32_t size) {
  ProgressCounter progress("Bytes: ");
  uint32_t block = start * kStartValueStride + kEvolutionBase;
  uint32_t offset = 0;
  uint32_t got = 0;
  while (got < size) {
    uint32_t piece = size - got;
    if (piece > kPayloadSize) piece = kPayloadSize;
    if (piece > kEvolutionBlockSize - offset) piece = kEvolutionBlockSize - offset;
    if (ReadEvolutionPiece(device, block, offset, buffer + got, piece) < 0) {
      progress.Finish(static_cast<int32_t>(got));
      return 0;
    }
    got += piece;
    offset += piece;
    if (offset == kEvolutionBlockSize) {
      ++block;
      offset = 0;
    }
    progress.Update(static_cast<int32_t>(got));
  }
  progress.Finish(static_cast<int32_t>(got));
  return got;
}

int32_t DecodeFlightMemory(const uint8_t* buffer, TrackPoint* points, uint32_t duration, uint32_t startTime,
                           uint8_t newFormat) {
  const uint8_t* record = buffer + kMemoryHeader;
  int32_t latitude = 0, longitude = 0, altitude = 0, secondAltitude = 0;
  int32_t stored = 0;
  for (uint32_t i = 0; i < duration; ++i) {
    if (i % kKeyInterval == 0) {
      latitude = ReadBigSignedLong(record);
      longitude = ReadBigSignedLong(record + 4);
      altitude = ReadBigSignedShort(record + 8);
      if (newFormat != 0) secondAltitude = ReadBigSignedShort(record + 10);
      record += newFormat != 0 ? kKeyNew : kKeyOld;
    } else {
      latitude = Subtract(latitude, ReadBigSignedShort(record));
      longitude = Subtract(longitude, ReadBigSignedShort(record + 2));
      int32_t fall = static_cast<int8_t>(record[4]);
      altitude -= fall;
      // The instrument keeps no delta of its own for the second altitude.
      if (newFormat != 0) secondAltitude -= fall;
      record += newFormat != 0 ? kDeltaNew : kDeltaOld;
    }
    TrackPoint point;
    point.dwFlags = i == 0 ? kTrackPointNewSegment : 0;
    point.dwTime = startTime + i;
    point.lLatitude = ArcFromDegree7(latitude);
    point.lLongitude = ArcFromDegree7(longitude);
    // Crosswise on purpose: the barometric field feeds the GPS altitude.
    point.lGpsAltitude = altitude * 10;
    point.lPressureAltitude = newFormat != 0 ? secondAltitude : 0;
    if (point.lLatitude == kNoFixArc && point.lLongitude == kNoFixArc) continue;
    points[stored++] = point;
  }
  return stored;
}

int32_t DecodeEvolutionFlightMemory(const uint8_t* buffer, uint32_t length) {
  if (length < sizeof kContainerSignature) return DecompressFailure("Decompress: Too small file\n", nullptr);
  if (std::memcmp(buffer, kContainerSignature, sizeof kContainerSignature) != 0) {
    return DecompressFailure("Decompress: Wrong file format\n", nullptr);
  }
  uint8_t* output = nullptr;
  uint32_t declared = 0;
  int64_t count = 0;
  // Set once a chunk could not be placed inside the output; the length check then fails.
  bool spilled = false;
  uint32_t position = sizeof kContainerSignature;
  while (position < length) {
    if (length - position < kChunkHeader) {
      return DecompressFailure("Decompress: Too few bytes for left for header\n", output);
    }
    const uint8_t* header = buffer + position;
    uint16_t id = ReadUnsignedShort(header);
    uint16_t options = ReadUnsignedShort(header + 2);
    uint32_t size = ReadUnsignedLong(header + 4);
    uint32_t checksum = ReadUnsignedLong(header + 8);
    position += kChunkHeader;
    if (size > length - position) return DecompressFailure("Decompress: Too few bytes left for chunk\n", output);
    const uint8_t* data = buffer + position;
    position += size;
    if (Adler32(1, data, size) != checksum) return DecompressFailure("Decompress: Bad chunk checksum\n", output);

    if (id == kChunkFileHeader && size >= 11 && size <= 511) {
      if (output != nullptr) return DecompressFailure("Decompress: Multiple decompressed sizes\n", output);
      declared = ReadUnsignedLong(data);
      if (declared == 0) return DecompressFailure("Decompress: Zero decompressed size\n", output);
      // The raw log counts its bytes in a signed 32-bit field.
      if (declared <= INT32_MAX) output = static_cast<uint8_t*>(pAllocate(declared));
      if (output == nullptr) return DecompressFailure("Decompress: Memory allocation error\n", output);
    } else if (id == kChunkData && output != nullptr) {
      if (options != kStored && options != kCompressed) {
        return DecompressFailure("Decompress: Unknown chunk option\n", output);
      }
      if (options == kStored) {
        // Data that do not fit are counted, not written: the length check fails.
        if (count >= 0 && count <= declared && size <= declared - count) {
          std::memcpy(output + count, data, size);
        } else {
          spilled = true;
        }
        count += size;
      } else {
        if (count < 0 || count > declared) {
          spilled = true;
          continue;
        }
        int64_t room = declared - count;
        int32_t capacity = room > INT32_MAX ? INT32_MAX : static_cast<int32_t>(room);
        int32_t inputLength = size > INT32_MAX ? INT32_MAX : static_cast<int32_t>(size);
        int32_t result = FastLZ_Decompress(data, inputLength, output + count, capacity);
        if (result == 0) return DecompressFailure("Decompress: Decompression error\n", output);
        // An error code is counted as it comes; the length check below catches it.
        count += result;
      }
    }
  }
  if (count == 0) return DecompressFailure("Decompress: Zero decompress length\n", output);
  if (spilled || count != declared) return DecompressFailure("Decompress: Length mismatch\n", output);

  std::printf("Decompressed length %d\n", static_cast<int32_t>(count));
  std::free(tGps.pbRawLog);
  tGps.pbRawLog = output;
  tGps.nRawLogSize = static_cast<int32_t>(declared);
  tGps.nRawLogLength = static_cast<int32_t>(count);
  if (DecodeIgcBuffer(output, tGps.nRawLogLength, nullptr, 0) < 0) return -1;
  if (tGps.nTrackPoints > 0) tGps.dwFirstPointTime = tGps.pTrackPoints[0].dwTime;
  std::printf("Got %d points\n", tGps.nTrackPoints);
  return 0;
}

}  // namespace syride

int32_t DownloadSyrideTrackLog() {
  using namespace syride;
  SyrideDevice device{};
  LoadLibUsbLibrary(1);
  int32_t result = SyrideReadProductData(&device);
  if (result == 0) {
    result = SyrideReadTrackList(&device);
    if (result > 0) result = ReadSelectedTrack(&device, result - 1);
  }
  CloseHidDevice(&device);
  return result;
}

int32_t DownloadSyrideBulkTrackLog(TrackSaver save) {
  using namespace syride;
  SyrideDevice device{};
  // Loaded here too, so that an all-tracks download works in a fresh process.
  LoadLibUsbLibrary(1);
  int32_t result = SyrideReadProductData(&device);
  if (result == 0) result = SyrideReadTrackList(&device);
  if (result == 0) {
    result = SaveEachTrack(device.nFlights, save, [&device](int32_t n) { return ReadSelectedTrack(&device, n - 1); });
  }
  CloseHidDevice(&device);
  return result;
}
