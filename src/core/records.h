// The records every layer passes around: a logged position, a waypoint and
// a calendar time.
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
