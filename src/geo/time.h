// Track records, the GPS time scale and calendar conversions.
#pragma once

#include <cstdint>

// One logged position. Field order and widths are part of the record layout.
struct TrackPoint {
  uint32_t dwFlags;           // bit 0: first point of a track segment
  uint32_t dwTime;            // GPS seconds
  int32_t lLatitude;          // arcs
  int32_t lLongitude;         // arcs
  int32_t lGpsAltitude;       // decimetres
  int32_t lPressureAltitude;  // metres
};

constexpr uint32_t kTrackPointNewSegment = 1;

struct Waypoint {
  int32_t lLatitude;   // arcs
  int32_t lLongitude;  // arcs
  int32_t lAltitude;   // metres
  char szId[7];
  char szComment[41];
  uint32_t dwTime;  // GPS seconds, 0 when unknown
  uint32_t dwReserved;
};

struct SystemTime {
  uint32_t wYear;
  uint32_t wMonth;
  uint32_t wDay;
  uint32_t wHour;
  uint32_t wMinute;
  uint32_t wSecond;
};

// Days before each month (index 1..12), common and leap year.
extern const uint32_t dwDaysTable0[13];
extern const uint32_t dwDaysTable1[13];

// GPS time 0 is 1989-12-31 00:00:00 UTC; leap seconds are not counted.
void GetDownloadTime(SystemTime* out);
// The current time on the GPS scale.
uint32_t GetCurrentGpsTime();
uint32_t ConvertSystemTimeToGpsTime(const SystemTime* in);
void ConvertGpsTimeToSystemTime(uint32_t gps, SystemTime* out);

// Wall clock in microseconds; the clock behind silence timers and progress.
uint64_t GetWallClockMicroseconds();
// Replaces that clock (null: the system's again), for links replayed on
// their own time.
void SetWallClockSource(uint64_t (*source)());
