// The Ice service misbehaving in every way it can, against the sink the run loop uses, and
// the run loop around it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TelematicsCollector/telematicsicesink.h"
#include "ice/ice_test_server.h"
#include "support/log_capture.h"
#include "telemalog/sinks/collecting_sink.h"
#include "telematicsloop.h"

using icetest::IceTestServer;
using icetest::Reply;
using logtest::LogCapture;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::Matcher;
using ::testing::StartsWith;

namespace {

// The service's 20 s timeouts and a 25 s late answer, scaled down by the same factor.
constexpr milliseconds kTimeout{300};
constexpr milliseconds kLate{kTimeout * 5 / 4};
constexpr milliseconds kSlack{4000};  // sanitizers on a loaded two-core machine

const std::string kFailure = "Failed to send telematics to ice: ";
const std::string kRetrying = " Retrying.";
const std::string kAborting = " Aborting.";
const std::string kNoReply = "THRIFT_EAGAIN (timed out)";
// Records run to a few kilobytes: more than the transport's 512-byte buffer.
const std::string kBody = "{\"rpm.max\":" + std::string(2000, '7') + "}";

Matcher<std::string> attempt(const std::string& text, const std::string& outcome) {
    return kFailure + text + outcome;
}
// The lines of three failed attempts, each for `text`, or for any text when it is empty.
std::vector<Matcher<std::string>> threeFailures(const std::string& text = "") {
    std::vector<Matcher<std::string>> lines;
    for (const std::string* outcome : {&kRetrying, &kRetrying, &kAborting}) {
        lines.push_back(text.empty() ? AllOf(StartsWith(kFailure), EndsWith(*outcome))
                                     : attempt(text, *outcome));
    }
    return lines;
}

// Each fault of the service, once and for every attempt: the attempts stay three and immediate,
// each failure is logged once (a protocol fault twice, its text alone the second time), the
// send takes no longer than its timeouts allow, and a record is lost only when every attempt
// failed.
TEST(IceFaults, TelematicsIceSinkKeepsItsRetryRule) {
    using Listen = IceTestServer::Listen;
    struct Row {
        const char* name;
        Listen service;
        std::vector<Reply> replies;
        std::vector<Matcher<std::string>> errors;  // every ERROR line, in order
        std::size_t received;                      // requests read whole, the delivered one too
        // The least time the send takes; with no time, it fails or succeeds at once.
        milliseconds atLeast;
    };
    const std::string refused = "socket open() error: Connection refused";
    const std::string cut = "No more data to read.";
    const std::string sizeLimit = "TProtocolException: Exceeded size limit";
    const std::string bad = "Bad version identifier";
    const Listen on = Listen::Accepting;
    const Reply late = Reply::late(kLate);
    const milliseconds zero{0}, slow{3 * kTimeout};
    const Matcher<std::string> retrying = threeFailures()[0];
    const std::vector<Row> rows = {
        {"Down", Listen::Down, {}, threeFailures(refused), 0, zero},
        // Takes the first connection and never reads it; the others cannot connect. The record
        // is larger than the socket buffers, so that first write times out half-way; what was
        // not written is not flushed into a dead connection.
        {"Stalled", Listen::Stalled, {}, threeFailures(), 0, slow},
        {"ResetsOnce", on, {Reply::Reset}, {retrying}, 1, zero},
        {"AnswersWithinTimeout", on, {Reply::late(kTimeout / 2)}, {}, 1, kTimeout / 2},
        {"AnswersLateOnce", on, {late}, {attempt(kNoReply, kRetrying)}, 2, kTimeout},
        {"AnswersLateAlways", on, {late, late, late}, threeFailures(kNoReply), 3, slow},
        {"TextOnce", on, {Reply::HttpError}, {attempt(sizeLimit, kRetrying), sizeLimit}, 2, zero},
        {"AnswersNoiseAlways",
         on,
         std::vector<Reply>(3, Reply::BadVersion),
         {attempt(bad, kRetrying), bad, attempt(bad, kRetrying), bad, attempt(bad, kAborting), bad},
         3,
         zero},
        {"ClosesMidAnswerOnce", on, {Reply::HalfAnswer}, {attempt(cut, kRetrying)}, 2, zero},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        IceTestServer server(0, r.service);
        server.queueReplies(r.replies);
        LogCapture capture("tilthwatch.telematicsicesink");
        TelematicsIceSink sink({}, "127.0.0.1", server.port(), static_cast<int>(kTimeout.count()));
        const std::string body = r.service == Listen::Stalled ? std::string(16 << 20, 'x') : kBody;

        const steady_clock::time_point start = steady_clock::now();
        EXPECT_NO_THROW(sink.sendToIce("machineTelematics", body));
        const auto took = steady_clock::now() - start;

        EXPECT_THAT(capture.errors(), ElementsAreArray(r.errors));
        EXPECT_GE(took, r.atLeast);
        EXPECT_LT(took, r.atLeast == zero ? kTimeout + kSlack / 3 : r.atLeast + kSlack);
        const std::vector<icetest::Call> received = server.calls();
        ASSERT_EQ(received.size(), r.received);
        for (const icetest::Call& request : received) {
            EXPECT_EQ(request.method, "TEL_SendGenericJSON");
            EXPECT_EQ(request.sType, "machineTelematics");
            EXPECT_EQ(request.sPayload, kBody);
        }
    }
}

// The run loop with the service answering late for one record: that pass takes the period
// plus three timeouts, the record still reaches the other sinks, the next passes keep the
// period, and the next record is delivered.
TEST(IceFaults, RunLoopKeepsItsPeriodWhileTheServiceStalls) {
    blockStopSignals();  // before any thread exists, so only the loop takes SIGTERM
    const milliseconds period{400};
    IceTestServer ice;
    ice.queueReplies(std::vector<Reply>(3, Reply::late(kLate)));
    LogCapture capture("tilthwatch.telematicsicesink");

    std::mutex mutex;
    std::vector<steady_clock::time_point> closes;
    auto collector = std::make_shared<nvsf::telemalog::CollectingSink>();
    TelematicsConfig config;
    config.periodMs = period.count();
    config.iceHost = "127.0.0.1";
    config.icePort = ice.port();
    config.iceTimeoutMs = static_cast<int>(kTimeout.count());
    config.zmqEndpoint = "tcp://127.0.0.1:" + std::to_string(icetest::freePort());
    config.machineFilePath = "/nonexistent/machine.json";
    config.detectedMachineFilePath = "/nonexistent/detectedMachine.json";
    config.extraSinks = {collector};
    config.beforeClose = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        closes.push_back(steady_clock::now());
    };

