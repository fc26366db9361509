// A folder of this machine for one test.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace appsync {

namespace fs = std::filesystem;

class FilesTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "files.XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        folder = pattern;
    }
    void TearDown() override { fs::remove_all(folder); }

    [[nodiscard]] std::string at(const std::string& name) const { return (folder / name).string(); }
    void put(const std::string& name, const std::string& bytes) const {
        std::ofstream(folder / name, std::ios::binary) << bytes;
    }
    [[nodiscard]] std::string content(const std::string& name) const {
        std::ifstream file(folder / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    [[nodiscard]] std::ptrdiff_t count() const { return std::distance(fs::directory_iterator(folder), {}); }

    fs::path folder;
};

} // namespace appsync
