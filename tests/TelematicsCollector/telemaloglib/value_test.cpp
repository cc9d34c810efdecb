#include "telemalog/value.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "TelematicsCollector/telemaloglib/value_printer.h"

namespace nvsf {
namespace telemalog {
namespace {

using Text = std::string;
const char kFive[] = "5";

struct ConversionRow {
    Value value;
    bool asBool;
    int asInt;
    double asDouble;
    std::string asText;
};

TEST(ValueConversion, EveryAlternativeConvertsAsTabled) {
    const std::vector<ConversionRow> rows = {
        {Value(), false, 0, 0.0, "<null>"},
        {true, true, 1, 1.0, "true"},
        {false, false, 0, 0.0, "false"},
        {-7, true, -7, -7.0, "-7"},
        {0, false, 0, 0.0, "0"},
        {-1.9, true, -1, -1.9, "-1.900000"},
        {0.0, false, 0, 0.0, "0.000000"},
        // A const char* is a flag: the text it points at is never read.
        {kFive, true, 1, 1.0, "true"},
        {static_cast<const char*>(nullptr), false, 0, 0.0, "false"},
        // Only the presence of elements counts, not their values.
        {std::vector<bool>{false}, true, 0, 0.0, "[false]"},
        {std::vector<bool>{}, false, 0, 0.0, "[]"},
        {std::vector<int>{1, -2}, true, 0, 0.0, "[1, -2]"},
        // Vector elements print through a stream, not with "%f".
        {std::vector<double>{1.5, 2.0}, true, 0, 0.0, "[1.5, 2]"},
        {std::vector<Text>{"a", "b c"}, true, 0, 0.0, "[a, b c]"},
        // Text: only "true" in any case is true; numbers parse like strtol / strtod and
        // a failed or out-of-range parse gives zero.
        {Text("TRUE"), true, 0, 0.0, "TRUE"},
        {Text("tRuE"), true, 0, 0.0, "tRuE"},
        {Text(" true"), false, 0, 0.0, " true"},
        {Text("1"), false, 1, 1.0, "1"},
        {Text(""), false, 0, 0.0, ""},
        {Text("  42"), false, 42, 42.0, "  42"},
        {Text("12abc"), false, 12, 12.0, "12abc"},
        {Text("-3.75"), false, -3, -3.75, "-3.75"},
        {Text("abc"), false, 0, 0.0, "abc"},
        {Text("99999999999999999999999"), false, 0, 1e23, "99999999999999999999999"},
        // Fits a 64-bit long but not the target's 32-bit one.
        {Text("3000000000"), false, 0, 3e9, "3000000000"},
        {Text("1e999"), false, 1, 0.0, "1e999"},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto& row = rows[i];
        SCOPED_TRACE("row " + std::to_string(i) + ": " + row.asText);
        EXPECT_EQ(toBool(row.value), row.asBool);
        EXPECT_EQ(toInt(row.value), row.asInt);
        EXPECT_DOUBLE_EQ(toDouble(row.value), row.asDouble);
        EXPECT_EQ(toText(row.value), row.asText);
    }
    // Beyond int the target's conversion saturates; NaN gives 0.
    EXPECT_EQ(toInt(Value(1e300)), std::numeric_limits<int>::max());
    EXPECT_EQ(toInt(Value(-1e300)), std::numeric_limits<int>::min());
    EXPECT_EQ(toInt(Value(std::numeric_limits<double>::quiet_NaN())), 0);
}

TEST(ValueCompare, OrdersByAlternativeFirstThenWithin) {
    // Equal texts in one array: the first lies at the lower address.
    static const char same[2][5] = {"same", "same"};
    const char* low = same[0];
    const char* high = same[1];
    struct Row {
        Value a, b;
        bool aBeforeB;
    };
    const std::vector<Row> rows = {
        {true, 0, true},  // every bool before every int
        {0, true, false},
        {1000, 0.5, true},
        {Value(), false, true},
        {Value(), Value(), false},
        {false, true, true},
        {-1, 3, true},
        {Text("abc"), Text("abd"), true},
        {Text("ab"), Text("abc"), true},
        {Text("z"), kFive, true},
        // Equal texts in different places: decided by address.
        {low, high, true},
        {high, low, false},
        {high, std::vector<bool>{}, true},
        {std::vector<int>{1, 2}, std::vector<int>{1, 3}, true},
        {std::vector<int>{1}, std::vector<int>{1, 0}, true},
        {std::vector<Text>{}, std::vector<double>{9.0}, false},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(valueCompare(rows[i].a, rows[i].b), rows[i].aBeforeB) << "row " << i;
    }
    EXPECT_FALSE(Value(low) == Value(high)) << "equality also goes by address";
    EXPECT_FALSE(Value(1) == Value(1.0));
}

TEST(ValueMap, GetNeverInsertsSetReplacesAndTypedGettersNeverConvert) {
    ValueMap map;
    EXPECT_TRUE(isEmpty(map.get("missing")));
    EXPECT_FALSE(map.has("missing")) << "get does not insert";
    map.set("flag", "literal");
    EXPECT_EQ(map.at("flag").which(), kCStringIndex);
    map.set("key", 1);
    map.set("key", Text("one"));
    map.set("key", Text("two"));
    EXPECT_EQ(map.getString("key"), "two");
    map.set("ints", std::vector<int>{1});
    EXPECT_EQ(map.getIntVector("ints"), std::vector<int>{1});
    EXPECT_THROW(map.getInt("key"), boost::bad_get);
    EXPECT_THROW(map.getString("missing"), boost::bad_get);
    EXPECT_THROW(map.getDoubleVector("ints"), boost::bad_get);
    try {
        map.getBool("key");
        ADD_FAILURE() << "text read as bool";
    } catch (const boost::bad_get& error) {
        EXPECT_STREQ(error.what(), "boost::bad_get: failed value get using boost::get");
    }
}

}  // namespace
}  // namespace telemalog
}  // namespace nvsf
