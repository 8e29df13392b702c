// The Brauniger/Flytec family as the instrument sees it: identification,
// flight list, flights as IGC text, waypoints both ways.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/sim.h"

namespace sim::galileo {

constexpr int32_t kBaud = 57600;

// Family faults, by name.
constexpr char kLowerCaseChecksum[] = "lower-case-checksum";  // checksums as lower-case hex
constexpr char kBadChecksum[] = "bad-checksum";               // every checksum one too high
constexpr char kNoARecord[] = "no-a-record";                  // flights without their A line
constexpr char kBadRecordType[] = "bad-record-type";          // a line starting "x" after the A line
constexpr char kLongLine[] = "long-line";                     // a 101-character L line after the A line
constexpr char kMute[] = "mute";                              // never answers
extern const char kFaultHelp[];

// A command as the instrument received it: the text without XON/XOFF and
// line end, and when its line feed arrived.
struct Command {
  uint64_t micros;
  std::string text;
};

class FlytecInstrument : public Instrument {
 public:
  explicit FlytecInstrument(InstrumentSettings settings);
  void Receive(uint8_t byte, Line& line) override;

  // Read these after Simulator::Stop().
  const std::vector<Command>& commands() const { return commands_; }
  const std::vector<SimWaypoint>& waypoints() const { return settings_.waypoints; }
  const InstrumentSettings& settings() const { return settings_; }

  // The sentence as this instrument sends it: "$", body, "*", checksum, CR LF.
  std::string Sentence(const std::string& body) const;
  // The flight as served, with the content faults applied.
  std::string ServedFlight(size_t index) const;

 private:
  void Answer(const std::string& command, Line& line);
  void SendFlight(size_t index, Line& line);
  void SendList(Line& line);
  void SendWaypoints(Line& line);
  void StoreWaypoint(const std::string& command, Line& line);
  bool HasFault(const char* name) const;

  InstrumentSettings settings_;
  std::string pending_;
  std::vector<Command> commands_;
};

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings);

}  // namespace sim::galileo
