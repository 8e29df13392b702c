#include "usb_emulator.h"

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <tuple>

// The library's header uses zero-length arrays.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#include <libusb.h>
#pragma GCC diagnostic pop

namespace usbemu {

namespace {

Bus* pBus = nullptr;
int contextToken = 0;
libusb_context* const kContext = reinterpret_cast<libusb_context*>(&contextToken);

uint32_t Le32(const uint8_t* at) { return at[0] | (at[1] << 8) | (at[2] << 16) | (static_cast<uint32_t>(at[3]) << 24); }

void PutLe(uint8_t* at, uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint8_t Sum(const uint8_t* report) {
  uint8_t sum = 0;
  for (int i = 1; i <= 62; ++i) sum = static_cast<uint8_t>(sum + report[i]);
  return sum;
}

Device* FromHandle(hid_device* handle) { return reinterpret_cast<Device*>(handle); }

// libusb, as the run-time loader hands it out.
int Init(libusb_context** context) {
  ++pBus->inits;
  *context = pBus->initGivesNoContext ? nullptr : kContext;
  return pBus->initGivesNoContext ? LIBUSB_ERROR_OTHER : 0;
}

ssize_t GetDeviceList(libusb_context* context, libusb_device*** list) {
  if (context != kContext) return LIBUSB_ERROR_INVALID_PARAM;
  const size_t count = pBus->listEmpty ? 0 : pBus->devices.size();
  *list = new libusb_device*[count + 1]();
  for (size_t i = 0; i < count; ++i) (*list)[i] = reinterpret_cast<libusb_device*>(pBus->devices[i].get());
  ++pBus->listsOutstanding;
  return static_cast<ssize_t>(count);
}

void FreeDeviceList(libusb_device** list, int unref) {
  delete[] list;
  --pBus->listsOutstanding;
  pBus->listsFreedWithoutUnref += unref == 0;
}

int GetDeviceDescriptor(libusb_device* device, libusb_device_descriptor* descriptor) {
  const Device* d = reinterpret_cast<const Device*>(device);
  return *descriptor = libusb_device_descriptor{}, descriptor->idVendor = d->vendor, descriptor->idProduct = d->product,
         0;
}

void* OpenLibrary(const char* name) {
  pBus->librariesOpened.push_back(name);
  return pBus->libraryMissing ? nullptr : pBus;
}

void* FindSymbol(void* library, const char* name) {
  pBus->symbolsLookedUp.push_back(name);
  const std::string symbol = name;
  if (std::count(pBus->missingSymbols.begin(), pBus->missingSymbols.end(), symbol) != 0) return nullptr;
  if (symbol == "libusb_init") return reinterpret_cast<void*>(&Init);
  if (symbol == "libusb_get_device_list") return reinterpret_cast<void*>(&GetDeviceList);
  if (symbol == "libusb_free_device_list") return reinterpret_cast<void*>(&FreeDeviceList);
  if (symbol == "libusb_get_device_descriptor") return reinterpret_cast<void*>(&GetDeviceDescriptor);
  return library;  // found, but not to be called
}

void CloseLibrary(void* library) { pBus->librariesClosed += library == pBus; }

// hidapi.
int HidInit() { return ++pBus->hidInits, 0; }

hid_device* HidOpen(unsigned short vendor, unsigned short product, const wchar_t* serial) {
  for (auto& device : pBus->devices) {
    if (serial == nullptr && device->vendor == vendor && device->product == product && !device->openFails) {
      ++device->opens;
      return reinterpret_cast<hid_device*>(device.get());
    }
  }
  return nullptr;
}

int HidWrite(hid_device* handle, const unsigned char* data, size_t length) {
  Device* device = FromHandle(handle);
  if (++device->writes == device->failWriteAt) return device->shortTransfer ? 32 : -1;
  if (length != 64) return device->violations += "output report of " + std::to_string(length) + "\n", -1;
  return device->Receive(data), 64;
}

int HidRead(hid_device* handle, unsigned char* data, size_t length) {
  Device* device = FromHandle(handle);
  const bool answered = device->hasAnswer;
  device->hasAnswer = false;
  if (++device->reads == device->failReadAt) return device->shortTransfer ? 32 : -1;
  if (!answered || length != 64) return device->violations += "read without a request\n", -1;
  return std::memcpy(data, device->pending.data(), 64), 64;
}

int HidGetProductString(hid_device* handle, wchar_t* text, size_t length) {
  if (FromHandle(handle)->productStringFails) return -1;
  std::wcsncpy(text, L"SYRIDE HID", length);
  text[length - 1] = L'\0';
  return 0;
}

void HidClose(hid_device* handle) { ++FromHandle(handle)->closes; }

void Sleep(uint32_t microseconds) { pBus->slept += microseconds; }

const syride::UsbPlatform kEmulatedPlatform = {
    OpenLibrary, FindSymbol, CloseLibrary, HidInit, HidOpen, HidWrite, HidRead, HidGetProductString, HidClose, Sleep,
};

// A list entry (and a sector header): junk around the fields every model has.
Bytes Entry(size_t size, uint8_t seed, uint32_t unixStart, uint16_t duration) {
  Bytes entry(size);
  for (size_t i = 0; i < size; ++i) entry[i] = static_cast<uint8_t>(seed + 37 * i);
  PutLe(entry.data(), unixStart, 4);
  PutLe(entry.data() + 8, duration, 2);
  return entry;
}

}  // namespace

void Device::Receive(const uint8_t* data) {
  Report request, in{};
  std::memcpy(request.data(), data, 64);
  if (request[0] != 1 || Sum(data) != request[63])
    violations += "bad request " + std::to_string(requests.size()) + "\n";
  requests.push_back(request);
  uint8_t* payload = in.data() + 1;
  const bool evolution = model == Model::kEvolution;
  switch (request[1]) {
    case syride::kCommandSerialNumber:
      PutLe(payload, 4711, 4);
      break;
    case syride::kCommandFlightCount:
      payload[0] = static_cast<uint8_t>(entries.size());
      break;
    case syride::kCommandFlightEntry:
      if (request[2] >= entries.size()) violations += "no flight entry " + std::to_string(request[2]) + "\n";
      if (request[2] < entries.size()) std::memcpy(payload, entries[request[2]].data(), entries[request[2]].size());
      break;
    case syride::kCommandReadMemory: {
      const uint32_t length = request[6], offset = Le32(&request[8]);
      uint64_t address = Le32(&request[2]);
      if (evolution && (request[7] != 0 || offset + length > 512)) violations += "bad block read\n";
      if (evolution) address = address * 512 + offset;
      if (length == 0 || length > 61) violations += "read of " + std::to_string(length) + " bytes\n";
      memoryReads.emplace_back(address, length);
      for (uint32_t i = 0; i < length && i < 61; ++i) {
        auto it = memory.upper_bound(address + i);
        payload[i] = it == memory.begin() || address + i - (--it)->first >= it->second.size()
                         ? 0xFF
                         : it->second[address + i - it->first];
      }
      break;
    }
    case syride::kCommandVersion:
      PutLe(payload, major, 4);
      PutLe(payload + 4, minor, 4);
      break;
    case syride::kCommandWriteBuffer: {
      const uint32_t offset = evolution ? (request[2] | (request[3] << 8)) : request[2];
      const uint32_t length = evolution ? request[4] : request[3];
      if (length > (evolution ? 58u : 59u) || offset + length > 512) violations += "bad buffer write\n";
      break;
    }
    case syride::kCommandCommitBuffer:
    case syride::kCommandEraseSubSector:
      if (request[1] == syride::kCommandEraseSubSector &&
          std::count(request.begin() + 6, request.begin() + 63, 0) != 57) {
        violations += "erase not cleared\n";
      }
      break;
    default:
      violations += "unknown command " + std::to_string(request[1]) + "\n";
  }
  const Answer quality = answer ? answer(request, static_cast<int>(requests.size())) : Answer::kGood;
  for (int i = 1; i <= 61 && quality != Answer::kGood; ++i) in[i] ^= 0xA5;
  in[0] = 1;
  in[62] = quality == Answer::kBadStatus ? 0x15 : syride::kStatusValid;
  in[63] = static_cast<uint8_t>(Sum(in.data()) + (quality == Answer::kBadChecksum));
  pending = in;
  hasAnswer = true;
}

Device& Bus::Add(Model model, uint32_t major, uint32_t minor) {
  const uint16_t products[] = {syride::kProductNav, syride::kProductNavV3, syride::kProductEvolution};
  devices.push_back(std::make_unique<Device>());
  Device& device = *devices.back();
  std::tie(device.model, device.product, device.major, device.minor) =
      std::tuple(model, products[static_cast<int>(model)], major, minor);
  Bytes waypoints(512, 0x20);
  std::fill(waypoints.end() - 4, waypoints.end(), 0xFE);
  if (model == Model::kEvolution) device.memory[uint64_t{syride::kEvolutionWaypointBlock} * 512] = waypoints;
  return device;
}

std::string Bus::Problems() const {
  std::string problems;
  for (const auto& device : devices) problems += device->violations + (device->opens != device->closes ? "open\n" : "");
  if (listsOutstanding != 0 || listsFreedWithoutUnref != 0) problems += "device list not freed\n";
  return problems;
}

Bus::Bus() { pBus = this, syride::UseUsbPlatform(&kEmulatedPlatform); }

Bus::~Bus() { pBus = nullptr, syride::UseUsbPlatform(nullptr); }

Bytes Container(const std::vector<Chunk>& chunks) {
  Bytes out = {137, 54, 80, 75, 13, 10, 26, 10};
  for (const Chunk& c : chunks) {
    uint8_t header[16] = {};
    PutLe(header, c.id, 2);
    PutLe(header + 2, c.options, 2);
    PutLe(header + 4, static_cast<uint32_t>(c.data.size()), 4);
    PutLe(header + 8, adler32(1, c.data.data(), static_cast<uInt>(c.data.size())) + c.badChecksum, 4);
    out.insert(out.end(), header, header + 16);
    out.insert(out.end(), c.data.begin(), c.data.end());
  }
  return out;
}

Bytes ReadBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::vector<std::string> Split(const std::string& text, char by) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, by);) parts.insert(parts.end(), part.empty() ? 0 : 1, part);
  return parts;
}

