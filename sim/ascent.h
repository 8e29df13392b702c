// The Ascent as the instrument sees it: a binary product record, a flight
// list of one message per request, and flights as IGC text in packets of
// five numbered sections.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/sim.h"

namespace sim::ascent {

constexpr int32_t kBaud = 9600;
constexpr size_t kPacketSize = 300;
constexpr size_t kPacketText = 255;  // one length byte

// Family faults, by name.
constexpr char kFirstBlockTwo[] = "first-block-2";  // the first list answer of a session is numbered 2
constexpr char kSkipBlock[] = "skip-block";         // the second list message is numbered one too high
constexpr char kReversedIds[] = "reversed-ids";     // track ids count down from the number of flights
constexpr char kNoSectionOne[] = "no-section-1";    // flights come without their first section
extern const char kFaultHelp[];

class AscentInstrument : public Instrument {
 public:
  explicit AscentInstrument(InstrumentSettings settings);
  void Receive(uint8_t byte, Line& line) override;

  // Read these after Simulator::Stop(): every request as it came.
  const std::vector<std::string>& requests() const { return requests_; }
  // The stored id of list entry `index`.
  uint16_t TrackId(size_t index) const;
  // Flight `index` as the instrument keeps it: five sections of text with
  // line-feed line ends.
  std::vector<std::string> Sections(size_t index) const;
  // The list message for entry `index` of the list.
  std::string ListMessage(size_t index, uint16_t block) const;

 private:
  void Answer(const std::string& request, Line& line);
  void SendProduct(Line& line);
  void SendListEntry(Line& line);
  void SendPacket(uint16_t trackId, uint8_t section, Line& line);
  bool HasFault(const char* name) const;

  InstrumentSettings settings_;
  std::string pending_;
  std::vector<std::string> requests_;
  size_t listCursor_ = 0;
  int listAnswers_ = 0;  // list answers since the last product request
  // The flight being sent: its packets (section, text) and the next one.
  std::vector<std::pair<uint8_t, std::string>> packets_;
  size_t nextPacket_ = 0;
};

// A section's text cut into packet texts of at most 255 bytes, whole lines
// where they fit; an empty section is one empty packet.
std::vector<std::string> PacketTexts(const std::string& section);

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings);

}  // namespace sim::ascent
