// Block decompression, Adler-32 and the container's little-endian readers.
#include "usb/fastlz.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "support.h"

namespace {

const std::string kRaw = std::string(KESTRIX_TEST_DATA) + "/fastlz/raw/";

std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::string bytes = test::ReadFile(path);
  if (bytes.empty()) ADD_FAILURE() << "no data in " << path;
  return {bytes.begin(), bytes.end()};
}

// Decodes into a buffer of exactly `capacity` bytes, so that the sanitizers
// see any write past it.
int32_t Decode(const std::vector<uint8_t>& block, int32_t capacity, std::vector<uint8_t>* out = nullptr) {
  std::unique_ptr<uint8_t[]> input(new uint8_t[block.size()]);
  std::copy(block.begin(), block.end(), input.get());
  std::unique_ptr<uint8_t[]> output(new uint8_t[capacity > 0 ? capacity : 1]);
  int32_t result = FastLZ_Decompress(input.get(), static_cast<int32_t>(block.size()), output.get(), capacity);
  if (out != nullptr && result > 0) out->assign(output.get(), output.get() + result);
  return result;
}

struct Vector {
  const char* original;
  int level;
};

constexpr Vector kVectors[] = {
    {"igc-syride-navv3.igc", 1},
    {"igc-syride-navv3.igc", 2},
    {"igc-syride-evolution.igc", 1},
    {"igc-syride-evolution.igc", 2},
    {"repetitive-runs.txt", 1},
    {"repetitive-runs.txt", 2},
    {"far-matches-70k.bin", 1},
    {"far-matches-70k.bin", 2},
    {"short-10.txt", 1},
    {"short-10.txt", 2},
    {"random-4k.bin", 1},
    {"random-4k.bin", 2},
};

std::string BlockName(const Vector& v) { return std::string(v.original) + ".l" + std::to_string(v.level) + ".flz"; }

TEST(FastLzDecompress, ReproducesEveryReferenceBlock) {
  for (const Vector& v : kVectors) {
    SCOPED_TRACE(BlockName(v));
    std::vector<uint8_t> original = ReadBytes(kRaw + v.original);
    std::vector<uint8_t> block = ReadBytes(kRaw + BlockName(v));
    EXPECT_EQ(block[0] >> 5, v.level - 1);
    std::vector<uint8_t> out;
    ASSERT_EQ(Decode(block, static_cast<int32_t>(original.size()), &out), static_cast<int32_t>(original.size()));
    EXPECT_TRUE(out == original);
    // Room to spare changes nothing: the end of the input ends the block.
    out.clear();
    EXPECT_EQ(Decode(block, static_cast<int32_t>(original.size()) + 1000, &out), static_cast<int32_t>(original.size()));
    EXPECT_TRUE(out == original);
  }
}

TEST(FastLzDecompress, OneByteTooLittleRoomFailsOnTheFinalLiteralRun) {
  for (const Vector& v : kVectors) {
    SCOPED_TRACE(BlockName(v));
    size_t size = ReadBytes(kRaw + v.original).size();
    EXPECT_EQ(Decode(ReadBytes(kRaw + BlockName(v)), static_cast<int32_t>(size) - 1), kFastLzLiteralPastOutput);
  }
}

TEST(FastLzDecompress, RoomThatCutsAMatchFailsOnTheMatch) {
  struct Case {
    const char* block;
    int32_t capacity;
  };
  const Case cases[] = {
      {"repetitive-runs.txt.l1.flz", 500},  {"repetitive-runs.txt.l1.flz", 1100},  {"repetitive-runs.txt.l2.flz", 500},
      {"repetitive-runs.txt.l2.flz", 1100}, {"far-matches-70k.bin.l2.flz", 15500},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.block) + " into " + std::to_string(c.capacity));
    EXPECT_EQ(Decode(ReadBytes(kRaw + c.block), c.capacity), kFastLzMatchPastOutput);
  }
}

