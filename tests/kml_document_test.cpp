// The KML track document built in memory: statistics, the seven result
// placemarks, the track metadata lists, the time rewrite and the digest.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/conv.h"
#include "kml_support.h"
#include "link/string.h"
#include "output/google.h"
#include "support.h"
#include "track/analysis.h"
#include "waypoint_support.h"

namespace {

constexpr double kDegree = 3.14159265358979323846 / 180.0;

// Point i lies i minutes of latitude north and i/2 minutes of longitude
// east of 46N 7E, 10 s after the one before, 1.5 m higher.
struct SyntheticTrack {
  std::vector<TrackPoint> points;
  FlightAnalysis record{};

  explicit SyntheticTrack(int32_t count, uint32_t start = test::GpsTime(2013, 7, 21, 13, 5, 0)) {
    for (int32_t i = 0; i < count; ++i) {
      TrackPoint p{};
      p.dwFlags = i == 0 ? 1u : 0u;
      p.dwTime = start + 10u * static_cast<uint32_t>(i);
      ConvertGeoToArcPos((46.0 + i / 60.0) * kDegree, (7.0 + i / 120.0) * kDegree, &p.lLatitude, &p.lLongitude);
      p.lGpsAltitude = 10000 + 15 * i;
      p.lPressureAltitude = 800 + i;
      points.push_back(p);
    }
    record.nPoints = count;
    record.pPoints = points.data();
    record.dwDownloadTime = test::GpsTime(2024, 5, 1, 14, 7, 9);
    record.bSignature = 1;
    record.nCivlPilotId = -1;
    record.nCompPilotId = -1;
    record.bUtc = 1;
    record.bPressureAltitude = 1;
    record.dwStartTime = start;
    record.dwEndTime = start + 10u * static_cast<uint32_t>(count - 1);
    record.dwDuration = record.dwEndTime - record.dwStartTime;
  }
};

class KmlDocument : public testing::Test {
 protected:
  void SetUp() override { test::FreshRunParameters(); }
  void TearDown() override { test::FreshRunParameters(); }

  static std::string Render(FlightAnalysis* record) {
    TextBuffer text;
    EXPECT_EQ(MakeGoogleFolder(record, &text), 0);
    return text.data == nullptr ? "" : std::string(text.data, static_cast<size_t>(text.length));
  }

