#include "support.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "core/run.h"
#include "driver/families.h"

namespace test {

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

RunResult RunKestrix(const std::vector<std::string>& args, const std::string& cwd,
                     const std::string& input) {
  int out[2];
  int in[2];
  // Close-on-exec: programs started from parallel threads must not hold each
  // other's pipes open.
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  // Everything the child needs is made before the fork: a child of a
  // process with other threads must not allocate (a lock held by another
  // thread at the fork is never released in the child).
  std::string program = KESTRIX_EXE;
  std::vector<std::string> copies = args;
  std::vector<char*> argv;
  argv.push_back(program.data());
  for (std::string& a : copies) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(in[0], STDIN_FILENO);
    if (chdir(cwd.c_str()) != 0) _exit(126);
    execv(program.c_str(), argv.data());
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

void FreshRunParameters() {
  ResetRunParameters();
  SetDefaultParameters();
}

std::string CurrentDirectory() { return std::filesystem::current_path().string(); }

void ChangeDirectory(const std::string& dir) { std::filesystem::current_path(dir); }

}  // namespace test

namespace test {

int32_t RunInstrumentCommand(int32_t (*command)()) { return RunFamilyCommand(*FindFamily(tGps.dwGpsType), command); }

int32_t RunInstrumentCommand(int32_t (*command)(int32_t (*save)()), int32_t (*save)()) {
  return RunFamilyCommand(*FindFamily(tGps.dwGpsType), command, save);
}

}  // namespace test