TEST(FastLzDecompress, CraftedBlocks) {
  struct Case {
    const char* what;
    std::vector<uint8_t> block;
    int32_t capacity;
    int32_t result;
    std::string output;
  };
  const std::string a266(266, 'a');
  const std::string a265(265, 'a');
  const std::vector<Case> cases = {
      {"empty input", {}, 10, 0, ""},
      {"one literal run", {0x02, 'a', 'b', 'c'}, 3, 3, "abc"},
      {"level 2 mark on the first run", {0x22, 'a', 'b', 'c'}, 3, 3, "abc"},
      {"literal past output", {0x02, 'a', 'b', 'c'}, 2, kFastLzLiteralPastOutput, ""},
      {"literal past input", {0x05, 'a', 'b'}, 10, kFastLzPastInput, ""},
      {"run of a byte by an overlapping match", {0x00, 'a', 0x40, 0x00}, 10, 5, "aaaaa"},
      {"match from two back", {0x01, 'a', 'b', 0x20, 0x01}, 10, 5, "ababa"},
      {"match before the start", {0x00, 'a', 0x20, 0x01}, 10, kFastLzMatchBeforeStart, ""},
      {"match past output", {0x00, 'a', 0x20, 0x00}, 3, kFastLzMatchPastOutput, ""},
      {"match cut off before its distance", {0x00, 'a', 0x20}, 10, kFastLzPastInput, ""},
      {"level 1 long match: one length byte", {0x00, 'a', 0xE0, 0xFF, 0x00}, 300, 265, a265},
      {"level 2 long match: 255 continues the length", {0x20, 'a', 0xE0, 0xFF, 0x01, 0x00}, 300, 266, a266},
      {"level 2 length cut off", {0x20, 'a', 0xE0, 0xFF}, 300, kFastLzPastInput, ""},
      {"level 2 far escape cut off", {0x20, 'a', 0x3F, 0xFF, 0x00}, 300, kFastLzPastInput, ""},
      // Level 1 reads 31/255 as a near distance of 8192; level 2 as the
      // escape to 0 + 8191 + 1. Both reach before the single byte.
      {"level 1 farthest distance", {0x00, 'a', 0x3F, 0xFF}, 10, kFastLzMatchBeforeStart, ""},
      {"level 2 far distance", {0x20, 'a', 0x3F, 0xFF, 0x00, 0x00}, 10, kFastLzMatchBeforeStart, ""},
      {"negative room", {0x00, 'a'}, -5, kFastLzLiteralPastOutput, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> out;
    EXPECT_EQ(Decode(c.block, c.capacity, &out), c.result);
    if (c.result > 0) {
      EXPECT_EQ(std::string(out.begin(), out.end()), c.output);
    }
  }
}

TEST(FastLzDecompress, FarMatchOfLevel2ReachesPastTheNearWindow) {
  // 8300 literal bytes, then a copy of the first three from 8300 back:
  // distance 8300 = 8191 + 108 + 1.
  std::vector<uint8_t> block;
  std::string text;
  for (int i = 0; i < 8300; ++i) text.push_back(static_cast<char>('a' + (i * 7) % 26));
  for (size_t at = 0; at < text.size(); at += 32) {
    size_t run = std::min<size_t>(32, text.size() - at);
    block.push_back(static_cast<uint8_t>(run - 1));
    block.insert(block.end(), text.begin() + static_cast<ptrdiff_t>(at),
                 text.begin() + static_cast<ptrdiff_t>(at + run));
  }
  block[0] |= 0x20;
  std::vector<uint8_t> level2 = block;
  level2.insert(level2.end(), {0x3F, 0xFF, 0x00, 108});
  std::vector<uint8_t> out;
  ASSERT_EQ(Decode(level2, 9000, &out), 8303);
  EXPECT_EQ(std::string(out.begin() + 8300, out.end()), text.substr(0, 3));
  // Read as level 1 the same bytes are a near match of 8192 and then a stray literal.
  block[0] &= 0x1F;
  std::vector<uint8_t> level1 = block;
  level1.insert(level1.end(), {0x3F, 0xFF, 0x00, 'z'});
  out.clear();
  ASSERT_EQ(Decode(level1, 9000, &out), 8304);
  EXPECT_EQ(std::string(out.begin() + 8300, out.end()), text.substr(8300 - 8192, 3) + "z");
}

TEST(FastLzDecompress, EveryTruncationFailsCleanlyOrGivesAPrefix) {
  for (const char* name : {"repetitive-runs.txt", "short-10.txt", "igc-syride-navv3.igc"}) {
    std::vector<uint8_t> original = ReadBytes(kRaw + name);
    for (int level : {1, 2}) {
      std::vector<uint8_t> block = ReadBytes(kRaw + name + ".l" + std::to_string(level) + ".flz");
      int prefixes = 0, cuts = 0;
      for (size_t keep = 1; keep < block.size(); ++keep) {
        std::vector<uint8_t> part(block.begin(), block.begin() + static_cast<ptrdiff_t>(keep));
        std::vector<uint8_t> out;
        int32_t result = Decode(part, static_cast<int32_t>(original.size()), &out);
        if (result == kFastLzPastInput) {
          ++cuts;
        } else {
          ASSERT_GT(result, 0) << name << " level " << level << " cut at " << keep;
          ASSERT_TRUE(std::equal(out.begin(), out.end(), original.begin())) << name << " cut at " << keep;
          ++prefixes;
        }
      }
      EXPECT_GT(cuts, 0);
      if (block.size() > 20) {
        EXPECT_GT(prefixes, 0);
      }
    }
  }
}

TEST(FastLzDecompress, CorruptedBlocksStayInBounds) {
  std::mt19937 random(20240607);
  int failures = 0;
  for (const char* block : {"repetitive-runs.txt.l1.flz", "repetitive-runs.txt.l2.flz", "random-4k.bin.l1.flz",
                            "far-matches-70k.bin.l2.flz"}) {
    std::vector<uint8_t> clean = ReadBytes(kRaw + block);
    for (int round = 0; round < 300; ++round) {
      std::vector<uint8_t> bad = clean;
      for (int flips = 0; flips < 3; ++flips) bad[random() % bad.size()] ^= static_cast<uint8_t>(1 + random() % 255);
      int32_t capacity = static_cast<int32_t>(random() % 20000);
      int32_t result = Decode(bad, capacity);
      ASSERT_GE(result, kFastLzPastInput) << block << " round " << round;
      ASSERT_LE(result, capacity);
      if (result < 0) ++failures;
    }
  }
  EXPECT_GT(failures, 0);
}

TEST(Adler32, AgreesWithZlib) {
  std::mt19937 random(5552);
  std::vector<uint8_t> data(200000);
  for (uint8_t& b : data) b = static_cast<uint8_t>(random());
  std::vector<uint8_t> ones(100000, 0xFF);
  for (uint32_t length : {0u, 1u, 2u, 5551u, 5552u, 5553u, 11104u, 65521u, 100000u}) {
    for (uint32_t initial : {1u, 0xFFF0FFF0u, 0x12345678u % 65521u}) {
      SCOPED_TRACE("length " + std::to_string(length) + " initial " + std::to_string(initial));
      EXPECT_EQ(Adler32(initial, data.data(), length), adler32(initial, data.data(), length));
      EXPECT_EQ(Adler32(initial, ones.data(), length), adler32(initial, ones.data(), length));
    }
  }
  // Continuing over a split equals one pass.
  EXPECT_EQ(Adler32(Adler32(1, data.data(), 7000), data.data() + 7000, 93000), Adler32(1, data.data(), 100000));
}

TEST(ContainerFields, ReadLittleEndian) {
  const uint8_t bytes[] = {0x11, 0x00, 0x01, 0x00, 0xFE, 0xFF, 0xFF, 0x80};
  EXPECT_EQ(ReadUnsignedShort(bytes), 17u);
  EXPECT_EQ(ReadUnsignedShort(bytes + 2), 1u);
  EXPECT_EQ(ReadUnsignedShort(bytes + 4), 0xFFFEu);
  EXPECT_EQ(ReadUnsignedLong(bytes), 0x00010011u);
  EXPECT_EQ(ReadUnsignedLong(bytes + 4), 0x80FFFFFEu);
}

}  // namespace
