#include "telemalog/manager.h"

#include <gmock/gmock.h>
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

ValueMap single(const std::string& key, const Value& value) {
    ValueMap map;
    map[key] = value;
    return map;
}

// Text forms of the record's values under `keys`, blank-separated, for compact checks.
std::string texts(const ValueMap& record, std::initializer_list<const char*> keys) {
    std::string out;
    for (const char* key : keys) {
        out += (out.empty() ? "" : " ") + toText(record.get(key));
    }
    return out;
}

// Manager on a fake clock with one collecting sink.
class ManagerTest : public ::testing::Test {
protected:
    int64_t now = 1000;
    CollectingSink sink;
    Manager manager{std::vector<Sink*>{&sink}, [this] { return now; }};

    void log(const std::string& key, const Value& value, int64_t at) {
        manager.logValues(single(key, value), at);
    }
};

TEST_F(ManagerTest, CloseBuildsTheRecordFromStartExtraAndAggregates) {
    ValueMap start;
    start.set("rpm", 800.0);
    start.set("operator", std::string("anna"));
    const uint32_t id =
        manager.openInterval("machine", start, AggregationPlan{{"rpm", kCount | kMax, ""}});
    log("rpm", 1200.0, 1500);

    ValueMap extra;
    extra.set("note", std::string("x"));
    extra.set("rpm.max", 1.0);  // an aggregate of the same key wins
    now = 4000;
    const ValueMap record = manager.closeInterval(id, extra);

    ValueMap expected;
    expected.set("type", std::string("machine"));
    expected.set("duration", 3000);
    expected.set("start.rpm", 800.0);
    expected.set("start.operator", std::string("anna"));
    expected.set("note", std::string("x"));
    expected.set("rpm.count", 2);
    expected.set("rpm.max", 1200.0);
    EXPECT_EQ(record, expected);
    EXPECT_TRUE(sink.collected().empty()) << "closing reaches no sink";
}

TEST_F(ManagerTest, IdsCountFromOneAndPeriodicIdsFromZero) {
    EXPECT_EQ(manager.openInterval("a", AggregationPlan{}), 1u);
    EXPECT_EQ(manager.openInterval("b", AggregationPlan{}), 2u);
    EXPECT_EQ(manager.openPeriodicInterval("p", 100, AggregationPlan{}, 10, 0), 0u);
    EXPECT_EQ(manager.openPeriodicInterval("q", 100, AggregationPlan{}, 10, 0), 1u);
    manager.closeInterval(2);
    EXPECT_EQ(manager.openInterval("c", AggregationPlan{}), 3u);
}

TEST_F(ManagerTest, KnownValueSeedsTheNextIntervalUnlessGivenAsStartValue) {
    log("rpm", 900.0, 500);
    log("load", 40.0, 500);
    const SimpleAggregationPlan plan = {{"rpm", kCount | kEventCount | kFirst},
                                        {"load", kCount | kEventCount | kFirst},
                                        {"unknown", kCount | kEventCount | kFirst}};
    const uint32_t id = manager.openInterval("m", single("load", 55.0), plan);
    now = 2000;
    const ValueMap record = manager.closeInterval(id);

    // Seeded: one carried-over sample, no new event.
    EXPECT_EQ(texts(record, {"rpm.count", "rpm.event_count", "rpm.first"}), "1 0 900.000000");
    // A start value is a logged sample, not a seed.
    EXPECT_EQ(texts(record, {"load.count", "load.event_count", "load.first"}), "1 1 55.000000");
    EXPECT_EQ(manager.currentValue("load"), Value(55.0));
    // Never known: an empty sample list still goes through aggregation.
    EXPECT_EQ(texts(record, {"unknown.count", "unknown.event_count", "unknown.first"}),
              "0 0 <null>");
    EXPECT_TRUE(record.has("unknown.first"));
}

