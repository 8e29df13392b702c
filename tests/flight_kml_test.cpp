// The KML track document against an independent reading of it (list layout,
// digest by OpenSSL), one real flight pinned byte for byte, and the digest
// itself: plain SHA-1 below byte 128, the kept signed packing above.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/conv.h"
#include "igc/igc.h"
#include "kml_support.h"
#include "link/string.h"
#include "output/file.h"
#include "output/google.h"
#include "output/hash.h"
#include "support.h"
#include "track/analysis.h"
#include "waypoint_support.h"

namespace {

std::string Render(FlightAnalysis* record) {
  TextBuffer text;
  EXPECT_EQ(MakeGoogleFolder(record, &text), 0);
  return text.data == nullptr ? "" : std::string(text.data, static_cast<size_t>(text.length));
}

TEST(KmlTrack, ListsBreakEvery25ValuesCoordinatesEvery5AndTheDigestCoversTheValues) {
  test::FreshRunParameters();
  for (int32_t count : {5, 6, 24, 25, 26, 50, 51}) {
    for (int32_t flags : {0, 1, 2, 3}) {
      SCOPED_TRACE(testing::Message() << count << " points, signature and pressure " << flags);
      std::vector<TrackPoint> points;
      for (int32_t i = 0; i < count; ++i) {
        TrackPoint p{i == 0 ? 1u : 0u, 700000000u + 10u * static_cast<uint32_t>(i), 0, 0, 10000 + 15 * i, 800 + i};
        ConvertGeoToArcPos((46.0 + i / 60.0) * kPi / 180.0, (7.0 + i / 120.0) * kPi / 180.0, &p.lLatitude,
                           &p.lLongitude);
        points.push_back(p);
      }
      FlightAnalysis record{};
      record.nPoints = count;
      record.pPoints = points.data();
      record.dwDownloadTime = 0xFFFFFFFFu;
      record.bSignature = flags & 1;
      record.nCivlPilotId = record.nCompPilotId = -1;
      record.bUtc = 1;
      record.bPressureAltitude = flags >> 1;
      const std::string document = Render(&record);
      test::TrackMetadata track;
      std::string error;
      ASSERT_TRUE(test::ReadTrackMetadata(document, &track, &error)) << error;
      EXPECT_EQ(test::ListLayoutProblem(track.seconds, 25), "");
      EXPECT_EQ(test::ListLayoutProblem(track.coordinates, 5), "");
      const std::vector<std::string> seconds = test::ListValues(track.seconds);
      const std::vector<std::string> coordinates = test::ListValues(track.coordinates);
      ASSERT_EQ(seconds.size(), static_cast<size_t>(count));
      ASSERT_EQ(coordinates.size(), static_cast<size_t>(count));
      EXPECT_EQ(seconds.back(), std::to_string(10 * (count - 1)));
      char last[64];
      std::snprintf(last, sizeof last, "%.6f,%.6f,%d", 7.0 + (count - 1) / 120.0, 46.0 + (count - 1) / 60.0,
                    (10000 + 15 * (count - 1) + 5) / 10);
      EXPECT_EQ(coordinates.back(), last);
      ASSERT_EQ(track.pressure.has_value(), (flags >> 1) != 0);
      if (track.pressure) {
        EXPECT_EQ(test::ListLayoutProblem(*track.pressure, 25), "");
        EXPECT_EQ(test::ListValues(*track.pressure).back(), std::to_string(800 + count - 1));
      }
      ASSERT_EQ(track.hash.has_value(), (flags & 1) != 0);
      if (track.hash) {
        EXPECT_EQ(*track.hash, test::Sha1Hex(test::DigestInput(track)));
      }
      EXPECT_EQ(document.find("hash=") != std::string::npos, (flags & 1) != 0);
    }
  }
}

// A real flight as an instrument download leaves it, with product text,
// download time and digest. After a deliberate change of the format,
// KESTRIX_UPDATE_GOLDEN=1 writes the new document in its place.
TEST(KmlTrack, ARealFlightDocumentIsPinnedByteForByteAndChecksOut) {
  test::FreshRunParameters();
  const std::string igc = test::ReadFile(test::DataFile("igc/pg-skytraxx-13min.igc"));
  ASSERT_GE(DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(igc.data()), static_cast<int32_t>(igc.size()), nullptr, 0),
            0);
  tGps.bSignature = tGps.bUtc = tGps.bPressureAltitude = 1;
  tGps.dwDownloadTime = test::GpsTime(2024, 5, 1, 14, 7, 9);
  std::snprintf(tGps.szProduct, sizeof tGps.szProduct, " Skytraxx 2.1,\tSN 01234\r\n  FW  1.7 ");
  test::TempDir dir;
  int32_t result = -1;
  testing::internal::CaptureStdout();
  test::InDirectory(dir.path(), [&] { result = SaveKmlTrackLog("flight.kml", 0); });
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_EQ(result, 0) << out;
  EXPECT_TRUE(out.ends_with("File flight.kml written, signature OK\n")) << out;
  const std::string written = test::ReadFile(dir.File("flight.kml")), pinnedPath = test::DataFile("kml/pg-skytraxx-13min.kml");
  if (std::getenv("KESTRIX_UPDATE_GOLDEN") != nullptr) std::ofstream(pinnedPath, std::ios::binary) << written;
  const std::string pinned = test::ReadFile(pinnedPath);
  const size_t at = std::mismatch(written.begin(), written.end(), pinned.begin(), pinned.end()).first - written.begin();
  EXPECT_EQ(written, pinned) << "first difference at byte " << at;

