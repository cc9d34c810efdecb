#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "app/loopback.h"
#include "ice/ice_test_server.h"
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

    const steady_clock::time_point start = steady_clock::now();
    std::thread loop([&] { runTelematicsLoop(config); });
    apptest::FrameCollector subscriber(config.zmqEndpoint);

    const bool enough = apptest::eventually([&] { return ice.calls().size() >= regular; },
                                            milliseconds(periodMs * regular + 10000));
    ::kill(::getpid(), SIGTERM);
    loop.join();
    ASSERT_TRUE(enough);

    const std::vector<ValueMap>& records = collector->collected();
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
        for (const auto& entry : records[i]) {
            const std::string bare = entry.first.substr(0, entry.first.find('.'));
            if (bare != "type" && bare != "duration") {
                EXPECT_NE(bare, entry.first) << "bare key";
                EXPECT_FALSE(records[i].has(bare)) << bare;
                EXPECT_FALSE(records[i].has("start." + bare)) << bare;
            }
        }
    }

    // ZeroMQ comes after Ice: each status frame arrives after its record reached the service.
    ASSERT_TRUE(subscriber.waitForFrames(1, milliseconds(2000)));
    const apptest::Frame last = subscriber.frames().back();
    EXPECT_EQ(last.bytes, std::string("ETS 0\0", 6));
    EXPECT_GT(last.at, calls.back().at);
}

}  // namespace
