// The families the simulator serves: one module each, one row here.
#include "sim/ascent.h"
#include "sim/flymaster.h"
#include "sim/galileo.h"
#include "sim/iqbasic.h"
#include "sim/leonardo.h"
#include "sim/mlr.h"
#include "sim/sim.h"

namespace sim {

const std::vector<Family>& Families() {
  static const std::vector<Family> families = {
      {"flytec", galileo::kBaud, galileo::kFaultHelp, galileo::Create},
      {"iqbasic", iqbasic::kBaud, iqbasic::kFaultHelp, iqbasic::Create},
      {"ascent", ascent::kBaud, ascent::kFaultHelp, ascent::Create},
      {"mlr", mlr::kBaud, mlr::kFaultHelp, mlr::Create},
      {"leonardo", leonardo::kBaud, leonardo::kFaultHelp, leonardo::Create},
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