namespace {

const std::string kData = std::string(KESTRIX_TEST_DATA) + "/";

// A start as 2023-10-07T13:54:08, or as +SECONDS after `base`.
uint32_t Start(const std::vector<std::string>& words, size_t at, uint32_t base) {
  std::tm t{};
  if (words.size() <= at) return base;
  if (words[at][0] == '+') return base + static_cast<uint32_t>(std::stoul(words[at].substr(1)));
  strptime(words[at].c_str(), "%Y-%m-%dT%H:%M:%S", &t);
  return static_cast<uint32_t>(timegm(&t));
}

// A list entry and the bytes where the readers look. A SYS'Nav's bytes
// follow the sector chain (the first sector in the entry), which may run past them.
void AddFlight(Device& device, const std::vector<std::string>& w) {
  const bool evo = w[0] == "evo";
  Bytes where;
  const size_t colon = w[1].find(':'), count = colon == std::string::npos ? 0 : std::stoul(w[1].substr(colon + 1));
  // The real flight (4011 s) from 2023-10-07T13:54:08, there and back again, or its first seconds.
  const uint32_t start = evo ? 0 : 1696686848;
  const size_t seconds = evo ? std::stoul(w[3]) : w[1] == "back" ? 8022 : count > 0 ? count : 4011;
  Bytes memory = evo && count > 0 ? Bytes(count, 1) : w[1].rfind("zero:", 0) == 0 ? Bytes(count * 15 + 8, 0) : Bytes{};
  if (memory.empty() && evo) memory = ReadBytes(kData + w[1]);
  if (memory.empty())
    memory = ReadBytes(kData + "syride/" + (w[1] == "back" ? "there-and-back." : "forth.") + w[2] + ".mem");
  if (!evo && w[1].rfind("first:", 0) == 0)
    memory.resize(syride::FlightMemorySize(static_cast<uint32_t>(count), w[2] == "new"));
  for (const std::string& n : Split(w[w[0] == "evo" ? 2 : 3], ',')) where.push_back(static_cast<uint8_t>(std::stoi(n)));
  const uint16_t value = static_cast<uint16_t>(std::stoul(w[w[0] == "evo" ? 2 : 3]));
  device.entries.push_back(Entry(evo ? 29 : 20, where[0], Start(w, 4, start), static_cast<uint16_t>(seconds)));
  Bytes& entry = device.entries.back();
  if (w[0] == "evo") {
    PutLe(entry.data() + 6, value, 2);
    PutLe(entry.data() + 20, static_cast<uint32_t>(memory.size()), 4);
    device.memory[(uint64_t{value} * 2432 + 1583024) * 512] = memory;
  } else if (w[0] == "v3") {
    entry[6] = where[0];
    // Where the instrument's reader looks: the address taken modulo 2^32.
    device.memory[((uint64_t{where[0]} << 16) * 2432 + 34916) * 512 % (uint64_t{1} << 32)] = memory;
  }
  for (size_t k = 0, done = 0; w[0] == "nav" && k < where.size(); ++k) {
    entry[6] = where[0];
    Bytes sector = Entry(24, where[k], 0, 0);
    sector[3] = k + 1 < where.size() ? where[k + 1] : 255;
    const size_t take = std::min<size_t>(memory.size() - done, 65512);
    sector.insert(sector.end(), memory.begin() + static_cast<ptrdiff_t>(done),
                  memory.begin() + static_cast<ptrdiff_t>(done + take));
    done += take;
    device.memory[uint64_t{where[k]} * 65536] = sector;
  }
}

void Configure(Device& device, const std::string& option) {
  const size_t eq = option.find('=');
  const std::string key = option.substr(0, eq), value = eq == std::string::npos ? "" : option.substr(eq + 1);
  device.openFails |= key == "openfails";
  device.productStringFails |= key == "namefails";
  device.shortTransfer |= key == "short";
  if (key == "write" || key == "read") (key == "write" ? device.failWriteAt : device.failReadAt) = std::stoi(value);
  if (key == "oldwaypoints") device.memory[uint64_t{syride::kEvolutionWaypointBlock} * 512][511] = 0xFF;
  if (key == "flaky") {
    // Every 7th answer a bad status, every 11th a bad checksum; sector numbers are read unchecked and spared.
    device.answer = [](const Report& r, int n) {
      if (r[1] == syride::kCommandReadMemory && r[6] == 1) return Answer::kGood;
      return n % 7 == 0 ? Answer::kBadStatus : n % 11 == 0 ? Answer::kBadChecksum : Answer::kGood;
    };
  }
}

}  // namespace

