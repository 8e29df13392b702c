// Shared pieces of the waypoint file tests: a fixed clock and waypoint records.
#pragma once

#include "core/clock.h"

#include <string>
#include <vector>

#include "core/run.h"
#include "geo/time.h"

namespace test {

uint32_t GpsTime(uint32_t year, uint32_t month, uint32_t day, uint32_t hour, uint32_t minute, uint32_t second);

Waypoint MakeWaypoint(const std::string& id, double latitudeDegrees, double longitudeDegrees, int32_t altitude,
                      const std::string& comment, uint32_t time);

// The waypoint's position in degrees.
double LatitudeOf(const Waypoint& waypoint);
double LongitudeOf(const Waypoint& waypoint);

// Replaces the run parameters' waypoint list.
void UseWaypoints(const std::vector<Waypoint>& waypoints);

// Sets the output name of the run parameters.
void SetOutputName(const std::string& name);

// Installs the fixed clock for the lifetime of the object.
class ClockFixture {
 public:
  ClockFixture();
  ~ClockFixture();
  ClockFixture(const ClockFixture&) = delete;
  ClockFixture& operator=(const ClockFixture&) = delete;

 private:
  ClockSource clock_;
  const ClockSource* previous_;
};

}  // namespace test
