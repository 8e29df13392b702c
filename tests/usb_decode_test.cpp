// SYS'Nav per-second records, the SYS'Evolution container, and the FastLZ
// blocks and Adler-32 inside it.
#include <gtest/gtest.h>
#include <zlib.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "support.h"
#include "usb/fastlz.h"
#include "usb/syride.h"
#include "usb_emulator.h"

namespace {

using usbemu::Bytes;

const std::string kData = std::string(KESTRIX_TEST_DATA) + "/";

Bytes Hex(const std::string& hex) {
  Bytes bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

TEST(UsbDecode, RecordsAsTabled) {
  std::ifstream table(kData + "syride/records.txt");
  int cases = 0;
  for (std::string line; std::getline(table, line);) {
    if (line.empty() || line[0] == '#') continue;
    SCOPED_TRACE(line);
    ++cases;
    std::istringstream in(line.substr(0, line.find(" => ")));
    std::string layout, records, decoded;
    uint32_t start = 0;
    in >> layout >> start >> records;
    const std::vector<std::string> hex = usbemu::Split(records, '/');
    Bytes memory(8, 0);
    for (size_t i = 0; i < hex.size(); ++i) {
      Bytes record = Hex(hex[i]);
      const bool key = i % 60 == 0, wide = layout == "new";
      record.resize(key ? (wide ? 21 : 19) : (wide ? 15 : 14), 0xC3);
      memory.insert(memory.end(), record.begin(), record.end());
    }
    std::vector<TrackPoint> points(hex.size());
    const int32_t count = syride::DecodeFlightMemory(memory.data(), points.data(), static_cast<uint32_t>(hex.size()),
                                                     start, layout == "new");
    for (const TrackPoint* p = points.data(); p < points.data() + count; ++p) {
      decoded += (decoded.empty() ? "" : "; ") + std::to_string(p->dwTime) + " " + std::to_string(p->dwFlags) + " " +
                 std::to_string(p->lLatitude) + " " + std::to_string(p->lLongitude) + " " +
                 std::to_string(p->lGpsAltitude) + " " + std::to_string(p->lPressureAltitude);
    }
    EXPECT_EQ(decoded, line.substr(line.find(" => ") + 4));
  }
  EXPECT_EQ(cases, 10);
}

TEST(UsbDecode, BytesPerFlightCountAKeyRecordPerStartedMinute) {
  const std::vector<std::vector<uint32_t>> cases = {
      // duration, new layout, bytes
      {600, 0, 8458}, {600, 1, 9068}, {61, 0, 872}, {60, 0, 853}, {1, 1, 29}, {0, 1, 8}, {59, 0, 839}, {121, 1, 1841}};
  for (const auto& c : cases)
    EXPECT_EQ(syride::FlightMemorySize(c[0], static_cast<uint8_t>(c[1])), c[2]) << c[0] << " " << c[1];
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

// Decodes `block` into a buffer of exactly `capacity` bytes (so that a
// sanitizer sees any write past it); `out` gets the bytes written.
int32_t Inflate(const Bytes& block, int32_t capacity, Bytes* out = nullptr) {
  const Bytes input = block;
  Bytes output(static_cast<size_t>(capacity > 0 ? capacity : 0));
  const int32_t result = FastLZ_Decompress(input.data(), static_cast<int32_t>(input.size()), output.data(), capacity);
  if (out != nullptr) out->assign(output.begin(), output.begin() + (result > 0 ? result : 0));
  return result;
}

TEST(UsbBlocks, EveryBlockAsTabled) {
  std::ifstream table(kData + "fastlz/blocks.txt");
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
    if (expected.rfind("raw/", 0) == 0) expected = test::ReadFile(kData + "fastlz/" + expected);
    Bytes out;
    EXPECT_EQ(Inflate(hex.rfind("raw/", 0) == 0 ? usbemu::ReadBytes(kData + "fastlz/" + hex) : Hex(hex), room, &out),
              result);
    EXPECT_TRUE(std::string(out.begin(), out.end()) == expected);
  }
  EXPECT_EQ(cases, 18 + 36 + 5);
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
