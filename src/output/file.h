// Saving tracks and waypoints to files; reading waypoint files.
#pragma once

#include <cstdint>

int32_t SaveTracklog();
int32_t SaveOziWaypoints();
int32_t SaveGpxWaypoints();
int32_t SaveKmlWaypoints();
int32_t ReadWaypointFile();
