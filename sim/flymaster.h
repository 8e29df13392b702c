// The Flymaster family as the instrument sees it: identification, track
// list, flights as binary dumps (new models) or as acknowledged blocks
// (older models), waypoints both ways. Which protocol answers depends on
// the commands: "$PBRSNP" identifies an older model, "$PFMSNP" a new one,
// and the mode of the download command picks the dump.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/sim.h"

namespace sim::flymaster {

constexpr int32_t kBaud = 57600;

// Family faults, by name. Those marked ":N" may name one waypoint (counted
// from 1) instead of all; those with "=" take a value.
constexpr char kMute[] = "mute";                          // never answers
constexpr char kFamily[] = "family=";                     // family=1 or 2: one fix family in 2.02+ dumps
constexpr char kHardware[] = "hardware=";                 // hardware code in the dump trailer
constexpr char kBadDumpChecksum[] = "bad-dump-checksum";  // trailer checksum off by one bit
constexpr char kNoSignature[] = "no-signature";           // 2.02+ trailer one byte short
constexpr char kExtraByte[] = "extra-byte";               // one byte after a pre-2.02 dump
constexpr char kBadBlockChecksum[] = "bad-block-checksum";  // first track block sent once damaged
constexpr char kShortInfo[] = "short-info";                 // flight information of 62 bytes
constexpr char kShortKey[] = "short-key";                   // first key position of 16 bytes
constexpr char kBadLatitude[] = "bad-latitude";             // first key position at 5400001
constexpr char kBadLongitude[] = "bad-longitude";           // first key position at -10800001
constexpr char kTrackFirst[] = "track-first";               // a track block before any key position
constexpr char kOddTrackBlock[] = "odd-track-block";        // first track block of 13 bytes
constexpr char kNoInfo[] = "no-info";                       // no flight information block
constexpr char kStall[] = "stall";                          // falls silent after the flight information
constexpr char kNak[] = "nak";                              // ":N" waypoint answered NAK
constexpr char kBadEcho[] = "bad-echo";                     // ":N" waypoint echoed with another name
constexpr char kNoAnswer[] = "no-answer";                   // ":N" waypoint not answered
constexpr char kWrongTag[] = "wrong-tag";                   // ":N" answer tagged $PFMWPX
constexpr char kShortAnswer[] = "short-answer";             // ":N" answer without the name
constexpr char kBadAnswer[] = "bad-answer";                 // ":N" answer with a wrong checksum
extern const char kFaultHelp[];

// A fix of a flight: GPS seconds, positions in 1/60000 degree (north and
// east positive), altitudes in metres.
struct Fix {
  uint32_t time;
  int32_t latitude;
  int32_t longitude;
  int32_t gnssAltitude;
  int32_t pressureAltitude;
  bool valid;
};

// The B records of an IGC text; times follow its date line and midnights.
std::vector<Fix> ReadFixes(const std::string& igc);

// Pressure in tenths of a hectopascal for an altitude: by the formula of the
// 2.02+ family-1 records, and by the one of the older readers.
int32_t PressureForAltitude(int32_t metres);
int32_t OldPressureForAltitude(int32_t metres);

// A fix as an instrument stored it: the record family (1 or 2, 0 for the
// older models) and the pressure value it carries.
struct StoredFix {
  Fix fix;
  int family;
  int32_t pressure;
};

enum class DumpKind { k2xx, kPre202 };

struct DumpOptions {
  DumpKind kind = DumpKind::k2xx;
  int family = 0;  // 0: alternate both every 100 fixes
  uint16_t hardware = 45571;
  uint16_t build = 5252;
  std::string pilot{};
  std::vector<uint8_t> signature{};  // 32 bytes; empty: from the G line or a pattern
};

struct Dump {
  std::string bytes;
  std::vector<StoredFix> fixes;
};

Dump BuildDump(const std::string& igc, const DumpOptions& options);

// The older models' answer to a download: blocks in order (the end marker
// not included) and the fixes they carry.
struct Block {
  uint8_t type;
  std::string data;
};
struct BlockTransfer {
  std::vector<Block> blocks;
  std::vector<StoredFix> fixes;
};
BlockTransfer BuildBlockTransfer(const std::string& igc, const std::string& model, const std::string& pilot);
// Type, type again, length, data, checksum.
std::string Frame(uint8_t type, const std::string& data);

// The firmware build number a version text such as "2.05c" stands for.
uint16_t BuildNumber(const std::string& firmware);
// "YYMMDDhhmmss" of a GPS time.
std::string StartStamp(uint32_t gpsTime);

struct Command {
  uint64_t micros;
  std::string text;  // without CR LF
};

class FlymasterInstrument : public Instrument {
 public:
  explicit FlymasterInstrument(InstrumentSettings settings);
  void Receive(uint8_t byte, Line& line) override;

  // Read these after Simulator::Stop().
  const std::vector<Command>& commands() const { return commands_; }
  const std::string& controlBytes() const { return control_; }  // 0xB1-0xB3, in order
  const std::vector<SimWaypoint>& uploaded() const { return uploaded_; }
  const InstrumentSettings& settings() const { return settings_; }

 private:
  void Answer(const std::string& command, Line& line);
  void Control(uint8_t byte, Line& line);
  void SendList(Line& line);
  void SendDump(const std::string& stamp, const std::string& mode, Line& line);
  void StartBlocks(size_t flight, Line& line);
  void SendWaypoints(Line& line);
  void StoreWaypoint(const std::string& command, Line& line);
  bool HasFault(const char* name) const;
  bool HasFaultFor(const char* name, size_t waypoint) const;
  std::string Option(const char* prefix) const;
  size_t FindFlight(const std::string& stamp) const;

  InstrumentSettings settings_;
  std::vector<uint32_t> starts_;  // GPS time of each flight's first fix
  std::string pending_;
  std::vector<Command> commands_;
  std::string control_;
  std::vector<SimWaypoint> uploaded_;
  bool olderModel_ = false;
  // The block transfer under way.
  std::vector<Block> blocks_;
  size_t nextBlock_ = 0;
  bool sending_ = false;
  bool damageNext_ = false;
};

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings);

}  // namespace sim::flymaster
