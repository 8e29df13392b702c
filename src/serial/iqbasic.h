// IQ Basic track download.
#pragma once

#include <cstdint>

int32_t DownloadIqBasicTrackLog();
