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
  const char* p = text;
  auto addSigned = [hash](char c) { AddByte(hash, static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(c)))); };
  while (*p != '\0' && hash->dwBytes % 4u != 0u) addSigned(*p++);
  // Whole words of bytes below 128 pack as plain big-endian words; a word
  // with a byte above goes through the signed packing.
  while (p[0] != '\0' && p[1] != '\0' && p[2] != '\0' && p[3] != '\0') {
    const auto b0 = static_cast<uint8_t>(p[0]), b1 = static_cast<uint8_t>(p[1]), b2 = static_cast<uint8_t>(p[2]),
               b3 = static_cast<uint8_t>(p[3]);
    if (((b0 | b1 | b2 | b3) & 0x80u) != 0u) {
      for (int k = 0; k < 4; ++k) addSigned(p[k]);
    } else {
      hash->adwBlock[(hash->dwBytes % 64u) / 4u] =
          (static_cast<uint32_t>(b0) << 24) | (static_cast<uint32_t>(b1) << 16) | (static_cast<uint32_t>(b2) << 8) | b3;
      hash->dwBytes += 4;
      if (hash->dwBytes % 64u == 0u) HashBlock(hash);
    }
    p += 4;
  }
  while (*p != '\0') addSigned(*p++);
}

int32_t HashBuffer(HashContext* hash, const uint8_t* bytes, int32_t length) {
  for (int32_t i = 0; i < length; ++i) AddByte(hash, bytes[i]);
  return length;
}

void HashBlock(HashContext* hash) {
  // The schedule kept as a ring of 16 words, each computed as its round
  // needs it.
  uint32_t w[16];
  for (int t = 0; t < 16; ++t) w[t] = hash->adwBlock[t];
  uint32_t a = hash->adwState[0];
  uint32_t b = hash->adwState[1];
  uint32_t c = hash->adwState[2];
  uint32_t d = hash->adwState[3];
  uint32_t e = hash->adwState[4];
  auto word = [&w](int t) {
    if (t >= 16) w[t & 15] = RotateLeft(w[(t - 3) & 15] ^ w[(t - 8) & 15] ^ w[(t - 14) & 15] ^ w[t & 15], 1);
    return w[t & 15];
  };
  auto round = [&](uint32_t mix, uint32_t constant, uint32_t scheduled) {
    const uint32_t next = RotateLeft(a, 5) + mix + e + constant + scheduled;
    e = d;
    d = c;
    c = RotateLeft(b, 30);
    b = a;
    a = next;
  };
  for (int t = 0; t < 20; ++t) round((b & c) | (~b & d), 0x5A827999u, word(t));
  for (int t = 20; t < 40; ++t) round(b ^ c ^ d, 0x6ED9EBA1u, word(t));
  for (int t = 40; t < 60; ++t) round((b & c) | (b & d) | (c & d), 0x8F1BBCDCu, word(t));
  for (int t = 60; t < 80; ++t) round(b ^ c ^ d, 0xCA62C1D6u, word(t));
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
