#include "sim/ascent.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace sim::ascent {

const char kFaultHelp[] = "first-block-2, skip-block, reversed-ids, no-section-1";

namespace {

constexpr char kProductRequest = 0x01;
constexpr char kTwoByteRequest = 0x03;
constexpr char kListRequest = 0x05;
constexpr char kPacketRequest = 0x08;

void PutWord(std::string* out, size_t at, uint32_t value) {
  (*out)[at] = static_cast<char>(value >> 8 & 0xFFu);
  (*out)[at + 1] = static_cast<char>(value & 0xFFu);
}

bool IsHeaderLine(const std::string& line) {
  return !line.empty() && (line[0] == 'A' || line[0] == 'H' || line[0] == 'I');
}

std::string Hex(const std::string& bytes) {
  std::string text;
  for (unsigned char c : bytes) {
    char pair[4];
    std::snprintf(pair, sizeof pair, "%02X ", c);
    text += pair;
  }
  if (!text.empty()) text.pop_back();
  return text;
}

}  // namespace

std::vector<std::string> PacketTexts(const std::string& section) {
  std::vector<std::string> packets;
  std::string current;
  size_t at = 0;
  while (at < section.size()) {
    size_t end = section.find('\n', at);
    end = end == std::string::npos ? section.size() : end + 1;
    std::string line = section.substr(at, end - at);
    at = end;
    if (!current.empty() && current.size() + line.size() > kPacketText) {
      packets.push_back(current);
      current.clear();
    }
    // A line longer than a packet cannot stay whole.
    while (line.size() > kPacketText) {
      packets.push_back(line.substr(0, kPacketText));
      line.erase(0, kPacketText);
    }
    current += line;
  }
  if (!current.empty() || packets.empty()) packets.push_back(current);
  return packets;
}

AscentInstrument::AscentInstrument(InstrumentSettings settings) : settings_(std::move(settings)) {
  if (settings_.model.empty()) settings_.model = "Ascent";
  if (settings_.firmware.empty()) settings_.firmware = "2368";
  if (settings_.serial.empty()) settings_.serial = "1A2B3C4D";
}

bool AscentInstrument::HasFault(const char* name) const {
  for (const std::string& f : settings_.faults) {
    if (f == name) return true;
  }
  return false;
}

uint16_t AscentInstrument::TrackId(size_t index) const {
  size_t count = settings_.flights.size();
  return static_cast<uint16_t>(HasFault(kReversedIds) ? count - index : index + 1);
}

std::vector<std::string> AscentInstrument::Sections(size_t index) const {
  std::vector<std::string> sections(5);
  if (!HasFault(kNoSectionOne)) sections[0] = settings_.model + " " + settings_.serial + "\n";
  std::vector<std::string> lines;
  std::istringstream in(settings_.flights.at(index));
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line + "\n");
  }
  size_t body = 0;
  while (body < lines.size() && IsHeaderLine(lines[body])) ++body;
  size_t security = lines.size();
  while (security > body && lines[security - 1][0] == 'G') --security;
  // The last section must not be empty: without a security record the
  // flight's last line goes there.
  if (security == lines.size() && security > body) --security;
  for (size_t i = 0; i < lines.size(); ++i) sections[i < body ? 1 : i < security ? 2 : 3] += lines[i];
  return sections;
}

std::string AscentInstrument::ListMessage(size_t index, uint16_t block) const {
  std::string m(15, '\0');
  m[0] = 0x05;
  PutWord(&m, 1, block);
  size_t count = settings_.flights.size();
  PutWord(&m, 4, static_cast<uint32_t>(count));
  if (index >= count) return m;
  FlightSummary s = SummarizeFlight(settings_.flights[index]);
  PutWord(&m, 6, TrackId(index));
  int32_t start = s.firstSecond < 0 ? 0 : s.firstSecond;
  m[8] = static_cast<char>(start / 3600);
  m[9] = static_cast<char>(start / 60 % 60);
  m[10] = static_cast<char>(s.day);
  m[11] = static_cast<char>(s.month);
  m[12] = static_cast<char>(s.year % 100);
  int32_t duration = s.lastSecond - s.firstSecond;
  if (duration < 0) duration += 86400;
  PutWord(&m, 13, static_cast<uint32_t>(duration / 60));
  return m;
}

