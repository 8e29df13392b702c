#include "output/hash.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <cpuid.h>
#include <immintrin.h>
#endif

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
  int32_t i = 0;
  while (i < length && hash->dwBytes % 4u != 0u) AddByte(hash, bytes[i++]);
  // Whole words straight into the block.
  for (; length - i >= 4; i += 4) {
    hash->adwBlock[(hash->dwBytes % 64u) / 4u] = (static_cast<uint32_t>(bytes[i]) << 24) |
                                                 (static_cast<uint32_t>(bytes[i + 1]) << 16) |
                                                 (static_cast<uint32_t>(bytes[i + 2]) << 8) | bytes[i + 3];
    hash->dwBytes += 4;
    if (hash->dwBytes % 64u == 0u) HashBlock(hash);
  }
  while (i < length) AddByte(hash, bytes[i++]);
  return length;
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define KESTRIX_SHA_INSTRUCTIONS 1

namespace {

bool HasShaInstructions() {
  unsigned int a = 0, b = 0, c = 0, d = 0;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & bit_SSE4_1) == 0) return false;
  return __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & bit_SHA) != 0;
}

// The same compression with the processor's SHA-1 instructions: a group of
// four rounds per instruction, the schedule four words at a time.
__attribute__((target("sha,sse4.1"))) void HashBlockWithInstructions(HashContext* hash) {
  // Lane 3 holds a (and e, and the first word of a group), as the
  // instructions expect.
  const __m128i startAbcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(hash->adwState)), 0x1B);
  const __m128i startE = _mm_set_epi32(static_cast<int>(hash->adwState[4]), 0, 0, 0);
  __m128i w[4];
  for (int g = 0; g < 4; ++g) {
    w[g] = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(hash->adwBlock + 4 * g)), 0x1B);
  }
  __m128i abcd = startAbcd;
  __m128i e = _mm_add_epi32(startE, w[0]);
  __m128i before = abcd;
  for (int g = 0; g < 20; ++g) {
    if (g >= 4) {
      // Words 4g to 4g + 3 from the four groups before them.
      w[g & 3] = _mm_sha1msg2_epu32(_mm_xor_si128(_mm_sha1msg1_epu32(w[g & 3], w[(g + 1) & 3]), w[(g + 2) & 3]),
                                    w[(g + 3) & 3]);
    }
    if (g > 0) e = _mm_sha1nexte_epu32(before, w[g & 3]);
    before = abcd;
    switch (g / 5) {
      case 0:
        abcd = _mm_sha1rnds4_epu32(abcd, e, 0);
        break;
      case 1:
        abcd = _mm_sha1rnds4_epu32(abcd, e, 1);
        break;
      case 2:
        abcd = _mm_sha1rnds4_epu32(abcd, e, 2);
        break;
      default:
        abcd = _mm_sha1rnds4_epu32(abcd, e, 3);
        break;
    }
  }
  e = _mm_sha1nexte_epu32(before, startE);
  abcd = _mm_add_epi32(abcd, startAbcd);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(hash->adwState), _mm_shuffle_epi32(abcd, 0x1B));
  hash->adwState[4] = static_cast<uint32_t>(_mm_extract_epi32(e, 3));
}

}  // namespace
#endif

#ifdef KESTRIX_SHA_INSTRUCTIONS
bool bHashInstructions = HasShaInstructions();
#else
bool bHashInstructions = false;
#endif

void HashBlock(HashContext* hash) {
#ifdef KESTRIX_SHA_INSTRUCTIONS
  if (bHashInstructions) {
    HashBlockWithInstructions(hash);
    return;
  }
#endif
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
