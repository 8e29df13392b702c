// Every decoder fed its bytes directly, without a port: the cases and what
// each must print are kept in tests/data/decoders/*.txt (see README.md
// there). Run with KESTRIX_WRITE_DECODERS=1 to rewrite the expected blocks
// from what the decoders do now, then read the difference before committing.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "link/string.h"
#include "serial/flymaster.h"
#include "serial/galileo.h"
#include "support.h"

namespace {

struct Case {
  std::string file, name, kind, input;
  std::map<std::string, std::string> set;
  std::vector<std::string> inputs;  // one per "in"/"hex" line
  std::string expected;
  int first = 0, last = 0;  // the lines of the expected block in the file
  long Number(const std::string& key, long otherwise = 0) const {
    auto it = set.find(key);
    return it == set.end() ? otherwise : std::strtol(it->second.c_str(), nullptr, 0);
  }
  std::string Text(const std::string& key) const {
    auto it = set.find(key);
    return it == set.end() ? "" : test::Unescape(it->second);
  }
};

std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size();) {
    if (hex[i] == ' ') {
      ++i;
      continue;
    }
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    i += 2;
  }
  return bytes;
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

// What every kind shows after its own lines: the points and waypoints the
// run parameters hold.
std::string Records() {
  std::string out;
  for (int32_t i = 0; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    out += Format("point %u %u %d %d %d %d\n", p.dwFlags, p.dwTime, p.lLatitude, p.lLongitude, p.lGpsAltitude,
                  p.lPressureAltitude);
  }
  for (int32_t i = 0; i < tGps.nWaypoints; ++i) {
    const Waypoint& w = tGps.pWaypoints[i];
    out += Format("waypoint %d %d %d [%s] [%s] %u %u\n", w.lLatitude, w.lLongitude, w.lAltitude, w.szId,
                  w.szComment, w.dwTime, w.dwReserved);
  }
  return out;
}

// Captures what `body` prints as "printed ..." lines after its own text.
std::string Printing(const std::function<std::string()>& body) {
  testing::internal::CaptureStdout();
  std::string own = body();
  std::string printed = testing::internal::GetCapturedStdout();
  return own + (printed.empty() ? "" : "printed " + printed + (printed.ends_with("\n") ? "" : "\n"));
}

// --- Text codecs ---------------------------------------------------------------------------

// A table: one line out for every line in.
std::string Each(const Case& c, const std::function<std::string(const std::string&)>& one) {
  std::string out;
  for (const std::string& in : c.inputs) out += one(in);
  return out;
}

template <std::string (*One)(const Case&, const std::string&)>
std::string Table(const Case& c) {
  return Each(c, [&](const std::string& in) { return One(c, in); });
}

std::string Number(const Case& c, const std::string& text) {
  if (c.kind == "uint" || c.kind == "hex") {
    uint32_t v = 7;
    int rc = c.kind == "uint" ? DecodeUintString(text.c_str(), &v) : DecodeHexString(text.c_str(), &v);
    return Format("%d %u\n", rc, v);
  }
  if (c.kind == "int") {
    int32_t v = 9;
    int rc = DecodeIntegerString(text.c_str(), &v);
    return Format("%d %d\n", rc, v);
  }
  double d = 3.0;
  int rc = DecodeDecimalString(text.c_str(), &d);
  return Format("%d %.17g\n", rc, d);
}

std::string Calendar(const Case& c, const std::string& text) {
  uint32_t a = 1, b = 1, d = 1;
  int rc = c.kind == "date" ? DecodeDateString2(text.c_str(), &a, &b, &d)
                            : DecodeTimeString(text.c_str(), &a, &b, &d, c.Text("separator")[0]);
  return Format("%d %u %u %u\n", rc, a, b, d);
}

std::string Position(const Case& c, const std::string& text) {
  double v = 1.25;
  const char* rest = DecodeWptPosString(text.c_str(), static_cast<int>(c.Number("latitude")), &v);
  return Format("%s %.15g [%s]\n", rest == nullptr ? "refused" : "taken", v, rest == nullptr ? "" : rest);
}

std::string Degrees(const Case& c, const std::string& text) {
  char out[40];
  int n = EncodeDegreesString(out, static_cast<int32_t>(std::stol(text)), static_cast<int>(c.Number("latitude")));
  return Format("%d [%s]\n", n, out);
}

std::string Compress(const Case& c, const std::string& in) {
  std::vector<char> text(in.begin(), in.end());
  text.push_back('\0');
  int n = c.kind == "compress" ? CompressString(text.data()) : CompressXmlString(text.data());
  return Format("%d [%s]\n", n, text.data());
}

std::string Nmea(const Case& c, const std::string& in) {
  std::vector<char> text(in.begin(), in.end());
  text.push_back('\0');
  int32_t offsets[16];
  int n = ParseNmeaString(text.data(), offsets, static_cast<int>(c.Number("fields", 16)));
  std::string out = Format("%d", n);
  for (int i = 0; i < n; ++i) out += Format(" %d[%s]", offsets[i], text.data() + offsets[i]);
  return out + "\n";
}

