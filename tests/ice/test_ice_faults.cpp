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
#include "ice/faulty_ice_server.h"
#include "ice/ice_test_server.h"
#include "support/log_capture.h"
#include "telemalog/sinks/collecting_sink.h"
#include "telemalog/sinks/ice_sink.h"
#include "telematicsloop.h"

using icetest::Fault;
using icetest::FaultyIceServer;
using logtest::LogCapture;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Matcher;
using ::testing::StartsWith;

namespace {

// The service's 20 s timeouts and a 25 s late answer, scaled down by the same factor.
constexpr milliseconds kTimeout{300};
constexpr milliseconds kLate{kTimeout * 5 / 4};
// What a loaded machine, a sanitizer or an emulator may add to a run.
constexpr milliseconds kSlack{4000};  // sanitizers on a loaded two-core machine

const std::string kFailure = "Failed to send telematics to ice: ";
const std::string kRetrying = " Retrying.";
const std::string kAborting = " Aborting.";
// Records run to a few kilobytes: more than the transport's 512-byte buffer.
const std::string kBody = "{\"rpm.max\":" + std::string(2000, '7') + "}";
// The first bytes read as a string length of over a gigabyte.
const std::string kHttpError = "HTTP/1.1 400 Bad Request\r\n\r\n";
// The first bytes read as a protocol version that does not exist.
const std::string kBinaryNoise = std::string("\xde\xad\xbe\xef", 4) + "0123456789abcdef";

Matcher<std::string> attempt(const std::string& text, const std::string& outcome) {
    return kFailure + text + outcome;
}
Matcher<std::string> anyAttempt(const std::string& outcome) {
    return AllOf(StartsWith(kFailure), EndsWith(outcome));
}

struct Row {
    const char* name;
    enum { Listening, Down, Stalled, NeverAccepting } service;
    std::vector<Fault> faults;
    // Every ERROR line of the sink, in order.
    std::vector<Matcher<std::string>> errors;
    // Requests the service read in full, the delivered one included.
    std::size_t received;
    // Bounds of the time the send took.
    milliseconds atLeast;
    milliseconds below;
};

// Each fault of the service, once and for every attempt: the attempts stay three and immediate,
// each failure is logged once (a protocol fault twice, its text alone the second time), the
// send takes no longer than its timeouts allow, and a record is lost only when every attempt
// failed.
TEST(IceFaults, TelematicsIceSinkKeepsItsRetryRule) {
    const std::string refused = "socket open() error: Connection refused";
    const std::string noReply = "THRIFT_EAGAIN (timed out)";
    const std::string cut = "No more data to read.";
    const std::string sizeLimit = "TProtocolException: Exceeded size limit";
    const std::string badVersion = "Bad version identifier";
    const Fault late = Fault::late(kLate);
    const milliseconds zero{0}, fast{kTimeout};
    const std::vector<Row> rows = {
        {"Down",
         Row::Down,
         {},
         {attempt(refused, kRetrying), attempt(refused, kRetrying), attempt(refused, kAborting)},
         0,
         zero,
         fast},
        {"NeverAccepting",
         Row::NeverAccepting,
         {},
         {anyAttempt(kRetrying), anyAttempt(kRetrying), anyAttempt(kAborting)},
         0,
         3 * kTimeout,
         3 * kTimeout + kSlack},
        // Takes the first connection and never reads it; the others cannot connect.
        {"Stalled",
         Row::Stalled,
         {},
         {attempt(noReply, kRetrying), anyAttempt(kRetrying), anyAttempt(kAborting)},
         0,
         3 * kTimeout,
         3 * kTimeout + kSlack},
        {"ResetsOnce", Row::Listening, {Fault::reset()}, {anyAttempt(kRetrying)}, 1, zero, fast},
        {"ResetsAlways",
         Row::Listening,
         {Fault::reset(), Fault::reset(), Fault::reset()},
         {anyAttempt(kRetrying), anyAttempt(kRetrying), anyAttempt(kAborting)},
         0,
         zero,
         fast},
        {"AnswersWithinTimeout",
         Row::Listening,
         {Fault::late(kTimeout / 2)},
         {},
         1,
         kTimeout / 2,
         kTimeout + kSlack},
        {"AnswersLateOnce",
         Row::Listening,
         {late},
         {attempt(noReply, kRetrying)},
         2,
         kTimeout,
         kTimeout + kSlack},
        {"AnswersLateAlways",
         Row::Listening,
         {late, late, late},
         {attempt(noReply, kRetrying), attempt(noReply, kRetrying), attempt(noReply, kAborting)},
         3,
         3 * kTimeout,
         3 * kTimeout + kSlack},
        {"AnswersTextOnce",
         Row::Listening,
         {Fault::garbage(kHttpError)},
         {attempt(sizeLimit, kRetrying), sizeLimit},
         2,
         zero,
         fast},
        {"AnswersNoiseOnce",
         Row::Listening,
         {Fault::garbage(kBinaryNoise)},
         {attempt(badVersion, kRetrying), badVersion},
         2,
         zero,
         fast},
        {"AnswersNoiseAlways",
         Row::Listening,
         {Fault::garbage(kBinaryNoise), Fault::garbage(kBinaryNoise), Fault::garbage(kBinaryNoise)},
         {attempt(badVersion, kRetrying), badVersion, attempt(badVersion, kRetrying), badVersion,
          attempt(badVersion, kAborting), badVersion},
         3,
         zero,
         fast},
        {"ClosesMidAnswerOnce",
         Row::Listening,
         {Fault::halfAnswer()},
         {attempt(cut, kRetrying)},
         2,
         zero,
         fast},
        {"ClosesMidAnswerAlways",
         Row::Listening,
         {Fault::halfAnswer(), Fault::halfAnswer(), Fault::halfAnswer()},
         {attempt(cut, kRetrying), attempt(cut, kRetrying), attempt(cut, kAborting)},
         3,
         zero,
         fast},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        std::unique_ptr<FaultyIceServer> server;
        int port = 0;
        if (r.service == Row::Down) {
            port = icetest::freePort();
        } else if (r.service == Row::Stalled) {
            server = std::make_unique<FaultyIceServer>(FaultyIceServer::Stalled{});
            port = server->port();
        } else if (r.service == Row::NeverAccepting) {
            server = std::make_unique<FaultyIceServer>(FaultyIceServer::NeverAccepting{});
            port = server->port();
        } else {
            server = std::make_unique<FaultyIceServer>(r.faults);
            port = server->port();
        }
        LogCapture capture("tilthwatch.telematicsicesink");
        TelematicsIceSink sink({}, "127.0.0.1", port, static_cast<int>(kTimeout.count()));

        const steady_clock::time_point start = steady_clock::now();
        sink.sendToIce("machineTelematics", kBody);
        const auto took = steady_clock::now() - start;

        EXPECT_THAT(capture.errors(), ElementsAreArray(r.errors));
        EXPECT_GE(took, r.atLeast);
        EXPECT_LT(took, r.below + kSlack / 3);
        const std::vector<icetest::Received> received =
            server ? server->received() : std::vector<icetest::Received>{};
        ASSERT_EQ(received.size(), r.received);
        for (const icetest::Received& request : received) {
            EXPECT_EQ(request.method, "TEL_SendGenericJSON");
            EXPECT_EQ(request.sType, "machineTelematics");
            EXPECT_EQ(request.sPayload, kBody);
        }
    }
}

// A service that takes the connection but not the request: the record is larger than the
// socket buffers, so the write itself times out half-way. The attempt fails alone; what was
// not written is not flushed into the next connection or into a dead one.
TEST(IceFaults, TelematicsIceSinkSurvivesAWriteThatTimesOut) {
    FaultyIceServer server(FaultyIceServer::Stalled{});
    LogCapture capture("tilthwatch.telematicsicesink");
    const std::string huge(16 * 1024 * 1024, 'x');
    TelematicsIceSink sink({}, "127.0.0.1", server.port(), static_cast<int>(kTimeout.count()));

    const steady_clock::time_point start = steady_clock::now();
    EXPECT_NO_THROW(sink.sendToIce("machineTelematics", huge));
    const auto took = steady_clock::now() - start;

    // The first attempt stalls in its write; the queue then stays full, so the others cannot
    // even connect. Each waits one timeout, no more.
    EXPECT_THAT(capture.errors(), ElementsAreArray({anyAttempt(kRetrying), anyAttempt(kRetrying),
                                                    anyAttempt(kAborting)}));
    EXPECT_GE(took, 3 * kTimeout);
    EXPECT_LT(took, 3 * kTimeout + kSlack);
}

// The library sink keeps its connection: a reply it could not read must not leave bytes
// behind for the next record, and a reply that announces a huge string is refused before
// anything is allocated for it.
TEST(IceFaults, LibraryIceSinkStartsCleanAfterAGarbledReply) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {kHttpError, "Thrift Protocol Error on Send: TProtocolException: Exceeded size limit"},
        {kBinaryNoise, "Thrift Protocol Error on Send: Bad version identifier"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.second);
        FaultyIceServer server({Fault::garbage(r.first)});
        LogCapture capture("telemalog.sinks.ice");
        nvsf::telemalog::IceSink sink("127.0.0.1", server.port());
        ASSERT_TRUE(sink.connect());
        const std::vector<ice::eDataType::type> types{ice::eDataType::json_STRING};

