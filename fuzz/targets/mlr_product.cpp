// The MLR identification answer, decoded byte by byte as the product loop
// does until it is complete or refused; the software version has then been
// read from it.
// fuzz-dict: mlr.dict
// fuzz-max-len: 1024

#include <cstdint>
#include <cstring>

#include "fuzz_support.h"
#include "serial/mlr.h"

namespace {

bool IsCode(int32_t result) {
  for (int32_t code : {1, 0, -1, -3, -5, -7, -9, -11, -12, -13, -14}) {
    if (result == code) return true;
  }
  return false;
}

void CheckFields(const mlr::ProductRecord& p) {
  for (int i = 0; i < mlr::kFields; ++i) {
    FUZZ_CHECK(fuzz::IsTerminatedWithin(p.fields[i], mlr::kFieldLimit + 1));
    FUZZ_CHECK(p.lengths[i] >= 0 && p.lengths[i] <= mlr::kFieldLimit);
    // Field A is rewritten once the version has been read from field D.
    if (i > 0) FUZZ_CHECK(std::strlen(p.fields[i]) <= static_cast<size_t>(p.lengths[i]));
    // A leading blank is never kept.
    if (i > 0) FUZZ_CHECK(p.fields[i][0] != ' ');
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  mlr::ProductRecord product;
  std::memset(&product, 0x7F, sizeof product);
  mlr::InitProductDecoder(&product);
  int32_t result = 1;
  bool versionRead = false;
  for (size_t i = 0; i < size && result == 1; ++i) {
    const int32_t stateBefore = product.state;
    result = mlr::DecodeProductData(&product, data[i]);
    FUZZ_CHECK(IsCode(result));
    FUZZ_CHECK(product.state >= 0 && product.state <= 7);
    if (stateBefore == 5 && product.state == 7) versionRead = true;
    CheckFields(product);
  }
  if (result != 0) return 0;

  // Complete: the checksum after "*" matched what came before it.
  FUZZ_CHECK(product.receivedChecksum == product.checksum);
  FUZZ_CHECK(product.state == 0);
  FUZZ_CHECK(std::strlen(product.fields[0]) <= static_cast<size_t>(mlr::kFieldLimit));
  FUZZ_CHECK(product.timeCorrection == 0 || product.timeCorrection == 1);
  if (!versionRead) {
    // Five fields: field A stays as it came, no version is read.
    FUZZ_CHECK(product.timeCorrection == 0);
    FUZZ_CHECK(std::strlen(product.fields[0]) <= static_cast<size_t>(product.lengths[0]));
    return 0;
  }
  FUZZ_CHECK(product.major >= 0 && product.major <= 999999);
  FUZZ_CHECK(product.minor >= 0 && product.minor <= 999999);
  // Only the SP24 firmware that needs it has its times corrected.
  if (product.timeCorrection == 1) FUZZ_CHECK(std::strncmp(product.fields[0], "SP24", 4) == 0);
  // Field A's name carries no doubled, leading or trailing blank; "  SW"
  // follows it unless the name fills (nearly) the whole field.
  const char* a = product.fields[0];
  const char* sw = std::strstr(a, "  SW");
  const size_t name = sw != nullptr ? static_cast<size_t>(sw - a) : std::strlen(a);
  FUZZ_CHECK(sw != nullptr || name > mlr::kFieldLimit - 4);
  const size_t checked = sw != nullptr ? name : mlr::kFieldLimit - 4;
  if (checked > 0) FUZZ_CHECK(a[0] != ' ');
  if (sw != nullptr && name > 0) FUZZ_CHECK(a[name - 1] != ' ');
  for (size_t i = 1; i < checked; ++i) FUZZ_CHECK(!(a[i] == ' ' && a[i - 1] == ' '));
  return 0;
}
