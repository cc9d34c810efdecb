#include <gtest/gtest.h>

#include <time.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <vector>

#include "TelematicsCollector/property.h"
#include "canstack/networkmanagementutilities.h"
#include "telemalog/aggregate.h"
#include "telemalog/manager.h"

namespace telemalog = nvsf::telemalog;
using Stack = NetworkManagementUtilitiesClass;

namespace {

// The ARMv7 board has 32-bit time_t and long: a run there proves the rest under them.
TEST(Time32, TheBoardBuildIsA32BitOne) {
#if !defined(__arm__)
    GTEST_SKIP() << "not the board's architecture";
#endif
    EXPECT_EQ((std::vector<std::size_t>{sizeof(std::time_t), sizeof(long), sizeof(void*)}),
              std::vector<std::size_t>(3, 4));
}

// Telemetry times are milliseconds narrowed through signed 32 bits, so they jump from
// 2147483647 to -2147483648 after 24.8 days of uptime. A sample after the jump counts as
// earlier than an interval opened before it and is dropped from that interval; wherever no
// jump falls between the opening and a sample, the record is the same as far from any wrap.
TEST(Time32, IntervalsAroundTheNarrowedWrap) {
    namespace agg = telemalog::aggregation;
    const auto narrowed = [](std::int64_t ms) {
        return std::int64_t(std::int32_t(std::uint32_t(ms)));
    };
    // Offsets from the opening in milliseconds, with values.
    const std::pair<int, double> samples[] = {{100, 10.0}, {600, 30.0}, {1500, 20.0}, {1900, 50.0}};
    const auto closeFrom = [&](std::int64_t opening) {
        telemalog::Manager manager(std::vector<telemalog::Sink*>{}, [] { return 0; });
        const std::uint32_t id = manager.openInterval(
            "machineTelematics",
            telemalog::SimpleAggregationPlan{{"rpm", agg::kMin | agg::kMax | agg::kLast |
                                                         agg::kChronoMean | agg::kEventCount |
                                                         agg::kDuration | agg::kChronoDuration}},
            narrowed(opening));
        for (const auto& sample : samples) {
            telemalog::ValueMap values;
            values.set("rpm", sample.second);
            manager.logValues(values, narrowed(opening + sample.first));
        }
        return manager.closeInterval(id, telemalog::ValueMap(), narrowed(opening + 2400));
    };
    const std::int64_t jump = 2147483648;  // 24.8 days
    const telemalog::ValueMap far = closeFrom(1000);
    ASSERT_EQ(far.getInt("rpm.event_count"), 4);
    const struct {
        std::int64_t opening;
        int events;  // 4: the record equals the one far from the wrap
        const char* max;
    } rows[] = {
        {jump - 2000, 4, "50.000000"},        // closed after the jump
        {jump - 700, 2, "30.000000"},         // the jump between samples
        {jump - 50, 0, "<null>"},             // every sample after the jump
        {jump + 100, 4, "50.000000"},         // opened after the jump
        {4294967296 - 1000, 4, "50.000000"},  // across the unsigned wrap
        {3 * jump - 2000, 4, "50.000000"},    // a second jump later
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.opening);
        const telemalog::ValueMap near = closeFrom(row.opening);
        EXPECT_EQ(near.getInt("rpm.event_count"), row.events);
        EXPECT_EQ(telemalog::toText(near.get("rpm.max")), row.max);
        EXPECT_EQ(near.getInt("duration"), 2400);
        EXPECT_EQ(near == far, row.events == 4);
    }
}

// The stack's millisecond clock is unsigned 32 bits and wraps after 49.7 days; a wait is
// measured by unsigned subtraction, so it ends on time across the wrap.
TEST(Time32, StackWaitsEndOnTimeAcrossTheMillisecondWrap) {
    static std::uint32_t now = 0;
    const auto saved = Stack::Timestamp_ms;
    Stack::Timestamp_ms = [] { return now; };
    const std::uint32_t rows[][5] = {
        // start, now, wait, whether it has elapsed, milliseconds since the start
        {1000, 1249, 250, false, 249},
        {1000, 1250, 250, true, 250},
        {0xFFFFFFA0u, 0xFFFFFFFFu, 250, false, 95},
        {0xFFFFFFA0u, 0x00000099u, 250, false, 249},
        {0xFFFFFFA0u, 0x0000009Au, 250, true, 250},
        {0xFFFFFFFFu, 0x00000000u, 1, true, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row[1]);
        now = row[1];
        EXPECT_EQ(Stack::timeElapsed(row[0], row[2]), row[3] != 0);
        EXPECT_EQ(Stack::timeElapsed(row[0]), row[4]);
    }
    Stack::Timestamp_ms = saved;
}

// Properties and telemetry narrow the clock's nanoseconds alike: whole milliseconds, taken
// modulo 2^32 into the signed range.
TEST(Time32, PropertiesAndTelemetryNarrowAlike) {
    const std::pair<std::int64_t, std::int64_t> rows[] = {
        {999999, 0},
        {2147483647999999, 2147483647},
        {2147483648000000, INT32_MIN},
        {4294967301000000, 5},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.first);
        EXPECT_EQ(narrowedMilliseconds(row.first), row.second);
        EXPECT_EQ(telemalog::narrowTimestamp(std::chrono::nanoseconds(row.first)), row.second);
    }
}

// The stack, the properties and the manager read one monotonic clock: their milliseconds
// agree in the low 32 bits, with time_t of either width.
TEST(Time32, TheSubsystemsReadTheSameMilliseconds) {
    timespec ts;
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &ts), 0);
    const std::uint32_t stack = Stack::defaultTimestamp_ms();
    const auto property = static_cast<std::uint32_t>(propertyTimestampMs());
    const auto telemetry = static_cast<std::uint32_t>(telemalog::monotonicTimestamp());
    const auto direct = static_cast<std::uint32_t>(std::uint64_t(ts.tv_sec) * 1000u +
                                                   std::uint64_t(ts.tv_nsec) / 1000000u);
    // Read one after another, a few milliseconds at most apart even under an emulator.
    EXPECT_LE(stack - direct, 50u);
    EXPECT_LE(property - stack, 50u);
    EXPECT_LE(telemetry - property, 50u);
}

}  // namespace