// --- Flymaster sentences -------------------------------------------------------------------

struct FlymasterRig {
  explicit FlymasterRig(const Case& c) {
    test::FreshRunParameters();
    tGps.dwGpsType = static_cast<int32_t>(c.Number("type", kGpsFlymasterNew));
    tGps.dwCommand = static_cast<uint32_t>(c.Number("command", kCommandDownloadTrack));
    tGps.nFlightNumber = static_cast<int32_t>(c.Number("flight", -1));
    if (c.set.count("pilot")) std::snprintf(tGps.szPilotName, sizeof tGps.szPilotName, "%s", c.Text("pilot").c_str());
    flymaster::ResetTransfer(&t);
    std::snprintf(t.firmware, sizeof t.firmware, "%s", c.Text("firmware").c_str());
  }
  int Feed(const std::string& bytes) {
    int complete = 0;
    for (char b : bytes) complete += flymaster::TakeSentenceByte(&t, static_cast<uint8_t>(b));
    return complete;
  }
  flymaster::FlymasterTransfer t;
};

std::string FlymasterSentences(const Case& c) {
  FlymasterRig rig(c);
  std::string out;
  for (const std::string& in : c.inputs) {
    const int complete = rig.Feed(in);
    if (c.kind == "flymaster-sentence") {
      out += Format("%d [%s]\n", complete, rig.t.sentence);
    } else if (c.kind == "flymaster-product") {
      out += Printing([&] { return Format("%d\n", flymaster::StoreProductSentence(&rig.t)); });
      out += Format("[%s] [%s] [%s] [%s]\n[%s]\n[%s] [%s]\n", rig.t.name, rig.t.pilot, rig.t.serial, rig.t.firmware,
                    rig.t.product, tGps.szProduct, tGps.szPilotName);
    } else if (c.kind == "flymaster-list") {
      out += Printing([&] {
        const int32_t result = flymaster::StoreTrackListSentence(&rig.t);
        return Format("%d count %d\n", result, rig.t.trackCount);
      });
    } else if (c.kind == "flymaster-answer") {
      out += Format("%d\n", flymaster::JudgeWaypointResponse(&rig.t, c.Text("sent").c_str()));
    } else if (c.kind == "flymaster-waypoint") {
      out += Printing([&] { return Format("%d\n", flymaster::StoreWaypointSentence(&rig.t, 5555)); });
    }
  }
  if (c.kind == "flymaster-list") {
    for (int i = 0; i < rig.t.trackCount; i += std::max(1, rig.t.trackCount - 1)) {
      out += Format("track %d %u %u\n", i, rig.t.trackStart[i], rig.t.trackDuration[i]);
    }
    test::FakeStdin typed(c.Text("typed"));
    out += Printing([&] { return Format("select %d\n", flymaster::SelectTrack(&rig.t)); });
  }
  return out + Records();
}

// --- Brauniger/Flytec ----------------------------------------------------------------------

std::string Galileo(const Case& c) {
  test::FreshRunParameters();
  tGps.dwCommand = static_cast<uint32_t>(c.Number("command", kCommandDownloadTrack));
  tGps.nFlightNumber = static_cast<int32_t>(c.Number("flight", -1));
  galileo::GalileoTransfer t;
  galileo::ResetTransfer(&t);
  std::string out;
  for (const std::string& in : c.inputs) {
    if (c.kind == "galileo-log") {
      std::snprintf(t.sentence, sizeof t.sentence, "%s", in.c_str());
      t.index = static_cast<int32_t>(in.size());
      out += Format("%d\n", galileo::DecodeLogSentence(&t));
      continue;
    }
    if (c.kind == "galileo-entry") {  // a list entry as the instrument's list left it
      std::snprintf(t.list[std::stoi(in) - 1], galileo::kListEntrySize, "%s", in.c_str());
      continue;
    }
    galileo::ResetTransfer(&t);
    t.state = static_cast<int32_t>(c.Number("state"));
    int32_t result = 1;
    for (char b : in) {
      t.byte = static_cast<uint8_t>(b);
      result = c.kind == "galileo-product" ? galileo::DecodeProductData(&t)
               : c.kind == "galileo-list"  ? galileo::DecodeTrackListData(&t)
                                           : galileo::DecodeWptByte(&t, t.byte);
      if (result != 1) break;
    }
    out += Format("%d\n", result);
    if (c.kind == "galileo-product" && result == 0) {
      out += Format("[%s] [%s] [%s] [%s] [%s]\n", t.model, t.pilot, t.serial, t.firmware, t.summary);
    } else if (c.kind == "galileo-waypoint" && result == 0) {
      out += Format("%.6f %.6f [%s] [%s] [%s]\n", t.latitude / 2.908882086657e-4, t.longitude / 2.908882086657e-4,
                    t.id, t.name, t.altitude);
    }
  }
  if (c.kind == "galileo-list") {
    for (int i = 0; i < galileo::kListEntries; ++i) {
      if (t.list[i][0] != '\0') out += Format("entry %d [%s]\n", i, t.list[i]);
    }
  } else if (c.kind == "galileo-log") {
    out += Format("date %u first %u [%s] [%s] g %d\n", t.flightDate, tGps.dwFirstPointTime, t.manufacturer,
                  t.loggerSerial, t.gRecords);
  } else if (c.kind == "galileo-entry") {
    test::FakeStdin typed(c.Text("typed"));
    out += Printing([&] { return Format("select %d\n", galileo::SelectFlight(&t)); });
  }
  return out + Records();
}

