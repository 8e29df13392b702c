// Table cases of the flight file modules, kept as data in tests/data/flight/
// (the format is in the README there): each case feeds its input to one
// operation and compares everything the operation shows with what it expects.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "flight_support.h"
#include "geo/conv.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "kml_support.h"
#include "link/string.h"
#include "output/file.h"
#include "output/google.h"
#include "support.h"
#include "track/analysis.h"
#include "waypoint_support.h"

namespace {

using test::Format;

struct Case {
  std::string file;
  int line = 0;
  std::string name;
  std::vector<std::string> args;
  std::string input;  // the block's bytes
  std::string raw;    // its lines as written, escapes kept
  std::string expected;
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.file << ":" << c.line; }

// The block's lines as "key value" pairs in order, each value unescaped.
std::vector<std::pair<std::string, std::string>> Directives(const Case& c) {
  std::vector<std::pair<std::string, std::string>> out;
  std::istringstream lines(c.raw);
  for (std::string line; std::getline(lines, line);) {
    const size_t blank = line.find(' ');
    out.emplace_back(line.substr(0, blank), blank == std::string::npos ? "" : test::Unescape(line.substr(blank + 1)));
  }
  return out;
}

// "2024-07-09 11:05:03" as GPS seconds.
uint32_t When(const std::string& text) {
  SystemTime t{};
  EXPECT_EQ(std::sscanf(text.c_str(), "%u-%u-%u %u:%u:%u", &t.wYear, &t.wMonth, &t.wDay, &t.wHour, &t.wMinute,
                        &t.wSecond), 6) << text;
  return ConvertSystemTimeToGpsTime(&t);
}

std::string Printed(const std::function<int32_t()>& body, int32_t* result) {
  testing::internal::CaptureStdout();
  *result = body();
  std::string out = testing::internal::GetCapturedStdout();
  std::string shown;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) shown += "> " + line + "\n";
  if (!out.empty() && out.back() != '\n') shown += "(no line end)\n";
  return Format("result %d\n", *result) + shown;
}

std::string Points() {
  std::string s = Format("capacity %d\n", tGps.nTrackCapacity);
  for (int32_t i = 0; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    s += Format("B %u %u %d %d %d %d\n", p.dwFlags, p.dwTime, p.lLatitude, p.lLongitude, p.lGpsAltitude,
                p.lPressureAltitude);
  }
  return s;
}

std::string Waypoints() {
  std::string s;
  for (int32_t i = 0; i < tGps.nWaypoints; ++i) {
    const Waypoint& w = tGps.pWaypoints[i];
    s += Format("W [%s] %d %d (%.7f %.7f) %d [%s] %u %u\n", w.szId, w.lLatitude, w.lLongitude, test::LatitudeOf(w),
                test::LongitudeOf(w), w.lAltitude, w.szComment, w.dwReserved, w.dwTime);
  }
  return s;
}

std::string IgcRead(const Case& c) {
  const std::vector<std::string>& args = c.args;
  char field[51] = {};
  const bool withField = !args.empty();
  if (withField) std::snprintf(field, sizeof field, "%s", args[0].c_str());
  std::vector<uint8_t> bytes(c.input.begin(), c.input.end());  // exactly the text: no terminator to lean on
  int32_t result = 0;
  std::string s = Printed([&] {
    return DecodeIgcBuffer(bytes.data(), static_cast<int32_t>(bytes.size()), withField ? field : nullptr,
                           withField ? 50 : 0);
  }, &result);
  if (result < 0) {
    EXPECT_EQ(tGps.pTrackPoints, nullptr);
  }
  if (withField) s += "pilot [" + std::string(field) + "]\n";
  return s + Points();
}

std::string IgcDate(const Case& c) {
  std::string s;
  std::istringstream lines(c.input);
  for (std::string line; std::getline(lines, line);) {
    uint32_t gps = 77;
    const int result = DecodeDateSentence(line.c_str(), &gps);
    SystemTime t{};
    ConvertGpsTimeToSystemTime(gps, &t);
    s += Format("%-16s %4d %u", ("[" + line + "]").c_str(), result, gps) +
         (result == 0 ? Format(" %04u-%02u-%02u", t.wYear, t.wMonth, t.wDay) : "") + "\n";
  }
  return s;
}

