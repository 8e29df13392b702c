#include "driver/cmd.h"

#include <cstdio>
#include <cstring>

#include "core/run.h"
#include "driver/families.h"
#include "link/string.h"

namespace {

constexpr size_t kWorkSize = 1024;
constexpr size_t kPortNameLimit = 22;

struct Extension {
  const char* ending;
  uint32_t types;
};

constexpr Extension kTrackExtensions[] = {{".kml", kFileKml}, {".igc", kFileIgc}};
constexpr Extension kWaypointExtensions[] = {
    {".wpt", kFileWptOzi}, {".gpx", kFileWptGpx}, {".kml", kFileWptKml}};

// Removes surrounding double quotes in place; a value that opens a quote
// must close it.
int Unquote(char* value, const char* message) {
  if (value[0] != '"') return 0;
  size_t length = std::strlen(value);
  if (length < 2 || value[length - 1] != '"') {
    std::printf(message, value);
    return -1;
  }
  std::memmove(value, value + 1, length - 2);
  value[length - 2] = '\0';
  return 0;
}

void StoreFileName(const char* name) {
  std::snprintf(tGps.szFileName, sizeof tGps.szFileName, "%s", name);
}

// Cuts a recognised extension off `value` and returns its file types, or
// `otherwise` when none matches (the name is then kept whole).
template <size_t N>
uint32_t TakeExtension(char* value, const Extension (&extensions)[N], uint32_t otherwise) {
  size_t length = std::strlen(value);
  if (length < 4) return otherwise;
  for (const Extension& e : extensions) {
    if (std::strcmp(value + length - 4, e.ending) == 0) {
      value[length - 4] = '\0';
      return e.types;
    }
  }
  return otherwise;
}

// A command that cannot do without a file name: `missing` when none is given.
int TakeNeededFileName(char* value, Command command, const char* missing) {
  if (Unquote(value, "File name not enclosed in quotation marks: %s\n") < 0) return -1;
  if (value[0] == '\0') {
    std::printf("%s", missing);
    return -1;
  }
  tGps.dwCommand = command;
  StoreFileName(value);
  return 0;
}

// "-g" and "-c" take the rest of the switch, or the rest after "=".
char* AttachedValue(char* work) { return work[1] == '=' ? work + 2 : work + 1; }

}  // namespace

int HandleCmdGpsType(char* value) {
  const Family* family = FindFamilyBySwitch(value);
  if (family == nullptr) {
    std::printf("Unsupported GPS: %s\n", value);
    return -1;
  }
  tGps.dwGpsType = family->type;
  return 0;
}

int HandleCmdPort(char* value) {
  if (std::strncmp(value, "u.", 2) != 0) {
    std::printf("Unrecognized comm. port: %s\n", value);
    return -1;
  }
  const char* name = value + 2;
  if (std::strlen(name) >= kPortNameLimit) {
    std::printf("Too long comm. port name\n");
    return -1;
  }
  std::snprintf(tGps.szComPort, sizeof tGps.szComPort, "/dev/cu.%s", name);
  return 0;
}

int HandleCmdLog(char* value) {
  if (Unquote(value, "File name not enclosed in quotation marks: %s\n") < 0) return -1;
  tGps.dwCommand = kCommandDownloadTrack;
  tGps.dwFileTypes = value[0] == '\0' ? kFileKml | kFileIgc
                                      : TakeExtension(value, kTrackExtensions, kFileKml | kFileIgc);
  StoreFileName(value);
  return 0;
}

int HandleCmdBulkLog(char* value) {
  if (Unquote(value, "File type not enclosed in quotation marks: %s\n") < 0) return -1;
  size_t length = std::strlen(value);
  uint32_t types = kFileKml | kFileIgc;
  if (length >= 3) {
    const char* word = value + length - 3;
    if (std::strcmp(word, "kml") == 0) {
      types = kFileKml;
    } else if (std::strcmp(word, "igc") == 0) {
      types = kFileIgc;
    } else {
      std::printf("Unknown file type: %s\n", value);
      return -1;
    }
    value[length - 3] = '\0';
  }
  tGps.dwCommand = kCommandDownloadAllTracks;
  tGps.dwFileTypes = types;
  StoreFileName(value);
  return 0;
}

