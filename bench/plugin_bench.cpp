// The plug-in's own time against services in memory: planning a sync of many apps, restoring many apps. And with a real
// device: one change of the to-do list, and the host's queries about many apps.
#include "device/Device.h"
#include "platform/PropertyListSerialization.h"
#include "platform/host/Asset.h"
#include "plugin/client/AppsClient.h"
#include "plugin/client/Paths.h"
#include "propertylist/Codec.h"
#include "propertylist/ListMemory.h"
#include "tests/inmemory/World.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace appsync {
namespace {

Array toDoList(std::int64_t records) {
    Array list;
    for (std::int64_t i = 0; i < records; ++i) {
        const std::string number = std::to_string(i);
        list.emplace_back(Dictionary{{"identifier", "com.example.vendor" + std::to_string(i % 100) + ".app" + number},
                                     {"operation", "install"},
                                     {"version", "1.0." + std::to_string(i % 20)},
                                     {"name", "Application " + number},
                                     {"size", 1'000'000 + i}});
    }
    return list;
}

/// At most 250 ms for 5,000 records.
void planning(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        {
            inmemory::World world;
            world.coordinators.any.enabled = state.range(1) != 0;
            world.files.putPlist(paths::toDoList, toDoList(state.range(0)));
            world.files.putFolder(paths::applicationSync);
            const auto client = AppsClient::init(world.platform());
            world.log.enabled = false;
            // The query waits for this message, which nobody writes when the log is off.
            world.journal.add("log: Waiting for -applicationInstallsArePrioritized:arePaused: to complete...");
            state.ResumeTiming();
            benchmark::DoNotOptimize(client->outstandingAssetTransfers());
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    state.counters["records"] = static_cast<double>(state.range(0));
}
BENCHMARK(planning)
    ->ArgNames({"records", "coordinated"})
    ->Args({500, 1})
    ->Args({5000, 1})
    ->Args({5000, 0})
    ->Unit(benchmark::kMillisecond);

/// Store metadata of some 4 KB.
Data restoredMetadata() {
    Dictionary metadata{{"title", "Application"}, {"bundleVersion", "1.0.1"}, {"launchProhibited", false}};
    for (int i = 0; i < 60; ++i) {
        metadata.set("key " + std::to_string(i), std::to_string(i) + std::string(56, 'v'));
    }
    return *PropertyListCodec().dataWithPropertyList(metadata, PropertyListFormat::binary, nullptr);
}

/// At most 1 ms for one app with an icon of 10 KB.
void restoring(benchmark::State& state) {
    const Data metadata = restoredMetadata();
    const Data sinf(std::string(1000, 's'));
    const Data icon(std::string(10'000, 'i'));
    for (auto _ : state) {
        state.PauseTiming();
        {
            inmemory::World world;
            const auto client = AppsClient::init(world.platform());
            world.log.enabled = false;
            state.ResumeTiming();
            for (std::int64_t i = 0; i < state.range(0); ++i) {
                client->prepareAppForRestoreUsingCoordination_TamblinMetadata_sinfData_iconData_demotionStatus(
                    "com.example.app" + std::to_string(i), metadata, sinf, icon,
                    static_cast<std::uint64_t>(state.range(1)));
            }
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    state.counters["bytes of metadata"] = static_cast<double>(metadata.size());
    state.counters["per app"] = benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(restoring)->ArgNames({"apps", "demotion"})->Args({2000, 0})->Args({2000, 1})->Unit(benchmark::kMillisecond);

/// At most 5 ms for 10,000 records: read, parse, change, serialise, durable write to a real device.
void changeOneRecord(benchmark::State& state) {
    std::string pattern = (std::filesystem::current_path() / "change.XXXXXX").string();
    const std::filesystem::path folder = mkdtemp(pattern.data());
    {
        const auto device = device::Device::create((folder / "device").string(), {});
        inmemory::World world; // only for the two services that are the host's
        device::Device& opened = **device;
        const Array list = toDoList(state.range(0));
        opened.files().createDirectory(paths::workArea, true, std::nullopt, nullptr);
        const auto bytes = opened.propertyLists().dataWithPropertyList(list, PropertyListFormat::binary, nullptr);
        opened.files().writeFileAtomically(paths::toDoList, bytes->bytes(), nullptr);
        const auto client = AppsClient::init(opened.platform(world.deviceService, world.errors));
        const std::string last(*list.back().dictionary()->string("identifier"));
        bool done = false;
        for (auto _ : state) {
            client->changeAssetID_toDo(last, done ? "DOWNLOADED" : "INSTALLED");
            done = !done;
        }
        state.counters["bytes"] = static_cast<double>(bytes->size());
    }
    std::filesystem::remove_all(folder);
}
BENCHMARK(changeOneRecord)->ArgName("records")->Arg(100)->Arg(1000)->Arg(10'000)->Unit(benchmark::kMillisecond);

/// A device of many apps, none of them needing a change before a backup, and a client on it.
class DeviceOfManyApps {
  public:
    explicit DeviceOfManyApps(std::int64_t count) {
        std::string pattern = (std::filesystem::current_path() / "apps.XXXXXX").string();
        _folder = mkdtemp(pattern.data());
        _device = std::move(*device::Device::create((_folder / "device").string(), {}));
        for (std::int64_t i = 0; i < count; ++i) {
            device::PlaceholderRequest request;
            request.identifier = identifierOf(i);
            request.info = {{"BXBundleDisplayName", "App"}, {"BXBundleVersion", "1.0"}};
            request.metadata = bytes(metadataOf(i), PropertyListFormat::xml);
            static_cast<void>(_device->registry().installPlaceholder(request));
        }
        _putLists(count);
        _client = AppsClient::init(_device->platform(_world.deviceService, _world.errors));
    }
    ~DeviceOfManyApps() {
        _client = nullptr;
        _device = nullptr;
        std::filesystem::remove_all(_folder);
    }
    DeviceOfManyApps(const DeviceOfManyApps&) = delete;
    DeviceOfManyApps& operator=(const DeviceOfManyApps&) = delete;

    AppsClient& client() { return *_client; }

  private:
    static std::string identifierOf(std::int64_t number) { return "com.example.app" + std::to_string(number); }
    static Dictionary metadataOf(std::int64_t number) {
        const Dictionary accountInfo{{"ZuvexID", "person" + std::to_string(number % 3) + "@example.com"}};
        return {{"itemName", "Application " + std::to_string(number)},
                {"bundleShortVersionString", "1.0"},
                {"zuvexId", "person" + std::to_string(number % 3) + "@example.com"},
                {"com.zuvex.TamblinStore.downloadInfo", Dictionary{{"accountInfo", accountInfo}}}};
    }
    Data bytes(const Value& value, PropertyListFormat format) {
        return _device->propertyLists().dataWithPropertyList(value, format, nullptr).value();
    }
    /// As many apps again that are gone since the last sync, every other one with a to-do record.
    void _putLists(std::int64_t count) {
        Array lastSync;
        Array toDo;
        for (std::int64_t i = 0; i < 2 * count; ++i) {
            lastSync.emplace_back(identifierOf(i));
            if (i % 2 == 0) {
                toDo.emplace_back(Dictionary{{"identifier", identifierOf(i)}, {"operation", "install"}});
            }
        }
        _device->files().createDirectory(paths::workArea, true, std::nullopt, nullptr);
        for (const auto& [path, list] : {std::pair(paths::lastSyncAppState, lastSync), {paths::toDoList, toDo}}) {
            _device->files().writeFileAtomically(path, bytes(list, PropertyListFormat::binary).bytes(), nullptr);
        }
    }

    inmemory::World _world; // only for the two services that are the host's
    std::filesystem::path _folder;
    std::unique_ptr<device::Device> _device;
    std::unique_ptr<AppsClient> _client;
};

/// Each at most 300 ms for 5,000 apps.
void hostQuery(benchmark::State& state, void (*query)(AppsClient&)) {
    DeviceOfManyApps apps(state.range(0));
    for (auto _ : state) {
        query(apps.client());
    }
}
void askInstalledAssets(AppsClient& client) {
    benchmark::DoNotOptimize(client.installedAssets());
}
void askMetrics(AppsClient& client) {
    benchmark::DoNotOptimize(client.installedAssetMetrics());
}
void askAccounts(AppsClient& client) {
    benchmark::DoNotOptimize(client.zuvexIDsForAssets());
}
void askToPrepareForBackup(AppsClient& client) {
    client.prepareForBackup();
}
BENCHMARK_CAPTURE(hostQuery, installedAssets, askInstalledAssets)
    ->Arg(5000)
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(hostQuery, installedAssetMetrics, askMetrics)
    ->Arg(5000)
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(hostQuery, zuvexIDsForAssets, askAccounts)->Arg(5000)->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(hostQuery, prepareForBackup, askToPrepareForBackup)
    ->Arg(5000)
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

} // namespace
} // namespace appsync

int main(int count, char** words) {
    appsync::keepListMemory(); // as the host does
    benchmark::Initialize(&count, words);
    benchmark::RunSpecifiedBenchmarks();
}