std::string IgcPos(const Case& c) {
  std::string s;
  std::istringstream lines(c.input);
  for (std::string line; std::getline(lines, line);) {
    TrackPoint p{9, 9, 9, 9, 9, 9};
    const int result = DecodePosSentence(line.c_str(), &p);
    s += Format("[%s] %d: %u %u %d %d %d %d\n", line.c_str(), result, p.dwFlags, p.dwTime, p.lLatitude, p.lLongitude,
                p.lGpsAltitude, p.lPressureAltitude);
  }
  return s;
}

// Degrees and thousandths of minutes ("-33:59999") as arcs, or arcs as they are.
int32_t Arc(const std::string& text) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) return std::stoi(text);
  const double degrees = std::abs(std::stod(text.substr(0, colon))) + std::stod(text.substr(colon + 1)) / 60000.0;
  int32_t lat = 0, lon = 0;
  ConvertGeoToArcPos((text[0] == '-' ? -degrees : degrees) * 3.14159265358979323846 / 180.0, 0.0, &lat, &lon);
  return lat;
}

std::string IgcWrite(const Case& c) {
  std::map<std::string, std::string> texts;
  std::vector<std::string> extraTexts;
  std::vector<TrackPoint> points;
  uint32_t download = 0;
  int32_t security = 0, count = -1;
  for (const auto& [key, value] : Directives(c)) {
    if (key == "fix") {
      char date[24], time[24], lat[24], lon[24];
      TrackPoint p{};
      EXPECT_EQ(std::sscanf(value.c_str(), "%23s %23s %23s %23s %d %d", date, time, lat, lon, &p.lGpsAltitude,
                            &p.lPressureAltitude), 6) << value;
      p.dwTime = When(std::string(date) + " " + time);
      p.lLatitude = Arc(lat);
      p.lLongitude = Arc(lon);
      points.push_back(p);
    } else if (key == "extra") {
      extraTexts.push_back(value);
    } else if (key == "download") {
      download = When(value);
    } else if (key == "security") {
      security = std::stoi(value);
    } else if (key == "count") {
      count = std::stoi(value);
    } else {
      texts[key] = value;
    }
  }
  std::vector<IgcHeaderLine> extra(extraTexts.size());
  for (size_t i = 0; i < extra.size(); ++i) std::snprintf(extra[i], sizeof extra[i], "%s", extraTexts[i].c_str());
  auto text = [&texts](const char* key) { return texts.contains(key) ? texts[key].c_str() : nullptr; };
  char* out = nullptr;
  const int32_t n = EncodeIgcLog(points.data(), count < 0 ? static_cast<uint32_t>(points.size()) : count,
                                 text("pilot"), text("glider"), text("id"), text("class"), text("site"),
                                 text("product"), text("prefix"), extra.empty() ? nullptr : extra.data(),
                                 static_cast<int32_t>(extra.size()), download, &out, security);
  if (n < 0 || out == nullptr) return "failed\n";
  std::string s(out, static_cast<size_t>(n));
  EXPECT_EQ(out[n], '\0');
  std::free(out);
  return s;
}

std::string WaypointRead(int32_t (*decoder)(char*), const Case& c) {
  const std::vector<std::string>& args = c.args;
  tGps.bSilent = !args.empty() && args[0] == "silent";
  std::vector<char> text(c.input.begin(), c.input.end());
  text.push_back('\0');
  int32_t result = 0;
  std::string s = Printed([&] { return decoder(text.data()); }, &result);
  if (result < 0) {
    EXPECT_EQ(tGps.pWaypoints, nullptr);
  }
  return s + Format("capacity %d\n", tGps.nWaypointCapacity) + Waypoints();
}

std::string Split(const Case& c) {
  const std::vector<std::string>& args = c.args;
  char* (*extract)(char*, char**) = args.at(0) == "line" ? ExtractLine
                                    : args[0] == "comma" ? ExtractCommaItem
                                                         : ExtractSpaceItem;
  std::vector<char> buffer(c.input.begin(), c.input.end());
  buffer.push_back('\0');
  std::string s;
  for (char* rest = buffer.data(); rest != nullptr;) {
    char* piece = nullptr;
    rest = extract(rest, &piece);
    s += "[" + std::string(piece) + (rest != nullptr ? "] more\n" : "] end\n");
  }
  return s;
}

