#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "canstack/parametergroupnumberrequestprotocol.h"
#include "protocol_test_support.h"

namespace {

using Protocol = ParameterGroupNumberRequestProtocolClass;
const char* const OWNER = "Parameter Group Number Request Protocol";

// What the load callback answers.
uint32_t loadResult = 1;
const std::vector<uint8_t> loadData{1, 2, 3, 4, 5, 6, 7, 8};

uint32_t scriptedLoad(uint32_t, InternalControlFunctionClass*, ControlFunctionClass*, uint8_t,
                      uint8_t, LoadParameterGroupNumberData* out) {
    out->data = loadData.data();
    out->length = static_cast<uint32_t>(loadData.size());
    return loadResult;
}

class PgnRequestTest : public ProtocolTest {
protected:
    void serve() { NetworkManagementClass::addLoadParameterGroupNumberDataCallback(&scriptedLoad); }
    void request(uint32_t pgn, uint8_t destination = SELF, uint8_t from = PEER) {
        bus.receive(0, frameIdentifier(6, 0xEA00, destination, from),
                    {static_cast<uint8_t>(pgn), static_cast<uint8_t>(pgn >> 8), 0});
        bus.update();
    }
    std::vector<SentFrame> acks() const { return bus.framesWithPGN(0xE800); }
    uint32_t waiting() const {
        return Protocol::PARAMETER_GROUP_NUMBER_REQUEST_PROTOCOL.getNumberActiveSessions();
    }
};

std::vector<uint8_t> ack(uint8_t control, uint32_t pgn) {
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
    ASSERT_EQ(bus.framesWithPGN(0xEF00).size(), 1u);
    EXPECT_EQ(bus.framesWithPGN(0xEF00)[0].pduSpecific(), PEER);
    EXPECT_EQ(bus.framesWithPGN(0xEF00)[0].data, loadData);
    EXPECT_EQ(bus.framesWithPGN(0xFECA).size(), 1u);
    EXPECT_TRUE(acks().empty());
}

struct AnswerCase {
    const char* name;
    uint8_t destination;
    bool serve;
    uint32_t loadResult;
    bool refuseAcks;     // the data is always refused when served
    uint32_t limit;      // ms until the answer; 0: at once
    int ackControl;      // -1: none
    const char* report;  // null: a positive acknowledgement, counted instead
};

class PgnRequestAnswerTest : public PgnRequestTest,
                             public ::testing::WithParamInterface<AnswerCase> {};

TEST_P(PgnRequestAnswerTest, RequestEndsWithItsAcknowledgementAndReport) {
    const AnswerCase& c = GetParam();
    if (c.serve) {
        serve();
    }
    loadResult = c.loadResult;
    refused = {0xFECA};
    if (c.refuseAcks) {
        refused.insert(0xE800);
    }
    request(0xFECA, c.destination);
    if (c.limit > 0) {
        bus.advance(c.limit - 1);
        bus.update();
        EXPECT_EQ(waiting(), 1u);
        EXPECT_TRUE(bus.frames.empty());
        bus.advance(1);
        bus.update();
    }
    EXPECT_EQ(waiting(), 0u);
    EXPECT_EQ(Protocol::PARAMETER_GROUP_NUMBER_REQUEST_PROTOCOL.getPositiveAcknowledgementCount(),
              c.report == nullptr ? 1u : 0u);
    if (c.report != nullptr) {
        // Refusals are notices, timeouts worse.
        EXPECT_EQ(descriptionCount(OWNER, c.report, c.limit > 0 ? 2 : 0), 1u);
    }
    if (c.ackControl < 0) {
        EXPECT_TRUE(bus.frames.empty());
    } else {
        ASSERT_EQ(bus.frames.size(), 1u);
        EXPECT_EQ(acks().at(0).pduSpecific(), 0xFF);
        EXPECT_EQ(acks().at(0).data, ack(static_cast<uint8_t>(c.ackControl), 0xFECA));
    }
}

INSTANTIATE_TEST_SUITE_P(Answers, PgnRequestAnswerTest,
                         ::testing::Values(AnswerCase{"NobodyServes", SELF, false, 0, false, 0, 1,
                                                      "Negative Acknowledgement Response"},
                                           AnswerCase{"CallbackDeclines", SELF, true, 0, false, 0,
                                                      1, "Negative Acknowledgement Response"},
                                           AnswerCase{"CannotRespondForTheMoment", SELF, true, 2,
                                                      false, 0, 0, nullptr},
                                           AnswerCase{"UnsentData", SELF, true, 1, false, 1000, 3,
                                                      "Cannot Respond Response"},
                                           AnswerCase{"NothingGoes", SELF, true, 1, true, 1500, -1,
                                                      "PGN Request Dropped Timeout Point to Point"},
                                           AnswerCase{"UnsentGlobal", 0xFF, true, 1, false, 1000,
                                                      -1, "PGN Request Dropped Timeout Global"}),
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
    refused = {0xFECA};
    request(0xFECA);
    bus.advance(600);
    request(0xFECA, SELF, OTHER);  // a broadcast group's answer reaches every requester
    EXPECT_EQ(waiting(), 1u);
    bus.advance(600);  // 1200 ms after the first try, 600 after the renewal
    bus.update();
    EXPECT_TRUE(acks().empty());
    refused.clear();
    bus.update();
    bus.update();
    EXPECT_EQ(bus.framesWithPGN(0xFECA).size(), 1u);
    EXPECT_EQ(waiting(), 0u);
}

TEST_F(PgnRequestTest, EleventhWaitingRequestGetsCannotRespondAtOnce) {
    serve();
    for (uint32_t pgn = 0xFF00; pgn <= 0xFF0A; ++pgn) {
        refused.insert(pgn);
        request(pgn);
    }
    ASSERT_EQ(acks().size(), 1u);  // and only for the last
    EXPECT_EQ(acks()[0].data, ack(3, 0xFF0A));
    EXPECT_EQ(descriptionCount(OWNER, "Cannot Respond Response", 2), 1u);
}

TEST_F(PgnRequestTest, UnsentAcknowledgementLeavesTheRequestQueued) {
    refused = {0xE800};
    request(0xFECA);
    EXPECT_EQ(CANMessageQueueClass::CAN_MESSAGE_QUEUE.getCurrentCount(), 1u);
    refused.clear();
    bus.update();
    EXPECT_EQ(acks().size(), 1u);
    EXPECT_EQ(CANMessageQueueClass::CAN_MESSAGE_QUEUE.getCurrentCount(), 0u);
}
