#include "driver/families.h"

#include <cstring>

#include "link/com.h"
#include "serial/ascent.h"
#include "serial/flymaster.h"
#include "serial/galileo.h"
#include "serial/iqbasic.h"
#include "serial/leonardo.h"
#include "serial/mlr.h"
#include "usb/syride.h"

namespace {

constexpr int32_t kDefaultSpeed = 9600;

// Codes 2, 4, 6, 8 and 12 have no switch and no module, only a line speed.
constexpr Family kFamilies[] = {
    {"c", kGpsGalileo, 57600, true, DownloadGalileoTrackLog, DownloadGalileoBulkTrackLog, DownloadGalileoWaypoints,
     UploadGalileoWaypoints},
    {nullptr, 2, kDefaultSpeed, true, nullptr, nullptr, nullptr, nullptr},
    {"m", kGpsMlr, 4800, true, DownloadMlrTrackLog, nullptr, nullptr, nullptr},
    {nullptr, 4, 57600, true, nullptr, nullptr, nullptr, nullptr},
    {"y", kGpsFlymaster, 57600, true, DownloadFlymasterTrackLog, DownloadFlymasterBulkTrackLog,
     DownloadFlymasterWaypoints, UploadFlymasterWaypoints},
    {nullptr, 6, 38400, true, nullptr, nullptr, nullptr, nullptr},
    {"iq", kGpsIqBasic, 57600, true, DownloadIqBasicTrackLog, nullptr, nullptr, nullptr},
    {nullptr, 8, kConfiguredSpeed, true, nullptr, nullptr, nullptr, nullptr},
    {"sy", kGpsSyride, kDefaultSpeed, false, DownloadSyrideTrackLog, DownloadSyrideBulkTrackLog, nullptr, nullptr},
    {"yn", kGpsFlymasterNew, kDefaultSpeed, true, DownloadFlymasterTrackLog, DownloadFlymasterBulkTrackLog,
     DownloadFlymasterWaypoints, UploadFlymasterWaypoints},
    {"as", kGpsAscent, kDefaultSpeed, true, DownloadAscentTrackLog, DownloadAscentBulkTrackLog, nullptr, nullptr},
    {nullptr, 12, 38400, true, nullptr, nullptr, nullptr, nullptr},
    {"da", kGpsLeonardo, 115200, true, DownloadLeonardoTrackLog, DownloadLeonardoBulkTrackLog, nullptr, nullptr},
};

}  // namespace

const Family* FindFamily(int32_t type) {
  for (const Family& family : kFamilies) {
    if (family.type == type) return &family;
  }
  return nullptr;
}

const Family* FindFamilyBySwitch(const char* letters) {
  for (const Family& family : kFamilies) {
    if (family.switchLetters != nullptr && std::strcmp(family.switchLetters, letters) == 0) return &family;
  }
  return nullptr;
}

int32_t GetComSpeedForType(int32_t gpsType) {
  const Family* family = FindFamily(gpsType);
  if (family == nullptr) return kDefaultSpeed;
  if (family->lineSpeed != kConfiguredSpeed) return family->lineSpeed;
  return tGps.nComSpeed != 0 ? tGps.nComSpeed : kDefaultSpeed;
}

int32_t RunFamilyCommand(const Family& family, int32_t (*command)()) {
  if (!family.serialPort) return command();
  return RunComCommand(GetComSpeedForType(family.type), command);
}

int32_t RunFamilyCommand(const Family& family, int32_t (*command)(TrackSaver), TrackSaver save) {
  if (!family.serialPort) return command(save);
  return RunComCommand(GetComSpeedForType(family.type), [command, save] { return command(save); });
}
