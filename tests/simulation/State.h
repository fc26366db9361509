// What a life knows: the device and host in memory, and what the plug-in must have in its memory and files.
#pragma once

#include "plugin/client/AppsClient.h"
#include "tests/inmemory/World.h"
#include "tests/simulation/Chance.h"
#include "tests/simulation/Tally.h"

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::simulation {

/// What did not hold, and where.
struct Violation {
    std::string invariant;
    std::string where;
};

/// One call into the plug-in, or one run of its install queue, with what the plug-in did in it.
struct Frame {
    std::string name;
    std::string identifier;                 // of the app that it is about, "" for none
    std::multiset<std::string> done;        // "call identifier"
    std::multiset<std::string> loose;       // promises and placeholders that are nobody's yet
    std::set<std::string> mayBeUninstalled; // all that this call may take away
    int iconOrders = 0;                     // buffers of the icon order that have not been given back
    bool installFailedForGood = false;
    bool listUnread = false; // the first file that the call read, or its first property list, could not be had
    int filesRead = 0;
    int listsParsed = 0;

    [[nodiscard]] std::size_t count(std::string_view call, std::string_view about) const {
        return done.count(std::string(call).append(" ").append(about));
    }
};

/// One asset that the host is to fetch.
struct Transfer {
    QRAssetPtr asset;
    std::string archive; // the path at which it arrives
    bool ended = false;
};

struct State {
    State(std::uint64_t theSeed, Tally& theTally) : seed(theSeed), chance(theSeed), tally(theTally) {}

    const std::uint64_t seed;
    Chance chance;
    Tally& tally;
    inmemory::World world;
    std::unique_ptr<AppsClient> client;
    std::vector<std::string> identifiers; // the apps of this life
    std::deque<Transfer> transfers;       // those of the present sync; the label of an install is its position
    bool transferPhase = false;
    bool dead = false; // the host has died, and the call that it was in is to end without effect

    // What the plug-in must remember.
    std::set<std::string, std::less<>> outstanding;
    std::set<std::string, std::less<>> updating;
    std::set<std::string, std::less<>> cancelled;
    // What its files must hold, unless a failure got in the way of changing them.
    std::optional<Array> toDoList;
    std::set<std::string, std::less<>> waitingForData;
    bool filesDisturbed = false;
    // What the device must have.
    std::set<std::string, std::less<>> installed;
    std::set<std::string, std::less<>> outOfRange; // apps of which the host reported a progress outside [0, 1]
    std::map<std::string, int, std::less<>> assertions;
    std::size_t attempts = 0;                    // installs since the end of the last transfers
    std::vector<std::string> uninstallsUnderWay; // in the coordinator's hands

    std::vector<Frame*> frames; // the innermost last
    std::optional<Violation> violation;

    /// Notes the first violation.
    void violated(std::string invariant, std::string where) {
        if (!violation && !dead) {
            violation = Violation{std::move(invariant), std::move(where)};
        }
    }
    /// Notes a violation unless it holds, with the innermost call.
    void demand(bool holds, std::string_view invariant, std::string_view what) {
        if (!holds) {
            violated(
                std::string(invariant),
                std::string(what) +
                    (frames.empty() ? "" : " in " + frames.back()->name + " of \"" + frames.back()->identifier + "\""));
        }
    }
    /// Whether a call about the app is under way.
    [[nodiscard]] bool isBusy(std::string_view identifier) const {
        return std::ranges::any_of(frames, [&](const Frame* frame) { return frame->identifier == identifier; });
    }
    [[nodiscard]] bool isWithin(std::string_view name) const {
        return std::ranges::any_of(frames, [&](const Frame* frame) { return frame->name == name; });
    }
    /// The operation that the app's first to-do record must have from now on.
    void expectOperation(std::string_view identifier, std::string_view operation) {
        for (Value& record : toDoList ? *toDoList : _none) {
            Dictionary* fields = record.mutableDictionary();
            if (fields && fields->string("identifier") == identifier) {
                fields->set("operation", operation);
                return;
            }
        }
    }
    [[nodiscard]] bool coordinated() const { return world.coordinators.any.enabled; }

  private:
    Array _none;
};

} // namespace appsync::simulation