        const steady_clock::time_point start = steady_clock::now();
        EXPECT_FALSE(sink.send("engine", types, {"type"}, {"engine"}, 1));  // not retried
        EXPECT_LT(steady_clock::now() - start, kSlack);
        EXPECT_TRUE(sink.send("engine", types, {"type"}, {"engine"}, 1));

        EXPECT_THAT(capture.errors(), ElementsAreArray({r.second}));
        EXPECT_EQ(server.received().size(), 2u);
    }
}

}  // namespace

namespace {

// The run loop with the service answering late for one record: that pass takes the period
// plus three timeouts, the record still reaches the other sinks, the next passes keep the
// period, and the next record is delivered.
TEST(IceFaults, RunLoopKeepsItsPeriodWhileTheServiceStalls) {
    blockStopSignals();  // before any thread exists, so only the loop takes SIGTERM
    const milliseconds period{400};
    const milliseconds timeout{150};
    const Fault late = Fault::late(timeout * 5 / 4);
    FaultyIceServer ice({late, late, late});
    LogCapture capture("tilthwatch.telematicsicesink");

    std::mutex mutex;
    std::vector<steady_clock::time_point> closes;
    auto collector = std::make_shared<nvsf::telemalog::CollectingSink>();
    TelematicsConfig config;
    config.periodMs = period.count();
    config.iceHost = "127.0.0.1";
    config.icePort = ice.port();
    config.iceTimeoutMs = static_cast<int>(timeout.count());
    config.zmqEndpoint = "tcp://127.0.0.1:" + std::to_string(icetest::freePort());
    config.machineFilePath = "/nonexistent/machine.json";
    config.detectedMachineFilePath = "/nonexistent/detectedMachine.json";
    config.extraSinks = {collector};
    config.beforeClose = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        closes.push_back(steady_clock::now());
    };

