// Saving a downloaded track in-process: checks, which files in which order,
// raw instrument text, --trim, --skip, names and every way a file can fail;
// the -x conversion's own settings and clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "core/run.h"
#include "flight_support.h"
#include "igc/igc.h"
#include "kml_support.h"
#include "output/file.h"
#include "support.h"
#include "waypoint_support.h"

namespace {

const std::string kAnalysis =
    "Computing statistics\nFinding greatest out-and-return (gap = 800m)\nFinding greatest triangles (gap = 800m)\n";
const std::string kIgc = "2013-07-21_13-05.igc", kKml = "2013-07-21_13-05.kml";

// `moving` points 100 m north and 10 s apart from 13:05:00, then `standing`
// more at the last place; left as an instrument download leaves them.
void Downloaded(int32_t moving, int32_t standing = 0, int32_t signature = 1) {
  std::vector<TrackPoint> points;
  for (int32_t i = 0; i < moving + standing; ++i) {
    points.push_back(flights::PointAt(test::GpsTime(2013, 7, 21, 13, 5, 10 * i), {0.0, 100.0 * std::min(i, moving - 1)}, 1000 + i));
    points.back().lPressureAltitude = 990 + i;
  }
  if (!points.empty()) points[0].dwFlags = kTrackPointNewSegment;
  flights::LoadTrack(points);
  tGps.dwFileTypes = kFileKml | kFileIgc;
  tGps.bSignature = signature;
  tGps.bUtc = tGps.bPressureAltitude = 1;
  tGps.dwDownloadTime = test::GpsTime(2024, 5, 1, 14, 7, 9);
  std::snprintf(tGps.szProduct, sizeof tGps.szProduct, "COMPEO+, SN00565, SW3.25");
}

// The points of IGC text, read aside from the run's own track log.
int32_t PointsIn(const std::string& igc) {
  const std::vector<TrackPoint> kept = flights::LoadedTrack();
  testing::internal::CaptureStdout();
  const int32_t decoded = DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(igc.data()), static_cast<int32_t>(igc.size()), nullptr, 0);
  testing::internal::GetCapturedStdout();
  const int32_t count = decoded < 0 ? -1 : tGps.nTrackPoints;
  flights::LoadTrack(kept);
  return count;
}

class TrackSaving : public testing::Test {
 protected:
  void SetUp() override { test::FreshRunParameters(); }
  void TearDown() override { test::FreshRunParameters(); }

  std::string Save(int32_t* result = nullptr) {
    int32_t r = 0;
    testing::internal::CaptureStdout();
    test::InDirectory(dir_.path(), [&] { r = SaveTracklog(); });
    if (result != nullptr) *result = r;
    return testing::internal::GetCapturedStdout();
  }
  std::vector<std::string> Files() const { return test::FilesIn(dir_.path()); }
  void Clear() const {
    for (const std::string& name : Files()) std::filesystem::remove_all(dir_.File(name));
  }
  std::string Read(const std::string& name) const { return test::ReadFile(dir_.File(name)); }
  test::TrackMetadata Kml(const std::string& name) const {
    test::TrackMetadata track;
    std::string error;
    EXPECT_TRUE(test::ReadTrackMetadata(Read(name), &track, &error)) << name << ": " << error;
    if (track.hash) {
      EXPECT_EQ(*track.hash, test::Sha1Hex(test::DigestInput(track)));
    }
    return track;
  }
  size_t KmlPoints(const std::string& name) const { return test::ListValues(Kml(name).coordinates).size(); }

  test::TempDir dir_;
};

