// The tests use the stand-in system service of the simulators.
#pragma once

#include "sim/standin_system_service.h"

namespace dstest {
using StandInSystemService = sim::StandInSystemService;
} // namespace dstest