int HandleCmdWptRead(char* value) {
  if (Unquote(value, "File name not enclosed in quotation marks: %s\n") < 0) return -1;
  uint32_t all = kFileWptOzi | kFileWptGpx | kFileWptKml;
  tGps.dwCommand = kCommandDownloadWaypoints;
  tGps.dwFileTypes = value[0] == '\0' ? all : TakeExtension(value, kWaypointExtensions, all);
  StoreFileName(value);
  return 0;
}

int HandleCmdWptWrite(char* value) { return TakeNeededFileName(value, kCommandUploadWaypoints, "No file name\n"); }

int HandleCmdGap(char* value) {
  uint32_t minutes = 0;
  if (DecodeUintString(value, &minutes) < 0) {
    std::printf("Bad -gap value\n");
    return -1;
  }
  tGps.nGapSeconds = static_cast<int32_t>(minutes * 60u);
  return 0;
}

int HandleCmdTranslate(char* value) {
  return TakeNeededFileName(value, kCommandConvertIgc, "No file name for file conversion\n");
}

int HandleCmdFlightSelect(char* value) {
  uint32_t number = 0;
  if (DecodeUintString(value, &number) < 0) {
    std::printf("Bad -f value\n");
    return -1;
  }
  tGps.nFlightNumber = static_cast<int32_t>(number);
  return 0;
}

namespace {

// Switches of one letter with the value attached ("-lname", "-l=name"); -g
// and -c standing alone take the next argument instead.
struct LetterSwitch {
  char letter;
  int (*handler)(char*);
  bool takesNext;
};
constexpr LetterSwitch kLetterSwitches[] = {
    {'g', HandleCmdGpsType, true},  {'c', HandleCmdPort, true},      {'l', HandleCmdLog, false},
    {'L', HandleCmdBulkLog, false}, {'w', HandleCmdWptRead, false}, {'r', HandleCmdWptWrite, false},
    {'x', HandleCmdTranslate, false},
};

// Options that only set a flag of the run record ("--scroll").
struct FlagSwitch {
  const char* word;  // after the first dash
  int32_t RunParameters::*flag;
};
constexpr FlagSwitch kFlagSwitches[] = {
    {"-noana", &RunParameters::bNoAnalysis}, {"-scroll", &RunParameters::bScroll}, {"-trim", &RunParameters::bTrim},
    {"-debug", &RunParameters::bDebug},      {"-silent", &RunParameters::bSilent}, {"-skip", &RunParameters::bSkipExisting},
};

template <typename Row, size_t N, typename Match>
const Row* FindSwitch(const Row (&rows)[N], Match match) {
  for (const Row& row : rows) {
    if (match(row)) return &row;
  }
  return nullptr;
}

}  // namespace

int ParseArguments(int count, char** arguments) {
  char work[kWorkSize];
  char separate[kWorkSize];
  int i = 0;
  for (;;) {
    while (i < count && arguments[i][0] != '-') ++i;
    if (i >= count) return 0;
    std::snprintf(work, sizeof work, "%s", arguments[i] + 1);

    // A switch standing alone takes the next argument as its value unless
    // that is itself a switch; then the lone switch is dropped.
    char* value = nullptr;
    bool alone = false;
    int (*handler)(char*) = nullptr;
    const FlagSwitch* flag = FindSwitch(kFlagSwitches, [&work](const FlagSwitch& f) { return std::strcmp(work, f.word) == 0; });
    const LetterSwitch* letter = FindSwitch(kLetterSwitches, [&work](const LetterSwitch& l) { return work[0] == l.letter; });
    if (flag != nullptr) {
      tGps.*(flag->flag) = 1;
    } else if (letter != nullptr) {
      handler = letter->handler;
      alone = letter->takesNext && work[1] == '\0';
      value = AttachedValue(work);
    } else if (std::strcmp(work, "-gap") == 0) {
      handler = HandleCmdGap;
      alone = true;
    } else if (std::strncmp(work, "-gap=", 5) == 0) {
      handler = HandleCmdGap;
      value = work + 5;
    } else if (work[0] == 'f') {
      handler = HandleCmdFlightSelect;
      value = work + 1;
    } else {
      std::printf("Unrecognized command: %s\n", work);
      return -1;
    }

    if (alone) {
      if (i + 1 >= count) return 0;
      if (arguments[i + 1][0] == '-') {
        ++i;
        continue;
      }
      std::snprintf(separate, sizeof separate, "%s", arguments[i + 1]);
      value = separate;
      ++i;
    }
    if (handler != nullptr && handler(value) < 0) return -1;
    ++i;
  }
}
