#include "host/session/SyncPlan.h"

#include "desktop/Version.h"
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/services/DevicePolicy.h"
#include "host/Nearest.h"
#include "host/plugin/PlugIn.h"
#include "host/transfer/Transfer.h"
#include "platform/DevicePolicy.h"

#include <algorithm>
#include <compare>
#include <filesystem>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace appsync::host {

namespace {

using desktop::AppArchive;
using Pending = DeviceState::Pending;

Pending pendingOf(const device::Application& app) {
    if (!app.isPlaceholder) {
        return Pending::nothing;
    }
    if (app.isDemoted()) {
        return Pending::demoted;
    }
    return app.installType == PDInstallTypeRestore ? Pending::restoring
           : app.installType == PDInstallTypeSync  ? Pending::begun
                                                   : Pending::nothing;
}

/// What a word of a person names: its identifier, or why there is none.
struct Named {
    std::string identifier = {};
    std::string problem = {};
};

/// Identifiers with their names.
using Names = std::vector<std::pair<std::string, std::string>>;

/// `missing` is said when nothing has that identifier or name.
Named resolve(const std::string& word, const Names& names, const std::string& missing) {
    std::vector<std::string> bearers;
    std::vector<std::string> choices;
    for (const auto& [identifier, name] : names) {
        if (identifier == word) {
            return {identifier};
        }
        if (name == word) {
            bearers.push_back(identifier);
        }
        choices.insert(choices.end(), {identifier, name});
    }
    if (bearers.size() == 1) {
        return {bearers.front()};
    }
    if (bearers.empty()) {
        return {{}, missing + suggestion(word, choices)};
    }
    std::string all;
    for (const std::string& identifier : bearers) {
        all.append(all.empty() ? "" : ", ").append(identifier);
    }
    return {{}, "Several apps have this name; say which: " + all + "."};
}

std::string nameOf(const AppArchive& app) {
    return app.name.value_or(app.identifier);
}

/// Makes one plan.
class Planner {
  public:
    Planner(const desktop::AppLibrary& library, const DeviceState& device, const SyncWishes& wishes)
        : _library(library), _device(device), _wishes(wishes), _isForAll(wishes.install.empty()) {
        for (const DeviceState::App& app : device.apps) {
            _present.emplace(app.identifier, &app);
        }
        for (const AppArchive& archive : library.apps) {
            _offered.insert(archive.identifier);
        }
    }

    SyncPlan run() {
        _plan.report.problems = _library.problems;
        if (_library.apps.empty() && _library.unreadable.empty()) {
            _plan.report.problems.emplace_back("The library has no app archive.");
        }
        if (!_device.mayInstall && !_device.mayRemove) {
            _plan.report.failure = nothingAllowedError();
        }
        _planRemovals();
        _resolveInstalls();
        for (const AppArchive& archive : _library.apps) {
            _plan.goingOn.archives.insert(begunName(archive));
            _planArchive(archive);
        }
        _planWhatIsNotInLibrary();
        _plan.report.apps.insert(_plan.report.apps.end(), _unknown.begin(), _unknown.end());
        _planUnreadable();
        _measure();
        return std::move(_plan);
    }

  private:
    void _add(AppReport row) { _plan.report.apps.push_back(std::move(row)); }

    void _reportUnknown(const std::string& word, const std::string& problem) {
        if (std::ranges::find(_unknown, word, &AppReport::identifier) == _unknown.end()) {
            _unknown.push_back({word, word, std::nullopt, AppResult::failed, problem});
        }
    }

    void _planRemovals() {
        Names names;
        for (const DeviceState::App& app : _device.apps) {
            names.emplace_back(app.identifier, app.name);
        }
        for (const std::string& word : _wishes.remove) {
            const Named named = resolve(word, names, "The device does not have it.");
            if (named.identifier.empty()) {
                _reportUnknown(word, named.problem);
            } else if (_removed.insert(named.identifier).second) {
                _planRemoval(*_present.at(named.identifier));
            }
        }
    }

