#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <zmq.hpp>

#include "TelematicsCollector/telematicsicesink.h"
#include "TelematicsCollector/telematicszmqsink.h"
#include "caninterface/peers.h"
#include "ice/ice_test_server.h"
#include "support/log_capture.h"

using icetest::Reply;
using nvsf::telemalog::ValueMap;
using namespace ::testing;

namespace {

// Gives a fixed message, or none, whatever the record.
struct FixedConstructor : TelematicsMessageConstructor {
    FixedConstructor(std::string body, bool built)
        : TelematicsMessageConstructor(nullptr), body(body), built(built) {}
    bool construct(const ValueMap&, std::string& type, std::string& out) override {
        type = "t";
        out = body;
        return built;
    }
    std::string body;
    bool built;
};

std::vector<std::shared_ptr<TelematicsMessageConstructor>> fixed(const std::string& body,
                                                                 bool built = true) {
    return {std::make_shared<FixedConstructor>(body, built)};
}

// Three attempts at once, then the message is dropped; the attempt after the failures is
// answered, and any answer counts as delivered.
TEST(TelematicsIceSink, RetriesAtOnceThenDrops) {
    const std::string failed = "ERROR Failed to send telematics to ice: ";
    const std::string app = failed + "TApplicationException: Internal error";
    const std::string retry = " Retrying.", aborted = " Aborting.", sent = "TRACE t {}";
    const auto refused = AllOf(StartsWith(failed), EndsWith(retry));
    const auto dropped = AllOf(StartsWith(failed), EndsWith(aborted));
    const Reply fail = Reply::ApplicationError;
    const std::vector<
        std::tuple<bool, std::size_t, std::vector<Reply>, std::vector<Matcher<std::string>>>>
        rows = {
            // clang-format off
            // service down, calls made, replies, log lines; two messages each
            {false, 2, {}, {sent, sent}},
            {false, 3, {fail}, {sent, app + retry, sent}},
            {false, 4, {Reply::DropConnection, fail},
             {sent, failed + "No more data to read." + retry, app + retry, sent}},
            {false, 4, {fail, fail, fail}, {sent, app + retry, app + retry, app + aborted, sent}},
            // A protocol fault logs its text a second time on its own. Thrift sets a message
            // on a bad version, and a set message replaces the type's text.
            {false, 3, {Reply::BadVersion},
             {sent, failed + "Bad version identifier" + retry, "ERROR Bad version identifier",
              sent}},
            {true, 0, {}, {sent, refused, refused, dropped, sent, refused, refused, dropped}},
            // clang-format on
        };
    for (const auto& [down, calls, replies, lines] : rows) {
        icetest::IceTestServer server(-1);
        server.queueReplies(replies);
        if (down) {
            server.stop();
        }
        logtest::LogCapture capture("tilthwatch.telematicsicesink");
        auto constructors = fixed("{}");
        constructors.push_back(fixed("x", false).front());  // built messages only are sent
        constructors.push_back(fixed("{}").front());
        TelematicsIceSink(constructors, "127.0.0.1", server.port()).log(ValueMap());
        const std::vector<icetest::Call> made = server.calls();
        ASSERT_EQ(made.size(), calls);
        if (!down) {  // the last call was answered and carries the message
            EXPECT_EQ(made.back().method + " " + made.back().sType + " " + made.back().sPayload,
                      "TEL_SendGenericJSON t {}");
        }
        EXPECT_THAT(capture.lines(), ElementsAreArray(lines));
    }
}

// The frame is the body's text up to a zero byte, padded to the body's length plus one. A
// second sink cannot bind the endpoint of the first.
TEST(TelematicsZmqSink, PublishesTheBodyWithItsZeroByte) {
    for (const std::string& body : {std::string("ETS 2"), std::string("ab\0cd", 5)}) {
        TelematicsZmqSink sink(fixed(body), "tcp://127.0.0.1:*");
        EXPECT_THROW(TelematicsZmqSink(fixed(body), sink.boundEndpoint()), zmq::error_t);
        cantest::Peers subscriber(std::vector<std::string>{});
        subscriber.attach(sink.boundEndpoint());
        // Frames published before the subscription reaches the publisher are dropped.
        ASSERT_TRUE(cantest::eventually([&] {
            sink.log(ValueMap());
            return !subscriber.published().empty();
        }));
        EXPECT_EQ(subscriber.published().front().bytes,
                  body[0] == 'E' ? std::string("ETS 2\0", 6) : std::string("ab\0\0\0\0", 6));
    }
}

}  // namespace
