#include "fuzz_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "core/run.h"

namespace fuzz {

void Fail(const char* what, const char* file, int line) {
  std::fprintf(stderr, "\nfuzz check failed: %s (%s:%d)\n", what, file, line);
  std::fflush(stderr);
  std::abort();
}

void FreshRunParameters() {
  ResetRunParameters();
  SetDefaultParameters();
}

Text::Text(const uint8_t* data, size_t size) : bytes_(new char[size + 1]), size_(size) {
  if (size > 0) std::memcpy(bytes_.get(), data, size);
  bytes_[size] = '\0';
}

Arguments::Arguments(const uint8_t* data, size_t size, size_t limit) {
  size_t start = 0;
  while (start < size && texts_.size() < limit) {
    const void* nul = std::memchr(data + start, '\0', size - start);
    size_t end = nul != nullptr ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - data) : size;
    auto text = std::make_unique<char[]>(end - start + 1);
    std::memcpy(text.get(), data + start, end - start);
    text[end - start] = '\0';
    pointers_.push_back(text.get());
    texts_.push_back(std::move(text));
    start = end + 1;
  }
}

const std::string& WorkDirectory() {
  // Never destroyed: the clean-up at exit still needs it.
  static const std::string* const path = [] {
    // Memory-backed when there is such a folder: each input rewrites a file.
    const char* base = std::getenv("TMPDIR");
    if (access("/dev/shm", W_OK) == 0) base = "/dev/shm";
    std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/kestrix-fuzz-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) {
      std::perror("fuzz work directory");
      std::abort();
    }
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(WorkDirectory(), ignored);
    });
    return new std::string(name.data());
  }();
  return *path;
}

void InWorkDirectory(void (*body)()) {
  const int previous = open(".", O_RDONLY | O_DIRECTORY);
  if (previous < 0 || chdir(WorkDirectory().c_str()) != 0) {
    std::perror("fuzz work directory");
    std::abort();
  }
  body();
  if (fchdir(previous) != 0) {
    std::perror("fuzz work directory");
    std::abort();
  }
  close(previous);
}

void WriteWholeFile(const std::string& path, const uint8_t* data, size_t size) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr || (size > 0 && std::fwrite(data, 1, size, file) != size)) {
    std::perror(path.c_str());
    std::abort();
  }
  std::fclose(file);
}

bool IsTerminatedWithin(const char* text, size_t size) { return std::memchr(text, '\0', size) != nullptr; }

}  // namespace fuzz
