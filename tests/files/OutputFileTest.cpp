// Files written for a person: whole or not at all, in place of what was there and with its mode.
#include "files/OutputFile.h"

#include "TestFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>

namespace appsync {
namespace {

class Output : public FilesTest {
  protected:
    [[nodiscard]] std::string failureOf(const std::string& name, const std::string& bytes = "new") const {
        return errorText(writeOutput(at(name), bytes).error());
    }
    [[nodiscard]] unsigned modeOf(const std::string& name) const {
        return static_cast<unsigned>(fs::status(folder / name).permissions() & fs::perms::mask);
    }
    void setMode(const std::string& name, unsigned mode) const {
        fs::permissions(folder / name, static_cast<fs::perms>(mode));
    }
};

TEST_F(Output, AppearsOnlyWhenItIsWhole) {
    put("out", "old");
    const auto file = OutputFile::open(at("out"));
    ASSERT_TRUE(file);
    ASSERT_TRUE((*file)->write("new"));
    EXPECT_EQ(content("out"), "old");
    ASSERT_TRUE((*file)->finish());
    EXPECT_EQ(content("out"), "new");
    EXPECT_EQ(count(), 1);
}

TEST_F(Output, LeavesNothingWhenItIsNotFinished) {
    {
        const auto file = OutputFile::open(at("out"));
        ASSERT_TRUE(file);
        ASSERT_TRUE((*file)->write("half"));
        EXPECT_FALSE(fs::exists(folder / "out"));
    }
    EXPECT_EQ(count(), 0);
}

TEST_F(Output, IsCollectedUnderANameThatNobodyForesees) {
    std::set<std::string> names;
    for (int time = 0; time < 20; ++time) {
        const auto file = OutputFile::open(at("out"));
        ASSERT_TRUE(file);
        names.insert(fs::directory_iterator(folder)->path().filename().string());
    }
    EXPECT_EQ(names.size(), 20U);
}

TEST_F(Output, KeepsTheModeOfWhatItReplaces) {
    for (const unsigned mode : {0600U, 0640U, 0755U, 0444U}) {
        put("out", "old");
        setMode("out", mode);
        EXPECT_EQ(failureOf("out"), "no error");
        EXPECT_EQ(modeOf("out"), mode);
        EXPECT_EQ(content("out"), "new");
        fs::remove(folder / "out");
    }
}

TEST_F(Output, IsTheOwnersAloneUntilItTakesThePlaceOfAnother) {
    put("out", "old");
    setMode("out", 0600);
    const auto file = OutputFile::open(at("out"));
    ASSERT_TRUE(file);
    struct stat status {};
    ASSERT_EQ(::fstat((*file)->descriptor(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(Output, SpecialBitsAreNotKept) {
    put("out", "old");
    setMode("out", 04755);
    EXPECT_EQ(failureOf("out"), "no error");
    struct stat status {};
    ASSERT_EQ(::stat(at("out").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0755U);
}

TEST_F(Output, NewFilesGetTheModeThatTheMaskLeaves) {
    const mode_t before = ::umask(0027);
    EXPECT_EQ(failureOf("out"), "no error");
    ::umask(before);
    EXPECT_EQ(modeOf("out"), 0640U);
}

TEST_F(Output, LinksAreFollowedToTheirTarget) {
    fs::create_directory(folder / "sub");
    put("sub/target", "old");
    fs::create_symlink("sub/between", folder / "out");
    fs::create_symlink("target", folder / "sub" / "between");
    EXPECT_EQ(failureOf("out"), "no error");
    EXPECT_EQ(content("sub/target"), "new");
    EXPECT_TRUE(fs::is_symlink(folder / "out"));
    fs::remove(folder / "sub" / "target"); // the links lead to nothing now
    EXPECT_EQ(failureOf("out"), "no error");
    EXPECT_EQ(content("sub/target"), "new");
    EXPECT_TRUE(fs::is_symlink(folder / "sub" / "between"));
}

TEST_F(Output, LinksInACircleAreNamed) {
    fs::create_symlink("out", folder / "out");
    EXPECT_EQ(failureOf("out"), "'" + at("out") + "' cannot be written: Too many levels of symbolic links.");
}

TEST_F(Output, WhatIsNoFileIsWrittenInto) {
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    const Descriptor reader(::open(at("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(failureOf("fifo"), "no error");
    char got[4] = {};
    EXPECT_EQ(::read(reader.get(), got, sizeof got), 3);
    EXPECT_STREQ(got, "new");
    EXPECT_TRUE(fs::is_fifo(folder / "fifo"));
    EXPECT_EQ(count(), 1);
    fs::create_symlink("/dev/full", folder / "full");
    EXPECT_EQ(failureOf("full"), "'" + at("full") + "' cannot be written: No space left on device.");
}

TEST_F(Output, TheStandardOutputIsWrittenIntoWhereverItGoes) {
    fs::create_symlink("/proc/self/fd/1", folder / "stdout");
    EXPECT_FALSE(isStandardOutput(at("missing")));
    testing::internal::CaptureStdout(); // into a file: it is not to be replaced
    const bool isStandard = isStandardOutput(at("stdout"));
    std::fputs("before ", stdout);
    std::fflush(stdout);
    const std::string failed = failureOf("stdout");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "before new");
    EXPECT_TRUE(isStandard);
    EXPECT_EQ(failed, "no error");
}

TEST_F(Output, WhatCannotBeWrittenIsNamed) {
    fs::create_directory(folder / "sub");
    put("file", "");
    EXPECT_EQ(failureOf("missing/out"), "'" + at("missing/out") + "' cannot be written: No such file or directory.");
    EXPECT_EQ(failureOf("sub"), "'" + at("sub") + "' cannot be written: Is a directory.");
    EXPECT_EQ(failureOf("file/out"), "'" + at("file/out") + "' cannot be written: Not a directory.");
}

} // namespace
} // namespace appsync
