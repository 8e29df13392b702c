// Simulated instruments for tests: in-process rigs and command-line runs
// against /dev/cu.<name> links.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

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

// An instrument of any simulated family on a pseudo-terminal, served flat
// out, with its trace kept.
class SimRig {
 public:
  SimRig(const std::string& family, sim::InstrumentSettings settings, std::vector<sim::LineFault> faults = {});
  // Points the run parameters at the rig: the port and the instrument type.
  void Connect(int32_t gpsType) const;
  // Once the program has closed the port: lets the instrument take all it
  // was sent, then stops serving.
  void Stop() {
    simulator_.Settle();
    simulator_.Stop();
  }
  // The family's own instrument class; read it after Stop().
  template <typename T>
  const T& instrument() const {
    return dynamic_cast<const T&>(*instrument_);
  }
  sim::Simulator& simulator() { return simulator_; }
  std::vector<std::string> Trace() const;

 private:
  SimRig(std::unique_ptr<sim::Instrument> instrument, std::vector<sim::LineFault> faults);

  sim::Instrument* instrument_;
  sim::Simulator simulator_;
  mutable std::mutex mutex_;
  std::vector<std::string> trace_;
};

// A new instrument of the named family; throws when there is none.
std::unique_ptr<sim::Instrument> MakeInstrument(const std::string& family, const sim::InstrumentSettings& settings);

// The -g switch of a simulated family ("flytec", "iqbasic", "ascent", "mlr", "leonardo",
// "flymaster" for the new models).
std::string GpsSwitch(const std::string& family);

// One run of the program against its own simulated instrument.
struct Scenario {
  std::string label{};
  std::string family = "flytec";
  sim::InstrumentSettings settings{};
  std::vector<sim::LineFault> faults{};
  std::vector<std::string> args{};  // after the family's "-g" switch and "-cu.<port>"
  std::string input{};              // typed at the console
  std::string gps{};                // the program's instrument switch, when not the family's own
  // Filled in by RunScenarios.
  std::string port{};
  RunResult result{};
  std::vector<std::string> commands{};
  std::vector<std::string> files{};               // what the run left in its folder
  std::map<std::string, std::string> contents{};  // and what its regular files hold
  std::string received{};                         // every byte the program sent
  std::vector<std::string> trace{};               // the instrument's notes
};

// Runs every scenario at the same time, each with its own instrument and
// folder, so that the silence limits are waited out once.
void RunScenarios(std::vector<Scenario>* scenarios);

}  // namespace test
