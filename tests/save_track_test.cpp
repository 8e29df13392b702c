// The track saving pipeline in-process: checks, which files in which order,
// raw instrument text, --trim, --skip and every way a file can fail.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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
const std::string kIgcName = "2013-07-21_13-05.igc";
const std::string kKmlName = "2013-07-21_13-05.kml";

// `moving` points northwards 100 m and 10 s apart from 13:05:00, then
// `standing` more at the last place.
std::vector<TrackPoint> Flight(int32_t moving, int32_t standing = 0) {
  const uint32_t start = test::GpsTime(2013, 7, 21, 13, 5, 0);
  std::vector<TrackPoint> points;
  for (int32_t i = 0; i < moving + standing; ++i) {
    const double north = 100.0 * std::min(i, moving - 1);
    points.push_back(flights::PointAt(start + 10u * static_cast<uint32_t>(i), {0.0, north}, 1000 + i));
    points.back().lPressureAltitude = 990 + i;
  }
  if (!points.empty()) points[0].dwFlags = kTrackPointNewSegment;
  return points;
}

// Leaves the run parameters as a download from an instrument would.
void Downloaded(const std::vector<TrackPoint>& points, int32_t signature = 1) {
  flights::LoadTrack(points);
  tGps.dwFileTypes = kFileKml | kFileIgc;
  tGps.bSignature = signature;
  tGps.bUtc = 1;
  tGps.bPressureAltitude = 1;
  tGps.dwDownloadTime = test::GpsTime(2024, 5, 1, 14, 7, 9);
  std::snprintf(tGps.szProduct, sizeof tGps.szProduct, "COMPEO+, SN00565, SW3.25");
}

// Decodes IGC text into a scratch track log and gives its point count;
// the run parameters' own track log is kept aside meanwhile.
int32_t PointsIn(const std::string& igc) {
  TrackPoint* saved = tGps.pTrackPoints;
  const int32_t savedCount = tGps.nTrackPoints;
  const int32_t savedCapacity = tGps.nTrackCapacity;
  tGps.pTrackPoints = nullptr;
  tGps.nTrackPoints = 0;
  tGps.nTrackCapacity = 0;
  testing::internal::CaptureStdout();
  const int32_t decoded =
      DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(igc.data()), static_cast<int32_t>(igc.size()), nullptr, 0);
  testing::internal::GetCapturedStdout();
  const int32_t count = decoded < 0 ? -1 : tGps.nTrackPoints;
  std::free(tGps.pTrackPoints);
  tGps.pTrackPoints = saved;
  tGps.nTrackPoints = savedCount;
  tGps.nTrackCapacity = savedCapacity;
  return count;
}

class SaveTrack : public testing::Test {
 protected:
  void SetUp() override { test::FreshRunParameters(); }
  void TearDown() override { test::FreshRunParameters(); }

  // Runs `body` in the test's folder and gives what it printed.
  template <typename F>
  std::string InFolder(F body) {
    testing::internal::CaptureStdout();
    test::InDirectory(dir_.path(), body);
    return testing::internal::GetCapturedStdout();
  }

  std::string Save(int32_t* result = nullptr) {
    int32_t r = 0;
    std::string out = InFolder([&] { r = SaveTracklog(); });
    if (result != nullptr) *result = r;
    return out;
  }

  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string Read(const std::string& name) const { return test::ReadFile(dir_.File(name)); }

  // The number of track points a written KML document holds.
  size_t KmlPoints(const std::string& name) const {
    test::TrackMetadata track;
    std::string error;
    EXPECT_TRUE(test::ReadTrackMetadata(Read(name), &track, &error)) << name << ": " << error;
    return test::ListValues(track.coordinates).size();
  }

  test::TempDir dir_;
};

TEST_F(SaveTrack, NoTrackWritesNothingAndSaysNothing) {
  int32_t result = 0;
  EXPECT_EQ(Save(&result), "");
  EXPECT_EQ(result, -1);
  Downloaded({});  // an array without points
  EXPECT_EQ(Save(&result), "");
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(Files().empty());
}

