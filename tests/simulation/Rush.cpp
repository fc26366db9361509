#include "tests/simulation/Rush.h"

#include "plugin/client/Paths.h"

#include <array>
#include <mutex>
#include <thread>

namespace appsync::simulation {

namespace {

using AnyCoordinator = inmemory::Coordinator<KXAppInstallCoordinator>;

constexpr std::size_t hosts = 3;

/// What has happened to one app.
struct Course {
    Chance chance; // what the services answer
    int arrivals = 0;
    int installs = 0;
    int failures = 0; // that no later sync gets past
    int recoverableFailures = 0;
};

class Rush {
  public:
    Rush(std::uint64_t seed, Tally& tally, bool records) : _state(seed, tally) {
        _state.world.journal.setRecording(records);
        _state.world.context.interceptor = [this](std::string_view call, std::string_view arguments) {
            return _intercept(call, arguments);
        };
    }

    Outcome live() {
        _furnish();
        _state.client = AppsClient::init(_state.world.platform());
        _state.client->reconcileSync_withNewAnchor_progressCallback_error(nullptr, "anchor", nullptr, nullptr);
        _assets = _state.client->outstandingAssetTransfers();
        const bool isCutShort = _state.chance.percent(25);
        _transferAll();
        if (!isCutShort) {
            _state.client->assetTransferEndedWithSuccess(true);
            _check(_assertions == 0, "the end of the transfers waits for every install", "the end");
            _checkCourses();
        }
        _state.client = nullptr; // perhaps in the midst of installs
        _isGone = true;
        _timeIsOver = true;
        _time.join();
        _check(_assertions == 0, "no lock is held at the end", "an assertion");
        _check(_state.world.registry.observers().empty(), "no lock is held at the end",
               "the client, still an observer");
        _state.tally.add(isCutShort ? Event::hostDeath : Event::sync);
        return {_state.violation, _state.world.journal.take()};
    }

  private:
    void _furnish() {
        Chance& chance = _state.chance;
        auto& world = _state.world;
        world.coordinators.any.enabled = chance.percent(50);
        world.registry.answersAtOnce = true;
        world.errors.recoverableDomains = {"Net"};
        Array list;
        for (std::size_t count = 2 + chance.below(12); count > 0; --count) {
            const std::string identifier = "com.example.app" + std::to_string(count);
            _state.identifiers.push_back(identifier);
            list.emplace_back(Dictionary{{"identifier", identifier}, {"operation", "install"}, {"version", "2.0"}});
            _courses.try_emplace(identifier, Course{Chance(chance.next())});
            if (chance.percent(40)) {
                world.registry.addInstalled(identifier);
            }
        }
        world.files.putPlist(paths::join(paths::stagingArea, "ApplicationsSync.plist"), list);
        _state.tally.add(world.coordinators.any.enabled ? Event::lifeWithCoordination : Event::lifeWithoutCoordination);
    }

    /// Every host's transfers are over afterwards, but perhaps not the installs.
    void _transferAll() {
        std::array<std::uint64_t, hosts> seeds{};
        std::ranges::generate(seeds, [this] { return _state.chance.next(); });
        Chance person(_state.chance.next());
        std::vector<std::thread> threads;
        for (std::size_t host = 0; host < hosts; ++host) {
            threads.emplace_back([this, host, chance = Chance(seeds[host])]() mutable {
                for (std::size_t i = host; i < _assets.size(); i += hosts) {
                    _transfer(*_assets[i], chance);
                }
            });
        }
        threads.emplace_back([this, person]() mutable { _actAsPerson(person); });
        _time = std::thread([this] {
            while (!_timeIsOver) {
                _state.world.clock.advance(std::chrono::seconds(30));
                std::this_thread::yield();
            }
        });
        for (std::thread& thread : threads) {
            thread.join();
        }
        if (_state.coordinated()) {
            _completeCoordinators();
        }
    }

    void _transfer(const QRAsset& planned, Chance& chance) {
        for (std::size_t reports = chance.below(4); reports > 0; --reports) {
            const auto asset = std::make_shared<QRAsset>(planned);
            asset->downloadProgress = static_cast<double>(chance.below(1001)) / 1000;
            _state.client->assetTransfer_updatedProgress(asset, asset->downloadProgress);
        }
        const std::size_t arrivals = chance.percent(15) ? 0 : chance.percent(15) ? 2 : 1;
        for (std::size_t i = 0; i < arrivals; ++i) {
            const auto asset = std::make_shared<QRAsset>(planned);
            asset->path = paths::join(paths::publicStaging, asset->identifier + std::to_string(i));
            {
                const std::lock_guard lock(_mutex);
                ++_courses.at(asset->identifier).arrivals;
            }
            _state.client->assetTransfer_succeeded_withError(asset, true, nullptr);
        }
        if (arrivals == 0) {
            _state.client->assetTransfer_succeeded_withError(std::make_shared<QRAsset>(planned), false,
                                                             Error::make("Net", 1));
        }
        const std::lock_guard lock(_mutex);
        _state.tally.add(Event::arrival, arrivals);
    }

