#include "sim/galileo.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace sim::galileo {

const char kFaultHelp[] =
    "lower-case-checksum, bad-checksum, no-a-record, bad-record-type, long-line, mute";

namespace {

constexpr size_t kCommandLimit = 200;

std::string Clock(int32_t seconds) {
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", seconds / 3600 % 100, seconds / 60 % 60, seconds % 60);
  return text;
}

// "DDMM.mmm" or "DDDMM.mmm" and the hemisphere letter.
std::string Angle(double degrees, int degreeDigits, char positive, char negative) {
  long thousandths = std::lround(std::fabs(degrees) * 60000.0);
  char text[32];
  std::snprintf(text, sizeof text, "%0*ld%02ld.%03ld,%c", degreeDigits, thousandths / 60000, thousandths / 1000 % 60,
                thousandths % 1000, degrees < 0 ? negative : positive);
  return text;
}

}  // namespace

FlytecInstrument::FlytecInstrument(InstrumentSettings settings) : settings_(std::move(settings)) {
  if (settings_.model.empty()) settings_.model = "COMPEO+";
  if (settings_.firmware.empty()) settings_.firmware = "3.25";
  if (settings_.serial.empty()) settings_.serial = "00565";
  if (settings_.pilot.empty() && !settings_.flights.empty()) {
    settings_.pilot = SummarizeFlight(settings_.flights[0]).pilot;
  }
  if (settings_.pilot.empty()) settings_.pilot = "Test Pilot";
}

bool FlytecInstrument::HasFault(const char* name) const {
  for (const std::string& f : settings_.faults) {
    if (f == name) return true;
  }
  return false;
}

std::string FlytecInstrument::Sentence(const std::string& body) const {
  unsigned checksum = NmeaChecksum(body);
  if (HasFault(kBadChecksum)) checksum = (checksum + 1) & 0xFF;
  char tail[8];
  std::snprintf(tail, sizeof tail, HasFault(kLowerCaseChecksum) ? "*%02x\r\n" : "*%02X\r\n", checksum);
  return "$" + body + tail;
}

std::string FlytecInstrument::ServedFlight(size_t index) const {
  const std::string& stored = settings_.flights.at(index);
  bool damaged = HasFault(kNoARecord) || HasFault(kBadRecordType) || HasFault(kLongLine);
  if (!damaged) return stored;
  std::string end = stored.find("\r\n") != std::string::npos ? "\r\n" : "\n";
  std::string served;
  std::istringstream in(stored);
  std::string line;
  bool afterA = false;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    bool isA = !afterA && !line.empty() && line[0] == 'A';
    if (!(isA && HasFault(kNoARecord))) served += line + end;
    if (isA) {
      afterA = true;
      if (HasFault(kBadRecordType)) served += "xDAMAGED" + end;
      if (HasFault(kLongLine)) served += "L" + std::string(100, 'X') + end;
    }
  }
  return served;
}

void FlytecInstrument::Receive(uint8_t byte, Line& line) {
  if (byte == 0x11 || byte == 0x13) return;
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

void FlytecInstrument::Answer(const std::string& command, Line& line) {
  std::string body;
  if (!CommandBody(command, &body)) {
    line.Note("   ignored: not a well-formed sentence");
    return;
  }
  std::vector<std::string> fields = Split(body, ',');
  const std::string word = fields.empty() ? "" : fields[0];
  if (word == "PBRSNP") {
    line.BeginReply();
    line.Send(Sentence("PBRSNP," + settings_.model + "," + settings_.pilot + "," + settings_.serial + "," +
                       settings_.firmware));
    line.Note("-> product " + settings_.model + " " + settings_.firmware);
  } else if (word == "PBRTL") {
    line.BeginReply();
    SendList(line);
  } else if (word == "PBRIGC") {
    line.BeginReply();
    SendFlight(0, line);
  } else if (word == "PBRTR" && fields.size() == 2) {
    line.BeginReply();
    SendFlight(static_cast<size_t>(std::atoi(fields[1].c_str())), line);
  } else if (word == "PBRWPS") {
    line.BeginReply();
    SendWaypoints(line);
  } else if (word == "PBRWPR") {
    StoreWaypoint(body, line);
  } else {
    line.Note("   ignored: unknown command");
  }
}

void FlytecInstrument::SendList(Line& line) {
  size_t count = settings_.flights.size();
  for (size_t i = 0; i < count; ++i) {
    FlightSummary s = SummarizeFlight(settings_.flights[i]);
    char date[16];
    std::snprintf(date, sizeof date, "%02d.%02d.%02d", s.day % 100, s.month % 100, s.year % 100);
    int32_t duration = s.lastSecond - s.firstSecond;
    if (duration < 0) duration += 86400;
    std::string body = "PBRTL," + std::to_string(count) + "," + std::to_string(i) + "," + date + "," +
                       Clock(s.firstSecond < 0 ? 0 : s.firstSecond) + "," + Clock(duration);
    if (!line.Send(Sentence(body))) return;
  }
  line.Note("-> list of " + std::to_string(count) + " flights");
}

void FlytecInstrument::SendFlight(size_t index, Line& line) {
  if (index >= settings_.flights.size()) {
    line.Note("   no flight " + std::to_string(index + 1));
    return;
  }
  std::string flight = ServedFlight(index);
  bool complete = line.Send(flight);
  line.Note("-> flight " + std::to_string(index + 1) + " (" + std::to_string(flight.size()) + " bytes)" +
            (complete ? "" : ", cut short: the program went away"));
}

void FlytecInstrument::SendWaypoints(Line& line) {
  for (const SimWaypoint& w : settings_.waypoints) {
    int32_t altitude = w.altitude < -9999 ? -9999 : w.altitude > 99999 ? 99999 : w.altitude;
    std::string body = "PBRWPS," + Angle(w.latitude, 2, 'N', 'S') + "," + Angle(w.longitude, 3, 'E', 'W') + "," +
                       w.id.substr(0, 6) + "," + w.name.substr(0, 17) + "," + std::to_string(altitude);
    if (!line.Send(Sentence(body))) return;
  }
  line.Note("-> " + std::to_string(settings_.waypoints.size()) + " waypoints");
}

void FlytecInstrument::StoreWaypoint(const std::string& body, Line& line) {
  std::vector<std::string> f = Split(body, ',');
  if (f.size() != 8) {
    line.Note("   ignored: waypoint sentence with " + std::to_string(f.size()) + " fields");
    return;
  }
  SimWaypoint w;
  w.latitude = ParseAngle(f[1], f[2], 'S');
  w.longitude = ParseAngle(f[3], f[4], 'W');
  w.id = f[5];
  w.name = TrimRight(f[6]);
  w.altitude = std::atoi(f[7].c_str());
  settings_.waypoints.push_back(w);
  line.Note("   stored waypoint " + w.name);
}

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings) {
  return std::make_unique<FlytecInstrument>(settings);
}

}  // namespace sim::galileo
