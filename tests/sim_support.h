// Test flights for the simulator's own tests.
#pragma once

#include <string>

#include "sim/sim.h"
#include "support.h"

namespace test {

// A real flight from tests/data/igc.
std::string Flight(const std::string& name);

}  // namespace test
