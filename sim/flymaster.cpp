#include "sim/flymaster.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace sim::flymaster {

const char kFaultHelp[] =
    "mute, family=1|2, hardware=CODE, bad-dump-checksum, no-signature, extra-byte, bad-block-checksum, "
    "short-info, short-key, bad-latitude, bad-longitude, track-first, odd-track-block, no-info, stall, "
    "nak[:N], bad-echo[:N], no-answer[:N], wrong-tag[:N], short-answer[:N], bad-answer[:N]";

namespace {

constexpr uint32_t kInstrumentEpoch = 315619200;
constexpr size_t kBlockSize = 4096;
constexpr uint8_t kPreambleLength = 16;  // block 0: bytes skipped before the first record
constexpr size_t kCommandLimit = 200;
constexpr size_t kEntriesPerBlock = 42;  // six-byte entries in one track block
constexpr int kFamilySwitch = 100;       // fixes per family when both alternate
constexpr useconds_t kStoreDelay = 50000;  // writing a waypoint to flash

constexpr uint8_t kInfo = 0xA0, kKey = 0xA1, kTrack = 0xA2, kEnd = 0xA3;
// 0xB2 between them asks for the same block again.
constexpr uint8_t kAccepted = 0xB1, kAborted = 0xB3;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string Sentence(const std::string& body, bool damaged = false) {
  char tail[8];
  std::snprintf(tail, sizeof tail, "*%02X\r\n", (NmeaChecksum(body) + (damaged ? 1 : 0)) & 0xFF);
  return "$" + body + tail;
}

bool IsLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// Days from 1989-12-31 (the GPS epoch) to a date.
int64_t DaysSinceEpoch(int year, int month, int day) {
  static constexpr int kBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  auto fromZero = [](int64_t y, int m, int d) {
    int64_t before = y - 1;
    int64_t days = before * 365 + before / 4 - before / 100 + before / 400 + kBefore[m - 1] + d;
    return days + (m > 2 && IsLeap(static_cast<int>(y)) ? 1 : 0);
  };
  return fromZero(year, month, day) - fromZero(1989, 12, 31);
}

int Digits(const std::string& text, size_t at, size_t count) {
  int value = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (i >= text.size() || text[i] < '0' || text[i] > '9') return -1;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

void PutU16(std::string* out, uint32_t value) {
  out->push_back(static_cast<char>(value & 0xFF));
  out->push_back(static_cast<char>((value >> 8) & 0xFF));
}

void PutU32(std::string* out, uint32_t value) {
  PutU16(out, value & 0xFFFF);
  PutU16(out, value >> 16);
}

// Three bytes of two's complement and the sign in bit 7 of the fourth.
void PutLocation(std::string* out, int32_t value) {
  uint32_t bits = static_cast<uint32_t>(value);
  out->push_back(static_cast<char>(bits & 0xFF));
  out->push_back(static_cast<char>((bits >> 8) & 0xFF));
  out->push_back(static_cast<char>((bits >> 16) & 0xFF));
  out->push_back(static_cast<char>(value < 0 ? 0xFF : 0x00));
}

// A text in a fixed number of bytes, NUL padded.
void PutText(std::string* out, const std::string& text, size_t size) {
  std::string field = text.substr(0, size);
  field.resize(size, '\0');
  *out += field;
}

int32_t Clamp(int64_t value, int64_t low, int64_t high) {
  return static_cast<int32_t>(std::min(std::max(value, low), high));
}

bool FitsByte(int64_t delta) { return delta >= -128 && delta <= 127; }

// What the new models echo of an uploaded name.
std::string Normalised(const std::string& name) {
  std::string out = name;
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) c = ' ';
  }
  return out;
}

// A task from the C records: the declaration line and the take-off and
// landing lines around the points are left out.
struct TaskPointSource {
  int32_t latitude;   // 1/60000 degree, north positive
  int32_t longitude;  // east positive
  std::string name;
};

