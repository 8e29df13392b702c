// Helpers the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace fuzz {

// Ends the run on a broken invariant; libFuzzer keeps the input as a crash.
[[noreturn]] void Fail(const char* what, const char* file, int line);

#define FUZZ_CHECK(condition) ((condition) ? static_cast<void>(0) : ::fuzz::Fail(#condition, __FILE__, __LINE__))

// The run parameters as the program starts: zeroed (arrays of the previous
// input released), defaults set, --silent off.
void FreshRunParameters();

// A NUL-terminated heap copy of exactly size + 1 bytes, so that a decoder
// reading past the terminator is caught.
class Text {
 public:
  Text(const uint8_t* data, size_t size);
  char* get() { return bytes_.get(); }
  size_t size() const { return size_; }

 private:
  std::unique_ptr<char[]> bytes_;
  size_t size_;
};

// Splits the input at NUL bytes into at most `limit` separate exact-size
// texts (an argument list).
class Arguments {
 public:
  Arguments(const uint8_t* data, size_t size, size_t limit);
  int count() const { return static_cast<int>(pointers_.size()); }
  char** get() { return pointers_.data(); }

 private:
  std::vector<std::unique_ptr<char[]>> texts_;
  std::vector<char*> pointers_;
};

// A private folder (made once per process, removed at exit) for decoders
// that read files; in /dev/shm when there is one.
const std::string& WorkDirectory();

// Runs `body` with the private folder as the current directory, for decoders
// that read fixed file names; the previous directory is restored after it,
// so that libFuzzer's own relative paths keep working.
void InWorkDirectory(void (*body)());

// Replaces the file `path` by `data`.
void WriteWholeFile(const std::string& path, const uint8_t* data, size_t size);

bool IsTerminatedWithin(const char* text, size_t size);

}  // namespace fuzz
