// Writing a whole file so that a failure never costs the file that was there.
#pragma once

#include <cstddef>

// Writes `length` bytes as the whole new content of `name`: into a temporary
// file in the same folder, flushed to the disk, then renamed over `name`.
// When anything fails the temporary file is removed and what was there stays
// as it was. `openFailure` (the file cannot be made) and `writeFailure` (the
// bytes did not all reach it) are printed with the name. A name that is a
// link writes the file it points at; a device or pipe is written directly.
// 0, or -1 after the message.
int WriteWholeFile(const char* name, const char* data, size_t length, const char* openFailure,
                   const char* writeFailure);
