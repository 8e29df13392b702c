// Digifly Leonardo/Air instruments as the instrument sees it:
// identification, the flight list and block reads of a track memory built
// from IGC flights.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/sim.h"

namespace sim::leonardo {

constexpr int32_t kBaud = 115200;

constexpr int32_t kBlockSize = 4094;
constexpr int32_t kRecordSize = 23;
constexpr int32_t kRecordsPerBlock = kBlockSize / kRecordSize;
constexpr int32_t kBlocks = 256;  // block numbers are one byte
// Erased records ahead of the oldest flight.
constexpr int32_t kLeadingErasedRecords = 3;

// Family faults, by name.
constexpr char kBadChecksum[] = "bad-checksum";              // every checksum one too high
constexpr char kBadBlockChecksum[] = "bad-block-checksum";   // block replies only
constexpr char kShortBlock[] = "short-block";                // block replies a record short
constexpr char kNoFix[] = "no-fix";                          // every tenth fix without a position
constexpr char kMute[] = "mute";                             // never answers
extern const char kFaultHelp[];

// A command as the instrument received it, without its line end, and when
// its line feed arrived.
struct Command {
  uint64_t micros;
  std::string text;
};

// Where one flight lies in the memory (times in instrument seconds).
struct StoredFlight {
  uint32_t takeoff;
  uint32_t landing;
  int32_t firstRecord;  // record index in the memory
  int32_t records;
};

class LeonardoInstrument : public Instrument {
 public:
  explicit LeonardoInstrument(InstrumentSettings settings);
  void Receive(uint8_t byte, Line& line) override;

  // Read these after Simulator::Stop().
  const std::vector<Command>& commands() const { return commands_; }
  // Oldest first, as laid out; a flight that does not fit is left out.
  const std::vector<StoredFlight>& stored() const { return stored_; }

  // "$", body, "*", checksum, CR LF; `block` marks block replies.
  std::string Sentence(const std::string& body, bool block = false) const;

 private:
  // The list sentence's body: the entries, oldest first, in one field.
  std::string ListBody() const;
  void Answer(const std::string& command, Line& line);
  void SendBlock(const std::vector<std::string>& fields, Line& line);
  bool HasFault(const char* name) const;
  void Build();

  InstrumentSettings settings_;
  std::string pending_;
  std::vector<Command> commands_;
  std::vector<StoredFlight> stored_;
  std::vector<uint8_t> memory_;
};

// A flight's B records with the instrument's time (seconds from
// 1980-01-06, a day added when the time of day steps back an hour or more).
// Empty when the text has no date or no fix.
struct Fix {
  uint32_t time;
  double latitude;   // radians
  double longitude;  // radians
  int32_t pressureAltitude;
  int32_t gnssAltitude;
};
std::vector<Fix> ReadFixes(const std::string& igc);

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings);

}  // namespace sim::leonardo
