// Block decompression of the SYS'Evolution memory, with room to spare, with
// exactly the room the block needs and one byte less; and its chunk
// checksum against zlib's.

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "fuzz_support.h"
#include "targets.h"
#include "usb/fastlz.h"

namespace {

constexpr int32_t kRoom = 1 << 16;

// Decodes into an output of exactly `capacity` bytes.
int32_t Decode(const uint8_t* data, int32_t size, int32_t capacity, std::unique_ptr<uint8_t[]>* output) {
  output->reset(new uint8_t[static_cast<size_t>(capacity)]);
  const int32_t result = FastLZ_Decompress(data, size, output->get(), capacity);
  FUZZ_CHECK(result <= capacity);
  FUZZ_CHECK(result >= kFastLzPastInput);
  return result;
}

}  // namespace

int fuzz::target::Fastlz(const uint8_t* data, size_t size) {
  if (size > INT32_MAX) return 0;
  const auto length = static_cast<int32_t>(size);

  std::unique_ptr<uint8_t[]> wide;
  const int32_t produced = Decode(data, length, kRoom, &wide);
  FUZZ_CHECK((produced == 0) == (size == 0));
  if (produced > 0) {
    std::unique_ptr<uint8_t[]> exact;
    FUZZ_CHECK(Decode(data, length, produced, &exact) == produced);
    FUZZ_CHECK(std::memcmp(exact.get(), wide.get(), static_cast<size_t>(produced)) == 0);
    std::unique_ptr<uint8_t[]> tight;
    FUZZ_CHECK(Decode(data, length, produced - 1, &tight) < 0);
  }

  const auto count = static_cast<uint32_t>(size);
  FUZZ_CHECK(Adler32(1, data, count) == static_cast<uint32_t>(adler32(1, data, static_cast<uInt>(count))));
  const uint32_t half = count / 2;
  FUZZ_CHECK(Adler32(Adler32(1, data, half), data + half, count - half) == Adler32(1, data, count));
  return 0;
}
