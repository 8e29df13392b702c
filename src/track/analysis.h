// Track processing: repairs of a downloaded log, takeoff and landing trim,
// flight statistics and the distance, out-and-return and triangle searches.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/records.h"

// Rule constants of the checks and the analysis, in one place.
namespace rules {
constexpr uint32_t kTopSpeedWindow = 10;              // s, window of the top speed
constexpr uint32_t kMeanSpeedWindow = 60;             // s, window of the mean speed and climb
constexpr double kTopSpeedFactor = 0.36;              // 10-s metres to km/h
constexpr double kMeanSpeedFactor = 0.06;             // 60-s metres to km/h
constexpr double kClimbFactor = 0.001666667;          // decimetres per minute to m/s
constexpr int32_t kSampleLimit = 2000;                // points of the planar search
constexpr uint32_t kClosingGap = 800;                 // m, planar: strictly below
constexpr double kClosingGapGeodesic = 800.0;         // m, refinements
constexpr int64_t kFaiSideNumerator = 7;              // planar: 7/25 = 28 % of the perimeter
constexpr int64_t kFaiSideDenominator = 25;
constexpr double kFaiSideShare = 0.28;                // refinement
constexpr int32_t kRefineReach = 2;                   // refinement tries -2..+2 around a point
constexpr int64_t kOutAndReturnStart = -999999999;    // planar out-and-return best at start
constexpr int64_t kTriangleStart = -1;                // planar triangle bests at start
constexpr int32_t kMaxTracks = 100;                   // multiple-track list
constexpr int32_t kSpeedCheckMinPoints = 10;          // shorter logs skip the speed check
constexpr int32_t kSpeedBins = 100;                   // m/s histogram
constexpr int32_t kSpeedAnchorRun = 10;               // consecutive slow steps of the anchor
constexpr uint32_t kKeepMark = 0x80000000u;           // temporary flag of the speed check
}  // namespace rules

// ---------------------------------------------------------------------------
// Checks on the track log of the run parameters (tGps). Each compacts the log
// in place and returns 0, or -1 when nothing is left to save.
int32_t CheckForInvalidTimeStamps();
int32_t CheckForMultipleTracks();        // asks "Select (a=all,0=none): "
int32_t CheckForTimestampConsistency();  // asks whether to keep points going back in time
int32_t CheckForSpeedConsistency();

// ---------------------------------------------------------------------------
// Cuts the track log of the run parameters to the part between the detected
// takeoff and landing, driven by the TRIM_* values of tGps, and prints how it
// decided. Returns 0, or -1 after "Memory allocation error" (log unchanged).
int32_t TrimTrack();
// Prints "hh:mm:ss <label>\n" for the point's time.
void PrintTrimInformation(int32_t index, const char* label);

// ---------------------------------------------------------------------------
// Flight analysis.

// One distance result as the KML document prints it: the points A, B, ...
// (indices into FlightAnalysis::pPoints), one stored distance for each point
// after A (printed on that point's line) and the figure of the "Sum" line.
//   open distance   2 points  distance[0] = A-B; sum = A-B (no Sum line is printed)
//   3, 4, 5 points  3..5      distance[k] = leg from point k to point k+1; sum = all legs
//   out-and-return  3 points  start, turnpoint, end
//                             distance[0] = start-turnpoint, [1] = start-end (closing gap)
//                             sum = 2 x [0] - [1] (the score)
//   flat, FAI       5 points  start, tp1, tp2, tp3, end
//                             distance[0] = tp1-tp2, [1] = tp2-tp3, [2] = tp3-tp1,
//                             [3] = start-end (closing gap); sum = [0] + [1] + [2] - [3]
// A shape that was not found keeps zero indices and zero distances.
struct DistanceResult {
  int32_t nPoints;       // 2 to 5, fixed per kind
  int32_t anIndex[5];    // point indices, increasing
  double adDistance[4];  // metres (geodesic)
  double dSum;           // metres
};

// The analysis record: the caller fills the input part, AnalyzeTrack the rest.
struct FlightAnalysis {
  // Input.
  int32_t nPoints;
  TrackPoint* pPoints;        // the KML writer may rewrite the times in place
  uint32_t dwDownloadTime;    // GPS seconds, 0xFFFFFFFF when unknown
  int32_t bSignature;         // the log came with a valid signature
  int32_t bPilotIdentity;     // the two ids below are valid (the saving pipeline sets 0)
  int32_t nCivlPilotId;       // negative: absent
  int32_t nCompPilotId;       // negative: absent
  int32_t bUtc;               // point times are UTC
  int32_t bPressureAltitude;  // points carry pressure altitudes

