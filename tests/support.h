// The shared test library: temporary folders, running the program (as a
// process or in this one), the simulator program, digests and escapes.
#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace test {

// A fresh folder under the system's temporary directory, removed afterwards.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  void Write(const std::string& name, const std::string& text) const;

 private:
  std::string path_;
};

struct RunResult {
  std::string out;
  int status = -1;  // exit status, or -1 when the program did not exit normally
};

// Runs the built program in `cwd` with `args`, feeding `input` on standard
// input; with `fileSizeLimit` above 0 it may write no more bytes to a file
// (RLIMIT_FSIZE, with SIGXFSZ ignored, so that the write fails part-way).
RunResult RunKestrix(const std::vector<std::string>& args, const std::string& cwd, const std::string& input = "",
                     long fileSizeLimit = 0);

// The same command line run by KestrixMain in this process, in `cwd`, with
// the calendar frozen at kFrozenUtc (the wall and processor clocks run), so
// that files carrying the download time come out the same every time.
RunResult RunInProcess(const std::vector<std::string>& args, const std::string& cwd, const std::string& input = "");
constexpr int64_t kFrozenUtc = 1714572429;  // 2024-05-01 14:07:09 UTC

// Empty when /dev/cu.<name> links can be made here; else why not.
std::string PortLinkProblem();
// A name for /dev/cu.<name> that no other test uses (shorter than 22).
std::string UniquePortName();
// Tests that need /dev/cu.<name> links skip with the reason where they
// cannot be made, but must run as root (as CI does): there they fail.
#define REQUIRE_PORT_LINKS()                                                        \
  do {                                                                              \
    const std::string problem = ::test::PortLinkProblem();                         \
    if (!problem.empty()) {                                                         \
      if (geteuid() == 0) FAIL() << "port links must work as root: " << problem;    \
      GTEST_SKIP() << "no /dev/cu. links here (" << problem << ")";                 \
    }                                                                               \
  } while (0)

// kestrix-sim as a user runs it, in the background.
class SimProgram {
 public:
  // Starts it with `args` (the family first) and waits up to ten seconds
  // for its greeting, which ends in "Stop with Ctrl-C\n".
  explicit SimProgram(const std::vector<std::string>& args);
  ~SimProgram();  // stops it if Stop() was not called
  SimProgram(const SimProgram&) = delete;
  SimProgram& operator=(const SimProgram&) = delete;
  const std::string& greeting() const { return greeting_; }
  int pid() const { return pid_; }
  // Sends `signal` and returns what it printed after the greeting up to its
  // "Stopped\n"; `status` gets its exit status (-1: no normal exit).
  std::string Stop(int* status, int signal = 15);

 private:
  std::string ReadUntil(const std::string& marker);

  int pid_ = -1;
  int out_ = -1;
  std::string greeting_;
};

// SHA-256 of `bytes` in lower-case hex.
std::string Sha256(const std::string& bytes);
// C escapes (\n \r \t \b \\ \xHH) in and out, for expected texts kept as data;
// Escape leaves line feeds as they are.
std::string Unescape(const std::string& text);
std::string Escape(const std::string& bytes);
// The names in `folder` (sorted), and a file of tests/data.
std::vector<std::string> FilesIn(const std::string& folder);
std::string DataFile(const std::string& relative);

std::string ReadFile(const std::string& path);

// Puts `text` on standard input for the lifetime of the object.
class FakeStdin {
 public:
  explicit FakeStdin(const std::string& text);
  ~FakeStdin();
  FakeStdin(const FakeStdin&) = delete;
  FakeStdin& operator=(const FakeStdin&) = delete;

 private:
  int saved_;
};

// While it lives, allocations through pAllocate are counted from 1, and
// the one numbered failAt (0: none) fails.
struct FailingAllocation {
  explicit FailingAllocation(int number = 0);
  ~FailingAllocation();
  void FailAt(int number) { count = 0, failAt = number; }  // and counts from 1 again
  static inline std::atomic<int> count = 0, failAt = 0;  // the analysis allocates on two threads
};

// Resets the run parameters the way the program starts: all zero, defaults set.
void FreshRunParameters();

// Runs `body` with the current directory switched to `dir`.
template <typename F>
void InDirectory(const std::string& dir, F body);

std::string CurrentDirectory();
void ChangeDirectory(const std::string& dir);

template <typename F>
void InDirectory(const std::string& dir, F body) {
  std::string previous = CurrentDirectory();
  ChangeDirectory(dir);
  body();
  ChangeDirectory(previous);
}

// printf into a string (at most 511 characters).
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace test
