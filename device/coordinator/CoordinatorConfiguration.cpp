// How a coordinator and its placeholder are configured: every change is checked, written down, and may lead to work.
#include "device/coordinator/InstallCoordinator.h"

namespace appsync::device {

namespace {

ErrorPtr alreadySet(const CoordinatorState& state, std::string_view what) {
    return makeCoordinatorError(CoordinatorError::alreadySet,
                                "the coordinator for " + state.bundleID + " has " + std::string(what) + " already");
}

ErrorPtr foreign(const CoordinatorState& state, std::string_view what) {
    return makeCoordinatorError(CoordinatorError::invalidArgument, "the " + std::string(what) + " for " +
                                                                       state.bundleID +
                                                                       " is null or was not made by this device");
}

ErrorPtr endedPlaceholder(const PlaceholderState& placeholder) {
    return makeCoordinatorError(CoordinatorError::ended, "the placeholder for " + placeholder.bundleID +
                                                             " has been configured or cancelled already");
}

} // namespace

Result<void> InstallCoordinator::_checkOpen(const CoordinatorState& state) const {
    if (!state.facts.hasOutcome() && !state.cancelRequester) {
        return {};
    }
    return makeCoordinatorError(CoordinatorError::ended, "the coordinator for " + state.bundleID + " has ended");
}

Result<void> InstallCoordinator::change(const CoordinatorStatePtr& state,
                                        const std::function<Result<void>(CoordinatorFacts&)>& change) {
    const StatesLock lock(_mutex);
    if (auto open = _checkOpen(*state); !open) {
        return open;
    }
    CoordinatorFacts before = state->facts;
    auto changed = change(state->facts);
    if (changed) {
        changed = _store.update(*state);
    }
    if (!changed) {
        state->facts = std::move(before);
        return changed;
    }
    _advance(state);
    return {};
}

Result<void> InstallCoordinator::attachPromise(const CoordinatorStatePtr& state, const PromisePtr& promise,
                                               PromiseRole role) {
    if (!promise) {
        return foreign(*state, "promise");
    }
    const StatesLock lock(_mutex);
    if (auto open = _checkOpen(*state); !open) {
        return open;
    }
    const bool isAsset = role == PromiseRole::appAsset;
    PromisePtr& attached = isAsset ? state->asset : state->userData;
    if (attached) {
        return alreadySet(*state, isAsset ? "an app asset promise" : "a user data promise");
    }
    if (!promise->take(role)) {
        return makeCoordinatorError(CoordinatorError::alreadySet,
                                    "the promise " + promise->name() + " is in use already, or was cancelled");
    }
    promise->setOwner(state);
    if (auto written = _store.updatePromise(*state, *promise); !written) {
        promise->release();
        return written;
    }
    attached = promise;
    _advance(state);
    return {};
}

Result<void> InstallCoordinator::attachPlaceholder(const CoordinatorStatePtr& state,
                                                   const PlaceholderPtr& placeholder) {
    if (!placeholder) {
        return foreign(*state, "placeholder");
    }
    const StatesLock lock(_mutex);
    if (auto open = _checkOpen(*state); !open) {
        return open;
    }
    if (state->placeholder) {
        return alreadySet(*state, "a placeholder promise");
    }
    if (placeholder->bundleID != state->bundleID) {
        return makeCoordinatorError(CoordinatorError::invalidArgument, "the coordinator for " + state->bundleID +
                                                                           " was given the placeholder of " +
                                                                           placeholder->bundleID);
    }
    if (placeholder->isCancelled || placeholder->isAttached ||
        (placeholder->facts.icon && placeholder->facts.icon->isCancelled())) {
        return makeCoordinatorError(CoordinatorError::alreadySet,
                                    "the placeholder for " + state->bundleID + " is in use already, or was cancelled");
    }
    state->placeholder = placeholder;
    if (auto written = _store.updatePlaceholder(*state); !written) {
        state->placeholder = nullptr;
        return written;
    }
    placeholder->isAttached = true;
    placeholder->owner = state;
    if (placeholder->facts.icon) {
        placeholder->facts.icon->setOwner(state);
    }
    _advance(state);
    return {};
}

Result<void> InstallCoordinator::changePlaceholder(const PlaceholderPtr& placeholder,
                                                   const std::function<Result<void>(PlaceholderFacts&)>& change) {
    const StatesLock lock(_mutex);
    const auto owner = placeholder->owner.lock();
    if (placeholder->facts.isConfigured || placeholder->isCancelled || (owner && !_checkOpen(*owner))) {
        return endedPlaceholder(*placeholder);
    }
    PlaceholderFacts& facts = placeholder->facts;
    PlaceholderFacts before = facts;
    auto changed = change(facts);
    if (changed && owner) {
        changed = _store.updatePlaceholder(*owner);
    }
    if (!changed) {
        if (facts.icon && facts.icon != before.icon) {
            facts.icon->release();
        }
        facts = std::move(before);
        return changed;
    }
    if (owner) {
        if (facts.icon) {
            facts.icon->setOwner(owner);
        }
        _advance(owner);
    }
    return {};
}

Result<std::optional<Data>> InstallCoordinator::metadataBytes(const std::optional<TVStoreMetadata>& metadata) {
    if (!metadata) {
        return std::optional<Data>();
    }
    auto bytes = _store.serialize(metadata->dictionary);
    if (!bytes) {
        return bytes.error();
    }
    return std::optional<Data>(std::move(*bytes));
}

PromisePtr InstallCoordinator::makePromise(std::string_view name, KXClientIdentifier client, std::uint64_t diskSpace,
                                           std::optional<std::string> path) {
    PromiseRecord record;
    record.id = ++_lastPromise;
    record.name = name;
    record.client = client;
    record.diskSpaceNeeded = diskSpace;
    record.path = std::move(path);
    return std::make_shared<Promise>(std::move(record));
}

void InstallCoordinator::setFraction(Promise& promise, double fraction) {
    const bool isFirst = promise.setFraction(fraction);
    const auto owner = promise.owner();
    const PromiseRecord record = promise.record();
    if (!owner || record.role != PromiseRole::appAsset) {
        return;
    }
    _showTransfer(*owner, promise.fraction());
    if (isFirst) {
        _report(owner, [number = record.id](KXAppInstallObserverDelegate& delegate) {
            delegate.promiseDidBeginFulfillmentWithIdentifier(number);
        });
    }
}

void InstallCoordinator::complete(Promise& promise) {
    if (!promise.complete()) {
        return;
    }
    const auto owner = promise.owner();
    if (!owner) {
        return; // written when it is attached
    }
    const StatesLock lock(_mutex);
    if (_checkOpen(*owner)) {
        // Without it a restart would wait for the file again.
        _passOver(*owner, _store.updatePromise(*owner, promise));
        _advance(owner);
    }
}

Result<void> InstallCoordinator::cancel(const PlaceholderPtr& placeholder, const ErrorPtr& reason,
                                        KXClientIdentifier client) {
    CoordinatorStatePtr owner;
    PromisePtr icon;
    {
        const StatesLock lock(_mutex);
        owner = placeholder->owner.lock();
        if (placeholder->isCancelled || (placeholder->isAttached && !owner)) {
            return endedPlaceholder(*placeholder);
        }
        placeholder->isCancelled = !owner;
        icon = placeholder->facts.icon;
    }
    if (owner) {
        return cancel(owner, reason, client);
    }
    _removeIcon(icon);
    return {};
}

Result<void> InstallCoordinator::cancel(Promise& promise, const ErrorPtr& reason, KXClientIdentifier client) {
    CoordinatorStatePtr owner;
    {
        // In one step, so that the promise is not attached in between.
        const StatesLock lock(_mutex);
        owner = promise.owner();
        if (!owner && promise.cancel()) {
            return {};
        }
    }
    return owner ? cancel(owner, reason, client)
                 : makeCoordinatorError(CoordinatorError::ended,
                                        "the promise " + promise.name() + " was cancelled already");
}

} // namespace appsync::device
