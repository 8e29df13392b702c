#include "sim_support.h"

#include <stdexcept>

#include "sim/sim.h"

namespace test {

std::string Flight(const std::string& name) {
  std::string text;
  if (!sim::ReadWholeFile(std::string(KESTRIX_TEST_DATA) + "/igc/" + name, &text)) {
    throw std::runtime_error("missing test flight " + name);
  }
  return text;
}

}  // namespace test
