// Every serial command is recorded once against the simulator, then
// replayed with the instrument falling silent at, and with a corrupted byte
// at, every byte up to kEveryByte and at a sample of the bytes beyond. Each
// time the program must end, open and close the port once, print at most
// one line that the fault-free run does not print, and leave no file or a
// complete one. So must memory running out at each allocation.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "serial_replay.h"
#include "sim/sim.h"
#include "support.h"

namespace {

constexpr size_t kEveryByte = 200;
constexpr size_t kSampled = 60;

struct Replayed {
  replay::Outcome outcome;
  std::string out;
  std::vector<std::string> files;
  std::string problem;  // why a file is not complete
};

// The lines printed, each without the progress counter it may begin with
// ("Points: 0", backspaces and numbers).
std::set<std::string> Lines(const std::string& out) {
  std::set<std::string> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    const size_t counter = line.find(": 0");
    const bool label = counter != std::string::npos && counter > 0 &&
                       std::all_of(line.begin(), line.begin() + static_cast<long>(counter), ::isalpha);
    if (label) {
      size_t at = counter + 3;
      while (at < line.size() && (line[at] == '\b' || std::isdigit(static_cast<unsigned char>(line[at])))) ++at;
      line = line.substr(at);
    }
    if (!line.empty()) lines.insert(line);
  }
  return lines;
}

// A line the fault only damaged: a fault-free line cut short, or with a
// character or two changed (a list entry renumbered or not, a number).
bool Damaged(const std::string& line, const std::set<std::string>& clean) {
  for (const std::string& c : clean) {
    if (c.starts_with(line)) return true;
    if (c.size() == line.size() &&
        std::inner_product(c.begin(), c.end(), line.begin(), 0, std::plus<>(), std::not_equal_to<>()) <= 2) {
      return true;
    }
  }
  return false;
}

// A file is complete when it is all that the program said it wrote: every
// file announced, a KML document to its end, a raw log of the length told.
std::string Incomplete(const test::TempDir& folder, const std::string& out) {
  std::set<std::string> announced;
  std::istringstream in(out);
  size_t raw = std::string::npos;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("Raw igc log downloaded (")) raw = std::stoul(line.substr(24));
    if (!line.starts_with("File ") || line.find(" written") == std::string::npos) continue;
    const std::string name = line.substr(5, line.find(" written") - 5);
    announced.insert(name);
    const std::string bytes = test::ReadFile(folder.File(name));
    if (name.ends_with(".kml") && !bytes.ends_with("</Document>\r\n") && !bytes.ends_with("</kml>\r\n")) {
      return name + " ends early";
    }
    if (name.ends_with(".igc") && raw != std::string::npos && bytes.size() != raw) return name + " is not the raw log";
    if (name.ends_with(".igc")) raw = std::string::npos;
  }
  for (const std::string& name : test::FilesIn(folder.path())) {
    if (!announced.contains(name)) return name + " was never announced";
  }
  return "";
}

Replayed Replay(const std::string& script) {
  test::TempDir folder;
  Replayed run;
  testing::internal::CaptureStdout();
  test::InDirectory(folder.path(), [&] {
    run.outcome = replay::Replay(reinterpret_cast<const uint8_t*>(script.data()), script.size(), true);
  });
  run.out = testing::internal::GetCapturedStdout();
  run.files = test::FilesIn(folder.path());
  run.problem = Incomplete(folder, run.out);
  return run;
}

// The script with the instrument silent from answer byte `at` on, or with
// that byte inverted.
std::string Faulty(const std::string& script, size_t at, bool cut) {
  std::string faulty = script.substr(0, 2);
  const std::string separator = replay::kSeparator;
  size_t seen = 0;
  size_t from = 2;
  for (;;) {
    size_t end = script.find(separator, from);
    std::string answer = script.substr(from, end == std::string::npos ? std::string::npos : end - from);
    if (at >= seen && at < seen + answer.size()) {
      if (cut) return faulty + answer.substr(0, at - seen);
      answer[at - seen] = static_cast<char>(~answer[at - seen]);
    }
    faulty += answer;
    seen += answer.size();
    if (end == std::string::npos) return faulty;
    faulty += separator;
    from = end + separator.size();
  }
}

