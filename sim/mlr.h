// The MLR receivers as the instrument sees them: an NMEA-style
// identification, then the track as binary frames at 38400 baud once the
// program has switched the line, until it is told to stop.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/sim.h"

namespace sim::mlr {

constexpr int32_t kBaud = 38400;
constexpr int kRecordsPerFrame = 27;
constexpr uint8_t kFirstSequence = 200;  // so that every longer log wraps past 255
// The instrument's clock counts from GPS time 0 minus this many seconds.
constexpr uint32_t kClockOffset = 315100800;

// Family faults, by name.
constexpr char kFiveFields[] = "five-fields";      // the identification carries a fifth field
constexpr char kGpsClock[] = "gps-clock";          // times run 14 s ahead whatever the firmware
constexpr char kUtcClock[] = "utc-clock";          // times are UTC whatever the firmware
constexpr char kStrayFrame[] = "stray-frame";      // a data frame before the start of the log
constexpr char kDoubleStart[] = "double-start";    // the start frame comes twice
constexpr char kSkipSequence[] = "skip-sequence";  // the second data frame's number is one too high
constexpr char kPointZero[] = "point-zero";        // points are numbered from 0
constexpr char kCount28[] = "count-28";            // the first data frame claims 28 records
constexpr char kMute[] = "mute";                   // never answers
extern const char kFaultHelp[];

// One fix of an IGC text in the instrument's units.
struct Fix {
  uint32_t gpsTime;
  int32_t latitude;   // arcs
  int32_t longitude;  // arcs
  int32_t altitude;   // GNSS altitude, decimetres
};

// The B records of an IGC text, dated from its HFDTE line (either form);
// a step back of an hour or more in the time of day is the next day.
std::vector<Fix> ReadFixes(const std::string& igc);

class MlrInstrument : public Instrument {
 public:
  explicit MlrInstrument(InstrumentSettings settings);
  void Receive(uint8_t byte, Line& line) override;

  // Read these after Simulator::Stop(): each command without its CR LF, and
  // the line speed the program had set when it arrived.
  const std::vector<std::string>& commands() const { return commands_; }
  const std::vector<int32_t>& speeds() const { return speeds_; }
  // Whether this instrument's clock runs 14 s ahead of UTC.
  bool ClockAhead() const;
  // The whole transfer of the first flight: start frame, data frames, end frame.
  std::string Transfer() const;

 private:
  void Answer(const std::string& command, Line& line);
  bool HasFault(const char* name) const;

  InstrumentSettings settings_;
  std::string pending_;
  std::vector<std::string> commands_;
  std::vector<int32_t> speeds_;
};

// One frame: start byte, sequence, "T", 0x01, body, the 16-bit sum, CR LF.
std::string Frame(uint8_t sequence, const std::string& body);

std::unique_ptr<Instrument> Create(const InstrumentSettings& settings);

}  // namespace sim::mlr
