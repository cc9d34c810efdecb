#include "telemalog/manager.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "TelematicsCollector/telemaloglib/value_printer.h"
#include "telemalog/sinks/collecting_sink.h"

namespace nvsf {
namespace telemalog {
namespace {

using namespace aggregation;
using Text = std::string;

// Every entry as "key=text" in key order, for compact exact checks of whole records.
Text dump(const ValueMap& record) {
    Text out;
    for (const auto& entry : record) {
        out += entry.first + "=" + toText(entry.second) + " ";
    }
    return out;
}

// Manager on a fake clock with one collecting sink.
class ManagerTest : public ::testing::Test {
protected:
    int64_t now = 1000;
    CollectingSink sink;
    Manager manager{std::vector<Sink*>{&sink}, [this] { return now; }};

    void log(const Text& key, const Value& value, int64_t at) {
        manager.logValues({{key, value}}, at);
    }
};

TEST_F(ManagerTest, CloseBuildsTheRecordFromStartExtraAndAggregates) {
    const ValueMap start = {{"rpm", 800.0}, {"operator", Text("anna")}};
    const uint32_t id = manager.openInterval(
        "machine", start, AggregationPlan{{"rpm", kCount | kMax | kChronoMean, ""}});
    now = 1500;
    manager.logValues({{"rpm", 1200.0}});
    now = 4000;
    // Closing values are samples too; an aggregate of the same key wins over an extra value.
    const ValueMap record =
        manager.closeInterval(id, {{"note", Text("x")}, {"rpm", 700.0}, {"rpm.max", 1.0}});
    EXPECT_EQ(dump(record),
              "duration=3000 note=x rpm=700.000000 rpm.chrono_mean=1133.333333 rpm.count=3 "
              "rpm.max=1200.000000 start.operator=anna start.rpm=800.000000 type=machine ");
    EXPECT_EQ(record.get("rpm.chrono_mean"), Value(3400000.0 / 3000));
    EXPECT_EQ(manager.currentValue("rpm"), Value(700.0));
    EXPECT_TRUE(sink.collected().empty()) << "closing reaches no sink";
}

TEST_F(ManagerTest, IdsCountFromOneAndAClosedIdIsGone) {
    EXPECT_EQ(manager.openInterval("a", AggregationPlan{}), 1u);
    EXPECT_EQ(manager.openInterval("b", AggregationPlan{}), 2u);
    EXPECT_EQ(manager.openPeriodicInterval("p", 100, AggregationPlan{}, 10, 0), 0u);
    EXPECT_EQ(manager.openPeriodicInterval("q", 100, AggregationPlan{}, 10, 0), 1u);
    EXPECT_FALSE(manager.closeInterval(2).empty());
    EXPECT_TRUE(manager.closeInterval(2).empty());
    EXPECT_EQ(manager.openInterval("c", AggregationPlan{}), 3u);
    EXPECT_TRUE(manager.closeInterval(999, {{"extra", 1}}).empty());
    // Nothing at all happened for the unknown id, not even logging its values.
    EXPECT_TRUE(isEmpty(manager.currentValue("extra")));
}

TEST_F(ManagerTest, KnownValueSeedsTheNextIntervalUnlessGivenAsStartValue) {
    log("rpm", 900.0, 500);
    log("load", 40.0, 500);
    const uint64_t flags = kCount | kEventCount | kFirst;
    const uint32_t id = manager.openInterval(
        "m", {{"load", 55.0}},
        SimpleAggregationPlan{{"rpm", flags}, {"load", flags}, {"unknown", flags}});
    now = 2000;
    // A start value is a logged sample, not a seed; a seed is one carried-over sample
    // without a new event; a never known key still goes through aggregation.
    EXPECT_EQ(dump(manager.closeInterval(id)),
              "duration=1000 load.count=1 load.event_count=1 load.first=55.000000 rpm.count=1 "
              "rpm.event_count=0 rpm.first=900.000000 start.load=55.000000 type=m "
              "unknown.count=0 unknown.event_count=0 unknown.first=<null> ");
    EXPECT_EQ(manager.currentValue("load"), Value(55.0));
}

TEST_F(ManagerTest, SamplesBeyondTheLimitAreDroppedButCurrentMovesOn) {
    const uint32_t small =
        manager.openInterval("m", ValueMap(), SimpleAggregationPlan{{"v", kCount | kLast}}, 0, 3);
    const uint32_t large = manager.openInterval("m", SimpleAggregationPlan{{"v", kCount}}, 0);
    for (int i = 0; i < 10001; ++i) {
        log("v", i, 10 + i);
    }
    EXPECT_EQ(manager.currentValue("v"), Value(10000));
    EXPECT_EQ(dump(manager.closeInterval(small, ValueMap(), 20000)),
              "duration=20000 type=m v.count=3 v.last=2 ");
    EXPECT_EQ(manager.closeInterval(large, ValueMap(), 20000).get("v.count"), Value(10000));
}

TEST_F(ManagerTest, TimestampsOutOfOrder) {
    const SimpleAggregationPlan plan = {{"v", kValues}};
    const uint32_t early = manager.openInterval("m", plan, 40);
    const uint32_t late = manager.openInterval("m", plan, 60);
    log("v", 1, 100);
    // Older than the current entry: current stays, the earlier interval still samples it.
    log("v", 2, 50);
    EXPECT_EQ(manager.currentValue("v"), Value(1));
    // Same time as current: replaces it.
    log("v", 3, 100);
    EXPECT_EQ(manager.currentValue("v"), Value(3));
    EXPECT_EQ(manager.closeInterval(early, ValueMap(), 200).get("v.values"),
              Value(std::vector<int>{1, 2, 3}));
    EXPECT_EQ(manager.closeInterval(late, ValueMap(), 200).get("v.values"),
              Value(std::vector<int>{1, 3}));
}

TEST_F(ManagerTest, AliasesNameASingleAggregate) {
    for (int i = 1; i <= 3; ++i) {
        log("rpm", i * 100.0, 1000 + i);
    }
    const AggregationPlan plan = {
        {"rpm", kMax, "peak"},
        // The event count bit of the high word does not disqualify the alias: the minimum
        // is written after the event count and overwrites it.
        {"load", kEventCount | kMin, "low"},
        // Several aggregates: the alias is dropped.
        {"speed", kMin | kMax, "speedAlias"},
        // Planned twice: the later entry replaces the earlier one, samples are not doubled.
        {"v", kMin, ""},
        {"v", kCount, ""},
    };
    log("load", 5, 900);
    log("speed", 3, 900);
    const uint32_t id = manager.openInterval("m", plan, 1000);
    log("load", 2, 1100);
    log("v", 4, 1100);
    EXPECT_EQ(dump(manager.closeInterval(id, ValueMap(), 2000)),
              "duration=1000 low=2 peak=300.000000 speed.max=3 speed.min=3 type=m v.count=1 ");
}

TEST(Timestamps, WrapThroughThirtyTwoBits) {
    using std::chrono::milliseconds;
    EXPECT_EQ(narrowTimestamp(milliseconds(2147483647)), 2147483647);
    EXPECT_EQ(narrowTimestamp(milliseconds(2147483648)), -2147483648ll);
    EXPECT_EQ(narrowTimestamp(milliseconds((1ll << 32) + 5)), 5);
    EXPECT_EQ(narrowTimestamp(std::chrono::nanoseconds(1999999)), 1);
    const int64_t now = monotonicTimestamp();
    EXPECT_EQ(now, static_cast<int32_t>(now));
}

struct FailingSink : Sink {
    void log(const ValueMap&) override { throw std::runtime_error("sink failed"); }
};

TEST(ManagerDelivery, SinksGetTheLoggedRecordInOrderUntilOneFails) {
    auto first = std::make_shared<CollectingSink>();
    auto after = std::make_shared<CollectingSink>();
    Manager manager(
        std::vector<std::shared_ptr<Sink>>{first, std::make_shared<FailingSink>(), after},
        [] { return 100; });
    const uint32_t id = manager.openInterval("m", SimpleAggregationPlan{{"rpm.last", kCount}}, 0);
    const ValueMap record = {{"rpm.last", 900.0}, {"type", 5}};
    EXPECT_THROW(manager.logRecord("machineTelematics", record), std::runtime_error);
    EXPECT_THROW(manager.logRecord("t2", ValueMap()), std::runtime_error);
    ASSERT_EQ(first->collected().size(), 2u);
    EXPECT_EQ(dump(first->collected()[0]), "rpm.last=900.000000 type=machineTelematics ");
    EXPECT_EQ(dump(first->collected()[1]), "type=t2 ");
    EXPECT_TRUE(after->collected().empty());
    EXPECT_EQ(record.get("type"), Value(5)) << "the caller's map is not changed";
    // Values are logged before any sink is called.
    EXPECT_EQ(manager.currentValue("rpm.last"), Value(900.0));
    EXPECT_EQ(manager.currentValue("type"), Value(Text("t2")));
    EXPECT_EQ(manager.closeInterval(id).get("rpm.last.count"), Value(1));
}

TEST_F(ManagerTest, PeriodicIntervalsFlushOnScheduleAndReseed) {
    log("v", 1, 0);
    manager.openPeriodicInterval(
        "p", 1000,
        SimpleAggregationPlan{{"v", kCount | kEventCount | kLast}, {"never", kCount | kFirst}},
        Manager::kDefaultMaxSamples, 0);
    log("v", 2, 100);
    log("v", 3, 200);

    EXPECT_EQ(manager.flushDueIntervals(1000), 0) << "due only after its time";
    EXPECT_EQ(manager.flushDueIntervals(1001), 1);
    // A late flush keeps the schedule: next due at 2000, not 2001 + 1000.
    EXPECT_EQ(manager.flushDueIntervals(2500), 1);
    EXPECT_EQ(manager.flushDueIntervals(2999), 0);
    EXPECT_EQ(manager.flushDueIntervals(3001), 1);
    ASSERT_EQ(sink.collected().size(), 3u);
    EXPECT_EQ(dump(sink.collected()[0]),
              "duration=1001 never.count=0 never.first=<null> type=p v.count=3 v.event_count=2 "
              "v.last=3 ");
    // Each key restarts from one sample of its current value, even an empty one.
    EXPECT_EQ(dump(sink.collected()[1]),
              "duration=1499 never.count=1 never.first=<null> type=p v.count=1 v.event_count=0 "
              "v.last=3 ");
    EXPECT_TRUE(isEmpty(manager.currentValue("type")) && isEmpty(manager.currentValue("v.count")))
        << "periodic records are not logged back";
}

}  // namespace
}  // namespace telemalog
}  // namespace nvsf