std::vector<TaskPointSource> ReadTask(const std::string& igc) {
  std::vector<TaskPointSource> points;
  std::istringstream in(igc);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.size() < 18 || line[0] != 'C' || (line[8] != 'N' && line[8] != 'S')) continue;
    if (line[17] != 'E' && line[17] != 'W') continue;
    int latD = Digits(line, 1, 2), latM = Digits(line, 3, 5), lonD = Digits(line, 9, 3), lonM = Digits(line, 12, 5);
    if (latD < 0 || latM < 0 || lonD < 0 || lonM < 0) continue;
    TaskPointSource p;
    p.latitude = (latD * 60000 + latM) * (line[8] == 'S' ? -1 : 1);
    p.longitude = (lonD * 60000 + lonM) * (line[17] == 'W' ? -1 : 1);
    p.name = line.substr(18);
    points.push_back(p);
  }
  if (points.size() < 3) return {};
  return std::vector<TaskPointSource>(points.begin() + 1, points.end() - 1);
}

std::vector<uint8_t> SignatureOf(const std::string& igc) {
  std::istringstream in(igc);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.size() != 65 || line[0] != 'G') continue;
    std::vector<uint8_t> bytes;
    for (size_t i = 1; i + 1 < line.size(); i += 2) {
      int high = HexValue(line[i]), low = HexValue(line[i + 1]);
      if (high < 0 || low < 0) break;
      bytes.push_back(static_cast<uint8_t>(high * 16 + low));
    }
    if (bytes.size() == 32) return bytes;
  }
  std::vector<uint8_t> pattern;
  for (int i = 0; i < 32; ++i) pattern.push_back(static_cast<uint8_t>(i * 37 + 11));
  return pattern;
}

// Flight memory in 4096-byte blocks; a record never crosses a block end.
class BlockWriter {
 public:
  BlockWriter() {
    StartBlock();
    bytes_.push_back(static_cast<char>(kPreambleLength));
    PutText(&bytes_, "KESTRIX-SIM-FM", kPreambleLength - 1);
  }
  void Add(const std::string& record) {
    if (bytes_.size() - blockStart_ + record.size() > kBlockSize) {
      bytes_.resize(blockStart_ + kBlockSize, '\0');
      StartBlock();
    }
    bytes_ += record;
  }
  std::string Finish() {
    bytes_.resize(blockStart_ + kBlockSize, '\0');
    return bytes_;
  }

 private:
  void StartBlock() {
    blockStart_ = bytes_.size();
    bytes_ += "FMBLOCK";
    bytes_.push_back(static_cast<char>(blockStart_ / kBlockSize));
    PutU32(&bytes_, 0x5A5A5A5A);
  }
  std::string bytes_;
  size_t blockStart_ = 0;
};

struct FamilyState {
  bool set = false;
  int32_t latitude = 0, longitude = 0, gnss = 0, pressure = 0;
  uint32_t time = 0;
};

}  // namespace

std::vector<Fix> ReadFixes(const std::string& igc) {
  FlightSummary summary = SummarizeFlight(igc);
  int64_t base = summary.year > 0 ? DaysSinceEpoch(2000 + summary.year, summary.month, summary.day) * 86400 : 0;
  std::vector<Fix> fixes;
  std::istringstream in(igc);
  std::string line;
  int32_t previous = -1;
  int64_t dayOffset = 0;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.size() < 35 || line[0] != 'B') continue;
    int h = Digits(line, 1, 2), m = Digits(line, 3, 2), s = Digits(line, 5, 2);
    int latD = Digits(line, 7, 2), latM = Digits(line, 9, 5), lonD = Digits(line, 15, 3), lonM = Digits(line, 18, 5);
    if (h < 0 || m < 0 || s < 0 || latD < 0 || latM < 0 || lonD < 0 || lonM < 0) continue;
    int32_t second = h * 3600 + m * 60 + s;
    if (previous >= 0 && previous >= second + 3600) dayOffset += 86400;
    previous = second;
    Fix f;
    f.time = static_cast<uint32_t>(base + dayOffset + second);
    f.latitude = (latD * 60000 + latM) * (line[14] == 'S' ? -1 : 1);
    f.longitude = (lonD * 60000 + lonM) * (line[23] == 'W' ? -1 : 1);
    f.valid = line[24] == 'A';
    f.pressureAltitude = std::atoi(line.substr(25, 5).c_str());
    f.gnssAltitude = std::atoi(line.substr(30, 5).c_str());
    fixes.push_back(f);
  }
  return fixes;
}

int32_t PressureForAltitude(int32_t metres) {
  double m = std::min(metres, 40000);
  return static_cast<int32_t>(std::lround(10132.5 * std::pow(1.0 - m / 44330.76953125, 1.0 / 0.19026120007038116)));
}

