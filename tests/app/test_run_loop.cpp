#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TelematicsCollector/properties.h"
#include "app/loopback.h"
#include "ice/ice_test_server.h"
#include "support/log_capture.h"
#include "telemalog/sinks/collecting_sink.h"
#include "telematicsloop.h"

using nvsf::telemalog::ValueMap;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

// Without CAN traffic the loop still closes, delivers and reopens a record every period, and
// a stop signal delivers the open interval as a last record.
TEST(RunLoop, PublishesEveryPeriodAndALastRecordOnStop) {
    blockStopSignals();  // before any thread exists, so only the loop takes SIGTERM
    const std::int64_t periodMs = 200;
    const std::size_t regular = 3;

    icetest::IceTestServer ice;
    // Sees every record after the Ice and ZeroMQ sinks; read only once the loop has ended.
    auto collector = std::make_shared<nvsf::telemalog::CollectingSink>();
    TelematicsConfig config;
    config.periodMs = periodMs;
    config.iceHost = "127.0.0.1";
    config.icePort = ice.port();
    config.zmqEndpoint = "tcp://127.0.0.1:" + std::to_string(icetest::freePort());
    config.machineFilePath = "/nonexistent/machine.json";
    config.detectedMachineFilePath = "/nonexistent/detectedMachine.json";
    config.extraSinks = {collector};

    logtest::LogCapture log("tilthwatch.main");
    const steady_clock::time_point start = steady_clock::now();
    std::thread loop([&] { runTelematicsLoop(config); });
    apptest::FrameCollector subscriber(config.zmqEndpoint);

    const bool enough = apptest::eventually([&] { return ice.calls().size() >= regular; },
                                            milliseconds(periodMs * regular + 10000));
    ::kill(::getpid(), SIGTERM);
    loop.join();
    ASSERT_TRUE(enough);

    const std::vector<ValueMap>& records = collector->collected();
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
    const std::vector<icetest::Call> calls = ice.calls();
    ASSERT_GE(records.size(), regular + 1);
    ASSERT_EQ(calls.size(), records.size());

    EXPECT_GE(calls[0].at - start, milliseconds(periodMs));
    for (std::size_t i = 0; i < records.size(); ++i) {
        // A plain sleep between passes: never shorter than the period. The last record comes
        // with the stop signal.
        if (i > 0 && i + 1 < records.size()) {
            EXPECT_GE(calls[i].at - calls[i - 1].at, milliseconds(periodMs));
        }
        EXPECT_EQ(records[i].getString("type"), "machineTelematics");
        EXPECT_EQ(calls[i].sType, "machineTelematics");
        EXPECT_EQ(calls[i].sPayload, "{}");
        EXPECT_EQ(records[i].getInt("rpm.event_count"), 0);
        // The plan: five aggregates of each engine signal, the last value of each other one.
        // No bare key and no start value: the ".last" copies reach nobody.
        std::set<std::string> keys;
        for (const auto& entry : records[i]) {
            keys.insert(entry.first);
        }
        EXPECT_EQ(keys, plannedKeys);
    }
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"INFO Stopping tilthwatch application on signal 15"});

    // ZeroMQ comes after Ice: each status frame arrives after its record reached the service.
    ASSERT_TRUE(subscriber.waitForFrames(1, milliseconds(2000)));
    const apptest::Frame last = subscriber.frames().back();
    EXPECT_EQ(last.bytes, std::string("ETS 0\0", 6));
    EXPECT_GT(last.at, calls.back().at);
}

}  // namespace