std::string WaypointFields(const Case& c) {
  std::string s;
  std::istringstream lines(c.input);
  for (std::string line; std::getline(lines, line);) {
    char id[7] = "junk", comment[41];
    std::memset(comment, '#', sizeof comment);
    const int32_t result = DecodeWaypointId(line.c_str(), id);
    DecodeWaypointCmt(line.c_str(), comment);
    s += Format("[%s] id %d [%s] comment [%s]\n", line.c_str(), result, result == 0 ? id : "", comment);
  }
  return s;
}

// Track and waypoint file names: "output", "pilot", "time" and "ext" lines,
// then "track" or "waypoints" makes a name with what was set so far.
std::string FileNames(const Case& c) {
  uint32_t time = 0;
  std::string extension, s;
  for (const auto& [key, value] : Directives(c)) {
    if (key == "output") test::SetOutputName(value);
    if (key == "pilot") std::snprintf(tGps.szPilotName, sizeof tGps.szPilotName, "%s", value.c_str());
    if (key == "time") time = When(value);
    if (key == "ext") extension = value;
    if (key != "track" && key != "waypoints") continue;
    char buffer[kFileNameLimit + 1] = "untouched";
    int32_t result = 0;
    s += Printed([&] {
      return key == "track" ? MakeLogFileName(buffer, kFileNameLimit, time, extension.c_str())
                            : MakeWptFileName(buffer, kFileNameLimit, extension.c_str());
    }, &result);
    if (result == 0) s += "name " + std::string(buffer) + "\n";
  }
  return s;
}

// A synthetic track (point i: i minutes of latitude north and i/2 minutes of
// longitude east of 46N 7E, 10 s apart, 1.5 m higher) and its record, with
// "set" lines for the record's fields, the results and the points.
std::string Kml(const Case& c) {
  const std::vector<std::string>& args = c.args;
  std::vector<TrackPoint> points;
  FlightAnalysis r{};
  auto make = [&](int32_t count, uint32_t start) {
    points.clear();
    for (int32_t i = 0; i < count; ++i) {
      TrackPoint p{i == 0 ? 1u : 0u, start + 10u * static_cast<uint32_t>(i), 0, 0, 10000 + 15 * i, 800 + i};
      ConvertGeoToArcPos((46.0 + i / 60.0) * kPi / 180.0, (7.0 + i / 120.0) * kPi / 180.0, &p.lLatitude,
                         &p.lLongitude);
      points.push_back(p);
    }
    r = FlightAnalysis{};
    r.nPoints = count;
    r.pPoints = points.data();
    r.dwDownloadTime = test::GpsTime(2024, 5, 1, 14, 7, 9);
    r.bSignature = r.bUtc = r.bPressureAltitude = 1;
    r.nCivlPilotId = r.nCompPilotId = -1;
    r.dwStartTime = start;
    r.dwEndTime = start + 10u * static_cast<uint32_t>(count - 1);
    r.dwDuration = r.dwEndTime - r.dwStartTime;
  };
  make(5, test::GpsTime(2013, 7, 21, 13, 5, 0));
  std::map<std::string, DistanceResult*> results = {
      {"five", &r.tFivePoint},  {"four", &r.tFourPoint},         {"three", &r.tThreePoint},
      {"open", &r.tOpenDistance}, {"return", &r.tOutAndReturn}, {"flat", &r.tFlatTriangle},
      {"fai", &r.tFaiTriangle}};
  for (const auto& [key, value] : Directives(c)) {
    std::istringstream in(value);
    if (key == "points") {
      int32_t count = 0;
      in >> count;
      make(count, test::GpsTime(2013, 7, 21, 13, 5, 0));
    } else if (key == "product") {
      std::snprintf(tGps.szProduct, sizeof tGps.szProduct, "%s", value.c_str());
    } else if (key == "time") {  // point index, GPS seconds
      size_t i = 0;
      in >> i >> points.at(i).dwTime;
    } else if (key == "altitude") {  // point index, decimetres
      size_t i = 0;
      in >> i >> points.at(i).lGpsAltitude;
    } else if (results.contains(key)) {  // points, first index, sum[, step]: recognisable figures
      DistanceResult* d = results[key];
      int32_t first = 0, step = 2;
      in >> d->nPoints >> first >> d->dSum >> step;
      for (int32_t k = 0; k < d->nPoints; ++k) d->anIndex[k] = first + step * k;
      for (int32_t k = 0; k + 1 < d->nPoints; ++k) d->adDistance[k] = 1000.0 * (k + 1) + 4.321;
    } else {
      std::map<std::string, std::function<void()>> fields = {
          {"start", [&] { r.dwStartTime = When(value); }},
          {"end", [&] { r.dwEndTime = When(value); }},
          {"download", [&] { r.dwDownloadTime = value == "none" ? 0xFFFFFFFFu : When(value); }},
          {"duration", [&] { in >> r.dwDuration; }},
          {"signature", [&] { in >> r.bSignature; }},
          {"identity", [&] { in >> r.bPilotIdentity >> r.nCivlPilotId >> r.nCompPilotId; }},
          {"utc", [&] { in >> r.bUtc; }},
          {"pressure", [&] { in >> r.bPressureAltitude; }},
          {"heights", [&] { in >> r.nHighestAltitude >> r.nLowestAltitude; }},
          {"speeds", [&] { in >> r.dMeanSpeed >> r.dTopSpeed >> r.dAverageSpeed; }},
          {"climbs", [&] { in >> r.dBestClimb >> r.dWorstSink; }},
          {"length", [&] { in >> r.dTrackLength; }}};
      EXPECT_TRUE(fields.contains(key)) << key;
      if (fields.contains(key)) fields[key]();
    }
  }
  TextBuffer text;
  const int32_t result = MakeGoogleFolder(&r, &text);
  std::string document = text.data == nullptr ? "" : std::string(text.data, static_cast<size_t>(text.length));
  std::string s = Format("result %d utc %d\n", result, r.bUtc);
  for (size_t i = 0; i < points.size(); ++i) {
    if (points[i].dwTime != 5u * i) break;
    if (i + 1 == points.size()) s += "times rewritten\n";
  }
  test::TrackMetadata track;
  std::string error;
  if (result == 0 && test::ReadTrackMetadata(document, &track, &error) && track.hash) {
    // The digest against its own definition, with an independent SHA-1.
    EXPECT_EQ(*track.hash, test::HashStringDigest(test::DigestInput(track)));
    s += *track.hash == test::Sha1Hex(test::DigestInput(track)) ? "hash is plain SHA-1\n" : "hash is packed\n";
  }
  if (args.empty()) return s + document;
  if (args[0] == "fsinfo") return s + track.fsInfo + "\n";
  if (args[0] == "statistics") return s + test::StatisticsBlock(document);
  if (args[0] == "coordinates") return s + track.altitudeMode + "\n" + track.coordinates;
  return s + test::ResultPlacemark(document, args[0]);
}