TEST_F(ManagerTest, SamplesBeyondTheLimitAreDroppedButCurrentMovesOn) {
    const uint32_t small =
        manager.openInterval("m", ValueMap(), SimpleAggregationPlan{{"v", kCount | kLast}}, 0, 3);
    const uint32_t large = manager.openInterval("m", SimpleAggregationPlan{{"v", kCount}}, 0);
    for (int i = 0; i < 10001; ++i) {
        log("v", i, 10 + i);
    }
    EXPECT_EQ(manager.currentValue("v"), Value(10000));
    const ValueMap smallRecord = manager.closeInterval(small, ValueMap(), 20000);
    EXPECT_EQ(smallRecord.get("v.count"), Value(3));
    EXPECT_EQ(smallRecord.get("v.last"), Value(2));
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

TEST_F(ManagerTest, ClosingValuesAreSamplesAndClosingTwiceGivesAnEmptyRecord) {
    const uint32_t id = manager.openInterval("m", SimpleAggregationPlan{{"v", kCount | kLast}});
    const ValueMap record = manager.closeInterval(id, single("v", 7));
    EXPECT_EQ(texts(record, {"v", "v.count", "v.last"}), "7 1 7");
    EXPECT_EQ(manager.currentValue("v"), Value(7));
    EXPECT_TRUE(manager.closeInterval(id).empty());
    EXPECT_TRUE(manager.closeInterval(999, single("extra", 1)).empty());
    // Nothing at all happened for the unknown id, not even logging its values.
    EXPECT_TRUE(isEmpty(manager.currentValue("extra")));
}

TEST_F(ManagerTest, AliasesNameASingleAggregate) {
    for (int i = 1; i <= 3; ++i) {
        log("rpm", i * 100.0, 1000 + i);
    }
    const AggregationPlan plan = {
        {"rpm", kMax, "peak"},
        // The event count bit of the high word does not disqualify the alias.
        {"load", kEventCount | kMin, "low"},
        // Several aggregates: the alias is dropped.
        {"speed", kMin | kMax, "speedAlias"},
        // Planned twice: the later entry replaces the earlier one.
        {"v", kMin, ""},
        {"v", kCount, ""},
    };
    log("load", 5, 900);
    log("speed", 3, 900);
    const uint32_t id = manager.openInterval("m", plan, 1000);
    log("load", 2, 1100);
    log("v", 4, 1100);
    const ValueMap record = manager.closeInterval(id, ValueMap(), 2000);

    EXPECT_EQ(record.get("peak"), Value(300.0));
    EXPECT_FALSE(record.has("rpm.max"));
    // The minimum is written after the event count and overwrites it under the alias.
    EXPECT_EQ(record.get("low"), Value(2));
    EXPECT_FALSE(record.has("load.event_count"));
    EXPECT_FALSE(record.has("speedAlias"));
    EXPECT_EQ(texts(record, {"speed.min", "speed.max"}), "3 3");
    EXPECT_FALSE(record.has("v.min"));
    EXPECT_EQ(record.get("v.count"), Value(1)) << "its samples are not doubled either";
}

TEST_F(ManagerTest, NowSentinelReadsTheClock) {
    now = 5000;
    const uint32_t id = manager.openInterval("m", SimpleAggregationPlan{{"v", kChronoDuration}});
    now = 5100;
    manager.logValues(single("v", 1));
    now = 6000;
    const ValueMap record = manager.closeInterval(id, ValueMap(), kNow);
    EXPECT_EQ(record.get("duration"), Value(1000));
    EXPECT_EQ(record.get("v.chrono_duration"), Value(900));
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

TEST(ManagerSeeding, ConstructionReseedsRand) {
    std::srand(1);
    const std::vector<int> fixedSeed = {std::rand(), std::rand(), std::rand()};
    std::srand(1);
    Manager manager(std::vector<Sink*>{});
    const std::vector<int> afterManager = {std::rand(), std::rand(), std::rand()};
    EXPECT_NE(afterManager, fixedSeed);
}

// Remembers the order in which sinks were called, and can fail.
class OrderSink : public Sink {
public:
    OrderSink(std::vector<std::string>& calls, std::string name, bool fail = false)
        : calls_(calls), name_(std::move(name)), fail_(fail) {}
    void log(const ValueMap& values) override {
        calls_.push_back(name_ + ":" + toText(values.get("type")));
        if (fail_) {
            throw std::runtime_error("sink failed");
        }
    }

private:
    std::vector<std::string>& calls_;
    std::string name_;
    bool fail_;
};

TEST(ManagerDelivery, SinksGetTheRecordInOrderAfterItIsLogged) {
    std::vector<std::string> calls;
    auto first = std::make_shared<OrderSink>(calls, "first");
    auto second = std::make_shared<OrderSink>(calls, "second");
    Manager manager(std::vector<std::shared_ptr<Sink>>{first, second}, [] { return 100; });

    const uint32_t id = manager.openInterval("m", SimpleAggregationPlan{{"rpm.last", kCount}}, 0);
    ValueMap record;
    record.set("rpm.last", 900.0);
    record.set("type", 5);
    manager.logRecord("machineTelematics", record);
    EXPECT_EQ(calls,
              (std::vector<std::string>{"first:machineTelematics", "second:machineTelematics"}));
    EXPECT_EQ(record.get("type"), Value(5)) << "the caller's map is not changed";
    EXPECT_EQ(manager.currentValue("rpm.last"), Value(900.0));
    EXPECT_EQ(manager.currentValue("type"), Value(std::string("machineTelematics")));
    EXPECT_EQ(manager.closeInterval(id).get("rpm.last.count"), Value(1));

    manager.logRecord("t1", single("type", std::string("old")));
    manager.logRecord("t2", ValueMap());
    EXPECT_EQ(calls,
              (std::vector<std::string>{"first:machineTelematics", "second:machineTelematics",
                                        "first:t1", "second:t1", "first:t2", "second:t2"}));
}

TEST(ManagerDelivery, AFailingSinkStopsTheDelivery) {
    std::vector<std::string> calls;
    OrderSink failing(calls, "failing", true);
    OrderSink after(calls, "after");
    Manager manager(std::vector<Sink*>{&failing, &after});
    EXPECT_THROW(manager.deliver(single("type", std::string("r")), 10), std::runtime_error);
    EXPECT_EQ(calls, std::vector<std::string>{"failing:r"});
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
    ASSERT_EQ(sink.collected().size(), 1u);
    EXPECT_EQ(texts(sink.collected()[0],
                    {"type", "duration", "v.count", "v.event_count", "v.last", "never.count"}),
              "p 1001 3 2 3 0");

    // A late flush keeps the schedule: next due at 2000, not 2001 + 1000.
    EXPECT_EQ(manager.flushDueIntervals(2500), 1);
    ASSERT_EQ(sink.collected().size(), 2u);
    // Each key restarts from one sample of its current value, even an empty one.
    EXPECT_EQ(
        texts(sink.collected()[1], {"duration", "v.count", "v.last", "never.count", "never.first"}),
        "1499 1 3 1 <null>");
    EXPECT_EQ(manager.flushDueIntervals(2999), 0);
    EXPECT_EQ(manager.flushDueIntervals(3001), 1);
    EXPECT_TRUE(isEmpty(manager.currentValue("type")) && isEmpty(manager.currentValue("v.count")))
        << "periodic records are not logged back";
}

}  // namespace
}  // namespace telemalog
}  // namespace nvsf
