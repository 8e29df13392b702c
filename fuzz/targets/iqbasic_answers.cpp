// The IQ Basic product answers: the input is what the instrument sends to the
// three value queries (serial number, device type, software version), one
// line after the other as the receive loop takes them, each line checked
// for its prefix and decoded; the product text is formatted from the values.
// fuzz-dict: iqbasic.dict
// fuzz-max-len: 1024

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/run.h"
#include "fuzz_support.h"
#include "serial/iqbasic.h"

namespace {

constexpr uint32_t kUntouched = 0xA5A5A5A5u;
constexpr const char* kPrefixes[] = {"RPA_00_", "RPA_01_", "RPA_02_"};

// Takes one line from the input the way the answer loop does; false when the
// input ends first (the line went silent).
bool TakeAnswer(const uint8_t* data, size_t size, size_t* at, char* text, iqbasic::LineBuilder* line) {
  iqbasic::StartLine(line, text, iqbasic::kAnswerSize - 1);
  while (*at < size) {
    if (iqbasic::TakeLineByte(line, data[(*at)++])) return true;
  }
  return false;
}

bool IsHexDigit(char c) { return std::strchr("0123456789ABCDEFabcdef", c) != nullptr && c != '\0'; }

void CheckValue(const char* text, int32_t result, uint32_t value) {
  const char* digits = text;
  while (*digits == ' ') ++digits;
  size_t length = std::strlen(digits);
  size_t hex = 0;
  while (hex < length && IsHexDigit(digits[hex])) ++hex;
  const bool wellFormed = hex == length && length % 2 == 0;
  FUZZ_CHECK(result == 0 || result == -1);
  FUZZ_CHECK((result == 0) == wellFormed);
  if (result < 0) {
    FUZZ_CHECK(value == kUntouched);
    return;
  }
  // Pair k of the digits is byte k of the value.
  for (size_t k = 0; k < 4; ++k) {
    unsigned pair = 0;
    if (2 * k < length) {
      char two[3] = {digits[2 * k], digits[2 * k + 1], '\0'};
      std::sscanf(two, "%2x", &pair);
    }
    FUZZ_CHECK(((value >> (8 * k)) & 0xFFu) == pair);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::FreshRunParameters();
  uint32_t values[3] = {0, 0, 0};
  size_t at = 0;
  for (int query = 0; query < 3; ++query) {
    char answer[iqbasic::kAnswerSize];
    std::memset(answer, 0x7F, sizeof answer);
    iqbasic::LineBuilder line;
    if (!TakeAnswer(data, size, &at, answer, &line)) return 0;
    FUZZ_CHECK(line.length >= 0 && line.length <= iqbasic::kAnswerSize - 1);
    FUZZ_CHECK(answer[line.length] == '\0');
    // A CR ends the text and an LF the line: neither is ever part of it.
    FUZZ_CHECK(std::memchr(answer, '\r', static_cast<size_t>(line.length)) == nullptr);
    FUZZ_CHECK(std::memchr(answer, '\n', static_cast<size_t>(line.length)) == nullptr);

    const size_t prefixLength = std::strlen(kPrefixes[query]);
    if (std::strncmp(answer, kPrefixes[query], prefixLength) != 0) return 0;
    uint32_t value = kUntouched;
    const int32_t result = iqbasic::DecodePAdata(answer + prefixLength, &value);
    CheckValue(answer + prefixLength, result, value);
    if (result < 0) return 0;
    values[query] = value;
  }

  iqbasic::FormatProduct(values[1], values[2], values[0], tGps.szProduct, sizeof tGps.szProduct);
  FUZZ_CHECK(fuzz::IsTerminatedWithin(tGps.szProduct, sizeof tGps.szProduct));
  const char* model = values[1] != 0 ? "IQ-BASIC, SW " : "6015, SW ";
  FUZZ_CHECK(std::strncmp(tGps.szProduct, model, std::strlen(model)) == 0);
  FUZZ_CHECK(std::strstr(tGps.szProduct, ", S/N ") != nullptr);
  return 0;
}
