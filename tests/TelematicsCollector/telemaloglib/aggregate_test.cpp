#include "telemalog/aggregate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "TelematicsCollector/telemaloglib/value_printer.h"

namespace nvsf {
namespace telemalog {
namespace {

using namespace aggregation;
using Text = std::string;

constexpr uint64_t kAllFlags = kEventCount | 0x7FFFFC7Full;
const Value E;  // empty
const Value kNaN = std::numeric_limits<double>::quiet_NaN();

// Same alternative and contents, NaN matching NaN.
bool same(const Value& a, const Value& b) {
    if (a.which() == kDoubleIndex && b.which() == kDoubleIndex &&
        std::isnan(boost::get<double>(a)) && std::isnan(boost::get<double>(b))) {
        return true;
    }
    return a == b;
}

std::vector<Sample> evenlySpaced(const std::vector<Value>& values) {
    std::vector<Sample> samples;
    for (std::size_t i = 0; i < values.size(); ++i) {
        samples.push_back(Sample{static_cast<int64_t>(i) * 100, values[i]});
    }
    return samples;
}

// The single result of one aggregation over samples of a 1000 ms interval.
Value one(uint64_t flag, const std::vector<Sample>& samples, bool seeded = false) {
    const auto results = aggregate("k", flag, samples, 1000, seeded);
    EXPECT_EQ(results.size(), 1u);
    return results.empty() ? Value() : results.front().second;
}

TEST(Aggregate, EmissionOrderAndResultsOnNoSamples) {
    // Every aggregation in emission order, with its result on an empty list of 750 ms.
    // clang-format off
    const std::vector<std::pair<Text, Value>> expected = {
        {"k.event_count", 0}, {"k.count", 0}, {"k.unique_count", 0}, {"k.sum", 0.0},
        {"k.product", 1.0}, {"k.mean", E}, {"k.median", E}, {"k.mode", E},
        {"k.stddev", kNaN}, {"k.bool_none", E}, {"k.bool_any", E}, {"k.bool_all", E},
        {"k.random_value", E}, {"k.values", E}, {"k.unique_values", E}, {"k.min", E},
        {"k.max", E}, {"k.concat", Text()}, {"k.duration", 750}, {"k.chrono_mean", E},
        {"k.chrono_median", E}, {"k.chrono_mode", E}, {"k.chrono_stddev", E}, {"k.first", E},
        {"k.middle", E}, {"k.last", E}, {"k.delta", E}, {"k.rate", E},
        {"k.chrono_duration", 0}};
    // clang-format on
    const auto results = aggregate("k", kAllFlags, {}, 750, false);
    ASSERT_EQ(results.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(results[i].first, expected[i].first);
        EXPECT_TRUE(same(results[i].second, expected[i].second))
            << results[i].first << " gave " << toText(results[i].second);
    }
    const uint64_t meaningless =
        (1ull << 7) | (1ull << 8) | (1ull << 9) | (1ull << 31) | (1ull << 33);
    EXPECT_TRUE(aggregate("k", meaningless, evenlySpaced({1, 2}), 1000, false).empty());
}

struct Row {
    uint64_t flag;
    std::vector<Value> values;
    Value expected;
    bool seeded = false;
};

TEST(Aggregate, RawSampleAggregationsOnMixedInput) {
    const std::vector<Row> rows = {
        // The sample carried over from before the interval is no event.
        {kEventCount, {7}, 0, true},
        {kCount, {7}, 1, true},
        {kEventCount, {7}, 1},
        {kEventCount, {7, 8, 9}, 2, true},
        // int and double differ, empties count once
        {kUniqueCount, {1, 1, 1.0, E, E, Text("1")}, 4},
        // text parsed, bool as 0 or 1, empty and vectors 0
        {kSum, {1, Text("3"), 5, true, E, std::vector<int>{9}}, 10.0},
        {kProduct, {2.0, E, 3}, 0.0},
        {kProduct, {2.0, Text("1.5"), 3}, 9.0},
        // only int and double are numeric here
        {kMean, {1, Text("3"), 5, true}, 3.0},
        {kMean, {Text("3"), true}, E},
        {kMedian, {4, 1, 3, 2}, 3},  // upper middle
        {kMedian, {1, 2.0}, E},      // sorted ends of different alternatives
        {kMedian, {2.5, 0.5, 1.5}, 1.5},
        {kMode, {3, 1, 3, 2, 3, 1}, 3},
        {kMode, {1.0, 1, 1.0, 1, 1}, 1},
        {kStddev, {2.0, 4.0}, 1.0},
        {kStddev, {Text("x"), true}, 0.0},
        // Divided by the raw count: a text sample shrinks the deviation.
        {kStddev, {2.0, 4.0, Text("x")}, std::sqrt(2.0 / 3.0)},
        {kBoolNone, {false, Text("TRUE")}, false},
        {kBoolNone, {E, 0}, true},
        {kBoolAny, {E, true}, true},
        {kBoolAny, {0, 0.0, Text("yes")}, false},
        {kBoolAll, {true, E}, false},
        {kBoolAll, {true, 1, Text("True"), std::vector<int>{0}}, true},
        // same-type filter: the first non-empty sample decides
        {kMin, {E, 5, 2.0, 3, -1.5}, 3},
        {kMax, {1, 2.0}, 1},
        {kMin, {Text("b"), Text("a"), 0}, Text("a")},
        {kMax, {E, E}, E},
        // vector type follows the first raw sample
        {kValues, {1, 2.0, 3}, std::vector<int>{1, 3}},
        {kValues, {E, 1, 2}, E},
        {kValues, {true, 1, false}, std::vector<bool>{true, false}},
        {kValues, {Text("a"), Text("b")}, std::vector<Text>{"a", "b"}},
        {kValues, {std::vector<int>{1}}, E},
        {kUniqueValues, {3.0, 1.0, 3.0, 2.0}, std::vector<double>{1.0, 2.0, 3.0}},
        {kConcat, {Text("a"), 1, 1.5, E, true}, Text("a11.500000<null>true")},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const Value result = one(rows[i].flag, evenlySpaced(rows[i].values), rows[i].seeded);
        EXPECT_EQ(result, rows[i].expected) << "row " << i << " gave " << toText(result);
    }
}

TEST(Aggregate, RandomValueDrawsFromTheSeededGenerator) {
    const auto samples = evenlySpaced({10, 20, 30, 40, 50, 60, 70});
    std::srand(12345);
    const std::size_t first = static_cast<std::size_t>(std::rand()) % samples.size();
    const std::size_t second = static_cast<std::size_t>(std::rand()) % samples.size();
    std::srand(12345);
    EXPECT_EQ(one(kRandomValue, samples), samples[first].value);
    EXPECT_EQ(one(kRandomValue, samples), samples[second].value);
}

TEST(DurationSamples, SortStablyAndLastLastsUntilTheEnd) {
    std::string text;
    for (const auto& sample :
         makeDurationSamples({{300, 3}, {100, 1}, {300, 4}, {100, 2}, {600, 5}}, 1000)) {
        text += std::to_string(sample.timestamp) + ":" + toText(sample.value) + " ";
    }
    EXPECT_EQ(text, "0:1 200:2 0:3 300:4 400:5 ");
}

struct ChronoRow {
    uint64_t flag;
    std::vector<Sample> samples;
    Value expected;
};

TEST(Aggregate, DurationWeightedAggregations) {
    // All intervals last 1000 ms; each sample lasts until the next one.
    const std::vector<ChronoRow> rows = {
        {kChronoMean, {{0, 10}, {600, 1.0}}, 6.4},
        {kChronoMean, {{0, 10}, {500, Text("99")}}, 10.0},
        {kChronoMean, {{0, Text("x")}, {1000, 4}}, 4.0},   // one pair: its value
        {kChronoMedian, {{0, 5}, {800, 1}, {900, 2}}, 5},  // by time, not by count
        {kChronoMedian, {{0, 1}, {400, 10}}, 10},
        {kChronoMedian, {{0, 1}, {500, 2}}, 1},  // reaching half is enough
        {kChronoMedian, {{600, 1}}, E},          // never reaches half the interval
        {kChronoMedian, {{0, 1}, {500, 2.0}}, E},
        {kChronoMode, {{0, 1}, {100, 2}, {900, 1}}, 2},
        {kChronoStddev, {{0, 10.0}, {500, 0}}, 5.0},
        {kChronoStddev, {{0, Text("a")}}, kNaN},
        {kFirst, {{500, 2}, {0, 1}, {900, 3}}, 1},
        {kMiddle, {{0, 1}, {100, 2}, {200, 3}, {300, 4}}, 3},
        {kLast, {{900, 3}, {0, 1}}, 3},
        {kDelta, {{0, 10}, {500, 40}}, 30},
        {kDelta, {{0, 10}, {500, 40.5}}, 30.5},
        {kDelta, {{0, 1.5}, {500, 1.0}}, -0.5},
        {kDelta, {{0, 1}, {1, Text("x")}, {2, 5}}, 4},
        {kDelta, {{0, 1}, {500, Text("5")}}, E},
        {kRate, {{0, 10}, {500, 40}}, 30.0},      // units per second
        {kRate, {{500, 0.0}, {750, 5.0}}, 10.0},  // over the sampled time only
        {kRate, {{1000, 1}, {1000, 2}}, E},       // no time elapsed
        {kChronoDuration, {{250, 1}, {500, 2}}, 750},
        // One sample lasts the whole interval.
        {kChronoStddev, {{0, 5.0}}, 0.0},
        {kDelta, {{0, 5.0}}, E},
        {kRate, {{0, 5.0}}, E},
        {kChronoDuration, {{0, 5.0}}, 1000},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const Value result = one(rows[i].flag, rows[i].samples);
        EXPECT_TRUE(same(result, rows[i].expected)) << "row " << i << " gave " << toText(result);
    }
    for (uint64_t flag : {kChronoMean, kChronoMedian, kChronoMode, kFirst, kMiddle, kLast}) {
        EXPECT_EQ(one(flag, {{0, 5.0}}), Value(5.0)) << "flag " << flag;
    }
    // Half of an odd interval is truncated: 499 of 999 ms is enough.
    EXPECT_EQ(aggregate("k", kChronoMedian, {{0, 1}, {499, 2}}, 999, false).front().second,
              Value(1));
    // All durations zero: the weighted mean divides by zero instead of giving empty.
    const Value mean = one(kChronoMean, {{1000, 1.0}, {1000, 2.0}});
    ASSERT_EQ(mean.which(), kDoubleIndex);
    EXPECT_FALSE(std::isfinite(boost::get<double>(mean)));
}

}  // namespace
}  // namespace telemalog
}  // namespace nvsf
