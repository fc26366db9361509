// A client on a device in memory, for one input.
#pragma once

#include "fuzz/Fuzz.h"
#include "plugin/client/AppsClient.h"
#include "plugin/client/Paths.h"
#include "tests/inmemory/World.h"

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string>

namespace appsync::fuzz {

/// Looks at the paths that the client asks for as it names them, before a file system makes them short.
struct Device {
    explicit Device(bool useInstallCoordinator) {
        world.coordinators.any.enabled = useInstallCoordinator;
        world.context.interceptor = [this](std::string_view call, std::string_view arguments) {
            _expectSafePaths(call, arguments);
            return ErrorPtr();
        };
        client = AppsClient::init(world.platform());
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    inmemory::World world;
    std::unique_ptr<AppsClient> client;

  private:
    void _expectSafePaths(std::string_view call, std::string_view arguments) {
        expect(!_leadsUpwards(arguments), "no path leads upwards");
        if (!call.starts_with("files.")) {
            return;
        }
        const bool hasTarget = call == "files.moveItem" || call == "files.copyItem";
        const auto target = hasTarget ? arguments.rfind(" to /") : arguments.size();
        expect(_isOwn(arguments.substr(0, target)), "only the plug-in's own folders are touched");
        expect(!hasTarget || _isOwn(arguments.substr(target + 4)),
               "nothing is put outside of the plug-in's own folders");
    }
    /// Whether ".." is a folder in a path. An identifier may begin with it, which leads from one of the plug-in's
    /// folders to its neighbour, and a name with dots.
    static bool _leadsUpwards(std::string_view arguments) {
        for (auto at = arguments.find("/.."); at != std::string_view::npos; at = arguments.find("/..", at + 1)) {
            const std::string_view rest = arguments.substr(at + 3);
            const std::string_view folder = arguments.substr(0, at);
            const bool isName = !rest.empty() && !rest.starts_with('/') && !rest.starts_with(" to /");
            if (!isName && !folder.ends_with(paths::icons) && !folder.ends_with(paths::workArea)) {
                return true;
            }
        }
        return false;
    }
    /// Whether a path, with what follows it, stands in a place that is the plug-in's.
    bool _isOwn(std::string_view named) {
        const std::string path = std::filesystem::path(named).lexically_normal();
        const std::string placeholders = paths::join(world.process.temporaryDirectory(), "com.zuvex.qrd.Apps");
        const auto isBelow = [&path](std::string_view place) {
            const std::string_view rest = std::string_view(path).substr(std::min(place.size(), path.size()));
            return path.starts_with(place) && (rest.empty() || rest.starts_with('/') || rest.starts_with(", "));
        };
        return std::ranges::any_of(std::initializer_list<std::string_view>{paths::applicationSync, paths::publicStaging,
                                                                           paths::demotedApps, paths::restoreInfo,
                                                                           paths::processedRestoreInfo, placeholders},
                                   isBelow);
    }
};

} // namespace appsync::fuzz