TEST_F(SaveTrack, FewerThanFivePointsGiveAnIgcFileOnly) {
  for (int32_t count = 1; count <= 5; ++count) {
    SCOPED_TRACE(count);
    std::filesystem::remove(dir_.File(kIgcName));
    Downloaded(Flight(count));
    int32_t result = -1;
    const std::string out = Save(&result);
    EXPECT_EQ(result, 0);
    const std::string igc = "Making igc log\nFile " + kIgcName + " written\n";
    if (count < 5) {
      EXPECT_EQ(out, igc + "Too few points for a .kml file\n");
      EXPECT_EQ(Files(), std::vector<std::string>{kIgcName});
    } else {
      EXPECT_EQ(out, igc + kAnalysis + "File " + kKmlName + " written, signature OK\n");
      EXPECT_EQ(Files(), (std::vector<std::string>{kIgcName, kKmlName}));
    }
    EXPECT_EQ(PointsIn(Read(kIgcName)), count);
  }
}

TEST_F(SaveTrack, TheFileTypeMaskChoosesTheFiles) {
  const struct {
    uint32_t mask;
    std::vector<std::string> files;
  } cases[] = {{kFileKml, {kKmlName}}, {kFileIgc, {kIgcName}}, {kFileKml | kFileIgc, {kIgcName, kKmlName}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mask);
    for (const std::string& name : Files()) std::filesystem::remove(dir_.File(name));
    Downloaded(Flight(20));
    tGps.dwFileTypes = c.mask;
    const std::string out = Save();
    EXPECT_EQ(Files(), c.files);
    // The IGC file always comes first.
    if (c.mask == 3) {
      EXPECT_LT(out.find(kIgcName), out.find(kKmlName));
    }
  }
}

TEST_F(SaveTrack, EncodedIgcCarriesTheConfigurationAndTheSignatureFlag) {
  for (int32_t signature : {0, 1}) {
    SCOPED_TRACE(signature);
    Downloaded(Flight(30), signature);
    std::snprintf(tGps.szIgcPilotName, sizeof tGps.szIgcPilotName, "Jane Doe");
    std::snprintf(tGps.szIgcGliderType, sizeof tGps.szIgcGliderType, "Alpha 4");
    std::snprintf(tGps.szIgcSiteName, sizeof tGps.szIgcSiteName, "Fiesch");
    const std::string out = Save();
    EXPECT_NE(out.find(signature != 0 ? "written, signature OK\n" : "written, NO signature\n"), std::string::npos);
    const std::string igc = Read(kIgcName);
    EXPECT_TRUE(igc.starts_with("AXKX COMPEO+, SN00565, SW3.25\r\n")) << igc.substr(0, 40);
    EXPECT_NE(igc.find("\r\nHFPLTPILOT: Jane Doe\r\n"), std::string::npos);
    EXPECT_NE(igc.find("\r\nHFGTYGLIDERTYPE: Alpha 4\r\n"), std::string::npos);
    EXPECT_NE(igc.find("\r\nHFSITSITE: Fiesch\r\n"), std::string::npos);
    EXPECT_NE(igc.find("\r\nLXKX Downloaded 2024-05-01  14:07:09\r\n"), std::string::npos);
    EXPECT_EQ(igc.find("\r\nG") != std::string::npos, signature != 0);
    EXPECT_EQ(PointsIn(igc), 30);
    test::TrackMetadata track;
    std::string error;
    ASSERT_TRUE(test::ReadTrackMetadata(Read(kKmlName), &track, &error)) << error;
    EXPECT_EQ(track.hash.has_value(), signature != 0);
    EXPECT_EQ(track.instrument.value_or(""), "COMPEO+, SN00565, SW3.25");
    EXPECT_EQ(track.downloaded.value_or(""), "2024-05-01T14:07:09Z");
    if (track.hash) {
      EXPECT_EQ(*track.hash, test::Sha1Hex(test::DigestInput(track)));
    }
  }
}

TEST_F(SaveTrack, TrimWritesThePlainPairThenTheTrimmedPair) {
  Downloaded(Flight(40, 40));
  tGps.bTrim = 1;
  tGps.nTrimLandingInterval = 60;
  tGps.nTrimLandingDistance = 50;
  int32_t result = -1;
  const std::string out = Save(&result);
  EXPECT_EQ(result, 0);
  const std::vector<std::string> order = {"File " + kIgcName, "File " + kKmlName,
                                          "Track trim results:", "File 2013-07-21_13-05-T.igc",
                                          "File 2013-07-21_13-05-T.kml"};
  size_t at = 0;
  for (const std::string& step : order) {
    size_t found = out.find(step, at);
    ASSERT_NE(found, std::string::npos) << step << " in\n" << out;
    at = found;
  }
  EXPECT_EQ(Files(),
            (std::vector<std::string>{"2013-07-21_13-05-T.igc", "2013-07-21_13-05-T.kml", kIgcName, kKmlName}));
  EXPECT_EQ(PointsIn(Read(kIgcName)), 80);
  EXPECT_EQ(KmlPoints(kKmlName), 80u);
  const int32_t trimmed = PointsIn(Read("2013-07-21_13-05-T.igc"));
  EXPECT_GT(trimmed, 39);
  EXPECT_LT(trimmed, 80);
  EXPECT_EQ(KmlPoints("2013-07-21_13-05-T.kml"), static_cast<size_t>(trimmed));
}