    std::thread loop([&] { runTelematicsLoop(config); });
    const steady_clock::time_point deadline = steady_clock::now() + 10 * period + 3 * kSlack;
    for (std::size_t closed = 0; closed < 4 && steady_clock::now() < deadline;) {
        std::this_thread::sleep_for(milliseconds(5));
        std::lock_guard<std::mutex> lock(mutex);
        closed = closes.size();
    }
    ::kill(::getpid(), SIGTERM);
    loop.join();

    ASSERT_GE(closes.size(), 4u);  // three in the loop, one on the stop
    // The first pass waits out three timeouts before the next period starts.
    EXPECT_GE(closes[1] - closes[0], period + 3 * kTimeout);
    EXPECT_LT(closes[1] - closes[0], period + 3 * kTimeout + kSlack);
    EXPECT_GE(closes[2] - closes[1], period);
    EXPECT_LT(closes[2] - closes[1], period + kSlack);
    // Every record reached the sinks after the Ice sink; the service took each of the first
    // record's attempts, then every later record once.
    EXPECT_EQ(collector->collected().size(), closes.size());
    EXPECT_EQ(ice.calls().size(), 3 + closes.size() - 1);
    EXPECT_THAT(capture.errors(), ElementsAreArray(threeFailures(kNoReply)));
}

}  // namespace
