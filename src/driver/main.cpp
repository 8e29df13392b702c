#include "core/run.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "driver/cmd.h"
#include "driver/config.h"
#include "driver/convert.h"
#include "igc/igc.h"
#include "output/file.h"
#include "serial/ascent.h"
#include "serial/flymaster.h"
#include "serial/galileo.h"
#include "serial/iqbasic.h"
#include "serial/leonardo.h"
#include "serial/mlr.h"
#include "usb/syride.h"

RunParameters tGps;
std::atomic<int32_t> restartTask{0};
std::atomic<int32_t> mainThreadActive{0};

namespace {

constexpr const char* kHelpTexts[] = {
    "\nKestrixMac64 1.06 commands:\n\n-h   Display this text\n\n",
    "-gyn GPS = Flymaster (new models)\n-gy  GPS = Flymaster\n-gas GPS = Ascent\n-gda GPS = Digifly "
    "Air\n-gc  GPS = Brauniger/Flytec family (not IQ Basic or Flytec 6015)\n-giq GPS = IQ "
    "Basic\n-gm  GPS = MLR protocols\n-gsy GPS = Syride\n\n",
    "-cu.\"name\"  Serial port N. Translates into /dev/cu.\"name\". Not used for Syride.\n\n",
    "-l\"File\"    Download a track and save it in a file. Extensions .kml and .igc\n            are "
    "supported. If the extension is not recognized, both file types\n            are generated. For "
    "the Brauniger/Flytec/Ascent/Syride models\n            the raw IGC data from the GPS is saved. If "
    "no name is given Kestrix\n            will make one from the time stamp of the first "
    "position.\n\n",
    "-L\"folder/type\"  Download all tracks, but save them in separate files. File types\n          "
    "       igc and kml are supported. The file names are made from the time\n                 "
    "stamp of the first position. Valid for Brauniger/Flytec, Flymaster,\n                 Syride, "
    "Ascent and Leonardo. If both -l and -L are specified,\n                 only -l is handled.\n\n",
    "-f\"N\"       Select a specific flight (Brauniger/Flytec/Flymaster/IqBasic).\n            If N=0 "
    "a flightlist is displayed.\n\n",
    "-w\"File\"    Download waypoints and save them in a file. Extensions .gpx, .wpt\n            (Ozi "
    "format) and .kml are supported. If the extension is not recognized\n            all file types "
    "are generated. If no name is given kestrix will make one\n            from the current time. "
    "Supported GPS: Garmin, Brauniger/Flytec and Flymaster.\n\n",
    "-r\"File\"    Read waypoints from a file and upload them to the GPS. Supported file\n            "
    "formats: Ozi and Kestrix/$FormatGEO. Supported GPS: Garmin,\n            Brauniger/Flytec and "
    "Flymaster.\n\n",
    "--gap \"Time\"  Set gap (in integer minutes) between consecutive track points for\n             "
    " detecting multiple tracks. If set to zero a single track is assumed.\n              If not "
    "set, a single track is assumed, unless divided by the GPS.\n              A list is printed "
    "for the user to select from (comma separated input).\n\n",
    "-x\"File\" Convert .igc to .kml\n\n",
    "--trim      Make a track log file where a takeoff and/or landing filter is applied.\n          "
    "  The filter specifications are set in the configuration file. Available for\n            "
    "standard downloads and the logger with no task.\n--noana     Skip speed analysis.\n--scroll    "
    "Progress lines to terminal include crlf.\n--silent    No output to terminal (NMEA type "
    "GPS).\n--skip      Skip existing file.\n\n",
};

// Signal-safe formatting of "\n<name>(): Got signal <n>\n".
void WriteSignalMessage(const char* name, int signal) {
  char text[96];
  size_t n = 0;
  auto put = [&](const char* s) {
    while (*s != '\0' && n < sizeof text) text[n++] = *s++;
  };
  put("\n");
  put(name);
  put("(): Got signal ");
  char digits[12];
  int count = 0;
  unsigned value = signal < 0 ? 0u - static_cast<unsigned>(signal) : static_cast<unsigned>(signal);
  do {
    digits[count++] = static_cast<char>('0' + value % 10u);
    value /= 10u;
  } while (value != 0u);
  if (signal < 0) put("-");
  while (count > 0 && n < sizeof text) text[n++] = digits[--count];
  put("\n");
  ssize_t ignored = write(STDOUT_FILENO, text, n);
  (void)ignored;
}

template <typename T>
int Grow(T** array, int32_t* capacity, int32_t initial, int32_t used) {
  int32_t wanted = *array == nullptr || *capacity <= 0 ? initial : *capacity * 2;
  T* grown = static_cast<T*>(std::malloc(sizeof(T) * static_cast<size_t>(wanted)));
  if (grown == nullptr) {
    std::printf(" Memory allocation error\n");
    return -1;
  }
  if (*array != nullptr && used > 0) std::memcpy(grown, *array, sizeof(T) * static_cast<size_t>(used));
  std::free(*array);
  *array = grown;
  *capacity = wanted;
  return 0;
}

}  // namespace

