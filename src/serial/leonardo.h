// Digifly Leonardo/Air: track download.
#pragma once

#include <cstdint>

int32_t DownloadLeonardoTrackLog();
int32_t DownloadLeonardoBulkTrackLog();