// The repairs of a downloaded log ("== NAME CHECK"): "points N [METRES]"
// makes N points one a second, METRES (10) north of each other; "seconds
// S..." gives them these offsets instead; "time I S" and "place I EAST NORTH"
// change one, "raw-time I VALUE" sets its time as it is, "segment I..."
// starts segments; "gap S", "no-analysis" and "typed TEXT" set the run.
// Shown: the result, what was printed and the kept points' offsets
// ("*" starts a segment).
std::string TrackChecks(const Case& c) {
  constexpr uint32_t kStart = 1000000000;  // 2021-09-08 01:46:40
  std::vector<TrackPoint> points;
  auto at = [&points](uint32_t offset, double east, double north) {
    TrackPoint p{0, kStart + offset, 0, 0, 10000, 1000};
    ConvertGeoToArcPos((46.0 + north / 111132.9) * kPi / 180.0,
                       (7.0 + east / (111319.5 * std::cos(46.0 * kPi / 180.0))) * kPi / 180.0, &p.lLatitude,
                       &p.lLongitude);
    return p;
  };
  std::string typed;
  for (const auto& [key, value] : Directives(c)) {
    std::istringstream in(value);
    size_t i = 0;
    double east = 0, north = 0, step = 10;
    uint32_t number = 0;
    if (key == "points") {
      in >> number >> step;
      for (uint32_t k = 0; k < number; ++k) points.push_back(at(k, 0, step * k));
    } else if (key == "seconds") {
      for (uint32_t k = 0; in >> number; ++k) points.push_back(at(number, 0, 10.0 * k));
    } else if (key == "time" && in >> i >> number) {
      points.at(i).dwTime = kStart + number;
    } else if (key == "raw-time" && in >> i >> number) {
      points.at(i).dwTime = number;
    } else if (key == "place" && in >> i >> east >> north) {
      points.at(i) = at(points.at(i).dwTime - kStart, east, north);
    } else if (key == "segment") {
      while (in >> i) points.at(i).dwFlags |= kTrackPointNewSegment;
    } else if (key == "gap") {
      in >> tGps.nGapSeconds;
    } else if (key == "no-analysis") {
      tGps.bNoAnalysis = 1;
    } else if (key == "typed") {
      typed = value;
    } else {
      ADD_FAILURE() << "unknown line " << key << " " << value;
    }
  }
  const std::map<std::string, int32_t (*)()> checks = {{"invalid-times", CheckForInvalidTimeStamps},
                                                      {"tracks", CheckForMultipleTracks},
                                                      {"times", CheckForTimestampConsistency},
                                                      {"speed", CheckForSpeedConsistency}};
  flights::LoadTrack(points);
  test::FakeStdin input(typed);
  int32_t result = 0;
  std::string s = Printed(checks.at(c.args.at(0)), &result) + "kept";
  for (const TrackPoint& p : flights::LoadedTrack()) {
    s += Format(" %s%u", p.dwFlags & kTrackPointNewSegment ? "*" : "", p.dwTime - kStart);
    if (p.dwFlags > 1) s += Format("/flags %u", p.dwFlags);
  }
  return s + "\n";
}

