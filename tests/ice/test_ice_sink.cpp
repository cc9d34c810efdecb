#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "ice/ice_test_server.h"
#include "ice/log_capture.h"
#include "telemalog/sinks/ice_sink.h"

using icetest::IceTestServer;
using icetest::Reply;
using logtest::LogCapture;
using nvsf::telemalog::IceSink;
using nvsf::telemalog::ValueMap;
using ::testing::ElementsAre;

namespace {

const char* kCategory = "telemalog.sinks.ice";

// A loopback port nobody listens on: taken from a server that is then stopped.
int closedPort() {
    return IceTestServer().port();
}

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
    IceSink down("127.0.0.1", closedPort());
    EXPECT_FALSE(down.connect());

    EXPECT_THAT(
        capture.messagesAt(log4cplus::INFO_LOG_LEVEL),
        ElementsAre("Thrift ICE Connection successful.", "Thrift ICE Connection successful."));
    ASSERT_EQ(capture.errors().size(), 1u);
    EXPECT_TRUE(logtest::startsWith(capture.errors()[0], "Thrift Transport Error on Connect: "));
}

// Each row: what the service does with the first calls, the retry count, what send gives, how
// many calls reach the service, and the ERROR lines by their beginning.
struct SendCase {
    const char* name;
    std::vector<Reply> replies;
    int retries;
    bool expected;
    std::size_t calls;
    std::vector<std::string> errors;
};
void PrintTo(const SendCase& c, std::ostream* os) {
    *os << c.name;
}

class IceSinkSend : public ::testing::TestWithParam<SendCase> {};

TEST_P(IceSinkSend, RetriesAsDesigned) {
    const SendCase& c = GetParam();
    IceTestServer server;
    server.queueReplies(c.replies);
    IceSink sink("127.0.0.1", server.port());
    ASSERT_TRUE(sink.connect());
    LogCapture capture(kCategory);

    EXPECT_EQ(sink.send("t", {ice::eDataType::json_STRING}, {"type"}, {"t"}, c.retries),
              c.expected);

    EXPECT_EQ(server.calls().size(), c.calls);
    const std::vector<std::string> errors = capture.errors();
    ASSERT_EQ(errors.size(), c.errors.size()) << ::testing::PrintToString(errors);
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_TRUE(logtest::startsWith(errors[i], c.errors[i])) << errors[i];
    }
}

const char* kGeneric = "Thrift Generic Error on Send: ";
const char* kTransport = "Thrift Transport Error on Send: ";
const char* kRetry1 = "ICE Send Failed: Retry 1";
const char* kRetry2 = "ICE Send Failed: Retry 2";
const Reply kFail = Reply::ApplicationError;

INSTANTIATE_TEST_SUITE_P(
    Cases, IceSinkSend,
    ::testing::Values(SendCase{"FirstCallSucceeds", {}, 1, true, 1, {}},
                      SendCase{"SecondCallSucceeds", {kFail}, 1, true, 2, {kGeneric, kRetry1}},
                      // retries 1: at most two calls, and both retry counts logged.
                      SendCase{"GivesUpAfterTwoCalls",
                               {kFail, kFail, kFail},
                               1,
                               false,
                               2,
                               {kGeneric, kRetry1, kGeneric, kRetry2}},
                      SendCase{"DroppedConnectionIsReopened",
                               {Reply::DropConnection},
                               1,
                               true,
                               2,
                               {kTransport, kRetry1}},
                      SendCase{"ZeroRetriesCallOnce", {kFail}, 0, false, 1, {kGeneric, kRetry1}},
                      SendCase{"ProtocolFaultIsNotRetried",
                               {Reply::BadVersion},
                               3,
                               false,
                               1,
                               {"Thrift Protocol Error on Send: Bad version identifier"}},
                      SendCase{"NegativeRetriesSendNothing", {}, -1, false, 0, {}}),
    [](const ::testing::TestParamInfo<SendCase>& info) { return info.param.name; });

TEST(IceSink, SendWithServiceDownLogsBothRetriesAndGivesFalse) {
    IceSink sink("127.0.0.1", closedPort());
    LogCapture capture(kCategory);

    EXPECT_FALSE(sink.send("t", {}, {}, {}, 1));

    const std::vector<std::string> errors = capture.errors();
    ASSERT_EQ(errors.size(), 6u) << ::testing::PrintToString(errors);
    EXPECT_TRUE(logtest::startsWith(errors[0], kTransport));
    EXPECT_EQ(errors[1], kRetry1);
    EXPECT_TRUE(logtest::startsWith(errors[2], "Thrift Transport Error on Connect: "));
    EXPECT_EQ(errors[4], kRetry2);
}

}  // namespace
