#include "output/google.h"

namespace {

// The digest secret, last character first, each byte XORed with its
// position's key, so that the plain text appears nowhere in the program.
// Volatile keeps the compiler from unscrambling it at build time.
const volatile uint8_t abXmlStart[kXmlStartLength] = {0x26, 0x41, 0xC4, 0xC3, 0xE4, 0xA1, 0x72, 0x1E, 0x13,
                                                      0x0C, 0x4C, 0xD0, 0xCE, 0xF6, 0xC5, 0x7E, 0x78};

constexpr uint8_t XmlStartKey(int32_t position) { return static_cast<uint8_t>(0x5C + 29 * position); }

}  // namespace

void GetXmlStart(char* secret) {
  for (int32_t i = 0; i < kXmlStartLength; ++i) {
    secret[kXmlStartLength - 1 - i] = static_cast<char>(abXmlStart[i] ^ XmlStartKey(i));
  }
  secret[kXmlStartLength] = '\0';
}