void ResetRunParameters() {
  std::free(tGps.pbRawLog);
  std::free(tGps.pTrackPoints);
  std::free(tGps.pWaypoints);
  // Value-initialising the trivially destructible record zeroes every byte
  // of it, the atomics included.
  tGps.~RunParameters();
  new (&tGps) RunParameters{};
}

void SetDefaultParameters() {
  tGps.nGapSeconds = -1;
  tGps.nFlightNumber = -1;
}

int AppendTrackPoint(const TrackPoint& point) {
  if (tGps.nTrackPoints >= tGps.nTrackCapacity || tGps.pTrackPoints == nullptr) {
    if (Grow(&tGps.pTrackPoints, &tGps.nTrackCapacity, kTrackInitialCapacity, tGps.nTrackPoints) < 0) {
      return -1;
    }
  }
  tGps.pTrackPoints[tGps.nTrackPoints++] = point;
  return 0;
}

int AppendWaypoint(const Waypoint& waypoint) {
  if (tGps.nWaypoints >= tGps.nWaypointCapacity || tGps.pWaypoints == nullptr) {
    if (Grow(&tGps.pWaypoints, &tGps.nWaypointCapacity, kWaypointInitialCapacity, tGps.nWaypoints) < 0) {
      return -1;
    }
  }
  tGps.pWaypoints[tGps.nWaypoints++] = waypoint;
  return 0;
}

int AppendRawLog(const uint8_t* bytes, int32_t count) {
  for (int32_t i = 0; i < count; ++i) {
    if (tGps.nRawLogLength >= tGps.nRawLogSize || tGps.pbRawLog == nullptr) {
      if (Grow(&tGps.pbRawLog, &tGps.nRawLogSize, kRawLogInitialSize, tGps.nRawLogLength) < 0) return -1;
    }
    tGps.pbRawLog[tGps.nRawLogLength++] = bytes[i];
  }
  return 0;
}

void ReleaseWaypointList() {
  std::free(tGps.pWaypoints);
  tGps.pWaypoints = nullptr;
  tGps.nWaypointCapacity = 0;
  tGps.nWaypoints = 0;
}

int StartWaypointList() {
  ReleaseWaypointList();
  tGps.pWaypoints = static_cast<Waypoint*>(std::malloc(sizeof(Waypoint) * kWaypointInitialCapacity));
  if (tGps.pWaypoints == nullptr) return -1;
  tGps.nWaypointCapacity = kWaypointInitialCapacity;
  return 0;
}

void ReleaseTrackLog() {
  std::free(tGps.pbRawLog);
  tGps.pbRawLog = nullptr;
  tGps.nRawLogSize = 0;
  tGps.nRawLogLength = 0;
  std::free(tGps.pTrackPoints);
  tGps.pTrackPoints = nullptr;
  tGps.nTrackCapacity = 0;
  tGps.nTrackPoints = 0;
}

void help() {
  for (const char* text : kHelpTexts) std::fputs(text, stdout);
}

void KestrixIntExit(int signal) {
  if (tGps.bRestartOnInterrupt != 0) {
    restartTask = 1;
  } else {
    tGps.bAbort = 1;
  }
  WriteSignalMessage("KestrixIntExit", signal);
}

void KestrixSigExit(int signal) {
  tGps.bAbort = 1;
  WriteSignalMessage("KestrixSigExit", signal);
  std::signal(signal, SIG_DFL);
}

int GetUserInput(char* buffer, int size) {
  int flags = fcntl(STDIN_FILENO, F_GETFL);
  if (flags == -1 || fcntl(STDIN_FILENO, F_SETFL, flags | O_NONBLOCK) == -1) {
    std::printf("Could not set STDIN non-blocking\n");
    return -1;
  }
  std::fflush(stdout);
  int stored = 0;
  while (tGps.bAbort == 0 && stored < size - 1) {
    char c;
    ssize_t got = read(STDIN_FILENO, &c, 1);
    if (got == 1) {
      buffer[stored++] = c;
      if (c == '\n') break;
    } else if (got == 0) {
      break;  // end of input: nobody is left to type the rest
    } else {
      usleep(10000);
    }
  }
  if (size > 0) buffer[stored] = '\0';
  // Give the shell its terminal back as it was.
  fcntl(STDIN_FILENO, F_SETFL, flags);
  return 0;
}

ProgressCounter::ProgressCounter(const char* label, uint64_t intervalMicroseconds)
    : label_(label), interval_(intervalMicroseconds), lastPrint_(GetWallClockMicroseconds()), digits_(1) {
  std::printf(tGps.bScroll ? "%s0\n" : "%s0", label_);
  std::fflush(stdout);
}

