#include "driver/config.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/run.h"
#include "geo/conv.h"

namespace {

constexpr const char* kConfigFileName = "kestrix.cfg";

struct TextKey {
  const char* key;
  char* destination;
  int maximum;
};

enum class NumericKind { kFlag, kValue };

struct NumericKey {
  const char* key;
  int32_t* destination;
  NumericKind kind;
};

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};

// The numeric pattern "KEY: %d": the key with its colon, any white space,
// then a decimal integer as scanf reads it.
bool ScanNumber(const char* line, const char* key, int32_t* value) {
  size_t keyLength = std::strlen(key);
  if (std::strncmp(line, key, keyLength) != 0) return false;
  const char* p = line + keyLength;
  while (std::isspace(static_cast<unsigned char>(*p))) ++p;
  const char* digits = p;
  if (*digits == '-' || *digits == '+') ++digits;
  if (!std::isdigit(static_cast<unsigned char>(*digits))) return false;
  // Out-of-range numbers saturate and then keep their low 32 bits.
  long long wide = std::strtoll(p, nullptr, 10);
  *value = static_cast<int32_t>(wide);
  return true;
}

struct DetectionGroup {
  int32_t* first;
  int32_t* second;
  int32_t* third;  // may be null
  const char* labels[3];
  const char* disabled;
};

void EchoGroup(const DetectionGroup& g) {
  if (*g.first != 0 && *g.second != 0) {
    std::printf(g.labels[0], *g.first);
    std::printf(g.labels[1], *g.second);
    if (g.third != nullptr) std::printf(g.labels[2], *g.third);
  } else {
    std::printf("%s", g.disabled);
  }
}

