// Flights for the analysis tests and benchmarks: the fixes of an IGC file and
// synthetic flights with known shapes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "geo/time.h"

namespace flights {

// The B records of an IGC file, in file order: UTC time from the HFDTE date
// (a day added when the time of day falls back by more than 12 hours), GNSS
// altitude in decimetres, the first fix flagged as a segment start.
std::vector<TrackPoint> ReadIgcFixes(const std::string& path);

// Positions given in metres east and north of a fixed place in the Alps.
struct Place {
  double east;
  double north;
};
TrackPoint PointAt(uint32_t time, Place place, int32_t altitudeMetres);

// A path through the corners, one point every `step` metres and `seconds`
// seconds, corners included.
std::vector<TrackPoint> Path(const std::vector<Place>& corners, double step, uint32_t seconds = 1);

struct Synthetic {
  int32_t points = 1000;
  uint32_t seed = 1;
  int32_t equalTimeEvery = 0;  // every n-th point repeats the time before it
  int32_t segmentEvery = 0;    // every n-th point starts a segment
};

// Circling in drifting thermals inside a square of `area` metres: nearly
// every pair of points lies within 800 m.
std::vector<TrackPoint> Thermalling(const Synthetic& shape, double area = 1000.0);
// A random walk of 5 to 15 m steps with turns.
std::vector<TrackPoint> RandomWalk(const Synthetic& shape);
// A straight glide north at 10 m/s with a little noise.
std::vector<TrackPoint> StraightGlide(const Synthetic& shape);
// Out 40 % of the way, back, with thermals on the way.
std::vector<TrackPoint> OutAndReturnFlight(const Synthetic& shape);
// A noisy triangle with thermals at the corners.
std::vector<TrackPoint> TriangleFlight(const Synthetic& shape);

// Puts a copy of `points` into the track log of the run parameters.
void LoadTrack(const std::vector<TrackPoint>& points);
// The track log of the run parameters as a vector.
std::vector<TrackPoint> LoadedTrack();

}  // namespace flights
