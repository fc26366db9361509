// Fault points for tests: one that counts and fails, and one that kills the process.
#pragma once

#include "device/root/FaultPoint.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace appsync::device {

/// Remembers every change, and fails the one with number `failAt` (from 0) with `failure`, and those in a folder.
class RecordingFaults final : public FaultPoint {
  public:
    int before(std::string_view operation, std::string_view path) noexcept override {
        const std::lock_guard lock(_mutex);
        _changes.emplace_back(operation, path);
        for (const std::string_view folder : failBelow) {
            if (path.starts_with(folder)) {
                return failure;
            }
        }
        return failAt >= 0 && _changes.size() == static_cast<std::size_t>(failAt) + 1 ? failure : 0;
    }
    [[nodiscard]] std::vector<std::string> operations() const {
        const std::lock_guard lock(_mutex);
        std::vector<std::string> names;
        for (const auto& [operation, path] : _changes) {
            names.push_back(operation);
        }
        return names;
    }
    [[nodiscard]] std::size_t count() const {
        const std::lock_guard lock(_mutex);
        return _changes.size();
    }
    void forget() {
        const std::lock_guard lock(_mutex);
        _changes.clear();
    }

    int failAt = -1;
    std::vector<std::string_view> failBelow = {}; // folders in which every change fails, too
    int failure = 0;

  private:
    mutable std::mutex _mutex;
    std::vector<std::pair<std::string, std::string>> _changes;
};

/// Kills the process before the change with number `endAt` (from 0).
class EndingFaults final : public FaultPoint {
  public:
    explicit EndingFaults(int endAt) : _left(endAt) {}
    int before(std::string_view, std::string_view) noexcept override {
        const std::lock_guard lock(_mutex);
        if (_left-- == 0) {
            ::kill(::getpid(), SIGKILL);
        }
        return 0;
    }
    /// Whether a process with this status was ended so.
    static bool hasEnded(int status) { return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL; }

  private:
    std::mutex _mutex;
    int _left;
};

} // namespace appsync::device
