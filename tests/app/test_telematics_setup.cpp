#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <google/protobuf/descriptor.h>

#include "telematicsloop.h"

namespace {

TEST(TelematicsConfig, DefaultsAreTheServiceValues) {
    const TelematicsConfig config;
    EXPECT_EQ(config.periodMs, 30000);
    // The order is the bus numbering and must not be sorted.
    EXPECT_THAT(config.channels, ::testing::ElementsAre("can2", "can3", "can1"));
    EXPECT_EQ(config.machineFilePath, "/etc/norvane/telematics/machine.json");
    EXPECT_EQ(config.detectedMachineFilePath, "/etc/norvane/telematics/detectedMachine.json");
    EXPECT_EQ(config.iceHost, "localhost");
    EXPECT_EQ(config.icePort, 9090);
    EXPECT_EQ(config.zmqEndpoint, "tcp://*:4499");
}

TEST(TelematicsSchema, IsRegisteredInTheGeneratedPool) {
    registerTelematicsSchema();
    const auto* pool = google::protobuf::DescriptorPool::generated_pool();
    const google::protobuf::Descriptor* event =
        pool->FindMessageTypeByName("telematics.engine.Event");
    ASSERT_NE(event, nullptr);
    ASSERT_NE(event->FindFieldByNumber(1), nullptr);
    EXPECT_EQ(event->FindFieldByNumber(1)->message_type()->full_name(),
              "telematics.engine.DataRecording");
}

}  // namespace
