// The IQ Basic flight list: byte 0 picks the flight asked for (1 to 99), the
// rest is what the instrument sends to the list command, taken line by line
// into the list as the list loop does, each line renumbered, then the
// chosen flight looked up.
// fuzz-dict: iqbasic.dict
// fuzz-max-len: 8192

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz_support.h"
#include "serial/iqbasic.h"

namespace {

constexpr int32_t kSize = iqbasic::kListLineSize;
constexpr long long kLargestIndex = 2147483649LL;
constexpr long long kNoNumber = LLONG_MIN;

// The first field's extent: up to the first ";" or the end.
size_t FieldWidth(const char* line) { return std::strcspn(line, ";"); }

// True when the field holds blanks and decimal digits only, a digit among them.
bool IsNumberField(const char* line, size_t width) {
  bool digit = false;
  for (size_t i = 0; i < width; ++i) {
    if (line[i] >= '0' && line[i] <= '9') {
      digit = true;
    } else if (line[i] != ' ') {
      return false;
    }
  }
  return digit;
}

// The field's value when it is one signed decimal number between blanks.
long long FieldValue(const char* line, size_t width) {
  char field[kSize];
  std::snprintf(field, sizeof field, "%.*s", static_cast<int>(width), line);
  char* end = nullptr;
  long long value = std::strtoll(field, &end, 10);
  while (*end == ' ') ++end;
  return end == field || *end != '\0' ? kNoNumber : value;
}

void CheckRenumbered(const char* before, const char* after) {
  FUZZ_CHECK(fuzz::IsTerminatedWithin(after, kSize));
  const size_t width = FieldWidth(before);
  const long long old = IsNumberField(before, width) ? FieldValue(before, width) : kNoNumber;
  // Numbers beyond what the shared integer decoder takes are left alone;
  // it reads up to 2147483649, modulo 2^32.
  if (old == kNoNumber || old > kLargestIndex) {
    FUZZ_CHECK(std::strcmp(before, after) == 0);
    return;
  }
  const size_t newWidth = FieldWidth(after);
  const long long shown = FieldValue(after, newWidth);
  FUZZ_CHECK(shown != kNoNumber);
  FUZZ_CHECK(static_cast<uint32_t>(shown) == static_cast<uint32_t>(old + 1));
  // The rest of the line moves along unchanged, cut at the line's limit.
  const char* rest = before + width;
  const char* moved = after + newWidth;
  FUZZ_CHECK(std::strncmp(rest, moved, std::strlen(moved)) == 0);
  FUZZ_CHECK(std::strlen(moved) == std::strlen(rest) || std::strlen(after) == static_cast<size_t>(kSize - 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  fuzz::FreshRunParameters();
  const int32_t flight = data[0] % iqbasic::kHighestFlight + 1;
  ++data;
  --size;

  auto list = std::make_unique<iqbasic::FlightList>();
  std::memset(list.get(), 0x7F, sizeof *list);
  list->count = 0;
  int32_t lineEnds = 0;
  iqbasic::LineBuilder line;
  iqbasic::StartLine(&line, list->lines[0], kSize - 1);
  for (size_t i = 0; i < size; ++i) {
    if (list->count >= iqbasic::kListLines) break;  // later lines are not kept
    if (data[i] == '\n') ++lineEnds;
    if (!iqbasic::TakeLineByte(&line, data[i])) continue;
    char* text = list->lines[list->count];
    FUZZ_CHECK(fuzz::IsTerminatedWithin(text, kSize));
    char before[kSize];
    std::memcpy(before, text, kSize);
    iqbasic::RenumberListLine(text);
    CheckRenumbered(before, text);
    if (++list->count < iqbasic::kListLines) iqbasic::StartLine(&line, list->lines[list->count], kSize - 1);
  }
  FUZZ_CHECK(list->count == lineEnds);
  FUZZ_CHECK(list->count >= 0 && list->count <= iqbasic::kListLines);

  for (int32_t i = 0; i < list->count; ++i) {
    const char* text = list->lines[i];
    if (!iqbasic::MatchesFlight(text, flight)) continue;
    // One number per line: no neighbour matches as well.
    FUZZ_CHECK(!iqbasic::MatchesFlight(text, flight + 1));
    FUZZ_CHECK(!iqbasic::MatchesFlight(text, flight - 1));
    char digits[4];
    std::snprintf(digits, sizeof digits, "%d", flight);
    char field[kSize];
    std::snprintf(field, sizeof field, "%.*s", static_cast<int>(FieldWidth(text)), text);
    FUZZ_CHECK(std::strstr(field, digits) != nullptr);
  }
  return 0;
}
