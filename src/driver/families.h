// The instrument families: one row per type code. The argument parser finds
// a family by its switch letters, GetComSpeedForType by its code, and
// MainProgram calls its entry points. Adding a family is one row here plus
// its module in serial/ or usb/.
#pragma once

#include <cstdint>

#include "core/run.h"

struct Family {
  const char* switchLetters;  // after "-g"; null: no switch selects the code
  int32_t type;               // the instrument type code of the run record
  int32_t lineSpeed;          // baud; kConfiguredSpeed: tGps.nComSpeed, 9600 when 0
  bool serialPort;            // false: the module finds its own device (USB)
  // The commands, or null where the family has none.
  int32_t (*downloadTrack)();
  int32_t (*downloadAllTracks)(TrackSaver save);
  int32_t (*downloadWaypoints)();
  int32_t (*uploadWaypoints)();
};

constexpr int32_t kConfiguredSpeed = 0;

// The row of a type code or of "-g" switch letters; null when none has it.
const Family* FindFamily(int32_t type);
const Family* FindFamilyBySwitch(const char* letters);

// Line speed at open for an instrument type code.
int32_t GetComSpeedForType(int32_t gpsType);

// Runs one of a family's commands: on a serial port opened at the family's
// line speed and closed afterwards, or as it is for a USB family.
int32_t RunFamilyCommand(const Family& family, int32_t (*command)());
int32_t RunFamilyCommand(const Family& family, int32_t (*command)(TrackSaver), TrackSaver save);
