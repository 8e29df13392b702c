// The strict text decoders every protocol and file reader uses, each on an
// exact-size copy of the whole input: sentence splitting and checksum,
// numbers, dates, times, positions, and the blank compaction.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

#include "fuzz_support.h"
#include "targets.h"
#include "link/string.h"

namespace {

constexpr uint32_t kUntouched = 0xDEADBEEF;

void CheckSentence(const uint8_t* data, size_t size, int maximum) {
  fuzz::Text sentence(data, size);
  auto offsets = std::make_unique<int32_t[]>(static_cast<size_t>(maximum));
  const int fields = ParseNmeaString(sentence.get(), offsets.get(), maximum);
  if (fields < 1) {
    FUZZ_CHECK(fields >= kNmeaNoStar && fields <= kNmeaNoDollar);
    return;
  }
  FUZZ_CHECK(fields <= maximum);
  FUZZ_CHECK(offsets[0] == 0);
  for (int i = 1; i < fields; ++i) {
    FUZZ_CHECK(offsets[i] > offsets[i - 1] && static_cast<size_t>(offsets[i]) <= size);
    FUZZ_CHECK(sentence.get()[offsets[i] - 1] == '\0');
  }
}

void CheckNumbers(const uint8_t* data, size_t size) {
  fuzz::Text text(data, size);
  uint32_t unsignedValue = kUntouched;
  const bool isUnsigned = DecodeUintString(text.get(), &unsignedValue) == 0;
  if (isUnsigned) {
    FUZZ_CHECK(unsignedValue <= 2147483649u);
  } else {
    FUZZ_CHECK(unsignedValue == kUntouched);
  }
  int32_t signedValue = static_cast<int32_t>(kUntouched);
  const bool isSigned = DecodeIntegerString(text.get(), &signedValue) == 0;
  if (!isSigned) FUZZ_CHECK(signedValue == static_cast<int32_t>(kUntouched));
  uint32_t hexValue = kUntouched;
  if (DecodeHexString(text.get(), &hexValue) != 0) FUZZ_CHECK(hexValue == kUntouched);
  double decimal = -0.25;
  const bool isDecimal = DecodeDecimalString(text.get(), &decimal) == 0;
  if (isDecimal) {
    FUZZ_CHECK(!std::isnan(decimal));
  } else {
    FUZZ_CHECK(decimal == -0.25);
  }
  // What the unsigned decoder takes, the signed one takes alike, and so does
  // the decimal one unless there are no digits at all.
  if (isUnsigned) {
    FUZZ_CHECK(isSigned && signedValue == static_cast<int32_t>(unsignedValue));
    if (std::strpbrk(text.get(), "0123456789") != nullptr) FUZZ_CHECK(isDecimal && decimal == unsignedValue);
  }
}

void CheckDateAndTime(const uint8_t* data, size_t size) {
  fuzz::Text text(data, size);
  uint32_t year = kUntouched, month = kUntouched, day = kUntouched;
  if (DecodeDateString2(text.get(), &year, &month, &day) == 0) {
    FUZZ_CHECK(year <= 99 && month >= 1 && month <= 12 && day >= 1 && day <= 31);
  } else {
    FUZZ_CHECK(year == kUntouched && month == kUntouched && day == kUntouched);
  }
  uint32_t hour = kUntouched, minute = kUntouched, second = kUntouched;
  if (DecodeTimeString(text.get(), &hour, &minute, &second, ':') == 0) {
    FUZZ_CHECK(hour < 24 && minute < 60 && second < 60);
  } else {
    FUZZ_CHECK(hour == kUntouched && minute == kUntouched && second == kUntouched);
  }
}

void CheckPosition(const uint8_t* data, size_t size, int latitude) {
  fuzz::Text text(data, size);
  double degrees = 1000.0;
  const char* end = DecodeWptPosString(text.get(), latitude, &degrees);
  if (end == nullptr) {
    FUZZ_CHECK(degrees == 1000.0);
    return;
  }
  FUZZ_CHECK(end > text.get() && end <= text.get() + size);
  // Below the limit but for the rounding of endless fraction digits.
  FUZZ_CHECK(std::fabs(degrees) <= (latitude ? 90.0 : 180.0) + 1e-9);
}

void CheckCompression(const uint8_t* data, size_t size, bool xml) {
  fuzz::Text text(data, size);
  const int length = xml ? CompressXmlString(text.get()) : CompressString(text.get());
  FUZZ_CHECK(length >= 0 && static_cast<size_t>(length) == std::strlen(text.get()));
  FUZZ_CHECK(static_cast<size_t>(length) <= size);
  FUZZ_CHECK(length == 0 || (text.get()[0] != ' ' && text.get()[length - 1] != ' '));
  FUZZ_CHECK(std::strstr(text.get(), "  ") == nullptr);
  if (xml) FUZZ_CHECK(std::strpbrk(text.get(), "\r\n\t") == nullptr);
}

}  // namespace

int fuzz::target::TextCodecs(const uint8_t* data, size_t size) {
  CheckSentence(data, size, 4);
  CheckSentence(data, size, 40);
  CheckNumbers(data, size);
  CheckDateAndTime(data, size);
  CheckPosition(data, size, 1);
  CheckPosition(data, size, 0);
  CheckCompression(data, size, false);
  CheckCompression(data, size, true);
  return 0;
}
