// Block decompression for the SYS'Evolution flight memory and its chunk
// checksum.
#pragma once

#include <cstdint>

// Negative results of FastLZ_Decompress.
constexpr int32_t kFastLzMatchPastOutput = -1;
constexpr int32_t kFastLzMatchBeforeStart = -2;
constexpr int32_t kFastLzLiteralPastOutput = -3;
constexpr int32_t kFastLzPastInput = -4;  // a literal run, or an instruction cut off by the end

// Decodes one compressed block (level 1 or 2, told by its first byte) into
// `output`. Returns the number of bytes written, 0 for an empty input, or one
// of the codes above; never reads or writes outside the two buffers.
int32_t FastLZ_Decompress(const uint8_t* input, int32_t inputLength, uint8_t* output, int32_t outputCapacity);

// Adler-32 continued from `initial` (1 for a fresh checksum).
uint32_t Adler32(uint32_t initial, const uint8_t* data, uint32_t length);
