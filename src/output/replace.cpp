#include "output/replace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

bool WriteAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    ssize_t n = write(fd, data, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

// The old way, for what cannot be replaced: devices, pipes, and files in a
// folder where no other file may be made.
int WriteInPlace(const char* name, const char* data, size_t length, const char* openFailure, const char* writeFailure) {
  int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (fd < 0) {
    std::printf(openFailure, name);
    return -1;
  }
  bool written = WriteAll(fd, data, length);
  written = close(fd) == 0 && written;
  if (!written) {
    std::printf(writeFailure, name);
    return -1;
  }
  return 0;
}

std::string FolderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash + 1);
}

}  // namespace

int WriteWholeFile(const char* name, const char* data, size_t length, const char* openFailure,
                   const char* writeFailure) {
  std::string target = name;
  struct stat existing {};
  bool exists = lstat(name, &existing) == 0;
  if (!exists && errno != ENOENT) {
    std::printf(openFailure, name);  // a name too long, or a file where a folder should be
    return -1;
  }
  if (exists && S_ISLNK(existing.st_mode)) {
    char resolved[PATH_MAX];
    if (realpath(name, resolved) == nullptr) {
      return WriteInPlace(name, data, length, openFailure, writeFailure);  // a link to nothing yet
    }
    target = resolved;
    exists = stat(resolved, &existing) == 0;
  }
  if (exists && S_ISDIR(existing.st_mode)) {
    std::printf(openFailure, name);
    return -1;
  }
  if (exists && !S_ISREG(existing.st_mode)) return WriteInPlace(name, data, length, openFailure, writeFailure);
  if (exists && access(target.c_str(), W_OK) != 0) {
    std::printf(openFailure, name);
    return -1;
  }

  std::string temporary = FolderOf(target) + ".kestrix-XXXXXX";
  int fd = mkstemp(temporary.data());
  if (fd < 0) {
    // A file that may be written in a folder that takes no new one.
    if (exists && (errno == EACCES || errno == EPERM)) {
      return WriteInPlace(name, data, length, openFailure, writeFailure);
    }
    std::printf(openFailure, name);
    return -1;
  }
  if (exists) {
    fchmod(fd, existing.st_mode & 07777);
    if (fchown(fd, existing.st_uid, existing.st_gid) != 0) {
      // Only root may give a file away; anyone else's copy stays theirs.
    }
  } else {
    mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
  }
  bool written = WriteAll(fd, data, length) && fsync(fd) == 0;
  written = close(fd) == 0 && written;
  if (!written || rename(temporary.c_str(), target.c_str()) != 0) {
    unlink(temporary.c_str());
    std::printf(writeFailure, name);
    return -1;
  }
  int folder = open(FolderOf(target).c_str(), O_RDONLY | O_DIRECTORY);
  if (folder >= 0) {
    fsync(folder);  // the new name survives a crash too
    close(folder);
  }
  return 0;
}
