// The fixes a score is computed on, read with the project's IGC reader.
#pragma once

#include <cstdint>
#include <vector>

namespace score {

struct Fix {
  int32_t record;    // position among the file's B records, from 0
  uint32_t time;     // GPS seconds
  double latitude;   // degrees, north positive
  double longitude;  // degrees, east positive
};

struct Flight {
  std::vector<Fix> fixes;  // the fixes used, in file order
  int32_t records = 0;     // B records read
  int32_t invalid = 0;     // left out: validity 'V'
  int32_t repeated = 0;    // left out: same time as the fix kept before
};

// Reads `path` with the IGC reader. Every B record becomes a fix except those
// marked invalid ('V') and those repeating the time of the last fix kept
// (the first of equal times stays). Returns 0, or -1 after the reader's
// message on standard error.
int LoadFlight(const char* path, Flight* flight);

// The selection above applied to records already decoded: `valid[i]` is
// false for an invalid record. Exposed for the tests.
void SelectFixes(const std::vector<Fix>& records, const std::vector<bool>& valid, Flight* flight);

}  // namespace score
