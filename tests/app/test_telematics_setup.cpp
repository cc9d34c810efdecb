#include <gtest/gtest.h>

#include <google/protobuf/descriptor.h>

#include "telematicsloop.h"

namespace {

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
