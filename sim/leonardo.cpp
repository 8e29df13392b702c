#include "sim/leonardo.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>

namespace sim::leonardo {

const char kFaultHelp[] = "bad-checksum, bad-block-checksum, short-block, no-fix, mute";

namespace {

constexpr size_t kCommandLimit = 200;
constexpr double kPi = 3.14159265358979323846;
constexpr uint8_t kErased = 0xFF;
// Nine satellites in the control byte.
constexpr uint8_t kControl = 3 << 1;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The body of a well-formed "$...*HH" command, or false.
bool CheckCommand(const std::string& command, std::string* body) {
  size_t star = command.find('*');
  if (command.empty() || command[0] != '$' || star == std::string::npos || star + 3 != command.size()) return false;
  int high = HexValue(command[star + 1]), low = HexValue(command[star + 2]);
  if (high < 0 || low < 0 || NmeaChecksum(command) != high * 16 + low) return false;
  *body = command.substr(1, star - 1);
  return true;
}

bool ParseCount(const std::string& text, int64_t* value) {
  if (text.empty() || text.size() > 9) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  *value = std::atoll(text.c_str());
  return true;
}

bool IsLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// Days from 1980-01-06 to the date.
int64_t DaysFromEpoch(int year, int month, int day) {
  static const int kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  int64_t days = 0;
  for (int y = 1980; y < year; ++y) days += IsLeap(y) ? 366 : 365;
  for (int m = 1; m < month; ++m) days += kMonthDays[m - 1] + (m == 2 && IsLeap(year) ? 1 : 0);
  return days + day - 1 - 5;
}

bool Digits(const std::string& line, size_t at, size_t count, int* value) {
  if (at + count > line.size()) return false;
  int v = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (line[i] < '0' || line[i] > '9') return false;
    v = v * 10 + (line[i] - '0');
  }
  *value = v;
  return true;
}

bool SignedField(const std::string& line, size_t at, size_t count, int32_t* value) {
  if (at + count > line.size()) return false;
  std::string field = line.substr(at, count);
  char* end = nullptr;
  long v = std::strtol(field.c_str(), &end, 10);
  if (end == field.c_str() || *end != '\0') return false;
  *value = static_cast<int32_t>(v);
  return true;
}

void Put32(uint8_t* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
}

void PutFloat(uint8_t* out, float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, sizeof bits);
  Put32(out, bits);
}

void Put16(uint8_t* out, int32_t v) {
  if (v > 32767) v = 32767;
  if (v < -32768) v = -32768;
  uint16_t u = static_cast<uint16_t>(static_cast<int16_t>(v));
  out[0] = static_cast<uint8_t>(u >> 8);
  out[1] = static_cast<uint8_t>(u);
}

uint8_t ClampByte(double v) { return v <= 0 ? 0 : v >= 255 ? 255 : static_cast<uint8_t>(std::lround(v)); }

std::string Hex(const uint8_t* bytes, size_t count) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(2 * count);
  for (size_t i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

}  // namespace

std::vector<Fix> ReadFixes(const std::string& igc) {
  std::vector<Fix> fixes;
  FlightSummary summary = SummarizeFlight(igc);
  if (summary.year == 0) return fixes;
  const int64_t date = DaysFromEpoch(2000 + summary.year, summary.month, summary.day) * 86400;
  int64_t dayOffset = 0;
  int32_t previous = -1;
  std::istringstream in(igc);
  std::string line;
  while (std::getline(in, line)) {
    if (line.size() < 35 || line[0] != 'B') continue;
    int h, m, s, latD, latM, latT, lonD, lonM, lonT;
    int32_t pressure, gnss;
    if (!Digits(line, 1, 2, &h) || !Digits(line, 3, 2, &m) || !Digits(line, 5, 2, &s) ||
        !Digits(line, 7, 2, &latD) || !Digits(line, 9, 2, &latM) || !Digits(line, 11, 3, &latT) ||
        !Digits(line, 15, 3, &lonD) || !Digits(line, 18, 2, &lonM) || !Digits(line, 20, 3, &lonT) ||
        !SignedField(line, 25, 5, &pressure) || !SignedField(line, 30, 5, &gnss)) {
      continue;
    }
    int32_t second = h * 3600 + m * 60 + s;
    // Only a step back of an hour or more is a new day.
    if (previous >= 0 && previous >= second + 3600) dayOffset += 86400;
    previous = second;
    Fix fix;
    fix.time = static_cast<uint32_t>(date + dayOffset + second);
    fix.latitude = (latD + (latM + latT / 1000.0) / 60.0) * kPi / 180.0 * (line[14] == 'S' ? -1 : 1);
    fix.longitude = (lonD + (lonM + lonT / 1000.0) / 60.0) * kPi / 180.0 * (line[23] == 'W' ? -1 : 1);
    fix.pressureAltitude = pressure;
    fix.gnssAltitude = gnss;
    fixes.push_back(fix);
  }
  return fixes;
}

