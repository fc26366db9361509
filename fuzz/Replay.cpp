// Runs a fuzz target over files that are kept: seeds and everything that was ever found.
//
// Usage: NAME_replay FOLDER|FILE...      Each file is one input.
#include "fuzz/Fuzz.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace fs = std::filesystem;

namespace {

void runFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    std::cout << path.filename().string() << std::endl; // before it runs: the last name is the one that broke
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

} // namespace

int main(int count, char** words) {
    int files = 0;
    for (int word = 1; word < count; ++word) {
        if (!fs::is_directory(words[word])) {
            runFile(words[word]);
            ++files;
            continue;
        }
        for (const auto& entry : fs::directory_iterator(words[word])) {
            runFile(entry.path());
            ++files;
        }
    }
    std::cout << files << " inputs replayed\n";
    return files > 0 ? 0 : 1;
}