int32_t OldPressureForAltitude(int32_t metres) {
  double m = std::min(metres, 40000);
  return static_cast<int32_t>(std::lround(10132.5 * std::pow(1.0 - m / 44307.69, 1.0 / 0.190284)));
}

uint16_t BuildNumber(const std::string& firmware) {
  int major = 0, minor = 0;
  char letter = 'a';
  std::sscanf(firmware.c_str(), "%d.%d%c", &major, &minor, &letter);
  if (letter < 'a' || letter > 'z') letter = 'a';
  return static_cast<uint16_t>(major * 2600 + minor * 26 + (letter - 'a'));
}

std::string StartStamp(uint32_t gpsTime) {
  // Civil date from days since the GPS epoch, day by day through the years.
  int64_t days = gpsTime / 86400;
  int year = 1989, month = 12, day = 31;
  if (days > 0) {
    year = 1990;
    int64_t left = days - 1;
    while (left >= (IsLeap(year) ? 366 : 365)) left -= IsLeap(year) ? 366 : 365, ++year;
    static constexpr int kLengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    month = 1;
    for (;;) {
      int length = kLengths[month - 1] + (month == 2 && IsLeap(year) ? 1 : 0);
      if (left < length) break;
      left -= length;
      ++month;
    }
    day = static_cast<int>(left) + 1;
  }
  uint32_t second = gpsTime % 86400;
  char text[32];  // wide enough for any values, so the compiler sees no cut
  std::snprintf(text, sizeof text, "%02d%02d%02d%02u%02u%02u", year % 100, month, day, second / 3600, second / 60 % 60,
                second % 60);
  return text;
}

Dump BuildDump(const std::string& igc, const DumpOptions& options) {
  const bool pre202 = options.kind == DumpKind::kPre202;
  const std::vector<Fix> fixes = ReadFixes(igc);
  Dump dump;
  BlockWriter writer;

  // Pre-2.02 firmware has no pilot record: its length, 31, would end the block.
  if (!pre202) {
    std::string pilot(1, '\x3F');
    PutText(&pilot, options.pilot, 24);
    PutU32(&pilot, 0);
    PutU16(&pilot, 0);
    writer.Add(pilot);
  }
  std::string firmware(1, '\x43');
  PutU16(&firmware, options.build);
  writer.Add(firmware);
  std::string values(1, '\x31');
  PutU32(&values, 0x01020304);
  PutU32(&values, 0x05060708);
  PutU32(&values, 0x090A0B0C);
  PutU32(&values, 0x0D0E0F10);
  writer.Add(values);

  std::vector<TaskPointSource> task = ReadTask(igc);
  if (!task.empty()) {
    std::string header(1, '\x47');
    header.push_back(static_cast<char>(task.size()));
    header.push_back('\0');
    PutU32(&header, (fixes.empty() ? kInstrumentEpoch : fixes[0].time - 600) - kInstrumentEpoch);
    writer.Add(header);
    for (const TaskPointSource& p : task) {
      std::string point(1, '\x1E');
      point.append(3, '\0');
      PutU16(&point, 0);
      PutLocation(&point, p.latitude);
      PutLocation(&point, p.longitude);
      PutText(&point, p.name, 16);
      writer.Add(point);
    }
  }

  FamilyState states[3];
  for (size_t i = 0; i < fixes.size(); ++i) {
    const Fix& f = fixes[i];
    int family = pre202 ? 1 : options.family != 0 ? options.family : static_cast<int>(i / kFamilySwitch % 2) + 1;
    int32_t pressure = f.pressureAltitude;
    if (family == 1) pressure = pre202 ? OldPressureForAltitude(pressure) : PressureForAltitude(pressure);
    pressure = pre202 ? Clamp(pressure, 0, 65535) : Clamp(pressure, -32768, 32767);
    int32_t gnss = Clamp(f.gnssAltitude, -32768, 32767);
    int32_t west = -f.longitude;
    uint8_t valid = f.valid ? 0x80 : 0x00;
    FamilyState& s = states[family];
    int64_t dt = static_cast<int64_t>(f.time) - s.time;
    bool delta = s.set && FitsByte(f.latitude - s.latitude) && FitsByte(west - s.longitude) &&
                 FitsByte(gnss - s.gnss) && FitsByte(pressure - s.pressure) && dt >= 0 && dt <= 255;
    // Family 2 has a longer form of each record; every third one uses it.
    bool longForm = family == 2 && i % 3 == 2;
    std::string r;
    if (delta) {
      r.push_back(static_cast<char>(valid | (family == 1 ? 8 : longForm ? 74 : 72)));
      r.push_back(static_cast<char>(f.latitude - s.latitude));
      r.push_back(static_cast<char>(west - s.longitude));
      r.push_back(static_cast<char>(gnss - s.gnss));
      r.push_back(static_cast<char>(pressure - s.pressure));
      r.push_back(static_cast<char>(dt));
      r.append(longForm ? 4 : 2, '\0');
    } else {
      r.push_back(static_cast<char>(valid | (family == 1 ? 19 : longForm ? 85 : 83)));
      r.push_back('\0');
      PutLocation(&r, f.latitude);
      PutLocation(&r, west);
      PutU16(&r, static_cast<uint32_t>(gnss));
      PutU16(&r, static_cast<uint32_t>(pressure));
      PutU32(&r, f.time - kInstrumentEpoch);
      r.append(longForm ? 3 : 1, '\0');
    }
    writer.Add(r);
    s = FamilyState{true, f.latitude, west, gnss, pressure, f.time};
    dump.fixes.push_back(StoredFix{f, pre202 ? 0 : family, pressure});
  }

  dump.bytes = writer.Finish();
  uint8_t sum[8] = {};
  for (size_t i = 0; i < dump.bytes.size(); ++i) sum[i % 8] ^= static_cast<uint8_t>(dump.bytes[i]);
  dump.bytes.append(reinterpret_cast<const char*>(sum), 8);
  if (!pre202) {
    PutU16(&dump.bytes, options.hardware);
    std::vector<uint8_t> signature = options.signature.size() == 32 ? options.signature : SignatureOf(igc);
    dump.bytes.append(signature.begin(), signature.end());
  }
  return dump;
}

