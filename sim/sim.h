// The instrument simulator: the instrument's end of a serial link on a
// pseudo-terminal, so that the program talks to it as to a real device.
// Each instrument family is one module (an Instrument subclass and a
// factory) listed in the family table; the framework owns the terminal,
// the line speed, the injected line faults and the record of what the
// program sent.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace sim {

// Faults the line puts into the instrument's answers. A reply is what the
// instrument sends for one command (counted from 1 in the order of the
// commands); reply 0 counts bytes over the whole session instead.
enum class FaultKind {
  kCut,    // nothing more of that reply from `offset` on (reply 0: nothing more at all)
  kPause,  // `milliseconds` of silence before byte `offset`
  kFlip,   // byte `offset` goes out with its lowest bit inverted
};

struct LineFault {
  FaultKind kind;
  int reply;
  int64_t offset;
  int milliseconds = 0;
};

// Parses "R:N" (cut, flip) or "R:N:MS" (pause); false when malformed.
bool ParseLineFault(FaultKind kind, const std::string& text, LineFault* fault);

// A waypoint as an instrument keeps it.
struct SimWaypoint {
  std::string id;
  std::string name;
  double latitude;   // degrees, north positive
  double longitude;  // degrees, east positive
  int32_t altitude;  // metres
  int32_t flag = 0;  // an instrument's mark on the waypoint, where it keeps one
};

// What an instrument holds and how it misbehaves. Empty texts take the
// family's defaults.
struct InstrumentSettings {
  std::string model{};
  std::string firmware{};
  std::string serial{};
  std::string pilot{};
  std::vector<std::string> flights{};  // IGC texts as stored, newest first
  std::vector<SimWaypoint> waypoints{};
  std::vector<std::string> faults{};  // the family's own faults, by name
};

// The instrument's sending side of the link, handed to the family module.
class Line {
 public:
  // Starts the answer to a new command: reply faults count from here.
  void BeginReply();
  // Sends at the line speed (or flat out), applying the faults. False once
  // the program has closed its end or the simulator is stopping: the rest of
  // the reply is then dropped.
  bool Send(std::string_view bytes);
  // A line for the simulator's trace (kestrix-sim prints it).
  void Note(const std::string& text);
  // The speed the program has set on its end of the line (baud), 0 when unknown.
  int32_t Speed() const;
  // True once the simulator is stopping: waits should end.
  bool Stopping() const;

 private:
  friend class Simulator;
  int64_t Position(const LineFault& fault) const;  // -1: the fault is not for this reply
  bool WriteAll(const char* data, size_t size);
  void Pace(size_t bytes);

  int fd_ = -1;
  int32_t baud_ = 0;
  std::vector<LineFault> faults_;
  const std::atomic<bool>* stop_ = nullptr;
  std::function<void(const std::string&)> trace_;
  int reply_ = 0;
  int64_t replyOffset_ = 0;
  int64_t sessionOffset_ = 0;
  bool gone_ = false;
  uint64_t paceStart_ = 0;
  uint64_t pacedBytes_ = 0;
};

class Instrument {
 public:
  virtual ~Instrument() = default;
  // One byte from the program; answers go out through `line`.
  virtual void Receive(uint8_t byte, Line& line) = 0;
};

struct Family {
  const char* name;  // as given to kestrix-sim
  int32_t baud;      // the instrument's line speed
  const char* faultHelp;
  std::unique_ptr<Instrument> (*create)(const InstrumentSettings& settings);
};

// Every family the simulator knows, and a lookup by name (null if unknown).
const std::vector<Family>& Families();
const Family* FindFamily(std::string_view name);

// One chunk of bytes from the program, with its arrival time (wall clock,
// microseconds).
struct Chunk {
  uint64_t micros;
  std::string bytes;
};

// Runs an instrument on a fresh pseudo-terminal in a thread of its own.
class Simulator {
 public:
  // `baud` 0 sends flat out.
  Simulator(std::unique_ptr<Instrument> instrument, int32_t baud, std::vector<LineFault> faults = {});
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // Opens the terminal and starts serving. Returns 0, or -1 with error().
  int Start();
  // Stops serving and closes the terminal; the instrument may then be
  // inspected without locks.
  void Stop();
  // Once the program has closed its end: waits, at most `limitMs`, until
  // everything it sent has been read and handed to the instrument, so that
  // Stop() cuts nothing short.
  void Settle(int limitMs = 5000);

  const std::string& path() const { return path_; }  // the program's end
  const std::string& error() const { return error_; }
  Instrument& instrument() { return *instrument_; }
  void SetTrace(std::function<void(const std::string&)> trace) { line_.trace_ = std::move(trace); }

  std::vector<Chunk> Received() const;
  std::string ReceivedBytes() const;

 private:
  void Serve();

  std::unique_ptr<Instrument> instrument_;
  Line line_;
  int master_ = -1;
  std::string path_;
  std::string error_;
  std::atomic<bool> stop_{false};
  std::atomic<int> settleRequests_{0};
  std::atomic<int> settled_{0};  // the last request answered
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<Chunk> received_;
};

// /dev/cu.<name> as a link to a simulator's terminal, removed again by the
// destructor if it still points there. A link left by an earlier run to a
// pseudo-terminal is replaced; anything else is left alone.
class PortLink {
 public:
  PortLink(const std::string& name, const std::string& target);
  ~PortLink();
  PortLink(const PortLink&) = delete;
  PortLink& operator=(const PortLink&) = delete;
  bool ok() const { return ok_; }
  const std::string& error() const { return error_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::string target_;
  std::string error_;
  bool ok_ = false;
};

// Helpers for family modules and front ends.
uint64_t NowMicros();
// Every field between separators, empty ones included ("a,,b," has four).
std::vector<std::string> Split(const std::string& text, char separator);
bool ReadWholeFile(const std::string& path, std::string* text);
// An OziExplorer waypoint file: identifier, position, comment as the name,
// altitude (feet, -777 for none). False when it does not look like one.
bool ReadOziWaypoints(const std::string& text, std::vector<SimWaypoint>* waypoints);
// XOR of the characters between "$" and "*" (or the end).
uint8_t NmeaChecksum(std::string_view sentence);
// The body of a well-formed "$...*HH" command (either case of hex digits), or false.
bool CommandBody(const std::string& command, std::string* body);
// "DDMM.mmm" or "DDDMM.mmm" and its hemisphere letter to degrees.
double ParseAngle(const std::string& text, const std::string& hemisphere, char negative);
std::string TrimRight(std::string text);

// What a flight list shows about an IGC text.
struct FlightSummary {
  int day = 0, month = 0, year = 0;  // HFDTE, either form; 0 when missing
  int32_t firstSecond = -1;          // time of day of the first and last B record
  int32_t lastSecond = -1;
  std::string pilot;  // HFPLT header value, blanks trimmed
};
FlightSummary SummarizeFlight(const std::string& igc);

}  // namespace sim
