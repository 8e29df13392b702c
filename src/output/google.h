// KML track document.
#pragma once

#include <cstdint>

constexpr int32_t kXmlStartLength = 17;

// Writes the text that starts every track digest, and its terminator, to
// `secret` (kXmlStartLength + 1 bytes). The program holds it only scrambled;
// it never changes, or earlier documents would no longer verify.
void GetXmlStart(char* secret);
