// IGC text: reading into the track log, writing with the security record.
#pragma once

#include <array>
#include <cstdint>

#include "core/records.h"

// Key of the security record: a permutation of the 64 bits of its block.
extern const uint8_t abScramble[64];

// Reflected CRC-32 of IEEE 802.3 (polynomial 0xEDB88320), one entry per byte.
extern const std::array<uint32_t, 256> adwCrc32Table;

// Header lines that a caller may add after the standard ones; each holds at
// most 100 characters.
using IgcHeaderLine = char[101];

// Builds the whole IGC file for `count` points in a new buffer handed over
// in `*result` (the caller frees it with std::free). Absent and empty texts
// behave alike. Returns the length without the terminating NUL, or -1 when
// memory runs out (nothing is handed over then).
int32_t EncodeIgcLog(const TrackPoint* points, uint32_t count, const char* pilot, const char* gliderType,
                     const char* gliderId, const char* compClass, const char* site, const char* product,
                     const char* aRecordPrefix, const IgcHeaderLine* extraLines, int32_t extraCount,
                     uint32_t downloadTime, char** result, int32_t security);

// Appends `text` to a growing NUL-terminated buffer and, when `checksum` is
// given, runs its bytes through the CRC. Returns 0, or -1 after freeing the
// buffer when it cannot grow.
int AddIgcString(char** buffer, int32_t* capacity, int32_t* length, const char* text, uint32_t* checksum);

void UpdateCrc(const char* text, uint32_t* checksum);

// One byte step of the reflected CRC-32, without the initial or final inversion.
inline uint32_t Crc32(uint8_t byte, uint32_t crc) { return (crc >> 8) ^ adwCrc32Table[(byte ^ crc) & 0xFFu]; }

// Permutes the 64 bits of `block` in place: output bit j of byte i takes
// input bit table[8i + j].
void ScrambleString(uint8_t* block, const uint8_t* table);

// Reads IGC text into the track log of the run parameters. `pilotField`
// (with its size) is given only by downloads that may take the pilot name
// from the flight. Returns the number of G records, or -1 after printing the
// reason; the point array is then freed.
int32_t DecodeIgcBuffer(const uint8_t* text, int32_t length, char* pilotField, int32_t pilotFieldSize);

// GPS time of midnight of the date in the text after "HFDTE"; 0 or a negative code.
int DecodeDateSentence(const char* text, uint32_t* gpsTime);

// The fields of the text after "B"; `dwTime` receives the time of day and
// the flags are left alone. 0 or a negative code.
int DecodePosSentence(const char* text, TrackPoint* point);

// Reads the whole file at `path` into the track log as DecodeIgcBuffer does.
// Returns the number of G records, or -1 after printing why.
int32_t ReadIgcFile(const char* path);
