#include <gtest/gtest.h>

#include <vector>

#include "canstack/parametergroupnumberrequestprotocol.h"
#include "protocol_test_support.h"

namespace {

using Protocol = ParameterGroupNumberRequestProtocolClass;
const char* const OWNER = "Parameter Group Number Request Protocol";

// What the load callback answers.
uint32_t loadResult = 1;
const std::vector<uint8_t> loadData{1, 2, 3, 4, 5, 6, 7, 8};
int loadCalls = 0;

uint32_t scriptedLoad(uint32_t, InternalControlFunctionClass*, ControlFunctionClass*, uint8_t,
                      uint8_t, LoadParameterGroupNumberData* out) {
    ++loadCalls;
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

TEST_F(PgnRequestTest, ServedRequestSendsTheDataBackToTheRequester) {
    serve();
    request(0xEF00);
    request(0xFEEC);
    ASSERT_EQ(bus.framesWithPGN(0xEF00).size(), 1u);
    EXPECT_EQ(bus.framesWithPGN(0xEF00)[0].pduSpecific(), PEER);
    EXPECT_EQ(bus.framesWithPGN(0xEF00)[0].data, loadData);
    EXPECT_EQ(bus.framesWithPGN(0xFEEC).size(), 1u);
    EXPECT_TRUE(acks().empty());
}

struct AckCase {
    const char* name;
    bool serve;
    uint32_t loadResult;
    uint8_t control;
};

class PgnRequestAckTest : public PgnRequestTest, public ::testing::WithParamInterface<AckCase> {};

TEST_P(PgnRequestAckTest, SpecificRequestIsAcknowledgedToAllNamingTheRequester) {
    if (GetParam().serve) {
        serve();
    }
    loadResult = GetParam().loadResult;
    request(0xFECA);
    ASSERT_EQ(acks().size(), 1u);
    EXPECT_EQ(acks()[0].pduSpecific(), 0xFF);
    EXPECT_EQ(acks()[0].data, ack(GetParam().control, 0xFECA));
    EXPECT_TRUE(bus.framesWithPGN(0xFECA).empty());
    const bool negative = GetParam().control == 1;
    EXPECT_EQ(reportCount(OWNER, "Negative Acknowledgement Response", 0), negative ? 1u : 0u);
    EXPECT_EQ(Protocol::PARAMETER_GROUP_NUMBER_REQUEST_PROTOCOL.getPositiveAcknowledgementCount(),
              negative ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(Answers, PgnRequestAckTest,
                         ::testing::Values(AckCase{"NobodyServes", false, 0, 1},
                                           AckCase{"CallbackDeclines", true, 0, 1},
                                           AckCase{"CannotRespondForTheMoment", true, 2, 0}),
                         [](const auto& info) { return info.param.name; });

TEST_F(PgnRequestTest, GlobalRequestGetsDataOrNothing) {
    request(0xFECA, 0xFF);
    serve();
    loadResult = 2;
    request(0xFECA, 0xFF);
    EXPECT_TRUE(bus.frames.empty());
    loadResult = 1;
    request(0xFECA, 0xFF);
    EXPECT_EQ(bus.framesWithPGN(0xFECA).size(), 1u);
    EXPECT_TRUE(acks().empty());
}

TEST_F(PgnRequestTest, AddressClaimRequestIsLeftToTheClaimProcedure) {
    serve();
    request(0xEE00);
    bus.update();
    EXPECT_EQ(loadCalls, 0);
    EXPECT_TRUE(acks().empty());
    EXPECT_EQ(bus.framesWithPGN(0xEE00).size(), 1u);  // the claim answers it
}

TEST_F(PgnRequestTest, RepeatedRequestRenewsTheWaitingSessionInsteadOfSendingTwice) {
    serve();
    transmit.refused = {0xFECA};
    request(0xFECA);
    bus.advance(600);
    request(0xFECA, SELF, OTHER);  // a broadcast group's answer reaches every requester
    EXPECT_EQ(waiting(), 1u);
    bus.advance(600);  // 1200 ms after the first try, 600 after the renewal
    bus.update();
    EXPECT_TRUE(acks().empty());
    transmit.refused.clear();
    bus.update();
    bus.update();
    EXPECT_EQ(bus.framesWithPGN(0xFECA).size(), 1u);
    EXPECT_EQ(waiting(), 0u);
}

TEST_F(PgnRequestTest, EleventhWaitingRequestGetsCannotRespondAtOnce) {
    serve();
    for (uint32_t pgn = 0xFF00; pgn <= 0xFF0A; ++pgn) {
        transmit.refused.insert(pgn);
        request(pgn);
    }
    EXPECT_EQ(waiting(), 10u);
    ASSERT_EQ(acks().size(), 1u);
    EXPECT_EQ(acks()[0].data, ack(3, 0xFF0A));
    EXPECT_EQ(reportCount(OWNER, "Cannot Respond Response", 2), 1u);
}

TEST_F(PgnRequestTest, UnsentAcknowledgementLeavesTheRequestQueued) {
    transmit.refused = {0xE800};
    request(0xFECA);
    EXPECT_EQ(CANMessageQueueClass::CAN_MESSAGE_QUEUE.getCurrentCount(), 1u);
    transmit.refused.clear();
    bus.update();
    EXPECT_EQ(acks().size(), 1u);
    EXPECT_EQ(CANMessageQueueClass::CAN_MESSAGE_QUEUE.getCurrentCount(), 0u);
}

struct TimerCase {
    const char* name;
    uint8_t destination;
    bool refuseAcks;
    uint32_t limit;
    const char* report;
    int ackControl;  // -1: none
};

class PgnRequestTimerTest : public PgnRequestTest,
                            public ::testing::WithParamInterface<TimerCase> {};

TEST_P(PgnRequestTimerTest, WaitingSessionEndsAtItsTimer) {
    const TimerCase& c = GetParam();
    serve();
    transmit.refused = {0xFECA};
    if (c.refuseAcks) {
        transmit.refused.insert(0xE800);
    }
    request(0xFECA, c.destination);
    bus.advance(c.limit - 1);
    bus.update();
    EXPECT_EQ(waiting(), 1u);
    EXPECT_TRUE(acks().empty());
    bus.advance(1);
    bus.update();
    EXPECT_EQ(waiting(), 0u);
    EXPECT_EQ(reportCount(OWNER, c.report, 2), 1u);
    if (c.ackControl < 0) {
        EXPECT_TRUE(bus.frames.empty());
    } else {
        ASSERT_EQ(acks().size(), 1u);
        EXPECT_EQ(acks()[0].data, ack(static_cast<uint8_t>(c.ackControl), 0xFECA));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Timers, PgnRequestTimerTest,
    ::testing::Values(TimerCase{"Specific", SELF, false, 1000, "Cannot Respond Response", 3},
                      TimerCase{"SpecificNothingGoes", SELF, true, 1500,
                                "PGN Request Dropped Timeout Point to Point", -1},
                      TimerCase{"Global", 0xFF, false, 1000, "PGN Request Dropped Timeout Global",
                                -1}),
    [](const auto& info) { return info.param.name; });
