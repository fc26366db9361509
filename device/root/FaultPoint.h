// A place to step in before the device changes its disk.
#pragma once

#include <cerrno>
#include <string_view>

namespace appsync::device {

/// Told of every change to the disk before it is made, on the thread that makes it. A crash test ends the process
/// there; a test of failures answers with the number of the failure.
class FaultPoint {
  public:
    virtual ~FaultPoint() = default;
    /// `operation` names the change ("write", "rename", "sync", "commit", …), `path` what it changes. Zero to go on, or
    /// an errno number with which the operation is to fail without being tried.
    virtual int before(std::string_view operation, std::string_view path) noexcept = 0;
};

/// Refuses every change: the disk is only looked at.
class NoChanges final : public FaultPoint {
  public:
    int before(std::string_view /*operation*/, std::string_view /*path*/) noexcept override { return EROFS; }
};

/// Asks the fault point, if there is one, before a change; zero or an errno number.
[[nodiscard]] inline int beforeChange(FaultPoint* faultPoint, std::string_view operation,
                                      std::string_view path) noexcept {
    return faultPoint ? faultPoint->before(operation, path) : 0;
}

} // namespace appsync::device