void EchoConfiguration(bool trimImperial, bool taskImperial) {
  RunParameters& p = tGps;
  std::printf("\n");
  std::printf("Config: IGC_PILOT_NAME  = \"%s\"\n", p.szIgcPilotName);
  std::printf("Config: IGC_GLIDER_TYPE = \"%s\"\n", p.szIgcGliderType);
  std::printf("Config: IGC_GLIDER_ID   = \"%s\"\n", p.szIgcGliderId);
  std::printf("Config: IGC_SITE_NAME   = \"%s\"\n", p.szIgcSiteName);
  std::printf("Config: IGC_COMP_CLASS  = \"%s\"\n", p.szIgcCompClass);

  if (trimImperial) {
    for (int32_t* d : {&p.nTrimLocationDistance, &p.nTrimTakeoffDistance, &p.nTrimTakeoffBoxRadius,
                       &p.nTrimTakeoffBoxHeight, &p.nTrimLandingDistance}) {
      *d = FeetToMetres(*d);
    }
  }
  std::printf("\n");
  const DetectionGroup trim[] = {
      {&p.nTrimLocationInterval, &p.nTrimLocationDistance, nullptr,
       {"Config: TRIM_LOCATION_INTERVAL   = %d s\n", "Config: TRIM_LOCATION_DISTANCE   = %d m\n", nullptr},
       "Config: Trim location detection disabled\n"},
      {&p.nTrimTakeoffInterval, &p.nTrimTakeoffDistance, &p.nTrimTakeoffPrepend,
       {"Config: TRIM_TAKEOFF_INTERVAL    = %d s\n", "Config: TRIM_TAKEOFF_DISTANCE    = %d m\n",
        "Config: TRIM_TAKEOFF_PREPEND     = %d s\n"},
       "Config: Trim takeoff detection based on speed disabled\n"},
      {&p.nTrimTakeoffBoxRadius, &p.nTrimTakeoffBoxHeight, &p.nTrimTakeoffBoxPrepend,
       {"Config: TRIM_TAKEOFF_BOX_RADIUS  = %d m\n", "Config: TRIM_TAKEOFF_BOX_HEIGHT  = %d m\n",
        "Config: TRIM_TAKEOFF_BOX_PREPEND = %d s\n"},
       "Config: Trim takeoff detection based on box exit disabled\n"},
      {&p.nTrimLandingInterval, &p.nTrimLandingDistance, &p.nTrimLandingAppend,
       {"Config: TRIM_LANDING_INTERVAL    = %d s\n", "Config: TRIM_LANDING_DISTANCE    = %d m\n",
        "Config: TRIM_LANDING_APPEND      = %d s\n"},
       "Config: Trim landing detection disabled\n"},
  };
  for (const DetectionGroup& g : trim) EchoGroup(g);

  if (taskImperial) {
    for (int32_t* d : {&p.nTaskLocationDistance, &p.nTaskTakeoffDistance, &p.nTaskTakeoffBoxRadius,
                       &p.nTaskTakeoffBoxHeight, &p.nTaskLandingDistance}) {
      *d = FeetToMetres(*d);
    }
  }
  std::printf("\n");
  const DetectionGroup task[] = {
      {&p.nTaskLocationInterval, &p.nTaskLocationDistance, nullptr,
       {"Config: TASK_LOCATION_INTERVAL   = %d s\n", "Config: TASK_LOCATION_DISTANCE   = %d m\n", nullptr},
       "Config: Task location detection disabled\n"},
      {&p.nTaskTakeoffInterval, &p.nTaskTakeoffDistance, &p.nTaskTakeoffPrepend,
       {"Config: TASK_TAKEOFF_INTERVAL    = %d s\n", "Config: TASK_TAKEOFF_DISTANCE    = %d m\n",
        "Config: TASK_TAKEOFF_PREPEND     = %d s\n"},
       "Config: Task takeoff detection based on speed disabled\n"},
      {&p.nTaskTakeoffBoxRadius, &p.nTaskTakeoffBoxHeight, &p.nTaskTakeoffBoxPrepend,
       {"Config: TASK_TAKEOFF_BOX_RADIUS  = %d m\n", "Config: TASK_TAKEOFF_BOX_HEIGHT  = %d m\n",
        "Config: TASK_TAKEOFF_BOX_PREPEND = %d s\n"},
       "Config: Task takeoff detection based on box exit disabled\n"},
      {&p.nTaskLandingInterval, &p.nTaskLandingDistance, nullptr,
       {"Config: TASK_LANDING_INTERVAL = %d s\n", "Config: TASK_LANDING_DISTANCE = %d m\n", nullptr},
       "Config: Task landing detection disabled\n"},
  };
  for (const DetectionGroup& g : task) EchoGroup(g);

  std::printf("\n");
  std::printf("Config: TASK_TAKEOFF_SCRIPT = \"%s\"\n", p.szTaskTakeoffScript);
  std::printf("Config: TASK_LANDING_SCRIPT = \"%s\"\n", p.szTaskLandingScript);
  std::printf("\n");
}

}  // namespace

int GetStringParameter(const char* line, const char* key, char* destination, int maximum) {
  size_t i = 0;
  for (; key[i] != '\0'; ++i) {
    if (line[i] != key[i]) return 0;  // also when the line ends first
  }
  destination[0] = '\0';
  const char* p = line + i;
  while (*p == ' ' || *p == '\t') ++p;
  int n = 0;
  if (*p == '"') {
    ++p;
    while (*p != '\0' && *p != '"' && n < maximum) destination[n++] = *p++;
  } else {
    // The line feed is not a stop: an unquoted value at the line end keeps it.
    while (*p != '\0' && *p != ' ' && *p != '\t' && n < maximum) destination[n++] = *p++;
  }
  destination[n] = '\0';
  return 1;
}