  static test::TrackMetadata Track(const std::string& document) {
    test::TrackMetadata track;
    std::string error;
    EXPECT_TRUE(test::ReadTrackMetadata(document, &track, &error)) << error;
    return track;
  }
};

TEST_F(KmlDocument, OpensWithTheTripFolderAndClosesTheDocument) {
  SyntheticTrack t(5);
  const std::string document = Render(&t.record);
  EXPECT_TRUE(document.starts_with(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<Document>\r\n<open>1</open>\r\n  <Folder>\r\n"
      "    <Metadata src=\"KestrixMac64\" v=\"1.06\" type=\"trip\"/>\r\n    <open>1</open>\r\n"
      "    <name>Trip</name>\r\n    <description><![CDATA[\r\n<pre>\r\nFlight statistics\r\nDate "))
      << document.substr(0, 300);
  EXPECT_TRUE(
      document.ends_with("        </coordinates>\r\n      </LineString>\r\n    </Placemark>\r\n"
                         "  </Folder>\r\n</Document>\r\n"));
  // Every line ends in CR LF.
  for (size_t at = document.find('\n'); at != std::string::npos; at = document.find('\n', at + 1)) {
    ASSERT_GT(at, 0u);
    ASSERT_EQ(document[at - 1], '\r') << at;
  }
}

TEST_F(KmlDocument, StatisticsBlockShowsTheRecordFigures) {
  SyntheticTrack t(5);
  FlightAnalysis& r = t.record;
  r.dwStartTime = test::GpsTime(2013, 7, 1, 9, 4, 3);
  r.dwEndTime = test::GpsTime(2013, 7, 1, 22, 8, 7);
  r.dwDuration = 13 * 3600 + 4 * 60 + 5;
  r.nHighestAltitude = 2345;
  r.nLowestAltitude = -12;
  r.dMeanSpeed = 27.5;   // rounded up
  r.dTopSpeed = 43.499;  // rounded down
  r.dBestClimb = 3.456;
  r.dWorstSink = -2.004;
  r.dTrackLength = 12345.678;
  r.dAverageSpeed = 99.0;  // not shown
  EXPECT_EQ(test::StatisticsBlock(Render(&r)),
            "Date                 2013-07-01\r\n"
            "Start/finish         09:04:03 - 22:08:07\r\n"
            "Duration             13 : 04 : 05\r\n"
            "Max./min. height     2345 / -12 m\r\n"
            "Max. mean/top speed  28 km/h / 43 km/h\r\n"
            "Max/min climb rate   3.46 / -2.00 m/s over 60s\r\n"
            "Total distance       12.35 km\r\n");
}

// Indices and distances that make every line of a result recognisable.
void FillResult(DistanceResult* result, int32_t points, int32_t firstIndex) {
  result->nPoints = points;
  for (int32_t k = 0; k < points; ++k) result->anIndex[k] = firstIndex + 2 * k;
  for (int32_t k = 0; k + 1 < points; ++k) result->adDistance[k] = 1000.0 * (k + 1) + 4.321;
  result->dSum = 98765.4;
}

TEST_F(KmlDocument, OpenDistancePlacemarkIsWrittenInFull) {
  SyntheticTrack t(12);
  FillResult(&t.record.tOpenDistance, 2, 3);
  EXPECT_EQ(test::ResultPlacemark(Render(&t.record), "distance_open"),
            "    <Placemark>\r\n"
            "      <Metadata src=\"KestrixMac64\" v=\"1.06\" type=\"distance_open\">\r\n"
            "        <FsInfo track_idx=\"3 5\" />\r\n"
            "      </Metadata>\r\n"
            "      <name>Open distance</name>\r\n"
            "      <description>\r\n"
            "        <![CDATA[\r\n<pre>\r\n"
            "Greatest distance between any 2 points\r\n\r\n"
            "Pos.      Time      Latitude         Longitude         Distance\r\n"
            " A     3  13:05:30  N 46  03  00.00  E 007  01  30.00\r\n"
            " B     5  13:05:50  N 46  05  00.00  E 007  02  30.00  1.00\r\n"
            "</pre>]]>\r\n"
            "      </description>\r\n"
            "      <LineString>\r\n"
            "        <tessellate>1</tessellate>\r\n"
            "        <coordinates>\r\n"
            "          7.025000,46.050000,1005\r\n"
            "          7.041667,46.083333,1008\r\n"
            "        </coordinates>\r\n"
            "      </LineString>\r\n"
            "      <Style>\r\n"
            "        <LineStyle>\r\n"
            "          <color>FF0000FF</color>\r\n"
            "        </LineStyle>\r\n"
            "      </Style>\r\n"
            "    </Placemark>\r\n");
}

TEST_F(KmlDocument, TrianglePlacemarkDrawsTheClosedTriangleAndTheClosingLine) {
  SyntheticTrack t(12);
  FillResult(&t.record.tFaiTriangle, 5, 1);  // points 1, 3, 5, 7, 9
  EXPECT_EQ(test::ResultPlacemark(Render(&t.record), "distance_fai_triangle"),
            "    <Placemark>\r\n"
            "      <Metadata src=\"KestrixMac64\" v=\"1.06\" type=\"distance_fai_triangle\">\r\n"
            "        <FsInfo track_idx=\"1 3 5 7 9\" />\r\n"
            "      </Metadata>\r\n"
            "      <name>FAI triangle</name>\r\n"
            "      <description>\r\n"
            "        <![CDATA[\r\n<pre>\r\n"
            "FAI triangle\r\n\r\n"
            "Pos.      Time      Latitude         Longitude         Distance\r\n"
            " A     1  13:05:10  N 46  01  00.00  E 007  00  30.00\r\n"
            " B     3  13:05:30  N 46  03  00.00  E 007  01  30.00  1.00\r\n"
            " C     5  13:05:50  N 46  05  00.00  E 007  02  30.00  2.00\r\n"
            " D     7  13:06:10  N 46  07  00.00  E 007  03  30.00  3.00\r\n"
            " E     9  13:06:30  N 46  09  00.00  E 007  04  30.00  4.00\r\n"
            "                                                  Sum  98.77\r\n"
            "</pre>]]>\r\n"
            "      </description>\r\n"
            "      <MultiGeometry>\r\n"
            "        <LineString>\r\n"
            "          <tessellate>1</tessellate>\r\n"
            "          <coordinates>\r\n"
            "            7.025000,46.050000,1005\r\n"
            "            7.041667,46.083333,1008\r\n"
            "            7.058333,46.116667,1011\r\n"
            "            7.025000,46.050000,1005\r\n"
            "          </coordinates>\r\n"
            "        </LineString>\r\n"
            "        <LineString>\r\n"
            "          <tessellate>1</tessellate>\r\n"
            "          <coordinates>\r\n"
            "            7.008333,46.016667,1002\r\n"
            "            7.075000,46.150000,1014\r\n"
            "          </coordinates>\r\n"
            "        </LineString>\r\n"
            "      </MultiGeometry>\r\n"
            "      <Style>\r\n"
            "        <LineStyle>\r\n"
            "          <color>FFFF0000</color>\r\n"
            "        </LineStyle>\r\n"
            "      </Style>\r\n"
            "    </Placemark>\r\n");
}

TEST_F(KmlDocument, AllSevenResultsInTheirOrderWithTheirOwnFigures) {
  struct Kind {
    DistanceResult FlightAnalysis::*result;
    int32_t points;
    std::string type, name, heading, color;
    bool triangle;
  } kinds[] = {
      {&FlightAnalysis::tFivePoint, 5, "distance_5_point", "Distance over 5 points", "Greatest distance using 5 points",
       "FFFF0000", false},
      {&FlightAnalysis::tFourPoint, 4, "distance_4_point", "Distance over 4 points", "Greatest distance using 4 points",
       "FFFF0000", false},
      {&FlightAnalysis::tThreePoint, 3, "distance_3_point", "Distance over 3 points",
       "Greatest distance using 3 points", "FFFF0000", false},
      {&FlightAnalysis::tOpenDistance, 2, "distance_open", "Open distance", "Greatest distance between any 2 points",
       "FF0000FF", false},
      {&FlightAnalysis::tOutAndReturn, 3, "distance_out_and_return", "Out-and-return distance",
       "Out-and-return distance", "FFFF0000", false},
      {&FlightAnalysis::tFlatTriangle, 5, "distance_flat_triangle", "Flat triangle", "Flat triangle", "FFFF0000", true},
      {&FlightAnalysis::tFaiTriangle, 5, "distance_fai_triangle", "FAI triangle", "FAI triangle", "FFFF0000", true},
  };
  SyntheticTrack t(40);
  for (size_t n = 0; n < std::size(kinds); ++n) {
    FillResult(&(t.record.*kinds[n].result), kinds[n].points, static_cast<int32_t>(n * 4));
    (t.record.*kinds[n].result).dSum = 1000.0 * static_cast<double>(n + 1);
  }
  const std::string document = Render(&t.record);
  size_t previous = 0;
  for (size_t n = 0; n < std::size(kinds); ++n) {
    const Kind& kind = kinds[n];
    SCOPED_TRACE(kind.type);
    const std::string placemark = test::ResultPlacemark(document, kind.type);
    ASSERT_FALSE(placemark.empty());
    const size_t at = document.find(placemark);
    EXPECT_GT(at, previous) << "out of order";
    previous = at;
    std::string indices;
    for (int32_t k = 0; k < kind.points; ++k) indices += (k > 0 ? " " : "") + std::to_string(n * 4 + 2 * k);
    EXPECT_NE(placemark.find("        <FsInfo track_idx=\"" + indices + "\" />\r\n"), std::string::npos);
    EXPECT_NE(placemark.find("      <name>" + kind.name + "</name>\r\n"), std::string::npos);
    EXPECT_NE(placemark.find("<pre>\r\n" + kind.heading + "\r\n\r\nPos."), std::string::npos);
    EXPECT_NE(placemark.find("<color>" + kind.color + "</color>"), std::string::npos);
    for (int32_t k = 0; k < kind.points; ++k) {
      char head[16];
      std::snprintf(head, sizeof head, "\r\n %c %5d  ", 'A' + k, static_cast<int>(n * 4 + 2 * k));
      const size_t line = placemark.find(head);
      ASSERT_NE(line, std::string::npos) << head;
      const std::string text = placemark.substr(line + 2, placemark.find("\r\n", line + 2) - line - 2);
      // Each point after A carries its stored distance, in stored order.
      EXPECT_EQ(text.ends_with("  " + std::to_string(k) + ".00"), k > 0) << text;
    }
    const std::string sum = "Sum  " + std::to_string(n + 1) + ".00\r\n";
    EXPECT_EQ(placemark.find(sum) != std::string::npos, kind.points >= 3) << "open distance has no Sum line";
    EXPECT_EQ(placemark.find("<MultiGeometry>") != std::string::npos, kind.triangle);
  }
}

TEST_F(KmlDocument, ListsBreakEvery25ValuesCoordinatesEvery5AndTheDigestCoversTheValues) {
  for (int32_t count : {5, 6, 24, 25, 26, 50, 51}) {
    for (int32_t signature : {0, 1}) {
      for (int32_t pressure : {0, 1}) {
        SCOPED_TRACE(std::to_string(count) + " points, signature " + std::to_string(signature) + ", pressure " +
                     std::to_string(pressure));
        SyntheticTrack t(count);
        t.record.bSignature = signature;
        t.record.bPressureAltitude = pressure;
        const std::string document = Render(&t.record);
        const test::TrackMetadata track = Track(document);
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
        EXPECT_EQ(track.pressure.has_value(), pressure != 0);
        if (track.pressure) {
          EXPECT_EQ(test::ListLayoutProblem(*track.pressure, 25), "");
          EXPECT_EQ(test::ListValues(*track.pressure).back(), std::to_string(800 + count - 1));
        }
        if (signature != 0) {
          ASSERT_TRUE(track.hash.has_value());
          EXPECT_EQ(*track.hash, test::Sha1Hex(test::DigestInput(track)));
        } else {
          EXPECT_FALSE(track.hash.has_value());
          EXPECT_EQ(document.find("hash="), std::string::npos);
        }
      }
    }
  }
}

TEST_F(KmlDocument, UnusableTimesBecomeFiveSecondStepsAfterTheStatistics) {
  for (uint32_t bad : {0u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    for (int32_t where : {0, 4, 9}) {
      SCOPED_TRACE(std::to_string(bad) + " at " + std::to_string(where));
      SyntheticTrack t(10);
      t.points[static_cast<size_t>(where)].dwTime = bad;
      FillResult(&t.record.tOpenDistance, 2, 3);
      const std::string document = Render(&t.record);
      for (size_t i = 0; i < t.points.size(); ++i) ASSERT_EQ(t.points[i].dwTime, 5u * i);
      EXPECT_EQ(t.record.bUtc, 0);
      const test::TrackMetadata track = Track(document);
      EXPECT_EQ(track.timeOfFirstPoint, "1989-12-31T00:00:00");
      EXPECT_EQ(test::ListValues(track.seconds)[9], "45");
      // The statistics were made before the rewrite and keep the flight's times.
      EXPECT_NE(test::StatisticsBlock(document).find("2013-07-21\r\nStart/finish         13:05:00 - 13:06:30"),
                std::string::npos);
      EXPECT_NE(document.find(" A     3  00:00:15  N 46  03"), std::string::npos);
      EXPECT_EQ(*track.hash, test::Sha1Hex(test::DigestInput(track)));
    }
  }
  SyntheticTrack fine(10);
  const std::vector<TrackPoint> before = fine.points;
  const std::string document = Render(&fine.record);
  EXPECT_EQ(std::memcmp(before.data(), fine.points.data(), sizeof(TrackPoint) * before.size()), 0);
  EXPECT_EQ(fine.record.bUtc, 1);
  EXPECT_EQ(Track(document).timeOfFirstPoint, "2013-07-21T13:05:00Z");
  fine.record.bUtc = 0;
  EXPECT_EQ(Track(Render(&fine.record)).timeOfFirstPoint, "2013-07-21T13:05:00");
}

TEST_F(KmlDocument, AltitudeModeAndMetresRoundedFromDecimetres) {
  SyntheticTrack t(6);
  const int32_t decimetres[] = {14, 15, -14, -15, -16, INT32_MAX};
  const char* metres[] = {"1", "2", "0", "-1", "-1", "214748365"};
  for (size_t i = 0; i < 6; ++i) t.points[i].lGpsAltitude = decimetres[i];
  test::TrackMetadata track = Track(Render(&t.record));
  EXPECT_EQ(track.altitudeMode, "absolute");
  const std::vector<std::string> coordinates = test::ListValues(track.coordinates);
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(coordinates[i].substr(coordinates[i].rfind(',') + 1), metres[i]) << decimetres[i];
  }
  // No GNSS altitude anywhere: the line follows the ground.
  for (TrackPoint& p : t.points) p.lGpsAltitude = 0;
  EXPECT_EQ(Track(Render(&t.record)).altitudeMode, "clampedToGround");
  t.points[5].lGpsAltitude = -1;
  EXPECT_EQ(Track(Render(&t.record)).altitudeMode, "absolute");
}

TEST_F(KmlDocument, TrackMetadataAttributes) {
  const std::string first = "<FsInfo time_of_first_point=\"2013-07-21T13:05:00Z\"";
  const std::string brk = "\r\n                ";
  const std::string downloaded = brk + "downloaded=\"2024-05-01T14:07:09Z\"";
  struct Case {
    std::string product;
    int32_t identity, civl, comp;
    uint32_t downloadTime;
    std::string expected;  // without the hash
  } cases[] = {
      {"", 0, 5, 6, test::GpsTime(2024, 5, 1, 14, 7, 9), first + downloaded},
      {"", 0, 5, 6, 0xFFFFFFFFu, first},
      {"\t COMPEO+,\r\n  SN00565,\tSW3.25  ", 0, -1, -1, 0xFFFFFFFFu,
       first + brk + "instrument=\"COMPEO+, SN00565, SW3.25\""},
      {" \r\n\t ", 0, -1, -1, 0xFFFFFFFFu, first},
      {std::string(80, 'x'), 0, -1, -1, 0xFFFFFFFFu, first + brk + "instrument=\"" + std::string(80, 'x') + "\""},
      // The identity ids are written only with the flag, and never hashed.
      {"", 1, 5, 6, 0xFFFFFFFFu, first + brk + "civl_pilot_id=\"5\" comp_pilot_id=\"6\""},
      {"", 1, 5, -1, 0xFFFFFFFFu, first + brk + "civl_pilot_id=\"5\""},
      {"", 1, -1, 6, 0xFFFFFFFFu, first + brk + "comp_pilot_id=\"6\""},
      {"", 1, -1, -1, 0xFFFFFFFFu, first},
      {"A", 1, 0, 0, test::GpsTime(2024, 5, 1, 14, 7, 9),
       first + brk + "civl_pilot_id=\"0\" comp_pilot_id=\"0\"" + brk + "instrument=\"A\"" + downloaded},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    test::FreshRunParameters();
    std::snprintf(tGps.szProduct, sizeof tGps.szProduct, "%s", c.product.c_str());
    SyntheticTrack t(5);
    t.record.bPilotIdentity = c.identity;
    t.record.nCivlPilotId = c.civl;
    t.record.nCompPilotId = c.comp;
    t.record.dwDownloadTime = c.downloadTime;
    const test::TrackMetadata track = Track(Render(&t.record));
    ASSERT_TRUE(track.hash.has_value());
    EXPECT_EQ(track.fsInfo, c.expected + brk + "hash=\"" + *track.hash + "\">");
    EXPECT_EQ(*track.hash, test::Sha1Hex(test::DigestInput(track)));
  }
}

TEST_F(KmlDocument, InstrumentBytesAbove127GoThroughTheSignedPacking) {
  std::snprintf(tGps.szProduct, sizeof tGps.szProduct, "Syride SYS\xC2\xB4Nav, SNR 4711");
  SyntheticTrack t(7);
  const test::TrackMetadata track = Track(Render(&t.record));
  ASSERT_EQ(*track.instrument, "Syride SYS\xC2\xB4Nav, SNR 4711");
  const std::string input = test::DigestInput(track);
  EXPECT_EQ(*track.hash, test::HashStringDigest(input));
  EXPECT_NE(*track.hash, test::Sha1Hex(input));
}

TEST_F(KmlDocument, RefusesARecordItCannotPresent) {
  SyntheticTrack t(5);
  t.record.tFlatTriangle.anIndex[4] = 5;  // one past the last point
  TextBuffer text;
  EXPECT_EQ(MakeGoogleFolder(&t.record, &text), -1);
  t.record.tFlatTriangle.anIndex[4] = 4;
  t.record.nPoints = 0;
  EXPECT_EQ(MakeGoogleFolder(&t.record, &text), -1);
}

}  // namespace