  test::TrackMetadata track;
  std::string error;
  ASSERT_TRUE(test::ReadTrackMetadata(pinned, &track, &error)) << error;
  EXPECT_EQ(track.timeOfFirstPoint, "2021-03-06T10:34:11Z");
  EXPECT_EQ(track.instrument.value_or(""), "Skytraxx 2.1, SN 01234 FW 1.7");
  EXPECT_EQ(*track.hash, test::Sha1Hex(test::DigestInput(track)));
  EXPECT_EQ(test::ListValues(track.coordinates).size(), 221u);
  FlightAnalysis record{};
  record.nPoints = tGps.nTrackPoints;
  record.pPoints = tGps.pTrackPoints;
  testing::internal::CaptureStdout();
  ASSERT_EQ(AnalyzeTrack(&record), 0);
  testing::internal::GetCapturedStdout();
  char line[160];
  std::snprintf(line, sizeof line, "Max./min. height     %d / %d m\r\nMax. mean", record.nHighestAltitude,
                record.nLowestAltitude);
  EXPECT_NE(test::StatisticsBlock(pinned).find(line), std::string::npos) << line;
  std::snprintf(line, sizeof line, "Total distance       %.2f km\r\n", record.dTrackLength / 1000.0);
  EXPECT_NE(test::StatisticsBlock(pinned).find(line), std::string::npos) << line;
  std::snprintf(line, sizeof line, "<FsInfo track_idx=\"%d %d\" />", record.tOpenDistance.anIndex[0],
                record.tOpenDistance.anIndex[1]);
  EXPECT_NE(test::ResultPlacemark(pinned, "distance_open").find(line), std::string::npos) << line;
  test::FreshRunParameters();
}

// Text pieces fed as HashString, HashBuffer, HashString.
std::string Digest(const std::string& text, size_t bufferFrom = 0, size_t bufferTo = 0) {
  HashContext hash;
  HashInit(&hash);
  HashString(&hash, text.substr(0, bufferFrom).c_str());
  const std::string middle = text.substr(bufferFrom, bufferTo - bufferFrom);
  EXPECT_EQ(HashBuffer(&hash, reinterpret_cast<const uint8_t*>(middle.data()), static_cast<int32_t>(middle.size())),
            static_cast<int32_t>(middle.size()));
  HashString(&hash, text.substr(bufferTo).c_str());
  uint32_t digest[5];
  HashFinish(&hash, digest);
  char hex[41];
  std::snprintf(hex, sizeof hex, "%08X%08X%08X%08X%08X", digest[0], digest[1], digest[2], digest[3], digest[4]);
  return hex;
}

// What the signed packing digests: in each group of four bytes (the last
// maybe shorter) a byte of 128 or above borrows from the bytes before it.
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

TEST(DigestHash, PlainSha1ForEveryLengthSplitAndCompression) {
  const bool instructions = bHashInstructions;
#if defined(__x86_64__)
  EXPECT_EQ(instructions, __builtin_cpu_supports("sha") && __builtin_cpu_supports("sse4.1"));  // where it has them
#endif
  for (bool use : {false, true}) {
    bHashInstructions = use && instructions;
    for (size_t length = 0; length <= 200; ++length) {
      const std::string text = AsciiText(length);
      ASSERT_EQ(Digest(text), test::Sha1Hex(text)) << length;
      ASSERT_EQ(Digest(text, 0, length), test::Sha1Hex(text)) << length;
    }
  }
  bHashInstructions = instructions;
  EXPECT_EQ(Digest("abc"), "A9993E364706816ABA3E25717850C26C9CD0D89D");
  const std::string text = AsciiText(131);
  for (size_t split = 0; split <= text.size(); ++split) {
    for (size_t second = split; second <= text.size(); second += 13) {
      ASSERT_EQ(Digest(text, split, second), test::Sha1Hex(text)) << split << " " << second;
    }
  }
}

TEST(DigestHash, TextBytesOf128AndAboveLowerTheBytesBeforeThemInTheirWord) {
  EXPECT_EQ(AsPackedSigned("Pr\xC3\xA9"), std::string("Pq\xC2\xA9"));  // worked by hand
  int deviating = 0;
  for (size_t length : {1u, 2u, 3u, 4u, 5u, 55u, 56u, 57u, 63u, 64u, 65u, 119u, 120u, 130u}) {
    for (size_t position = 0; position < std::min<size_t>(length, 8); ++position) {
      std::string text = AsciiText(length);
      text[position] = static_cast<char>(0xC3);
      text[length - 1] = static_cast<char>(0xFF - length % 64);
      const std::string packed = AsPackedSigned(text);
      EXPECT_EQ(Digest(text), test::Sha1Hex(packed)) << length << "/" << position;
      EXPECT_EQ(Digest(text, 0, length), test::Sha1Hex(text)) << length << "/" << position;
      deviating += packed != text;
    }
  }
  EXPECT_GT(deviating, 50);
}

TEST(DigestHash, SecretIsFixedAsciiAndKeptOnlyScrambled) {
  char secret[kXmlStartLength + 1];
  std::memset(secret, 'x', sizeof secret);
  GetXmlStart(secret);
  ASSERT_EQ(std::strlen(secret), static_cast<size_t>(kXmlStartLength));
  for (char c : std::string(secret)) EXPECT_TRUE(c > ' ' && c < 127) << static_cast<int>(c);
  // Changing the secret would break every document written before.
  EXPECT_EQ(test::HashStringDigest(secret), "47D2D32BF01BF3ECF53B7505938DED05544BD1C1");
  // This program links the secret's module; the plain text is nowhere in it.
  const std::string program = test::ReadFile("/proc/self/exe");
  ASSERT_GT(program.size(), 100000u);
  EXPECT_EQ(program.find(secret), std::string::npos);
}

}  // namespace