void GetConfigParameters() {
  std::unique_ptr<FILE, FileCloser> file(std::fopen(kConfigFileName, "r"));
  if (!file) return;

  RunParameters& p = tGps;
  const TextKey textKeys[] = {
      {"IGC_PILOT_NAME:", p.szIgcPilotName, 80},
      {"IGC_GLIDER_TYPE:", p.szIgcGliderType, 80},
      {"IGC_GLIDER_ID:", p.szIgcGliderId, 80},
      {"IGC_SITE_NAME:", p.szIgcSiteName, 80},
      {"IGC_COMP_CLASS:", p.szIgcCompClass, 80},
      {"TASK_TAKEOFF_SCRIPT:", p.szTaskTakeoffScript, 255},
      {"TASK_LANDING_SCRIPT:", p.szTaskLandingScript, 255},
  };
  int32_t trimImperial = 0;
  int32_t taskImperial = 0;
  const NumericKey numericKeys[] = {
      {"CONFIG_SHOW_PARAMETERS:", &p.bConfigShowParameters, NumericKind::kFlag},
      {"TRIM_IMPERIAL_UNITS:", &trimImperial, NumericKind::kFlag},
      {"TRIM_LOCATION_INTERVAL:", &p.nTrimLocationInterval, NumericKind::kValue},
      {"TRIM_LOCATION_DISTANCE:", &p.nTrimLocationDistance, NumericKind::kValue},
      {"TRIM_TAKEOFF_INTERVAL:", &p.nTrimTakeoffInterval, NumericKind::kValue},
      {"TRIM_TAKEOFF_DISTANCE:", &p.nTrimTakeoffDistance, NumericKind::kValue},
      {"TRIM_TAKEOFF_PREPEND:", &p.nTrimTakeoffPrepend, NumericKind::kValue},
      {"TRIM_TAKEOFF_BOX_RADIUS:", &p.nTrimTakeoffBoxRadius, NumericKind::kValue},
      {"TRIM_TAKEOFF_BOX_HEIGHT:", &p.nTrimTakeoffBoxHeight, NumericKind::kValue},
      {"TRIM_TAKEOFF_BOX_PREPEND:", &p.nTrimTakeoffBoxPrepend, NumericKind::kValue},
      {"TRIM_LANDING_INTERVAL:", &p.nTrimLandingInterval, NumericKind::kValue},
      {"TRIM_LANDING_DISTANCE:", &p.nTrimLandingDistance, NumericKind::kValue},
      {"TRIM_LANDING_APPEND:", &p.nTrimLandingAppend, NumericKind::kValue},
      {"TASK_IMPERIAL_UNITS:", &taskImperial, NumericKind::kFlag},
      {"TASK_LOCATION_INTERVAL:", &p.nTaskLocationInterval, NumericKind::kValue},
      {"TASK_LOCATION_DISTANCE:", &p.nTaskLocationDistance, NumericKind::kValue},
      {"TASK_TAKEOFF_INTERVAL:", &p.nTaskTakeoffInterval, NumericKind::kValue},
      {"TASK_TAKEOFF_DISTANCE:", &p.nTaskTakeoffDistance, NumericKind::kValue},
      {"TASK_TAKEOFF_PREPEND:", &p.nTaskTakeoffPrepend, NumericKind::kValue},
      {"TASK_TAKEOFF_BOX_RADIUS:", &p.nTaskTakeoffBoxRadius, NumericKind::kValue},
      {"TASK_TAKEOFF_BOX_HEIGHT:", &p.nTaskTakeoffBoxHeight, NumericKind::kValue},
      {"TASK_TAKEOFF_BOX_PREPEND:", &p.nTaskTakeoffBoxPrepend, NumericKind::kValue},
      {"TASK_LANDING_INTERVAL:", &p.nTaskLandingInterval, NumericKind::kValue},
      {"TASK_LANDING_DISTANCE:", &p.nTaskLandingDistance, NumericKind::kValue},
  };

  char line[256];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    // Comment marks and the carriage return end the line; none of them can
    // therefore be part of a value, quoted or not.
    line[strcspn(line, "\r#;*")] = '\0';
    if (line[0] == '\0') continue;

    bool handled = false;
    for (const TextKey& k : textKeys) {
      if (GetStringParameter(line, k.key, k.destination, k.maximum) != 0) {
        handled = true;
        break;
      }
    }
    if (handled) continue;
    for (const NumericKey& k : numericKeys) {
      int32_t value = 0;
      if (!ScanNumber(line, k.key, &value)) continue;
      if (k.kind == NumericKind::kFlag) {
        *k.destination = value == 1 ? 1 : 0;
      } else {
        *k.destination = value < 1 ? 0 : value;
      }
      break;
    }
  }
  file.reset();

  if (p.bConfigShowParameters == 1) EchoConfiguration(trimImperial == 1, taskImperial == 1);
}
