// What one rewrite of the to-do list costs, by its number of records.
#include "propertylist/Codec.h"
#include "propertylist/ListMemory.h"

#include <benchmark/benchmark.h>
#include <expat.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace appsync {
namespace {

constexpr const char* versions[] = {"1.0", "1.2.4", "2.0", "3.11.1", "10.4"};

/// Identifiers of 30 characters, names of 14, a few versions, sizes that all differ.
Value makeTodoList(std::size_t records) {
    Array list;
    list.reserve(records);
    for (std::size_t i = 0; i < records; ++i) {
        char identifier[64];
        char name[32];
        std::snprintf(identifier, sizeof identifier, "com.example.vendor%03zu.app%05zu", i % 1000, i);
        std::snprintf(name, sizeof name, "App name %05zu", i);
        list.push_back(Dictionary{{"identifier", identifier},
                                  {"operation", "install"},
                                  {"version", versions[i % std::size(versions)]},
                                  {"name", name},
                                  {"size", 10'000'000 + 7919 * i}});
    }
    return list;
}

template <class Result> Result required(std::optional<Result> result, const ErrorPtr& error) {
    if (!result) {
        std::cerr << error->description() << '\n';
        std::abort();
    }
    return *std::move(result);
}

Data serialised(const Value& value, PropertyListFormat format) {
    ErrorPtr error;
    return required(PropertyListCodec().dataWithPropertyList(value, format, &error), error);
}

Value parsed(const Data& data) {
    ErrorPtr error;
    return required(PropertyListCodec().propertyListWithData(data.bytes(), &error), error);
}

void report(benchmark::State& state, std::size_t bytes) {
    const auto iterations = static_cast<std::int64_t>(state.iterations());
    state.SetBytesProcessed(iterations * static_cast<std::int64_t>(bytes));
    state.SetItemsProcessed(iterations * state.range(0));
    state.counters["file"] = static_cast<double>(bytes);
}

void parse(benchmark::State& state, PropertyListFormat format) {
    const Data file = serialised(makeTodoList(static_cast<std::size_t>(state.range(0))), format);
    for (auto _ : state) {
        Value list = parsed(file);
        benchmark::DoNotOptimize(list);
        state.PauseTiming();
        list = Value();
        state.ResumeTiming();
    }
    report(state, file.size());
}

void parseAndDestroy(benchmark::State& state, PropertyListFormat format) {
    const Data file = serialised(makeTodoList(static_cast<std::size_t>(state.range(0))), format);
    for (auto _ : state) {
        const Value list = parsed(file);
        benchmark::DoNotOptimize(list);
    }
    report(state, file.size());
}

/// The reference for reading XML: a general parser that tells of the same elements and texts, of which nothing is made.
void parseWithoutValues(benchmark::State& state) {
    const Data file = serialised(makeTodoList(static_cast<std::size_t>(state.range(0))), PropertyListFormat::xml);
    std::size_t texts = 0;
    for (auto _ : state) {
        XML_Parser parser = XML_ParserCreate("UTF-8");
        XML_SetUserData(parser, &texts);
        XML_SetElementHandler(
            parser, [](void*, const char*, const char**) {}, [](void*, const char*) {});
        XML_SetCharacterDataHandler(parser, [](void* seen, const char*, int) { ++*static_cast<std::size_t*>(seen); });
        XML_Parse(parser, file.bytes().data(), static_cast<int>(file.size()), XML_TRUE);
        XML_ParserFree(parser);
    }
    benchmark::DoNotOptimize(texts);
    report(state, file.size());
}

void serialise(benchmark::State& state, PropertyListFormat format) {
    const Value list = parsed(serialised(makeTodoList(static_cast<std::size_t>(state.range(0))), format));
    std::size_t size = 0;
    for (auto _ : state) {
        const Data file = serialised(list, format);
        benchmark::DoNotOptimize(file);
        size = file.size();
    }
    report(state, size);
}

/// Parse, find the record of an identifier, set its operation, serialise. The record is the last one.
void changeOneRecord(benchmark::State& state) {
    const auto records = static_cast<std::size_t>(state.range(0));
    const Value original = makeTodoList(records);
    const Data file = serialised(original, PropertyListFormat::binary);
    const std::string wanted(*original.array()->back().dictionary()->string("identifier"));
    for (auto _ : state) {
        Value list = parsed(file);
        for (Value& record : *list.mutableArray()) {
            if (record.dictionary()->string("identifier") == wanted) {
                record.mutableDictionary()->set("operation", "INSTALLED");
                break;
            }
        }
        benchmark::DoNotOptimize(serialised(list, PropertyListFormat::binary));
    }
    report(state, file.size());
}

void sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->RangeMultiplier(10)->Range(100, 100'000)->Unit(benchmark::kMicrosecond);
}

BENCHMARK_CAPTURE(parse, binary, PropertyListFormat::binary)->Apply(sizes);
BENCHMARK_CAPTURE(parseAndDestroy, binary, PropertyListFormat::binary)->Apply(sizes);
BENCHMARK_CAPTURE(serialise, binary, PropertyListFormat::binary)->Apply(sizes);
BENCHMARK(changeOneRecord)->Apply(sizes);
BENCHMARK_CAPTURE(parseAndDestroy, xml, PropertyListFormat::xml)->Apply(sizes);
BENCHMARK(parseWithoutValues)->Apply(sizes);
BENCHMARK_CAPTURE(serialise, xml, PropertyListFormat::xml)->Apply(sizes);

} // namespace
} // namespace appsync

int main(int count, char** words) {
    appsync::keepListMemory();
    benchmark::Initialize(&count, words);
    if (benchmark::ReportUnrecognizedArguments(count, words)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
