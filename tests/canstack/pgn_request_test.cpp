#include <gtest/gtest.h>

#include "canstack/parametergroupnumberrequestprotocol.h"
#include "simulated_bus.h"

namespace {

using Protocol = ParameterGroupNumberRequestProtocolClass;
const char* const OWNER = "Parameter Group Number Request Protocol";
Protocol& PROTOCOL = Protocol::PARAMETER_GROUP_NUMBER_REQUEST_PROTOCOL;

// What the load callback answers.
uint32_t loadResult = 1;
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
    std::vector<SentFrame> acks() const { return bus.framesWithPGN(0xE800); }
    std::vector<uint32_t> counts() const {
        return {PROTOCOL.getCannotRespondCount(), PROTOCOL.getDroppedNoSessionCount(),
                PROTOCOL.getNegativeAcknowledgementCount(),
                PROTOCOL.getPositiveAcknowledgementCount()};
    }
};

Bytes ack(uint8_t control, uint32_t pgn) {
    return {
        control, 0xFF, 0xFF, 0xFF, PEER, static_cast<uint8_t>(pgn), static_cast<uint8_t>(pgn >> 8),
        0};
}

}  // namespace

TEST_F(PgnRequestTest, ServedRequestSendsTheDataAndAGlobalOneIsNeverAcknowledged) {
    request(0xFECA, 0xFF);  // nobody serves it
    serve();
    loadResult = 2;
    request(0xFECA, 0xFF);
    EXPECT_TRUE(bus.frames.empty());
    loadResult = 1;
    request(0xFECA, 0xFF);
    request(0xEF00);
    request(0xEF00, 0xFF);  // the answer to a global request goes to all
    const std::vector<SentFrame> data = bus.framesWithPGN(0xEF00);
    ASSERT_EQ(data.size(), 2u);
    EXPECT_EQ(data[0].pduSpecific(), PEER);
    EXPECT_EQ(data[1].pduSpecific(), 0xFF);
    EXPECT_EQ(data[0].data, loadData);
    EXPECT_EQ(bus.framesWithPGN(0xFECA).size(), 1u);
    EXPECT_TRUE(acks().empty());
}

struct AnswerCase {
    const char* name;
    uint8_t destination;
    bool serve;
    uint32_t loadResult;  // the data is always refused when served
    uint32_t retryLoad;   // what the load callback answers from the retry on
    bool refuseAcks;
    uint32_t limit;  // ms until the answer; 0: at once
    int ackControl;  // -1: none
    const char* report;
    int severity;
    std::vector<uint32_t> counts;  // cannot respond, dropped, negative, positive
};

class PgnRequestAnswerTest : public PgnRequestTest,
                             public ::testing::WithParamInterface<AnswerCase> {};

