#include "sim/mlr.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace sim::mlr {

const char kFaultHelp[] =
    "five-fields, gps-clock, utc-clock, stray-frame, double-start, skip-sequence, point-zero, count-28, mute";

namespace {

constexpr size_t kCommandLimit = 200;
constexpr char kIdentify[] = "$PMLR,26,01,01,0339";
constexpr char kTrack[] = "$PMLR,24,02,0101,0399";
constexpr char kStop[] = "$PMLR,06,00,02A9";
constexpr int32_t kTrackSpeed = 38400;
// How long the instrument waits for the program to switch speeds, in
// microseconds: the program's own wait counts processor time, which on a
// busy machine takes longer on the wall clock.
constexpr uint64_t kSpeedWait = 10000000;
constexpr double kArcsPerThousandth = 198.8410785185;
constexpr uint32_t kClockAhead = 14;

int Number(const std::string& text, size_t at, size_t width) {
  int value = 0;
  for (size_t i = at; i < at + width; ++i) {
    if (i >= text.size() || text[i] < '0' || text[i] > '9') return -1;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

bool IsLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// GPS time of 00:00:00 on the date; day 0 is 31 December 1989.
uint32_t GpsMidnight(int year, int month, int day) {
  static const int kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  uint32_t days = 1;
  for (int y = 1990; y < year; ++y) days += IsLeap(y) ? 366 : 365;
  for (int m = 1; m < month; ++m) days += static_cast<uint32_t>(kMonthDays[m - 1] + (m == 2 && IsLeap(year) ? 1 : 0));
  days += static_cast<uint32_t>(day - 1);
  return days * 86400u;
}

// Thousandths of a minute, signed, as arcs rounded half away from zero.
int32_t Arcs(int degrees, int thousandths, bool negative) {
  double value = std::round((degrees * 60000.0 + thousandths) * kArcsPerThousandth);
  return static_cast<int32_t>(negative ? -value : value);
}

void Put(std::string* out, uint32_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) *out += static_cast<char>(value >> (8 * i) & 0xFFu);
}

}  // namespace

std::vector<Fix> ReadFixes(const std::string& igc) {
  std::vector<Fix> fixes;
  std::istringstream in(igc);
  std::string line;
  uint32_t midnight = 0;
  int previousSecond = -1;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.rfind("HFDTE", 0) == 0) {
      size_t at = line.compare(5, 5, "DATE:") == 0 ? 10 : 5;
      int day = Number(line, at, 2), month = Number(line, at + 2, 2), year = Number(line, at + 4, 2);
      if (day > 0 && month > 0 && year >= 0) midnight = GpsMidnight(2000 + year, month, day);
      continue;
    }
    if (line.size() < 35 || line[0] != 'B') continue;
    int second = Number(line, 1, 2) * 3600 + Number(line, 3, 2) * 60 + Number(line, 5, 2);
    if (previousSecond >= 0 && previousSecond >= second + 3600) midnight += 86400;
    previousSecond = second;
    Fix fix;
    fix.gpsTime = midnight + static_cast<uint32_t>(second);
    fix.latitude = Arcs(Number(line, 7, 2), Number(line, 9, 5), line[14] == 'S');
    fix.longitude = Arcs(Number(line, 15, 3), Number(line, 18, 5), line[23] == 'W');
    fix.altitude = static_cast<int32_t>(std::strtol(line.substr(30, 5).c_str(), nullptr, 10)) * 10;
    fixes.push_back(fix);
  }
  return fixes;
}

std::string Frame(uint8_t sequence, const std::string& body) {
  std::string frame = "\x8B";
  frame += static_cast<char>(sequence);
  frame += "T\x01";
  frame += body;
  uint16_t sum = 0;
  for (unsigned char c : frame) sum = static_cast<uint16_t>(sum + c);
  Put(&frame, sum, 2);
  return frame + "\r\n";
}

MlrInstrument::MlrInstrument(InstrumentSettings settings) : settings_(std::move(settings)) {
  if (settings_.model.empty()) settings_.model = "SP24XC";
  if (settings_.firmware.empty()) settings_.firmware = "2.70";
  if (settings_.serial.empty()) settings_.serial = "0304000348";
}

bool MlrInstrument::HasFault(const char* name) const {
  for (const std::string& f : settings_.faults) {
    if (f == name) return true;
  }
  return false;
}

