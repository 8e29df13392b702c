// What kestrix-score prints and writes: text for pilots, JSON, KML.
#pragma once

#include <cstdio>
#include <string>

#include "score/flight.h"
#include "score/search.h"

namespace score {

struct Report {
  const char* file;  // as given on the command line
  const Flight* flight;
  const RuleSet* rules;
  Earth earth;
  const Scores* scores;
};

void PrintText(const Report& report, std::FILE* out);
void PrintJson(const Report& report, std::FILE* out);
// The rule sets, for --rules list.
void PrintRuleSets(std::FILE* out);
// The KML document of the three routes.
std::string MakeKml(const Report& report);
// Writes `text` to `path` through a temporary file in the same folder,
// renamed over `path` only when complete. 0, or -1 after a message on
// standard error (the temporary file is removed then).
int WriteFileAtomically(const char* path, const std::string& text);

}  // namespace score
