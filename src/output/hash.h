// SHA-1 digest over the values of a KML track document.
#pragma once

#include <cstdint>

struct HashContext {
  uint32_t adwState[5];
  uint32_t adwBlock[16];  // the 64-byte block being filled, as big-endian words
  uint32_t dwWord;        // the word being packed, byte by byte
  uint32_t dwBytes;       // message bytes so far; the bit count kept is 32 bits wide
};

void HashInit(HashContext* hash);

// Feeds a zero-terminated text without its terminator. Each byte is added to
// the word being packed as a signed 8-bit value, so a byte of 128 or above
// also lowers the bytes already in that word. Digests of existing documents
// were made this way: below 128 it is plain SHA-1, above it must not change.
void HashString(HashContext* hash, const char* text);

// Feeds `length` bytes packed unsigned (plain SHA-1); returns the count.
int32_t HashBuffer(HashContext* hash, const uint8_t* bytes, int32_t length);

// The 80-round compression of the collected block into the state.
void HashBlock(HashContext* hash);

// The compression uses the processor's SHA-1 instructions where it has them
// (set at start); tests switch this off to check the portable one.
extern bool bHashInstructions;

// Pads the message, compresses what is left and gives the five digest words,
// first to last. The context must be initialised again before reuse.
void HashFinish(HashContext* hash, uint32_t digest[5]);
