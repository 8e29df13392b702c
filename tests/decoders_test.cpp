// Every decoder fed its bytes directly, without a port: the cases and what
// each must print are kept in tests/data/decoders/*.txt (see README.md
// there). Run with KESTRIX_WRITE_DECODERS=1 to rewrite the expected blocks
// from what the decoders do now, then read the difference before committing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/console.h"
#include "core/run.h"
#include "link/string.h"
#include "serial/ascent.h"
#include "serial/flymaster.h"
#include "serial/galileo.h"
#include "serial/iqbasic.h"
#include "serial/leonardo.h"
#include "serial/mlr.h"
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

// Hexadecimal bytes; "HH*N" is the byte HH N times.
std::string FromHex(const std::string& hex) {
  std::string bytes;
  std::istringstream in(hex);
  for (std::string word; in >> word;) {
    const size_t star = word.find('*');
    if (star != std::string::npos) {
      bytes.append(std::stoul(word.substr(star + 1)), static_cast<char>(std::stoi(word.substr(0, 2), nullptr, 16)));
      continue;
    }
    for (size_t i = 0; i + 1 < word.size(); i += 2) bytes.push_back(static_cast<char>(std::stoi(word.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

using test::Format;

// What every kind shows after its own lines: the points and waypoints the
// run parameters hold; of a long track the first and last few, and a
// digest of them all.
std::string Records() {
  std::string all, out;
  for (int32_t i = 0; i < tGps.nTrackPoints; ++i) {
    const TrackPoint& p = tGps.pTrackPoints[i];
    const std::string line = Format("point %u %u %d %d %d %d\n", p.dwFlags, p.dwTime, p.lLatitude, p.lLongitude,
                                    p.lGpsAltitude, p.lPressureAltitude);
    all += line;
    if (i < 5 || i >= tGps.nTrackPoints - 2) out += line;
  }
  if (tGps.nTrackPoints > 7) out += Format("points %d sha256 %s\n", tGps.nTrackPoints, test::Sha256(all).c_str());
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

// The memory dumps of the 2xx models (an IGC text), of the earlier ones
// (points and task points) and the block exchange of the oldest models.
std::string FlymasterDumps(const Case& c) {
  FlymasterRig rig(c);
  std::string out;
  if (c.Number("kept") > 0) AppendTrackPoint(TrackPoint{});
  std::snprintf(rig.t.name, sizeof rig.t.name, "%s", c.Text("model").c_str());
  const auto* bytes = reinterpret_cast<const uint8_t*>(c.input.data());
  const auto length = static_cast<int32_t>(c.input.size());
  if (c.kind == "flymaster-2xx") {
    char* igc = nullptr;
    int32_t igcLength = 0;
    const std::string serial = c.set.count("serial") ? c.Text("serial") : "2719";
    out += Printing([&] { return Format("%d\n", flymaster::ConvertDump2xx(bytes, length, serial.c_str(), &igc, &igcLength)); });
    if (igc != nullptr) out += std::string(igc, static_cast<size_t>(igcLength)) + Format("(%zu)\n", std::strlen(igc));
    std::free(igc);
  } else if (c.kind == "flymaster-new") {
    flymaster::TaskPointList tasks;
    const auto time = static_cast<uint32_t>(c.Number("time", 1000));
    out += Printing([&] { return Format("%d\n", flymaster::DecodeDumpNew(bytes, length, time, &tasks)); });
    for (int32_t i = 0; i < tasks.count; ++i) {
      const flymaster::TaskPoint& t = tasks.items[i];
      out += Format("task [%s] [%s] %d %d %d %u\n", t.shortName, t.longName, t.latitude, t.longitude, t.altitude, t.time);
    }
    out += Format("utc %d signature %d pressure %d download %u\n", tGps.bUtc, tGps.bSignature, tGps.bPressureAltitude,
                  tGps.dwDownloadTime);
  } else {
    std::string replies, messages;
    flymaster::OldStep step{1, 0, nullptr};
    for (int32_t i = 0; i < length && step.result == 1; ++i) {
      step = flymaster::TakeOldByte(&rig.t, bytes[i], nullptr);
      if (step.reply != 0) replies += Format(" %02X", step.reply);
      if (step.message != nullptr) messages += step.message;
    }
    out += Format("%d replies%s\n", step.result, replies.c_str()) + (messages.empty() ? "" : "printed " + messages);
    if (c.Number("finish") > 0) {
      out += Printing([&] {
        ProgressCounter progress("Points: ", 0);
        step = flymaster::FinishOldTransfer(&rig.t, &progress);
        return std::string();
      });
      out += Format("end %d reply %02X [%s] utc %d signature %d pressure %d\n", step.result, step.reply,
                    step.message == nullptr ? "" : step.message, tGps.bUtc, tGps.bSignature, tGps.bPressureAltitude);
    }
    out += Format("info %u [%s] [%s] [%s] [%s]\n", rig.t.infoNumber, rig.t.infoText[0], rig.t.infoText[1],
                  rig.t.infoText[2], rig.t.infoText[3]);
  }
  return out + Records();
}

// --- Digifly Leonardo ----------------------------------------------------------------------

std::string Leonardo(const Case& c) {
  test::FreshRunParameters();
  tGps.dwCommand = static_cast<uint32_t>(c.Number("command", kCommandDownloadTrack));
  tGps.nFlightNumber = static_cast<int32_t>(c.Number("flight", -1));
  auto t = std::make_unique<leonardo::LeonardoTransfer>();
  std::string out;
  for (const std::string& in : c.inputs) {
    leonardo::ResetTransfer(t.get());
    if (c.kind == "leonardo-sentence") {
      int32_t result = 1;
      for (size_t i = 0; i < in.size() && result == 1; ++i) result = leonardo::TakeSentenceByte(t.get(), static_cast<uint8_t>(in[i]));
      out += Format("%d [%s] state %d\n", result, result == 0 ? t->sentence : "", t->state);
      continue;
    }
    std::snprintf(t->sentence, sizeof t->sentence, "%s", in.c_str());
    t->length = static_cast<int32_t>(in.size());
    if (c.kind == "leonardo-product") {
      const int32_t result = leonardo::DecodeProductSentence(t.get());
      out += Format("%d [%s] [%s] [%s] [%s] [%s] %d\n", result, t->device, t->firmware, t->serial, t->pilot, t->product,
                    t->recordsWithoutQnh);
    } else if (c.kind == "leonardo-list") {
      const int32_t result = leonardo::DecodeFlightList(t.get());
      out += Format("%d count %d", result, t->flightCount);
      for (int32_t i = 0; i < t->flightCount; ++i) {
        const leonardo::FlightEntry& e = t->flights[i];
        if (i < 3 || i == t->flightCount - 1) {
          out += Format(" | %u %u %d %X %d %X", e.takeoff, e.landing, e.startBlock, e.startAddress, e.lastBlock, e.lastAddress);
        }
      }
      out += "\n";
    } else if (c.kind == "leonardo-range") {  // a track read refuses a range the memory cannot hold
      t->flightCount = leonardo::DecodeFlightEntry(in.c_str(), &t->flights[0]) ? 1 : 0;
      out += Printing([&] { return Format("read %d\n", leonardo::ReadTrackLog(t.get(), 1)); });
    } else if (c.kind == "leonardo-block") {
      const int32_t result = leonardo::DecodeBlockSentence(t.get());
      out += Format("%d length %d [", result, t->blockLength);
      for (int32_t i = 0; i < std::min(t->blockLength, 4); ++i) out += Format("%02X", t->block[i]);
      out += "]\n";
    }
  }
  if (c.kind == "leonardo-select") {  // every flight as the entry of the case
    leonardo::ResetTransfer(t.get());
    t->flightCount = static_cast<int32_t>(c.Number("flights"));
    for (int32_t i = 0; i < t->flightCount; ++i) leonardo::DecodeFlightEntry(c.Text("entry").c_str(), &t->flights[i]);
    test::FakeStdin typed(c.Text("typed"));
    out += Printing([&] { return Format("select %d\n", leonardo::SelectFlight(t.get())); });
  }
  return out;
}

// --- MLR ----------------------------------------------------------------------------------

std::string Mlr(const Case& c) {
  test::FreshRunParameters();
  std::string out;
  if (c.kind == "mlr-product") {
    for (const std::string& in : c.inputs) {
      mlr::ProductRecord p;
      mlr::InitProductDecoder(&p);
      p.state = static_cast<int32_t>(c.Number("state"));
      int32_t result = 1;
      for (size_t i = 0; i < in.size() && result == 1; ++i) result = mlr::DecodeProductData(&p, static_cast<uint8_t>(in[i]));
      out += Format("%d", result);
      if (result == 0) {
        out += Format(" [%s] [%s] [%s] [%s] [%s] major %d minor %d correction %d", p.fields[0], p.fields[1], p.fields[2], p.fields[3],
                      p.fields[4], p.major, p.minor, p.timeCorrection);
      }
      out += "\n";
    }
    return out;
  }
  if (c.kind == "mlr-version") {  // field A, a comma, field D
    for (const std::string& in : c.inputs) {
      mlr::ProductRecord p;
      mlr::InitProductDecoder(&p);
      std::snprintf(p.fields[0], sizeof p.fields[0], "%s", in.substr(0, in.find(',')).c_str());
      std::snprintf(p.fields[3], sizeof p.fields[3], "%s", in.substr(in.find(',') + 1).c_str());
      mlr::CheckSoftwareVersion(&p);
      out += Format("[%s] major %d minor %d correction %d\n", p.fields[0], p.major, p.minor, p.timeCorrection);
    }
    return out;
  }
  // mlr-frames: every result that is not 0; mlr-log: each complete frame
  // handed on, and the points it made.
  mlr::FrameState f;
  mlr::InitDecodeSentenceByte(&f);
  f.timeCorrection = static_cast<int32_t>(c.Number("correction"));
  const auto mode = static_cast<int32_t>(c.Number("mode"));
  out += Printing([&] {
    std::unique_ptr<ProgressCounter> progress;
    if (c.kind == "mlr-log") progress = std::make_unique<ProgressCounter>("Points: ", 0);
    f.progress = progress.get();
    std::string results;
    for (char b : c.input) {
      const int32_t r = mlr::DecodeSentenceByte(&f, static_cast<uint8_t>(b), mode);
      if (c.kind == "mlr-log" && r > 0) {
        results += Format(" %d", mlr::DecodeNewSentence(&f, 0));
      } else if (r != 0) {
        results += Format(" %s%d", c.kind == "mlr-log" ? "frame " : "", r);
        if (c.kind == "mlr-frames" && r > 0) results += Format(" seq %u count %d data %s", f.sequence, f.count, test::Sha256(std::string(reinterpret_cast<char*>(f.data), static_cast<size_t>(f.dataLength))).substr(0, 16).c_str());
      }
    }
    if (progress != nullptr) progress->Finish(tGps.nTrackPoints);
    f.progress = nullptr;
    return "results" + results + "\n";
  });
  return out + Format("capacity %d\n", tGps.nTrackCapacity) + Records();
}

// --- Ascent --------------------------------------------------------------------------------

std::string Ascent(const Case& c) {
  std::string out;
  if (c.kind == "ascent-product") {
    for (const std::string& in : c.inputs) {
      ascent::Product product{};
      char text[81] = "";
      const bool taken = ascent::DecodeProductResponse(reinterpret_cast<const uint8_t*>(in.data()), &product, text, sizeof text);
      out += Format("%d [%s] %u %X %u %d\n", taken, text, product.firmware, product.valueA, product.valueB, product.supported);
    }
    return out;
  }
  if (c.kind == "ascent-list") {
    ascent::Product product{};
    ascent::ListState list;
    ascent::StartList(&list, &product);
    for (const std::string& in : c.inputs) {
      if (in == "again") {
        ascent::StartList(&list, &product);
        continue;
      }
      char entry[64] = "?";
      const int32_t r = ascent::DecodeListMessage(&list, reinterpret_cast<const uint8_t*>(in.data()), &product, entry, sizeof entry);
      out += Format("%d [%s] count %d\n", r, entry, product.flightCount);
    }
    for (int32_t i = 0; i < product.flightCount; i += std::max(1, product.flightCount - 1)) out += Format("id %d %u\n", i, product.flightIds[i]);
    return out;
  }
  // ascent-packets: the answer to the last byte of every packet, then the sections and their join.
  ascent::FlightTransfer t;
  ascent::AllocateSections(&t);
  const test::FailingAllocation memory(static_cast<int>(c.Number("memory")));  // its allocation N fails
  for (const std::string& in : c.inputs) {
    int32_t r = 0;
    for (size_t i = 0; i < in.size(); ++i) {
      r = ascent::DecodePacketByte(&t, static_cast<uint8_t>(in[i]));
      if (r != ascent::kPacketMore && i + 1 < in.size()) {
        out += Format("byte %zu: ", i);
        break;
      }
    }
    out += Format("%d\n", r);
  }
  for (const ascent::Section& s : t.sections) {
    out += Format("section %d ", s.number) + std::string(reinterpret_cast<char*>(s.data), static_cast<size_t>(s.length)) + "\n";
  }
  uint8_t* text = nullptr;
  int32_t length = 0;
  const int32_t joined = ascent::JoinSections(&t, &text, &length);
  out += Format("lines %d joined %d ", t.lines, joined) + (joined == 0 ? std::string(reinterpret_cast<char*>(text), static_cast<size_t>(length)) : "") + "\n";
  std::free(text);
  return out;
}

// --- IQ Basic ------------------------------------------------------------------------------

std::string IqBasic(const Case& c, const std::string& in) {
  if (c.kind == "iqbasic-value") {
    uint32_t value = 99;
    const int32_t r = iqbasic::DecodePAdata(in.c_str(), &value);
    return Format("%d %u\n", r, value);
  }
  if (c.kind == "iqbasic-list") {
    char line[iqbasic::kListLineSize];
    std::snprintf(line, sizeof line, "%s", in.c_str());
    iqbasic::RenumberListLine(line);
    return Format("[%s]\n", line);
  }
  if (c.kind == "iqbasic-match") {  // the flight number, a blank, the line
    return Format("%d\n", iqbasic::MatchesFlight(in.substr(in.find(' ') + 1).c_str(), std::stoi(in)));
  }
  char text[iqbasic::kAnswerSize];
  iqbasic::LineBuilder line;
  iqbasic::StartLine(&line, text, iqbasic::kAnswerSize - 1);
  std::string complete;
  for (char b : in) complete += iqbasic::TakeLineByte(&line, static_cast<uint8_t>(b)) ? '1' : '.';
  return Format("%s [%s]\n", complete.c_str(), text);
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

// A kind is found by its whole name, else by the family before its "-".
const std::map<std::string, std::function<std::string(const Case&)>>& Kinds() {
  static const std::map<std::string, std::function<std::string(const Case&)>> kinds = {
      {"uint", Table<Number>},        {"int", Table<Number>},          {"hex", Table<Number>},
      {"decimal", Table<Number>},     {"date", Table<Calendar>},       {"time", Table<Calendar>},
      {"position", Table<Position>},  {"degrees", Table<Degrees>},     {"compress", Table<Compress>},
      {"compress-xml", Table<Compress>}, {"nmea", Table<Nmea>},        {"flymaster", FlymasterSentences},
      {"flymaster-2xx", FlymasterDumps}, {"flymaster-new", FlymasterDumps}, {"flymaster-old", FlymasterDumps},
      {"leonardo", Leonardo},         {"mlr", Mlr},                    {"ascent", Ascent},
      {"iqbasic", Table<IqBasic>},    {"galileo", Galileo},
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
    if (kind == Kinds().end()) kind = Kinds().find(c.kind.substr(0, c.kind.find('-')));
    ASSERT_NE(kind, Kinds().end()) << "unknown kind " << c.kind;
    ASSERT_GT(c.first, 0) << "no out block";
    got.push_back(kind->second(c));
    EXPECT_EQ(test::Escape(got.back()), test::Escape(c.expected));
  }
  if (std::getenv("KESTRIX_WRITE_DECODERS") != nullptr) WriteExpected(cases, got);
}

}  // namespace
