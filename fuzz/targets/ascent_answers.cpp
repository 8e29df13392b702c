// The Ascent product response and flight list: the first 18 bytes are the
// product response; when it is one, the rest is the list, 15 bytes per
// message as the list loop takes them, until a message is refused or one
// numbered 0 ends the list.
// fuzz-max-len: 4096

#include <cstdint>
#include <cstring>
#include <memory>

#include "core/run.h"
#include "fuzz_support.h"
#include "serial/ascent.h"

namespace {

constexpr uint8_t kUntouched = 0x5A;

bool IsUntouched(const ascent::Product& product) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&product);
  for (size_t i = 0; i < sizeof product; ++i) {
    if (bytes[i] != kUntouched) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < ascent::kProductResponseSize) return 0;
  fuzz::FreshRunParameters();
  auto product = std::make_unique<ascent::Product>();
  std::memset(product.get(), kUntouched, sizeof *product);
  std::memset(tGps.szProduct, 0x7F, sizeof tGps.szProduct);
  const bool isProduct = ascent::DecodeProductResponse(data, product.get(), tGps.szProduct, sizeof tGps.szProduct);
  FUZZ_CHECK(isProduct == (data[0] == 0x02));
  if (!isProduct) {
    FUZZ_CHECK(IsUntouched(*product));
    return 0;
  }
  FUZZ_CHECK(fuzz::IsTerminatedWithin(tGps.szProduct, sizeof tGps.szProduct));
  FUZZ_CHECK(std::strncmp(tGps.szProduct, "Ascent, SNR ", 12) == 0);
  FUZZ_CHECK(product->firmware == (data[7] << 8 | data[8]));
  FUZZ_CHECK(product->supported == 0 || product->supported == 1);

  ascent::ListState list;
  ascent::StartList(&list, product.get());
  FUZZ_CHECK(product->flightCount == 0);
  for (size_t at = ascent::kProductResponseSize; at + ascent::kListMessageSize <= size; at += ascent::kListMessageSize) {
    const uint8_t* message = data + at;
    const int32_t countBefore = product->flightCount;
    const int32_t blockBefore = list.previousBlock;
    char entry[64];
    std::memset(entry, 0x7F, sizeof entry);
    const int32_t result = ascent::DecodeListMessage(&list, message, product.get(), entry, sizeof entry);
    FUZZ_CHECK(fuzz::IsTerminatedWithin(entry, sizeof entry));
    FUZZ_CHECK(product->flightCount >= 0 && product->flightCount <= ascent::kMaxFlights);
    if (result == ascent::kListTaken && countBefore < ascent::kMaxFlights) {
      FUZZ_CHECK(product->flightCount == countBefore + 1);
      FUZZ_CHECK(product->flightIds[countBefore] == (message[6] << 8 | message[7]));
      FUZZ_CHECK(entry[0] != '\0');
    } else {
      FUZZ_CHECK(product->flightCount == countBefore);
      FUZZ_CHECK(entry[0] == '\0');
    }
    switch (result) {
      case ascent::kListTaken:
        FUZZ_CHECK(list.previousBlock == ascent::BlockNumber(message));
        break;
      case ascent::kListIgnored:
        FUZZ_CHECK(blockBefore < 0 && list.previousBlock < 0);
        break;
      case ascent::kListBadId:
        FUZZ_CHECK(message[0] != 0x05);
        return 0;
      case ascent::kListBadBlock:
        FUZZ_CHECK(blockBefore >= 0);
        return 0;
      case ascent::kListNoTracks:
        FUZZ_CHECK(message[4] == 0 && message[5] == 0);
        return 0;
      default:
        fuzz::Fail("a list result outside the documented codes", __FILE__, __LINE__);
    }
    if (ascent::BlockNumber(message) == 0) break;
  }
  return 0;
}
