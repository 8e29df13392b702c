// One complete KML track document pinned byte for byte: a real flight as an
// instrument download leaves it, with product text, download time and digest.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "core/run.h"
#include "igc/igc.h"
#include "kml_support.h"
#include "output/file.h"
#include "support.h"
#include "track/analysis.h"
#include "waypoint_support.h"

namespace {

const std::string kData = KESTRIX_TEST_DATA;

// Where two texts part, with the line there from each, for a readable failure.
std::string FirstDifference(const std::string& actual, const std::string& expected) {
  size_t at = 0;
  while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
  if (at == actual.size() && at == expected.size()) return "";
  auto lineAround = [at](const std::string& text) {
    size_t start = text.rfind('\n', at == 0 ? 0 : at - 1);
    start = start == std::string::npos ? 0 : start + 1;
    return text.substr(start, text.find('\n', at) - start);
  };
  return "byte " + std::to_string(at) + ":\n  written: " + lineAround(actual) + "\n  pinned:  " + lineAround(expected);
}

void LoadSkytraxxDownload() {
  test::FreshRunParameters();
  const std::string igc = test::ReadFile(kData + "/igc/pg-skytraxx-13min.igc");
  ASSERT_GE(DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(igc.data()), static_cast<int32_t>(igc.size()), nullptr, 0),
            0);
  tGps.bSignature = 1;
  tGps.bUtc = 1;
  tGps.bPressureAltitude = 1;
  tGps.dwDownloadTime = test::GpsTime(2024, 5, 1, 14, 7, 9);
  std::snprintf(tGps.szProduct, sizeof tGps.szProduct, " Skytraxx 2.1,\tSN 01234\r\n  FW  1.7 ");
}

TEST(KmlGolden, ARealFlightDocumentIsPinnedByteForByte) {
  LoadSkytraxxDownload();
  test::TempDir dir;
  int32_t result = -1;
  testing::internal::CaptureStdout();
  test::InDirectory(dir.path(), [&] { result = SaveKmlTrackLog("flight.kml", 0); });
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_EQ(result, 0) << out;
  EXPECT_TRUE(out.ends_with("File flight.kml written, signature OK\n")) << out;
  const std::string written = test::ReadFile(dir.File("flight.kml"));
  const std::string pinnedPath = kData + "/kml/pg-skytraxx-13min.kml";
  // After a deliberate change of the format, KESTRIX_UPDATE_GOLDEN=1 writes
  // the new document here; check it before committing it.
  if (std::getenv("KESTRIX_UPDATE_GOLDEN") != nullptr) std::ofstream(pinnedPath, std::ios::binary) << written;
  const std::string pinned = test::ReadFile(pinnedPath);
  ASSERT_FALSE(pinned.empty()) << pinnedPath;
  EXPECT_EQ(FirstDifference(written, pinned), "");
  test::FreshRunParameters();
}

// The pinned document stands on its own: its digest, its attributes and its
// figures agree with what they were made from.
TEST(KmlGolden, ThePinnedDocumentChecksOut) {
  const std::string pinned = test::ReadFile(kData + "/kml/pg-skytraxx-13min.kml");
  test::TrackMetadata track;
  std::string error;
  ASSERT_TRUE(test::ReadTrackMetadata(pinned, &track, &error)) << error;
  EXPECT_EQ(track.timeOfFirstPoint, "2021-03-06T10:34:11Z");
  EXPECT_EQ(track.instrument.value_or(""), "Skytraxx 2.1, SN 01234 FW 1.7");
  EXPECT_EQ(track.downloaded.value_or(""), "2024-05-01T14:07:09Z");
  ASSERT_TRUE(track.hash.has_value());
  EXPECT_EQ(*track.hash, test::Sha1Hex(test::DigestInput(track)));
  EXPECT_EQ(track.altitudeMode, "absolute");
  EXPECT_EQ(test::ListValues(track.coordinates).size(), 221u);

  LoadSkytraxxDownload();
  FlightAnalysis record{};
  record.nPoints = tGps.nTrackPoints;
  record.pPoints = tGps.pTrackPoints;
  testing::internal::CaptureStdout();
  ASSERT_EQ(AnalyzeTrack(&record), 0);
  testing::internal::GetCapturedStdout();
  char line[128];
  std::snprintf(line, sizeof line, "Max./min. height     %d / %d m\r\n", record.nHighestAltitude,
                record.nLowestAltitude);
  EXPECT_NE(test::StatisticsBlock(pinned).find(line), std::string::npos) << line;
  std::snprintf(line, sizeof line, "Total distance       %.2f km\r\n", record.dTrackLength / 1000.0);
  EXPECT_NE(test::StatisticsBlock(pinned).find(line), std::string::npos) << line;
  std::snprintf(line, sizeof line, "        <FsInfo track_idx=\"%d %d\" />\r\n", record.tOpenDistance.anIndex[0],
                record.tOpenDistance.anIndex[1]);
  EXPECT_NE(test::ResultPlacemark(pinned, "distance_open").find(line), std::string::npos) << line;
  test::FreshRunParameters();
}

}  // namespace
