#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <google/protobuf/descriptor.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/loopback.h"
#include "ice/ice_test_server.h"
#include "telemalog/sink.h"
#include "telematicsloop.h"

using nvsf::telemalog::ValueMap;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

// Sees every record the manager hands out, after the Ice and ZeroMQ sinks.
class RecordingSink : public nvsf::telemalog::Sink {
public:
    using Sink::log;
    void log(const ValueMap& values) override {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.push_back({values, steady_clock::now()});
    }

    struct Entry {
        ValueMap record;
        steady_clock::time_point at;
    };

    std::vector<Entry> records() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Entry> records_;
};

TEST(TelematicsConfig, DefaultsAreTheServiceValues) {
    const TelematicsConfig config;
    EXPECT_EQ(config.periodMs, 30000);
    EXPECT_THAT(config.channels, ::testing::ElementsAre("can2", "can3", "can1"));
    EXPECT_EQ(config.machineFilePath, "/etc/norvane/telematics/machine.json");
    EXPECT_EQ(config.detectedMachineFilePath, "/etc/norvane/telematics/detectedMachine.json");
    EXPECT_EQ(config.iceHost, "localhost");
    EXPECT_EQ(config.icePort, 9090);
    EXPECT_EQ(config.zmqEndpoint, "tcp://*:4499");
    EXPECT_FALSE(config.channelOpener);
    EXPECT_TRUE(config.extraSinks.empty());
}

TEST(TelematicsSchema, IsRegisteredInTheGeneratedPool) {
    registerTelematicsSchema();
    const google::protobuf::DescriptorPool* pool =
        google::protobuf::DescriptorPool::generated_pool();
    const google::protobuf::Descriptor* event =
        pool->FindMessageTypeByName("telematics.engine.Event");
    ASSERT_NE(event, nullptr);
    ASSERT_EQ(event->oneof_decl_count(), 1);
    EXPECT_EQ(event->oneof_decl(0)->name(), "event");
    ASSERT_NE(event->FindFieldByNumber(1), nullptr);
    EXPECT_EQ(event->FindFieldByNumber(1)->message_type()->full_name(),
              "telematics.engine.DataRecording");
    ASSERT_NE(event->FindFieldByNumber(999), nullptr);
    EXPECT_EQ(event->FindFieldByNumber(999)->name(), "undefined");

    const google::protobuf::EnumDescriptor* status =
        pool->FindEnumTypeByName("telematics.engine.DataRecording.Status");
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(status->FindValueByName("NO_DATA")->number(), 0);
    EXPECT_EQ(status->FindValueByName("PARTIAL_DATA")->number(), 1);
    EXPECT_EQ(status->FindValueByName("FULL_DATA")->number(), 2);
}

// Without CAN traffic the loop still closes, delivers and reopens a record every period, and
// a stop signal delivers the open interval as a last record.
TEST(RunLoop, PublishesEveryPeriodAndALastRecordOnStop) {
    blockStopSignals();  // before any thread exists, so only the loop takes SIGTERM
    const std::int64_t periodMs = 200;
    const std::size_t regular = 3;

    icetest::IceTestServer ice;
    const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(apptest::freeLoopbackPort());
    auto recorder = std::make_shared<RecordingSink>();
    TelematicsConfig config;
    config.periodMs = periodMs;
    config.iceHost = "127.0.0.1";
    config.icePort = ice.port();
    config.zmqEndpoint = endpoint;
    config.machineFilePath = "/nonexistent/machine.json";
    config.detectedMachineFilePath = "/nonexistent/detectedMachine.json";
    config.extraSinks = {recorder};

    const steady_clock::time_point start = steady_clock::now();
    std::thread loop([&] { runTelematicsLoop(config); });
    apptest::FrameCollector subscriber(endpoint);

    const bool enough = ice.waitForCalls(regular, milliseconds(periodMs * regular + 10000));
    ::kill(::getpid(), SIGTERM);
    loop.join();
    ASSERT_TRUE(enough);

    const std::vector<RecordingSink::Entry> records = recorder->records();
    const std::vector<icetest::Call> calls = ice.calls();
    ASSERT_GE(records.size(), regular + 1);
    ASSERT_EQ(calls.size(), records.size());

    EXPECT_GE(records[0].at - start, milliseconds(periodMs));
    for (std::size_t i = 1; i + 1 < records.size(); ++i) {
        // A plain sleep between passes: never shorter than the period.
        EXPECT_GE(records[i].at - records[i - 1].at, milliseconds(periodMs));
    }
    for (std::size_t i = 0; i < records.size(); ++i) {
        const ValueMap& record = records[i].record;
        EXPECT_EQ(record.getString("type"), "machineTelematics");
        EXPECT_EQ(calls[i].sType, "machineTelematics");
        EXPECT_EQ(calls[i].sPayload, "{}");
        // Ice is served before the later sinks see the record.
        EXPECT_LT(calls[i].at, records[i].at);
        EXPECT_EQ(record.getInt("rpm.event_count"), 0);
        for (const auto& entry : record) {
            if (entry.first == "type" || entry.first == "duration") {
                continue;
            }
            EXPECT_THAT(entry.first, ::testing::HasSubstr(".")) << "bare key " << entry.first;
            const std::string bare = entry.first.substr(0, entry.first.find('.'));
            EXPECT_FALSE(record.has(bare)) << bare;
            EXPECT_FALSE(record.has("start." + bare)) << bare;
        }
    }

    // ZeroMQ comes after Ice: each status frame arrives after its record reached the service.
    ASSERT_TRUE(subscriber.waitForFrames(1, milliseconds(2000)));
    const std::vector<apptest::Frame> frames = subscriber.frames();
    const apptest::Frame& last = frames.back();
    EXPECT_EQ(last.bytes, std::string("ETS 0\0", 6));
    EXPECT_GT(last.at, calls.back().at);
}

}  // namespace