  // Statistics.
  uint32_t dwStartTime;      // GPS seconds of the first point
  uint32_t dwEndTime;        // GPS seconds of the last point
  uint32_t dwDuration;       // seconds, end minus start (unsigned)
  int32_t nLowestAltitude;   // m, GNSS
  int32_t nHighestAltitude;  // m, GNSS
  double dTopSpeed;          // km/h, greatest 10-s speed ("top speed")
  double dMeanSpeed;         // km/h, greatest 60-s speed ("max. mean speed")
  double dTrackLength;       // m, sum of the legs between points ("total distance")
  double dAverageSpeed;      // km/h, track length over duration
  double dWorstSink;         // m/s over 60 s, never above 0 ("min climb rate")
  double dBestClimb;         // m/s over 60 s, never below 0 ("max climb rate")

  // Distance results, in the order the KML document lists them.
  DistanceResult tFivePoint;
  DistanceResult tFourPoint;
  DistanceResult tThreePoint;
  DistanceResult tOpenDistance;
  DistanceResult tOutAndReturn;
  DistanceResult tFlatTriangle;
  DistanceResult tFaiTriangle;
};

// Prints "Computing statistics" and the search headings, fills the record.
// Returns 0, or -1 after "Memory allocation error" (the statistics are filled
// then, the distance results are zero).
int32_t AnalyzeTrack(FlightAnalysis* record);

// Windowed speeds ending at point `index`: 10-s speed in km/h; 60-s speed in
// km/h and climb in m/s. At a segment start the speed is 0 and `climb` is left
// as it was.
void CalculateTopSpeed(const TrackPoint* points, int32_t index, double* speed);
void CalculateMeanSpeed(const TrackPoint* points, int32_t index, double* speed, double* climb);

// The stages of AnalyzeTrack on their own, so that each can be measured:
// the statistics alone (every field from dwStartTime to dBestClimb), and the
// planar search on sampled points for the open, 3-, 4- and 5-point distances
// and the out-and-return, before refinement. Indices are into the full
// track; bOutAndReturn is 0 when no out-and-return closes. -1 when memory
// runs out.
void AnalyzeStatistics(FlightAnalysis* record);
struct SampledDistances {
  int32_t anOpen[2];
  int32_t anThree[3];
  int32_t anFour[4];
  int32_t anFive[5];
  int32_t anOutAndReturn[3];
  int32_t bOutAndReturn;
};
int32_t SearchSampledDistances(const FlightAnalysis* record, SampledDistances* found);

// Local refinements on the full track (indices in and out).
void CheckTp0Distance(const FlightAnalysis* record, int32_t* start, int32_t* end);
void CheckTp1Distance(const FlightAnalysis* record, int32_t* start, int32_t* tp, int32_t* end);
void CheckTp2Distance(const FlightAnalysis* record, int32_t* start, int32_t* tp1, int32_t* tp2, int32_t* end);
void CheckTp3Distance(const FlightAnalysis* record, int32_t* start, int32_t* tp1, int32_t* tp2, int32_t* tp3,
                      int32_t* end);
void CheckOutAndReturn(const FlightAnalysis* record, int32_t* start, int32_t* tp, int32_t* end);
void CheckFlatTriangle(const FlightAnalysis* record, int32_t* start, int32_t* tp1, int32_t* tp2, int32_t* tp3,
                       int32_t* end);
void CheckFaiTriangle(const FlightAnalysis* record, int32_t* start, int32_t* tp1, int32_t* tp2, int32_t* tp3,
                      int32_t* end);

// ---------------------------------------------------------------------------
// The triangle search on sampled points, as AnalyzeTrack runs it (there on
// closing gaps held in 16 bits, the closing pair found for the winners
// only); public so that it can be checked and measured on its own.

// `distance` is the N x N symmetric table of rounded planar metres. The two
// closing tables are upper triangular (row a holds c = a .. N-1, starting at
// ClosingRowStart(N, a)): the smallest distance d(s, e) over s <= a and
// e >= c, and that pair packed as s * 65536 + e.
size_t ClosingTableSize(int32_t count);
size_t ClosingRowStart(int32_t count, int32_t row);
void FillClosingTables(const uint32_t* distance, int32_t count, uint32_t* gap, uint32_t* pair);

// Sampled indices start, tp1, tp2, tp3, end and the score (perimeter minus
// closing gap) of the greatest flat and FAI triangles; a score below 0 means
// none was found.
struct SampledTriangles {
  int64_t lFlatScore;
  int32_t anFlat[5];
  int64_t lFaiScore;
  int32_t anFai[5];
};

// Returns 0, or -1 when its working memory cannot be allocated.
int32_t FindSampledTriangles(const uint32_t* distance, int32_t count, const uint32_t* gap, const uint32_t* pair,
                             SampledTriangles* result);

