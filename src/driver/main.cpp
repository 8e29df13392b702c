#include "driver/main.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/run.h"
#include "driver/cmd.h"
#include "driver/config.h"
#include "driver/convert.h"
#include "driver/families.h"
#include "output/file.h"

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

}  // namespace

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

void MainProgram() {
  const Family* family = FindFamily(tGps.dwGpsType);
  switch (tGps.dwCommand) {
    case kCommandDownloadTrack:
      if (family == nullptr || family->downloadTrack == nullptr) {
        std::printf("No GPS type specified\n");
      } else if (RunFamilyCommand(*family, family->downloadTrack) == 0) {
        SaveTracklog();
      }
      break;
    case kCommandDownloadAllTracks:
      if (family == nullptr || family->downloadAllTracks == nullptr) {
        std::printf("No/unsupported GPS type specified\n");
      } else {
        RunFamilyCommand(*family, family->downloadAllTracks, SaveTracklog);
      }
      break;
    case kCommandDownloadWaypoints:
      if (family == nullptr || family->downloadWaypoints == nullptr) {
        std::printf("Waypoint download not supported for the selected GPS\n");
      } else if (RunFamilyCommand(*family, family->downloadWaypoints) == 0) {
        if ((tGps.dwFileTypes & kFileWptOzi) != 0) SaveOziWaypoints();
        if ((tGps.dwFileTypes & kFileWptGpx) != 0) SaveGpxWaypoints();
        if ((tGps.dwFileTypes & kFileWptKml) != 0) SaveKmlWaypoints();
      }
      break;
    case kCommandUploadWaypoints:
      // Checked before the file is read.
      if (family == nullptr || family->uploadWaypoints == nullptr) {
        std::printf("Waypoint upload not supported for the selected GPS\n");
      } else if (ReadWaypointFile() == 0) {
        RunFamilyCommand(*family, family->uploadWaypoints);
      }
      break;
    case kCommandConvertIgc:
      TranslateIgcLog();
      break;
    default:
      std::printf("No GPS command found\n");
      break;
  }
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
