#include "waypoint_support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "geo/conv.h"
#include "output/file.h"

namespace test {

uint32_t GpsTime(uint32_t year, uint32_t month, uint32_t day, uint32_t hour, uint32_t minute, uint32_t second) {
  SystemTime time{year, month, day, hour, minute, second};
  return ConvertSystemTimeToGpsTime(&time);
}

Waypoint MakeWaypoint(const std::string& id, double latitudeDegrees, double longitudeDegrees, int32_t altitude,
                      const std::string& comment, uint32_t time) {
  Waypoint w{};
  ConvertGeoToArcPos(latitudeDegrees / 57.29577951308, longitudeDegrees / 57.29577951308, &w.lLatitude, &w.lLongitude);
  w.lAltitude = altitude;
  std::snprintf(w.szId, sizeof w.szId, "%s", id.c_str());
  std::snprintf(w.szComment, sizeof w.szComment, "%s", comment.c_str());
  w.dwTime = time;
  return w;
}

double LatitudeOf(const Waypoint& waypoint) { return waypoint.lLatitude * kArcToRadians * 57.29577951308; }

double LongitudeOf(const Waypoint& waypoint) { return waypoint.lLongitude * kArcToRadians * 57.29577951308; }

void UseWaypoints(const std::vector<Waypoint>& waypoints) {
  std::free(tGps.pWaypoints);
  tGps.pWaypoints = nullptr;
  tGps.nWaypoints = 0;
  tGps.nWaypointCapacity = 0;
  for (const Waypoint& w : waypoints) AppendWaypoint(w);
}

void SetOutputName(const std::string& name) {
  std::snprintf(tGps.szFileName, sizeof tGps.szFileName, "%s", name.c_str());
}

namespace {

int64_t FixedUtcSeconds() { return 1714572429; }  // 2024-05-01 14:07:09 UTC

}  // namespace

ClockFixture::ClockFixture()
    : clock_{SystemClock().wallMicroseconds, SystemClock().processorMicroseconds, FixedUtcSeconds},
      previous_(UseClockSource(&clock_)) {}

ClockFixture::~ClockFixture() { UseClockSource(previous_); }

}  // namespace test