std::string Frame(uint8_t type, const std::string& data) {
  std::string frame = {static_cast<char>(type), static_cast<char>(type), static_cast<char>(data.size())};
  uint8_t checksum = static_cast<uint8_t>(data.size());
  for (char c : data) checksum ^= static_cast<uint8_t>(c);
  return frame + data + static_cast<char>(checksum);
}

BlockTransfer BuildBlockTransfer(const std::string& igc, const std::string& model, const std::string& pilot) {
  const std::vector<Fix> fixes = ReadFixes(igc);
  BlockTransfer transfer;
  std::string info(4, '\0');
  PutU32(&info, static_cast<uint32_t>(fixes.size()));
  PutText(&info, "FLIGHT", 8);
  PutText(&info, pilot, 30);
  if (model == "B1NAV") {
    PutText(&info, "GLIDER", 17);
  } else {
    PutText(&info, "GLIDER", 14);
    PutText(&info, model, 14);
  }
  transfer.blocks.push_back(Block{kInfo, info});

  FamilyState s;
  std::string entries;
  auto flush = [&] {
    if (!entries.empty()) transfer.blocks.push_back(Block{kTrack, entries});
    entries.clear();
  };
  for (const Fix& f : fixes) {
    int32_t pressure = Clamp(OldPressureForAltitude(f.pressureAltitude), -32768, 32767);
    int32_t gnss = Clamp(f.gnssAltitude, -32768, 32767);
    int32_t west = -f.longitude;
    int64_t dt = static_cast<int64_t>(f.time) - s.time;
    bool delta = s.set && FitsByte(f.latitude - s.latitude) && FitsByte(west - s.longitude) &&
                 FitsByte(gnss - s.gnss) && FitsByte(pressure - s.pressure) && dt >= 0 && dt <= 255;
    if (delta) {
      entries.push_back(static_cast<char>(f.valid ? 1 : 0));
      entries.push_back(static_cast<char>(f.latitude - s.latitude));
      entries.push_back(static_cast<char>(west - s.longitude));
      entries.push_back(static_cast<char>(gnss - s.gnss));
      entries.push_back(static_cast<char>(pressure - s.pressure));
      entries.push_back(static_cast<char>(dt));
      if (entries.size() == kEntriesPerBlock * 6) flush();
    } else {
      flush();
      std::string key(1, static_cast<char>(f.valid ? 1 : 0));
      PutU32(&key, static_cast<uint32_t>(f.latitude));
      PutU32(&key, static_cast<uint32_t>(west));
      PutU16(&key, static_cast<uint32_t>(gnss));
      PutU16(&key, static_cast<uint32_t>(pressure));
      PutU32(&key, f.time - kInstrumentEpoch);
      transfer.blocks.push_back(Block{kKey, key});
    }
    s = FamilyState{true, f.latitude, west, gnss, pressure, f.time};
    transfer.fixes.push_back(StoredFix{f, 0, pressure});
  }
  flush();
  return transfer;
}

