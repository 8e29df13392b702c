#include "usb/fastlz.h"

#include <cstring>

namespace {

// An instruction byte below 32 starts a literal run of (byte + 1) bytes.
// Above, its top three bits give the match length and its low five bits the
// high part of the distance.
constexpr uint32_t kLiteralLimit = 32;
constexpr uint32_t kLengthEscape = 7;  // top bits 111: length continues in the next byte(s)
constexpr uint32_t kDistanceHighMask = 31;
constexpr uint32_t kFarDistanceBase = 8191;  // level 2: added to the 16-bit distance after the escape

constexpr uint32_t kAdlerModulus = 65521;
// Longest run of bytes whose sums cannot pass 32 bits before the modulo.
constexpr uint32_t kAdlerBlock = 5552;

int32_t Decode(const uint8_t* input, int32_t inputLength, uint8_t* output, int32_t outputCapacity, bool level2) {
  const int64_t inEnd = inputLength;
  const int64_t outEnd = outputCapacity > 0 ? outputCapacity : 0;
  int64_t ip = 0;
  int64_t op = 0;
  // The first byte is always a literal run; for level 2 it also carries the level mark.
  uint32_t instruction = input[ip++] & 31u;
  for (;;) {
    if (instruction < kLiteralLimit) {
      int64_t run = instruction + 1;
      if (run > outEnd - op) return kFastLzLiteralPastOutput;
      if (run > inEnd - ip) return kFastLzPastInput;
      std::memcpy(output + op, input + ip, static_cast<size_t>(run));
      op += run;
      ip += run;
    } else {
      int64_t length = instruction >> 5;
      int64_t distance = static_cast<int64_t>(instruction & kDistanceHighMask) << 8;
      if (length == kLengthEscape) {
        if (level2) {
          uint8_t more;
          do {
            if (ip >= inEnd) return kFastLzPastInput;
            more = input[ip++];
            length += more;
          } while (more == 255);
        } else {
          if (ip >= inEnd) return kFastLzPastInput;
          length += input[ip++];
        }
      }
      if (ip >= inEnd) return kFastLzPastInput;
      uint8_t low = input[ip++];
      distance += low;
      if (level2 && low == 255 && (instruction & kDistanceHighMask) == kDistanceHighMask) {
        if (inEnd - ip < 2) return kFastLzPastInput;
        distance = ((static_cast<int64_t>(input[ip]) << 8) | input[ip + 1]) + kFarDistanceBase;
        ip += 2;
      }
      length += 2;
      distance += 1;
      if (distance > op) return kFastLzMatchBeforeStart;
      if (length > outEnd - op) return kFastLzMatchPastOutput;
      // Byte by byte: a match may overlap the bytes it produces (runs).
      const uint8_t* from = output + (op - distance);
      uint8_t* to = output + op;
      for (int64_t i = 0; i < length; ++i) to[i] = from[i];
      op += length;
    }
    if (ip >= inEnd) return static_cast<int32_t>(op);
    instruction = input[ip++];
  }
}

}  // namespace

int32_t FastLZ_Decompress(const uint8_t* input, int32_t inputLength, uint8_t* output, int32_t outputCapacity) {
  if (inputLength <= 0) return 0;
  bool level2 = input[0] >= kLiteralLimit;
  return Decode(input, inputLength, output, outputCapacity, level2);
}

uint32_t Adler32(uint32_t initial, const uint8_t* data, uint32_t length) {
  uint32_t a = initial & 0xFFFFu;
  uint32_t b = initial >> 16;
  while (length > 0) {
    uint32_t block = length < kAdlerBlock ? length : kAdlerBlock;
    length -= block;
    for (uint32_t i = 0; i < block; ++i) {
      a += data[i];
      b += a;
    }
    data += block;
    a %= kAdlerModulus;
    b %= kAdlerModulus;
  }
  return (b << 16) | a;
}