size_t AnswerBytes(const std::string& script) {
  const std::string separator = replay::kSeparator;
  size_t bytes = script.size() - 2;
  for (size_t at = script.find(separator); at != std::string::npos; at = script.find(separator, at + 1)) {
    bytes -= separator.size();
  }
  return bytes;
}

// The conversation of action `a` with its family's simulated instrument,
// holding two short flights and a few waypoints; -f2 picks the older flight.
std::string Record(size_t a) {
  const std::string name = replay::Actions()[a].name;
  const std::string family = name.substr(0, name.find('-'));
  sim::InstrumentSettings settings;
  for (const char* flight : {"igc/pg-iqbasic-8s.igc", "igc/pg-skytraxx-13min.igc"}) {
    settings.flights.push_back(test::ReadFile(test::DataFile(flight)));
  }
  sim::ReadOziWaypoints(test::ReadFile(test::DataFile("waypoints/golden.wpt")), &settings.waypoints);
  if (name == "flymaster-track") settings.firmware = "2.01";
  sim::Simulator simulator(sim::FindFamily(family)->create(settings), 0);
  if (simulator.Start() != 0) return "";
  const std::string script = replay::Record(a, 3, simulator.path());
  simulator.Settle();
  simulator.Stop();
  return script;
}

class Faults : public testing::TestWithParam<size_t> {};

TEST_P(Faults, EveryCutAndCorruptByteAndFailedAllocationEndsCleanly) {
  const std::string script = Record(GetParam());
  ASSERT_GT(script.size(), 2u);
  test::FailingAllocation memory;
  const Replayed clean = Replay(script);
  const int allocations = memory.count;  // of the fault-free run
  ASSERT_EQ(clean.outcome.opens, 1);
  ASSERT_EQ(clean.problem, "");
  const std::set<std::string> cleanLines = Lines(clean.out);

  // False once a run broke: one is enough to read.
  auto endsCleanly = [&](const std::string& faulty, const std::string& fault) {
    const Replayed run = Replay(faulty);
    SCOPED_TRACE(fault + "\n" + test::Escape(run.out));
    EXPECT_EQ(run.outcome.opens, 1);
    EXPECT_EQ(run.outcome.closes, 1);
    EXPECT_EQ(run.problem, "");
    // The transfer says what went wrong once; the saving that may follow
    // has messages of its own about the track that came.
    std::vector<std::string> added;
    const std::string transfer = run.out.substr(0, run.out.find("Exiting COM thread\n"));
    for (const std::string& line : Lines(transfer)) {
      const bool saving = line.starts_with("File ") || line.starts_with("Raw igc log") ||
                          line.starts_with("Too few points");  // an all-tracks download saves as it goes
      if (!cleanLines.contains(line) && !Damaged(line, cleanLines) && !saving) added.push_back(line);
    }
    EXPECT_LE(added.size(), 1u) << testing::PrintToString(added);
    return !testing::Test::HasFailure();
  };

  const size_t bytes = AnswerBytes(script);
  std::vector<size_t> positions;
  for (size_t at = 0; at < bytes && at < kEveryByte; ++at) positions.push_back(at);
  std::mt19937 random(static_cast<unsigned>(GetParam()));
  for (size_t i = 0; bytes > kEveryByte && i < kSampled; ++i) {
    positions.push_back(kEveryByte + random() % (bytes - kEveryByte));
  }
  for (bool cut : {true, false}) {
    for (size_t at : positions) {
      if (!endsCleanly(Faulty(script, at, cut), (cut ? "silent from byte " : "byte corrupted: ") + std::to_string(at))) return;
    }
  }
  for (int number = 1; number <= allocations; ++number) {
    memory.FailAt(number);
    if (!endsCleanly(script, "allocation failing: " + std::to_string(number))) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Serial, Faults, testing::Range<size_t>(0, replay::Actions().size()),
                         [](const testing::TestParamInfo<size_t>& param) {
                           std::string name = replay::Actions()[param.param].name;
                           for (char& c : name) c = c == '-' ? '_' : c;
                           return name;
                         });

}  // namespace
