#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <limits>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "telemalog/aggregate.h"
#include "telemalog/manager.h"
#include "telemalog/sinks/collecting_sink.h"
#include "telemalog/sinks/csv_sink.h"
#include "telemalog/sinks/debug_sink.h"

namespace nvsf {
namespace telemalog {
namespace {

using namespace aggregation;
using Text = std::string;
const Value E;  // empty

// Entries as "key=text" in order, for exact checks of whole records. A computed NaN prints
// with a sign on some targets only.
template <typename Entries>
Text dump(const Entries& entries, std::size_t cut = 0) {
    Text out;
    for (const auto& [key, value] : entries) {
        const Text text = toText(value);
        out += key.substr(cut) + "=" + (text == "-nan" ? "nan" : text) + " ";
    }
    return out;
}

TEST(Value, ConvertsAndOrdersAsTabled) {
    const std::vector<std::pair<Value, Text>> rows = {
        // value, then toBool toInt toDouble toText
        {E, "0 0 0 <null>"},
        {true, "1 1 1 true"},
        {0, "0 0 0 0"},
        {0.0, "0 0 0 0.000000"},
        {-1.9, "1 -1 -1.9 -1.900000"},
        {static_cast<const char*>("5"), "1 1 1 true"},  // a flag: its text is never read
        {static_cast<const char*>(nullptr), "0 0 0 false"},
        {std::vector<int>{}, "0 0 0 []"},                   // only the presence of elements counts
        {std::vector<double>{1.5, 2.0}, "1 0 0 [1.5, 2]"},  // elements not printed by "%f"
        // Text is true only as "true" in any case; numbers parse like strtol and strtod, and
        // a failed or out-of-range parse gives zero.
        {Text("1"), "0 1 1 1"},
        {Text("  12.5abc"), "0 12 12.5   12.5abc"},
        {Text("abc"), "0 0 0 abc"},
        {Text("3000000000"), "0 0 3e+09 3000000000"},  // beyond the target's long
        {Text("1e999"), "0 1 0 1e999"},
        {1e10, "1 2147483647 1e+10 10000000000.000000"},  // saturated beyond int
        {-1e10, "1 -2147483648 -1e+10 -10000000000.000000"},
        {std::numeric_limits<double>::quiet_NaN(), "1 0 nan nan"},
    };
    for (const auto& [value, expected] : rows) {
        std::ostringstream out;
        out << toBool(value) << " " << toInt(value) << " " << toDouble(value) << " "
            << toText(value);
        EXPECT_EQ(out.str(), expected);
    }
    static const char twice[2][5] = {"same", "same"};  // the first at the lower address
    const std::vector<std::pair<Value, Value>> ascending = {
        {true, 0},  // every bool before every int, every int before every double
        {1000, 0.5},
        {twice[0], twice[1]},  // by address, not by text
        {std::vector<int>{1}, std::vector<int>{1, 0}},
    };
    for (const auto& [a, b] : ascending) {
        EXPECT_TRUE(valueCompare(a, b) && !valueCompare(b, a)) << toText(a) << " " << toText(b);
    }
    EXPECT_FALSE(valueCompare(E, E));
}

// The aggregations of `flags` over samples of a 1000 ms interval, as "suffix=text".
Text aggregated(uint64_t flags, const std::vector<Sample>& samples, bool seeded = false) {
    return dump(aggregate("k", flags, samples, 1000, seeded), 2);
}

TEST(Aggregate, EverySuffixOverOneSampleSet) {
    const uint64_t all = kEventCount | (0x7FFFFC7Full & ~kRandomValue);
    const std::vector<std::pair<std::vector<Sample>, Text>> rows = {
        // clang-format off
        {{}, "event_count=0 count=0 unique_count=0 sum=0.000000 product=1.000000 mean=<null> "
         "median=<null> mode=<null> stddev=nan bool_none=<null> bool_any=<null> bool_all=<null> "
         "values=<null> unique_values=<null> min=<null> max=<null> concat= duration=1000 "
         "chrono_mean=<null> chrono_median=<null> chrono_mode=<null> chrono_stddev=<null> "
         "first=<null> middle=<null> last=<null> delta=<null> rate=<null> chrono_duration=0 "},
        // Mixed, out of time order: text parsed by sum only, means over int and double (stddev
        // dividing by all 8), min and max over the first non-empty sample's alternative.
        {{{300, E}, {100, 2}, {400, 1}, {200, Text("3")}, {600, true}, {500, 2}, {700, 1.5},
          {700, 1.0}},
         "event_count=8 count=8 unique_count=7 sum=11.500000 product=0.000000 mean=1.500000 "
         "median=<null> mode=2 stddev=0.353553 bool_none=false bool_any=true bool_all=false "
         "values=<null> unique_values=<null> min=1 max=2 concat=<null>213true21.5000001.000000 "
         "duration=1000 chrono_mean=1.333333 chrono_median=<null> chrono_mode=1.000000 "
         "chrono_stddev=0.471405 first=2 middle=2 last=1.000000 delta=-1.000000 rate=-1.111111 "
         "chrono_duration=900 "},
        // clang-format on
    };
    for (const auto& [samples, expected] : rows) {
        EXPECT_EQ(aggregated(all, samples), expected);
    }
    EXPECT_EQ(aggregated((7ull << 7) | (1ull << 31) | (1ull << 33), {{0, 1}}), "");  // no meaning
}

TEST(Aggregate, OneRowPerEdge) {
    const std::vector<std::tuple<uint64_t, std::vector<Sample>, Text>> rows = {
        // clang-format off
        // One sample lasts the whole interval.
        {kDurationSampleMask, {{0, 5.0}}, "chrono_mean=5.000000 chrono_median=5.000000 "
         "chrono_mode=5.000000 chrono_stddev=0.000000 first=5.000000 middle=5.000000 "
         "last=5.000000 delta=<null> rate=<null> chrono_duration=1000"},
        {kValues, {{0, 1}, {1, 2.0}, {2, 3}}, "values=[1, 3]"},
        {kValues | kUniqueValues, {{0, Text("b")}, {1, Text("a")}, {2, Text("b")}},
         "values=[b, a, b] unique_values=[a, b]"},
        {kValues | kBoolAll, {{0, true}, {1, Text("True")}, {2, 1}, {3, std::vector<int>{0}}},
         "bool_all=true values=[true]"},
        {kMedian | kMode, {{0, 4}, {1, 1}, {2, 3}, {3, 1}}, "median=3 mode=1"},  // upper middle
        {kMean | kStddev | kChronoMean | kChronoStddev, {{0, Text("b")}, {500, true}},
         "mean=<null> stddev=0.000000 chrono_mean=nan chrono_stddev=nan"},  // nothing numeric
        {kDelta | kRate, {{0, 10}, {500, 40}}, "delta=30 rate=30.000000"},
        {kDelta | kRate, {{0, 10}, {500, Text("40")}}, "delta=<null> rate=<null>"},
        // No time elapsed for any sample.
        {kChronoMean | kChronoMedian | kChronoMode | kRate | kChronoDuration,
         {{1000, 1.0}, {1000, 2.0}},
         "chrono_mean=nan chrono_median=<null> chrono_mode=<null> rate=<null> chrono_duration=0"},
        // clang-format on
    };
    for (const auto& [flags, samples, expected] : rows) {
        EXPECT_EQ(aggregated(flags, samples), expected + " ");
    }
    // Half of an odd interval is truncated: 499 of 999 ms is enough.
    EXPECT_EQ(dump(aggregate("k", kChronoMedian, {{0, 1}, {499, 2}}, 999, false)),
              "k.chrono_median=1 ");
    // A random sample, drawn from the generator that the manager seeds.
    std::srand(12345);
    const int index = std::rand() % 3;
    std::srand(12345);
    EXPECT_EQ(aggregated(kRandomValue, {{0, 10}, {1, 20}, {2, 30}}),
              "random_value=" + std::to_string((index + 1) * 10) + " ");
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
    Text current(const Text& key) const { return toText(manager.currentValue(key)); }
};

TEST_F(ManagerTest, CloseBuildsTheRecordFromStartExtraAndAggregates) {
    log("rpm", 900.0, 500);
    log("load", 40.0, 500);
    log("speed", 3, 500);
    const uint64_t flags = kEventCount | kCount | kMax | kChronoMean;
    const AggregationPlan plan = {
        {"rpm", flags, ""},
        {"load", flags, ""},
        {"unknown", kEventCount | kMax, ""},
        // The event count bit leaves an alias, and the minimum overwrites the count. A name
        // planned twice keeps the later entry, without the alias of several aggregates.
        {"oil", kEventCount | kMin, "low"},
        {"speed", kMax, "peak"},
        {"speed", kCount | kMax, "range"},
    };
    const uint32_t id = manager.openInterval("m", {{"load", 55.0}, {"operator", Text("a")}}, plan);
    EXPECT_EQ(id, 1u);
    now = 1500;
    manager.logValues({{"load", 60.0}, {"oil", 2}, {"speed", 5}});
    now = 4000;
    // A known value seeds a key unless it is a start value: the seed is no event. A start
    // value and a closing value are samples; an aggregate wins over an extra value.
    const ValueMap extra = {{"note", Text("x")}, {"load", 30.0}, {"load.max", 1.0}};
    EXPECT_EQ(dump(manager.closeInterval(id, extra)),
              "duration=3000 load=30.000000 load.chrono_mean=59.166667 load.count=3 "
              "load.event_count=3 load.max=60.000000 low=2 note=x rpm.chrono_mean=900.000000 "
              "rpm.count=1 rpm.event_count=0 rpm.max=900.000000 speed.count=2 speed.max=5 "
              "start.load=55.000000 start.operator=a type=m unknown.event_count=0 "
              "unknown.max=<null> ");
    EXPECT_EQ(current("load"), "30.000000");
    EXPECT_TRUE(sink.collected().empty()) << "closing reaches no sink";
    // A closed or unknown id gives nothing and does nothing; ids are never reused.
    EXPECT_TRUE(manager.closeInterval(id).empty());
    EXPECT_TRUE(manager.closeInterval(999, {{"extra", 1}}).empty());
    EXPECT_EQ(current("extra"), "<null>");
    EXPECT_EQ(manager.openInterval("next", AggregationPlan{}), 2u);
}

// Samples stamped before an interval's start or beyond its limit are dropped; the current
// value moves on unless it is older than the one stored.
TEST_F(ManagerTest, SamplesBeforeTheStartOrBeyondTheLimitAreDropped) {
    const SimpleAggregationPlan plan = {{"v", kValues}};
    const uint32_t early = manager.openInterval("m", plan, 40);
    const uint32_t late = manager.openInterval("m", plan, 60);
    log("v", 1, 100);
    log("v", 2, 50);
    EXPECT_EQ(current("v"), "1");
    log("v", 3, 100);  // as old as current: replaces it
    EXPECT_EQ(current("v"), "3");
    EXPECT_EQ(toText(manager.closeInterval(early, ValueMap(), 200).get("v.values")), "[1, 2, 3]");
    EXPECT_EQ(toText(manager.closeInterval(late, ValueMap(), 200).get("v.values")), "[1, 3]");
    const uint32_t small =
        manager.openInterval("m", ValueMap(), SimpleAggregationPlan{{"w", kCount | kLast}}, 0, 3);
    const uint32_t large = manager.openInterval("m", SimpleAggregationPlan{{"w", kCount}}, 0);
    for (int i = 0; i < 10001; ++i) {
        log("w", i, 10 + i);
    }
    EXPECT_EQ(current("w"), "10000");
    EXPECT_EQ(dump(manager.closeInterval(small, ValueMap(), 20000)) +
                  dump(manager.closeInterval(large, ValueMap(), 20000)),
              "duration=20000 type=m w.count=3 w.last=2 duration=20000 type=m w.count=10000 ");
    EXPECT_EQ(narrowTimestamp(std::chrono::milliseconds(2147483648)), -2147483648ll);
    EXPECT_EQ(narrowTimestamp(std::chrono::nanoseconds(4294967296999999)), 0);
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
    ASSERT_EQ(first->collected().size(), 1u);
    EXPECT_EQ(dump(first->collected()[0]), "rpm.last=900.000000 type=machineTelematics ");
    EXPECT_TRUE(after->collected().empty());
    EXPECT_EQ(dump(record), "rpm.last=900.000000 type=5 ") << "the caller's map is unchanged";
    EXPECT_EQ(toText(manager.currentValue("type")), "machineTelematics");  // logged first
    EXPECT_EQ(dump(manager.closeInterval(id)), "duration=100 rpm.last.count=1 type=m ");
}

TEST_F(ManagerTest, PeriodicIntervalsFlushOnScheduleAndReseed) {
    log("v", 1, 0);
    const SimpleAggregationPlan plan = {{"v", kEventCount | kLast}, {"never", kCount}};
    EXPECT_EQ(manager.openPeriodicInterval("p", 1000, plan, Manager::kDefaultMaxSamples, 0), 0u);
    EXPECT_EQ(manager.openPeriodicInterval("q", 5000, plan, Manager::kDefaultMaxSamples, 0), 1u);
    log("v", 2, 100);
    // Due only after its time; a late flush keeps the schedule: next due at 2000, not 2500.
    EXPECT_EQ(manager.flushDueIntervals(1000), 0);
    EXPECT_EQ(manager.flushDueIntervals(1500), 1);
    EXPECT_EQ(manager.flushDueIntervals(2001), 1);
    EXPECT_EQ(manager.flushDueIntervals(2999), 0);
    // Each key restarts from a sample of its current value, even empty; no record is logged back.
    EXPECT_EQ(dump(sink.collected().at(0)) + dump(sink.collected().at(1)) + current("type"),
              "duration=1500 never.count=0 type=p v.event_count=1 v.last=2 "
              "duration=501 never.count=1 type=p v.event_count=0 v.last=2 <null>");
}

TEST(DebugSink, WritesOneLinePerKeyAndRemembersTheRecord) {
    std::ostringstream out;
    DebugSink sink(out);
    sink.log({{"type", Text("engine")}, {"rpm", 1500.5}});
    EXPECT_EQ(sink.previousType() + " " + dump(sink.previousRecord()),
              "engine rpm=1500.500000 type=engine ");
    sink.log(ValueMap());                                   // without a type
    EXPECT_THROW(sink.log({{"type", 3}}), boost::bad_get);  // a type not text, after writing
    EXPECT_EQ(out.str() + sink.previousType(),
              "{\n\trpm:\t1500.500000\n\ttype:\tengine\n}\n{\n}\n{\n\ttype:\t3\n}\n");
}

// What a CSV sink on standard output writes for the records, with each local time stamp as T.
Text csvLines(const std::vector<ValueMap>& records, char separator = ',', char quote = '"',
              char escape = '\\') {
    CsvSink sink("", separator, quote, escape);
    ::testing::internal::CaptureStdout();
    for (const auto& record : records) {
        sink.log(record);
    }
    static const std::regex stamp("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}");
    return std::regex_replace(::testing::internal::GetCapturedStdout(), stamp, "T");
}

TEST(CsvSink, HeaderOnlyWhenTypeOrKeysChangeAndCellsByAlternative) {
    const ValueMap engine = {{"type", Text("engine")}, {"rpm", 900}};
    ValueMap cells = {{"type", Text("engine")},
                      {"a_empty", EmptyValue()},
                      {"b_text", Text("say \"hi\"\tback\\slash\nnext\rline")},
                      {"d_list", std::vector<Text>{"x", "y"}},
                      {"e_real", 1.5}};
    cells.set("c_flag", "ignored");  // stays a pointer, never read
    // A newline inside a value stays on one line.
    EXPECT_EQ(csvLines({engine, engine, cells, {{"x", false}}}),
              "engine:,record,timestamp,rpm\nengine,1,T,900\nengine,2,T,900\n"
              "engine:,record,timestamp,a_empty,b_text,c_flag,d_list,e_real\n"
              "engine,3,T,,\"say \\\"hi\\\"\\tback\\\\slash\\nnext\\rline\",\"true\",\"[x, y]\","
              "1.500000\n?:,record,timestamp,x\n?,4,T,false\n");
    EXPECT_EQ(csvLines({{{"type", Text("t")}, {"s", Text("it's a;b!")}}}, ';', '\'', '!'),
              "t:;record;timestamp;s\nt;1;T;'it!'s a;b!!'\n");
    // A file is appended to; one that cannot be opened leaves the sink without output.
    const Text path = ::testing::TempDir() + "telemalog.csv";
    std::ofstream(path) << "kept\n";
    CsvSink(path).log({{"type", Text("t")}});
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    std::remove(path.c_str());
    EXPECT_EQ(text.str().substr(0, 29), "kept\nt:,record,timestamp\nt,1,");
    EXPECT_FALSE(CsvSink("/nonexistent-dir/telemalog.csv").hasStream());
}

}  // namespace
}  // namespace telemalog
}  // namespace nvsf
