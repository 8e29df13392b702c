// The track digest: plain SHA-1 for text bytes below 128 and for HashBuffer,
// the kept signed packing for text bytes of 128 and above; the digest secret.
#include "output/hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "kml_support.h"
#include "output/google.h"
#include "support.h"

namespace {

std::string Hex(const uint32_t digest[5]) {
  char text[41];
  std::snprintf(text, sizeof text, "%08X%08X%08X%08X%08X", digest[0], digest[1], digest[2], digest[3], digest[4]);
  return text;
}

std::string BufferDigest(const std::string& bytes) {
  HashContext hash;
  HashInit(&hash);
  EXPECT_EQ(HashBuffer(&hash, reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<int32_t>(bytes.size())),
            static_cast<int32_t>(bytes.size()));
  uint32_t digest[5];
  HashFinish(&hash, digest);
  return Hex(digest);
}

// The message the signed packing really digests: within each group of four
// bytes (the last one possibly shorter) every byte counts as a signed value,
// so a byte of 128 or above borrows from the bytes before it in the group.
std::string AsPackedSigned(const std::string& text) {
  std::string packed;
  for (size_t start = 0; start < text.size(); start += 4) {
    const size_t count = std::min<size_t>(4, text.size() - start);
    int64_t value = 0;
    for (size_t i = 0; i < count; ++i) value = value * 256 + static_cast<int8_t>(text[start + i]);
    const int64_t modulus = int64_t{1} << (8 * count);
    value = ((value % modulus) + modulus) % modulus;
    for (size_t i = count; i-- > 0;) packed += static_cast<char>((value >> (8 * i)) & 0xFF);
  }
  return packed;
}

std::string AsciiText(size_t length) {
  std::string text;
  for (size_t i = 0; i < length; ++i) text += static_cast<char>(' ' + (i * 7 + length) % 95);
  return text;
}

TEST(Hash, AsciiTextsOfEveryLengthAroundThePaddingBoundariesArePlainSha1) {
  for (size_t length = 0; length <= 200; ++length) {
    const std::string text = AsciiText(length);
    const std::string expected = test::Sha1Hex(text);
    EXPECT_EQ(test::HashStringDigest(text), expected) << "length " << length;
    EXPECT_EQ(BufferDigest(text), expected) << "length " << length;
  }
  EXPECT_EQ(test::HashStringDigest("abc"), "A9993E364706816ABA3E25717850C26C9CD0D89D");
}

TEST(Hash, PiecesFedOneAfterAnotherDigestAsTheirConcatenation) {
  const std::string text = AsciiText(131);
  const std::string expected = test::Sha1Hex(text);
  for (size_t split = 0; split <= text.size(); ++split) {
    for (size_t second = split; second <= text.size(); second += 13) {
      HashContext hash;
      HashInit(&hash);
      HashString(&hash, text.substr(0, split).c_str());
      const std::string middle = text.substr(split, second - split);
      HashBuffer(&hash, reinterpret_cast<const uint8_t*>(middle.data()), static_cast<int32_t>(middle.size()));
      HashString(&hash, text.substr(second).c_str());
      uint32_t digest[5];
      HashFinish(&hash, digest);
      ASSERT_EQ(Hex(digest), expected) << "split at " << split << " and " << second;
    }
  }
}

TEST(Hash, BothCompressionsGivePlainSha1) {
  const bool instructions = bHashInstructions;
  for (bool use : {false, true}) {
    bHashInstructions = use && instructions;
    for (size_t length : {0u, 55u, 56u, 64u, 119u, 200u, 1000u}) {
      const std::string text = AsciiText(length);
      EXPECT_EQ(test::HashStringDigest(text), test::Sha1Hex(text)) << length << (use ? " instructions" : "");
      EXPECT_EQ(BufferDigest(text), test::Sha1Hex(text)) << length << (use ? " instructions" : "");
    }
  }
  bHashInstructions = instructions;
}

TEST(Hash, TextBytesOf128AndAboveLowerTheBytesBeforeThemInTheirWord) {
  // Worked by hand: "A" then 0x80 packs as 0x41 * 256 - 128 = 0x4080.
  EXPECT_EQ(AsPackedSigned("A\x80"), std::string("\x40\x80"));
  EXPECT_EQ(test::HashStringDigest("A\x80"), test::Sha1Hex(std::string("\x40\x80")));
  // A UTF-8 letter in a word of four: each high byte borrows one from the
  // byte before it, so "Pr" 0xC3 0xA9 packs as "Pq" 0xC2 0xA9.
  EXPECT_EQ(AsPackedSigned("Pr\xC3\xA9"), std::string("Pq\xC2\xA9"));
  EXPECT_EQ(test::HashStringDigest("Pr\xC3\xA9"), test::Sha1Hex("Pq\xC2\xA9"));

  // High bytes at every position of a word, with messages that end in full
  // and in partial words and around the block boundaries.
  // A high byte that starts its word has nothing to lower and digests plainly.
  int deviating = 0;
  for (size_t length : {1u, 2u, 3u, 4u, 5u, 55u, 56u, 57u, 63u, 64u, 65u, 119u, 120u, 130u}) {
    for (size_t position = 0; position < std::min<size_t>(length, 8); ++position) {
      std::string text = AsciiText(length);
      text[position] = static_cast<char>(0xC3);
      text[length - 1] = static_cast<char>(0xFF - length % 64);
      const std::string packed = AsPackedSigned(text);
      EXPECT_EQ(test::HashStringDigest(text), test::Sha1Hex(packed)) << length << "/" << position;
      EXPECT_EQ(BufferDigest(text), test::Sha1Hex(text)) << length << "/" << position;
      if (packed != text) {
        ++deviating;
        EXPECT_NE(test::HashStringDigest(text), test::Sha1Hex(text)) << length << "/" << position;
      }
    }
  }
  EXPECT_GT(deviating, 50);
  EXPECT_EQ(test::HashStringDigest("\xC3"
                                   "bcd"),
            test::Sha1Hex("\xC3"
                          "bcd"));
}

TEST(XmlStart, SecretIsFixedAsciiAndKeptOnlyScrambled) {
  char secret[kXmlStartLength + 1];
  std::memset(secret, 'x', sizeof secret);
  GetXmlStart(secret);
  ASSERT_EQ(std::strlen(secret), static_cast<size_t>(kXmlStartLength));
  for (char c : std::string(secret)) {
    EXPECT_TRUE(c > ' ' && c < 127) << static_cast<int>(c);  // below 128: the signed packing stays plain
  }
  // Changing the secret would break every document written before.
  EXPECT_EQ(test::HashStringDigest(secret), "47D2D32BF01BF3ECF53B7505938DED05544BD1C1");
  // This test program links the secret's module; the plain text must not be
  // in it anywhere.
  const std::string program = test::ReadFile("/proc/self/exe");
  ASSERT_GT(program.size(), 100000u);
  EXPECT_EQ(program.find(secret), std::string::npos);
}

}  // namespace
