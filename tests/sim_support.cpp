#include "sim_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "core/run.h"
#include "sim/ascent.h"
#include "sim/iqbasic.h"
#include "sim/mlr.h"

namespace test {

std::string Flight(const std::string& name) {
  std::string text;
  if (!sim::ReadWholeFile(std::string(KESTRIX_TEST_DATA) + "/igc/" + name, &text)) {
    throw std::runtime_error("missing test flight " + name);
  }
  return text;
}

std::string ProgressText(const std::string& label, const std::vector<int>& updates, int final) {
  std::string text = label + "0";
  size_t digits = 1;
  auto show = [&](int value) {
    std::string number = std::to_string(value);
    text += std::string(digits, '\b') + number;
    digits = number.size();
  };
  for (int u : updates) show(u);
  show(final);
  return text + "\n";
}

FlytecRig::FlytecRig(sim::InstrumentSettings settings, std::vector<sim::LineFault> faults)
    : instrument_(new sim::galileo::FlytecInstrument(std::move(settings))),
      simulator_(std::unique_ptr<sim::Instrument>(instrument_), 0, std::move(faults)) {
  if (simulator_.Start() != 0) throw std::runtime_error(simulator_.error());
}

void FlytecRig::Connect() const {
  std::snprintf(tGps.szComPort, sizeof tGps.szComPort, "%s", simulator_.path().c_str());
  tGps.dwGpsType = kGpsGalileo;
}

std::vector<std::string> FlytecRig::Commands() const {
  std::vector<std::string> texts;
  for (const sim::galileo::Command& c : instrument_->commands()) texts.push_back(c.text);
  return texts;
}

std::unique_ptr<sim::Instrument> MakeInstrument(const std::string& family, const sim::InstrumentSettings& settings) {
  const sim::Family* f = sim::FindFamily(family);
  if (f == nullptr) throw std::runtime_error("unknown family " + family);
  return f->create(settings);
}

SimRig::SimRig(const std::string& family, sim::InstrumentSettings settings, std::vector<sim::LineFault> faults)
    : SimRig(MakeInstrument(family, settings), std::move(faults)) {}

SimRig::SimRig(std::unique_ptr<sim::Instrument> instrument, std::vector<sim::LineFault> faults)
    : instrument_(instrument.get()), simulator_(std::move(instrument), 0, std::move(faults)) {
  simulator_.SetTrace([this](const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    trace_.push_back(text);
  });
  if (simulator_.Start() != 0) throw std::runtime_error(simulator_.error());
}

void SimRig::Connect(int32_t gpsType) const {
  std::snprintf(tGps.szComPort, sizeof tGps.szComPort, "%s", simulator_.path().c_str());
  tGps.dwGpsType = gpsType;
}

std::vector<std::string> SimRig::Trace() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return trace_;
}

std::string GpsSwitch(const std::string& family) {
  if (family == "iqbasic") return "-giq";
  if (family == "ascent") return "-gas";
  if (family == "mlr") return "-gm";
  if (family == "leonardo") return "-gda";
  if (family == "flymaster") return "-gyn";
  return "-gc";
}

namespace {

// The command lines an instrument received: line ends, XON and XOFF and
// empty lines dropped.
std::vector<std::string> CommandLines(const std::string& bytes) {
  std::vector<std::string> lines;
  std::string line;
  for (char c : bytes) {
    if (c == '\n') {
      if (!line.empty()) lines.push_back(line);
      line.clear();
    } else if (c != '\r' && c != 0x11 && c != 0x13) {
      line += c;
    }
  }
  return lines;
}

// What the instrument took as commands, in its own terms.
std::vector<std::string> CommandsOf(SimRig& rig, const std::string& family) {
  if (family == "iqbasic") return rig.instrument<sim::iqbasic::IqBasicInstrument>().commands();
  if (family == "ascent") return rig.instrument<sim::ascent::AscentInstrument>().requests();
  if (family == "mlr") return rig.instrument<sim::mlr::MlrInstrument>().commands();
  if (family == "leonardo" || family == "flymaster") return CommandLines(rig.simulator().ReceivedBytes());
  std::vector<std::string> texts;
  for (const sim::galileo::Command& c : rig.instrument<sim::galileo::FlytecInstrument>().commands()) {
    texts.push_back(c.text);
  }
  return texts;
}

}  // namespace

void RunScenarios(std::vector<Scenario>* scenarios) {
  std::vector<std::thread> threads;
  for (Scenario& s : *scenarios) {
    threads.emplace_back([&s] {
      SimRig rig(s.family, s.settings, s.faults);
      s.port = UniquePortName();
      sim::PortLink link(s.port, rig.simulator().path());
      if (!link.ok()) {
        s.result.out = link.error();
        return;
      }
      TempDir dir;
      std::vector<std::string> args = {s.gps.empty() ? GpsSwitch(s.family) : s.gps, "-cu." + s.port};
      args.insert(args.end(), s.args.begin(), s.args.end());
      s.result = RunKestrix(args, dir.path(), s.input);
      rig.Stop();
      s.commands = CommandsOf(rig, s.family);
      s.received = rig.simulator().ReceivedBytes();
      s.trace = rig.Trace();
      for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        s.files.push_back(entry.path().filename().string());
        if (entry.is_regular_file()) s.contents[s.files.back()] = ReadFile(entry.path().string());
      }
    });
  }
  for (std::thread& t : threads) t.join();
}

}  // namespace test