// --- The driver ----------------------------------------------------------------------------

const std::map<std::string, std::function<std::string(const Case&)>>& Kinds() {
  static const std::map<std::string, std::function<std::string(const Case&)>> kinds = {
      {"uint", Table<Number>},
      {"int", Table<Number>},
      {"hex", Table<Number>},
      {"decimal", Table<Number>},
      {"date", Table<Calendar>},
      {"time", Table<Calendar>},
      {"position", Table<Position>},
      {"degrees", Table<Degrees>},
      {"compress", Table<Compress>},
      {"compress-xml", Table<Compress>},
      {"nmea", Table<Nmea>},
      {"flymaster-sentence", FlymasterSentences},
      {"flymaster-product", FlymasterSentences},
      {"flymaster-list", FlymasterSentences},
      {"flymaster-answer", FlymasterSentences},
      {"flymaster-waypoint", FlymasterSentences},
      {"galileo-product", Galileo},
      {"galileo-list", Galileo},
      {"galileo-waypoint", Galileo},
      {"galileo-log", Galileo},
      {"galileo-entry", Galileo},
  };
  return kinds;
}

std::vector<std::string> FileLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<Case> ReadCases() {
  std::vector<Case> cases;
  const std::string folder = test::DataFile("decoders");
  for (const std::string& name : test::FilesIn(folder)) {
    if (!name.ends_with(".txt")) continue;
    const std::vector<std::string> lines = FileLines(folder + "/" + name);
    for (size_t i = 0; i < lines.size(); ++i) {
      const std::string& line = lines[i];
      const std::string word = line.substr(0, line.find(' '));
      const std::string rest = line.size() > word.size() ? line.substr(word.size() + 1) : "";
      if (word == "case") {
        cases.emplace_back();
        cases.back().file = name;
        cases.back().name = rest;
        continue;
      }
      if (word.empty() || word[0] == '#' || cases.empty()) continue;
      Case& c = cases.back();
      if (word == "kind") {
        c.kind = rest;
      } else if (word == "set") {
        c.set[rest.substr(0, rest.find(' '))] = rest.find(' ') == std::string::npos ? "" : rest.substr(rest.find(' ') + 1);
      } else if (word == "in" || word == "hex") {
        c.inputs.push_back(word == "in" ? test::Unescape(rest) : FromHex(rest));
        c.input += c.inputs.back();
      } else if (word == "out") {
        c.first = static_cast<int>(i) + 1;
        while (++i < lines.size() && lines[i] != "end") c.expected += test::Unescape(lines[i]) + "\n";
        c.last = static_cast<int>(i);
      }
    }
  }
  return cases;
}

// Expected blocks rewritten from what the decoders do now.
void WriteExpected(const std::vector<Case>& cases, const std::vector<std::string>& got) {
  std::map<std::string, std::vector<std::string>> files;
  const std::string folder = test::DataFile("decoders");
  for (size_t k = cases.size(); k-- > 0;) {  // from the end, so that earlier line numbers hold
    const Case& c = cases[k];
    if (!files.count(c.file)) files[c.file] = FileLines(folder + "/" + c.file);
    std::vector<std::string>& lines = files[c.file];
    std::vector<std::string> block;
    std::istringstream in(test::Escape(got[k]));
    for (std::string line; std::getline(in, line);) block.push_back(line);
    lines.erase(lines.begin() + c.first, lines.begin() + c.last);
    lines.insert(lines.begin() + c.first, block.begin(), block.end());
  }
  for (const auto& [name, lines] : files) {
    std::ofstream out(folder + "/" + name);
    for (const std::string& line : lines) out << line << "\n";
  }
}

TEST(Decoders, EveryCaseOfTheData) {
  const std::vector<Case> cases = ReadCases();
  ASSERT_GT(cases.size(), 100u);
  std::vector<std::string> got;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file + ": " + c.name);
    auto kind = Kinds().find(c.kind);
    ASSERT_NE(kind, Kinds().end()) << "unknown kind " << c.kind;
    ASSERT_GT(c.first, 0) << "no out block";
    got.push_back(kind->second(c));
    EXPECT_EQ(test::Escape(got.back()), test::Escape(c.expected));
  }
  if (std::getenv("KESTRIX_WRITE_DECODERS") != nullptr) WriteExpected(cases, got);
}

}  // namespace
