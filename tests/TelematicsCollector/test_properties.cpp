#include <gtest/gtest.h>

#include <string>

#include "TelematicsCollector/property.h"

namespace {

TEST(PropertyTimestamp, NarrowsThroughSigned32Bits) {
    constexpr std::int64_t kMs = 1000000;
    EXPECT_EQ(narrowedMilliseconds(2147483647 * kMs + 999999), 2147483647);
    EXPECT_EQ(narrowedMilliseconds(2147483648 * kMs), -2147483648LL);  // after about 24.8 days
    EXPECT_EQ(narrowedMilliseconds(4294967301 * kMs), 5);
}

// A swap hands over exactly what arrived since the last one, in order, and leaves nothing.
TEST(Property, SwapHandsOverExactlyWhatArrivedSinceTheLastSwap) {
    Property<std::string> property("model");
    property.set("a");
    property.set("b");
    std::string newest;
    ASSERT_TRUE(property.newestUnflushed(newest));
    EXPECT_EQ(newest, "b");
    property.swapBuffers();
    const auto& batch = property.flushedSamples();
    ASSERT_EQ(batch.size(), 2u);
    EXPECT_EQ(batch[0].value + batch[1].value, "ab");
    EXPECT_LE(batch[0].timestampMs, batch[1].timestampMs);
    EXPECT_FALSE(property.newestUnflushed(newest));
    property.swapBuffers();
    EXPECT_TRUE(property.flushedSamples().empty());
    EXPECT_FALSE(property.newestUnflushed(newest));
}

}  // namespace
