// Flymaster instruments: identification, track list, track readers, waypoints.
#pragma once

#include <cstdint>

int32_t DownloadFlymasterTrackLog();
int32_t DownloadFlymasterBulkTrackLog();
int32_t DownloadFlymasterWaypoints();
int32_t UploadFlymasterWaypoints();