LeonardoInstrument::LeonardoInstrument(InstrumentSettings settings) : settings_(std::move(settings)) {
  if (settings_.model.empty()) settings_.model = "DIGIFLY AIR BT";
  if (settings_.firmware.empty()) settings_.firmware = "141a-012";
  if (settings_.serial.empty()) settings_.serial = "10394";
  if (settings_.pilot.empty() && !settings_.flights.empty()) {
    settings_.pilot = SummarizeFlight(settings_.flights[0]).pilot;
  }
  if (settings_.pilot.empty()) settings_.pilot = "Test Pilot";
  Build();
}

bool LeonardoInstrument::HasFault(const char* name) const {
  for (const std::string& f : settings_.faults) {
    if (f == name) return true;
  }
  return false;
}

// Lays the flights out oldest first after a few erased records; records
// never straddle a block. Newer flights take precedence when memory runs out.
void LeonardoInstrument::Build() {
  const bool withoutQnh = !settings_.firmware.empty() && settings_.firmware[0] == '4';
  std::vector<std::vector<Fix>> flights;
  int64_t total = kLeadingErasedRecords;
  for (const std::string& igc : settings_.flights) {
    std::vector<Fix> fixes = ReadFixes(igc);
    if (fixes.empty()) continue;
    if (total + static_cast<int64_t>(fixes.size()) > int64_t{kBlocks} * kRecordsPerBlock) break;
    total += static_cast<int64_t>(fixes.size());
    flights.push_back(std::move(fixes));
  }
  int32_t blocks = static_cast<int32_t>((total + kRecordsPerBlock - 1) / kRecordsPerBlock);
  memory_.assign(static_cast<size_t>(blocks) * kBlockSize, kErased);
  int32_t record = kLeadingErasedRecords;
  for (auto f = flights.rbegin(); f != flights.rend(); ++f) {
    stored_.push_back(StoredFlight{f->front().time, f->back().time, record, static_cast<int32_t>(f->size())});
    for (size_t i = 0; i < f->size(); ++i, ++record) {
      const Fix& fix = (*f)[i];
      uint8_t* r = memory_.data() + static_cast<size_t>(record / kRecordsPerBlock) * kBlockSize +
                   static_cast<size_t>(record % kRecordsPerBlock) * kRecordSize;
      float latitude = static_cast<float>(fix.latitude), longitude = static_cast<float>(fix.longitude);
      if (HasFault(kNoFix) && i % 10 == 9) {
        // A position missing three ways: erased, zero, beyond the pole.
        switch (i / 10 % 3) {
          case 0:
            latitude = longitude = std::numeric_limits<float>::quiet_NaN();
            break;
          case 1:
            latitude = longitude = 0.0f;
            break;
          default:
            latitude = 2.0f;
            break;
        }
      }
      const Fix* before = i > 0 ? &(*f)[i - 1] : nullptr;
      double seconds = before != nullptr && fix.time > before->time ? fix.time - before->time : 0;
      double vario = seconds > 0 ? (fix.gnssAltitude - before->gnssAltitude) * 10.0 / seconds : 0;
      double speed = 0;
      if (seconds > 0) {
        double dLat = fix.latitude - before->latitude;
        double dLon = (fix.longitude - before->longitude) * std::cos(fix.latitude);
        speed = std::sqrt(dLat * dLat + dLon * dLon) * 6371000.0 / seconds * 3.6;
      }
      r[0] = kControl;
      Put32(r + 1, fix.time);
      PutFloat(r + 5, latitude);
      PutFloat(r + 9, longitude);
      Put16(r + 13, fix.pressureAltitude);
      Put16(r + 15, static_cast<int32_t>(std::lround(vario)));
      r[17] = 0;  // no airspeed sensor
      r[18] = ClampByte(speed);
      // 4.x firmware keeps a tracking counter where QNH was.
      Put16(r + 19, withoutQnh ? static_cast<int32_t>(i & 0x7FFF) : fix.pressureAltitude + 25);
      Put16(r + 21, fix.gnssAltitude);
    }
  }
}

