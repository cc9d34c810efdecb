#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "TelematicsCollector/properties.h"
#include "telemalog/aggregate.h"
#include "telemalog/manager.h"

namespace {

using nvsf::telemalog::Manager;
using nvsf::telemalog::ValueMap;

TEST(PropertyTimestamp, NarrowsThroughSigned32Bits) {
    constexpr std::int64_t kMs = 1000000;
    // clang-format off
    const struct { std::int64_t nanoseconds; std::int64_t expected; } rows[] = {
        {0, 0}, {kMs - 1, 0}, {1234 * kMs + 999999, 1234}, {2147483647 * kMs, 2147483647},
        {2147483648 * kMs, -2147483648LL} /* after about 24.8 days */, {4294967295 * kMs, -1},
        {4294967296 * kMs, 0}, {4294967301 * kMs, 5}};
    // clang-format on
    for (const auto& row : rows) {
        EXPECT_EQ(narrowedMilliseconds(row.nanoseconds), row.expected) << row.nanoseconds;
    }
}

TEST(Property, SwapHandsOverExactlyWhatArrivedSinceTheLastSwap) {
    Property<std::string> property("model");
    property.set("a");
    property.set("b");
    std::string newest;
    ASSERT_TRUE(property.newestUnflushed(newest));
    EXPECT_EQ(newest, "b");

    property.swapBuffers();
    ASSERT_EQ(property.flushedSamples().size(), 2u);
    EXPECT_EQ(property.flushedSamples()[0].value, "a");
    EXPECT_EQ(property.flushedSamples()[1].value, "b");
    EXPECT_LE(property.flushedSamples()[0].timestampMs, property.flushedSamples()[1].timestampMs);
    EXPECT_FALSE(property.newestUnflushed(newest));

    property.set("c");
    property.swapBuffers();
    ASSERT_EQ(property.flushedSamples().size(), 1u);
    EXPECT_EQ(property.flushedSamples()[0].value, "c");
    property.swapBuffers();
    EXPECT_TRUE(property.flushedSamples().empty());
}

TEST(Properties, FlushLogsEverySampleOnceWithItsType) {
    Properties properties;
    auto manager = std::make_shared<Manager>(std::vector<nvsf::telemalog::Sink*>{});
    nvsf::telemalog::SimpleAggregationPlan plan;
    for (const char* key :
         {"rpm", "manufacturer", "manufacturerCode", "userSelected_model", "hours"}) {
        plan.emplace_back(key, nvsf::telemalog::aggregation::kCount);
    }
    const auto id = manager->openInterval("test", plan);  // before the samples it counts
    properties.rpm.set(800.0);
    properties.rpm.set(1000.5);
    properties.manufacturer.set("AGCO");
    properties.manufacturerCode.set(102);
    properties.userSelected_model.set("7040");
    properties.flushProperties(manager);

    const ValueMap record = manager->closeInterval(id);
    EXPECT_EQ(record.getInt("rpm.count"), 2);  // in two lists, flushed once
    EXPECT_EQ(record.getInt("manufacturer.count"), 1);
    EXPECT_EQ(record.getInt("manufacturerCode.count"), 1);
    EXPECT_EQ(record.getInt("userSelected_model.count"), 1);
    EXPECT_EQ(record.getInt("hours.count"), 0);
    EXPECT_EQ(boost::get<double>(manager->currentValue("rpm")), 1000.5);
    EXPECT_EQ(boost::get<std::string>(manager->currentValue("manufacturer")), "AGCO");
    EXPECT_EQ(boost::get<int>(manager->currentValue("manufacturerCode")), 102);
    EXPECT_TRUE(nvsf::telemalog::isEmpty(manager->currentValue("hours")));

    // A second flush with nothing new has nothing to log.
    properties.flushProperties(manager);
    EXPECT_TRUE(properties.rpm.flushedSamples().empty());
    EXPECT_TRUE(properties.manufacturer.flushedSamples().empty());
    EXPECT_TRUE(properties.manufacturerCode.flushedSamples().empty());
    EXPECT_TRUE(properties.userSelected_model.flushedSamples().empty());
}

}  // namespace
