#include <gtest/gtest.h>

#include <time.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "TelematicsCollector/property.h"
#include "canstack/networkmanagementutilities.h"
#include "telemalog/aggregate.h"
#include "telemalog/manager.h"

using nvsf::telemalog::Manager;
using nvsf::telemalog::ValueMap;
namespace agg = nvsf::telemalog::aggregation;

namespace {

// The ARMv7 board has 32-bit time_t and long: a run there proves the rest under them.
TEST(Time32, TheBoardBuildIsA32BitOne) {
#if defined(__arm__)
    EXPECT_EQ(sizeof(std::time_t), 4u);
    EXPECT_EQ(sizeof(long), 4u);
    EXPECT_EQ(sizeof(void*), 4u);
#else
    GTEST_SKIP() << "not the board's architecture";
#endif
}

// Telemetry times are milliseconds narrowed through signed 32 bits, so they jump from
// 2147483647 to -2147483648 after 24.8 days of uptime. A sample after the jump counts as
// earlier than an interval opened before it and is dropped from that interval; that one
// record is short, the next interval is whole. Wherever no jump falls between the opening and
// a sample, the record is the same as far from any wrap.
TEST(Time32, IntervalsAroundTheNarrowedWrap) {
    const std::uint64_t mask = agg::kMin | agg::kMax | agg::kLast | agg::kChronoMean |
                               agg::kEventCount | agg::kDuration | agg::kChronoDuration;
    // Offsets from the opening, in milliseconds, and values.
    const std::vector<std::pair<std::int64_t, double>> samples = {
        {100, 10.0}, {600, 30.0}, {1500, 20.0}, {1900, 50.0}};
    const std::int64_t closeAt = 2400;
    const auto closeFrom = [&](std::int64_t opening) {
        const auto narrowed = [](std::int64_t ms) {
            return static_cast<std::int64_t>(static_cast<std::int32_t>(
                static_cast<std::uint32_t>(static_cast<std::uint64_t>(ms))));
        };
        Manager manager(std::vector<nvsf::telemalog::Sink*>{}, [] { return 0; });
        const std::uint32_t id = manager.openInterval(
            "machineTelematics", nvsf::telemalog::SimpleAggregationPlan{{"rpm", mask}},
            narrowed(opening));
        for (const auto& sample : samples) {
            ValueMap values;
            values.set("rpm", sample.second);
            manager.logValues(values, narrowed(opening + sample.first));
        }
        return manager.closeInterval(id, ValueMap(), narrowed(opening + closeAt));
    };
    const std::int64_t jump = 2147483648;  // 24.8 days
    const ValueMap far = closeFrom(1000);
    const struct {
        const char* name;
        std::int64_t opening;
        int events;  // 4: the record equals the one far from the wrap
        const char* max;
    } rows[] = {
        {"closed after the jump", jump - 2000, 4, "50.000000"},
        {"jump between samples", jump - 700, 2, "30.000000"},
        {"every sample after the jump", jump - 50, 0, "<null>"},
        {"opened after the jump", jump + 100, 4, "50.000000"},
        {"across the unsigned wrap", 4294967296 - 1000, 4, "50.000000"},
        {"a second jump later", 3 * jump - 2000, 4, "50.000000"},
    };
    ASSERT_EQ(far.getInt("rpm.event_count"), 4);
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        const ValueMap near = closeFrom(r.opening);
        EXPECT_EQ(near.getInt("rpm.event_count"), r.events);
        EXPECT_EQ(nvsf::telemalog::toText(near.get("rpm.max")), r.max);
        EXPECT_EQ(near.getInt("duration"), closeAt);
        for (const auto& entry : far) {
            if (r.events == 4 && entry.first.rfind("rpm.", 0) == 0) {
                EXPECT_EQ(nvsf::telemalog::toText(near.get(entry.first)),
                          nvsf::telemalog::toText(entry.second))
                    << entry.first;
            }
        }
    }
}

// The stack's millisecond clock is unsigned 32 bits and wraps after 49.7 days; a wait is
// measured by unsigned subtraction, so it ends on time across the wrap.
TEST(Time32, StackWaitsEndOnTimeAcrossTheMillisecondWrap) {
    static std::uint32_t now = 0;
    const auto saved = NetworkManagementUtilitiesClass::Timestamp_ms;
    NetworkManagementUtilitiesClass::Timestamp_ms = [] { return now; };
    const struct {
        std::uint32_t start;
        std::uint32_t now;
        std::uint32_t wait;
        bool elapsed;
        std::uint32_t since;
    } rows[] = {
        {1000, 1249, 250, false, 249},
        {1000, 1250, 250, true, 250},
        {0xFFFFFFA0u, 0xFFFFFFFFu, 250, false, 95},
        {0xFFFFFFA0u, 0x00000099u, 250, false, 249},
        {0xFFFFFFA0u, 0x0000009Au, 250, true, 250},
        {0xFFFFFFFFu, 0x00000000u, 1, true, 1},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.now);
        now = r.now;
        EXPECT_EQ(NetworkManagementUtilitiesClass::timeElapsed(r.start, r.wait), r.elapsed);
        EXPECT_EQ(NetworkManagementUtilitiesClass::timeElapsed(r.start), r.since);
    }
    NetworkManagementUtilitiesClass::Timestamp_ms = saved;
}

// The stack, the properties and the manager read one monotonic clock: their milliseconds
// agree in the low 32 bits, with time_t of either width.
TEST(Time32, TheSubsystemsReadTheSameMilliseconds) {
    timespec ts;
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &ts), 0);
    const std::uint32_t stack = NetworkManagementUtilitiesClass::defaultTimestamp_ms();
    const auto property = static_cast<std::uint32_t>(propertyTimestampMs());
    const auto telemetry = static_cast<std::uint32_t>(nvsf::telemalog::monotonicTimestamp());
    const auto direct =
        static_cast<std::uint32_t>(static_cast<std::uint64_t>(ts.tv_sec) * 1000u +
                                   static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u);
    // Read one after another, a few milliseconds at most apart even under an emulator.
    EXPECT_LE(stack - direct, 50u);
    EXPECT_LE(property - stack, 50u);
    EXPECT_LE(telemetry - property, 50u);
}

}  // namespace
