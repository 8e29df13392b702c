// The Ascent flight packets: the input is what the instrument sends after the
// first packet request, decoded byte by byte as the download loop does until
// the flight completes or a byte is refused (or the input ends, as silence
// would end it); then sections 2 to 4 are joined into the flight's text.
// fuzz-max-len: 16384

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"
#include "serial/ascent.h"

namespace {

constexpr int32_t kPacketBytes = 300;

// Line feeds only come from line ends, which are always CR LF.
int32_t CountLineEnds(const ascent::Section& s) {
  int32_t ends = 0;
  for (int32_t i = 0; i < s.length; ++i) {
    if (s.data[i] != '\n') continue;
    FUZZ_CHECK(i > 0 && s.data[i - 1] == '\r');
    ++ends;
  }
  return ends;
}

void CheckSections(const ascent::FlightTransfer& t, const int32_t* previousLengths) {
  for (int i = 0; i < ascent::kSections; ++i) {
    const ascent::Section& s = t.sections[i];
    FUZZ_CHECK(s.number == i + 1);
    FUZZ_CHECK(s.data != nullptr);
    FUZZ_CHECK(s.length >= previousLengths[i] && s.length <= s.capacity);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::FreshRunParameters();
  ascent::FlightTransfer transfer;
  FUZZ_CHECK(ascent::AllocateSections(&transfer) == 0);

  int32_t lengths[ascent::kSections] = {};
  int32_t packetBytes = 0;
  int32_t result = ascent::kPacketMore;
  for (size_t i = 0; i < size; ++i) {
    const int32_t stateBefore = transfer.state;
    result = ascent::DecodePacketByte(&transfer, data[i]);
    ++packetBytes;
    CheckSections(transfer, lengths);
    for (int s = 0; s < ascent::kSections; ++s) lengths[s] = transfer.sections[s].length;
    FUZZ_CHECK(transfer.state >= 0 && transfer.state <= 4);
    if (result == ascent::kPacketMore) continue;
    if (result == ascent::kPacketDone || result == ascent::kFlightComplete) {
      // A packet is always 300 bytes: start, section, length, text and filler.
      FUZZ_CHECK(packetBytes == kPacketBytes);
      FUZZ_CHECK(transfer.state == 0);
      FUZZ_CHECK((result == ascent::kFlightComplete) == (transfer.section == ascent::kSections));
      packetBytes = 0;
      if (result == ascent::kPacketDone) continue;
      break;
    }
    FUZZ_CHECK(result == ascent::kPacketBadStart || result == ascent::kPacketBadSection);
    FUZZ_CHECK(stateBefore == (result == ascent::kPacketBadStart ? 0 : 1));
    return 0;
  }

  int32_t lineEnds = 0;
  for (const ascent::Section& s : transfer.sections) lineEnds += CountLineEnds(s);
  FUZZ_CHECK(lineEnds == transfer.lines);

  uint8_t* text = nullptr;
  int32_t length = -1;
  const int32_t joined = ascent::JoinSections(&transfer, &text, &length);
  bool allThere = true;
  for (int s = 0; s < 4; ++s) allThere = allThere && transfer.sections[s].length > 0;
  FUZZ_CHECK((joined == 0) == allThere);
  if (joined < 0) {
    FUZZ_CHECK(text == nullptr && length == -1);
    return 0;
  }
  const ascent::Section* s = transfer.sections;
  FUZZ_CHECK(length == s[1].length + s[2].length + s[3].length);
  FUZZ_CHECK(std::memcmp(text, s[1].data, static_cast<size_t>(s[1].length)) == 0);
  FUZZ_CHECK(std::memcmp(text + s[1].length + s[2].length, s[3].data, static_cast<size_t>(s[3].length)) == 0);
  std::free(text);
  return 0;
}
