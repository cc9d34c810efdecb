// Cost of one period's publishing work: building both bodies and delivering them on loopback.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "TelematicsCollector/properties.h"
#include "TelematicsCollector/telematicsicesink.h"
#include "TelematicsCollector/telematicsmessageconstructor.h"
#include "TelematicsCollector/telematicszmqsink.h"
#include "tests/ice/ice_test_server.h"

using nvsf::telemalog::ValueMap;

namespace {

// A record in which every key is known and every engine key had events.
ValueMap fullRecord(const Properties& properties) {
    ValueMap record;
    record.set("type", std::string("machineTelematics"));
    for (const PropertyBase* property : properties.engineProperties) {
        record.set(property->name + ".event_count", 300);
        record.set(property->name + ".min", 12.25);
        record.set(property->name + ".max", 1834.5);
        record.set(property->name + ".chrono_mean", 987.654321);
        record.set(property->name + ".last", 1001.0);
    }
    for (const PropertyBase* property : properties.detectedProperties) {
        record.set(property->name + ".last", std::string("Case IH"));
    }
    for (const PropertyBase* property : properties.userSelectedProperties) {
        record.set(property->name + ".last", std::string("Magnum 340"));
    }
    record.set("manufacturerCode.last", 93);
    return record;
}

template <typename Constructor>
void BM_Construct(benchmark::State& state) {
    auto properties = std::make_shared<Properties>();
    Constructor constructor(properties);
    const ValueMap record = fullRecord(*properties);
    for (auto _ : state) {
        std::string type;
        std::string body;
        constructor.construct(record, type, body);
        benchmark::DoNotOptimize(body);
    }
}
BENCHMARK_TEMPLATE(BM_Construct, MachineTelematicsMessageConstructor);
BENCHMARK_TEMPLATE(BM_Construct, MachineTelematicsStatusMessageConstructor);

// One delivery opens, calls and closes a connection.
void BM_IceDelivery(benchmark::State& state) {
    icetest::IceTestServer server;
    TelematicsIceSink sink({}, "127.0.0.1", server.port());
    const std::string body(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        sink.sendToIce("machineTelematics", body);
    }
}
BENCHMARK(BM_IceDelivery)->Arg(2)->Arg(1500);

void BM_ZmqPublish(benchmark::State& state) {
    auto properties = std::make_shared<Properties>();
    TelematicsZmqSink sink(
        {std::make_shared<MachineTelematicsStatusMessageConstructor>(properties)},
        "tcp://127.0.0.1:*");
    const ValueMap record = fullRecord(*properties);
    for (auto _ : state) {
        sink.log(record);
    }
}
BENCHMARK(BM_ZmqPublish);

}  // namespace

BENCHMARK_MAIN();