using Operation = std::function<std::string(const Case&)>;

const std::map<std::string, Operation>& Operations() {
  static const std::map<std::string, Operation> operations = {
      {"igc-read", IgcRead},        {"igc-date", IgcDate},
      {"igc-position", IgcPos},     {"igc-write", IgcWrite},
      {"waypoints-ozi", [](const Case& c) { return WaypointRead(DecodeOziWpts, c); }},
      {"waypoints-geo", [](const Case& c) { return WaypointRead(DecodeGeoWpts, c); }},
      {"waypoint-split", Split},    {"waypoint-fields", WaypointFields},
      {"file-names", FileNames},    {"kml", Kml},            {"track-checks", TrackChecks}};
  return operations;
}

// A block line ends in a line feed unless it ends in "\c".
void AddLine(std::string* block, const std::string& line) {
  *block += line.ends_with("\\c") ? test::Unescape(line.substr(0, line.size() - 2)) : test::Unescape(line) + "\n";
}

std::vector<Case> Cases() {
  std::vector<Case> cases;
  for (const std::string& file : test::FilesIn(test::DataFile("flight"))) {
    if (!file.ends_with(".txt")) continue;
    std::istringstream in(test::ReadFile(test::DataFile("flight/" + file)));
    int number = 0;
    bool expecting = false;
    for (std::string line; std::getline(in, line);) {
      ++number;
      if (line.starts_with("== ")) {
        Case c{file, number, "", {}, "", "", ""};
        std::istringstream words(line.substr(3));
        words >> c.name;
        for (std::string word; words >> word;) c.args.push_back(test::Unescape(word));
        cases.push_back(c);
        expecting = false;
      } else if (cases.empty() || (line.starts_with("#") && !expecting)) {
        continue;
      } else if (line == "--" && !expecting) {
        expecting = true;
      } else {
        AddLine(expecting ? &cases.back().expected : &cases.back().input, line);
        if (!expecting) cases.back().raw += line + "\n";
      }
    }
  }
  return cases;
}

class FlightCases : public testing::TestWithParam<Case> {};

TEST_P(FlightCases, ShowWhatTheCaseExpects) {
  const Case& c = GetParam();
  const std::string operation = c.file.substr(0, c.file.size() - 4);
  ASSERT_TRUE(Operations().contains(operation)) << c.file;
  test::FreshRunParameters();
  test::ClockFixture clock;
  const std::string actual = Operations().at(operation)(c);
  test::FreshRunParameters();
  EXPECT_EQ(test::Escape(actual), test::Escape(c.expected)) << c.file << ":" << c.line;
  // After a deliberate change, KESTRIX_UPDATE_GOLDEN=FILE collects every
  // output there (file, line, escaped text) to be checked and copied in.
  if (const char* collect = std::getenv("KESTRIX_UPDATE_GOLDEN")) {
    std::ofstream(collect, std::ios::app) << c.file << " " << c.line << "\n" << test::Escape(actual) << "\n==end\n";
  }
}

INSTANTIATE_TEST_SUITE_P(Data, FlightCases, testing::ValuesIn(Cases()), [](const auto& param) {
  std::string name = param.param.file.substr(0, param.param.file.size() - 4) + "_" + param.param.name;
  for (char& ch : name) ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
  return name;
});

}  // namespace
