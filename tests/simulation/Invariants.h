// What must always hold. A breach is noted in the state.
#pragma once

#include "tests/simulation/State.h"

namespace appsync::simulation {

/// Looks at each call of the plug-in to a service before it is done; `fault` is the failure that it will meet.
void watch(State& state, std::string_view call, std::string_view arguments, const ErrorPtr& fault);

/// What must hold when a call into the plug-in has ended.
void checkAfterCall(State& state, const Frame& frame);

/// What must hold whenever no call is under way.
void checkAtRest(State& state);

/// What must hold when the client has gone.
void checkAfterTheEnd(State& state);

/// Whether the plug-in must take an error for one that a later sync may get past.
[[nodiscard]] bool isRecoverable(const ErrorPtr& error);

} // namespace appsync::simulation