std::vector<std::string> Build(Bus& bus, const std::vector<std::string>& lines, std::string* typed) {
  std::vector<std::string> run;
  for (const std::string& line : lines) {
    const std::vector<std::string> w = Split(line, ' ');
    if (w[0] == "device") {
      const Model model = w[1] == "v3" ? Model::kNavV3 : w[1] == "evo" ? Model::kEvolution : Model::kNav;
      Device& device = bus.Add(model, std::stoul(w[2]), std::stoul(w[3]));
      if (w[1].size() == 9) device.vendor = static_cast<uint16_t>(std::stoul(w[1].substr(0, 4), nullptr, 16));
      if (w[1].size() == 9) device.product = static_cast<uint16_t>(std::stoul(w[1].substr(5), nullptr, 16));
      for (size_t i = 4; i < w.size(); ++i) Configure(device, w[i]);
    } else if (w[0] == "nav" || w[0] == "v3" || w[0] == "evo") {
      AddFlight(*bus.devices.back(), w);
    } else if (w[0] == "bus") {
      bus.libraryMissing |= w[1] == "nolib";
      bus.initGivesNoContext |= w[1] == "nocontext";
      bus.listEmpty |= w[1] == "emptylist";
      if (w[1].rfind("missing=", 0) == 0) bus.missingSymbols.push_back(w[1].substr(8));
    } else if (w[0] == "run") {
      run = w;
    } else if (w[0] == "stdin") {
      *typed = line.substr(6);
    } else {
      throw std::runtime_error("unknown line: " + line);
    }
  }
  return run;
}

}  // namespace usbemu
