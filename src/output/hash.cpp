#include "output/hash.h"

namespace {

constexpr uint32_t kInitialState[5] = {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu, 0x10325476u, 0xC3D2E1F0u};

constexpr uint32_t RotateLeft(uint32_t value, int bits) { return (value << bits) | (value >> (32 - bits)); }

// Shifts one byte's worth of value into the word being packed. `addend` is
// the byte itself, or its sign extension for the text packing; in both cases
// the arithmetic wraps at 32 bits.
void AddByte(HashContext* hash, uint32_t addend) {
  hash->dwWord = (hash->dwWord << 8) + addend;
  ++hash->dwBytes;
  if (hash->dwBytes % 4u != 0u) return;
  hash->adwBlock[((hash->dwBytes - 1u) % 64u) / 4u] = hash->dwWord;
  hash->dwWord = 0;
  if (hash->dwBytes % 64u == 0u) HashBlock(hash);
}

}  // namespace

void HashInit(HashContext* hash) {
  for (int i = 0; i < 5; ++i) hash->adwState[i] = kInitialState[i];
  for (uint32_t& word : hash->adwBlock) word = 0;
  hash->dwWord = 0;
  hash->dwBytes = 0;
}

void HashString(HashContext* hash, const char* text) {
  for (const char* p = text; *p != '\0'; ++p) {
    int32_t signedByte = static_cast<int8_t>(*p);
    AddByte(hash, static_cast<uint32_t>(signedByte));
  }
}

int32_t HashBuffer(HashContext* hash, const uint8_t* bytes, int32_t length) {
  for (int32_t i = 0; i < length; ++i) AddByte(hash, bytes[i]);
  return length;
}

void HashBlock(HashContext* hash) {
  uint32_t schedule[80];
  for (int t = 0; t < 16; ++t) schedule[t] = hash->adwBlock[t];
  for (int t = 16; t < 80; ++t) {
    schedule[t] = RotateLeft(schedule[t - 3] ^ schedule[t - 8] ^ schedule[t - 14] ^ schedule[t - 16], 1);
  }
  uint32_t a = hash->adwState[0];
  uint32_t b = hash->adwState[1];
  uint32_t c = hash->adwState[2];
  uint32_t d = hash->adwState[3];
  uint32_t e = hash->adwState[4];
  for (int t = 0; t < 80; ++t) {
    uint32_t mix;
    uint32_t constant;
    if (t < 20) {
      mix = (b & c) | (~b & d);
      constant = 0x5A827999u;
    } else if (t < 40) {
      mix = b ^ c ^ d;
      constant = 0x6ED9EBA1u;
    } else if (t < 60) {
      mix = (b & c) | (b & d) | (c & d);
      constant = 0x8F1BBCDCu;
    } else {
      mix = b ^ c ^ d;
      constant = 0xCA62C1D6u;
    }
    uint32_t next = RotateLeft(a, 5) + mix + e + constant + schedule[t];
    e = d;
    d = c;
    c = RotateLeft(b, 30);
    b = a;
    a = next;
  }
  hash->adwState[0] += a;
  hash->adwState[1] += b;
  hash->adwState[2] += c;
  hash->adwState[3] += d;
  hash->adwState[4] += e;
}

void HashFinish(HashContext* hash, uint32_t digest[5]) {
  const uint32_t bits = hash->dwBytes << 3;
  // Padding bytes go in unsigned whatever fed the message.
  AddByte(hash, 0x80u);
  while (hash->dwBytes % 64u != 56u) AddByte(hash, 0u);
  for (int i = 0; i < 4; ++i) AddByte(hash, 0u);  // the upper half of the length
  for (int shift = 24; shift >= 0; shift -= 8) AddByte(hash, (bits >> shift) & 0xFFu);
  for (int i = 0; i < 5; ++i) digest[i] = hash->adwState[i];
}
