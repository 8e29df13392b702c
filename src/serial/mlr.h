// MLR receivers: track download.
#pragma once

#include <cstdint>

int32_t DownloadMlrTrackLog();
