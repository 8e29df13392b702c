// IGC text: reading into the track log, writing with the security record.
#pragma once

#include <cstdint>

// Builds the track log from IGC text. `pilotField` (room for `pilotFieldSize`
// characters) is given only when the pilot name is to be taken from the text.
int32_t DecodeIgcBuffer(const uint8_t* text, int32_t length, char* pilotField, int32_t pilotFieldSize);
int32_t TranslateIgcLog();
