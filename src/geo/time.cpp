#include "geo/time.h"

#include <ctime>

#include "core/clock.h"

const uint32_t dwDaysTable0[13] = {0, 0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
const uint32_t dwDaysTable1[13] = {0, 0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335};

namespace {
constexpr uint32_t kSecondsPerDay = 86400;
constexpr uint32_t kDaysInFourYears = 1461;
constexpr uint32_t k364Days = 31449600;  // 1989-01-01 to the GPS epoch
}  // namespace

void GetDownloadTime(SystemTime* out) {
  std::time_t now = static_cast<std::time_t>(GetUtcSeconds());
  std::tm utc{};
  gmtime_r(&now, &utc);
  out->wYear = static_cast<uint32_t>(utc.tm_year + 1900);
  out->wMonth = static_cast<uint32_t>(utc.tm_mon + 1);
  out->wDay = static_cast<uint32_t>(utc.tm_mday);
  out->wHour = static_cast<uint32_t>(utc.tm_hour);
  out->wMinute = static_cast<uint32_t>(utc.tm_min);
  out->wSecond = static_cast<uint32_t>(utc.tm_sec);
}

uint32_t GetCurrentGpsTime() {
  SystemTime now{};
  GetDownloadTime(&now);
  return ConvertSystemTimeToGpsTime(&now);
}

uint32_t ConvertSystemTimeToGpsTime(const SystemTime* in) {
  // Unsigned arithmetic throughout: wraps as the 32-bit scale does.
  uint32_t y = in->wYear - 1989u;
  uint32_t seconds = (y / 4u) * kSecondsPerDay + y * 31536000u + (in->wDay - 1u) * kSecondsPerDay +
                     in->wHour * 3600u + in->wMinute * 60u + in->wSecond;
  // Out-of-range months would index past the tables; they add nothing.
  uint32_t month = in->wMonth < 13u ? in->wMonth : 0u;
  const uint32_t* days = (in->wYear % 4u) != 0u ? dwDaysTable0 : dwDaysTable1;
  seconds += days[month] * kSecondsPerDay;
  return seconds - k364Days;
}

void ConvertGpsTimeToSystemTime(uint32_t gps, SystemTime* out) {
  uint32_t s = gps + k364Days;
  uint32_t year = 1989u + 4u * (s / (kDaysInFourYears * kSecondsPerDay));
  uint32_t d = (s / kSecondsPerDay) % kDaysInFourYears;
  if (d < 365u) {
  } else if (d < 730u) {
    year += 1u;
    d -= 365u;
  } else if (d < 1095u) {
    year += 2u;
    d -= 730u;
  } else {
    year += 3u;
    d -= 1095u;
  }
  const uint32_t* days = (year % 4u) == 0u ? dwDaysTable1 : dwDaysTable0;
  uint32_t month = 12u;
  for (uint32_t m = 2; m <= 12u; ++m) {
    if (days[m] > d) {
      month = m - 1u;
      break;
    }
  }
  out->wYear = year;
  out->wMonth = month;
  out->wDay = d - days[month] + 1u;
  out->wHour = (s % kSecondsPerDay) / 3600u;
  out->wMinute = (s % 3600u) / 60u;
  out->wSecond = s % 60u;
}
