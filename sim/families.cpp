// The families the simulator serves: one module each, one row here.
#include "sim/flymaster.h"
#include "sim/galileo.h"
#include "sim/sim.h"

namespace sim {

const std::vector<Family>& Families() {
  static const std::vector<Family> families = {
      {"flytec", galileo::kBaud, galileo::kFaultHelp, galileo::Create},
      {"flymaster", flymaster::kBaud, flymaster::kFaultHelp, flymaster::Create},
  };
  return families;
}

const Family* FindFamily(std::string_view name) {
  for (const Family& f : Families()) {
    if (name == f.name) return &f;
  }
  return nullptr;
}

}  // namespace sim