void ProgressCounter::Update(int32_t count) {
  uint64_t now = GetWallClockMicroseconds();
  if (now - lastPrint_ < interval_) return;
  lastPrint_ = now;
  Print(count, "");
}

void ProgressCounter::Finish(int32_t count) { Print(count, "\n"); }

void ProgressCounter::Print(int32_t count, const char* end) {
  static constexpr char kBackspaces[] = "\b\b\b\b\b\b\b\b";
  if (tGps.bScroll) {
    std::printf("%s%d\n", label_, count);
  } else {
    int back = digits_ < 8 ? digits_ : 8;
    char number[16];
    digits_ = std::snprintf(number, sizeof number, "%d", count);
    std::printf("%s%s%s", kBackspaces + 8 - back, number, end);
  }
  std::fflush(stdout);
}

void MainProgram() {
  int32_t result = -1;
  switch (tGps.dwCommand) {
    case kCommandDownloadTrack:
      switch (tGps.dwGpsType) {
        case kGpsFlymasterNew:
        case kGpsFlymaster:
          result = DownloadFlymasterTrackLog();
          break;
        case kGpsGalileo:
          result = DownloadGalileoTrackLog();
          break;
        case kGpsLeonardo:
          result = DownloadLeonardoTrackLog();
          break;
        case kGpsIqBasic:
          result = DownloadIqBasicTrackLog();
          break;
        case kGpsAscent:
          result = DownloadAscentTrackLog();
          break;
        case kGpsMlr:
          result = DownloadMlrTrackLog();
          break;
        case kGpsSyride:
          result = DownloadSyrideTrackLog();
          break;
        default:
          std::printf("No GPS type specified\n");
          result = -1;
          break;
      }
      if (result == 0) SaveTracklog();
      break;
    case kCommandDownloadAllTracks:
      switch (tGps.dwGpsType) {
        case kGpsFlymasterNew:
        case kGpsFlymaster:
          DownloadFlymasterBulkTrackLog();
          break;
        case kGpsAscent:
          DownloadAscentBulkTrackLog();
          break;
        case kGpsLeonardo:
          DownloadLeonardoBulkTrackLog();
          break;
        case kGpsGalileo:
          DownloadGalileoBulkTrackLog();
          break;
        case kGpsSyride:
          DownloadSyrideBulkTrackLog();
          break;
        default:
          std::printf("No/unsupported GPS type specified\n");
          break;
      }
      break;
    case kCommandDownloadWaypoints:
      switch (tGps.dwGpsType) {
        case kGpsGalileo:
          result = DownloadGalileoWaypoints();
          break;
        case kGpsFlymaster:
        case kGpsFlymasterNew:
          result = DownloadFlymasterWaypoints();
          break;
        default:
          std::printf("Waypoint download not supported for the selected GPS\n");
          result = -1;
          break;
      }
      if (result == 0) {
        if ((tGps.dwFileTypes & kFileWptOzi) != 0) SaveOziWaypoints();
        if ((tGps.dwFileTypes & kFileWptGpx) != 0) SaveGpxWaypoints();
        if ((tGps.dwFileTypes & kFileWptKml) != 0) SaveKmlWaypoints();
      }
      break;
    case kCommandUploadWaypoints:
      if (tGps.dwGpsType != kGpsGalileo && tGps.dwGpsType != kGpsFlymaster &&
          tGps.dwGpsType != kGpsFlymasterNew) {
        std::printf("Waypoint upload not supported for the selected GPS\n");
        break;
      }
      if (ReadWaypointFile() == 0) {
        if (tGps.dwGpsType == kGpsGalileo) {
          UploadGalileoWaypoints();
        } else {
          UploadFlymasterWaypoints();
        }
      }
      break;
    case kCommandConvertIgc:
      TranslateIgcLog();
      break;
    default:
      std::printf("No GPS command found\n");
      break;
  }
  (void)result;
}

int KestrixMain(int argc, char** argv) {
  if (argc < 1) return -1;
  if (argc == 1) {
    help();
    return 0;
  }
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "-v") == 0) {
      std::printf("KestrixMac64 version 1.06\n");
      return 0;
    }
    if (std::strcmp(argv[i], "-h") == 0) {
      help();
      return 0;
    }
  }
  if (std::signal(SIGINT, KestrixIntExit) == SIG_ERR) {
    std::printf("Failed to install SIGINT signal handler\n");
    return 0;
  }
  if (std::signal(SIGTERM, KestrixSigExit) == SIG_ERR) {
    std::printf("Failed to install SIGTERM signal handler\n");
    return 0;
  }
  ResetRunParameters();
  GetConfigParameters();
  SetDefaultParameters();
  if (ParseArguments(argc - 1, argv + 1) < 0) {
    std::printf("\n");
    return -1;
  }
  MainProgram();
  return 0;
}
