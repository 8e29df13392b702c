// The run record: the one global of settings, the receive FIFO, the
// configuration values, and the downloaded track log and waypoint list with
// the one routine that grows them.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/memory.h"
#include "core/records.h"

constexpr int32_t kComFifoSize = 100000;

// The one command of a run.
enum Command : uint32_t {
  kCommandNone = 0,
  kCommandDownloadTrack = 1, kCommandDownloadWaypoints = 2, kCommandConvertIgc = 3,
  kCommandUploadWaypoints = 4, kCommandDownloadAllTracks = 5,
};

// Instrument type codes of the families that have a switch (the family
// table in the driver knows them all).
enum GpsType : int32_t {
  kGpsNone = 0,
  kGpsGalileo = 1, kGpsMlr = 3, kGpsFlymaster = 5, kGpsIqBasic = 7, kGpsSyride = 9,
  kGpsFlymasterNew = 10, kGpsAscent = 11, kGpsLeonardo = 13,
};

// File-type masks: tracks use the first two bits, waypoints all three.
constexpr uint32_t kFileKml = 1, kFileIgc = 2;
constexpr uint32_t kFileWptOzi = 1, kFileWptGpx = 2, kFileWptKml = 4;

// The one record of run parameters. Field order is part of the design.
struct RunParameters {
  uint32_t dwCommand;
  char szFileName[301];
  char szPilotName[51];  // first byte 1: take the name from the instrument
  uint32_t dwFileTypes;
  int32_t dwGpsType;
  int32_t bNoAnalysis;
  int32_t bDebug;
  int32_t nGapSeconds;    // -1: not given
  int32_t nFlightNumber;  // -1: not given, 0: list only
  int32_t bScroll;
  int32_t nComSpeed;
  int32_t bTrim;
  int32_t bRestartOnInterrupt;
  int32_t bSilent;
  int32_t bSkipExisting;
  char szComPort[33];
  // Receive FIFO: one reader thread produces, the main thread consumes.
  uint8_t abComFifo[kComFifoSize];
  std::atomic<int32_t> nFifoRead;
  std::atomic<int32_t> nFifoWrite;
  std::atomic<int32_t> bComThreadStop;
  std::atomic<int32_t> nComThreadState;
  // Configuration file: IGC header texts, then trim and task settings.
  char szIgcPilotName[81];
  char szIgcGliderType[81];
  char szIgcGliderId[81];
  char szIgcSiteName[81];
  char szIgcCompClass[81];
  int32_t bConfigShowParameters;
  int32_t nTrimLocationInterval;
  int32_t nTrimLocationDistance;
  int32_t nTrimTakeoffInterval;
  int32_t nTrimTakeoffDistance;
  int32_t nTrimTakeoffPrepend;
  int32_t nTrimTakeoffBoxRadius;
  int32_t nTrimTakeoffBoxHeight;
  int32_t nTrimTakeoffBoxPrepend;
  int32_t nTrimLandingInterval;
  int32_t nTrimLandingDistance;
  int32_t nTrimLandingAppend;
  int32_t nTaskLocationInterval;
  int32_t nTaskLocationDistance;
  int32_t nTaskTakeoffInterval;
  int32_t nTaskTakeoffDistance;
  int32_t nTaskTakeoffPrepend;
  int32_t nTaskTakeoffBoxRadius;
  int32_t nTaskTakeoffBoxHeight;
  int32_t nTaskTakeoffBoxPrepend;
  int32_t nTaskLandingInterval;
  int32_t nTaskLandingDistance;
  char szTaskTakeoffScript[256];
  char szTaskLandingScript[256];
  std::atomic<int32_t> bAbort;  // written by the signal handlers
  char szProduct[81];
  uint32_t dwDownloadTime;
  int32_t bUtc;
  int32_t bSignature;
  int32_t bPressureAltitude;
  uint8_t* pbRawLog;
  int32_t nRawLogSize;
  int32_t nRawLogLength;
  uint32_t dwFirstPointTime;
  TrackPoint* pTrackPoints;
  int32_t nTrackCapacity;
  int32_t nTrackPoints;
  Waypoint* pWaypoints;
  int32_t nWaypointCapacity;
  int32_t nWaypoints;
};

