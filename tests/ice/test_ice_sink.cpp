// The library's Ice sink: key and value columns through TEL_SendGeneric over a kept
// connection, and its own retry rule.

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

namespace {

const char* kCategory = "telemalog.sinks.ice";

// "type" travels as a column like every other key; a map without it goes with an empty type.
TEST(IceSink, LogSendsEveryEntryAsTypedColumnsInKeyOrder) {
    IceTestServer server;
    LogCapture capture(kCategory);
    IceSink sink("127.0.0.1", server.port());
    ASSERT_TRUE(sink.connect());
    EXPECT_THAT(capture.messagesAt(log4cplus::INFO_LOG_LEVEL),
                ElementsAre("Thrift ICE Connection successful."));
    ValueMap record;
    record.set("type", std::string("engineSummary"));
    record.set("b.flag", true);
    record.set("c.off", false);
    record.set("d.count", 42);
    record.set("e.mean", 1.5);
    record.set("f.values", std::vector<int>{1, 2});
    record.set("g.empty", nvsf::telemalog::EmptyValue());
    sink.log(record);
    EXPECT_TRUE(capture.errors().empty());
    ValueMap untyped;
    untyped.set("rpm.max", 1800.0);
    sink.log(untyped);

    EXPECT_THAT(capture.errors(),
                ElementsAre("Programmer Error: Attempt to send telematics without type."));
    // Each call as "method type key=value:column type ...", the types 0 string, 1 integer,
    // 2 double.
    std::vector<std::string> calls;
    for (const icetest::Call& call : server.calls()) {
        calls.push_back(call.method + " " + call.sType);
        for (std::size_t i = 0; i < call.sKey.size(); ++i) {
            calls.back() += " " + call.sKey[i] + "=" + call.sValue.at(i) + ":" +
                            std::to_string(call.eType.at(i));
        }
    }
    EXPECT_EQ(calls, (std::vector<std::string>{
                         "TEL_SendGeneric engineSummary b.flag=1:1 c.off=0:1 d.count=42:1 "
                         "e.mean=1.500000:2 f.values=[1, 2]:0 g.empty=<null>:0 "
                         "type=engineSummary:0",
                         "TEL_SendGeneric  rpm.max=1800.000000:2"}));
}

// What the service does with the first calls, or whether it is down; the retry count; what
// send gives, how many calls reach the service, and the ERROR lines. Each failure reconnects,
// and a send after it finds a clean connection: nothing of a garbled reply is left over.
TEST(IceSink, SendRetriesAsDesigned) {
    const auto generic = StartsWith("Thrift Generic Error on Send: ");
    const auto transport = StartsWith("Thrift Transport Error on Send: ");
    const auto connect = StartsWith("Thrift Transport Error on Connect: ");
    const char* retry1 = "ICE Send Failed: Retry 1";
    const char* retry2 = "ICE Send Failed: Retry 2";
    const std::string protocol = "Thrift Protocol Error on Send: ";
    const std::string badVersion = "Bad version identifier";
    const std::string sizeLimit = "TProtocolException: Exceeded size limit";
    const Reply fail = Reply::ApplicationError;
    struct Row {
        const char* name;
        bool down;
        int retries;
        bool expected;
        std::size_t calls;
        std::vector<Reply> replies;
        std::vector<::testing::Matcher<std::string>> errors;
    };
    const std::vector<Row> rows = {
        {"FirstCallSucceeds", false, 1, true, 1, {}, {}},
        {"SecondCallSucceeds", false, 1, true, 2, {fail}, {generic, retry1}},
        // retries 1: at most two calls, and both retry counts logged.
        {"TwoCallsAtMost", false, 1, false, 2, {fail, fail}, {generic, retry1, generic, retry2}},
        {"DropReopens", false, 1, true, 2, {Reply::DropConnection}, {transport, retry1}},
        {"ZeroRetriesCallOnce", false, 0, false, 1, {fail}, {generic, retry1}},
        // A protocol fault is not retried; a huge string announced is refused unread.
        {"BadVersion", false, 3, false, 1, {Reply::BadVersion}, {protocol + badVersion}},
        {"TextReply", false, 3, false, 1, {Reply::HttpError}, {protocol + sizeLimit}},
        {"NegativeRetries", false, -1, false, 0, {}, {}},
        {"Down", true, 1, false, 0, {}, {transport, retry1, connect, transport, retry2, connect}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        IceTestServer server(
            0, r.down ? IceTestServer::Listen::Down : IceTestServer::Listen::Accepting);
        server.queueReplies(r.replies);
        IceSink sink("127.0.0.1", server.port());
        EXPECT_EQ(sink.connect(), !r.down);
        LogCapture capture(kCategory);
        const std::vector<ice::eDataType::type> types{ice::eDataType::json_STRING};
        EXPECT_EQ(sink.send("t", types, {"type"}, {"t"}, r.retries), r.expected);
        EXPECT_THAT(capture.errors(), ElementsAreArray(r.errors));
        EXPECT_EQ(server.calls().size(), r.calls);
        EXPECT_EQ(sink.send("t", types, {"type"}, {"t"}, 0), !r.down);
        EXPECT_EQ(server.calls().size(), r.calls + (r.down ? 0 : 1));
    }
}

}  // namespace