TEST_F(TrackSaving, PointCountsAndTheFileTypeMaskChooseTheFiles) {
  int32_t result = 0;
  EXPECT_EQ(Save(&result), "");  // no track at all
  EXPECT_EQ(result, -1);
  Downloaded(0);
  EXPECT_EQ(Save(&result), "");
  EXPECT_EQ(result, -1);
  const std::string igc = "Making igc log\nFile " + kIgc + " written\n";
  for (int32_t count = 1; count <= 5; ++count) {
    Clear();
    Downloaded(count);
    EXPECT_EQ(Save(&result), igc + (count < 5 ? "Too few points for a .kml file\n"
                                              : kAnalysis + "File " + kKml + " written, signature OK\n")) << count;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Files().size(), count < 5 ? 1u : 2u);
    EXPECT_EQ(PointsIn(Read(kIgc)), count);
  }
  for (const auto& [mask, files] : {std::pair{kFileKml, std::vector<std::string>{kKml}}, {kFileIgc, {kIgc}}}) {
    Clear();
    Downloaded(20);
    tGps.dwFileTypes = mask;
    Save();
    EXPECT_EQ(Files(), files);
  }
}

TEST_F(TrackSaving, EncodedIgcCarriesTheConfigurationAndTheSignatureFlag) {
  for (int32_t signature : {0, 1}) {
    SCOPED_TRACE(signature);
    Downloaded(30, 0, signature);
    std::snprintf(tGps.szIgcPilotName, sizeof tGps.szIgcPilotName, "Jane Doe");
    std::snprintf(tGps.szIgcGliderType, sizeof tGps.szIgcGliderType, "Alpha 4");
    std::snprintf(tGps.szIgcSiteName, sizeof tGps.szIgcSiteName, "Fiesch");
    EXPECT_TRUE(Save().ends_with(signature ? "written, signature OK\n" : "written, NO signature\n"));
    const std::string igc = Read(kIgc);
    EXPECT_TRUE(igc.starts_with("AXKX COMPEO+, SN00565, SW3.25\r\n")) << igc.substr(0, 40);
    for (const char* line : {"\r\nHFPLTPILOT: Jane Doe\r\n", "\r\nHFGTYGLIDERTYPE: Alpha 4\r\n", "\r\nHFSITSITE: Fiesch\r\n",
                             "\r\nLXKX Downloaded 2024-05-01  14:07:09\r\n"}) {
      EXPECT_NE(igc.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(igc.find("\r\nG") != std::string::npos, signature != 0);
    EXPECT_EQ(PointsIn(igc), 30);
    const test::TrackMetadata track = Kml(kKml);
    EXPECT_EQ(track.hash.has_value(), signature != 0);
    EXPECT_EQ(track.instrument.value_or(""), "COMPEO+, SN00565, SW3.25");
    EXPECT_EQ(track.downloaded.value_or(""), "2024-05-01T14:07:09Z");
  }
}

TEST_F(TrackSaving, RawInstrumentTextIsWrittenAsItCameUnderBothNames) {
  const std::string raw = test::ReadFile(test::DataFile("igc/pg-iqbasic-8s.igc"));
  ASSERT_GE(DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(raw.data()), static_cast<int32_t>(raw.size()), nullptr, 0), 0);
  ASSERT_EQ(AppendRawLog(reinterpret_cast<const uint8_t*>(raw.data()), static_cast<int32_t>(raw.size())), 0);
  tGps.dwFileTypes = kFileKml | kFileIgc;
  tGps.bSignature = tGps.bTrim = 1;
  tGps.nTrimLandingInterval = 60;
  tGps.nTrimLandingDistance = 30;
  // The raw file is named from the first fix the instrument reported, the
  // document from the track's first point.
  tGps.dwFirstPointTime = test::GpsTime(2023, 10, 4, 14, 29, 0);
  const std::string out = Save(), rawName = "2023-10-04_14-29.igc", kmlName = "2023-10-04_14-30.kml";
  const std::string rawLine = "Raw igc log downloaded (10189 bytes)\nFile ";
  EXPECT_TRUE(out.starts_with(rawLine + rawName + " written\n" + kAnalysis + "File " + kmlName + " written, signature OK\n")) << out;
  EXPECT_NE(out.find(rawLine + "2023-10-04_14-29-T.igc written\n"), std::string::npos);
  EXPECT_EQ(Read(rawName), raw);
  EXPECT_EQ(Read("2023-10-04_14-29-T.igc"), raw);
  EXPECT_EQ(KmlPoints(kmlName), 194u);
  EXPECT_EQ(Files(), (std::vector<std::string>{"2023-10-04_14-29-T.igc", rawName, "2023-10-04_14-30-T.kml", kmlName}));
  EXPECT_LT(KmlPoints("2023-10-04_14-30-T.kml"), 194u);
}

TEST_F(TrackSaving, FilesThatCannotBeWrittenAreReportedAndTheNextIsTried) {
  const std::string n251(251, 'n');
  struct Case {
    std::string output;
    std::string prepare;  // "folders", "full" (links to /dev/full) or nothing
    std::string igc, kml;  // what each step prints
  } cases[] = {
      {"nowhere/", "", "Couldn't create file nowhere/" + kIgc, "Couldn't open file nowhere/" + kKml + " for writing"},
      {"", "folders", "Couldn't create file " + kIgc, "Couldn't open file " + kKml + " for writing"},
      {"", "full", "Error writing file " + kIgc, "Error writing to " + kKml},
      {n251, "", "File " + n251 + ".igc written", "File " + n251 + ".kml written, signature OK"},  // 255 characters
      {std::string(252, 'm'), "", "File name too long", "File name too long"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.output.size());
    Clear();
    for (const std::string& name : {kIgc, kKml}) {
      if (c.prepare == "folders") std::filesystem::create_directory(dir_.File(name));
      if (c.prepare == "full") std::filesystem::create_symlink("/dev/full", dir_.File(name));
    }
    test::SetOutputName(c.output);
    Downloaded(20);
    int32_t result = -1;
    EXPECT_EQ(Save(&result), "Making igc log\n" + c.igc + "\n" + kAnalysis + c.kml + "\n");
    EXPECT_EQ(result, 0);
    if (c.prepare == "folders") {
      EXPECT_TRUE(std::filesystem::is_empty(dir_.File(kKml)));
    }
    if (c.prepare == "full") {
      EXPECT_TRUE(std::filesystem::is_symlink(dir_.File(kIgc)));
    }
    EXPECT_EQ(Files().size(), c.prepare.empty() && c.output == n251 ? 2u : c.prepare.empty() ? 0u : 2u);
  }
}

TEST_F(TrackSaving, ChecksRunFirstAndACheckThatLeavesNothingSavesNothing) {
  Downloaded(30);  // two tracks split by a pause; neither is kept
  for (int32_t i = 15; i < 30; ++i) tGps.pTrackPoints[i].dwTime += 3600;
  const std::vector<TrackPoint> two = flights::LoadedTrack();
  tGps.nGapSeconds = 600;
  int32_t result = 0;
  std::string out;
  {
    test::FakeStdin typed("0\n");
    out = Save(&result);
  }
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(out.starts_with("Multiple tracks detected:\n") && out.ends_with("Select (a=all,0=none): No track selected\n")) << out;
  EXPECT_TRUE(Files().empty());
  flights::LoadTrack(two);  // kind 8 skips the checks
  tGps.dwGpsType = 8;
  EXPECT_TRUE(Save(&result).starts_with("Making igc log\n"));
  EXPECT_EQ(result, 0);
  EXPECT_EQ(Files().size(), 2u);
  Clear();
  Downloaded(20);  // kind 2 first drops the points without a usable time
  tGps.pTrackPoints[3].dwTime = 0;
  tGps.pTrackPoints[7].dwTime = 0xFFFFFFFFu;
  tGps.dwGpsType = 2;
  out = Save(&result);
  EXPECT_TRUE(out.starts_with("2 positions with invalid timestamp have been removed\nMaking igc log\n")) << out;
  EXPECT_EQ(PointsIn(Read(kIgc)), 18);
  // Names carry the pilot and the folder.
  Clear();
  std::filesystem::create_directory(dir_.File("flights"));
  test::SetOutputName("flights/");
  std::snprintf(tGps.szPilotName, sizeof tGps.szPilotName, "Ann Lee");
  Downloaded(10);
  tGps.dwFileTypes = kFileIgc;
  tGps.dwGpsType = 0;
  EXPECT_EQ(Save(), "Making igc log\nFile flights/2013-07-21_13-05_Ann_Lee.igc written\n");
}

}  // namespace
