// The command line of a simulation: many lives, one life, a rate at the end.
#pragma once

#include "tests/simulation/State.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace appsync::simulation {

struct Outcome {
    std::optional<Violation> violation;
    std::vector<std::string> journal; // empty unless it was asked for
};

/// Calls to services in all lives; as long as it grows, nothing hangs.
inline std::atomic<std::uint64_t> callCount = 0;

/// Lives the life of a seed.
using Live = std::function<Outcome(std::uint64_t seed, Tally& tally, bool records)>;

/// Does what the command line says; the program's exit code.
int runProgram(int argc, char** argv, const Live& live);

} // namespace appsync::simulation
