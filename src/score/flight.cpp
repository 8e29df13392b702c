#include "score/flight.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "core/run.h"
#include "geo/conv.h"
#include "igc/igc.h"

namespace score {
namespace {

constexpr double kDegreesPerRadian = 57.29577951308232;

// The reader keeps no validity flag, so the B lines are read again here: the
// reader turns every B line into one point, in order, or refuses the file.
// The lines are split as the reader splits them (a carriage return ends the
// text of a line). Empty when the count does not match.
std::vector<bool> ReadValidity(const char* path, int32_t expected) {
  std::ifstream file(path, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::vector<bool> valid;
  valid.reserve(static_cast<size_t>(expected));
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    if (end == std::string::npos) break;  // the reader drops an unfinished last line
    const size_t cut = text.find('\r', start);
    const size_t length = (cut < end ? cut : end) - start;
    if (length > 0 && text[start] == 'B') valid.push_back(!(length > 24 && text[start + 24] == 'V'));
    start = end + 1;
  }
  if (static_cast<int32_t>(valid.size()) != expected) valid.clear();
  return valid;
}

// Runs the reader with standard output sent to standard error: this program
// keeps standard output for its results.
int32_t ReadQuietly(const char* path) {
  std::fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  if (saved >= 0) dup2(STDERR_FILENO, STDOUT_FILENO);
  const int32_t result = ReadIgcFile(path);
  std::fflush(stdout);
  if (saved >= 0) {
    dup2(saved, STDOUT_FILENO);
    close(saved);
  }
  return result;
}

}  // namespace

void SelectFixes(const std::vector<Fix>& records, const std::vector<bool>& valid, Flight* flight) {
  flight->fixes.clear();
  flight->records = static_cast<int32_t>(records.size());
  flight->invalid = 0;
  flight->repeated = 0;
  for (size_t i = 0; i < records.size(); ++i) {
    if (!valid[i]) {
      ++flight->invalid;
    } else if (!flight->fixes.empty() && flight->fixes.back().time == records[i].time) {
      ++flight->repeated;
    } else {
      flight->fixes.push_back(records[i]);
    }
  }
}

int LoadFlight(const char* path, Flight* flight) {
  ResetRunParameters();
  if (ReadQuietly(path) < 0) return -1;
  const int32_t count = tGps.nTrackPoints;
  std::vector<Fix> records(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) {
    const TrackPoint& point = tGps.pTrackPoints[i];
    double lat = 0.0, lon = 0.0;
    ConvertArcToGeoPos(point.lLatitude, point.lLongitude, &lat, &lon);
    records[static_cast<size_t>(i)] = Fix{i, point.dwTime, lat * kDegreesPerRadian, lon * kDegreesPerRadian};
  }
  std::vector<bool> valid = ReadValidity(path, count);
  if (valid.empty()) valid.assign(static_cast<size_t>(count), true);
  SelectFixes(records, valid, flight);
  return 0;
}

}  // namespace score
