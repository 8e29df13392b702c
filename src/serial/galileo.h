// Brauniger/Flytec family: track download and waypoint transfer.
#pragma once

#include <cstdint>

int32_t DownloadGalileoTrackLog();
int32_t DownloadGalileoBulkTrackLog();
int32_t DownloadGalileoWaypoints();
int32_t UploadGalileoWaypoints();
