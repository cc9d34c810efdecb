#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "TelematicsCollector/telemaloglib/value_printer.h"
#include "telemalog/sinks/csv_sink.h"
#include "telemalog/sinks/debug_sink.h"

namespace nvsf {
namespace telemalog {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

ValueMap record(const std::string& type) {
    ValueMap map;
    map.set("type", type);
    return map;
}

TEST(DebugSink, WritesOneLinePerKeyAndRemembersTheRecord) {
    std::ostringstream out;
    DebugSink sink(out);
    ValueMap values = record("engine");
    values.set("rpm", 1500.5);
    values.set("ok", true);
    sink.log(values);
    EXPECT_EQ(out.str(), "{\n\tok:\ttrue\n\trpm:\t1500.500000\n\ttype:\tengine\n}\n");
    EXPECT_EQ(sink.previousType(), "engine");
    EXPECT_EQ(sink.previousRecord(), values);

    sink.log(ValueMap());
    EXPECT_EQ(sink.previousType(), "");
    EXPECT_TRUE(sink.previousRecord().empty());

    // Logging its own copy again is harmless.
    sink.log(values);
    sink.log(sink.previousRecord());
    EXPECT_EQ(sink.previousRecord(), values);

    // A type that is not text throws, after the record was written.
    out.str("");
    values.set("type", 3);
    EXPECT_THROW(sink.log(values), boost::bad_get);
    EXPECT_EQ(out.str(), "{\n\tok:\ttrue\n\trpm:\t1500.500000\n\ttype:\t3\n}\n");
}

class CsvSinkTest : public ::testing::Test {
protected:
    std::string path;

    void SetUp() override {
        char name[] = "/tmp/telemalog_csv_XXXXXX";
        const int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        path = name;
    }
    void TearDown() override { std::remove(path.c_str()); }

    std::vector<std::string> lines() const {
        std::ifstream in(path);
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) {
            out.push_back(line);
        }
        return out;
    }
};

constexpr const char* kStamp = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";

TEST_F(CsvSinkTest, HeaderOnlyWhenTypeOrKeysChange) {
    {
        CsvSink sink(path);
        ValueMap values = record("engine");
        values.set("rpm", 900);
        sink.log(values);
        values.set("rpm", 950);
        sink.log(values);
        values.set("load", 1.5);
        sink.log(values);
        ValueMap other = values;
        other.set("type", std::string("status"));
        sink.log(other);
        ValueMap untyped;
        untyped.set("x", false);
        sink.log(untyped);
    }
    const std::string stamp = kStamp;
    EXPECT_THAT(
        lines(),
        ElementsAre("engine:,record,timestamp,rpm", MatchesRegex("engine,1," + stamp + ",900"),
                    MatchesRegex("engine,2," + stamp + ",950"), "engine:,record,timestamp,load,rpm",
                    MatchesRegex("engine,3," + stamp + ",1.500000,950"),
                    "status:,record,timestamp,load,rpm",
                    MatchesRegex("status,4," + stamp + ",1.500000,950"), "?:,record,timestamp,x",
                    MatchesRegex("\\?,5," + stamp + ",false")));
}

TEST_F(CsvSinkTest, CellsAreQuotedAndEscapedByAlternative) {
    static const char flag[] = "ignored";
    {
        CsvSink sink(path);
        ValueMap values = record("t");
        values.set("a_empty", EmptyValue());
        values.set("b_text", std::string("say \"hi\"\tback\\slash\nnext\rline"));
        values.set("c_flag", static_cast<const char*>(flag));
        values.set("d_list", std::vector<std::string>{"x", "y"});
        values.set("e_int", -4);
        sink.log(values);
    }
    const auto written = lines();
    ASSERT_EQ(written.size(), 2u) << "a newline inside a value stays on one line";
    EXPECT_EQ(written[0], "t:,record,timestamp,a_empty,b_text,c_flag,d_list,e_int");
    ASSERT_THAT(written[1], MatchesRegex(std::string("t,1,") + kStamp + ",.*"));
    // Type, counter and the fixed-width time come first.
    const std::string cells = written[1].substr(std::string("t,1,").size() + 23);
    EXPECT_EQ(cells, ",,\"say \\\"hi\\\"\\tback\\\\slash\\nnext\\rline\",\"true\",\"[x, y]\",-4");
}

TEST_F(CsvSinkTest, CustomCharactersAndAppending) {
    {
        std::ofstream existing(path);
        existing << "kept\n";
    }
    {
        CsvSink sink(path, ';', '\'', '!');
        ValueMap values = record("t");
        values.set("s", std::string("it's a;b!"));
        sink.log(values);
    }
    const auto written = lines();
    ASSERT_EQ(written.size(), 3u);
    EXPECT_EQ(written[0], "kept");
    EXPECT_EQ(written[1], "t:;record;timestamp;s");
    EXPECT_THAT(written[2], MatchesRegex(std::string("t;1;") + kStamp + ";'it!'s a;b!!'"));
}

TEST(CsvSink, EmptyFileNameWritesToStandardOutput) {
    CsvSink sink("");
    ASSERT_TRUE(sink.hasStream());
    ::testing::internal::CaptureStdout();
    sink.log(record("out"));
    const std::string written = ::testing::internal::GetCapturedStdout();
    EXPECT_THAT(written,
                MatchesRegex(std::string("out:,record,timestamp\nout,1,") + kStamp + "\n"));
}

TEST(CsvSink, UnopenableFileLeavesASilentSink) {
    CsvSink sink("/nonexistent-dir/telemalog.csv");
    EXPECT_FALSE(sink.hasStream());
    sink.log(record("t"));
}

}  // namespace
}  // namespace telemalog
}  // namespace nvsf
