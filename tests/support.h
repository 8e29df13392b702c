// Shared test helpers: temporary folders, running the program, capturing output.
#pragma once

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

// Runs the built program in `cwd` with `args`, feeding `input` on standard input.
RunResult RunKestrix(const std::vector<std::string>& args, const std::string& cwd,
                     const std::string& input = "");

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

// Resets the run parameters the way the program starts: all zero, defaults set.
void FreshRunParameters();

// Runs an instrument command as the dispatch does: on the port of the run
// record's type, opened at its line speed and closed afterwards.
int32_t RunInstrumentCommand(int32_t (*command)());
int32_t RunInstrumentCommand(int32_t (*command)(int32_t (*save)()), int32_t (*save)());

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

}  // namespace test
