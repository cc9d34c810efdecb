#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "TelematicsCollector/telemaloglib/value_printer.h"
#include "telemalog/sinks/csv_sink.h"
#include "telemalog/sinks/debug_sink.h"

namespace nvsf {
namespace telemalog {
namespace {

using Text = std::string;

TEST(DebugSink, WritesOneLinePerKeyAndRemembersTheRecord) {
    std::ostringstream out;
    DebugSink sink(out);
    ValueMap values = {{"type", Text("engine")}, {"rpm", 1500.5}, {"ok", true}};
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

// `text` with every local time stamp replaced by "T".
Text withoutStamps(const Text& text) {
    static const std::regex stamp(
        "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}");
    return std::regex_replace(text, stamp, "T");
}

class CsvSinkTest : public ::testing::Test {
protected:
    // The sink appends, so each test starts without the file.
    const Text path = "/tmp/telemalog_csv_" + std::to_string(getpid());
    void SetUp() override { std::remove(path.c_str()); }
    void TearDown() override { std::remove(path.c_str()); }

    Text written() const {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return withoutStamps(text.str());
    }
};

TEST_F(CsvSinkTest, HeaderOnlyWhenTypeOrKeysChange) {
    {
        CsvSink sink(path);
        ValueMap values = {{"type", Text("engine")}, {"rpm", 900}};
        sink.log(values);
        values.set("rpm", 950);
        sink.log(values);
        values.set("load", 1.5);
        sink.log(values);
        values.set("type", Text("status"));
        sink.log(values);
        sink.log({{"x", false}});
    }
    EXPECT_EQ(written(),
              "engine:,record,timestamp,rpm\nengine,1,T,900\nengine,2,T,950\n"
              "engine:,record,timestamp,load,rpm\nengine,3,T,1.500000,950\n"
              "status:,record,timestamp,load,rpm\nstatus,4,T,1.500000,950\n"
              "?:,record,timestamp,x\n?,5,T,false\n");
}

TEST_F(CsvSinkTest, CellsAreQuotedAndEscapedByAlternative) {
    static const char flag[] = "ignored";
    {
        CsvSink sink(path);
        sink.log({{"type", Text("t")},
                  {"a_empty", EmptyValue()},
                  {"b_text", Text("say \"hi\"\tback\\slash\nnext\rline")},
                  {"c_flag", static_cast<const char*>(flag)},
                  {"d_list", std::vector<Text>{"x", "y"}},
                  {"e_int", -4}});
    }
    // A newline inside a value stays on one line.
    EXPECT_EQ(written(),
              "t:,record,timestamp,a_empty,b_text,c_flag,d_list,e_int\n"
              "t,1,T,,\"say \\\"hi\\\"\\tback\\\\slash\\nnext\\rline\",\"true\",\"[x, y]\",-4\n");
}

TEST_F(CsvSinkTest, CustomCharactersAndAppending) {
    std::ofstream(path) << "kept\n";
    {
        CsvSink sink(path, ';', '\'', '!');
        sink.log({{"type", Text("t")}, {"s", Text("it's a;b!")}});
    }
    EXPECT_EQ(written(), "kept\nt:;record;timestamp;s\nt;1;T;'it!'s a;b!!'\n");
}

TEST(CsvSink, EmptyNameIsStandardOutputAndAnUnopenableFileNoStream) {
    CsvSink sink("");
    ASSERT_TRUE(sink.hasStream());
    ::testing::internal::CaptureStdout();
    sink.log({{"type", Text("out")}});
    EXPECT_EQ(withoutStamps(::testing::internal::GetCapturedStdout()),
              "out:,record,timestamp\nout,1,T\n");
    EXPECT_FALSE(CsvSink("/nonexistent-dir/telemalog.csv").hasStream());
}

}  // namespace
}  // namespace telemalog
}  // namespace nvsf
