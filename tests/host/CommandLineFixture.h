// `qrd` as a person or a script runs it: words in, text and an exit code out.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

namespace appsync::host {

namespace fs = std::filesystem;

struct Answer {
    int code = -1;
    std::string text; // standard output and error
};

/// A `qrd` that runs beside the test, its output read line by line; ended with the object.
class Running {
  public:
    Running(const fs::path& folder, const std::string& words) {
        std::array<int, 2> pipe{};
        EXPECT_EQ(::pipe(pipe.data()), 0);
        _process = ::fork();
        if (_process == 0) {
            ::dup2(pipe[1], STDOUT_FILENO);
            ::dup2(pipe[1], STDERR_FILENO);
            ::close(pipe[0]);
            ::close(pipe[1]);
            const std::string command = "cd '" + folder.string() + "' && exec " APPSYNC_QRD " " + words;
            ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(pipe[1]);
        _out = ::fdopen(pipe[0], "r");
    }
    ~Running() {
        if (_process > 0) {
            ::kill(_process, SIGKILL);
            end();
        }
        std::fclose(_out);
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    /// The next line that has this in it; empty when there is none before the end.
    std::string lineWith(const std::string& text) {
        std::array<char, 8192> buffer{};
        while (std::fgets(buffer.data(), buffer.size(), _out)) {
            const std::string line = buffer.data();
            if (line.find(text) != std::string::npos) {
                return line;
            }
        }
        return "";
    }
    void send(int signal) const { ::kill(_process, signal); }
    /// Returns when it has been stopped.
    void stop() const {
        send(SIGSTOP);
        int status = 0;
        ASSERT_EQ(::waitpid(_process, &status, WUNTRACED), _process);
        ASSERT_TRUE(WIFSTOPPED(status));
    }
    /// Waits until it has ended; its exit code, or -1 when a signal has ended it.
    int end() {
        int status = 0;
        ::waitpid(std::exchange(_process, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    [[nodiscard]] pid_t process() const { return _process; }

  private:
    pid_t _process = 0;
    FILE* _out = nullptr;
};

class CommandLine : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "qrd.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
    }
    void TearDown() override { fs::remove_all(folder); }

    /// `before` is a command that is given qrd and its words.
    Answer qrd(const std::string& words, const std::string& before = {}) {
        const std::string command = "cd '" + folder.string() + "' && " + before + " " APPSYNC_QRD " " + words + " 2>&1";
        Answer answer;
        FILE* pipe = ::popen(command.c_str(), "r");
        std::array<char, 4096> buffer{};
        for (std::size_t read = 0; (read = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
            answer.text.append(buffer.data(), read);
        }
        const int status = ::pclose(pipe);
        answer.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return answer;
    }
    void write(const std::string& name, const std::string& bytes) {
        fs::create_directories((folder / name).parent_path());
        std::ofstream(folder / name, std::ios::binary) << bytes;
    }
    /// Packs an app "com.example.NAME" into the library; the bytes make its transfer long.
    void addApp(const std::string& name, const std::string& program = "x", std::size_t bytes = 0) {
        const std::string app = "apps/" + name + "/" + name + ".app/";
        write(app + "Info.plist", "<plist version=\"1.0\"><dict><key>BXBundleIdentifier</key><string>com.example." +
                                      name + "</string><key>BXBundleVersion</key><string>1.0</string>" +
                                      "<key>BXBundleExecutable</key><string>main</string>" +
                                      "<key>BXBundleDisplayName</key><string>The " + name + "</string></dict></plist>");
        write(app + "main", program);
        fs::permissions(folder / (app + "main"), fs::perms::owner_all);
        std::string noise(bytes, '\0'); // that nothing makes smaller
        unsigned number = 1;
        for (char& byte : noise) {
            number = number * 1'103'515'245U + 12'345U;
            byte = static_cast<char>(number >> 24);
        }
        write(app + "noise", noise);
        fs::create_directories(folder / "library");
        const Answer packed = qrd("pack apps/" + name + " -o library/" + name + ".archive");
        ASSERT_EQ(packed.code, 0) << packed.text;
    }
    [[nodiscard]] std::string bytesOf(const std::string& name) const {
        std::ifstream file(folder / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static bool has(const Answer& answer, const std::string& text) {
        return answer.text.find(text) != std::string::npos;
    }
    fs::path folder;
};

} // namespace appsync::host
