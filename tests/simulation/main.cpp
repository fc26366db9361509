// simulate: lives in which one thing happens at a time, also between threads, so that a seed decides everything.
#include "tests/simulation/Life.h"
#include "tests/simulation/Program.h"

int main(int argc, char** argv) {
    using namespace appsync::simulation;
    OtherThreads threads;
    const Live live = [&threads](std::uint64_t seed, Tally& tally, bool records) {
        Life life(seed, tally, threads, records);
        auto violation = life.live();
        return Outcome{std::move(violation), life.journal()};
    };
    return runProgram(argc, argv, live);
}
