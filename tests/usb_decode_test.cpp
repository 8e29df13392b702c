// SYS'Nav per-second records, the SYS'Evolution container, and the FastLZ
// blocks and Adler-32 inside it.
#include <gtest/gtest.h>
#include <zlib.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/run.h"
#include "support.h"
#include "usb/fastlz.h"
#include "usb/syride.h"
#include "usb_emulator.h"

namespace {

using usbemu::Bytes;

const std::string kData = std::string(KESTRIX_TEST_DATA) + "/";

std::vector<TrackPoint> Decode(const Bytes& memory, uint32_t duration, uint32_t start, bool newFormat) {
  std::vector<TrackPoint> points(duration + 1);
  const int32_t count = syride::DecodeFlightMemory(memory.data(), points.data(), duration, start, newFormat);
  points.resize(count < 0 ? 0 : static_cast<size_t>(count));
  return points;
}

TEST(UsbDecode, BytesPerFlightCountAKeyRecordPerStartedMinute) {
  const std::vector<std::vector<uint32_t>> cases = {
      // duration, new layout, bytes
      {600, 0, 8458}, {600, 1, 9068}, {61, 0, 872}, {60, 0, 853}, {1, 1, 29}, {0, 1, 8}, {59, 0, 839}, {121, 1, 1841}};
  for (const auto& c : cases)
    EXPECT_EQ(syride::FlightMemorySize(c[0], static_cast<uint8_t>(c[1])), c[2]) << c[0] << " " << c[1];
}

TEST(UsbDecode, RoundingSignsTheNoFixMarkAndSignedAltitudeDeltas) {
  // 1e-7 degrees to arcs, half away from zero; 180 degrees wraps like the 32-bit field.
  const std::vector<std::pair<int32_t, int32_t>> cases = {
      {3, 4}, {-3, -4}, {-1, -1}, {2, 2}, {900000000, 1073741824}, {-900000000, -1073741824}, {1800000000, INT32_MIN}};
  for (const auto& [degree7, arcs] : cases) {
    const std::vector<TrackPoint> points =
        Decode(usbemu::EncodeFlightMemory({{degree7, degree7, 0, 0}}, false), 1, 0, false);
    ASSERT_EQ(points.size(), 1u);
    EXPECT_EQ(points[0].lLatitude, arcs) << degree7;
    EXPECT_EQ(points[0].lLongitude, arcs) << degree7;
  }
  // 0.5 degrees in both is no fix: not stored, not counted.
  const int32_t no = usbemu::kNoFix;
  std::vector<TrackPoint> points =
      Decode(usbemu::EncodeFlightMemory(
                 {{no, no, 0, 0}, {no, no + 1, 0, 0}, {no, no, 0, 0}, {no - 100, no - 100, 0, 0}}, true),
             4, 50, true);
  ASSERT_EQ(points.size(), 2u);
  EXPECT_EQ(points[0].dwTime, 51u);
  EXPECT_EQ(points[0].dwFlags, 0u);  // the flag went with the first second
  EXPECT_EQ(points[1].dwTime, 53u);
  // The altitude delta is a signed byte: 255 raises it by 1 m.
  const Bytes memory = usbemu::EncodeFlightMemory({{10, 10, 500, 600}, {10, 10, 501, 0}, {10, 10, 374, 0}}, true);
  ASSERT_EQ(memory.at(8 + 21 + 4), 0xFF);
  points = Decode(memory, 3, 0, true);
  ASSERT_EQ(points.size(), 3u);
  EXPECT_EQ(points[1].lGpsAltitude, 5010);
  EXPECT_EQ(points[2].lGpsAltitude, 3740);
  EXPECT_EQ(points[1].lPressureAltitude, 601);
  EXPECT_EQ(points[2].lPressureAltitude, 474);
  // Keys at the ends of the range and deltas past them wrap instead of overflowing.
  Bytes garbage(syride::FlightMemorySize(3, 1), 0x80);
  std::fill(garbage.begin() + 8, garbage.begin() + 8 + 21, 0x7F);
  EXPECT_EQ(Decode(garbage, 3, 0, true).size(), 3u);
}

Bytes Hex(const std::string& hex) {
  Bytes bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

// A memory as containers.txt writes it.
Bytes Memory(const std::string& text, const std::string& igc) {
  if (text.rfind("file:", 0) == 0) return usbemu::ReadBytes(kData + "fastlz/sixpack/" + text.substr(5));
  if (text.rfind("raw:", 0) == 0) return Hex(text.substr(4));
  std::vector<usbemu::Chunk> chunks;
  for (const std::string& part : usbemu::Split(text == "-" ? "" : text, '|')) {
    std::istringstream fields(part);
    usbemu::Chunk chunk{0, 0, {}};
    std::string data;
    fields >> chunk.id >> chunk.options >> data;
    chunk.badChecksum = data.back() == '!';
    if (chunk.badChecksum) data.pop_back();
    const std::string bytes = data == "%" ? igc : data == "-" ? "" : test::Unescape(data);
    chunk.data = data.rfind("x:", 0) == 0 ? Hex(data.substr(2)) : Bytes(bytes.begin(), bytes.end());
    if (data[0] == '@') {
      const uint32_t size = static_cast<uint32_t>(std::stoul(data.substr(1)));
      chunk.data.assign(data.find('/') == std::string::npos ? 20 : std::stoul(data.substr(data.find('/') + 1)), 0);
      for (int i = 0; i < 4; ++i) chunk.data[static_cast<size_t>(i)] = static_cast<uint8_t>(size >> (8 * i));
    }
    chunks.push_back(chunk);
  }
  return usbemu::Container(chunks);
}

// Unpacks `memory`: the output and the result.
std::pair<std::string, int32_t> Unpack(const Bytes& memory) {
  test::FreshRunParameters();
  testing::internal::CaptureStdout();
  const int32_t result = syride::DecodeEvolutionFlightMemory(memory.data(), static_cast<uint32_t>(memory.size()));
  return {testing::internal::GetCapturedStdout(), result};
}

std::string RawLog() {
  return std::string(reinterpret_cast<const char*>(tGps.pbRawLog), static_cast<size_t>(tGps.nRawLogLength));
}

TEST(UsbContainer, EveryMemoryAsTabled) {
  std::ifstream table(kData + "syride/containers.txt");
  std::string igc;
  int cases = 0;
  for (std::string line; std::getline(table, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == '%') igc = test::Unescape(line.substr(2));
    if (line[0] == '%') continue;
    SCOPED_TRACE(line);
    ++cases;
    const size_t arrow = line.find(" => ");
    const auto [out, result] = Unpack(Memory(line.substr(0, arrow), igc));
    std::string expected = line.substr(arrow + 4);
    if (expected.rfind("Decompress: ", 0) == 0) {
      EXPECT_EQ(out, expected + "\n");
      EXPECT_EQ(result, -1);
      EXPECT_EQ(tGps.pbRawLog, nullptr);
      continue;
    }
    expected =
        expected.rfind("file:", 0) == 0 ? test::ReadFile(kData + "fastlz/sixpack/" + expected.substr(5)) : expected;
    if (expected.find('%') != std::string::npos) expected.replace(expected.find('%'), 1, igc);
    size_t fixes = 0;  // a cut last line is not read
    for (size_t at = expected.find("\nB"); at != std::string::npos; at = expected.find("\nB", at + 1)) {
      fixes += expected.find('\n', at + 1) != std::string::npos;
    }
    ASSERT_EQ(result, 0);
    EXPECT_EQ(
        out, "Decompressed length " + std::to_string(expected.size()) + "\nGot " + std::to_string(fixes) + " points\n");
    EXPECT_TRUE(RawLog() == expected);
    EXPECT_EQ(tGps.dwFirstPointTime, tGps.pTrackPoints[0].dwTime);
  }
  EXPECT_EQ(cases, 36);
  // 7 stored bytes, a block failing with -3 (8 bytes into a room of 3), 6
  // stored bytes: 7 - 3 + 6 is the declared 10, the last chunk written over
  // the tail of the first. No IGC text: the flight fails, its text is kept.
  const auto [out, result] = Unpack(Memory("1 0 @10 | 17 0 abcdefg | 17 1 x:076162636465666768 | 17 0 xyz123", igc));
  EXPECT_EQ(result, -1);
  EXPECT_EQ(out, "Decompressed length 10\nNo A-record found\n");
  EXPECT_EQ(RawLog(), "abcdxyz123");
  EXPECT_EQ(tGps.dwFirstPointTime, 0u);
  test::FreshRunParameters();
}

TEST(UsbContainer, FieldsAreLittleEndian) {
  const uint8_t bytes[] = {0x11, 0x00, 0x01, 0x00, 0xFE, 0xFF, 0xFF, 0x80};
  EXPECT_EQ(ReadUnsignedShort(bytes), 17u);
  EXPECT_EQ(ReadUnsignedShort(bytes + 2), 1u);
  EXPECT_EQ(ReadUnsignedShort(bytes + 4), 0xFFFEu);
  EXPECT_EQ(ReadUnsignedLong(bytes), 0x00010011u);
  EXPECT_EQ(ReadUnsignedLong(bytes + 4), 0x80FFFFFEu);
}

// Decodes `block` into a buffer of exactly `capacity` bytes (so that a
// sanitizer sees any write past it); `out` gets the bytes written.
int32_t Inflate(const Bytes& block, int32_t capacity, Bytes* out = nullptr) {
  const Bytes input = block;
  Bytes output(static_cast<size_t>(capacity > 0 ? capacity : 0));
  const int32_t result = FastLZ_Decompress(input.data(), static_cast<int32_t>(input.size()), output.data(), capacity);
  if (out != nullptr) out->assign(output.begin(), output.begin() + (result > 0 ? result : 0));
  return result;
}

const std::string kRaw = kData + "fastlz/raw/";
const char* const kOriginals[] = {"igc-syride-navv3.igc", "igc-syride-evolution.igc",
                                  "repetitive-runs.txt",  "far-matches-70k.bin",
                                  "short-10.txt",         "random-4k.bin"};

TEST(UsbBlocks, ReferenceBlocksNeedTheirWholeRoomAndNoMore) {
  for (const char* name : kOriginals) {
    const Bytes original = usbemu::ReadBytes(kRaw + name);
    const int32_t size = static_cast<int32_t>(original.size());
    for (int level : {1, 2}) {
      SCOPED_TRACE(std::string(name) + " level " + std::to_string(level));
      const Bytes block = usbemu::ReadBytes(kRaw + name + ".l" + std::to_string(level) + ".flz");
      EXPECT_EQ(block[0] >> 5, level - 1);
      for (int32_t spare : {0, 1000}) {
        Bytes out;
        ASSERT_EQ(Inflate(block, size + spare, &out), size);
        EXPECT_TRUE(out == original);
      }
      // Every block ends in a literal run.
      EXPECT_EQ(Inflate(block, size - 1), kFastLzLiteralPastOutput);
    }
  }
  for (const auto& [block, room] :
       std::vector<std::pair<std::string, int32_t>>{{"repetitive-runs.txt.l1.flz", 500},
                                                    {"repetitive-runs.txt.l1.flz", 1100},
                                                    {"repetitive-runs.txt.l2.flz", 500},
                                                    {"repetitive-runs.txt.l2.flz", 1100},
                                                    {"far-matches-70k.bin.l2.flz", 15500}}) {
    EXPECT_EQ(Inflate(usbemu::ReadBytes(kRaw + block), room), kFastLzMatchPastOutput) << block << " into " << room;
  }
}

TEST(UsbBlocks, CraftedBlocks) {
  std::ifstream table(kData + "fastlz/crafted.txt");
  int cases = 0;
  for (std::string line; std::getline(table, line);) {
    if (line.empty() || line[0] == '#') continue;
    SCOPED_TRACE(line);
    ++cases;
    std::istringstream fields(line.substr(0, line.find('#')));
    std::string hex, expected;
    int32_t room = 0, result = 0;
    fields >> hex >> room >> result >> expected;
    if (expected.find('*') != std::string::npos) expected = std::string(std::stoul(expected.substr(2)), expected[0]);
    Bytes out;
    EXPECT_EQ(Inflate(Hex(hex), room, &out), result);
    EXPECT_EQ(std::string(out.begin(), out.end()), expected);
  }
  EXPECT_EQ(cases, 18);
}

TEST(UsbBlocks, CorruptedBlocksStayInBounds) {
  std::mt19937 random(20240607);
  int failures = 0;
  for (const char* name : {"repetitive-runs.txt.l1.flz", "repetitive-runs.txt.l2.flz", "random-4k.bin.l1.flz",
                           "far-matches-70k.bin.l2.flz"}) {
    const Bytes clean = usbemu::ReadBytes(kRaw + name);
    for (int round = 0; round < 300; ++round) {
      Bytes bad = clean;
      for (int flips = 0; flips < 3; ++flips) bad[random() % bad.size()] ^= static_cast<uint8_t>(1 + random() % 255);
      const int32_t room = static_cast<int32_t>(random() % 20000), result = Inflate(bad, room);
      ASSERT_TRUE(result >= kFastLzPastInput && result <= room) << name << " round " << round << ": " << result;
      failures += result < 0;
    }
  }
  EXPECT_GT(failures, 0);
}

TEST(UsbBlocks, Adler32AgreesWithZlib) {
  std::mt19937 random(5552);
  Bytes data(200000);
  for (uint8_t& b : data) b = static_cast<uint8_t>(random());
  const Bytes ones(100000, 0xFF);
  for (uint32_t length : {0u, 1u, 2u, 5551u, 5552u, 5553u, 11104u, 65521u, 100000u}) {
    for (uint32_t initial : {1u, 0xFFF0FFF0u, 0x12345678u % 65521u}) {
      EXPECT_EQ(Adler32(initial, data.data(), length), adler32(initial, data.data(), length))
          << length << " " << initial;
      EXPECT_EQ(Adler32(initial, ones.data(), length), adler32(initial, ones.data(), length))
          << length << " " << initial;
    }
  }
  // Continuing over a split equals one pass.
  EXPECT_EQ(Adler32(Adler32(1, data.data(), 7000), data.data() + 7000, 93000), Adler32(1, data.data(), 100000));
}

}  // namespace
