// The calls about one asset, and those of the services and of a person while assets are under way.
#include "plugin/client/Paths.h"
#include "tests/simulation/CallScope.h"
#include "tests/simulation/Calls.h"

#include <array>

namespace appsync::simulation {

namespace {

using AnyCoordinator = inmemory::Coordinator<KXAppInstallCoordinator>;

constexpr std::array<double, 3> fractionsOutOfRange = {-0.25, 1.5, 1e6};

/// The path that the restore state has for an asset.
std::optional<std::string> rememberedPath(const State& state, const QRAsset& asset) {
    const auto root = state.world.files.plistAt(paths::restoreState);
    const Dictionary* versions = root ? root->dictionary()->dictionary(asset.identifier) : nullptr;
    const Dictionary* properties = versions ? versions->dictionary(asset.version().value_or("")) : nullptr;
    const auto path = properties ? properties->string("path") : std::nullopt;
    return path ? std::optional<std::string>(*path) : std::nullopt;
}

bool isRegistered(const State& state, std::string_view identifier) {
    return state.world.registry.find(identifier, false) || state.world.registry.find(identifier, true);
}

std::optional<std::string> somePath(State& state, const Transfer& transfer) {
    const std::size_t kind = state.chance.below(20);
    if (kind == 0) {
        return std::nullopt;
    }
    if (kind <= 2) {
        state.tally.add(Event::unsafePathOffered);
        return kind == 1 ? "/var/mobile/../root/" + transfer.asset->identifier : "up/../../" + transfer.archive;
    }
    state.world.files.put(transfer.archive, "archive");
    return kind <= 5 ? transfer.archive.substr(paths::publicStaging.size() + 1) : transfer.archive;
}

/// The host counts as told that the transfer has ended before the plug-in does anything about it.
void forgetTransfer(State& state, Frame& frame, const std::string& identifier) {
    if (state.updating.erase(identifier) > 0) {
        frame.done.insert("updating " + identifier);
    }
    state.outstanding.erase(identifier);
}

} // namespace

void Calls::reportProgress(std::size_t position) {
    State& state = _state;
    Transfer& transfer = state.transfers[position];
    const std::string identifier = transfer.asset->identifier;
    if (transfer.ended) {
        // Fetched anew: a record of its own, whose file is yet to come.
        transfer.asset = std::make_shared<QRAsset>(*transfer.asset);
        transfer.asset->path = std::nullopt;
    }
    double fraction = static_cast<double>(state.chance.below(1001)) / 1000;
    if (state.chance.oneIn(40)) {
        fraction = state.chance.among(fractionsOutOfRange);
        state.outOfRange.insert(identifier);
        state.tally.add(Event::progressOutOfRange);
    }
    state.tally.add(transfer.ended ? Event::progressAfterTheEnd : Event::progress);
    const QRAssetPtr asset = transfer.asset;
    inCall(state, "assetTransfer:updatedProgress", identifier, [&](Frame&) {
        asset->downloadProgress = fraction;
        state.client->assetTransfer_updatedProgress(asset, fraction);
    });
    state.outstanding.insert(identifier);
}

void Calls::arrive(std::size_t position) {
    State& state = _state;
    Transfer& transfer = state.transfers[position];
    // A record of its own, since an install of the one before may still be under way.
    const QRAssetPtr record = std::make_shared<QRAsset>(*transfer.asset);
    QRAsset& asset = *record;
    transfer.asset = record;
    state.tally.add(transfer.ended ? Event::arrivalAgain : Event::arrival);
    asset.path = somePath(state, transfer);
    asset.isDownload = !state.chance.oneIn(25);
    asset.completedAssetParts = asset.isRestore ? static_cast<std::uint32_t>(1 + state.chance.below(3)) : 1;
    transfer.ended = true;
    InstallStage& stage = InstallStage::instance();
    inCall(state, "assetTransfer:succeeded", asset.identifier, [&](Frame& frame) {
        forgetTransfer(state, frame, asset.identifier);
        state.cancelled.erase(asset.identifier);
        const std::size_t before = stage.added;
        const bool knew = !state.filesDisturbed;
        const bool installs = [&] {
            const std::size_t waiting = state.waitingForData.size();
            _expectArrival(asset);
            const bool arrived = staysBelow(asset.path ? asset.path : rememberedPath(state, asset)) && asset.isDownload;
            const bool waitsForData = asset.isRestore && asset.completedAssetParts != kQRAssetPartApplicationData &&
                                      state.world.backup.withRestoreData.contains(asset.identifier);
            state.tally.add(Event::waitForUserData, state.waitingForData.size() - waiting);
            return arrived && !waitsForData && !state.coordinated();
        }();
        const auto label = std::exchange(stage.label, position);
        state.client->assetTransfer_succeeded_withError(record, true, nullptr);
        stage.label = label;
        if (knew && !state.filesDisturbed) {
            state.demand(stage.added - before == (installs ? 1U : 0U), "what arrives is installed once",
                         "arrival of " + asset.description());
        }
    });
}

/// What the to-do list and the restore state must say of an asset that has arrived.
void Calls::_expectArrival(const QRAsset& asset) {
    State& state = _state;
    if (!staysBelow(asset.path ? asset.path : rememberedPath(state, asset))) {
        return;
    }
    if (!asset.isDownload) {
        state.expectOperation(asset.identifier, "SENT");
        state.tally.add(Event::upload);
        return;
    }
    state.expectOperation(asset.identifier, "DOWNLOADED");
    if (asset.isRestore && !state.coordinated() && asset.completedAssetParts != kQRAssetPartApplicationData &&
        state.world.backup.withRestoreData.contains(asset.identifier) && asset.version()) {
        state.waitingForData.insert(asset.identifier);
    }
}

void Calls::fail(std::size_t position, const ErrorPtr& error) {
    State& state = _state;
    Transfer& transfer = state.transfers[position];
    const QRAssetPtr asset = transfer.asset;
    const std::string& identifier = asset->identifier;
    transfer.ended = true;
    state.tally.add(Event::failedTransfer);
    inCall(state, "assetTransfer:failed", identifier, [&](Frame& frame) {
        forgetTransfer(state, frame, identifier);
        const bool cancelled = state.cancelled.erase(identifier) > 0;
        const bool removes = !isRecoverable(error) && isRegistered(state, identifier) && !asset->isRestore;
        const bool takesBack = removes && state.coordinated() && !cancelled;
        if (takesBack) {
            frame.mayBeUninstalled.insert(identifier);
        }
        state.client->assetTransfer_succeeded_withError(asset, false, error);
        state.demand(frame.count("coordinators.uninstallApp", identifier) == (takesBack ? 1U : 0U),
                     "a failed transfer is taken back once", "failure of " + identifier);
        state.demand(frame.count("registry.uninstallApplication", identifier) ==
                         (removes && !state.coordinated() ? 1U : 0U),
                     "a failed transfer's placeholder goes", "failure of " + identifier);
        if (takesBack) {
            state.world.coordinators.remove(identifier);
        }
    });
}

void Calls::cancel(std::string_view identifier) {
    State& state = _state;
    const auto coordinator = state.world.coordinators.find(identifier);
    if (!coordinator) {
        return;
    }
    const auto& service = state.world.deviceService;
    const bool isNew = state.cancelled.emplace(identifier).second;
    inCall(state, "coordinator:canceledWithReason", identifier, [&](Frame& frame) {
        state.client->coordinator_canceledWithReason_client(
            std::make_shared<AnyCoordinator>(state.world.context, coordinator), nullptr, KXClientSyncHost);
        const auto told = std::ranges::count_if(
            frame.done, [](const std::string& call) { return call.starts_with("host.cancelAssetTransfer"); });
        state.demand(told == (isNew && service.exists && service.canCancel ? 1 : 0),
                     "a cancellation reaches the host once", "cancellation of " + std::string(identifier));
    });
    state.tally.add(Event::cancellation);
}

void Calls::cancelRestores() {
    State& state = _state;
    PDApplicationProxies cancelled;
    for (const auto& application : state.world.registry.applications()) {
        if (application->placeholder && !state.isBusy(application->identifier) && state.chance.percent(40)) {
            cancelled.push_back(application);
            if (!state.coordinated() && application->type == PDInstallTypeRestore) {
                state.updating.erase(application->applicationIdentifier());
                state.cancelled.erase(application->applicationIdentifier());
                state.outstanding.erase(application->applicationIdentifier());
            }
        }
    }
    inCall(state, "applicationInstallsDidCancel", "restores",
           [&](Frame&) { state.client->applicationInstallsDidCancel(cancelled); });
    state.tally.add(Event::cancellation, cancelled.size());
}

void Calls::prioritise(std::string_view identifier) {
    State& state = _state;
    const auto coordinator = state.world.coordinators.find(identifier);
    if (!coordinator) {
        return;
    }
    inCall(state, "coordinatorShouldPrioritize", identifier, [&](Frame&) {
        state.client->coordinatorShouldPrioritize(std::make_shared<AnyCoordinator>(state.world.context, coordinator));
    });
    state.tally.add(Event::prioritisation);
}

void Calls::showPlaceholder(std::string_view identifier) {
    State& state = _state;
    const auto coordinator = state.world.coordinators.find(identifier);
    if (!coordinator || !coordinator->hasPlaceholderPromise) {
        return;
    }
    if (!state.world.registry.find(identifier, true)) {
        state.world.registry.addPlaceholder(std::string(identifier));
    }
    inCall(state, "coordinatorDidInstallPlaceholder", identifier, [&](Frame&) {
        state.client->coordinatorDidInstallPlaceholder(
            std::make_shared<AnyCoordinator>(state.world.context, coordinator));
    });
}

void Calls::completeACoordinator() {
    State& state = _state;
    for (const auto& coordinator : state.world.coordinators.all()) {
        const bool arrived = coordinator->assetPromise && coordinator->assetPromise->isComplete();
        const bool fetched = coordinator->responsibleClient == KXClientCorbin;
        const std::string& identifier = coordinator->identifier;
        if ((!arrived && !fetched) || coordinator->cancelled || state.isBusy(identifier)) {
            continue;
        }
        const bool succeeds = state.chance.percent(80);
        state.world.coordinators.remove(identifier);
        state.world.registry.remove(identifier, true);
        if (succeeds) {
            state.world.registry.remove(identifier, false);
            state.world.registry.addInstalled(identifier, "2.0");
            state.installed.insert(identifier);
        } else {
            coordinator->error = Error::make("Fatal", 4);
        }
        state.expectOperation(identifier, succeeds ? "INSTALLED" : "FAILED");
        state.waitingForData.erase(identifier);
        state.tally.add(succeeds ? Event::coordinatedDone : Event::coordinatedFailed);
        inCall(state, "coordinatorDidCompleteSuccessfully", identifier, [&](Frame&) {
            state.client->coordinatorDidCompleteSuccessfully(
                std::make_shared<AnyCoordinator>(state.world.context, coordinator));
        });
        return;
    }
}

void Calls::runAnInstall(std::size_t position) {
    State& state = _state;
    InstallStage& stage = InstallStage::instance();
    const auto label = std::exchange(stage.label, stage.labelOf(position));
    const std::string identifier = state.transfers[stage.label].asset->identifier;
    inCall(state, "install", identifier, [&](Frame&) { stage.run(position); });
    state.waitingForData.erase(identifier);
    stage.label = label;
}

void Calls::passTime() {
    InstallStage& stage = InstallStage::instance();
    stage.retrying = true;
    _state.world.clock.advance(std::chrono::seconds(30));
    stage.retrying = false;
}

void Calls::takeEveryLock() {
    State& state = _state;
    const auto nobody = std::make_shared<inmemory::CoordinatorState>();
    const auto coordinator = std::make_shared<AnyCoordinator>(state.world.context, nobody);
    inCall(state, "taking every lock", "nobody", [&](Frame&) {
        state.client->coordinatorDidCompleteSuccessfully(coordinator);
        state.client->coordinator_canceledWithReason_client(coordinator, nullptr, KXClientSyncHost);
        static_cast<void>(state.client->installedAssets());
        state.client->syncEndedWithSuccess(false);
    });
}

void Calls::letServicesAct() {
    State& state = _state;
    auto& world = state.world;
    for (const auto& coordinator : world.coordinators.all()) {
        if (coordinator->cancelled) {
            world.coordinators.remove(coordinator->identifier);
            world.registry.remove(coordinator->identifier, true);
        }
    }
    for (auto& completion : std::exchange(world.deviceService.completions, {})) {
        completion(nullptr);
    }
    auto uninstalls = std::exchange(world.coordinators.any.completions, {});
    for (std::size_t i = 0; i < uninstalls.size(); ++i) {
        const bool fails = state.chance.percent(20);
        const std::string identifier = state.uninstallsUnderWay[i];
        if (!fails) {
            world.coordinators.remove(identifier);
            world.registry.remove(identifier, true);
            world.registry.remove(identifier, false);
            state.installed.erase(identifier);
        }
        uninstalls[i](fails ? Error::make("Fatal", 5) : nullptr);
    }
    state.uninstallsUnderWay.clear();
}

} // namespace appsync::simulation
