// The in-place splitters and field decoders of the waypoint readers: every
// line of the input, split at commas and at blanks, and every item decoded
// as an identifier and as a comment.

#include <cstdint>
#include <cstring>
#include <memory>

#include "fuzz_support.h"
#include "targets.h"
#include "output/file.h"

namespace {

void CheckItem(const char* item) {
  // Exact-size outputs: a decoder writing one byte too many is caught.
  auto id = std::make_unique<char[]>(7);
  const int32_t result = DecodeWaypointId(item, id.get());
  const size_t idLength = strnlen(id.get(), 7);
  FUZZ_CHECK(idLength <= 6);
  FUZZ_CHECK((result == 0) == (idLength > 0));

  auto comment = std::make_unique<char[]>(41);
  DecodeWaypointCmt(item, comment.get());
  const size_t commentLength = strnlen(comment.get(), 41);
  FUZZ_CHECK(commentLength <= 40);
}

// Splits `line` (a copy the splitter may cut) into items at `separator`.
void SplitLine(const char* line, size_t length, char separator) {
  fuzz::Text copy(reinterpret_cast<const uint8_t*>(line), length);
  char* const begin = copy.get();
  char* const end = begin + length;
  char* rest = begin;
  while (rest != nullptr) {
    char* item = nullptr;
    char* next = separator == ',' ? ExtractCommaItem(rest, &item) : ExtractSpaceItem(rest, &item);
    FUZZ_CHECK(item >= rest && item <= end);
    FUZZ_CHECK(*item != ' ');
    FUZZ_CHECK(std::strchr(item, separator) == nullptr);
    FUZZ_CHECK(next == nullptr || (next > item && next <= end && next[-1] == '\0'));
    CheckItem(item);
    rest = next;
  }
}

}  // namespace

int fuzz::target::WaypointFields(const uint8_t* data, size_t size) {
  fuzz::Text text(data, size);
  char* const begin = text.get();
  char* const end = begin + size;
  char* rest = begin;
  while (rest != nullptr) {
    char* line = nullptr;
    char* next = ExtractLine(rest, &line);
    FUZZ_CHECK(line >= rest && line <= end);
    FUZZ_CHECK(*line != ' ');
    const size_t length = std::strlen(line);
    FUZZ_CHECK(std::strpbrk(line, "\r\n") == nullptr);
    FUZZ_CHECK(next == nullptr || (next > line + length && next < end && *next != '\0' && next[-1] == '\0'));
    SplitLine(line, length, ',');
    SplitLine(line, length, ' ');
    rest = next;
  }
  return 0;
}