TEST_F(SaveTrack, RawInstrumentTextIsWrittenAsItCameUnderBothNames) {
  const std::string raw = test::ReadFile(std::string(KESTRIX_TEST_DATA) + "/igc/pg-iqbasic-8s.igc");
  ASSERT_GE(DecodeIgcBuffer(reinterpret_cast<const uint8_t*>(raw.data()), static_cast<int32_t>(raw.size()), nullptr, 0),
            0);
  ASSERT_EQ(AppendRawLog(reinterpret_cast<const uint8_t*>(raw.data()), static_cast<int32_t>(raw.size())), 0);
  tGps.dwFileTypes = kFileKml | kFileIgc;
  tGps.bSignature = 1;
  tGps.bTrim = 1;
  tGps.nTrimLandingInterval = 60;
  tGps.nTrimLandingDistance = 30;
  // The raw file is named from the first fix the instrument reported, the
  // KML document from the track's first point.
  tGps.dwFirstPointTime = test::GpsTime(2023, 10, 4, 14, 29, 0);
  const std::string out = Save();
  const std::string rawName = "2023-10-04_14-29.igc", kmlName = "2023-10-04_14-30.kml";
  EXPECT_TRUE(out.starts_with("Raw igc log downloaded (10189 bytes)\nFile " + rawName + " written\n" + kAnalysis +
                              "File " + kmlName + " written, signature OK\n"))
      << out;
  EXPECT_NE(out.find("Raw igc log downloaded (10189 bytes)\nFile 2023-10-04_14-29-T.igc written\n"), std::string::npos);
  EXPECT_EQ(Read(rawName), raw);
  EXPECT_EQ(Read("2023-10-04_14-29-T.igc"), raw);
  EXPECT_EQ(KmlPoints(kmlName), 194u);
  EXPECT_EQ(Files(), (std::vector<std::string>{"2023-10-04_14-29-T.igc", rawName, "2023-10-04_14-30-T.kml", kmlName}));
  EXPECT_LT(KmlPoints("2023-10-04_14-30-T.kml"), 194u);
}

TEST_F(SaveTrack, SkipReportsExistingFilesAndLeavesThemAlone) {
  test::SetOutputName("same");
  dir_.Write("same.igc", "kept");
  Downloaded(Flight(20));
  tGps.bSkipExisting = 1;
  std::string out = Save();
  EXPECT_EQ(out,
            "Making igc log\nFile same.igc already exists\n" + kAnalysis + "File same.kml written, signature OK\n");
  EXPECT_EQ(Read("same.igc"), "kept");
  const std::string firstKml = Read("same.kml");
  // A name without a folder serves every track of an all-tracks download:
  // with --skip the first one stays.
  Downloaded(Flight(30));
  out = Save();
  EXPECT_EQ(out, "Making igc log\nFile same.igc already exists\n" + kAnalysis + "File same.kml already exists\n");
  EXPECT_EQ(Read("same.igc"), "kept");
  EXPECT_EQ(Read("same.kml"), firstKml);
  // Without --skip the files are replaced.
  tGps.bSkipExisting = 0;
  out = Save();
  EXPECT_EQ(PointsIn(Read("same.igc")), 30);
  EXPECT_EQ(KmlPoints("same.kml"), 30u);
  EXPECT_EQ(Files(), (std::vector<std::string>{"same.igc", "same.kml"}));
}