TEST_P(PgnRequestAnswerTest, RequestEndsWithItsAcknowledgementReportAndCount) {
    const AnswerCase& c = GetParam();
    if (c.serve) {
        serve();
    }
    loadResult = c.loadResult;
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
        EXPECT_TRUE(bus.frames.empty());
        bus.advance(1);
    }
    bus.update();
    EXPECT_EQ(PROTOCOL.getNumberActiveSessions(), 0u);
    EXPECT_EQ(counts(), c.counts);
    if (c.report != nullptr) {
        EXPECT_EQ(descriptionCount(OWNER, c.report, c.severity), 1u);
    }
    if (c.ackControl < 0) {
        EXPECT_TRUE(bus.frames.empty());
    } else {
        ASSERT_EQ(bus.frames.size(), 1u);
        EXPECT_EQ(acks().at(0).pduSpecific(), 0xFF);
        EXPECT_EQ(acks().at(0).priority(), 6);
        EXPECT_EQ(acks().at(0).data, ack(static_cast<uint8_t>(c.ackControl), 0xFECA));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Answers, PgnRequestAnswerTest,
    ::testing::Values(
        // clang-format off
        AnswerCase{"NobodyServes", SELF, false, 0, 0, false, 0, 1, "Negative Acknowledgement Response", 0, {0, 0, 1, 0}},
        AnswerCase{"CallbackDeclines", SELF, true, 0, 0, false, 0, 1, "Negative Acknowledgement Response", 0, {0, 0, 1, 0}},
        AnswerCase{"CannotRespondForTheMoment", SELF, true, 2, 2, false, 0, 0, nullptr, 0, {0, 0, 0, 1}},
        AnswerCase{"UnsentData", SELF, true, 1, 1, false, 1000, 3, "Cannot Respond Response", 2, {1, 0, 0, 0}},
        AnswerCase{"NothingGoes", SELF, true, 1, 1, true, 1500, -1, "PGN Request Dropped Timeout Point to Point", 2, {0, 1, 0, 0}},
        AnswerCase{"UnsentGlobal", 0xFF, true, 1, 1, false, 1000, -1, "PGN Request Dropped Timeout Global", 2, {0, 1, 0, 0}},
        AnswerCase{"RetryDeclined", SELF, true, 1, 0, false, 0, 1, "Negative Acknowledgement Response", 0, {0, 0, 1, 0}},
        AnswerCase{"RetryLaterForTheMoment", SELF, true, 1, 2, false, 0, 0, nullptr, 0, {0, 0, 0, 1}},
        AnswerCase{"GlobalRetryDeclined", 0xFF, true, 1, 0, false, 0, -1, nullptr, 0, {0, 0, 0, 0}},
        AnswerCase{"InvalidLoadResult", SELF, true, 7, 7, false, 0, -1, "Load PGN Invalid State", 2, {0, 0, 0, 0}},
        AnswerCase{"InvalidOnRetry", SELF, true, 1, 7, false, 0, -1, "Load PGN Invalid State", 2, {0, 0, 0, 0}}),
    // clang-format on
    [](const auto& info) { return info.param.name; });

TEST_F(PgnRequestTest, AddressClaimRequestIsLeftToTheClaimProcedure) {
    serve();
    request(0xEE00);
    bus.update();
    EXPECT_TRUE(acks().empty());
    EXPECT_EQ(bus.framesWithPGN(0xEE00).size(), 1u);  // the claim, and no loaded data
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
    EXPECT_TRUE(acks().empty());
    bus.refused.clear();
    bus.update();
    bus.update();
    EXPECT_EQ(bus.framesWithPGN(0xFECA).size(), 1u);
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
    EXPECT_EQ(acks().size(), global ? 0u : 1u);
    if (!global) {
        EXPECT_EQ(acks()[0].data, ack(3, 0xFF0A));
    }
    EXPECT_EQ(counts(), (std::vector<uint32_t>{!global, global, 0, 0}));
    EXPECT_EQ(descriptionCount(OWNER, "Cannot Respond Response", 2), global ? 0u : 1u);
    EXPECT_EQ(descriptionCount(OWNER, "PGN Request Dropped No Sessions Available", 2),
              global ? 1u : 0u);
}
INSTANTIATE_TEST_SUITE_P(Kinds, EleventhRequestTest, ::testing::Bool());

TEST_F(PgnRequestTest, UnsentAcknowledgementLeavesTheRequestQueued) {
    bus.refused = {0xE800};
    request(0xFECA);
    EXPECT_EQ(queued(), 1u);
    bus.refused.clear();
    bus.update();
    EXPECT_EQ(acks().size(), 1u);
    EXPECT_EQ(queued(), 0u);
    EXPECT_EQ(PROTOCOL.getReceivedRequestCount(), 1u);
}

TEST_F(PgnRequestTest, OwnRequestGoesAtPrioritySix) {
    ASSERT_TRUE(Protocol::requestParameterGroupNumber(0xFF7A, &self, nullptr));
    ASSERT_TRUE(
        Protocol::requestParameterGroupNumber(0xFEEC, &self, NM::getControlFunction(0, PEER)));
    bus.update();
    const std::vector<SentFrame> requests = bus.framesWithPGN(0xEA00);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].identifier, 0x18EAFF00u | SELF);
    EXPECT_EQ(requests[0].data, (Bytes{0x7A, 0xFF, 0x00}));
    EXPECT_EQ(requests[1].identifier, 0x18EA0000u | (PEER << 8) | SELF);
}
