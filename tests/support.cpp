#include "support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "core/clock.h"
#include "core/memory.h"
#include "core/run.h"
#include "driver/main.h"
#include "sim/sim.h"

namespace test {

namespace {

// A program's argument vector, made whole before a fork (see RunKestrix).
class ArgumentVector {
 public:
  ArgumentVector(const char* program, const std::vector<std::string>& args) : words_(args) {
    words_.insert(words_.begin(), program);
    for (std::string& word : words_) pointers_.push_back(word.data());
    pointers_.push_back(nullptr);
  }
  const char* program() const { return words_[0].c_str(); }
  char* const* get() const { return pointers_.data(); }

 private:
  std::vector<std::string> words_;
  std::vector<char*> pointers_;
};

}  // namespace

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kestrix-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void TempDir::Write(const std::string& name, const std::string& text) const {
  std::ofstream f(File(name), std::ios::binary);
  f << text;
}

std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

RunResult RunKestrix(const std::vector<std::string>& args, const std::string& cwd, const std::string& input,
                     long fileSizeLimit) {
  int out[2];
  int in[2];
  // Close-on-exec: programs started from parallel threads must not hold each
  // other's pipes open.
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  // Everything the child needs is made before the fork: a child of a
  // process with other threads must not allocate (a lock held by another
  // thread at the fork is never released in the child).
  const ArgumentVector argv(KESTRIX_EXE, args);
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(in[0], STDIN_FILENO);
    if (chdir(cwd.c_str()) != 0) _exit(126);
    if (fileSizeLimit > 0) {
      rlimit limit{static_cast<rlim_t>(fileSizeLimit), static_cast<rlim_t>(fileSizeLimit)};
      signal(SIGXFSZ, SIG_IGN);
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(125);
    }
    execv(argv.program(), argv.get());
    _exit(127);
  }
  close(out[1]);
  close(in[0]);
  // Small inputs fit the pipe; the program reads them at its own pace.
  if (!input.empty()) {
    ssize_t ignored = write(in[1], input.data(), input.size());
    (void)ignored;
  }
  close(in[1]);
  RunResult result;
  char buffer[4096];
  ssize_t n;
  while ((n = read(out[0], buffer, sizeof buffer)) > 0) result.out.append(buffer, static_cast<size_t>(n));
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

FakeStdin::FakeStdin(const std::string& text) {
  int p[2];
  if (pipe2(p, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  // Small texts fit the pipe, so nobody needs to be writing while it is read.
  if (write(p[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("input too long for a pipe");
  }
  close(p[1]);
  saved_ = dup(STDIN_FILENO);
  dup2(p[0], STDIN_FILENO);
  close(p[0]);
}

FakeStdin::~FakeStdin() {
  dup2(saved_, STDIN_FILENO);
  close(saved_);
}

namespace {

int64_t FrozenUtc() { return kFrozenUtc; }

}  // namespace

RunResult RunInProcess(const std::vector<std::string>& args, const std::string& cwd, const std::string& input) {
  std::vector<std::string> words = {"kestrix"};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  const ClockSource frozen{SystemClock().wallMicroseconds, SystemClock().processorMicroseconds, FrozenUtc};
  const ClockSource* previous = UseClockSource(&frozen);
  RunResult result;
  {
    FakeStdin typed(input);
    testing::internal::CaptureStdout();
    InDirectory(cwd, [&] { result.status = KestrixMain(static_cast<int>(words.size()), argv.data()) & 0xFF; });
    result.out = testing::internal::GetCapturedStdout();
  }
  UseClockSource(previous);
  return result;
}

std::string UniquePortName() {
  static std::atomic<int> counter{0};
  return "kx" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

std::string PortLinkProblem() {
  sim::PortLink probe(UniquePortName(), "/dev/pts/ptmx");
  return probe.ok() ? "" : probe.error();
}

SimProgram::SimProgram(const std::vector<std::string>& args) {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  // Nothing is allocated after the fork (see RunKestrix).
  const ArgumentVector argv(KESTRIX_SIM_EXE, args);
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // a test process killed by a timeout takes it along
    execv(argv.program(), argv.get());
    _exit(127);
  }
  close(out[1]);
  pid_ = pid;
  out_ = out[0];
  greeting_ = ReadUntil("Stop with Ctrl-C\n");
}

SimProgram::~SimProgram() {
  if (pid_ < 0) return;
  int status = 0;
  Stop(&status);
}

std::string SimProgram::ReadUntil(const std::string& marker) {
  std::string text;
  uint64_t start = sim::NowMicros();
  while (text.find(marker) == std::string::npos && sim::NowMicros() - start < 10000000) {
    pollfd p{out_, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    char buffer[512];
    ssize_t n = read(out_, buffer, sizeof buffer);
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  return text;
}

std::string SimProgram::Stop(int* status, int signal) {
  kill(pid_, signal);
  std::string trace = ReadUntil("Stopped\n");
  int raw = 0;
  waitpid(pid_, &raw, 0);
  close(out_);
  pid_ = -1;
  *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return trace;
}


std::string Sha256(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    const char c = text[++i];
    if (c == 'x' && i + 2 < text.size()) {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
      continue;
    }
    static constexpr char kFrom[] = "nrtb\\", kTo[] = "\n\r\t\b\\";
    const char* at = std::strchr(kFrom, c);
    out += at != nullptr ? kTo[at - kFrom] : c;
  }
  return out;
}

std::string Escape(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    if (c == '\n') {
      out += '\n';  // a line of text stays a line
    } else if (c == '\\') {
      out += "\\\\";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\b') {
      out += "\\b";
    } else if (c < 32 || c > 126) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::vector<std::string> FilesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::string DataFile(const std::string& relative) { return std::string(KESTRIX_TEST_DATA) + "/" + relative; }

FailingAllocation::FailingAllocation(int number) {
  FailAt(number);
  pAllocate = [](size_t bytes) { return ++count == failAt ? nullptr : std::malloc(bytes); };
}
FailingAllocation::~FailingAllocation() { pAllocate = std::malloc; }

void FreshRunParameters() {
  ResetRunParameters();
  SetDefaultParameters();
}

std::string CurrentDirectory() { return std::filesystem::current_path().string(); }

void ChangeDirectory(const std::string& dir) { std::filesystem::current_path(dir); }

std::string Format(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

}  // namespace test

