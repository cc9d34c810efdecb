// Cost of closing the system's telemetry interval: eleven engine keys sampled at 100 Hz
// with min, max, last, chrono mean and event count, and five text keys with last only.
#include <benchmark/benchmark.h>

#include <cmath>
#include <string>
#include <vector>

#include "telemalog/manager.h"

namespace {

using nvsf::telemalog::Manager;
using nvsf::telemalog::SimpleAggregationPlan;
using nvsf::telemalog::Sink;
using nvsf::telemalog::ValueMap;

constexpr uint64_t kEngineMask = 0x102602000ull;
constexpr uint64_t kLastMask = 0x2000000ull;
constexpr int64_t kSamplePeriodMs = 10;

const std::vector<std::string> kEngineKeys = {"rpm",
                                              "percentLoadAtCurrentSpeed",
                                              "percentLoadOfTotalTorque",
                                              "fuelConsumptionRate",
                                              "coolantTemperature",
                                              "engineOilPressure",
                                              "engineOilTemperature",
                                              "transmissionOilTemperature",
                                              "defLevel",
                                              "hours",
                                              "fuelLevel"};
const std::vector<std::string> kTextKeys = {"manufacturer", "model", "userSelected_manufacturer",
                                            "userSelected_model", "manufacturerCode"};

SimpleAggregationPlan systemPlan() {
    SimpleAggregationPlan plan;
    for (const auto& key : kEngineKeys) {
        plan.emplace_back(key, kEngineMask);
    }
    for (const auto& key : kTextKeys) {
        plan.emplace_back(key, kLastMask);
    }
    return plan;
}

// Feeds one interval the way the properties do: one single-entry map per sample.
void feed(Manager& manager, int64_t start, int samplesPerKey) {
    for (std::size_t k = 0; k < kTextKeys.size(); ++k) {
        ValueMap values;
        values.set(kTextKeys[k], std::string("text"));
        manager.logValues(values, start + 1);
    }
    for (std::size_t k = 0; k < kEngineKeys.size(); ++k) {
        for (int i = 0; i < samplesPerKey; ++i) {
            ValueMap values;
            values.set(kEngineKeys[k],
                       1000.0 + 100.0 * std::sin(0.01 * i + static_cast<double>(k)));
            manager.logValues(values, start + static_cast<int64_t>(i) * kSamplePeriodMs);
        }
    }
}

void BM_CloseInterval(benchmark::State& state) {
    const int samplesPerKey = static_cast<int>(state.range(0));
    const SimpleAggregationPlan plan = systemPlan();
    Manager manager(std::vector<Sink*>{});
    int64_t start = 0;
    const int64_t length = samplesPerKey * kSamplePeriodMs;
    for (auto _ : state) {
        state.PauseTiming();
        const uint32_t id = manager.openInterval("machineTelematics", ValueMap(), plan, start);
        feed(manager, start, samplesPerKey);
        start += length;
        state.ResumeTiming();
        ValueMap record = manager.closeInterval(id, ValueMap(), start);
        benchmark::DoNotOptimize(record);
    }
    state.counters["samples"] = static_cast<double>(samplesPerKey * kEngineKeys.size());
}
BENCHMARK(BM_CloseInterval)->Arg(3000)->Arg(10000)->Unit(benchmark::kMillisecond);

// The feeding side of the same interval, for comparison.
void BM_LogSamples(benchmark::State& state) {
    const int samplesPerKey = static_cast<int>(state.range(0));
    const SimpleAggregationPlan plan = systemPlan();
    Manager manager(std::vector<Sink*>{});
    int64_t start = 0;
    const int64_t length = samplesPerKey * kSamplePeriodMs;
    for (auto _ : state) {
        const uint32_t id = manager.openInterval("machineTelematics", ValueMap(), plan, start);
        feed(manager, start, samplesPerKey);
        start += length;
        state.PauseTiming();
        manager.closeInterval(id, ValueMap(), start);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_LogSamples)->Arg(3000)->Unit(benchmark::kMillisecond);

// The reduction alone, without the manager's bookkeeping and freeing.
void BM_AggregateEngineKeys(benchmark::State& state) {
    const int samplesPerKey = static_cast<int>(state.range(0));
    std::vector<nvsf::telemalog::Sample> samples;
    for (int i = 0; i < samplesPerKey; ++i) {
        samples.push_back({i * kSamplePeriodMs, 1000.0 + 100.0 * std::sin(0.01 * i)});
    }
    const int64_t length = samplesPerKey * kSamplePeriodMs;
    for (auto _ : state) {
        for (const auto& key : kEngineKeys) {
            auto result = nvsf::telemalog::aggregate(key, kEngineMask, samples, length, false);
            benchmark::DoNotOptimize(result);
        }
    }
}
BENCHMARK(BM_AggregateEngineKeys)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