    void _actAsPerson(Chance& chance) {
        for (std::size_t acts = 6; acts > 0; --acts) {
            const auto coordinator = _state.world.coordinators.find(chance.oneOf(_state.identifiers));
            const std::size_t kind = chance.below(4);
            if (coordinator && kind == 0) {
                _state.client->coordinator_canceledWithReason_client(
                    std::make_shared<AnyCoordinator>(_state.world.context, coordinator), nullptr, KXClientSyncHost);
            } else if (coordinator && kind == 1) {
                _state.client->coordinatorShouldPrioritize(
                    std::make_shared<AnyCoordinator>(_state.world.context, coordinator));
            } else if (kind == 2) {
                static_cast<void>(_state.client->installedAssets());
            } else {
                static_cast<void>(_state.client->installedAssetMetrics());
            }
        }
    }

    /// The coordinators of what has arrived end, half of them on another thread.
    void _completeCoordinators() {
        const auto complete = [this](std::size_t remainder) {
            for (std::size_t i = remainder; i < _state.identifiers.size(); i += 2) {
                const auto coordinator = _state.world.coordinators.find(_state.identifiers[i]);
                if (!coordinator || !coordinator->assetPromise || !coordinator->assetPromise->isComplete()) {
                    continue;
                }
                {
                    const std::lock_guard lock(_mutex);
                    ++_courses.at(coordinator->identifier).installs;
                    _state.tally.add(Event::coordinatedDone);
                }
                _state.client->coordinatorDidCompleteSuccessfully(
                    std::make_shared<AnyCoordinator>(_state.world.context, coordinator));
            }
        };
        std::thread other([&] { complete(1); });
        complete(0);
        other.join();
    }

    /// Calls that fail: the home screen's assertion, and the registry's install.
    ErrorPtr _intercept(std::string_view call, std::string_view arguments) {
        ++callCount;
        _check(!_isGone, "a client that has gone calls nobody", call);
        if (call == "screen.releaseAssertion") {
            --_assertions;
            return nullptr;
        }
        if (call == "notify.setState" && arguments.ends_with(", 0")) {
            _check(_assertions == 0, "the end of the transfers waits for every install", "the notice");
        }
        if (call != "screen.assertion" && call != "registry.installApplication") {
            return nullptr;
        }
        const std::lock_guard lock(_mutex);
        if (call == "screen.assertion") {
            ++_assertions;
            return _answer(std::string(arguments.substr(0, arguments.find(','))));
        }
        const auto begin = arguments.find("BXBundleIdentifier = ") + 21;
        return _install(std::string(arguments.substr(begin, arguments.find(';', begin) - begin)));
    }

    ErrorPtr _answer(const std::string& identifier) {
        Course& course = _courses.at(identifier);
        const std::size_t kind = course.chance.below(10);
        if (kind < 3) {
            _state.tally.add(Event::installDenied);
            return Error::make("screen", SKSTerminationAssertionDenied);
        }
        if (kind == 3) {
            _state.tally.add(Event::assertionUnknown);
            ++course.failures;
            return Error::make("screen", 9);
        }
        return nullptr;
    }

    ErrorPtr _install(const std::string& identifier) {
        Course& course = _courses.at(identifier);
        const std::size_t kind = course.chance.below(10);
        _state.tally.add(kind > 1 ? Event::installDone : Event::installFailed);
        ++(kind == 0 ? course.failures : kind == 1 ? course.recoverableFailures : course.installs);
        return kind > 1 ? nullptr : Error::make(kind == 0 ? "Fatal" : "Net", 7);
    }

    /// Each to-do record says what came of its app; with two arrivals, what came of one of them.
    void _checkCourses() {
        const auto list = _state.world.files.plistAt(paths::toDoList);
        _check(list && list->array() && list->array()->size() == _courses.size(), "the to-do list keeps its records",
               "the to-do list");
        for (const Value& record : list && list->array() ? *list->array() : Array{}) {
            const std::string identifier(record.dictionary()->string("identifier").value_or(""));
            const auto operation = record.dictionary()->string("operation");
            const Course& course = _courses.at(identifier);
            const bool holds = operation == "INSTALLED"    ? course.installs > 0
                               : operation == "FAILED"     ? course.failures > 0
                               : operation == "DOWNLOADED" ? course.arrivals > 0
                                                           : course.arrivals == 0;
            const bool isSettled =
                course.arrivals != 1 || operation != "DOWNLOADED" || course.installs + course.failures == 0;
            _check(holds && isSettled, "each asset ends in the state that its way leads to",
                   identifier + " ends as " + std::string(operation.value_or("nothing")));
        }
    }

    void _check(bool holds, std::string_view invariant, std::string_view where) {
        if (!holds) {
            const std::lock_guard lock(_violationMutex);
            _state.violated(std::string(invariant), std::string(where));
        }
    }

    State _state;
    std::vector<QRAssetPtr> _assets;
    std::mutex _mutex; // around the courses and the tally
    std::map<std::string, Course> _courses;
    std::mutex _violationMutex;
    std::atomic<int> _assertions = 0;
    std::atomic<bool> _isGone = false;
    std::atomic<bool> _timeIsOver = false;
    std::thread _time;
};

} // namespace

Outcome liveInARush(std::uint64_t seed, Tally& tally, bool records) {
    return Rush(seed, tally, records).live();
}

} // namespace appsync::simulation
