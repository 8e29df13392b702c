// Simulated instruments for tests: in-process rigs and command-line runs
// against /dev/cu.<name> links.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/flymaster.h"
#include "sim/galileo.h"
#include "sim/sim.h"
#include "support.h"

namespace test {

// A real flight from tests/data/igc.
std::string Flight(const std::string& name);

// The text a progress counter prints when it shows `updates` and ends at
// `final` (without --scroll).
std::string ProgressText(const std::string& label, const std::vector<int>& updates, int final);

// A Brauniger/Flytec instrument on a pseudo-terminal, served flat out.
class FlytecRig {
 public:
  explicit FlytecRig(sim::InstrumentSettings settings, std::vector<sim::LineFault> faults = {});
  // Points the run parameters at the rig: the port and the instrument type.
  void Connect() const;
  // Stops serving; the instrument's records may be read afterwards.
  void Stop() { simulator_.Stop(); }
  const sim::galileo::FlytecInstrument& instrument() const { return *instrument_; }
  sim::Simulator& simulator() { return simulator_; }
  std::vector<std::string> Commands() const;

 private:
  sim::galileo::FlytecInstrument* instrument_;
  sim::Simulator simulator_;
};

// A Flymaster instrument on a pseudo-terminal, served flat out.
class FlymasterRig {
 public:
  explicit FlymasterRig(sim::InstrumentSettings settings, std::vector<sim::LineFault> faults = {});
  // Points the run parameters at the rig: the port and the instrument type.
  void Connect(int32_t gpsType) const;
  void Stop() { simulator_.Stop(); }
  const sim::flymaster::FlymasterInstrument& instrument() const { return *instrument_; }
  std::vector<std::string> Commands() const;

 private:
  sim::flymaster::FlymasterInstrument* instrument_;
  sim::Simulator simulator_;
};

// One run of the program against its own simulated instrument.
struct Scenario {
  std::string label{};
  sim::InstrumentSettings settings{};
  std::vector<sim::LineFault> faults{};
  std::vector<std::string> args{};  // after "<gps> -cu.<port>"
  std::string input{};              // typed at the console
  std::string family{"flytec"};     // the simulator's family
  std::string gps{"-gc"};           // the program's instrument switch
  // Filled in by RunScenarios.
  std::string port{};
  RunResult result{};
  std::vector<std::string> commands{};  // lines the instrument received
  std::string received{};               // every byte it received
  std::vector<std::string> files{};     // what the run left in its folder
};

// Empty when /dev/cu.<name> links can be made here; else why not.
std::string PortLinkProblem();
// A name for /dev/cu.<name> that no other test uses.
std::string UniquePortName();
// Runs every scenario at the same time, each with its own instrument and
// folder, so that the silence limits are waited out once.
void RunScenarios(std::vector<Scenario>* scenarios);

}  // namespace test
