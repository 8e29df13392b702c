// SYS'Nav per-second records and the SYS'Evolution compressed container.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/run.h"
#include "support.h"
#include "syride_emulator.h"
#include "waypoint_support.h"
#include "usb/syride.h"

namespace {

const std::string kSixpack = std::string(KESTRIX_TEST_DATA) + "/fastlz/sixpack/";

std::vector<TrackPoint> Decode(const std::vector<uint8_t>& memory, uint32_t duration, uint32_t start, bool newFormat) {
  std::vector<TrackPoint> points(duration + 1);
  int32_t count = syride::DecodeFlightMemory(memory.data(), points.data(), duration, start, newFormat ? 1 : 0);
  points.resize(count < 0 ? 0 : static_cast<size_t>(count));
  return points;
}

TEST(FlightMemorySize, CountsKeyRecordsPerStartedMinute) {
  struct Case {
    uint32_t duration;
    bool newFormat;
    uint32_t bytes;
  };
  const Case cases[] = {
      {600, false, 8458}, {600, true, 9068}, {61, false, 872}, {60, false, 853},
      {1, true, 29},      {0, true, 8},      {59, false, 839}, {121, true, 1841},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(syride::FlightMemorySize(c.duration, c.newFormat), c.bytes)
        << c.duration << (c.newFormat ? " new" : " old");
  }
}

TEST(DecodeFlightMemory, KeyAndDeltaRecordsInBothLayouts) {
  // Seconds 0..61: keys at 0 and 60. Latitude 45.5 degrees going south,
  // longitude -6.25 degrees going east, barometric 1200 m, GPS 1250 m.
  std::vector<emu::Fix> fixes;
  for (int i = 0; i < 62; ++i) {
    fixes.push_back({455000000 - 130 * i, -62500000 + 70 * i, 1200 + (i % 7) - 3 * (i / 30), 1250 + i});
  }
  for (bool newFormat : {false, true}) {
    SCOPED_TRACE(newFormat ? "new layout" : "old layout");
    std::vector<uint8_t> memory = emu::EncodeFlightMemory(fixes, newFormat);
    ASSERT_EQ(memory.size(), syride::FlightMemorySize(62, newFormat));
    std::vector<TrackPoint> points = Decode(memory, 62, 1000000, newFormat);
    ASSERT_EQ(points.size(), 62u);
    for (int i = 0; i < 62; ++i) {
      SCOPED_TRACE("second " + std::to_string(i));
      const TrackPoint& p = points[static_cast<size_t>(i)];
      EXPECT_EQ(p.dwFlags, i == 0 ? 1u : 0u);
      EXPECT_EQ(p.dwTime, 1000000u + static_cast<uint32_t>(i));
      // 2^31 arcs are 180 degrees.
      EXPECT_NEAR(p.lLatitude, fixes[static_cast<size_t>(i)].latitude * (2147483648.0 / 1.8e9), 0.5);
      EXPECT_NEAR(p.lLongitude, fixes[static_cast<size_t>(i)].longitude * (2147483648.0 / 1.8e9), 0.5);
      // The barometric field fills the GPS altitude in decimetres ...
      EXPECT_EQ(p.lGpsAltitude, fixes[static_cast<size_t>(i)].barometric * 10);
      // ... and the GPS field the pressure altitude, carried by the barometric deltas.
      int key = i - i % 60;
      int32_t expected = fixes[static_cast<size_t>(key)].gps + fixes[static_cast<size_t>(i)].barometric -
                         fixes[static_cast<size_t>(key)].barometric;
      EXPECT_EQ(p.lPressureAltitude, newFormat ? expected : 0);
    }
  }
}

TEST(DecodeFlightMemory, RoundingSignsAndTheNoFixMark) {
  struct Case {
    int32_t latitude;  // 1e-7 degrees, key record
    int32_t arcs;      // half away from zero
  };
  const Case cases[] = {
      {3, 4},
      {-3, -4},
      {-1, -1},
      {2, 2},
      {900000000, 1073741824},
      {-900000000, -1073741824},
      {1800000000, INT32_MIN},  // 180 degrees wraps like the 32-bit field
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> memory = emu::EncodeFlightMemory({{c.latitude, c.latitude, 0, 0}}, false);
    std::vector<TrackPoint> points = Decode(memory, 1, 0, false);
    ASSERT_EQ(points.size(), 1u);
    EXPECT_EQ(points[0].lLatitude, c.arcs) << c.latitude;
    EXPECT_EQ(points[0].lLongitude, c.arcs) << c.latitude;
  }
  // 0.5 degrees in both is the mark of no fix: not stored, and not counted.
  std::vector<emu::Fix> fixes = {{emu::kNoFix, emu::kNoFix, 0, 0},
                                 {emu::kNoFix, emu::kNoFix + 1, 0, 0},
                                 {emu::kNoFix, emu::kNoFix, 0, 0},
                                 {emu::kNoFix - 100, emu::kNoFix - 100, 0, 0}};
  std::vector<TrackPoint> points = Decode(emu::EncodeFlightMemory(fixes, true), 4, 50, true);
  ASSERT_EQ(points.size(), 2u);
  EXPECT_EQ(points[0].dwTime, 51u);
  EXPECT_EQ(points[0].dwFlags, 0u);  // the first second was the one with the flag
  EXPECT_EQ(points[1].dwTime, 53u);
}

TEST(DecodeFlightMemory, AltitudeDeltaIsASignedByte) {
  std::vector<emu::Fix> fixes = {{10, 10, 500, 600}, {10, 10, 501, 0}, {10, 10, 374, 0}, {10, 10, 501, 0}};
  std::vector<uint8_t> memory = emu::EncodeFlightMemory(fixes, true);
  ASSERT_FALSE(memory.empty());
  EXPECT_EQ(memory[8 + 21 + 4], 0xFF);  // 500 - 501: the byte 255 raises the altitude by 1 m
  std::vector<TrackPoint> points = Decode(memory, 4, 0, true);
  ASSERT_EQ(points.size(), 4u);
  EXPECT_EQ(points[1].lGpsAltitude, 5010);
  EXPECT_EQ(points[2].lGpsAltitude, 3740);
  EXPECT_EQ(points[3].lGpsAltitude, 5010);
  EXPECT_EQ(points[1].lPressureAltitude, 601);
  EXPECT_EQ(points[2].lPressureAltitude, 474);
}

TEST(DecodeFlightMemory, GarbageWrapsInsteadOfOverflowing) {
  // Keys at the ends of the range and deltas that push past them.
  std::vector<uint8_t> memory(syride::FlightMemorySize(3, 1), 0x80);
  for (size_t i = 8; i < 8 + 21; ++i) memory[i] = 0x7F;
  std::vector<TrackPoint> points = Decode(memory, 3, 0, true);
  EXPECT_EQ(points.size(), 3u);
}

// The container with its messages. The decoder receives the text; the test
// decoder turns B records into points.
struct ContainerCase {
  const char* file;
  const char* message;  // nullptr: success
  const char* original;
};

TEST(DecodeEvolutionFlightMemory, ReferenceArchivesAndTheirEdits) {
  const ContainerCase cases[] = {
      {"pg-syride-evolution-9h.l1.6pk", nullptr, "../raw/igc-syride-evolution.igc"},
      {"pg-syride-evolution-9h.l2.6pk", nullptr, "../raw/igc-syride-evolution.igc"},
      {"hg-flytec6030-litespeed-task.l1.6pk", nullptr, "hg-flytec6030-litespeed-task.igc"},
      {"hg-flytec6030-litespeed-task.l2.6pk", nullptr, "hg-flytec6030-litespeed-task.igc"},
      {"evolution-head-131092.l2.6pk", nullptr, "evolution-head-131092.igc"},
      {"derived/empty-stored-chunk.6pk", nullptr, "hg-flytec6030-litespeed-task.igc"},
      {"derived/unknown-chunk-id.6pk", nullptr, "hg-flytec6030-litespeed-task.igc"},
      {"derived/wrong-signature.6pk", "Decompress: Wrong file format\n", nullptr},
      {"derived/bad-checksum.6pk", "Decompress: Bad chunk checksum\n", nullptr},
      {"derived/two-headers.6pk", "Decompress: Multiple decompressed sizes\n", nullptr},
      {"derived/zero-size.6pk", "Decompress: Zero decompressed size\n", nullptr},
      {"derived/declared-plus-one.6pk", "Decompress: Length mismatch\n", nullptr},
      {"derived/declared-minus-one.6pk", "Decompress: Length mismatch\n", nullptr},
      {"derived/data-before-header.6pk", "Decompress: Length mismatch\n", nullptr},
      {"derived/unknown-option.6pk", "Decompress: Unknown chunk option\n", nullptr},
      {"derived/truncated-data.6pk", "Decompress: Too few bytes left for chunk\n", nullptr},
      {"derived/trailing-8-bytes.6pk", "Decompress: Too few bytes for left for header\n", nullptr},
  };
  for (const ContainerCase& c : cases) {
    SCOPED_TRACE(c.file);
    test::FreshRunParameters();
    std::vector<uint8_t> archive = emu::ReadBytes(kSixpack + c.file);
    testing::internal::CaptureStdout();
    int32_t result = syride::DecodeEvolutionFlightMemory(archive.data(), static_cast<uint32_t>(archive.size()));
    std::string out = testing::internal::GetCapturedStdout();
    if (c.message != nullptr) {
      EXPECT_EQ(result, -1);
      EXPECT_EQ(out, c.message);
      EXPECT_EQ(tGps.pbRawLog, nullptr);
      continue;
    }
    std::vector<uint8_t> original = emu::ReadBytes(kSixpack + c.original);
    std::string text(original.begin(), original.end());
    size_t fixes = 0;
    for (size_t at = text.find("\nB"); at != std::string::npos; at = text.find("\nB", at + 1)) {
      fixes += text.find('\n', at + 1) != std::string::npos;  // a cut last line is not read
    }
    ASSERT_EQ(result, 0);
    EXPECT_EQ(
        out, "Decompressed length " + std::to_string(original.size()) + "\nGot " + std::to_string(fixes) + " points\n");
    ASSERT_EQ(tGps.nRawLogLength, static_cast<int32_t>(original.size()));
    EXPECT_TRUE(std::equal(original.begin(), original.end(), tGps.pbRawLog));
    EXPECT_EQ(tGps.dwFirstPointTime, tGps.pTrackPoints[0].dwTime);
  }
  test::FreshRunParameters();
}

std::vector<uint8_t> SizeHeader(uint32_t size, size_t length = 20) {
  std::vector<uint8_t> data(length, 0);
  for (int i = 0; i < 4; ++i) data[static_cast<size_t>(i)] = static_cast<uint8_t>(size >> (8 * i));
  return data;
}

std::vector<uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

TEST(DecodeEvolutionFlightMemory, CraftedContainers) {
  const std::string igc = "AXSE01\nHFDTE080619\nB1000000000000N00000000EA0000000000\n";
  const uint32_t n = static_cast<uint32_t>(igc.size());
  const std::vector<uint8_t> compressed = {0x02, 'A', 'X', 'S', 0x60, 0x02};  // "AXS" + "AXSAX"
  struct Case {
    const char* what;
    std::vector<uint8_t> container;
    std::string message;
    std::string text;  // decoded text on success
  };
  const std::vector<Case> cases = {
      {"shorter than the signature", {137, 54, 80, 75, 13, 10, 26}, "Decompress: Too small file\n", ""},
      {"signature alone", emu::Container({}), "Decompress: Zero decompress length\n", ""},
      {"header without data", emu::Container({{1, 0, SizeHeader(10)}}), "Decompress: Zero decompress length\n", ""},
      {"stored data only", emu::Container({{1, 0, SizeHeader(n)}, {17, 0, Bytes(igc)}}), "", igc},
      {"stored data split, empty chunk between",
       emu::Container({{1, 0, SizeHeader(n)}, {17, 0, Bytes(igc.substr(0, 20))}, {17, 0, {}},
                  {17, 0, Bytes(igc.substr(20))}}),
       "", igc},
      {"compressed and stored",
       emu::Container({{1, 0, SizeHeader(n + 8)}, {17, 1, compressed}, {17, 0, Bytes(igc)}}), "", "AXSAXSAX" + igc},
      {"header of 10 bytes is no header", emu::Container({{1, 0, SizeHeader(n, 10)}, {17, 0, Bytes(igc)}}),
       "Decompress: Zero decompress length\n", ""},
      {"header of 512 bytes is no header", emu::Container({{1, 0, SizeHeader(n, 512)}, {17, 0, Bytes(igc)}}),
       "Decompress: Zero decompress length\n", ""},
      {"header of 511 bytes", emu::Container({{1, 0, SizeHeader(n, 511)}, {17, 0, Bytes(igc)}}), "", igc},
      {"header of 11 bytes", emu::Container({{1, 0, SizeHeader(n, 11)}, {17, 0, Bytes(igc)}}), "", igc},
      {"data before the header is skipped",
       emu::Container({{17, 0, Bytes("junk")}, {1, 0, SizeHeader(n)}, {17, 0, Bytes(igc)}}), "", igc},
      {"second header after data",
       emu::Container({{1, 0, SizeHeader(n)}, {17, 0, Bytes(igc)}, {1, 0, SizeHeader(n)}}),
       "Decompress: Multiple decompressed sizes\n", ""},
      {"bad checksum on a skipped chunk", emu::Container({{1, 0, SizeHeader(n)}, {99, 0, Bytes("x"), true}}),
       "Decompress: Bad chunk checksum\n", ""},
      {"empty compressed chunk", emu::Container({{1, 0, SizeHeader(n)}, {17, 1, {}}}),
       "Decompress: Decompression error\n", ""},
      {"unknown option", emu::Container({{1, 0, SizeHeader(n)}, {17, 3, Bytes(igc)}}),
       "Decompress: Unknown chunk option\n", ""},
      {"stored data one byte short", emu::Container({{1, 0, SizeHeader(n + 1)}, {17, 0, Bytes(igc)}}),
       "Decompress: Length mismatch\n", ""},
      {"stored data past the declared size", emu::Container({{1, 0, SizeHeader(n - 1)}, {17, 0, Bytes(igc)}}),
       "Decompress: Length mismatch\n", ""},
      {"error code before any byte leaves the position before the output",
       emu::Container({{1, 0, SizeHeader(4)}, {17, 1, {0x07, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}},
                  {17, 0, Bytes("abcdefg")}}),
       "Decompress: Length mismatch\n", ""},
      {"header cut short", [n] {
         std::vector<uint8_t> c = emu::Container({{1, 0, SizeHeader(n)}});
         c.erase(c.end() - 21, c.end());
         return c;
       }(),
       "Decompress: Too few bytes for left for header\n", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    test::FreshRunParameters();
    testing::internal::CaptureStdout();
    int32_t result = syride::DecodeEvolutionFlightMemory(c.container.data(), static_cast<uint32_t>(c.container.size()));
    std::string out = testing::internal::GetCapturedStdout();
    if (!c.message.empty()) {
      EXPECT_EQ(out, c.message);
      EXPECT_EQ(result, -1);
      EXPECT_EQ(tGps.pbRawLog, nullptr);
      continue;
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(tGps.pbRawLog), static_cast<size_t>(tGps.nRawLogLength)),
              c.text);
    EXPECT_EQ(out, "Decompressed length " + std::to_string(c.text.size()) + "\nGot 1 points\n");
    EXPECT_EQ(tGps.dwFirstPointTime, test::GpsTime(2019, 6, 8, 10, 0, 0));
  }
  test::FreshRunParameters();
}

TEST(DecodeEvolutionFlightMemory, AnErrorCodeMovesThePositionBackAndIsCountedAsItIs) {
  // 7 stored bytes, a block that fails with -3 (8 bytes into a room of 3),
  // then 6 stored bytes: 7 - 3 + 6 is the declared 10, and the last chunk
  // has overwritten the tail of the first. The text is no IGC file: the
  // flight fails, and its text is kept.
  test::FreshRunParameters();
  std::vector<uint8_t> container = emu::Container({{1, 0, SizeHeader(10)},
                                                   {17, 0, Bytes("abcdefg")},
                                                   {17, 1, {0x07, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}},
                                                   {17, 0, Bytes("xyz123")}});
  testing::internal::CaptureStdout();
  EXPECT_EQ(syride::DecodeEvolutionFlightMemory(container.data(), static_cast<uint32_t>(container.size())), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Decompressed length 10\nNo A-record found\n");
  ASSERT_EQ(tGps.nRawLogLength, 10);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(tGps.pbRawLog), 10), "abcdxyz123");
  EXPECT_EQ(tGps.dwFirstPointTime, 0u);
  test::FreshRunParameters();
}

}  // namespace
