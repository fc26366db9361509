// The plug-in's own time against services in memory: planning a sync of many apps, restoring many apps, and one change
// of the to-do list with real files.
#include "client/AppsClient.h"
#include "client/Paths.h"
#include "device/Device.h"
#include "platform/Asset.h"
#include "platform/PropertyListSerialization.h"
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

} // namespace
} // namespace appsync

int main(int count, char** words) {
    appsync::keepListMemory(); // as the host does
    benchmark::Initialize(&count, words);
    benchmark::RunSpecifiedBenchmarks();
}
