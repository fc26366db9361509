// What every fuzz target shares: the entry point's declaration, and an expectation that ends the run when it is broken.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

namespace appsync::fuzz {

inline std::string_view text(const std::uint8_t* bytes, std::size_t size) {
    return {reinterpret_cast<const char*>(bytes), size};
}

/// What must hold whatever the input is.
inline void expect(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "broken: %s\n", what);
        std::abort();
    }
}

/// What the run itself needs of the machine, whatever the code under test does.
inline void require(bool isThere, const char* what) {
    if (!isThere) {
        std::fprintf(stderr, "cannot run: %s\n", what);
        std::abort();
    }
}

} // namespace appsync::fuzz
