// kestrix-sim: serves a simulated instrument on a pseudo-terminal until
// stopped, so that kestrix can be tried and tested without the hardware.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim/sim.h"

namespace {

void Usage(FILE* out) {
  std::fprintf(out,
               "usage: kestrix-sim FAMILY [options]\n"
               "Serves an instrument of FAMILY on a pseudo-terminal until stopped.\n"
               "  --model TEXT       model name the instrument reports\n"
               "  --firmware TEXT    firmware version it reports\n"
               "  --serial TEXT      serial number it reports\n"
               "  --pilot TEXT       pilot name it reports (default: from the first flight)\n"
               "  --flights A,B,...  IGC files it holds, newest first (flight 1 is A)\n"
               "  --waypoints FILE   OziExplorer waypoint file it holds\n"
               "  --port NAME        link /dev/cu.NAME to the terminal\n"
               "  --flat             send flat out instead of at the instrument's line speed\n"
               "  --fault NAME       one of the family's faults (repeatable)\n"
               "  --cut R:N          reply R stops after N bytes (R 0: the whole session)\n"
               "  --pause R:N:MS     MS milliseconds of silence before byte N of reply R\n"
               "  --flip R:N         byte N of reply R goes out corrupted\n"
               "  --quiet            do not print the exchange\n"
               "Replies are counted from 1 in the order of the commands the instrument answers.\n"
               "Families:\n");
  for (const sim::Family& f : sim::Families()) {
    std::fprintf(out, "  %-8s %d baud; faults: %s\n", f.name, f.baud, f.faultHelp);
  }
}

struct Options {
  const sim::Family* family = nullptr;
  sim::InstrumentSettings settings;
  std::vector<sim::LineFault> faults;
  std::string port;
  bool flat = false;
  bool quiet = false;
};

constexpr int kHelpShown = -1;

// Returns 0 to serve, kHelpShown, or the exit status after a message.
int Parse(int argc, char** argv, Options* o) {
  if (argc < 2) {
    Usage(stderr);
    return 2;
  }
  if (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0) {
    Usage(stdout);
    return kHelpShown;
  }
  o->family = sim::FindFamily(argv[1]);
  if (o->family == nullptr) {
    std::fprintf(stderr, "kestrix-sim: unknown family %s\n", argv[1]);
    Usage(stderr);
    return 2;
  }
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    std::string value;
    size_t equals = arg.find('=');
    bool inlineValue = equals != std::string::npos;
    if (inlineValue) {
      value = arg.substr(equals + 1);
      arg = arg.substr(0, equals);
    }
    if (arg == "--flat" || arg == "--quiet") {
      (arg == "--flat" ? o->flat : o->quiet) = true;
      continue;
    }
    if (!inlineValue) {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "kestrix-sim: %s needs a value\n", arg.c_str());
        return 2;
      }
      value = argv[++i];
    }
    sim::LineFault fault{};
    if (arg == "--model") {
      o->settings.model = value;
    } else if (arg == "--firmware") {
      o->settings.firmware = value;
    } else if (arg == "--serial") {
      o->settings.serial = value;
    } else if (arg == "--pilot") {
      o->settings.pilot = value;
    } else if (arg == "--port") {
      o->port = value;
    } else if (arg == "--fault") {
      o->settings.faults.push_back(value);
    } else if (arg == "--flights") {
      for (const std::string& file : sim::Split(value, ',')) {
        if (file.empty()) continue;
        std::string text;
        if (!sim::ReadWholeFile(file, &text)) {
          std::fprintf(stderr, "kestrix-sim: cannot read %s\n", file.c_str());
          return 1;
        }
        o->settings.flights.push_back(text);
      }
    } else if (arg == "--waypoints") {
      std::string text;
      if (!sim::ReadWholeFile(value, &text) || !sim::ReadOziWaypoints(text, &o->settings.waypoints)) {
        std::fprintf(stderr, "kestrix-sim: %s is not a readable OziExplorer waypoint file\n", value.c_str());
        return 1;
      }
    } else if (arg == "--cut" || arg == "--pause" || arg == "--flip") {
      sim::FaultKind kind = arg == "--cut"     ? sim::FaultKind::kCut
                            : arg == "--pause" ? sim::FaultKind::kPause
                                               : sim::FaultKind::kFlip;
      if (!sim::ParseLineFault(kind, value, &fault)) {
        std::fprintf(stderr, "kestrix-sim: bad value for %s: %s\n", arg.c_str(), value.c_str());
        return 2;
      }
      o->faults.push_back(fault);
    } else {
      std::fprintf(stderr, "kestrix-sim: unknown option %s\n", arg.c_str());
      return 2;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  // Blocked from the start, so that a signal during the set-up waits for the
  // sigwait below; the simulator's thread inherits the mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stopSignals, signal);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  Options options;
  int status = Parse(argc, argv, &options);
  if (status == kHelpShown) return 0;
  if (status != 0) return status;

  sim::Simulator simulator(options.family->create(options.settings), options.flat ? 0 : options.family->baud,
                           options.faults);
  if (!options.quiet) simulator.SetTrace([](const std::string& text) { std::printf("%s\n", text.c_str()); });
  if (simulator.Start() != 0) {
    std::fprintf(stderr, "kestrix-sim: %s\n", simulator.error().c_str());
    return 1;
  }
  std::printf("Serving %s on %s\n", options.family->name, simulator.path().c_str());
  std::unique_ptr<sim::PortLink> link;
  if (!options.port.empty()) {
    link = std::make_unique<sim::PortLink>(options.port, simulator.path());
    if (link->ok()) {
      std::printf("Linked %s -> %s\n", link->path().c_str(), simulator.path().c_str());
    } else {
      std::printf("Could not link the port (%s). Link it with:\n  sudo ln -sf %s /dev/cu.%s\n",
                  link->error().c_str(), simulator.path().c_str(), options.port.c_str());
    }
  }
  std::printf("Stop with Ctrl-C\n");

  int received = 0;
  sigwait(&stopSignals, &received);
  // The first signal ends the simulator whatever the instrument is doing:
  // the link goes at once, and a serving thread that does not stop within
  // a second is not waited for.
  link.reset();
  std::atomic<bool> stopped{false};
  std::thread stopper([&simulator, &stopped] {
    simulator.Stop();
    stopped = true;
  });
  for (int waited = 0; waited < 100 && !stopped; ++waited) usleep(10000);
  std::printf("Stopped\n");
  if (!stopped) {
    std::fflush(stdout);
    _exit(0);
  }
  stopper.join();
  return 0;
}
