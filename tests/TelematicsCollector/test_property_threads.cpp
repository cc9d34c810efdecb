#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "TelematicsCollector/properties.h"
#include "telemalog/manager.h"

namespace {

// The CAN thread sets while the run loop flushes: every sample is logged exactly once, in
// order and with the type of its property.
TEST(PropertyThreads, ConcurrentSetAndFlushLoseAndDoubleNothing) {
    constexpr int kSamples = 5000;
    using namespace nvsf::telemalog;
    Properties properties;
    auto manager = std::make_shared<Manager>(std::vector<Sink*>{});
    SimpleAggregationPlan plan;
    for (const char* key : {"rpm", "model", "manufacturerCode", "userSelected_model", "hours"}) {
        plan.emplace_back(key, aggregation::kValues);
    }
    const auto id = manager->openInterval("test", plan);  // before the samples it collects
    std::atomic<bool> done{false};
    std::thread writer([&] {
        properties.model.set("7040");
        properties.manufacturerCode.set(102);
        properties.userSelected_model.set("8R");
        for (int i = 0; i < kSamples; ++i) {
            properties.rpm.set(i);
        }
        done = true;
    });
    while (!done) {
        properties.flushProperties(manager);
    }
    writer.join();
    properties.flushProperties(manager);

    const ValueMap record = manager->closeInterval(id);
    std::vector<double> expected(kSamples);
    std::iota(expected.begin(), expected.end(), 0.0);
    EXPECT_EQ(record.getDoubleVector("rpm.values"), expected);
    EXPECT_EQ(record.getStringVector("model.values"), std::vector<std::string>{"7040"});
    EXPECT_EQ(record.getIntVector("manufacturerCode.values"), std::vector<int>{102});
    EXPECT_EQ(record.getStringVector("userSelected_model.values"), std::vector<std::string>{"8R"});
    EXPECT_TRUE(isEmpty(record.get("hours.values")));
}

}  // namespace
