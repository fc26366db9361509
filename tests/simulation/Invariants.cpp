#include "tests/simulation/Invariants.h"

#include "plugin/client/Paths.h"
#include "tests/simulation/InstallStage.h"

#include <array>
#include <cstdlib>
#include <unordered_map>

namespace appsync::simulation {

namespace {

/// The arguments up to the first comma.
std::string_view first(std::string_view arguments) {
    return arguments.substr(0, arguments.find(','));
}

/// The arguments behind the first comma.
std::string_view rest(std::string_view arguments) {
    const auto comma = arguments.find(", ");
    return comma == std::string_view::npos ? "" : arguments.substr(comma + 2);
}

std::string_view between(std::string_view text, std::string_view begin, char end) {
    const auto from = text.find(begin);
    if (from == std::string_view::npos) {
        return "";
    }
    text.remove_prefix(from + begin.size());
    return text.substr(0, text.find(end));
}

using Watch = void (*)(State&, Frame&, std::string_view arguments, const ErrorPtr& fault);

// Whatever is made is attached or cancelled before the call ends.

template <const char* kind> void made(State&, Frame& frame, std::string_view name, const ErrorPtr& fault) {
    if (!fault) {
        frame.loose.insert(std::string(kind).append(name));
    }
}
constexpr char promiseBegin[] = "<promise ";
constexpr char placeholderBegin[] = "<placeholder ";

void settled(Frame& frame, const std::string& what) {
    if (const auto found = frame.loose.find(what); found != frame.loose.end()) {
        frame.loose.erase(found);
    }
}

void attached(State&, Frame& frame, std::string_view arguments, const ErrorPtr& fault) {
    if (!fault) {
        std::string object(rest(arguments));
        object.pop_back(); // ">"
        settled(frame, object);
    }
}

void transferPromiseMade(State& state, Frame& frame, std::string_view arguments, const ErrorPtr& fault) {
    made<promiseBegin>(state, frame, first(arguments), fault);
}

void placeholderMade(State& state, Frame& frame, std::string_view arguments, const ErrorPtr& fault) {
    made<placeholderBegin>(state, frame, first(rest(arguments)), fault);
}

void promiseCancelled(State&, Frame& frame, std::string_view arguments, const ErrorPtr&) {
    settled(frame, promiseBegin + std::string(first(arguments)));
}

void placeholderCancelled(State&, Frame& frame, std::string_view arguments, const ErrorPtr&) {
    settled(frame, placeholderBegin + std::string(first(arguments)));
}

// Progress stays in [0, 1] unless the host reported it so.

void promiseProgressed(State& state, Frame&, std::string_view arguments, const ErrorPtr&) {
    const double fraction = std::strtod(std::string(rest(arguments)).c_str(), nullptr);
    const std::string_view identifier = first(arguments).substr(0, first(arguments).rfind('-'));
    state.demand((fraction >= 0 && fraction <= 1) || state.outOfRange.contains(identifier),
                 "progress stays between 0 and 1", "progress of a promise: " + std::string(arguments));
}

void progressed(State& state, Frame&, std::string_view arguments, const ErrorPtr&) {
    const long units = std::strtol(std::string(rest(arguments)).c_str(), nullptr, 10);
    state.demand((units >= 0 && units <= 1000) || state.outOfRange.contains(first(arguments)),
                 "progress stays between 0 and 1", "progress in the registry: " + std::string(arguments));
}

// An app is held off the home screen only while it is installed.

void assertionAsked(State& state, Frame&, std::string_view arguments, const ErrorPtr& answer) {
    if (!answer || answer->code() != SKSTerminationAssertionNotFound) {
        ++state.assertions[std::string(first(arguments))];
    }
    if (answer && answer->code() == SKSTerminationAssertionDenied) {
        state.tally.add(Event::installDenied);
        ++InstallStage::instance().unscheduled;
    }
}

void assertionReleased(State& state, Frame&, std::string_view identifier, const ErrorPtr&) {
    state.demand(--state.assertions[std::string(identifier)] >= 0, "an assertion is held once",
                 "release of the assertion of " + std::string(identifier));
}

// What is installed is lost only when somebody wants it gone.

void failedForGood(State& state, Frame& frame, std::string_view identifier) {
    frame.installFailedForGood = true;
    frame.mayBeUninstalled.emplace(identifier);
    state.expectOperation(identifier, "FAILED");
}

void installing(State& state, Frame& frame, std::string_view arguments, const ErrorPtr& fault) {
    const std::string identifier(between(arguments, "BXBundleIdentifier = ", ';'));
    const bool isRestore = state.transfers[InstallStage::instance().label].asset->isRestore;
    ++state.attempts;
    state.demand(frame.count("screen.assertion", identifier) > 0, "an app is held off while it is installed",
                 "install of " + identifier);
    if (!fault) {
        state.tally.add(Event::installDone);
        state.installed.insert(identifier);
        state.expectOperation(identifier, "INSTALLED");
        return;
    }
    state.tally.add(Event::installFailed);
    if (!isRecoverable(fault) && !isRestore) {
        failedForGood(state, frame, identifier);
    }
}

void uninstalling(State& state, Frame& frame, std::string_view arguments, const ErrorPtr& fault) {
    const std::string identifier(first(arguments));
    const bool placeholderOnly = rest(arguments) != "no options";
    state.demand(placeholderOnly || frame.mayBeUninstalled.contains(identifier), "nothing that is installed is lost",
                 "uninstall of " + identifier + ", which nobody asked for,");
    if (!fault && !placeholderOnly && !state.world.registry.find(identifier, true)) {
        // Undoing a failed install takes the app itself when no placeholder stands before it, as after a second
        // arrival.
        const bool isLost = state.installed.erase(identifier) > 0 && frame.installFailedForGood;
        state.tally.add(Event::appLostToUndoing, isLost ? 1 : 0);
    }
}

void uninstallingLater(State& state, Frame& frame, std::string_view arguments, const ErrorPtr&) {
    const std::string identifier(first(arguments));
    state.demand(frame.mayBeUninstalled.contains(identifier), "nothing that is installed is lost",
                 "uninstall of " + identifier + ", which nobody asked for,");
    state.installed.erase(identifier);
}

void takingInstallBack(State& state, Frame& frame, std::string_view identifier, const ErrorPtr&) {
    state.demand(frame.mayBeUninstalled.contains(std::string(identifier)), "nothing that is installed is lost",
                 "the install of " + std::string(identifier) + ", which is under way, being taken back");
}

// Others.

void updateLookedUp(State& state, Frame& frame, std::string_view arguments, const ErrorPtr& fault) {
    const std::string identifier(first(arguments));
    if (arguments.ends_with("create 1")) {
        if (!fault) {
            frame.done.insert("updating " + identifier);
        }
        return;
    }
    state.demand(state.updating.contains(identifier) || frame.count("updating", identifier) > 0,
                 "an app is an update for as long as its transfer lasts", "updating " + identifier);
}

void initiationLookedUp(State& state, Frame& frame, std::string_view arguments, const ErrorPtr&) {
    if (arguments.ends_with("create 0")) {
        const bool update = state.updating.contains(first(arguments)) || frame.count("updating", first(arguments)) > 0;
        state.demand(!update, "an app is an update for as long as its transfer lasts",
                     "initiating " + std::string(first(arguments)));
    }
}

void stepLogged(State&, Frame& frame, std::string_view arguments, const ErrorPtr&) {
    // "1, party 1, phase 2, success 0, ID, "Install app""
    const auto begin = arguments.find("success ");
    const std::string identifier(first(arguments.substr(begin + 11)));
    const std::string outcome = arguments.find("phase 1") != std::string_view::npos ? "started"
                                : arguments[begin + 8] == '1'                       ? "prepared"
                                                                                    : "refused";
    if (arguments.starts_with("1,") || arguments.starts_with("2,")) {
        frame.done.insert(std::string(arguments.starts_with("1,") ? "install " : "restore ") + outcome + " " +
                          identifier);
    }
}

void scenarioLogged(State& state, Frame& frame, std::string_view arguments, const ErrorPtr&) {
    // ""Asset install", step 0, success 0, ID, "unknown error grabbing assertion""
    const std::string identifier(first(arguments.substr(arguments.find("success ") + 11)));
    frame.done.insert(std::string(between(arguments, "\"", '"')) + " " + identifier);
    if (arguments.ends_with("\"unknown error grabbing assertion\"")) {
        state.tally.add(Event::assertionUnknown);
        const auto& running = state.transfers[InstallStage::instance().label];
        if (!running.asset->isRestore) {
            failedForGood(state, frame, identifier);
        }
    }
}

void iconOrderAsked(State& state, Frame& frame, std::string_view, const ErrorPtr&) {
    frame.iconOrders += state.world.screen.iconOrder ? 1 : 0;
}

void iconOrderGivenBack(State& state, Frame& frame, std::string_view arguments, const ErrorPtr&) {
    state.demand(arguments.empty() && --frame.iconOrders == 0, "each buffer of the home screen is given back once",
                 "giving it back");
}

const std::unordered_map<std::string_view, Watch> watches = {
    {"promises.transfer", transferPromiseMade},       {"promises.outOfBand", transferPromiseMade},
    {"placeholders.init", placeholderMade},           {"coordinator.setAppAssetPromise", attached},
    {"coordinator.setUserDataPromise", attached},     {"coordinator.setPlaceholderPromise", attached},
    {"placeholder.setIconPromise", attached},         {"promise.cancel", promiseCancelled},
    {"placeholder.cancel", placeholderCancelled},     {"promise.setPercentComplete", promiseProgressed},
    {"progress.setCompletedUnitCount", progressed},   {"screen.assertion", assertionAsked},
    {"screen.releaseAssertion", assertionReleased},   {"registry.installApplication", installing},
    {"registry.uninstallApplication", uninstalling},  {"coordinators.uninstallAppLater", uninstallingLater},
    {"coordinators.uninstallApp", takingInstallBack}, {"coordinators.updating", updateLookedUp},
    {"coordinators.initiating", initiationLookedUp},  {"transactions.logStep", stepLogged},
    {"transactions.logScenario", scenarioLogged},     {"screen.SKGetFlattenedIconState", iconOrderAsked},
    {"screen.SKDeallocate", iconOrderGivenBack},
};

/// Calls that are counted by the app that they are about.
constexpr std::array<std::string_view, 10> countedCalls = {"screen.assertion",
                                                           "registry.uninstallApplication",
                                                           "coordinators.uninstallAppLater",
                                                           "coordinators.uninstallApp",
                                                           "registry.applicationProxyForIdentifier",
                                                           "coordinators.any",
                                                           "coordinator.cancel",
                                                           "registry.installPlaceholder",
                                                           "host.cancelAssetTransferForFailedAsset",
                                                           "store.refreshReceipts"};

bool isWorkFile(std::string_view call, std::string_view arguments) {
    return call.starts_with("plist.") || (call.starts_with("files.") && arguments.starts_with(paths::applicationSync));
}

/// Whether "/.." stands in it. A name that begins with two dots is one as any other, also behind a folder of the
/// plug-in's.
bool leadsUp(std::string_view arguments) {
    constexpr std::string_view nameWithDots = "..two";
    for (auto at = arguments.find("/.."); at != std::string_view::npos; at = arguments.find("/..", at + 1)) {
        if (!arguments.substr(at + 1).starts_with(nameWithDots)) {
            return true;
        }
    }
    return false;
}

std::string shown(const std::optional<Value>& value) {
    return value ? value->description() : "nothing";
}

} // namespace

void watch(State& state, std::string_view call, std::string_view arguments, const ErrorPtr& fault) {
    if (state.frames.empty()) {
        return; // the client is being made or torn down
    }
    Frame& frame = *state.frames.back();
    if (fault && isWorkFile(call, arguments)) {
        state.filesDisturbed = true;
    }
    frame.listUnread |= fault && ((call == "files.readFile" && frame.filesRead == 0) ||
                                  (call == "plist.parse" && frame.listsParsed == 0));
    frame.filesRead += call == "files.readFile" ? 1 : 0;
    frame.listsParsed += call == "plist.parse" ? 1 : 0;
    state.demand(!leadsUp(arguments), "nothing under a path with \"/..\" is touched",
                 std::string(call) + "(" + std::string(arguments) + ")");
    if (std::ranges::find(countedCalls, call) != countedCalls.end()) {
        frame.done.insert(std::string(call).append(" ").append(first(arguments)));
    }
    if (const auto found = watches.find(call); found != watches.end()) {
        found->second(state, frame, arguments, fault);
    }
}

void checkAfterCall(State& state, const Frame& frame) {
    state.demand(frame.loose.empty(), "what is made is attached or cancelled",
                 frame.loose.empty() ? "" : *frame.loose.begin() + "> left alone");
    state.demand(frame.iconOrders == 0, "each buffer of the home screen is given back once", "the icon order's buffer");
    for (const std::string& identifier : frame.mayBeUninstalled) {
        if (frame.installFailedForGood) {
            state.demand(frame.count("registry.uninstallApplication", identifier) == 1, "a failed install is undone",
                         "install of " + identifier);
            state.tally.add(Event::undoneInstall);
        }
    }
}

void checkAtRest(State& state) {
    const auto& world = state.world;
    for (const auto& [identifier, count] : state.assertions) {
        state.demand(count == 0, "no lock is held at the end", "the assertion of " + identifier);
    }
    if (state.client) {
        state.demand(world.registry.observers().size() == 1, "no lock is held at the end",
                     "an observer of the registry");
    }
    for (const std::string& identifier : state.installed) {
        state.demand(world.registry.find(identifier, false) != nullptr, "nothing that is installed is lost",
                     identifier);
    }
    std::set<std::pair<std::string, bool>> registered;
    for (const auto& application : world.registry.applications()) {
        state.demand(registered.emplace(application->identifier, application->placeholder).second,
                     "an app has one state", application->identifier + ", which is there twice");
    }
    if (state.filesDisturbed) {
        return;
    }
    const auto list = world.files.plistAt(paths::toDoList);
    if (state.toDoList) {
        state.demand(list == Value(*state.toDoList), "each asset ends in the state that its way leads to",
                     "the to-do list is " + shown(list) + ", not " + Value(*state.toDoList).description());
    }
    std::set<std::string, std::less<>> remembered;
    const auto restoreState = world.files.plistAt(paths::restoreState);
    for (const auto& [identifier, versions] : restoreState ? *restoreState->dictionary() : Dictionary{}) {
        remembered.emplace(identifier.view());
    }
    state.demand(remembered == state.waitingForData, "the restore state holds the apps that wait for their data",
                 "restore state " + shown(restoreState));
}

void checkAfterTheEnd(State& state) {
    state.demand(state.world.registry.observers().empty(), "no lock is held at the end",
                 "the client, still an observer");
    for (const auto& [identifier, count] : state.assertions) {
        state.demand(count == 0, "no lock is held at the end",
                     "the assertion of " + identifier + ", by a client that has gone");
    }
}

bool isRecoverable(const ErrorPtr& error) {
    return error && error->domain() == "Net";
}

} // namespace appsync::simulation