    void _planRemoval(const DeviceState::App& app) {
        AppReport row{app.identifier, app.name, std::nullopt, AppResult::removed, "", app.version};
        if (app.pending == Pending::begun) {
            _plan.takenBack.insert(app.identifier);
        }
        if (!app.isInstalled && app.pending == Pending::begun) {
            row.result = AppResult::cancelled;
            row.reason = "Its install, which an earlier sync had begun, is taken back.";
            row.isPassedOver = true;
        } else if (!app.isInstalled) {
            row.result = AppResult::failed;
            row.reason = "It is not installed; `qrd uninstall` removes its place on the home screen.";
        } else if (!_device.mayRemove) {
            row.result = AppResult::refused;
            row.reason = "This device does not allow removing apps.";
        } else {
            _plan.list.removals.push_back(app.identifier);
        }
        _add(std::move(row));
    }

    void _resolveInstalls() {
        Names names;
        for (const AppArchive& app : _library.apps) {
            names.emplace_back(app.identifier, nameOf(app));
        }
        for (const std::string& word : _wishes.install) {
            const Named named = resolve(word, names, "The library does not have it.");
            if (named.identifier.empty()) {
                _reportUnknown(word, named.problem);
            } else if (_named.insert(named.identifier).second && _removed.contains(named.identifier)) {
                _plan.report.problems.push_back("'" + word + "' is to be installed and removed; it is removed.");
            }
        }
    }

    void _planArchive(const AppArchive& archive) {
        if (_removed.contains(archive.identifier)) {
            return;
        }
        const auto found = _present.find(archive.identifier);
        const DeviceState::App* present = found != _present.end() ? found->second : nullptr;
        const bool isNamed = _named.contains(archive.identifier);
        AppReport row{archive.identifier, nameOf(archive), archive.version, AppResult::installed, ""};
        row.size = archive.size;
        if (present) {
            row.from = present->version;
        }
        if (present && present->pending == Pending::restoring) {
            _planRestore(archive, std::move(row), isNamed);
            return;
        }
        _decide(row, present, isNamed);
        const bool isToBeSent = isSent(row.result);
        if (isToBeSent && (_isForAll || isNamed)) {
            _plan.list.installs.push_back(&archive);
            _add(std::move(row));
        } else if (present && present->pending == Pending::begun) {
            _planBegun(std::move(row), isToBeSent);
        } else if (row.result == AppResult::unchanged && row.reason.empty()) {
            ++_plan.report.unchanged;
        } else if (_isForAll || isNamed) {
            _plan.report.unchanged += row.result == AppResult::unchanged ? 1 : 0;
            _add(std::move(row));
        }
    }

    /// What becomes of an app if the library's archive of it is wanted. What is unchanged without a reason goes without
    /// saying.
    void _decide(AppReport& row, const DeviceState::App* present, bool isNamed) const {
        const bool isInstalled = present && present->isInstalled;
        const bool isOlder =
            isInstalled && row.version && row.from && std::is_lt(desktop::compareVersions(*row.version, *row.from));
        if (isInstalled && row.version == row.from && !(isNamed && _wishes.reinstall)) {
            row.result = AppResult::unchanged;
            row.reason = isNamed ? "It is there already; --reinstall sends it again." : "";
        } else if (isOlder && !_wishes.downgrade) {
            row.result = isNamed ? AppResult::refused : AppResult::unchanged;
            row.reason = "The device has a newer version; --downgrade brings this one.";
        } else if (!_device.mayInstall) {
            row.result = AppResult::refused;
            row.reason = "This device does not allow installing apps.";
        } else {
            row.result = !isInstalled ? AppResult::installed : isOlder ? AppResult::downgraded : AppResult::updated;
        }
    }

