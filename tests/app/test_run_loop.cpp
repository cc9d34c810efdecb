#include <gtest/gtest.h>

#include "TelematicsCollector/properties.h"
#include "caninterface/peers.h"
#include "ice/ice_test_server.h"
#include "support/log_capture.h"
#include "telemalog/sinks/collecting_sink.h"
#include "telematicsloop.h"

using cantest::Clock;
using std::chrono::milliseconds;

namespace {

class RunLoop : public ::testing::TestWithParam<int> {};

// Without CAN channels the loop still closes, delivers and reopens a record every period, and
// a stop signal delivers the open interval as a last record.
TEST_P(RunLoop, PublishesEveryPeriodAndALastRecordOnStop) {
    blockStopSignals();  // before any thread exists, so only the loop takes the signal
    const std::int64_t periodMs = 200;
    icetest::IceTestServer ice;
    cantest::Peers peers(std::vector<std::string>{});
    auto collector = std::make_shared<nvsf::telemalog::CollectingSink>();  // read after the loop
    TelematicsConfig config;
    config.periodMs = periodMs;
    config.channelOpener = peers.opener();
    config.iceHost = "127.0.0.1";
    config.icePort = ice.port();
    config.zmqEndpoint = "tcp://127.0.0.1:" + std::to_string(icetest::freePort());
    config.machineFilePath = "/nonexistent/machine.json";
    config.detectedMachineFilePath = "/nonexistent/detectedMachine.json";
    config.extraSinks = {collector};

    logtest::LogCapture log("tilthwatch.main");
    const Clock::time_point start = Clock::now();
    std::thread loop([&] { runTelematicsLoop(config); });
    peers.attach(config.zmqEndpoint);
    const bool enough = cantest::eventually([&] { return ice.calls().size() >= 3; });
    const Clock::time_point signalled = Clock::now();
    ::kill(::getpid(), GetParam());
    loop.join();
    // The CAN main thread is woken at once, not at the end of its four-second wait.
    EXPECT_LT(Clock::now() - signalled, milliseconds(1000));
    ASSERT_TRUE(enough);

    // Five aggregates of each engine signal, the last value of the others; no bare key.
    std::set<std::string> plannedKeys = {"type", "duration"};
    const Properties properties;
    for (const PropertyBase* property : properties.engineProperties) {
        for (const char* aggregate : {".event_count", ".chrono_mean", ".min", ".max", ".last"}) {
            plannedKeys.insert(property->name + aggregate);
        }
    }
    for (const auto* list : {&properties.detectedProperties, &properties.userSelectedProperties,
                             &properties.codeProperties}) {
        for (const PropertyBase* property : *list) {
            plannedKeys.insert(property->name + ".last");
        }
    }
    const std::vector<nvsf::telemalog::ValueMap>& records = collector->collected();
    const std::vector<icetest::Call> calls = ice.calls();
    ASSERT_GE(records.size(), 4u);
    ASSERT_EQ(calls.size(), records.size());
    // A plain sleep between passes, the first one too: never shorter than the period. The last
    // record comes with the stop signal.
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_TRUE(i + 1 == records.size() ||
                    calls[i].at - (i > 0 ? calls[i - 1].at : start) >= milliseconds(periodMs))
            << i;
        EXPECT_EQ(records[i].getString("type"), "machineTelematics");
        EXPECT_EQ(calls[i].sType, "machineTelematics");
        EXPECT_EQ(calls[i].sPayload, "{}");
        EXPECT_EQ(records[i].getInt("rpm.event_count"), 0);
        std::set<std::string> keys;
        std::transform(records[i].begin(), records[i].end(), std::inserter(keys, keys.end()),
                       [](const auto& entry) { return entry.first; });
        EXPECT_EQ(keys, plannedKeys);
    }
    EXPECT_GT(calls.back().at, signalled);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"INFO Stopping tilthwatch application on signal " +
                                       std::to_string(GetParam())});
    // ZeroMQ comes after Ice: each status frame arrives after its record reached the service.
    ASSERT_TRUE(cantest::eventually([&] {
        return !peers.published().empty() && peers.published().back().at > calls.back().at;
    }));
    EXPECT_EQ(peers.published().back().bytes, std::string("ETS 0\0", 6));
}

INSTANTIATE_TEST_SUITE_P(Signals, RunLoop, ::testing::Values(SIGTERM, SIGINT),
                         ::testing::PrintToStringParamName());

}  // namespace
