// simulate_rush: lives in which everything happens at once. Only what must hold is checked; a seed replays what is
// done, but not the order in which threads get to it.
#include "tests/simulation/Rush.h"

int main(int argc, char** argv) {
    using namespace appsync::simulation;
    return runProgram(argc, argv, liveInARush);
}
