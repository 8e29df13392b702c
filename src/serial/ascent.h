// Ascent track download.
#pragma once

#include <cstdint>

#include "core/run.h"

// The commands, each on a port that the caller opened at the line speed.
int32_t DownloadAscentTrackLog();
int32_t DownloadAscentBulkTrackLog(TrackSaver save);

namespace ascent {

constexpr int kProductResponseSize = 18;
constexpr int kListMessageSize = 15;
constexpr int kMaxFlights = 255;
constexpr int kPacketSize = 300;
constexpr int kPacketRoom = kPacketSize - 3;  // text and filler after the three head bytes
constexpr int kSections = 5;

extern const uint8_t abGetProductData[1];
extern const uint8_t abGetTrackList[2];

// What the instrument told about itself and its flights.
struct Product {
  uint16_t valueA;
  uint16_t valueB;
  uint16_t firmware;
  int32_t supported;
  int32_t flightCount;
  uint16_t flightIds[kMaxFlights];
};

bool IsSupportedFirmware(uint32_t firmware);
// Fills the product from an 18-byte response and writes its text ("Ascent,
// SNR ..., SW ...") into `text`. False when byte 0 is not the product id.
bool DecodeProductResponse(const uint8_t* response, Product* product, char* text, int32_t size);

// The flight list as it arrives, one message per request.
struct ListState {
  int32_t previousBlock;  // -1: none yet
};

enum ListResult : int32_t {
  kListTaken = 1,
  kListIgnored = 2,  // a first message that is not block 1
  kListBadId = -1,
  kListBadBlock = -2,
  kListNoTracks = -3,
};

uint16_t BlockNumber(const uint8_t* message);
void StartList(ListState* list, Product* product);
// Checks one 15-byte message and stores its flight while there is room;
// `entry` then receives the list line to show (empty when not stored).
int32_t DecodeListMessage(ListState* list, const uint8_t* message, Product* product, char* entry, int32_t size);

// One flight's transfer: packets of five numbered sections.
struct Section {
  uint8_t* data;
  int32_t capacity;
  int32_t length;
  int32_t number;
};

struct FlightTransfer {
  Section sections[kSections];
  int32_t state;
  int32_t section;    // of the packet being received, 1..5
  int32_t remaining;  // text bytes still to come in this packet
  int32_t filler;     // filler bytes still to come
  int32_t lines;

  FlightTransfer();
  ~FlightTransfer();
  FlightTransfer(const FlightTransfer&) = delete;
  FlightTransfer& operator=(const FlightTransfer&) = delete;
};

enum PacketResult : int32_t {
  kPacketMore = 1,
  kPacketDone = 2,     // ask for the next packet
  kFlightComplete = 0,
  kPacketBadStart = -1,
  kPacketBadSection = -2,
  kPacketNoMemory = -3,
};

// Allocates the section buffers; -1 when memory ran out.
int32_t AllocateSections(FlightTransfer* transfer);
int32_t DecodePacketByte(FlightTransfer* transfer, uint8_t byte);
// Sections 2, 3 and 4 joined into a new buffer (the caller frees it).
// -1 when one of sections 1 to 4 holds nothing, or memory ran out.
int32_t JoinSections(const FlightTransfer* transfer, uint8_t** text, int32_t* length);
// The five request bytes for the packet after one of section `section`
// (0: the first packet).
void FormatPacketRequest(uint16_t trackId, uint8_t section, uint8_t* out);

int32_t ReadProductData(Product* product);
// The chosen flight (1 to the count), 0 in bulk mode, or -1.
int32_t ReadTrackList(Product* product);
int32_t ReadIgcTrackLog(Product* product, uint16_t trackId);

}  // namespace ascent
