// What the install coordinator knows of one app's install. The engine's lock guards what can change.
#pragma once

#include "device/coordinator/Promise.h"
#include "platform/InstallCoordinator.h"

#include <atomic>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

namespace appsync::device {

/// Stands in the database; numbers stay as they are.
enum class CoordinatorKind { initiating = 1, updating = 2, restoring = 3, restoringDemoted = 4 };

[[nodiscard]] constexpr std::string_view nameOf(CoordinatorKind kind) noexcept {
    switch (kind) {
    case CoordinatorKind::initiating: return "initiating";
    case CoordinatorKind::updating: return "updating";
    case CoordinatorKind::restoring: return "restoring";
    case CoordinatorKind::restoringDemoted: return "restoring-demoted";
    }
    return "unknown";
}

[[nodiscard]] constexpr bool isRestoring(CoordinatorKind kind) noexcept {
    return kind == CoordinatorKind::restoring || kind == CoordinatorKind::restoringDemoted;
}

/// Install options in the form in which they are kept: property lists as bytes.
struct InstallOptionsRecord {
    std::uint32_t registryInstallType = 0;
    std::uint32_t installTargetType = 0;
    std::optional<Data> metadata;
    std::optional<Data> sinf;
};

struct CoordinatorState;

/// What a client says of a placeholder, until it is configured.
struct PlaceholderFacts {
    std::optional<Dictionary> infoPlist;
    bool launchProhibited = false;
    std::optional<std::string> bundleVersion;
    std::optional<Data> metadata;
    std::optional<Data> sinf;
    PromisePtr icon;
    bool isConfigured = false;
};

struct PlaceholderState {
    // Set when it is made.
    std::string bundleName;
    std::string bundleID;
    std::uint64_t installType = 0;

    PlaceholderFacts facts;
    bool isCancelled = false;
    bool isAttached = false;
    std::weak_ptr<CoordinatorState> owner; // that it is attached to
};
using PlaceholderPtr = std::shared_ptr<PlaceholderState>;

/// How far a coordinator's end has come. Stands in the database; numbers stay as they are.
enum class CoordinatorEnd {
    open = 0,
    clearing = 1,  // the outcome is fixed; placeholder and files are being cleared away
    reporting = 2, // everything is cleared away; somebody is to be told of it
};

/// What one row says of a coordinator.
struct CoordinatorFacts {
    std::optional<InstallOptionsRecord> options;
    bool hasODRPromises = false;
    KXClientIdentifier responsibleClient = 0; // that is to satisfy the asset promise; 0: none named
    bool isPlaceholderInstalled = false;
    CoordinatorEnd end = CoordinatorEnd::open;
    ErrorPtr error;                                // the outcome; null: a success
    std::optional<KXClientIdentifier> cancelledBy; // of a cancel

    [[nodiscard]] bool hasOutcome() const noexcept { return end != CoordinatorEnd::open; }
};

struct CoordinatorState {
    // Set when it is made.
    std::int64_t id = 0; // its row
    std::string bundleID;
    CoordinatorKind kind = CoordinatorKind::initiating;
    KXClientIdentifier creator = 0;

    // Durable.
    CoordinatorFacts facts;
    PromisePtr asset;
    PromisePtr userData;
    PlaceholderPtr placeholder;

    // Of this process.
    enum class Work { none, queued, running };
    Work work = Work::none;
    bool hasEnded = false;                             // everything is cleared away
    ErrorPtr cancelReason;                             // while a running step is to be stopped
    std::optional<KXClientIdentifier> cancelRequester; // likewise
    std::stop_source stop;                             // of the running install
    std::atomic<KXAppInstallObserverDelegate*> observer = nullptr;
};
using CoordinatorStatePtr = std::shared_ptr<CoordinatorState>;

} // namespace appsync::device
