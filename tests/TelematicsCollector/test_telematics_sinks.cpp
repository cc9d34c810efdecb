#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <zmq.hpp>

#include "TelematicsCollector/properties.h"
#include "TelematicsCollector/telematicsicesink.h"
#include "TelematicsCollector/telematicsmessageconstructor.h"
#include "TelematicsCollector/telematicszmqsink.h"
#include "app/loopback.h"
#include "ice/ice_test_server.h"
#include "support/log_capture.h"

using icetest::IceTestServer;
using icetest::Reply;
using logtest::LogCapture;
using nvsf::telemalog::ValueMap;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::StartsWith;

namespace {

using Constructors = std::vector<std::shared_ptr<TelematicsMessageConstructor>>;

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

TEST(TelematicsIceSink, DeliversEachBuiltMessageOnceAsJson) {
    IceTestServer server(-1);  // any reply counts as delivered
    LogCapture capture("tilthwatch.telematicsicesink");
    TelematicsIceSink sink(Constructors{std::make_shared<MachineTelematicsMessageConstructor>(
                                            std::make_shared<Properties>()),
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

// Three attempts at once, then the message is dropped; the attempt after the failures is
// answered.
TEST(TelematicsIceSink, RetriesAtOnceThenDrops) {
    const std::string app = kFailure + "TApplicationException: Internal error";
    const std::string drop = kFailure + "No more data to read.";
    const std::string bad = kFailure + "Bad version identifier";
    const std::string retry = " Retrying.", aborted = " Aborting.";
    const auto retrying = AllOf(StartsWith(kFailure), EndsWith(retry));
    const auto aborting = AllOf(StartsWith(kFailure), EndsWith(aborted));
    const Reply fail = Reply::ApplicationError;
    struct Row {
        const char* name;
        bool down;
        std::size_t calls;
        std::vector<Reply> replies;
        std::vector<::testing::Matcher<std::string>> errors;
    };
    const std::vector<Row> rows = {
        {"FirstSucceeds", false, 1, {}, {}},
        {"SecondSucceeds", false, 2, {fail}, {app + retry}},
        {"ThirdSucceeds", false, 3, {Reply::DropConnection, fail}, {drop + retry, app + retry}},
        {"AllThreeFail", false, 3, {fail, fail, fail}, {app + retry, app + retry, app + aborted}},
        // A protocol fault logs its text a second time on its own. Thrift sets a message on
        // a bad version, and a set message replaces the type's text.
        {"ProtocolTwice", false, 2, {Reply::BadVersion}, {bad + retry, "Bad version identifier"}},
        {"ServiceDown", true, 0, {}, {retrying, retrying, aborting}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        IceTestServer server;
        server.queueReplies(r.replies);
        if (r.down) {
            server.stop();
        }
        LogCapture capture("tilthwatch.telematicsicesink");
        TelematicsIceSink sink(Constructors{std::make_shared<FixedConstructor>("t", "{}")},
                               "127.0.0.1", server.port());

        sink.log(ValueMap());

        EXPECT_EQ(server.calls().size(), r.calls);
        EXPECT_THAT(capture.errors(), ElementsAreArray(r.errors));
    }
}

// Publishes through `sink` until a frame arrives: a new subscription takes a moment to reach
// the publisher, and frames sent before it are dropped.
std::string firstFrame(TelematicsZmqSink& sink, const ValueMap& record) {
    apptest::FrameCollector subscriber(sink.boundEndpoint());
    const auto published = [&] {
        sink.log(record);
        return !subscriber.frames().empty();
    };
    if (!apptest::eventually(published, std::chrono::seconds(10))) {
        return "no frame received";
    }
    return subscriber.frames().front().bytes;
}

// The frame is the body's text up to a zero byte, padded to the body's length plus one.
TEST(TelematicsZmqSink, PublishesTheBodyWithItsZeroByte) {
    auto status =
        std::make_shared<MachineTelematicsStatusMessageConstructor>(std::make_shared<Properties>());
    TelematicsZmqSink sink(Constructors{status}, "tcp://127.0.0.1:*");
    EXPECT_EQ(firstFrame(sink, recordWithRpm(1)), std::string("ETS 2\0", 6));
    EXPECT_EQ(firstFrame(sink, recordWithRpm(0)), std::string("ETS 0\0", 6));

    TelematicsZmqSink cut(
        Constructors{std::make_shared<FixedConstructor>("ignored", std::string("ab\0cd", 5))},
        "tcp://127.0.0.1:*");
    EXPECT_EQ(firstFrame(cut, ValueMap()), std::string("ab\0\0\0\0", 6));
}

TEST(TelematicsZmqSink, SecondSinkOnTheSameEndpointFailsAtConstruction) {
    TelematicsZmqSink first(Constructors{std::make_shared<FixedConstructor>("", "ETS 0")},
                            "tcp://127.0.0.1:*");
    EXPECT_THROW(TelematicsZmqSink(Constructors{}, first.boundEndpoint()), zmq::error_t);
}

}  // namespace
