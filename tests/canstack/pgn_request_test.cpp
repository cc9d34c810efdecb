#include <gtest/gtest.h>

#include "canstack/parametergroupnumberrequestprotocol.h"
#include "simulated_bus.h"

namespace {

using Protocol = ParameterGroupNumberRequestProtocolClass;
const char* const OWNER = "Parameter Group Number Request Protocol";
Protocol& PROTOCOL = Protocol::PARAMETER_GROUP_NUMBER_REQUEST_PROTOCOL;

uint32_t loadResult = 1;  // what the load callback answers
const Bytes loadData{1, 2, 3, 4, 5, 6, 7, 8};

class PgnRequestTest : public ProtocolTest {
protected:
    void serve() {
        NM::addLoadParameterGroupNumberDataCallback([](uint32_t, InternalControlFunctionClass*,
                                                       ControlFunctionClass*, uint8_t, uint8_t,
                                                       LoadParameterGroupNumberData* out) {
            out->data = loadData.data();
            out->length = static_cast<uint32_t>(loadData.size());
            return loadResult;
        });
    }
    void request(uint32_t pgn, uint8_t destination = SELF, uint8_t from = PEER) {
        bus.receive(0, frameIdentifier(6, 0xEA00, destination, from),
                    {static_cast<uint8_t>(pgn), static_cast<uint8_t>(pgn >> 8), 0});
        bus.update();
    }
    // Cannot respond, dropped, negative, positive.
    std::vector<uint32_t> counts() const {
        return {PROTOCOL.getCannotRespondCount(), PROTOCOL.getDroppedNoSessionCount(),
                PROTOCOL.getNegativeAcknowledgementCount(),
                PROTOCOL.getPositiveAcknowledgementCount()};
    }
};

// Acknowledgements go to all from SELF and name PEER, here for 0xFECA.
const char* const NACK = "18E8FF80:01FFFFFF30CAFE00";
const char* const BUSY = "18E8FF80:03FFFFFF30CAFE00";
const std::string DATA = "18FECA80:0102030405060708";

}  // namespace

struct AnswerCase {
    const char* name;
    uint8_t destination;
    bool serve;
    uint32_t load, retryLoad;  // load callback results, first and from the retry on
    bool refuseAcks;           // the data is always refused at first
    uint32_t limit;            // ms until the answer; 0: at once
    Texts frames;
    const char* report;
    int severity;
    std::vector<uint32_t> counts;
};
class PgnRequestAnswerTest : public PgnRequestTest,
                             public ::testing::WithParamInterface<AnswerCase> {};

TEST_P(PgnRequestAnswerTest, RequestEndsWithItsAcknowledgementReportAndCount) {
    const AnswerCase& c = GetParam();
    if (c.serve) {
        serve();
    }
    loadResult = c.load;
    bus.refused = {0xFECA};
    if (c.refuseAcks) {
        bus.refused.insert(0xE800);
    }
    request(0xFECA, c.destination);
    loadResult = c.retryLoad;
    if (c.limit > 0) {
        bus.advance(c.limit - 1);
        bus.update();
        EXPECT_EQ(PROTOCOL.getNumberActiveSessions(), 1u);
        EXPECT_EQ(bus.texts(), Texts());
        bus.advance(1);
    }
    if (c.limit == 0) {
        bus.refused.erase(0xFECA);  // the retry gets through
    }
    bus.update();
    EXPECT_EQ(PROTOCOL.getNumberActiveSessions(), 0u);
    EXPECT_EQ(counts(), c.counts);
    EXPECT_EQ(descriptionCount(OWNER, c.report, c.severity), c.report != nullptr ? 1u : 0u);
    EXPECT_EQ(bus.texts(), c.frames);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, PgnRequestAnswerTest,
    ::testing::Values(
        // clang-format off
        AnswerCase{"NobodyServes", SELF, false, 0, 0, false, 0, {NACK}, "Negative Acknowledgement Response", 0, {0, 0, 1, 0}},
        AnswerCase{"CallbackDeclines", SELF, true, 0, 0, false, 0, {NACK}, "Negative Acknowledgement Response", 0, {0, 0, 1, 0}},
        AnswerCase{"CannotRespondForTheMoment", SELF, true, 2, 2, false, 0, {"18E8FF80:00FFFFFF30CAFE00"}, nullptr, 0, {0, 0, 0, 1}},
        AnswerCase{"UnsentData", SELF, true, 1, 1, false, 1000, {BUSY}, "Cannot Respond Response", 2, {1, 0, 0, 0}},
        AnswerCase{"NothingGoes", SELF, true, 1, 1, true, 1500, {}, "PGN Request Dropped Timeout Point to Point", 2, {0, 1, 0, 0}},
        AnswerCase{"UnsentGlobal", 0xFF, true, 1, 1, false, 1000, {}, "PGN Request Dropped Timeout Global", 2, {0, 1, 0, 0}},
        AnswerCase{"RetrySendsTheData", SELF, true, 1, 1, false, 0, {"18FECA80:0102030405060708"}, nullptr, 0, {0, 0, 0, 0}},
        AnswerCase{"RetryDeclined", SELF, true, 1, 0, false, 0, {NACK}, "Negative Acknowledgement Response", 0, {0, 0, 1, 0}},
        AnswerCase{"RetryLaterForTheMoment", SELF, true, 1, 2, false, 0, {"18E8FF80:00FFFFFF30CAFE00"}, nullptr, 0, {0, 0, 0, 1}},
        AnswerCase{"GlobalRetryDeclined", 0xFF, true, 1, 0, false, 0, {}, nullptr, 0, {0, 0, 0, 0}},
        AnswerCase{"GlobalRetryLater", 0xFF, true, 1, 2, false, 0, {}, nullptr, 0, {0, 0, 0, 0}},
        AnswerCase{"InvalidLoadResult", SELF, true, 7, 7, false, 0, {}, "Load PGN Invalid State", 2, {0, 0, 0, 0}},
        AnswerCase{"InvalidOnRetry", SELF, true, 1, 7, false, 0, {}, "Load PGN Invalid State", 2, {0, 0, 0, 0}}),
    // clang-format on
    [](const auto& info) { return info.param.name; });

