// The key of the IGC security record. Fixed data: changing a single value
// makes every file written before unverifiable.
#include "igc/igc.h"

const uint8_t abScramble[64] = {
    58, 45, 15, 59, 22, 3,  10, 13,  //
    27, 34, 18, 0,  21, 20, 36, 40,  //
    9,  17, 54, 14, 5,  2,  39, 7,   //
    30, 26, 6,  44, 55, 31, 16, 53,  //
    11, 8,  63, 60, 46, 23, 56, 52,  //
    32, 48, 50, 29, 41, 47, 19, 43,  //
    62, 37, 4,  12, 42, 49, 51, 33,  //
    1,  38, 57, 25, 28, 61, 35, 24,
};
