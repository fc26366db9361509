// Files that are opened without waiting, and what tells that they have changed.
#include "files/RegularFile.h"

#include "TestFolder.h"

#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <vector>

namespace appsync {
namespace {

TEST_F(FilesTest, WhatIsNoRegularFileIsRefusedAtOnce) {
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    fs::create_symlink("fifo", folder / "link");
    fs::create_symlink("/dev/zero", folder / "device");
    for (const char* name : {"fifo", "link", "device", "."}) {
        const auto file = RegularFile::open(at(name));
        ASSERT_FALSE(file) << name;
        EXPECT_EQ(errorText(file.error()), "'" + at(name) + "' cannot be read: it is no regular file");
    }
    EXPECT_EQ(errorText(RegularFile::open(at("missing")).error()),
              "'" + at("missing") + "' cannot be read: No such file or directory");
}

TEST_F(FilesTest, EachChangeOfAFileShows) {
    const std::vector<std::function<void()>> changes{
        [&] { fs::resize_file(folder / "file", 2); },
        [&] { fs::resize_file(folder / "file", 9); },
        [&] { fs::last_write_time(folder / "file", fs::file_time_type::clock::now() + std::chrono::hours(1)); },
    };
    for (const auto& change : changes) {
        put("file", "content");
        const auto file = RegularFile::open(at("file"));
        ASSERT_TRUE(file);
        EXPECT_TRUE(file->isUnchanged());
        EXPECT_EQ(file->stamp(), RegularFile::open(at("file"))->stamp());
        change();
        EXPECT_FALSE(file->isUnchanged());
        EXPECT_NE(file->stamp(), RegularFile::open(at("file"))->stamp());
    }
}

TEST_F(FilesTest, AFileThatTookThePlaceOfAnotherIsAnother) {
    put("file", "content");
    put("other", "content");
    fs::last_write_time(folder / "other", fs::last_write_time(folder / "file"));
    const auto file = RegularFile::open(at("file"));
    fs::rename(folder / "other", folder / "file");
    EXPECT_NE(file->stamp(), RegularFile::open(at("file"))->stamp());
}

} // namespace
} // namespace appsync