static_assert(std::atomic<int32_t>::is_always_lock_free, "flags must be safe in signal handlers");

extern RunParameters tGps;
extern std::atomic<int32_t> restartTask;
extern std::atomic<int32_t> mainThreadActive;

constexpr int32_t kRawLogInitialSize = 20000;
constexpr int32_t kTrackInitialCapacity = 1000;
constexpr int32_t kWaypointInitialCapacity = 100;

// Clears every run parameter to zero, releasing the arrays a previous run
// left (at program start there are none; afterwards buffers live until exit).
void ResetRunParameters();
void SetDefaultParameters();

// The one growth routine of the record's arrays: room for element `used`,
// `initial` elements at first, then twice the capacity whenever it is full.
// -1 when memory ran out; the array is then unchanged and nothing is
// printed, so that each reader names the failure its own way.
template <typename T>
int GrowArray(T** array, int32_t* capacity, int32_t used, int32_t initial) {
  if (*array != nullptr && used < *capacity) return 0;
  if (*array != nullptr && *capacity > INT32_MAX / 2) return -1;
  int32_t wanted = *array == nullptr || *capacity <= 0 ? initial : *capacity * 2;
  T* grown = static_cast<T*>(pAllocate(sizeof(T) * static_cast<size_t>(wanted)));
  if (grown == nullptr) return -1;
  if (*array != nullptr && used > 0) std::memcpy(grown, *array, sizeof(T) * static_cast<size_t>(used));
  std::free(*array);
  *array = grown;
  *capacity = wanted;
  return 0;
}

// Room for one more point of the track log (`initial` points at first).
inline int GrowTrackLog(int32_t initial = kTrackInitialCapacity) {
  return GrowArray(&tGps.pTrackPoints, &tGps.nTrackCapacity, tGps.nTrackPoints, initial);
}

// Appends to the record's arrays; on allocation failure they print
// " Memory allocation error\n" and return -1.
int AppendTrackPoint(const TrackPoint& point);
int AppendWaypoint(const Waypoint& waypoint);
int AppendRawLog(const uint8_t* bytes, int32_t count);

// Frees the track log's points, leaving it empty; the raw log stays.
void ReleaseTrackPoints();
// Frees the raw log and the track log, leaving both empty.
void ReleaseTrackLog();
// An empty track log with room for `points`; with `rawBytes` above 0 the raw
// log too starts empty with that room. -1 when memory ran out (both logs
// released then).
int StartTrackLog(int32_t points, int32_t rawBytes = 0);
// Frees the waypoint list, leaving it empty.
void ReleaseWaypointList();
// An empty waypoint list with its first room; -1 when memory ran out.
int StartWaypointList();

// What a reader knows of the log it filled, for the IGC and KML writers:
// point times are UTC, the log may carry a signature, the points carry
// pressure altitudes; and when it arrived (GPS seconds).
void SetLogFlags(int32_t utc, int32_t signature, int32_t pressureAltitude, uint32_t downloadTime);

// How an all-tracks download hands each track to the saving pipeline.
using TrackSaver = int32_t (*)();

// The walk of an all-tracks download: `read(n)` for n = 1 to `count` fills
// the track log (0), finds no track there (above 0) or fails (below 0, which
// ends the walk); each track read goes to `save` and is released after.
// Returns the last result of a track that was there.
template <typename Read>
int32_t SaveEachTrack(int32_t count, TrackSaver save, Read read) {
  int32_t result = 0;
  for (int32_t n = 1; n <= count; ++n) {
    const int32_t got = read(n);
    if (got > 0) continue;
    result = got;
    if (result < 0) break;
    save();
    ReleaseTrackLog();
  }
  return result;
}
