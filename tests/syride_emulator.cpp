#include "syride_emulator.h"

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "core/run.h"

// The library's header uses zero-length arrays.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#include <libusb.h>
#pragma GCC diagnostic pop

namespace emu {

namespace {

Bus* pBus = nullptr;
int contextToken = 0;

uint32_t Le32(const uint8_t* at) {
  return static_cast<uint32_t>(at[0]) | (static_cast<uint32_t>(at[1]) << 8) | (static_cast<uint32_t>(at[2]) << 16) |
         (static_cast<uint32_t>(at[3]) << 24);
}

void PutLe32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

void PutBe32(std::vector<uint8_t>& out, int32_t value) {
  uint32_t v = static_cast<uint32_t>(value);
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

void PutBe16(std::vector<uint8_t>& out, int32_t value) {
  out.push_back(static_cast<uint8_t>(static_cast<uint32_t>(value) >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

Device* FromHandle(hid_device* handle) { return reinterpret_cast<Device*>(handle); }

// libusb, as the run-time loader hands it out.
int Init(libusb_context** context) {
  ++pBus->inits;
  if (pBus->initGivesNoContext) {
    *context = nullptr;
    return LIBUSB_ERROR_OTHER;
  }
  *context = reinterpret_cast<libusb_context*>(&contextToken);
  return 0;
}

ssize_t GetDeviceList(libusb_context* context, libusb_device*** list) {
  if (context != reinterpret_cast<libusb_context*>(&contextToken)) return LIBUSB_ERROR_INVALID_PARAM;
  size_t count = pBus->listEmpty ? 0 : pBus->devices.size();
  auto* devices = new libusb_device*[count + 1];
  for (size_t i = 0; i < count; ++i) devices[i] = reinterpret_cast<libusb_device*>(pBus->devices[i].get());
  devices[count] = nullptr;
  ++pBus->listsOutstanding;
  *list = devices;
  return static_cast<ssize_t>(count);
}

void FreeDeviceList(libusb_device** list, int unref) {
  delete[] list;
  --pBus->listsOutstanding;
  if (unref == 0) ++pBus->listsFreedWithoutUnref;
}

int GetDeviceDescriptor(libusb_device* device, libusb_device_descriptor* descriptor) {
  const Device* d = reinterpret_cast<const Device*>(device);
  std::memset(descriptor, 0, sizeof *descriptor);
  descriptor->bLength = 18;
  descriptor->idVendor = d->vendor;
  descriptor->idProduct = d->product;
  return 0;
}

void NeverCalled() { throw std::logic_error("optional libusb function called"); }

void* OpenLibrary(const char* name) {
  pBus->librariesOpened.push_back(name);
  return pBus->libraryMissing ? nullptr : pBus;
}

void* FindSymbol(void* library, const char* name) {
  if (library != pBus) return nullptr;
  pBus->symbolsLookedUp.push_back(name);
  for (const std::string& missing : pBus->missingSymbols) {
    if (missing == name) return nullptr;
  }
  std::string symbol = name;
  if (symbol == "libusb_init") return reinterpret_cast<void*>(&Init);
  if (symbol == "libusb_get_device_list") return reinterpret_cast<void*>(&GetDeviceList);
  if (symbol == "libusb_free_device_list") return reinterpret_cast<void*>(&FreeDeviceList);
  if (symbol == "libusb_get_device_descriptor") return reinterpret_cast<void*>(&GetDeviceDescriptor);
  return reinterpret_cast<void*>(&NeverCalled);
}

void CloseLibrary(void* library) {
  if (library == pBus) ++pBus->librariesClosed;
}

// hidapi.
int HidInit() {
  ++pBus->hidInits;
  return 0;
}

hid_device* HidOpen(unsigned short vendor, unsigned short product, const wchar_t* serial) {
  if (serial != nullptr) return nullptr;
  for (auto& device : pBus->devices) {
    if (device->vendor == vendor && device->product == product && !device->openFails) {
      ++device->opens;
      return reinterpret_cast<hid_device*>(device.get());
    }
  }
  return nullptr;
}

int HidWrite(hid_device* handle, const unsigned char* data, size_t length) {
  Device* device = FromHandle(handle);
  ++device->writes;
  if (device->writes == device->failWriteAt) return device->shortTransfer ? 32 : -1;
  if (length != 64) {
    device->violations.push_back("output report of " + std::to_string(length) + " bytes");
    return -1;
  }
  device->Receive(data);
  return 64;
}

int HidRead(hid_device* handle, unsigned char* data, size_t length) {
  Device* device = FromHandle(handle);
  ++device->reads;
  if (device->reads == device->failReadAt) {
    device->hasAnswer = false;
    return device->shortTransfer ? 32 : -1;
  }
  if (!device->hasAnswer || length != 64) {
    device->violations.push_back("read without a request");
    return -1;
  }
  std::memcpy(data, device->pending.data(), 64);
  device->hasAnswer = false;
  return 64;
}

int HidGetProductString(hid_device* handle, wchar_t* text, size_t length) {
  Device* device = FromHandle(handle);
  if (device->productStringFails) return -1;
  std::wcsncpy(text, L"SYRIDE HID", length);
  if (length > 0) text[length - 1] = L'\0';
  return 0;
}

void HidClose(hid_device* handle) { ++FromHandle(handle)->closes; }

void Sleep(uint32_t microseconds) { pBus->slept += microseconds; }

const syride::UsbPlatform kEmulatedPlatform = {
    OpenLibrary, FindSymbol, CloseLibrary, HidInit, HidOpen, HidWrite, HidRead, HidGetProductString, HidClose, Sleep,
};


std::vector<uint8_t> Junk(size_t count, uint8_t seed) {
  std::vector<uint8_t> bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(seed + 37 * i);
  return bytes;
}

}  // namespace

void Device::Store(uint64_t address, const std::vector<uint8_t>& bytes) { memory_[address] = bytes; }

uint8_t Device::Load(uint64_t address) const {
  auto it = memory_.upper_bound(address);
  if (it == memory_.begin()) return 0xFF;
  --it;
  if (address - it->first < it->second.size()) return it->second[address - it->first];
  return 0xFF;
}

void Device::Receive(const uint8_t* data) {
  Report request;
  std::memcpy(request.data(), data, 64);
  if (request[0] != 1) violations.push_back("report number " + std::to_string(request[0]));
  uint8_t sum = 0;
  for (int i = 1; i <= 62; ++i) sum = static_cast<uint8_t>(sum + request[i]);
  if (sum != request[63]) violations.push_back("checksum of request " + std::to_string(requests.size() + 1));
  requests.push_back(request);
  pending = Respond(request);
  hasAnswer = true;
}

Report Device::Respond(const Report& request) {
  Report in{};
  in[0] = 1;
  uint8_t* payload = in.data() + 1;
  const bool evolution = model == Model::kEvolution;
  switch (request[1]) {
    case syride::kCommandSerialNumber:
      PutLe32(payload, serial);
      std::memcpy(payload + 4, "KSTRX-01", 8);
      break;
    case syride::kCommandFlightCount:
      payload[0] = static_cast<uint8_t>(entries.size());
      break;
    case syride::kCommandFlightEntry:
      if (request[2] < entries.size()) {
        std::memcpy(payload, entries[request[2]].data(), entries[request[2]].size());
      } else {
        violations.push_back("flight entry " + std::to_string(request[2]) + " does not exist");
      }
      break;
    case syride::kCommandReadMemory: {
      uint32_t length = request[6];
      uint64_t address;
      if (evolution) {
        uint32_t offset = Le32(&request[8]);
        if (request[7] != 0) violations.push_back("block read with byte 7 set");
        if (offset + length > 512)
          violations.push_back("piece crosses the end of block " + std::to_string(Le32(&request[2])));
        address = static_cast<uint64_t>(Le32(&request[2])) * 512 + offset;
      } else {
        address = Le32(&request[2]);
      }
      if (length == 0 || length > 61) violations.push_back("read of " + std::to_string(length) + " bytes");
      memoryReads.emplace_back(address, length);
      for (uint32_t i = 0; i < length && i < 61; ++i) payload[i] = Load(address + i);
      break;
    }
    case syride::kCommandVersion:
      PutLe32(payload, major);
      PutLe32(payload + 4, minor);
      break;
    case syride::kCommandWriteBuffer: {
      uint32_t offset = evolution ? (request[2] | (request[3] << 8)) : request[2];
      uint32_t length = evolution ? request[4] : request[3];
      const uint8_t* data = &request[evolution ? 5 : 4];
      if (length > (evolution ? 58u : 59u) || offset + length > 512) {
        violations.push_back("transfer buffer write of " + std::to_string(length) + " at " + std::to_string(offset));
        break;
      }
      std::memcpy(transferBuffer.data() + offset, data, length);
      break;
    }
    case syride::kCommandCommitBuffer:
      commits.emplace_back(Le32(&request[2]), transferBuffer);
      break;
    case syride::kCommandEraseSubSector:
      for (int i = 6; i <= 62; ++i) {
        if (request[i] != 0) {
          violations.push_back("erase report not cleared");
          break;
        }
      }
      erases.push_back(Le32(&request[2]));
      break;
    default:
      violations.push_back("unknown command " + std::to_string(request[1]));
      break;
  }
  in[62] = syride::kStatusValid;
  Answer quality = answer ? answer(request, static_cast<int>(requests.size())) : Answer::kGood;
  if (quality != Answer::kGood) {
    for (int i = 1; i <= 61; ++i) in[i] ^= 0xA5;
  }
  if (quality == Answer::kBadStatus) in[62] = 0x15;
  uint8_t sum = 0;
  for (int i = 1; i <= 62; ++i) sum = static_cast<uint8_t>(sum + in[i]);
  in[63] = quality == Answer::kBadChecksum ? static_cast<uint8_t>(sum + 1) : sum;
  return in;
}

Device& Bus::Add(Model model, uint32_t major, uint32_t minor) {
  auto device = std::make_unique<Device>();
  device->model = model;
  device->product = model == Model::kNav     ? syride::kProductNav
                    : model == Model::kNavV3 ? syride::kProductNavV3
                                             : syride::kProductEvolution;
  device->major = major;
  device->minor = minor;
  devices.push_back(std::move(device));
  return *devices.back();
}

int Bus::OpenHandles() const {
  int open = 0;
  for (const auto& device : devices) open += device->opens - device->closes;
  return open;
}

std::vector<std::string> Bus::Violations() const {
  std::vector<std::string> all;
  for (const auto& device : devices) all.insert(all.end(), device->violations.begin(), device->violations.end());
  return all;
}

Installed::Installed(Bus* bus) {
  pBus = bus;
  syride::UseUsbPlatform(&kEmulatedPlatform);
}

Installed::~Installed() {
  syride::UseUsbPlatform(nullptr);
  pBus = nullptr;
}

std::vector<Consumers::Saved> Consumers::saved;

int32_t Consumers::Save() {
  Saved track{tGps.nTrackPoints, 0, 0, tGps.nRawLogLength};
  if (tGps.nTrackPoints > 0) {
    track.firstTime = tGps.pTrackPoints[0].dwTime;
    track.lastTime = tGps.pTrackPoints[tGps.nTrackPoints - 1].dwTime;
  }
  saved.push_back(track);
  return 0;
}

Consumers::Consumers() { saved.clear(); }

std::vector<uint8_t> Container(const std::vector<Chunk>& chunks) {
  std::vector<uint8_t> out = {137, 54, 80, 75, 13, 10, 26, 10};
  auto put = [&out](uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
  };
  for (const Chunk& c : chunks) {
    uLong checksum = adler32(1, c.data.data(), static_cast<uInt>(c.data.size()));
    put(c.id, 2);
    put(c.options, 2);
    put(static_cast<uint32_t>(c.data.size()), 4);
    put(static_cast<uint32_t>(checksum) + (c.badChecksum ? 1 : 0), 4);
    put(0, 4);
    out.insert(out.end(), c.data.begin(), c.data.end());
  }
  return out;
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

IgcFlight ReadIgcFlight(const std::string& path) {
  std::vector<uint8_t> bytes = ReadBytes(path);
  std::istringstream lines(std::string(bytes.begin(), bytes.end()));
  std::string line;
  IgcFlight flight;
  std::tm date{};
  int previous = -1;
  while (std::getline(lines, line)) {
    if (line.rfind("HFDTE", 0) == 0) {
      date.tm_mday = std::stoi(line.substr(5, 2));
      date.tm_mon = std::stoi(line.substr(7, 2)) - 1;
      date.tm_year = 100 + std::stoi(line.substr(9, 2));
    }
    if (line.size() < 35 || line[0] != 'B') continue;
    int second = std::stoi(line.substr(1, 2)) * 3600 + std::stoi(line.substr(3, 2)) * 60 + std::stoi(line.substr(5, 2));
    if (previous < 0) {
      std::tm start = date;
      start.tm_sec = second;
      flight.unixStart = static_cast<uint32_t>(timegm(&start));
    } else if (second != previous + 1) {
      throw std::runtime_error("fixes are not one a second in " + path);
    }
    previous = second;
    int32_t lat = std::stoi(line.substr(7, 2)) * 60000 + std::stoi(line.substr(9, 5));
    int32_t lon = std::stoi(line.substr(15, 3)) * 60000 + std::stoi(line.substr(18, 5));
    if (line[14] == 'S') lat = -lat;
    if (line[23] == 'W') lon = -lon;
    flight.latitudeMin1000.push_back(lat);
    flight.longitudeMin1000.push_back(lon);
    // Thousandths of a minute to 1e-7 degrees.
    Fix fix{static_cast<int32_t>(std::llround(lat * 1e7 / 60000.0)),
            static_cast<int32_t>(std::llround(lon * 1e7 / 60000.0)), std::stoi(line.substr(25, 5)),
            std::stoi(line.substr(30, 5))};
    flight.fixes.push_back(fix);
  }
  return flight;
}

std::vector<uint8_t> EncodeFlightMemory(const std::vector<Fix>& fixes, bool newFormat) {
  std::vector<uint8_t> out = {'S', 'Y', 'S', 0x01, 0x02, 0x03, 0x04, 0x05};
  for (size_t i = 0; i < fixes.size(); ++i) {
    const Fix& fix = fixes[i];
    size_t recordStart = out.size();
    if (i % 60 == 0) {
      PutBe32(out, fix.latitude);
      PutBe32(out, fix.longitude);
      PutBe16(out, fix.barometric);
      if (newFormat) PutBe16(out, fix.gps);
      out.resize(recordStart + (newFormat ? 21 : 19), 0xC3);
    } else {
      const Fix& before = fixes[i - 1];
      int64_t dLat = static_cast<int64_t>(before.latitude) - fix.latitude;
      int64_t dLon = static_cast<int64_t>(before.longitude) - fix.longitude;
      int32_t dAlt = before.barometric - fix.barometric;
      if (dLat < INT16_MIN || dLat > INT16_MAX || dLon < INT16_MIN || dLon > INT16_MAX || dAlt < INT8_MIN ||
          dAlt > INT8_MAX) {
        return {};
      }
      PutBe16(out, static_cast<int32_t>(dLat));
      PutBe16(out, static_cast<int32_t>(dLon));
      out.push_back(static_cast<uint8_t>(dAlt));
      out.resize(recordStart + (newFormat ? 15 : 14), 0xC3);
    }
  }
  return out;
}

void AddNavFlight(Device& device, uint32_t unixStart, uint16_t duration, const std::vector<uint8_t>& sectors,
                  const std::vector<uint8_t>& bytes) {
  std::vector<uint8_t> entry = Junk(20, 0x11);
  PutLe32(entry.data(), unixStart);
  entry[6] = sectors.front();
  entry[8] = static_cast<uint8_t>(duration);
  entry[9] = static_cast<uint8_t>(duration >> 8);
  device.entries.push_back(entry);
  size_t done = 0;
  for (size_t k = 0; k < sectors.size(); ++k) {
    std::vector<uint8_t> sector = Junk(24, static_cast<uint8_t>(sectors[k]));
    sector[3] = k + 1 < sectors.size() ? sectors[k + 1] : 255;
    size_t take = std::min<size_t>(bytes.size() - done, 65512);
    sector.insert(sector.end(), bytes.begin() + static_cast<ptrdiff_t>(done),
                  bytes.begin() + static_cast<ptrdiff_t>(done + take));
    done += take;
    device.Store(static_cast<uint64_t>(sectors[k]) * 65536, sector);
  }
}

void AddV3Flight(Device& device, uint32_t unixStart, uint16_t duration, uint8_t startHigh,
                 const std::vector<uint8_t>& bytes) {
  std::vector<uint8_t> entry = Junk(20, 0x22);
  PutLe32(entry.data(), unixStart);
  entry[6] = startHigh;
  entry[8] = static_cast<uint8_t>(duration);
  entry[9] = static_cast<uint8_t>(duration >> 8);
  device.entries.push_back(entry);
  // Where the instrument's reader looks: the address taken modulo 2^32.
  uint64_t address = ((static_cast<uint64_t>(startHigh) << 16) * 2432 + 34916) * 512 % (uint64_t{1} << 32);
  device.Store(address, bytes);
}

void AddEvolutionFlight(Device& device, uint32_t unixStart, uint16_t duration, uint16_t startValue,
                        const std::vector<uint8_t>& bytes) {
  std::vector<uint8_t> entry = Junk(29, 0x33);
  PutLe32(entry.data(), unixStart);
  entry[6] = static_cast<uint8_t>(startValue);
  entry[7] = static_cast<uint8_t>(startValue >> 8);
  entry[8] = static_cast<uint8_t>(duration);
  entry[9] = static_cast<uint8_t>(duration >> 8);
  PutLe32(entry.data() + 20, static_cast<uint32_t>(bytes.size()));
  device.entries.push_back(entry);
  device.Store((static_cast<uint64_t>(startValue) * 2432 + 1583024) * 512, bytes);
}

}  // namespace emu
