#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <zmq.hpp>

#include "TelematicsCollector/properties.h"
#include "TelematicsCollector/telematicsicesink.h"
#include "TelematicsCollector/telematicsmessageconstructor.h"
#include "TelematicsCollector/telematicszmqsink.h"
#include "ice/ice_test_server.h"
#include "ice/log_capture.h"

using icetest::IceTestServer;
using icetest::Reply;
using logtest::LogCapture;
using nvsf::telemalog::ValueMap;
using ::testing::ElementsAre;

namespace {

using Constructors = std::vector<std::shared_ptr<TelematicsMessageConstructor>>;

const char* kCategory = "tilthwatch.telematicsicesink";
const std::string kFailure = "Failed to send telematics to ice: ";

// Gives a fixed message, or none, whatever the record.
class FixedConstructor : public TelematicsMessageConstructor {
public:
    FixedConstructor(std::string type, std::string body, bool built = true)
        : TelematicsMessageConstructor(nullptr), type_(type), body_(body), built_(built) {}
    bool construct(const ValueMap&, std::string& type, std::string& body) override {
        type = type_;
        body = body_;
        return built_;
    }

private:
    std::string type_, body_;
    bool built_;
};

// A closed record in which only "rpm" may have had events.
ValueMap recordWithRpm(int events) {
    ValueMap record;
    for (const PropertyBase* property : Properties().engineProperties) {
        record.set(property->name + ".event_count", 0);
    }
    record.set("rpm.event_count", events);
    for (const char* aggregate : {"rpm.min", "rpm.max", "rpm.chrono_mean", "rpm.last"}) {
        record.set(aggregate, 1000.0);
    }
    return record;
}

int closedPort() {
    return IceTestServer().port();
}

TEST(TelematicsIceSink, DeliversEachBuiltMessageOnceAsJson) {
    IceTestServer server;
    server.setSuccessValue(-1);  // any reply counts as delivered
    LogCapture capture(kCategory);
    auto properties = std::make_shared<Properties>();
    TelematicsIceSink sink(
        Constructors{std::make_shared<MachineTelematicsMessageConstructor>(properties),
                     std::make_shared<FixedConstructor>("skipped", "x", false),
                     std::make_shared<FixedConstructor>("second", "2")},
        "127.0.0.1", server.port());

    sink.log(recordWithRpm(1));

    const std::vector<icetest::Call> calls = server.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].method, "TEL_SendGenericJSON");
    EXPECT_EQ(calls[0].sType, "machineTelematics");
    EXPECT_EQ(calls[0].sPayload,
              R"({"engine":{"rpm":{"min":"1000","max":"1000","avg":"1000","cur":"1000"}}})");
    EXPECT_EQ(calls[1].sType + calls[1].sPayload, "second2");
    EXPECT_TRUE(capture.errors().empty());
    EXPECT_THAT(capture.messagesAt(log4cplus::TRACE_LOG_LEVEL),
                ElementsAre("machineTelematics " + calls[0].sPayload, "second 2"));
}

// Each row: how the service fails the first attempts, then the ERROR lines expected.
struct RetryCase {
    const char* name;
    std::vector<Reply> replies;
    std::vector<std::string> errors;
};
void PrintTo(const RetryCase& c, std::ostream* os) {
    *os << c.name;
}

class TelematicsIceSinkRetry : public ::testing::TestWithParam<RetryCase> {};

TEST_P(TelematicsIceSinkRetry, RetriesAtOnceThenDrops) {
    const RetryCase& c = GetParam();
    IceTestServer server;
    server.queueReplies(c.replies);
    LogCapture capture(kCategory);
    TelematicsIceSink sink(Constructors{}, "127.0.0.1", server.port());

    sink.sendToIce("machineTelematics", "{}");

    // Three attempts at most; the one after the failures is answered.
    EXPECT_EQ(server.calls().size(), std::min<std::size_t>(3, c.replies.size() + 1));
    EXPECT_EQ(capture.errors(), c.errors);
}

