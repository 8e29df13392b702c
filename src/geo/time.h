// The GPS time scale and calendar conversions.
#pragma once

#include <cstdint>

#include "core/records.h"

// Days before each month (index 1..12), common and leap year.
extern const uint32_t dwDaysTable0[13];
extern const uint32_t dwDaysTable1[13];

// GPS time 0 is 1989-12-31 00:00:00 UTC; leap seconds are not counted.
// The current calendar time (UTC) of the program's clock.
void GetDownloadTime(SystemTime* out);
// The current time on the GPS scale.
uint32_t GetCurrentGpsTime();
uint32_t ConvertSystemTimeToGpsTime(const SystemTime* in);
void ConvertGpsTimeToSystemTime(uint32_t gps, SystemTime* out);