FlymasterInstrument::FlymasterInstrument(InstrumentSettings settings) : settings_(std::move(settings)) {
  if (settings_.model.empty()) settings_.model = "GPS";
  if (settings_.firmware.empty()) settings_.firmware = "2.04";
  if (settings_.serial.empty()) settings_.serial = "1234";
  if (settings_.pilot.empty() && !settings_.flights.empty()) {
    settings_.pilot = SummarizeFlight(settings_.flights[0]).pilot;
  }
  if (settings_.pilot.empty()) settings_.pilot = "Test Pilot";
  for (const std::string& flight : settings_.flights) {
    std::vector<Fix> fixes = ReadFixes(flight);
    starts_.push_back(fixes.empty() ? 0 : fixes[0].time);
  }
}

bool FlymasterInstrument::HasFault(const char* name) const {
  return std::find(settings_.faults.begin(), settings_.faults.end(), name) != settings_.faults.end();
}

bool FlymasterInstrument::HasFaultFor(const char* name, size_t waypoint) const {
  std::string one = std::string(name) + ":" + std::to_string(waypoint + 1);
  return HasFault(name) || HasFault(one.c_str());
}

std::string FlymasterInstrument::Option(const char* prefix) const {
  for (const std::string& f : settings_.faults) {
    if (f.rfind(prefix, 0) == 0) return f.substr(std::strlen(prefix));
  }
  return "";
}

size_t FlymasterInstrument::FindFlight(const std::string& stamp) const {
  for (size_t i = 0; i < starts_.size(); ++i) {
    if (StartStamp(starts_[i]) == stamp) return i;
  }
  return starts_.size();
}

void FlymasterInstrument::Receive(uint8_t byte, Line& line) {
  if (pending_.empty() && byte >= kAccepted && byte <= kAborted) {
    control_.push_back(static_cast<char>(byte));
    if (!HasFault(kMute)) Control(byte, line);
    return;
  }
  if (byte != '\n') {
    if (pending_.size() < kCommandLimit) pending_ += static_cast<char>(byte);
    return;
  }
  std::string command;
  command.swap(pending_);
  if (!command.empty() && command.back() == '\r') command.pop_back();
  commands_.push_back(Command{NowMicros(), command});
  line.Note("<- " + command);
  if (!HasFault(kMute)) Answer(command, line);
}

void FlymasterInstrument::Answer(const std::string& command, Line& line) {
  // The identification and list commands are taken as they are stored in
  // the program, checksum digits and all.
  if (command == "$PFMSNP,*21" || command == "$PBRSNP,*21") {
    olderModel_ = command[2] == 'B';
    std::string tag = olderModel_ ? "PBRSNP" : "PFMSNP";
    line.BeginReply();
    line.Send(Sentence(tag + "," + settings_.model + "," + settings_.pilot + "," + settings_.serial + "," +
                       settings_.firmware));
    line.Note("-> product " + settings_.model + " " + settings_.firmware);
    return;
  }
  if (command == "$PFMDNL,LST,*72") {
    line.BeginReply();
    SendList(line);
    return;
  }
  if (command == "$PFMWPL,*3c") {
    line.BeginReply();
    SendWaypoints(line);
    return;
  }
  std::string body;
  if (!CommandBody(command, &body)) {
    line.Note("   ignored: not a well-formed sentence");
    return;
  }
  std::vector<std::string> fields = Split(body, ',');
  if (fields[0] == "PFMDNL" && fields.size() == 3) {
    line.BeginReply();
    if (fields[2].empty()) {
      size_t flight = FindFlight(fields[1]);
      if (flight < starts_.size()) {
        StartBlocks(flight, line);
      } else {
        line.Note("   no flight starts at " + fields[1]);
      }
    } else {
      SendDump(fields[1], fields[2], line);
    }
  } else if (fields[0] == "PFMWPR") {
    StoreWaypoint(body, line);
  } else {
    line.Note("   ignored: unknown command");
  }
}

