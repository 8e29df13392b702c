#include "sim/iqbasic.h"

#include <cstdio>
#include <cstdlib>

namespace sim::iqbasic {

const char kFaultHelp[] = "odd-serial, odd-type, odd-version";

namespace {

constexpr size_t kCommandLimit = 200;
constexpr char kListCommand[] = "ACT_20_  ";
constexpr char kFlightCommand[] = "ACT_21_";

std::string Clock(int32_t seconds) {
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", seconds / 3600 % 100, seconds / 60 % 60, seconds % 60);
  return text;
}

// The value's bytes, least significant first, as hexadecimal pairs; at
// least one pair.
std::string LittleEndianHex(uint32_t value) {
  std::string text;
  do {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02X", value & 0xFFu);
    text += pair;
    value >>= 8;
  } while (value != 0);
  return text;
}

}  // namespace

uint32_t VersionNumber(const std::string& text) {
  std::vector<std::string> parts = Split(text, '.');
  uint32_t value = 0;
  const uint32_t weights[] = {1000, 100, 1};
  for (size_t i = 0; i < parts.size() && i < 3; ++i) {
    value += static_cast<uint32_t>(std::strtoul(parts[i].c_str(), nullptr, 10)) * weights[i];
  }
  return value;
}

IqBasicInstrument::IqBasicInstrument(InstrumentSettings settings) : settings_(std::move(settings)) {
  if (settings_.model.empty()) settings_.model = "IQ-BASIC";
  if (settings_.firmware.empty()) settings_.firmware = "1.3.07";
  if (settings_.serial.empty()) settings_.serial = "7489";
}

bool IqBasicInstrument::HasFault(const char* name) const {
  for (const std::string& f : settings_.faults) {
    if (f == name) return true;
  }
  return false;
}

std::string IqBasicInstrument::ListLine(size_t index) const {
  FlightSummary s = SummarizeFlight(settings_.flights.at(index));
  char date[16];
  std::snprintf(date, sizeof date, "%02d.%02d.%02d", s.day % 100, s.month % 100, s.year % 100);
  int32_t duration = s.lastSecond - s.firstSecond;
  if (duration < 0) duration += 86400;
  return std::to_string(index) + ";" + date + ";" + Clock(s.firstSecond < 0 ? 0 : s.firstSecond) + ";" +
         Clock(duration);
}

std::string IqBasicInstrument::ValueAnswer(int number, uint32_t value, const char* fault) const {
  std::string hex = LittleEndianHex(value);
  if (HasFault(fault)) hex += "0";
  return "RPA_0" + std::to_string(number) + "_" + hex + "\r\n";
}

void IqBasicInstrument::Receive(uint8_t byte, Line& line) {
  if (byte != '\n') {
    if (pending_.size() < kCommandLimit) pending_ += static_cast<char>(byte);
    return;
  }
  std::string command;
  command.swap(pending_);
  if (!command.empty() && command.back() == '\r') command.pop_back();
  commands_.push_back(command);
  line.Note("<- " + command);
  Answer(command, line);
}

void IqBasicInstrument::Answer(const std::string& command, Line& line) {
  if (command == "RPA_00" || command == "RPA_01" || command == "RPA_02") {
    line.BeginReply();
    if (command == "RPA_00") {
      line.Send(ValueAnswer(0, static_cast<uint32_t>(std::strtoul(settings_.serial.c_str(), nullptr, 10)), kOddSerial));
    } else if (command == "RPA_01") {
      line.Send(ValueAnswer(1, settings_.model == "6015" ? 0 : 1, kOddType));
    } else {
      line.Send(ValueAnswer(2, VersionNumber(settings_.firmware), kOddVersion));
    }
  } else if (command == kListCommand) {
    line.BeginReply();
    for (size_t i = 0; i < settings_.flights.size(); ++i) {
      if (!line.Send(ListLine(i) + "\r\n")) return;
    }
    line.Note("-> list of " + std::to_string(settings_.flights.size()) + " flights");
  } else if (command.rfind(kFlightCommand, 0) == 0 && command.size() == 9) {
    line.BeginReply();
    char* end = nullptr;
    size_t index = std::strtoul(command.c_str() + 7, &end, 16);
    if (*end != '\0' || index >= settings_.flights.size()) {
      line.Note("   no flight " + command.substr(7));
      return;
    }
    bool complete = line.Send(settings_.flights[index]);
    line.Note("-> flight " + std::to_string(index) + (complete ? "" : ", cut short: the program went away"));
  } else {
    line.Note("   ignored: unknown command");
  }
}

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings) {
  return std::make_unique<IqBasicInstrument>(settings);
}

}  // namespace sim::iqbasic