void AscentInstrument::Receive(uint8_t byte, Line& line) {
  pending_ += static_cast<char>(byte);
  const std::string& p = pending_;
  bool complete = p[0] == kProductRequest || (p.size() == 2 && p[1] == kListRequest) ||
                  (p.size() == 5 && p[1] == kPacketRequest);
  bool unknown = (p[0] != kProductRequest && p[0] != kTwoByteRequest) ||
                 (p.size() == 2 && p[1] != kListRequest && p[1] != kPacketRequest);
  if (unknown) {
    line.Note("   ignored: " + Hex(p));
    pending_.clear();
    return;
  }
  if (!complete) return;
  std::string request;
  request.swap(pending_);
  requests_.push_back(request);
  line.Note("<- " + Hex(request));
  Answer(request, line);
}

void AscentInstrument::Answer(const std::string& request, Line& line) {
  line.BeginReply();
  if (request[0] == kProductRequest) {
    SendProduct(line);
  } else if (request[1] == kListRequest) {
    SendListEntry(line);
  } else {
    uint16_t id = static_cast<uint16_t>(static_cast<uint8_t>(request[2]) << 8 | static_cast<uint8_t>(request[3]));
    SendPacket(id, static_cast<uint8_t>(request[4]), line);
  }
}

void AscentInstrument::SendProduct(Line& line) {
  std::string r(18, '\0');
  r[0] = 0x02;
  uint32_t serial = static_cast<uint32_t>(std::strtoul(settings_.serial.c_str(), nullptr, 16));
  for (int i = 0; i < 4; ++i) r[1 + static_cast<size_t>(i)] = static_cast<char>(serial >> (24 - 8 * i) & 0xFFu);
  PutWord(&r, 5, 0x0003);
  PutWord(&r, 7, static_cast<uint32_t>(std::strtoul(settings_.firmware.c_str(), nullptr, 10)));
  PutWord(&r, 10, 0x0101);
  listCursor_ = 0;
  listAnswers_ = 0;
  line.Send(r);
  line.Note("-> product, firmware " + settings_.firmware);
}

void AscentInstrument::SendListEntry(Line& line) {
  size_t count = settings_.flights.size();
  if (listAnswers_++ == 0 && HasFault(kFirstBlockTwo)) {
    line.Send(ListMessage(0, 2));
    line.Note("-> stray list message numbered 2");
    return;
  }
  if (count == 0) {
    line.Send(ListMessage(0, 1));
    line.Note("-> empty list");
    return;
  }
  size_t index = listCursor_;
  // Entries count from block 1; the last is numbered 0.
  uint16_t block = index + 1 == count ? 0 : static_cast<uint16_t>(index + 1);
  if (index == 1 && HasFault(kSkipBlock)) block = 3;
  listCursor_ = block == 0 ? 0 : index + 1;
  line.Send(ListMessage(index, block));
  line.Note("-> list entry " + std::to_string(index + 1) + ", block " + std::to_string(block));
}

void AscentInstrument::SendPacket(uint16_t trackId, uint8_t section, Line& line) {
  if (section == 0) {
    packets_.clear();
    nextPacket_ = 0;
    size_t count = settings_.flights.size();
    size_t index = 0;
    while (index < count && TrackId(index) != trackId) ++index;
    if (index == count) {
      line.Note("   no track with id " + std::to_string(trackId));
      return;
    }
    std::vector<std::string> sections = Sections(index);
    for (size_t s = 0; s < sections.size(); ++s) {
      for (const std::string& text : PacketTexts(sections[s])) packets_.emplace_back(static_cast<uint8_t>(s + 1), text);
    }
  }
  if (nextPacket_ >= packets_.size()) {
    line.Note("   nothing more to send");
    return;
  }
  const auto& [number, text] = packets_[nextPacket_++];
  std::string packet(kPacketSize, '\0');
  packet[0] = 0x03;
  packet[1] = static_cast<char>(number);
  packet[2] = static_cast<char>(text.size());
  packet.replace(3, text.size(), text);
  if (!line.Send(packet)) line.Note("   cut short: the program went away");
}

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings) {
  return std::make_unique<AscentInstrument>(settings);
}

}  // namespace sim::ascent