void FlymasterInstrument::SendList(Line& line) {
  size_t count = settings_.flights.size();
  for (size_t i = 0; i < count; ++i) {
    std::vector<Fix> fixes = ReadFixes(settings_.flights[i]);
    uint32_t first = fixes.empty() ? 0 : fixes.front().time;
    uint32_t duration = fixes.empty() ? 0 : fixes.back().time - first;
    std::string stamp = StartStamp(first);
    char fields[64];
    std::snprintf(fields, sizeof fields, "%.2s.%.2s.%.2s,%.2s:%.2s:%.2s,%02u:%02u:%02u", stamp.c_str() + 4,
                  stamp.c_str() + 2, stamp.c_str(), stamp.c_str() + 6, stamp.c_str() + 8, stamp.c_str() + 10,
                  duration / 3600 % 24, duration / 60 % 60, duration % 60);
    if (!line.Send(Sentence("PFMLST," + std::to_string(count) + "," + std::to_string(i) + "," + fields))) return;
  }
  line.Note("-> list of " + std::to_string(count) + " tracks");
}

void FlymasterInstrument::SendDump(const std::string& stamp, const std::string& mode, Line& line) {
  size_t flight = FindFlight(stamp);
  if (flight >= starts_.size() || (mode != "2" && mode != "4")) {
    line.Note("   no flight starts at " + stamp + " or unknown mode " + mode);
    return;
  }
  DumpOptions options;
  options.kind = mode == "4" ? DumpKind::k2xx : DumpKind::kPre202;
  options.family = std::atoi(Option(kFamily).c_str());
  std::string hardware = Option(kHardware);
  if (!hardware.empty()) options.hardware = static_cast<uint16_t>(std::atoi(hardware.c_str()));
  options.build = BuildNumber(settings_.firmware);
  options.pilot = settings_.pilot;
  std::string bytes = BuildDump(settings_.flights[flight], options).bytes;
  size_t blocks = bytes.size() / kBlockSize * kBlockSize;
  if (HasFault(kBadDumpChecksum)) bytes[blocks] = static_cast<char>(bytes[blocks] ^ 1);
  if (HasFault(kNoSignature) && options.kind == DumpKind::k2xx) bytes.pop_back();
  if (HasFault(kExtraByte) && options.kind == DumpKind::kPre202) bytes.push_back('\0');
  bool complete = line.Send(bytes);
  line.Note("-> dump of flight " + std::to_string(flight + 1) + " (" + std::to_string(bytes.size()) + " bytes)" +
            (complete ? "" : ", cut short: the program went away"));
}

void FlymasterInstrument::StartBlocks(size_t flight, Line& line) {
  BlockTransfer transfer = BuildBlockTransfer(settings_.flights[flight], settings_.model, settings_.pilot);
  blocks_ = transfer.blocks;
  auto first = [this](uint8_t type) {
    return std::find_if(blocks_.begin(), blocks_.end(), [type](const Block& b) { return b.type == type; });
  };
  auto key = first(kKey);
  auto track = first(kTrack);
  if (HasFault(kShortInfo)) blocks_[0].data.resize(62);
  if (HasFault(kShortKey) && key != blocks_.end()) key->data.resize(16);
  auto setValue = [](Block* block, size_t at, int32_t value) {
    std::string bytes;
    PutU32(&bytes, static_cast<uint32_t>(value));
    block->data.replace(at, 4, bytes);
  };
  if (HasFault(kBadLatitude) && key != blocks_.end()) setValue(&*key, 1, 5400001);
  if (HasFault(kBadLongitude) && key != blocks_.end()) setValue(&*key, 5, -10800001);
  if (HasFault(kOddTrackBlock) && track != blocks_.end()) track->data.push_back('\0');
  if (HasFault(kTrackFirst) && track != blocks_.end()) {
    Block copy = *track;
    blocks_.insert(blocks_.begin() + 1, copy);
  }
  if (HasFault(kNoInfo)) blocks_.erase(blocks_.begin());
  if (HasFault(kStall)) blocks_.resize(1);
  damageNext_ = HasFault(kBadBlockChecksum);
  nextBlock_ = 0;
  sending_ = true;
  if (blocks_.empty()) {
    sending_ = false;
    line.Send(std::string(2, static_cast<char>(kEnd)));
    return;
  }
  line.Note("-> block transfer of flight " + std::to_string(flight + 1) + " (" + std::to_string(blocks_.size()) +
            " blocks)");
  line.Send(Frame(blocks_[0].type, blocks_[0].data));
}

