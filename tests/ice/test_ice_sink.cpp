#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ice/ice_test_server.h"
#include "support/log_capture.h"
#include "telemalog/sinks/ice_sink.h"

using icetest::IceTestServer;
using icetest::Reply;
using logtest::LogCapture;
using nvsf::telemalog::IceSink;
using nvsf::telemalog::ValueMap;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::StartsWith;
using Lines = std::vector<::testing::Matcher<std::string>>;

namespace {

const char* kCategory = "telemalog.sinks.ice";

TEST(IceSink, LogSendsEveryEntryAsTypedColumnsInKeyOrder) {
    IceTestServer server;
    IceSink sink("127.0.0.1", server.port());
    ASSERT_TRUE(sink.connect());

    ValueMap record;
    record.set("type", std::string("engineSummary"));
    record.set("b.flag", true);
    record.set("c.off", false);
    record.set("d.count", 42);
    record.set("e.mean", 1.5);
    record.set("f.values", std::vector<int>{1, 2});
    record.set("g.empty", nvsf::telemalog::EmptyValue());
    sink.log(record);

    ASSERT_EQ(server.calls().size(), 1u);
    const icetest::Call call = server.calls()[0];
    EXPECT_EQ(call.method, "TEL_SendGeneric");
    EXPECT_EQ(call.sType, "engineSummary");
    // "type" travels as a column like every other key.
    EXPECT_THAT(call.sKey,
                ElementsAre("b.flag", "c.off", "d.count", "e.mean", "f.values", "g.empty", "type"));
    EXPECT_THAT(call.sValue,
                ElementsAre("1", "0", "42", "1.500000", "[1, 2]", "<null>", "engineSummary"));
    using T = ice::eDataType;
    EXPECT_THAT(call.eType,
                ElementsAre(T::json_INTEGER, T::json_INTEGER, T::json_INTEGER, T::json_DOUBLE,
                            T::json_STRING, T::json_STRING, T::json_STRING));
}

TEST(IceSink, RecordWithoutTypeIsSentWithEmptyTypeAfterError) {
    IceTestServer server;
    LogCapture capture(kCategory);
    IceSink sink("127.0.0.1", server.port());
    ASSERT_TRUE(sink.connect());

    ValueMap record;
    record.set("rpm.max", 1800.0);
    sink.log(record);

    EXPECT_THAT(capture.errors(),
                ElementsAre("Programmer Error: Attempt to send telematics without type."));
    ASSERT_EQ(server.calls().size(), 1u);
    EXPECT_EQ(server.calls()[0].sType, "");
}

TEST(IceSink, ConnectReportsSuccessAndFailure) {
    LogCapture capture(kCategory);
    IceTestServer server;
    IceSink up("127.0.0.1", server.port());
    EXPECT_TRUE(up.connect());
    EXPECT_TRUE(up.connect());  // an open connection is closed and opened again
    IceSink down("127.0.0.1", icetest::freePort());
    EXPECT_FALSE(down.connect());

    EXPECT_THAT(
        capture.messagesAt(log4cplus::INFO_LOG_LEVEL),
        ElementsAre("Thrift ICE Connection successful.", "Thrift ICE Connection successful."));
    EXPECT_THAT(capture.errors(), ElementsAre(StartsWith("Thrift Transport Error on Connect: ")));
}

TEST(IceSink, SendRetriesAsDesigned) {
    const auto generic = StartsWith("Thrift Generic Error on Send: ");
    const auto transport = StartsWith("Thrift Transport Error on Send: ");
    const auto connect = StartsWith("Thrift Transport Error on Connect: ");
    const char* retry1 = "ICE Send Failed: Retry 1";
    const char* retry2 = "ICE Send Failed: Retry 2";
    const char* protocol = "Thrift Protocol Error on Send: Bad version identifier";
    const Reply fail = Reply::ApplicationError;
    // What the service does with the first calls (or whether it is down), the retry count,
    // what send gives, how many calls reach the service, and the ERROR lines.
    struct Row {
        const char* name;
        bool down;
        int retries;
        bool expected;
        std::size_t calls;
        std::vector<Reply> replies;
        Lines errors;
    };
    const std::vector<Row> rows = {
        {"FirstCallSucceeds", false, 1, true, 1, {}, {}},
        {"SecondCallSucceeds", false, 1, true, 2, {fail}, {generic, retry1}},
        // retries 1: at most two calls, and both retry counts logged.
        {"TwoCallsAtMost", false, 1, false, 2, {fail, fail}, {generic, retry1, generic, retry2}},
        {"DropReopens", false, 1, true, 2, {Reply::DropConnection}, {transport, retry1}},
        {"ZeroRetriesCallOnce", false, 0, false, 1, {fail}, {generic, retry1}},
        {"ProtocolFaultNotRetried", false, 3, false, 1, {Reply::BadVersion}, {protocol}},
        {"NegativeRetries", false, -1, false, 0, {}, {}},
        {"Down", true, 1, false, 0, {}, {transport, retry1, connect, transport, retry2, connect}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        IceTestServer server;
        server.queueReplies(r.replies);
        if (r.down) {
            server.stop();
        }
        IceSink sink("127.0.0.1", server.port());
        if (!r.down) {
            ASSERT_TRUE(sink.connect());
        }
        LogCapture capture(kCategory);

        EXPECT_EQ(sink.send("t", {ice::eDataType::json_STRING}, {"type"}, {"t"}, r.retries),
                  r.expected);

        EXPECT_EQ(server.calls().size(), r.calls);
        EXPECT_THAT(capture.errors(), ElementsAreArray(r.errors));
    }
}

}  // namespace