    std::thread loop([&] { runTelematicsLoop(config); });
    const auto closed = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return closes.size();
    };
    const steady_clock::time_point deadline = steady_clock::now() + 10 * period + 3 * kSlack;
    while (closed() < 4 && steady_clock::now() < deadline) {
        std::this_thread::sleep_for(milliseconds(5));
    }
    ::kill(::getpid(), SIGTERM);
    loop.join();

    ASSERT_GE(closes.size(), 4u);  // three in the loop, one on the stop
    // The first pass waits out three timeouts before the next period starts.
    EXPECT_GE(closes[1] - closes[0], period + 3 * timeout);
    EXPECT_LT(closes[1] - closes[0], period + 3 * timeout + kSlack);
    EXPECT_GE(closes[2] - closes[1], period);
    EXPECT_LT(closes[2] - closes[1], period + kSlack);
    // Every record reached the sinks after the Ice sink; the service took each of the first
    // record's attempts, then every later record once.
    EXPECT_EQ(collector->collected().size(), closes.size());
    EXPECT_EQ(ice.received().size(), 3 + closes.size() - 1);
    const std::string noReply = "THRIFT_EAGAIN (timed out)";
    EXPECT_THAT(capture.errors(),
                ElementsAreArray({attempt(noReply, kRetrying), attempt(noReply, kRetrying),
                                  attempt(noReply, kAborting)}));
}

}  // namespace
