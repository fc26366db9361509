// The device and the desktop's files of a life, drawn by chance.
#pragma once

#include "tests/simulation/State.h"

namespace appsync::simulation {

/// Policies, services, apps, placeholders and the home screen's icons.
void furnish(State& state);

/// Stages a sync: to-do list, apps and icon layout, each possibly missing or spoilt. The to-do list, if it can be read.
std::optional<Array> stageSync(State& state);

/// Leaves the restore info and the demoted apps that a desktop's restore leaves.
void stageRestore(State& state);

} // namespace appsync::simulation
