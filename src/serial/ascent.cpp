#include "serial/ascent.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/bytes.h"
#include "core/console.h"
#include "core/memory.h"
#include "core/run.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "link/com.h"
#include "link/receive.h"

namespace ascent {

const uint8_t abGetProductData[1] = {0x01};
const uint8_t abGetTrackList[2] = {0x03, 0x05};

namespace {

// Message ids of the answers, and the bytes that frame a packet request.
constexpr uint8_t kProductId = 0x02, kListId = 0x05;
constexpr uint8_t kPacketStart = 0x03, kPacketRequest = 0x08;

// Silences and the pause after identification, in microseconds; a list
// message ends when the line has been quiet for kListMessageEnd.
constexpr int64_t kProductSilence = 1000000, kListTimeout = 2000000, kListMessageEnd = 100000,
                  kPacketSilence = 2000000;
constexpr uint32_t kAfterProduct = 500000;

constexpr int32_t kSectionCapacities[kSections] = {1000, 1000, 10000, 1000, 1000};
constexpr int32_t kLinesPerProgress = 500;
constexpr int kSelectLineSize = 101;

bool BulkMode() { return tGps.dwCommand == kCommandDownloadAllTracks; }

void FreeSection(Section* s) {
  std::free(s->data);
  s->data = nullptr;
  s->capacity = 0;
  s->length = 0;
}

// Room for two more bytes at least: a line feed becomes CR LF.
int32_t MakeRoom(Section* s) {
  if (s->capacity - s->length >= 3) return 0;
  int32_t wanted = s->capacity * 2;
  auto* grown = static_cast<uint8_t*>(pAllocate(static_cast<size_t>(wanted)));
  if (grown == nullptr) return -1;
  std::memcpy(grown, s->data, static_cast<size_t>(s->length));
  std::free(s->data);
  s->data = grown;
  s->capacity = wanted;
  return 0;
}

void EndLine(Section* s, FlightTransfer* t) {
  s->data[s->length++] = '\r';
  s->data[s->length++] = '\n';
  ++t->lines;
}

void SendPacketRequest(uint16_t trackId, uint8_t section) {
  uint8_t request[5];
  FormatPacketRequest(trackId, section, request);
  WriteComData(request, sizeof request);
}

}  // namespace

bool IsSupportedFirmware(uint32_t firmware) { return (firmware >= 1356 && firmware <= 1999) || firmware >= 2368; }

bool DecodeProductResponse(const uint8_t* r, Product* product, char* text, int32_t size) {
  if (r[0] != kProductId) return false;
  product->valueB = ReadBigUnsignedShort(r + 5);
  product->firmware = ReadBigUnsignedShort(r + 7);
  product->valueA = ReadBigUnsignedShort(r + 10);
  product->supported = IsSupportedFirmware(product->firmware) ? 1 : 0;
  std::snprintf(text, static_cast<size_t>(size), "Ascent, SNR %02X%02X%02X%02X, SW %d.%d", r[1], r[2], r[3], r[4],
                product->firmware / 1000, product->firmware % 1000);
  return true;
}

uint16_t BlockNumber(const uint8_t* message) { return ReadBigUnsignedShort(message + 1); }

void StartList(ListState* list, Product* product) {
  list->previousBlock = -1;
  product->flightCount = 0;
}

int32_t DecodeListMessage(ListState* list, const uint8_t* m, Product* product, char* entry, int32_t size) {
  entry[0] = '\0';
  if (m[0] != kListId) return kListBadId;
  uint16_t block = BlockNumber(m);
  if (list->previousBlock < 0) {
    if (block != 1) return kListIgnored;
  } else if (block != 0 && block != static_cast<uint16_t>(list->previousBlock + 1)) {
    return kListBadBlock;
  }
  list->previousBlock = block;
  if (m[4] == 0 && m[5] == 0) return kListNoTracks;
  if (product->flightCount < kMaxFlights) {
    product->flightIds[product->flightCount++] = ReadBigUnsignedShort(m + 6);
    int32_t seconds = ReadBigUnsignedShort(m + 13) * 60;
    std::snprintf(entry, static_cast<size_t>(size), "%2d   %02d.%02d.%02d   %02d:%02d:00   %02d:%02d:%02d\n",
                  product->flightCount, m[10], m[11], m[12], m[8], m[9], seconds / 3600, seconds / 60 % 60,
                  seconds % 60);
  }
  return kListTaken;
}

FlightTransfer::FlightTransfer() : sections{}, state(0), section(0), remaining(0), filler(0), lines(0) {}

FlightTransfer::~FlightTransfer() {
  for (Section& s : sections) FreeSection(&s);
}

int32_t AllocateSections(FlightTransfer* t) {
  for (int i = 0; i < kSections; ++i) {
    Section& s = t->sections[i];
    FreeSection(&s);
    s.number = i + 1;
    s.data = static_cast<uint8_t*>(pAllocate(static_cast<size_t>(kSectionCapacities[i])));
    if (s.data == nullptr) {
      for (Section& each : t->sections) FreeSection(&each);
      return -1;
    }
    s.capacity = kSectionCapacities[i];
  }
  t->state = 0;
  t->section = 0;
  t->lines = 0;
  return 0;
}

int32_t DecodePacketByte(FlightTransfer* t, uint8_t b) {
  switch (t->state) {
    case 0:
      if (b != kPacketStart) return kPacketBadStart;
      t->state = 1;
      return kPacketMore;
    case 1:
      if (b < 1 || b > kSections) return kPacketBadSection;
      t->section = b;
      t->state = 2;
      return kPacketMore;
    case 2:
      t->remaining = b;
      t->filler = kPacketRoom - b;
      t->state = b > 0 ? 3 : 4;
      return kPacketMore;
    case 3: {
      Section* s = &t->sections[t->section - 1];
      if (MakeRoom(s) < 0) return kPacketNoMemory;
      if (--t->remaining > 0) {
        if (b == '\n') {
          EndLine(s, t);
        } else {
          s->data[s->length++] = b;
        }
        return kPacketMore;
      }
      // Every packet ends a line, whether or not its text does.
      if (b != '\n') s->data[s->length++] = b;
      EndLine(s, t);
      t->state = 4;
      return kPacketMore;
    }
    case 4:
      if (--t->filler > 0) return kPacketMore;
      t->state = 0;
      return t->section == kSections ? kFlightComplete : kPacketDone;
    default:
      return kPacketBadSection;
  }
}

int32_t JoinSections(const FlightTransfer* t, uint8_t** text, int32_t* length) {
  // The first section is not part of the text, yet it must have come.
  for (int i = 0; i < 4; ++i) {
    if (t->sections[i].length == 0) return -1;
  }
  int32_t total = t->sections[1].length + t->sections[2].length + t->sections[3].length;
  auto* joined = static_cast<uint8_t*>(pAllocate(static_cast<size_t>(total)));
  if (joined == nullptr) return -1;
  int32_t at = 0;
  for (int i = 1; i < 4; ++i) {
    std::memcpy(joined + at, t->sections[i].data, static_cast<size_t>(t->sections[i].length));
    at += t->sections[i].length;
  }
  *text = joined;
  *length = total;
  return 0;
}

void FormatPacketRequest(uint16_t trackId, uint8_t section, uint8_t* out) {
  out[0] = kPacketStart;
  out[1] = kPacketRequest;
  out[2] = static_cast<uint8_t>(trackId >> 8);
  out[3] = static_cast<uint8_t>(trackId & 0xFF);
  out[4] = section;
}

int32_t ReadProductData(Product* product) {
  FlushComFifo();
  std::printf("Product: ");
  std::fflush(stdout);
  WriteComData(abGetProductData, sizeof abGetProductData);
  // Bytes beyond the response's size are read and dropped.
  uint8_t response[kProductResponseSize];
  int32_t held = 0;
  int32_t result = ReceiveUntilSilent(kProductSilence, [&](uint8_t b) {
    if (held < kProductResponseSize) response[held++] = b;
    bool valid = held == kProductResponseSize &&
                 DecodeProductResponse(response, product, tGps.szProduct, sizeof tGps.szProduct);
    return valid ? 0 : 1;
  });
  if (result != 0) {
    std::printf("Timeout or invalid response\n");
    return -1;
  }
  std::printf("%s\n", tGps.szProduct);
  PauseLink(kAfterProduct);
  return 0;
}

int32_t ReadTrackList(Product* product) {
  FlushComFifo();
  std::printf("Track list:\n");
  ListState list;
  StartList(&list, product);
  uint8_t message[kListMessageSize];
  // One request a message; the list ends with a message of block 0.
  do {
    WriteComData(abGetTrackList, sizeof abGetTrackList);
    int32_t held = 0;
    int32_t result = ReceiveUntilSilent(kListTimeout, [&](uint8_t b) {
      message[held++] = b;
      if (held < kListMessageSize) return 1;
      char entry[64];
      int32_t decoded = DecodeListMessage(&list, message, product, entry, sizeof entry);
      // By the negated code.
      static constexpr const char* kRefusals[] = {"", "Data error (bad message ID)\n", "Data error (bad block number)\n",
                                                  "No tracks in list\n"};
      std::printf("%s", decoded < 0 ? kRefusals[-decoded] : entry);
      return decoded < 0 ? -1 : 0;
    });
    if (result == 1) std::printf("Timeout waiting for data\n");
    if (result != 0) return -1;
    // The message ends when the line falls quiet; anything more is dropped.
    ReceiveUntilSilent(kListMessageEnd, [](uint8_t) { return 1; });
  } while (BlockNumber(message) != 0);
  if (product->flightCount == 0) {
    std::printf("No tracks found\n");
    return -1;
  }
  return BulkMode() ? 0 : ChooseFlightNumber(product->flightCount, kSelectLineSize);
}

int32_t ReadIgcTrackLog(Product*, uint16_t trackId) {
  FlightTransfer transfer;
  if (AllocateSections(&transfer) < 0) {
    std::printf("Memory allocation error\n");
    return -1;
  }
  SendPacketRequest(trackId, 0);
  ProgressCounter progress("Lines: ", 0);
  int32_t result = ReceiveUntilSilent(kPacketSilence, [&](uint8_t b) {
    int32_t decoded = DecodePacketByte(&transfer, b);
    if (decoded == kPacketBadStart) std::printf("Bad response in state 0 (0x%02x)\n", b);
    if (decoded == kPacketBadSection) std::printf("Bad response from GPS\n");
    if (decoded == kPacketNoMemory) std::printf("Memory allocation error\n");
    if (decoded < 0) return -1;
    if (decoded == kPacketDone) SendPacketRequest(trackId, static_cast<uint8_t>(transfer.section));
    if (transfer.lines > 0 && transfer.lines % kLinesPerProgress == 0) progress.Update(transfer.lines);
    return decoded == kFlightComplete ? 0 : 1;
  });
  if (result < 0) return -1;

  uint8_t* text = nullptr;
  int32_t length = 0;
  if (JoinSections(&transfer, &text, &length) < 0) {
    std::printf("Missing IGC data block\n");
    return -1;
  }
  for (Section& s : transfer.sections) FreeSection(&s);
  if (!tGps.bScroll) std::printf("\n");

  if (DecodeIgcBuffer(text, length, nullptr, 0) < 0) {
    std::free(text);
    return -1;
  }
  std::printf("Got %d points\n", tGps.nTrackPoints);
  // Only the buffer's size carries the text's length: the length in use
  // stays as it was, and the saving step reports and writes that many bytes.
  std::free(tGps.pbRawLog);
  tGps.pbRawLog = text;
  tGps.nRawLogSize = length;
  tGps.dwFirstPointTime = tGps.pTrackPoints[0].dwTime;
  SetLogFlags(1, 1, 1, GetCurrentGpsTime());
  return 0;
}

}  // namespace ascent

int32_t DownloadAscentTrackLog() {
  ascent::Product product{};
  if (ascent::ReadProductData(&product) < 0) return -1;
  if (product.supported == 0) {
    std::printf("Unsupported firmware version\n");
    return -1;
  }
  // The list position goes out as the track id, not the id the list gave.
  int32_t position = ascent::ReadTrackList(&product);
  return position > 0 ? ascent::ReadIgcTrackLog(&product, static_cast<uint16_t>(position)) : -1;
}

int32_t DownloadAscentBulkTrackLog(TrackSaver save) {
  ascent::Product product{};
  int32_t result = ascent::ReadProductData(&product);
  if (result == 0) result = ascent::ReadTrackList(&product);
  if (result != 0) return result;
  // A flight that fails ends the walk, not the command.
  SaveEachTrack(product.flightCount, save, [&product](int32_t n) {
    uint16_t id = product.flightIds[n - 1];
    std::printf("Getting flight number %d\n", id);
    return ascent::ReadIgcTrackLog(&product, id);
  });
  return 0;
}
