// Sentence checksums made right before a serial target feeds its input, so
// that mutated fields get past the checksum test and reach the field
// decoders. A target keeps a setup bit for feeding the input unrepaired.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz {

// For each "$...*" in `bytes`: the XOR of the bytes between "$" and "*" is
// written as two upper-case hex digits over the two bytes after the "*",
// unless one of them is a line end. A "$" starts the sum again; with
// `skipFlowControl` XON and XOFF do not count (the receive loop drops them).
inline void RepairSentenceChecksums(std::vector<uint8_t>* bytes, bool skipFlowControl) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  auto isLineEnd = [](uint8_t b) { return b == '\r' || b == '\n'; };
  std::vector<uint8_t>& b = *bytes;
  bool inSentence = false;
  uint8_t sum = 0;
  for (size_t i = 0; i < b.size(); ++i) {
    if (b[i] == '$') {
      inSentence = true;
      sum = 0;
      continue;
    }
    if (!inSentence) continue;
    if (skipFlowControl && (b[i] == 0x11 || b[i] == 0x13)) continue;
    if (isLineEnd(b[i])) {
      inSentence = false;
      continue;
    }
    if (b[i] != '*') {
      sum ^= b[i];
      continue;
    }
    inSentence = false;
    if (i + 2 >= b.size() || isLineEnd(b[i + 1]) || isLineEnd(b[i + 2])) continue;
    b[i + 1] = static_cast<uint8_t>(kHex[sum >> 4]);
    b[i + 2] = static_cast<uint8_t>(kHex[sum & 15]);
    i += 2;
  }
}

}  // namespace fuzz
