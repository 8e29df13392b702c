// Ascent track download.
#pragma once

#include <cstdint>

int32_t DownloadAscentTrackLog();
int32_t DownloadAscentBulkTrackLog();
