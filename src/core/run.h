// The run parameters, program entry and dispatch, console input and progress.
#pragma once

#include <atomic>
#include <cstdint>

#include "geo/time.h"

constexpr int32_t kComFifoSize = 100000;

enum Command : uint32_t {
  kCommandNone = 0,
  kCommandDownloadTrack = 1,
  kCommandDownloadWaypoints = 2,
  kCommandConvertIgc = 3,
  kCommandUploadWaypoints = 4,
  kCommandDownloadAllTracks = 5,
};

enum GpsType : int32_t {
  kGpsNone = 0,
  kGpsGalileo = 1,
  kGpsMlr = 3,
  kGpsFlymaster = 5,
  kGpsIqBasic = 7,
  kGpsSyride = 9,
  kGpsFlymasterNew = 10,
  kGpsAscent = 11,
  kGpsLeonardo = 13,
};

// File-type masks: tracks use the first two bits, waypoints all three.
constexpr uint32_t kFileKml = 1;
constexpr uint32_t kFileIgc = 2;
constexpr uint32_t kFileWptOzi = 1;
constexpr uint32_t kFileWptGpx = 2;
constexpr uint32_t kFileWptKml = 4;

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

// Growing arrays of the run parameters; on allocation failure they print
// " Memory allocation error\n" and return -1.
int AppendTrackPoint(const TrackPoint& point);
int AppendWaypoint(const Waypoint& waypoint);
int AppendRawLog(const uint8_t* bytes, int32_t count);

// Frees the raw log and the track log, leaving both empty.
void ReleaseTrackLog();
// Frees the waypoint list, leaving it empty.
void ReleaseWaypointList();
// An empty waypoint list with its first room; -1 when memory ran out.
int StartWaypointList();

int KestrixMain(int argc, char** argv);
void help();
void KestrixIntExit(int signal);
void KestrixSigExit(int signal);
void MainProgram();
int GetUserInput(char* buffer, int size);

// The progress counter every transfer shows: "Label: 0", then the number
// overwritten in place by backspaces at most once per interval, or a full
// line per update with --scroll.
class ProgressCounter {
 public:
  ProgressCounter(const char* label, uint64_t intervalMicroseconds = 500000);
  void Update(int32_t count);
  void Finish(int32_t count);

 private:
  void Print(int32_t count, const char* end);

  const char* label_;
  uint64_t interval_;
  uint64_t lastPrint_;
  int digits_;
};