void FlymasterInstrument::Control(uint8_t byte, Line& line) {
  if (!sending_) {
    line.Note("   stray control byte");
    return;
  }
  if (byte == kAborted) {
    sending_ = false;
    line.Note("   transfer aborted by the program after block " + std::to_string(nextBlock_ + 1));
    return;
  }
  if (byte == kAccepted) ++nextBlock_;
  if (nextBlock_ >= blocks_.size()) {
    sending_ = false;
    if (HasFault(kStall)) return;
    line.Send(std::string(2, static_cast<char>(kEnd)));
    line.Note("-> end of transfer");
    return;
  }
  std::string frame = Frame(blocks_[nextBlock_].type, blocks_[nextBlock_].data);
  if (damageNext_ && blocks_[nextBlock_].type == kTrack && byte == kAccepted) {
    damageNext_ = false;
    frame.back() = static_cast<char>(frame.back() ^ 0x55);
    line.Note("   track block " + std::to_string(nextBlock_ + 1) + " sent with a wrong checksum");
  }
  line.Send(frame);
}

void FlymasterInstrument::SendWaypoints(Line& line) {
  bool flags = settings_.firmware >= "1.19";
  for (const SimWaypoint& w : settings_.waypoints) {
    char body[160];
    std::snprintf(body, sizeof body, "PFMWPL,%.6f,%c,%.6f,%c,%d,%s", std::fabs(w.latitude), w.latitude < 0 ? 'S' : 'N',
                  std::fabs(w.longitude), w.longitude < 0 ? 'W' : 'E', w.altitude,
                  (w.name.empty() ? w.id : w.name).c_str());
    std::string sentence = body;
    if (flags) sentence += "," + std::to_string(w.flag);
    if (!line.Send(Sentence(sentence))) return;
  }
  line.Note("-> " + std::to_string(settings_.waypoints.size()) + " waypoints");
}

void FlymasterInstrument::StoreWaypoint(const std::string& body, Line& line) {
  std::vector<std::string> f = Split(body, ',');
  // "$PFMWPR", position in four fields, an empty one, name, altitude, and
  // the mark ",1" where the firmware keeps marks.
  if (f.size() != 8 && !(f.size() == 9 && f[8] == "1")) {
    line.Note("   ignored: waypoint sentence with " + std::to_string(f.size()) + " fields");
    return;
  }
  size_t index = uploaded_.size();
  SimWaypoint w;
  w.latitude = ParseAngle(f[1], f[2], 'S');
  w.longitude = ParseAngle(f[3], f[4], 'W');
  w.name = TrimRight(f[6]);
  w.altitude = std::atoi(f[7].c_str());
  w.flag = f.size() == 9 ? 1 : 0;
  uploaded_.push_back(w);
  line.Note("   stored waypoint " + w.name);
  if (HasFaultFor(kNoAnswer, index)) return;
  usleep(kStoreDelay);
  std::string answer;
  if (olderModel_ && settings_.firmware == "1.14") {
    answer = "PFMWPR," + f[6];
  } else {
    std::string echo = Normalised(f[6]);
    if (HasFaultFor(kBadEcho, index)) echo[0] = echo[0] == 'X' ? 'Y' : 'X';
    answer = "PFMWPR," + std::string(HasFaultFor(kNak, index) ? "NAK" : "ACK") + "," + echo;
  }
  if (HasFaultFor(kWrongTag, index)) answer[5] = 'X';
  if (HasFaultFor(kShortAnswer, index)) answer = "PFMWPR";
  line.BeginReply();
  line.Send(Sentence(answer, HasFaultFor(kBadAnswer, index)));
}

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings) {
  return std::make_unique<FlymasterInstrument>(settings);
}

}  // namespace sim::flymaster
