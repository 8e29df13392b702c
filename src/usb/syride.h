// Syride instruments over USB HID.
#pragma once

#include <cstdint>

int32_t DownloadSyrideTrackLog();
int32_t DownloadSyrideBulkTrackLog();
