#include "sim_support.h"

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "driver/main.h"

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

FlymasterRig::FlymasterRig(sim::InstrumentSettings settings, std::vector<sim::LineFault> faults)
    : instrument_(new sim::flymaster::FlymasterInstrument(std::move(settings))),
      simulator_(std::unique_ptr<sim::Instrument>(instrument_), 0, std::move(faults)) {
  if (simulator_.Start() != 0) throw std::runtime_error(simulator_.error());
}

void FlymasterRig::Connect(int32_t gpsType) const {
  std::snprintf(tGps.szComPort, sizeof tGps.szComPort, "%s", simulator_.path().c_str());
  tGps.dwGpsType = gpsType;
}

std::vector<std::string> FlymasterRig::Commands() const {
  std::vector<std::string> texts;
  for (const sim::flymaster::Command& c : instrument_->commands()) texts.push_back(c.text);
  return texts;
}

namespace {

// The complete lines among bytes sent to an instrument, without line ends
// and the XON and XOFF bytes.
std::vector<std::string> CommandLines(const std::string& bytes) {
  std::vector<std::string> lines;
  std::string line;
  for (char c : bytes) {
    if (c == '\x11' || c == '\x13') continue;
    if (c != '\n') {
      line += c;
      continue;
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    line.clear();
  }
  return lines;
}

}  // namespace

std::string UniquePortName() {
  static std::atomic<int> counter{0};
  return "kx" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

std::string PortLinkProblem() {
  sim::PortLink probe(UniquePortName(), "/dev/pts/ptmx");
  return probe.ok() ? "" : probe.error();
}

void RunScenarios(std::vector<Scenario>* scenarios) {
  std::vector<std::thread> threads;
  for (Scenario& s : *scenarios) {
    threads.emplace_back([&s] {
      const sim::Family* family = sim::FindFamily(s.family);
      if (family == nullptr) {
        s.result.out = "no simulator family " + s.family;
        return;
      }
      sim::Simulator simulator(family->create(s.settings), 0, s.faults);
      if (simulator.Start() != 0) {
        s.result.out = simulator.error();
        return;
      }
      s.port = UniquePortName();
      sim::PortLink link(s.port, simulator.path());
      if (!link.ok()) {
        s.result.out = link.error();
        return;
      }
      TempDir dir;
      std::vector<std::string> args = {s.gps, "-cu." + s.port};
      args.insert(args.end(), s.args.begin(), s.args.end());
      s.result = RunKestrix(args, dir.path(), s.input);
      simulator.Stop();
      s.received = simulator.ReceivedBytes();
      s.commands = CommandLines(s.received);
      for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        s.files.push_back(entry.path().filename().string());
      }
    });
  }
  for (std::thread& t : threads) t.join();
}

}  // namespace test
