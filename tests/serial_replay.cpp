#include "serial_replay.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <numbers>
#include <string_view>
#include <utility>

#include "core/clock.h"
#include "core/memory.h"
#include "core/run.h"
#include "driver/families.h"
#include "driver/main.h"
#include "geo/conv.h"
#include "link/com.h"
#include "output/file.h"
#include "serial/ascent.h"
#include "serial/flymaster.h"
#include "serial/galileo.h"
#include "serial/iqbasic.h"
#include "serial/leonardo.h"
#include "serial/mlr.h"

namespace replay {

namespace {

// Bytes handed to the FIFO at one wait: a fast instrument's burst.
constexpr size_t kBurst = 4096;
// Real time a recording waits for the instrument at each of the program's
// waits; the program's own clock moves on by what it asked for.
constexpr int kRecordPollMs = 2;

struct Session {
  // Replay.
  std::vector<std::string_view> answers;
  size_t next = 0;         // the answer the next command gets
  std::string_view current;  // what is left of the answer being sent
  // Recording.
  int device = -1;
  std::vector<std::string> recorded;
  // Both.
  uint64_t clock = 0;
  int opens = 0;
  int closes = 0;
  size_t commands = 0;
};

Session session;

size_t FifoRoom() {
  const int32_t used =
      (tGps.nFifoWrite.load() - tGps.nFifoRead.load() + kComFifoSize) % kComFifoSize;
  return static_cast<size_t>(kComFifoSize - 1 - used);
}

void Sent(const uint8_t* data, int32_t length) {
  ++session.commands;
  if (session.device >= 0) {
    ssize_t ignored = write(session.device, data, static_cast<size_t>(length));
    (void)ignored;
    session.recorded.emplace_back();
    return;
  }
  session.current = session.next < session.answers.size() ? session.answers[session.next++] : std::string_view();
}

void Waited(uint32_t microseconds) {
  session.clock += microseconds;
  if (session.device >= 0) {
    pollfd p{session.device, POLLIN, 0};
    if (poll(&p, 1, kRecordPollMs) <= 0) return;
    uint8_t buffer[kBurst];
    const size_t room = FifoRoom() < sizeof buffer ? FifoRoom() : sizeof buffer;
    ssize_t n = read(session.device, buffer, room);
    for (ssize_t i = 0; i < n; ++i) WriteComFifo(buffer[i]);
    if (n > 0 && !session.recorded.empty()) session.recorded.back().append(reinterpret_cast<char*>(buffer), n);
    return;
  }
  size_t count = session.current.size() < kBurst ? session.current.size() : kBurst;
  if (count > FifoRoom()) count = FifoRoom();
  for (size_t i = 0; i < count; ++i) WriteComFifo(static_cast<uint8_t>(session.current[i]));
  session.current.remove_prefix(count);
}

uint64_t WallClock() { return session.clock; }
// A busy wait on processor time must end too: each look moves it on.
uint64_t ProcessorClock() { return session.clock += 100; }

void Opened(int32_t open) { ++(open != 0 ? session.opens : session.closes); }

// A recording tells the instrument the speed, as the terminal would.
void Speed(int32_t baud) {
  if (session.device < 0) return;
  termios settings{};
  if (tcgetattr(session.device, &settings) != 0) return;
  const speed_t speed = baud == 38400 ? B38400 : baud == 4800 ? B4800 : baud == 57600 ? B57600 : B9600;
  cfsetispeed(&settings, speed);
  cfsetospeed(&settings, speed);
  tcsetattr(session.device, TCSANOW, &settings);
}

constexpr LinkStandIn kStandIn{Sent, Waited, Opened, Speed};

Waypoint MakeWaypoint(const char* id, const char* comment, double latitude, double longitude, int32_t altitude) {
  Waypoint w{};
  ConvertGeoToArcPos(latitude * std::numbers::pi / 180.0, longitude * std::numbers::pi / 180.0, &w.lLatitude, &w.lLongitude);
  w.lAltitude = altitude;
  std::snprintf(w.szId, sizeof w.szId, "%s", id);
  std::snprintf(w.szComment, sizeof w.szComment, "%s", comment);
  return w;
}

// Uploads need something to send: names that need the alphabet rules.
void LoadWaypoints() {
  auto* const allocate = std::exchange(pAllocate, std::malloc);  // the user's list
  AppendWaypoint(MakeWaypoint("COL", "Col d'Aze", 46.504, 7.258, 1250));
  AppendWaypoint(MakeWaypoint("low", "low meadow\xe9", -33.5, -70.25, 12));
  AppendWaypoint(MakeWaypoint("TOPTOP", "summit of the long ridge to the east", 45.0, 179.99, 4810));
  pAllocate = allocate;
}

void Prepare(const Action& action, uint8_t flight) {
  ResetRunParameters();
  SetDefaultParameters();
  static bool quietInput = false;
  if (!quietInput) {
    // A question to the user reads an empty line instead of waiting.
    int null = open("/dev/null", O_RDONLY);
    if (null >= 0) {
      dup2(null, STDIN_FILENO);
      close(null);
    }
    quietInput = true;
  }
  tGps.dwGpsType = action.gpsType;
  tGps.dwCommand = action.command;
  tGps.nFlightNumber = flight % 8 - 1;
  std::snprintf(tGps.szComPort, sizeof tGps.szComPort, "/dev/cu.replay");
  if (action.command == kCommandUploadWaypoints) LoadWaypoints();
  session = Session{};
  static const ClockSource clock{WallClock, ProcessorClock, SystemClock().utcSeconds};
  UseClockSource(&clock);
  UseLinkStandIn(&kStandIn);
}

int32_t Finish(int32_t result) {
  UseLinkStandIn(nullptr);
  UseClockSource(nullptr);
  return result;
}

// The command as the dispatch runs it: on the port, opened and closed.
int32_t Run(const Action& action) { return RunFamilyCommand(*FindFamily(action.gpsType), action.run); }

}  // namespace

const std::vector<Action>& Actions() {
  static const std::vector<Action> actions = {
      {"flytec-track", kGpsGalileo, kCommandDownloadTrack, DownloadGalileoTrackLog},
      {"flytec-all", kGpsGalileo, kCommandDownloadAllTracks, [] { return DownloadGalileoBulkTrackLog(SaveTracklog); }},
      {"flytec-waypoints", kGpsGalileo, kCommandDownloadWaypoints, DownloadGalileoWaypoints},
      {"flytec-upload", kGpsGalileo, kCommandUploadWaypoints, UploadGalileoWaypoints},
      {"flymaster-track", kGpsFlymaster, kCommandDownloadTrack, DownloadFlymasterTrackLog},
      {"flymaster-new-track", kGpsFlymasterNew, kCommandDownloadTrack, DownloadFlymasterTrackLog},
      {"flymaster-all", kGpsFlymasterNew, kCommandDownloadAllTracks,
       [] { return DownloadFlymasterBulkTrackLog(SaveTracklog); }},
      {"flymaster-waypoints", kGpsFlymasterNew, kCommandDownloadWaypoints, DownloadFlymasterWaypoints},
      {"flymaster-upload", kGpsFlymaster, kCommandUploadWaypoints, UploadFlymasterWaypoints},
      {"iqbasic-track", kGpsIqBasic, kCommandDownloadTrack, DownloadIqBasicTrackLog},
      {"ascent-track", kGpsAscent, kCommandDownloadTrack, DownloadAscentTrackLog},
      {"ascent-all", kGpsAscent, kCommandDownloadAllTracks, [] { return DownloadAscentBulkTrackLog(SaveTracklog); }},
      {"mlr-track", kGpsMlr, kCommandDownloadTrack, DownloadMlrTrackLog},
      {"leonardo-track", kGpsLeonardo, kCommandDownloadTrack, DownloadLeonardoTrackLog},
      {"leonardo-all", kGpsLeonardo, kCommandDownloadAllTracks,
       [] { return DownloadLeonardoBulkTrackLog(SaveTracklog); }},
  };
  return actions;
}

Outcome Replay(const uint8_t* data, size_t size, bool save) {
  if (size < 2) return {0, 0, 0, 0};
  const Action& action = Actions()[data[0] % Actions().size()];
  Prepare(action, data[1]);
  std::string_view rest(reinterpret_cast<const char*>(data + 2), size - 2);
  for (;;) {
    size_t at = rest.find(kSeparator);
    session.answers.push_back(rest.substr(0, at));
    if (at == std::string_view::npos) break;
    rest.remove_prefix(at + std::strlen(kSeparator));
  }
  int32_t result = 0;
  if (save && action.command != kCommandUploadWaypoints) {
    // As a command line without a name asks: both track files, or all
    // three waypoint files, named by the program.
    tGps.dwFileTypes = action.command == kCommandDownloadWaypoints ? 7u : 3u;
    MainProgram();
  } else {
    result = Run(action);
  }
  Finish(0);
  return {result, session.opens, session.closes, session.commands};
}

std::string Record(size_t action, uint8_t flight, const std::string& device) {
  const Action& a = Actions()[action];
  int fd = open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return {};
  // Raw, as the program sets its port: no echo, no line editing.
  termios settings{};
  if (tcgetattr(fd, &settings) == 0) {
    cfmakeraw(&settings);
    tcsetattr(fd, TCSANOW, &settings);
  }
  Prepare(a, flight);
  session.device = fd;
  Finish(Run(a));
  close(fd);
  std::string script;
  script += static_cast<char>(action);
  script += static_cast<char>(flight);
  for (size_t i = 0; i < session.recorded.size(); ++i) {
    if (i > 0) script += kSeparator;
    script += session.recorded[i];
  }
  session = Session{};
  return script;
}

}  // namespace replay
