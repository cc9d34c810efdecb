// The CAN main thread must never wait for the telemetry path: a decoded frame costs one
// field read, a scaling and one append under the property's lock.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "CanPropertySource/canpropertyreaders.h"
#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "TelematicsCollector/properties.h"
#include "telemalog/manager.h"

namespace {

class IdleCan : public CanInterface {
public:
    bool sendPgnRequest(std::uint32_t, Bus) override { return true; }
    void sendPgnRequest(std::uint32_t) override {}
    bool addPgnFilter(std::uint32_t, PgnCallback, Bus) override { return true; }
    bool addPgnFilter(std::uint32_t, PgnCallback) override { return false; }
    bool removePgnFilter(std::uint32_t, Bus) override { return true; }
    bool removePgnFilter(std::uint32_t) override { return true; }
    bool setPeriodicCallback(PeriodicCallback, std::int64_t) override { return true; }
    bool clearPeriodicCallback() override { return true; }
    bool isAddressClaimed(Bus) override { return true; }
    bool isAddressClaimed() override { return true; }
    bool hasManufacturerOnBus(const std::set<int>&) override { return false; }
    void setDefaultBus(Bus) override {}
    Bus defaultBus() override { return Bus::MACHINE_250K; }
};

class Frame : public PgnMessage {
public:
    int manufacturerCode() const override { return -1; }
    bool hasSource() const override { return false; }
};

// One engine-speed frame through the standard reader, flushed every 10000 frames as the
// run loop would, so that the buffers stay at their steady-state capacity.
void BM_EngineFrame(benchmark::State& state) {
    auto properties = std::make_shared<Properties>();
    auto machine = std::make_shared<CanPropertySourceStateMachine>(properties, "/nonexistent",
                                                                   "/nonexistent/detected.json");
    GenericCanPropertyReader reader;
    reader.onStart(machine, std::make_shared<IdleCan>());
    auto manager =
        std::make_shared<nvsf::telemalog::Manager>(std::vector<nvsf::telemalog::Sink*>{});
    Frame frame;
    frame.pgn = 0xF004;
    frame.data = {0xF0, 0x7D, 0x8C, 0x40, 0x1F, 0xFF, 0xFF, 0xFF};
    int sinceFlush = 0;
    for (auto _ : state) {
        reader.handleF004(frame);
        if (++sinceFlush == 10000) {
            state.PauseTiming();
            properties->flushProperties(manager);
            sinceFlush = 0;
            state.ResumeTiming();
        }
    }
    machine->onStop();
}
BENCHMARK(BM_EngineFrame);

// The run loop's hand-over of one 30-second batch: 11 signals at 10 samples a second.
void BM_FlushBatch(benchmark::State& state) {
    Properties properties;
    auto manager =
        std::make_shared<nvsf::telemalog::Manager>(std::vector<nvsf::telemalog::Sink*>{});
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < 300; ++i) {
            for (PropertyBase* property : properties.engineProperties) {
                static_cast<Property<double>*>(property)->set(i);
            }
        }
        state.ResumeTiming();
        properties.flushProperties(manager);
    }
    state.SetItemsProcessed(state.iterations() * 300 * 11);
}
BENCHMARK(BM_FlushBatch);

}  // namespace

BENCHMARK_MAIN();