std::string LeonardoInstrument::Sentence(const std::string& body, bool block) const {
  unsigned checksum = NmeaChecksum(body);
  if (HasFault(kBadChecksum) || (block && HasFault(kBadBlockChecksum))) checksum = (checksum + 1) & 0xFF;
  char tail[8];
  std::snprintf(tail, sizeof tail, "*%02X\r\n", checksum);
  return "$" + body + tail;
}

std::string LeonardoInstrument::ListBody() const {
  std::string entries;
  for (const StoredFlight& f : stored_) {
    int32_t last = f.firstRecord + f.records - 1;
    uint8_t e[14];
    Put32(e, f.takeoff);
    e[4] = static_cast<uint8_t>(f.firstRecord / kRecordsPerBlock);
    int32_t start = f.firstRecord % kRecordsPerBlock * kRecordSize;
    e[5] = static_cast<uint8_t>(start >> 8);
    e[6] = static_cast<uint8_t>(start);
    Put32(e + 7, f.landing);
    e[11] = static_cast<uint8_t>(last / kRecordsPerBlock);
    int32_t end = last % kRecordsPerBlock * kRecordSize + kRecordSize - 1;
    e[12] = static_cast<uint8_t>(end >> 8);
    e[13] = static_cast<uint8_t>(end);
    entries += Hex(e, sizeof e);
  }
  return "PDGFFLL," + std::to_string(stored_.size()) + "," + entries;
}

void LeonardoInstrument::Receive(uint8_t byte, Line& line) {
  if (byte != '\n') {
    if (pending_.size() < kCommandLimit) pending_ += static_cast<char>(byte);
    return;
  }
  std::string command;
  command.swap(pending_);
  if (!command.empty() && command.back() == '\r') command.pop_back();
  if (command.empty()) return;  // a stray line feed
  commands_.push_back(Command{NowMicros(), command});
  line.Note("<- " + command);
  if (!HasFault(kMute)) Answer(command, line);
}

void LeonardoInstrument::Answer(const std::string& command, Line& line) {
  std::string body;
  if (!CheckCommand(command, &body)) {
    line.Note("   ignored: not a well-formed sentence");
    return;
  }
  std::vector<std::string> fields = Split(body, ',');
  const std::string word = fields.empty() ? "" : fields[0];
  if (word == "PDGFVID" && fields.size() == 1) {
    line.BeginReply();
    line.Send(Sentence("PDGFVID," + settings_.model + "," + settings_.firmware + "," + settings_.serial + "," +
                       settings_.pilot));
    line.Note("-> identification " + settings_.model + " " + settings_.firmware);
  } else if (word == "PDGFFLL" && fields.size() == 1) {
    line.BeginReply();
    line.Send(Sentence(ListBody()));
    line.Note("-> list of " + std::to_string(stored_.size()) + " flights");
  } else if (word == "PDGFRMM") {
    SendBlock(fields, line);
  } else {
    line.Note("   ignored: unknown command");
  }
}

void LeonardoInstrument::SendBlock(const std::vector<std::string>& fields, Line& line) {
  int64_t block = 0, start = 0, stop = 0;
  if (fields.size() != 5 || fields[1] != "2" || !ParseCount(fields[2], &block) || !ParseCount(fields[3], &start) ||
      !ParseCount(fields[4], &stop) || block >= kBlocks || start > stop || stop > kBlockSize) {
    line.Note("   ignored: not a block read this instrument knows");
    return;
  }
  line.BeginReply();
  if (HasFault(kShortBlock)) stop = stop - kRecordSize < start ? start : stop - kRecordSize;
  std::vector<uint8_t> bytes(static_cast<size_t>(stop - start), kErased);
  size_t base = static_cast<size_t>(block) * kBlockSize + static_cast<size_t>(start);
  for (size_t i = 0; i < bytes.size() && base + i < memory_.size(); ++i) bytes[i] = memory_[base + i];
  bool complete = line.Send(Sentence("PDGFRMM," + Hex(bytes.data(), bytes.size()), true));
  line.Note("-> block " + std::to_string(block) + " (" + std::to_string(bytes.size()) + " bytes)" +
            (complete ? "" : ", cut short: the program went away"));
}

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings) {
  return std::make_unique<LeonardoInstrument>(settings);
}

}  // namespace sim::leonardo