    /// An earlier sync has begun what this one does not bring. Another one may, if the archive is `wanted`.
    void _planBegun(AppReport row, bool wanted) {
        (wanted ? _plan.goingOn.waiting : _plan.takenBack).insert(row.identifier);
        if (row.result == AppResult::refused) { // which says more
            _add(std::move(row));
            return;
        }
        row.result = wanted ? AppResult::waiting : AppResult::cancelled;
        row.reason = wanted ? "An earlier sync has begun it; a sync without --install brings it."
                            : "The library no longer has what an earlier sync had begun to bring.";
        row.isPassedOver = true;
        _add(std::move(row));
    }

    void _planRestore(const AppArchive& archive, AppReport row, bool isNamed) {
        if (!_device.hasStore) {
            _plan.list.restores.push_back(&archive);
            _add(std::move(row));
        } else if (_isForAll || isNamed) {
            row.result = AppResult::waiting;
            row.reason = "It is being restored and waits for the store; `qrd store` brings it.";
            row.isPassedOver = !isNamed;
            _add(std::move(row));
        }
    }

    void _planWhatIsNotInLibrary() {
        for (const DeviceState::App& app : _device.apps) {
            if (_removed.contains(app.identifier) || _offered.contains(app.identifier)) {
                continue;
            }
            AppReport row{app.identifier, app.name, std::nullopt, AppResult::waiting, "", app.version};
            if (app.pending == Pending::begun) {
                _planBegun(std::move(row), false);
            } else if (app.pending == Pending::restoring && !_device.hasStore) {
                row.reason = "The library has no '" + app.identifier + "'.";
                row.isPassedOver = !_isForAll;
                _add(std::move(row));
            }
        }
    }

    void _planUnreadable() {
        for (const desktop::UnreadableFile& file : _library.unreadable) {
            const std::string name = std::filesystem::path(file.path).filename().string();
            AppReport row{"", name, std::nullopt, AppResult::failed, file.reason};
            row.isPassedOver = !_isForAll; // it is none of those that are named
            _add(std::move(row));
        }
    }

    /// An archive stands beside what is unpacked of it, one at a time as a rule.
    void _measure() {
        std::uint64_t largest = 0;
        for (const auto* archives : {&_plan.list.installs, &_plan.list.restores}) {
            for (const AppArchive* archive : *archives) {
                _plan.report.bytes += archive->size;
                _plan.report.bytesNeeded += archive->unpackedSize;
                largest = std::max(largest, archive->size);
            }
        }
        _plan.report.bytesNeeded += largest;
        _plan.report.bytesFree = _device.freeBytes;
    }

    const desktop::AppLibrary& _library;
    const DeviceState& _device;
    const SyncWishes& _wishes;
    const bool _isForAll;
    std::unordered_map<std::string_view, const DeviceState::App*> _present; // on the device
    std::unordered_set<std::string_view> _offered;                          // by the library
    std::set<std::string> _named;                                           // to be installed
    std::set<std::string> _removed;
    std::vector<AppReport> _unknown; // words that name no app
    SyncPlan _plan;
};

} // namespace

DeviceState stateOf(device::Device& device) {
    const auto allows = [&](std::string_view feature) {
        return device.policy().value(feature) != OLBoolValue::explicitlyNo;
    };
    DeviceState state;
    for (const device::Application& app : device.registry().applications()) {
        state.apps.push_back(
            {app.identifier, app.name, app.isInstalled, app.isInstalled ? app.version : std::nullopt, pendingOf(app)});
    }
    state.mayInstall = allows(OLFeatureAppInstallationAllowed);
    state.mayRemove = allows(OLFeatureAppRemovalAllowed);
    state.hasStore = device.coordinationIsEnabled();
    if (const auto free = device.files().freeSpace()) {
        state.freeBytes = *free;
    }
    return state;
}

ErrorPtr nothingAllowedError() {
    return hostError("This device allows neither installing nor removing apps.");
}

SyncPlan planSync(const desktop::AppLibrary& library, const DeviceState& device, const SyncWishes& wishes) {
    return Planner(library, device, wishes).run();
}

} // namespace appsync::host
