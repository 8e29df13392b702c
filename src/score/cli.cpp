#include "score/cli.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "link/string.h"
#include "score/flight.h"
#include "score/report.h"
#include "score/search.h"

namespace score {
namespace {

constexpr double kDefaultMaxSeconds = 60.0;

void Usage(std::FILE* out) {
  std::fprintf(out,
               "Usage: kestrix-score FILE.igc [--rules NAME] [--json] [--kml OUT.kml] [--max-time SECONDS] "
               "[--sphere | --wgs84]\n"
               "The exact best free distance (up to 3 turnpoints), flat triangle and FAI triangle of a flight.\n"
               "  --rules NAME        rule set (default plain); --rules list shows them\n"
               "  --json              one JSON object with the keys free, flat and fai\n"
               "  --kml OUT.kml       also write the three routes for Google Earth\n"
               "  --max-time SECONDS  stop searching after this long and report how far the bound still is\n"
               "                      (default %g; 0: no limit)\n"
               "  --sphere, --wgs84   distances on the FAI sphere (radius 6371 km) or the WGS-84 ellipsoid\n"
               "                      instead of what the rule set measures with\n"
               "  -h, --help          this text\n",
               kDefaultMaxSeconds);
}

struct Options {
  const char* file = nullptr;
  const RuleSet* rules = &kRuleSets[0];
  bool json = false;
  const char* kml = nullptr;
  double maxSeconds = kDefaultMaxSeconds;
  int earth = -1;  // -1: the rule set's
  bool listRules = false;
  bool help = false;
};

// 0, or 2 after a message on standard error.
int ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    auto value = [&](const char* name) -> const char* {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "%s needs a value\n", name);
        return nullptr;
      }
      return argv[++i];
    };
    if (std::strcmp(arg, "-h") == 0 || std::strcmp(arg, "--help") == 0) {
      options->help = true;
    } else if (std::strcmp(arg, "--json") == 0) {
      options->json = true;
    } else if (std::strcmp(arg, "--sphere") == 0) {
      options->earth = static_cast<int>(Earth::kFaiSphere);
    } else if (std::strcmp(arg, "--wgs84") == 0) {
      options->earth = static_cast<int>(Earth::kWgs84);
    } else if (std::strcmp(arg, "--rules") == 0) {
      const char* name = value(arg);
      if (name == nullptr) return 2;
      if (std::strcmp(name, "list") == 0) {
        options->listRules = true;
      } else if ((options->rules = FindRuleSet(name)) == nullptr) {
        std::fprintf(stderr, "Unknown rule set %s (kestrix-score --rules list shows them)\n", name);
        return 2;
      }
    } else if (std::strcmp(arg, "--kml") == 0) {
      if ((options->kml = value(arg)) == nullptr) return 2;
    } else if (std::strcmp(arg, "--max-time") == 0) {
      const char* text = value(arg);
      if (text == nullptr) return 2;
      double seconds = 0.0;
      if (DecodeDecimalString(text, &seconds) != 0 || !(seconds >= 0.0) || !std::isfinite(seconds)) {
        std::fprintf(stderr, "--max-time needs a number of seconds, not %s\n", text);
        return 2;
      }
      options->maxSeconds = seconds;
    } else if (arg[0] == '-' && arg[1] != '\0') {
      std::fprintf(stderr, "Unknown option %s\n", arg);
      return 2;
    } else if (options->file != nullptr) {
      std::fprintf(stderr, "One IGC file at a time (%s, then %s)\n", options->file, arg);
      return 2;
    } else {
      options->file = arg;
    }
  }
  return 0;
}

}  // namespace

int Main(int argc, char** argv) {
  Options options;
  if (ParseOptions(argc, argv, &options) != 0) {
    Usage(stderr);
    return 2;
  }
  if (options.help) {
    Usage(stdout);
    return 0;
  }
  if (options.listRules) {
    PrintRuleSets(stdout);
    return 0;
  }
  if (options.file == nullptr) {
    Usage(stderr);
    return 2;
  }

  Flight flight;
  if (LoadFlight(options.file, &flight) < 0) return 1;
  Deadline deadline;
  if (options.maxSeconds > 0.0) {
    deadline.at = std::chrono::steady_clock::now() +
                  std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                      std::chrono::duration<double>(options.maxSeconds));
  }
  const Earth earth = options.earth < 0 ? options.rules->earth : static_cast<Earth>(options.earth);
  const Scores scores = ScoreFlight(flight.fixes, *options.rules, earth, deadline);
  const Report report{options.file, &flight, options.rules, earth, &scores};
  if (options.kml != nullptr && WriteFileAtomically(options.kml, MakeKml(report)) < 0) return 1;
  if (options.json) {
    PrintJson(report, stdout);
  } else {
    PrintText(report, stdout);
  }
  return 0;
}

}  // namespace score
