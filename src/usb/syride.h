// Syride instruments over USB HID.
#pragma once

#include <hidapi.h>

#include <cstddef>
#include <cstdint>

#include "core/run.h"

// The commands; they find and open the instrument themselves.
int32_t DownloadSyrideTrackLog();
int32_t DownloadSyrideBulkTrackLog(TrackSaver save);

namespace syride {

// USB vendor and product ids of the three instruments.
constexpr uint16_t kVendorId = 0x0483;
constexpr uint16_t kProductNav = 0x5753, kProductNavV3 = 0x5754, kProductEvolution = 0x5758;

// A report: byte 0 the report id, then the payload (input bytes 1 to 61),
// the status byte (kStatusValid for a good answer) and the checksum.
constexpr int kReportSize = 64, kPayloadSize = 61, kStatusByte = 62, kChecksumByte = 63;
constexpr uint8_t kStatusValid = 0x17;

// Command codes, in byte 1 of the output report.
constexpr uint8_t kCommandSerialNumber = 0, kCommandFlightCount = 3, kCommandFlightEntry = 5, kCommandReadMemory = 6;
constexpr uint8_t kCommandVersion = 9, kCommandWriteBuffer = 11, kCommandCommitBuffer = 13;
constexpr uint8_t kCommandEraseSubSector = 29;

constexpr uint32_t kEvolutionBlockSize = 512;
constexpr uint32_t kEvolutionWaypointBlock = 0x10F649;
// Device times count from 1970; GPS time from the last day of 1989.
constexpr uint32_t kDeviceToGpsTime = 631065600;
constexpr int kMaxFlights = 255;

struct FlightEntry {
  uint32_t dwStartTime;   // GPS seconds
  uint32_t dwDuration;    // seconds
  uint32_t dwStartValue;  // the readers derive the memory address from it
  uint32_t dwSize;        // bytes, SYS'Evolution only
};

// Zeroed by the caller before use. The output report is one buffer for every
// command: what a command leaves in it stays there (and in the checksum) for
// the next one, as the instruments have always been driven.
struct SyrideDevice {
  hid_device* hDevice;
  uint32_t dwProductId;
  uint32_t dwMajor;
  uint32_t dwMinor;
  uint8_t bNewFormat;
  uint8_t abOutput[kReportSize];
  uint8_t abInput[kReportSize];
  FlightEntry aFlights[kMaxFlights];
  int32_t nFlights;
  int32_t bListRead;
  uint32_t bWaypointFormat;
};

// The platform underneath: the run-time loader that finds libusb, hidapi,
// and the pause after identification. Tests put an emulated instrument here.
struct UsbPlatform {
  void* (*openLibrary)(const char* name);
  void* (*findSymbol)(void* library, const char* name);
  void (*closeLibrary)(void* library);
  int (*hidInit)();
  hid_device* (*hidOpen)(unsigned short vendor, unsigned short product, const wchar_t* serial);
  int (*hidWrite)(hid_device* device, const unsigned char* data, size_t length);
  int (*hidRead)(hid_device* device, unsigned char* data, size_t length);
  int (*hidGetProductString)(hid_device* device, wchar_t* text, size_t length);
  void (*hidClose)(hid_device* device);
  void (*sleepMicroseconds)(uint32_t microseconds);
};

extern const char* const kLibUsbLibraryName;
extern const char* const kLibUsbSymbolNames[11];
constexpr int kLibUsbRequiredSymbols = 4;

// Switches to `platform` (nullptr: the real one) and forgets a libusb that
// was loaded through the previous one.
void UseUsbPlatform(const UsbPlatform* platform);

int32_t LoadLibUsbLibrary(int32_t initialiseHid);
int32_t OpenbHidDevice(SyrideDevice* device);
void CloseHidDevice(SyrideDevice* device);

int32_t USB_Action(SyrideDevice* device);
int32_t USB_CheckChecksum(const uint8_t* report);
int32_t USB_GetProductValue(SyrideDevice* device, uint8_t command, void* destination, uint32_t length);
int32_t USB_GetProductValueVar(SyrideDevice* device, uint8_t command, uint8_t parameter, void* destination,
                               uint32_t length);
int32_t USB_ReadData(SyrideDevice* device, uint32_t address, uint8_t* destination, uint32_t length);
uint32_t USB_ReadEvolutionBlock(SyrideDevice* device, uint32_t block, uint8_t* destination);
int32_t USB_WriteData(SyrideDevice* device, uint32_t address, const uint8_t* data, uint32_t length);
int32_t USB_WriteBlock(SyrideDevice* device, uint32_t address, const uint8_t* data);
int32_t USB_EraseFlashSubSector(SyrideDevice* device, uint32_t address);

int32_t SyrideReadProductData(SyrideDevice* device);
int32_t SyrideReadTrackList(SyrideDevice* device);
int32_t ReadSelectedTrack(SyrideDevice* device, int32_t index);

// Flight memory readers: the number of bytes read, 0 after a failed transfer.
uint32_t USB_GetFlightMemory(SyrideDevice* device, uint8_t* buffer, uint32_t start, uint32_t size);
uint32_t USB_GetFlightMemoryV3(SyrideDevice* device, uint8_t* buffer, uint32_t start, uint32_t size);
uint32_t USB_GetFlightMemoryEvolution(SyrideDevice* device, uint8_t* buffer, uint32_t start, uint32_t size);

// Bytes a SYS'Nav flight of `duration` seconds occupies.
uint32_t FlightMemorySize(uint32_t duration, uint8_t newFormat);

int32_t DecodeFlightMemory(const uint8_t* buffer, TrackPoint* points, uint32_t duration, uint32_t startTime,
                           uint8_t newFormat);
int32_t DecodeEvolutionFlightMemory(const uint8_t* buffer, uint32_t length);

}  // namespace syride