TEST_F(SaveTrack, FilesThatCannotBeWrittenAreReportedAndTheNextIsTried) {
  // A folder that is not there.
  test::SetOutputName("nowhere/");
  Downloaded(Flight(20));
  int32_t result = -1;
  std::string out = Save(&result);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(out, "Making igc log\nCouldn't create file nowhere/" + kIgcName + "\n" + kAnalysis +
                     "Couldn't open file nowhere/" + kKmlName + " for writing\n");
  EXPECT_TRUE(Files().empty());

  // Folders in place of the files.
  test::SetOutputName("");
  std::filesystem::create_directory(dir_.File(kIgcName));
  std::filesystem::create_directory(dir_.File(kKmlName));
  out = Save(&result);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(out, "Making igc log\nCouldn't create file " + kIgcName + "\n" + kAnalysis + "Couldn't open file " +
                     kKmlName + " for writing\n");
  EXPECT_TRUE(std::filesystem::is_directory(dir_.File(kIgcName)));
  EXPECT_TRUE(std::filesystem::is_empty(dir_.File(kKmlName)));

  // A device that takes nothing: the write itself fails.
  std::filesystem::remove(dir_.File(kIgcName));
  std::filesystem::remove(dir_.File(kKmlName));
  std::filesystem::create_symlink("/dev/full", dir_.File(kIgcName));
  std::filesystem::create_symlink("/dev/full", dir_.File(kKmlName));
  out = Save(&result);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(
      out, "Making igc log\nError writing file " + kIgcName + "\n" + kAnalysis + "Error writing to " + kKmlName + "\n");
  EXPECT_EQ(Files(), (std::vector<std::string>{kIgcName, kKmlName}));
  EXPECT_TRUE(std::filesystem::is_symlink(dir_.File(kIgcName)));

  // Too long a name: 255 characters are written, 256 refused.
  std::filesystem::remove(dir_.File(kIgcName));
  std::filesystem::remove(dir_.File(kKmlName));
  test::SetOutputName(std::string(251, 'n'));
  out = Save(&result);
  EXPECT_EQ(out, "Making igc log\nFile " + std::string(251, 'n') + ".igc written\n" + kAnalysis + "File " +
                     std::string(251, 'n') + ".kml written, signature OK\n");
  test::SetOutputName(std::string(252, 'm'));
  out = Save(&result);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(out, "Making igc log\nFile name too long\n" + kAnalysis + "File name too long\n");
  EXPECT_EQ(Files(), (std::vector<std::string>{std::string(251, 'n') + ".igc", std::string(251, 'n') + ".kml"}));
}

TEST_F(SaveTrack, ChecksRunFirstAndACheckThatLeavesNothingSavesNothing) {
  // Two tracks split by a pause; the user keeps neither.
  std::vector<TrackPoint> two = Flight(30);
  for (size_t i = 15; i < two.size(); ++i) two[i].dwTime += 3600;
  Downloaded(two);
  tGps.nGapSeconds = 600;
  int32_t result = 0;
  std::string out;
  {
    test::FakeStdin typed("0\n");
    out = Save(&result);
  }
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(out.starts_with("Multiple tracks detected:\n")) << out;
  EXPECT_TRUE(out.ends_with("Select (a=all,0=none): No track selected\n")) << out;
  EXPECT_TRUE(Files().empty());

  // Kind 8 skips the checks: no question, both files.
  Downloaded(two);
  tGps.dwGpsType = 8;
  out = Save(&result);
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(out.starts_with("Making igc log\n")) << out;
  EXPECT_EQ(Files().size(), 2u);

  // Kind 2 first drops the points without a usable time.
  for (const std::string& name : Files()) std::filesystem::remove(dir_.File(name));
  std::vector<TrackPoint> gaps = Flight(20);
  gaps[3].dwTime = 0;
  gaps[7].dwTime = 0xFFFFFFFFu;
  Downloaded(gaps);
  tGps.dwGpsType = 2;
  out = Save(&result);
  EXPECT_TRUE(out.starts_with("2 positions with invalid timestamp have been removed\nMaking igc log\n")) << out;
  EXPECT_EQ(PointsIn(Read(kIgcName)), 18);
}

TEST_F(SaveTrack, NamesCarryThePilotAndTheFolder) {
  std::filesystem::create_directory(dir_.File("flights"));
  test::SetOutputName("flights/");
  std::snprintf(tGps.szPilotName, sizeof tGps.szPilotName, "Ann Lee");
  Downloaded(Flight(10));
  tGps.dwFileTypes = kFileIgc;
  EXPECT_EQ(Save(), "Making igc log\nFile flights/2013-07-21_13-05_Ann_Lee.igc written\n");
  EXPECT_TRUE(std::filesystem::exists(dir_.File("flights/2013-07-21_13-05_Ann_Lee.igc")));
}

}  // namespace
