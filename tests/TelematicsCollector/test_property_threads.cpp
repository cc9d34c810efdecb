#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "TelematicsCollector/properties.h"
#include "telemalog/aggregate.h"
#include "telemalog/manager.h"

namespace {

// The CAN thread sets while the run loop flushes: every sample lands in exactly one batch.
TEST(PropertyThreads, ConcurrentSetAndFlushLoseAndDoubleNothing) {
    constexpr int kSamples = 5000;
    Properties properties;
    auto manager =
        std::make_shared<nvsf::telemalog::Manager>(std::vector<nvsf::telemalog::Sink*>{});
    const auto id = manager->openInterval(
        "test",
        nvsf::telemalog::SimpleAggregationPlan{{"rpm", nvsf::telemalog::aggregation::kCount}});
    std::atomic<bool> done{false};

    std::thread writer([&] {
        for (int i = 0; i < kSamples; ++i) {
            properties.rpm.set(i);
        }
        done = true;
    });

    std::vector<double> seen;
    auto collect = [&] {
        properties.flushProperties(manager);
        for (const auto& sample : properties.rpm.flushedSamples()) {
            seen.push_back(sample.value);
        }
    };
    while (!done) {
        collect();
    }
    writer.join();
    collect();

    ASSERT_EQ(seen.size(), static_cast<std::size_t>(kSamples));
    for (int i = 0; i < kSamples; ++i) {
        ASSERT_EQ(seen[static_cast<std::size_t>(i)], i);
    }
    EXPECT_EQ(manager->closeInterval(id).getInt("rpm.count"), kSamples);
}

}  // namespace
