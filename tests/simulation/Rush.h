// One sync of the plug-in in which everything happens at once: hosts, services, a person and time have threads of their
// own, and installs run on the plug-in's. A seed decides what each of them does, but not in which order they get to it.
#pragma once

#include "tests/simulation/Program.h"

namespace appsync::simulation {

[[nodiscard]] Outcome liveInARush(std::uint64_t seed, Tally& tally, bool records);

} // namespace appsync::simulation