// A served request is answered, to all when it was global, and a global one is never
// acknowledged. Side paths: a claim request is the claim procedure's, an unsent acknowledgement
// keeps the request queued, and our own requests go at priority 6.
TEST_F(PgnRequestTest, ServedAndGlobalRequestsAndSidePaths) {
    request(0xFECA, 0xFF);  // nobody serves it
    serve();
    loadResult = 2;
    request(0xFECA, 0xFF);
    loadResult = 1;
    request(0xFECA, 0xFF);
    request(0xEF00);
    request(0xEF00, 0xFF);
    request(0xEE00);
    bus.update();
    EXPECT_EQ(Protocol::addExternallyHandled(0xEE00), nullptr);  // already listed
    EXPECT_EQ(descriptions(OWNER),
              Texts{"2 Failed Adding Externally Handled PGN Request Function to List"});
    EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT* handled = Protocol::addExternallyHandled(0xEF00);
    request(0xEF00);  // not answered while handled elsewhere
    EXPECT_TRUE(Protocol::removeExternallyHandled(handled));
    EXPECT_FALSE(Protocol::removeExternallyHandled(nullptr));
    loadResult = 0;
    bus.refused = {0xE800};
    request(0xFECA);
    EXPECT_EQ(queued(), 1u);
    bus.refused.clear();
    bus.update();
    EXPECT_EQ(queued(), 0u);
    EXPECT_EQ(PROTOCOL.getReceivedRequestCount(), 8u);
    ASSERT_TRUE(Protocol::requestParameterGroupNumber(0xFF7A, &self, nullptr));
    ASSERT_TRUE(
        Protocol::requestParameterGroupNumber(0xFEEC, &self, NM::getControlFunction(0, PEER)));
    EXPECT_EQ(bus.texts(),
              (Texts{DATA, "18EF3080:0102030405060708", "18EFFF80:0102030405060708",
                     "18EEFF80:0100E012000000A0", NACK, "18EAFF80:7AFF00", "18EA3080:ECFE00"}));
}

TEST_F(PgnRequestTest, RepeatedRequestRenewsTheWaitingSessionInsteadOfSendingTwice) {
    serve();
    bus.refused = {0xFECA};
    request(0xFECA);
    bus.advance(600);
    request(0xFECA, SELF, OTHER);  // a broadcast group's answer reaches every requester
    EXPECT_EQ(PROTOCOL.getNumberActiveSessions(), 1u);
    bus.advance(600);  // 1200 ms after the first try, 600 after the renewal
    bus.update();
    EXPECT_EQ(bus.texts(), Texts());
    bus.refused.clear();
    bus.update();
    bus.update();
    EXPECT_EQ(bus.texts(), Texts{DATA});
    EXPECT_EQ(PROTOCOL.getNumberActiveSessions(), 0u);
}

// The eleventh waiting request finds no session: a specific one is told at once, a global one
// is dropped.
class EleventhRequestTest : public PgnRequestTest, public ::testing::WithParamInterface<bool> {};
TEST_P(EleventhRequestTest, FindsNoSession) {
    const bool global = GetParam();
    serve();
    for (uint32_t pgn = 0xFF00; pgn <= 0xFF0A; ++pgn) {
        bus.refused.insert(pgn);
        request(pgn, global ? 0xFF : SELF);
    }
    EXPECT_EQ(bus.texts(), global ? Texts() : Texts{"18E8FF80:03FFFFFF300AFF00"});
    EXPECT_EQ(counts(), (std::vector<uint32_t>{!global, global, 0, 0}));
    EXPECT_EQ(descriptionCount(OWNER, "Cannot Respond Response", 2), global ? 0u : 1u);
    EXPECT_EQ(descriptionCount(OWNER, "PGN Request Dropped No Sessions Available", 2), global);
}
INSTANTIATE_TEST_SUITE_P(Kinds, EleventhRequestTest, ::testing::Bool());