const std::string kAppError = kFailure + "TApplicationException: Internal error";
const Reply kFail = Reply::ApplicationError;

INSTANTIATE_TEST_SUITE_P(
    Cases, TelematicsIceSinkRetry,
    ::testing::Values(
        RetryCase{"FirstAttemptSucceeds", {}, {}},
        RetryCase{"SecondAttemptSucceeds", {kFail}, {kAppError + " Retrying."}},
        RetryCase{"ThirdAttemptSucceeds",
                  {Reply::DropConnection, kFail},
                  {kFailure + "No more data to read. Retrying.", kAppError + " Retrying."}},
        RetryCase{"AllThreeFail",
                  {kFail, kFail, kFail},
                  {kAppError + " Retrying.", kAppError + " Retrying.", kAppError + " Aborting."}},
        // A protocol fault logs its text a second time on its own. Thrift sets a message on
        // a bad version, and a set message replaces the type's text.
        RetryCase{"ProtocolFaultIsLoggedTwice",
                  {Reply::BadVersion},
                  {kFailure + "Bad version identifier Retrying.", "Bad version identifier"}}),
    [](const ::testing::TestParamInfo<RetryCase>& info) { return info.param.name; });

TEST(TelematicsIceSink, ServiceDownGivesThreeErrorsAndDropsTheRecord) {
    LogCapture capture(kCategory);
    auto properties = std::make_shared<Properties>();
    TelematicsIceSink sink(
        Constructors{std::make_shared<MachineTelematicsMessageConstructor>(properties)},
        "127.0.0.1", closedPort());

    sink.log(recordWithRpm(1));

    const std::vector<std::string> errors = capture.errors();
    ASSERT_EQ(errors.size(), 3u);
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_TRUE(logtest::startsWith(errors[i], kFailure)) << errors[i];
        const std::string tail = i < 2 ? " Retrying." : " Aborting.";
        EXPECT_EQ(errors[i].substr(errors[i].size() - tail.size()), tail);
    }
}

// Publishes through `sink` until a frame arrives: a new subscription takes a moment to reach
// the publisher, and frames sent before it are dropped.
std::string firstFrame(TelematicsZmqSink& sink, const ValueMap& record) {
    zmq::context_t context;
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.set(zmq::sockopt::subscribe, "");
    subscriber.set(zmq::sockopt::rcvtimeo, 100);
    subscriber.connect(sink.boundEndpoint());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        sink.log(record);
        zmq::message_t frame;
        if (subscriber.recv(frame)) {
            return frame.to_string();
        }
    }
    return "no frame received";
}

TEST(TelematicsZmqSink, PublishesTheStatusWithItsZeroByte) {
    auto properties = std::make_shared<Properties>();
    TelematicsZmqSink sink(
        Constructors{std::make_shared<MachineTelematicsStatusMessageConstructor>(properties)},
        "tcp://127.0.0.1:*");
    EXPECT_EQ(firstFrame(sink, recordWithRpm(1)), std::string("ETS 2\0", 6));
    EXPECT_EQ(firstFrame(sink, recordWithRpm(0)), std::string("ETS 0\0", 6));
}

TEST(TelematicsZmqSink, SendsTheBodyOnlyCutAtAnInnerZero) {
    TelematicsZmqSink sink(
        Constructors{std::make_shared<FixedConstructor>("ignored", std::string("ab\0cd", 5))},
        "tcp://127.0.0.1:*");
    EXPECT_EQ(firstFrame(sink, ValueMap()), std::string("ab\0\0\0\0", 6));
}

TEST(TelematicsZmqSink, SecondSinkOnTheSameEndpointFailsAtConstruction) {
    TelematicsZmqSink first(Constructors{std::make_shared<FixedConstructor>("", "ETS 0")},
                            "tcp://127.0.0.1:*");
    EXPECT_NO_THROW(first.log(ValueMap()));  // nobody subscribed: the frame is lost quietly
    EXPECT_THROW(TelematicsZmqSink(Constructors{}, first.boundEndpoint()), zmq::error_t);
}

}  // namespace