bool MlrInstrument::ClockAhead() const {
  if (HasFault(kGpsClock)) return true;
  if (HasFault(kUtcClock)) return false;
  // The SP24 firmware before 2.72, and the test releases numbered 9.90 and
  // up, kept GPS time in their logs.
  if (settings_.model.rfind("SP24", 0) != 0) return false;
  std::vector<std::string> parts = Split(settings_.firmware, '.');
  int major = std::atoi(parts.empty() ? "0" : parts[0].c_str());
  int minor = parts.size() > 1 ? std::atoi(parts[1].c_str()) : 0;
  if (parts.size() > 1 && parts[1].size() == 1) minor *= 10;
  int version = major * 100 + minor;
  return version <= 271 || version >= 990;
}

std::string MlrInstrument::Transfer() const {
  std::vector<Fix> fixes = settings_.flights.empty() ? std::vector<Fix>{} : ReadFixes(settings_.flights[0]);
  uint32_t ahead = ClockAhead() ? kClockAhead : 0;
  std::string transfer;
  uint8_t sequence = kFirstSequence;
  if (HasFault(kStrayFrame)) {
    std::string body(1, '\0');
    body += '\x01';
    Put(&body, 999, 2);
    body += std::string(16, '\x7F');
    transfer += Frame(17, body);
  }
  transfer += Frame(sequence, "DEBUT");
  if (HasFault(kDoubleStart)) transfer += Frame(++sequence, "DEBUT");
  uint32_t number = HasFault(kPointZero) ? 0 : 1;
  for (size_t first = 0, frames = 0; first < fixes.size(); first += kRecordsPerFrame, ++frames) {
    size_t count = std::min<size_t>(kRecordsPerFrame, fixes.size() - first);
    std::string body(1, '\0');
    body += static_cast<char>(frames == 0 && HasFault(kCount28) ? 28 : count);
    for (size_t i = first; i < first + count; ++i) {
      const Fix& f = fixes[i];
      Put(&body, number++, 2);
      Put(&body, f.gpsTime + kClockOffset + ahead, 4);
      Put(&body, static_cast<uint32_t>(f.latitude), 4);
      Put(&body, static_cast<uint32_t>(f.longitude), 4);
      Put(&body, static_cast<uint32_t>(f.altitude), 3);
      body += static_cast<char>(i == 0 ? 1 : 0);
    }
    sequence = static_cast<uint8_t>(sequence + (frames == 1 && HasFault(kSkipSequence) ? 2 : 1));
    transfer += Frame(sequence, body);
  }
  transfer += Frame(++sequence, "FIN");
  return transfer;
}

void MlrInstrument::Receive(uint8_t byte, Line& line) {
  if (byte != '\n') {
    if (pending_.size() < kCommandLimit) pending_ += static_cast<char>(byte);
    return;
  }
  std::string command;
  command.swap(pending_);
  if (!command.empty() && command.back() == '\r') command.pop_back();
  commands_.push_back(command);
  speeds_.push_back(line.Speed());
  line.Note("<- " + command + " at " + std::to_string(speeds_.back()) + " baud");
  if (!HasFault(kMute)) Answer(command, line);
}

void MlrInstrument::Answer(const std::string& command, Line& line) {
  if (command == kIdentify) {
    std::string body = "PMLR,IDGPS,01," + settings_.model + "," + settings_.serial + ",VL1," + settings_.firmware;
    if (HasFault(kFiveFields)) body += ",21/01/02";
    char tail[8];
    std::snprintf(tail, sizeof tail, "*%02X\r\n", NmeaChecksum(body));
    line.BeginReply();
    line.Send("$" + body + tail);
    line.Note("-> identification " + settings_.model + " " + settings_.firmware);
  } else if (command == kTrack) {
    // The instrument sends at the higher speed only: wait for the program
    // to switch its end of the line.
    uint64_t start = NowMicros();
    while (line.Speed() != kTrackSpeed && !line.Stopping() && NowMicros() - start < kSpeedWait) usleep(5000);
    line.Note("   sending at " + std::to_string(line.Speed()) + " baud");
    line.BeginReply();
    std::string transfer = Transfer();
    bool complete = line.Send(transfer);
    line.Note("-> track (" + std::to_string(transfer.size()) + " bytes)" + (complete ? "" : ", cut short"));
  } else if (command == kStop) {
    line.Note("   stopped");
  } else {
    line.Note("   ignored: unknown command");
  }
}

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings) {
  return std::make_unique<MlrInstrument>(settings);
}

}  // namespace sim::mlr
