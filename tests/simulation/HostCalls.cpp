// The calls that open and close syncs and restores.
#include "plugin/client/Paths.h"
#include "tests/simulation/CallScope.h"
#include "tests/simulation/Calls.h"
#include "tests/simulation/OtherThread.h"

namespace appsync::simulation {

namespace {

std::optional<Array> arrayAt(const State& state, std::string_view path) {
    const auto value = state.world.files.plistAt(path);
    return value && value->array() ? std::optional(*value->array()) : std::nullopt;
}

bool isAllowed(const State& state, std::string_view setting) {
    const auto found = state.world.policy.settings.find(setting);
    return found == state.world.policy.settings.end() || found->second != OLBoolValue::explicitlyNo;
}

/// The identifier of a record with that operation; nothing when it must not be acted on.
std::optional<std::string> identifierToAct(const Value& item, std::string_view operation) {
    const Dictionary* record = item.dictionary();
    const auto identifier = record ? record->string("identifier") : std::nullopt;
    return staysBelow(identifier) && record->string("operation") == operation ? std::optional<std::string>(*identifier)
                                                                              : std::nullopt;
}

std::set<std::string> identifiersToInstall(const Array& toDoList) {
    std::set<std::string> identifiers;
    for (const Value& item : toDoList) {
        if (const auto identifier = identifierToAct(item, "install")) {
            identifiers.insert(*identifier);
        }
    }
    return identifiers;
}

struct Placeholders {
    explicit Placeholders(const State& state) {
        for (const auto& application : state.world.registry.applications()) {
            if (application->placeholder) {
                byKey[application->applicationIdentifier()] = application;
                if (application->kind == "System") {
                    ofSystem.insert(application->identifier);
                }
            }
        }
    }
    std::map<std::string, inmemory::ApplicationPtr> byKey; // by what they are registered under
    std::set<std::string> ofSystem;
};

/// What the registry is installing, by what it is registered under.
std::set<std::string> appsInProgress(const State& state) {
    std::set<std::string> apps;
    for (const auto& proxy : state.world.registry.prioritized) {
        const auto progress = proxy->isPlaceholder() ? proxy->installProgressSync() : nullptr;
        const bool isActive = progress && progress->installState() == PDInstallStateActive;
        const bool isInstalling = isActive && progress->installPhase() == PDInstallPhaseInstalling;
        const bool isLoading = isActive && progress->installPhase() == PDInstallPhaseLoading;
        const auto type = proxy->installType();
        if ((type != PDInstallTypeRestore && isInstalling) || (type == PDInstallTypeStoreDownload && isLoading)) {
            apps.insert(proxy->applicationIdentifier());
        }
    }
    return apps;
}

} // namespace

bool Calls::reconcile(const std::optional<Array>& staged) {
    State& state = _state;
    std::multiset<std::string> removals;
    for (const Value& item : staged&& isAllowed(state, OLFeatureAppRemovalAllowed) ? *staged : Array{}) {
        if (const auto identifier = identifierToAct(item, "remove")) {
            removals.insert(*identifier);
        }
    }
    state.transfers.clear();
    bool mayGoOn = false;
    inCall(state, "reconcileSync", "", [&](Frame& frame) {
        frame.mayBeUninstalled.insert(removals.begin(), removals.end());
        state.toDoList = std::nullopt;
        state.filesDisturbed = false;
        mayGoOn = state.client->reconcileSync_withNewAnchor_progressCallback_error(nullptr, "anchor", nullptr, nullptr);
        const bool taken = mayGoOn && staged && !state.world.files.exists(paths::stagingArea);
        for (const std::string& identifier : taken && !frame.listUnread ? removals : std::multiset<std::string>{}) {
            const auto* call = state.coordinated() ? "coordinators.uninstallAppLater" : "registry.uninstallApplication";
            state.demand(frame.count(call, identifier) == removals.count(identifier),
                         "the failure of one app stops no other", "removal of " + identifier);
            state.tally.add(Event::removal);
        }
        state.toDoList = arrayAt(state, paths::toDoList);
        state.demand(!taken || state.toDoList == staged, "the to-do list keeps its records", "reconciliation");
    });
    resyncFiles(state);
    return mayGoOn;
}

void Calls::takeInventory() {
    State& state = _state;
    inCall(state, "installedAssets", "", [&](Frame& frame) {
        const Dictionary answer = state.client->installedAssets();
        for (const Value& app : frame.listUnread || !state.toDoList ? Array{} : *answer.array("_Deleted")) {
            const auto identifier = app.dictionary()->string("BXBundleIdentifier");
            for (const Value& item : *state.toDoList) {
                const Dictionary* record = item.dictionary();
                if (record && record->string("identifier") == identifier) {
                    const auto operation = record->string("operation");
                    state.demand(operation == "INSTALLED" || operation == "FAILED",
                                 "what is still to come does not count as deleted", *identifier);
                    break;
                }
            }
        }
    });
}

std::multiset<std::string> Calls::_planned(const Array& toDoList) const {
    const State& state = _state;
    const Placeholders placeholders(state);
    const auto requested = identifiersToInstall(toDoList);
    const auto inProgress = appsInProgress(state);
    const bool allowed = isAllowed(state, OLFeatureAppInstallationAllowed);
    std::multiset<std::string> planned;
    const auto add = [&](const std::string& key, const std::string& identifier, bool isRestore) {
        if (!inProgress.contains(key) && (allowed || isRestore) && !placeholders.ofSystem.contains(identifier)) {
            planned.insert(identifier);
        }
    };
    for (const auto& [key, placeholder] : placeholders.byKey) {
        const std::string& identifier = placeholder->identifier;
        const bool isRestore = placeholder->type == PDInstallTypeRestore;
        const bool isDemoted =
            placeholder->type == PDInstallTypeDowngrade || placeholder->type == PDInstallTypeIntentionalDowngrade;
        const bool isLeftAlone = state.coordinated() ? isRestore || placeholder->kind == "System" ||
                                                           (isDemoted && !requested.contains(identifier))
                                                     : placeholders.byKey.contains(identifier);
        if (!isLeftAlone) {
            add(key, identifier, isRestore);
        }
    }
    for (const std::string& identifier : requested) {
        if (!placeholders.byKey.contains(identifier)) {
            add(identifier, identifier, false);
        }
    }
    return planned;
}

void Calls::plan() {
    State& state = _state;
    const Array toDoList = state.toDoList.value_or(Array{});
    const auto planned = _planned(toDoList);
    const auto plannedWithoutList = _planned({});
    inCall(state, "outstandingAssetTransfers", "", [&](Frame& frame) {
        const auto assets = state.client->outstandingAssetTransfers();
        const auto& expected = frame.listUnread ? plannedWithoutList : planned;
        std::multiset<std::string> returned;
        for (const QRAssetPtr& asset : assets) {
            returned.insert(asset->identifier);
            state.transfers.push_back({asset, "", false});
            state.transfers.back().archive =
                paths::join(paths::publicStaging,
                            "app-" + asset->identifier + "." + std::to_string(state.transfers.size()) + ".ipa");
            if (frame.count("updating", asset->identifier) > 0) {
                state.updating.insert(asset->identifier);
            }
        }
        for (const std::string& identifier : expected) {
            const auto refused = frame.count("install refused", identifier);
            state.demand(returned.count(identifier) + refused == expected.count(identifier),
                         "the failure of one app stops no other", "planning of " + identifier);
            if (refused > 0) {
                state.expectOperation(identifier, "FAILED");
                state.tally.add(Event::refusedPreparation);
            }
        }
        for (const std::string& identifier : returned) {
            state.demand(expected.contains(identifier), "nothing is fetched that nobody asked for",
                         "planning of " + identifier);
        }
        state.tally.add(Event::requestedApp, returned.size());
    });
}

void Calls::endTransfers(bool success) {
    State& state = _state;
    state.transferPhase = false;
    const bool waits = InstallStage::instance().size() > 0 || InstallStage::instance().retryCount() > 0;
    inCall(state, "assetTransferEnded", "", [&](Frame& frame) {
        if (waits) {
            _finishInstalls();
        }
        state.client->assetTransferEndedWithSuccess(success);
        if (laterIsRunning) {
            _later.tell();
            _later.join();
            laterIsRunning = false;
        }
        state.demand(frame.count("store.refreshReceipts", "") == (state.attempts > 0 ? 1U : 0U),
                     "the receipts are refreshed once after installs", "the end of the transfers");
        _checkSettled(frame, success);
    });
    state.attempts = 0;
    state.tally.add(Event::settledAtTheEnd, state.outstanding.size());
    if (!state.outstanding.empty()) {
        state.outstanding.clear();
        state.updating.clear();
        state.cancelled.clear();
    }
}

/// Lets every install run on the other thread once the call waits for them, which its first message announces.
void Calls::_finishInstalls() {
    laterIsRunning = true;
    _later.startWhenTold([this] {
        InstallStage& stage = InstallStage::instance();
        while (stage.size() > 0 || stage.retryCount() > 0) {
            if (stage.size() == 0) {
                passTime();
                continue;
            }
            _state.tally.add(Event::installAwaited);
            runAnInstall(_state.chance.below(stage.size()));
        }
    });
}

void Calls::_checkSettled(const Frame& frame, bool success) {
    State& state = _state;
    const auto lookUps = std::ranges::count_if(
        frame.done, [](const std::string& call) { return call.starts_with("coordinators.any "); });
    state.demand(!state.coordinated() || lookUps == std::ssize(state.outstanding),
                 "what has ended is not settled again", std::to_string(lookUps) + " settled");
    for (const std::string& identifier : state.outstanding) {
        const bool settled = state.coordinated()
                                 ? frame.count("coordinators.any", identifier) == 1
                                 : frame.count("registry.applicationProxyForIdentifier", identifier) == 1;
        state.demand(settled, "the failure of one app stops no other", "settling " + identifier);
        if (state.coordinated() && success) {
            state.demand(frame.count("coordinator.cancel", identifier) == 0, "a success cancels nothing", identifier);
        }
    }
}

void Calls::endSync(bool success) {
    inCall(_state, "syncEnded", "", [&](Frame&) { _state.client->syncEndedWithSuccess(success); });
    if (success && !_state.filesDisturbed) {
        _state.demand(!_state.world.files.exists(paths::lastSyncAppState), "a sync that succeeded is closed",
                      "the list of the last sync's apps is still there");
    }
}

std::set<std::string> Calls::_toBeRestored() const {
    const State& state = _state;
    std::set<std::string> apps;
    const auto info = state.world.files.plistAt(paths::restoreInfo);
    for (const auto& [identifier, app] : info && info->dictionary() ? *info->dictionary() : Dictionary{}) {
        const auto there = [name = identifier.view()](const auto& application) {
            return application->identifier == name && application->kind != "System";
        };
        const bool known = !state.coordinated() && std::ranges::any_of(state.world.registry.applications(), there);
        if (namesAFile(identifier) && !known && app.dictionary() && app.dictionary()->data("TamblinMetadata")) {
            apps.emplace(identifier.view());
        }
    }
    return apps;
}

void Calls::restore(int type) {
    State& state = _state;
    const auto apps = type == 2 ? _toBeRestored() : std::set<std::string>{};
    inCall(state, "reconcileRestore", "", [&](Frame& frame) {
        state.demand(state.client->reconcileRestoreOfType_withError(type, nullptr), "a restore goes on", "its opening");
        for (const std::string& identifier : frame.listUnread ? std::set<std::string>{} : apps) {
            const auto* trace = state.coordinated() ? "restore started" : "Tamblin App Restore";
            state.demand(frame.count(trace, identifier) > 0, "the failure of one app stops no other",
                         "restore of " + identifier);
            state.tally.add(Event::restoredApp);
        }
    });
    for (const auto& application : state.world.registry.applications()) {
        if (application->placeholder && application->type == PDInstallTypeRestore) {
            application->registeredAs = "TEAM." + application->identifier; // as the registry lists a restored app
        }
    }
    state.tally.add(Event::restore);
}

void Calls::wipe() {
    State& state = _state;
    std::set<std::string> placeholders;
    for (const auto& application : state.world.registry.applications()) {
        if (application->placeholder) {
            placeholders.insert(application->identifier);
        }
    }
    inCall(state, "clearSyncData", "", [&](Frame& frame) {
        frame.mayBeUninstalled = placeholders;
        state.toDoList = std::nullopt;
        state.client->clearSyncData();
        for (const std::string& identifier : placeholders) {
            state.demand(frame.count("registry.uninstallApplication", identifier) == 1,
                         "the failure of one app stops no other", "wiping " + identifier);
        }
    });
    resyncFiles(state);
    state.tally.add(Event::wipe);
}

void Calls::askAside() {
    AppsClient& client = *_state.client;
    inCall(_state, "side query", "", [&](Frame&) {
        switch (_state.chance.below(4)) {
        case 0: static_cast<void>(client.installedAssetMetrics()); break;
        case 1: static_cast<void>(client.zuvexIDsForAssets()); break;
        case 2: client.prepareForBackup(); break;
        default: static_cast<void>(client.disabledAssetTypes()); break;
        }
    });
    _state.tally.add(Event::sideQuery);
}

} // namespace appsync::simulation
