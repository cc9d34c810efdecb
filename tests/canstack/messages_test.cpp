#include <gtest/gtest.h>

#include "canstack/controlfunction.h"
#include "simulated_bus.h"

namespace {
const char* const RECEIVE = "CAN Receive Message";
const char* const QUEUE = "CAN Message Queue";
CANMessageQueueClass& queue() {
    return CANMessageQueueClass::CAN_MESSAGE_QUEUE;
}
}  // namespace

using CanStackMessageOnBus = BusTest;
using CanStackMessageClaimed = ClaimedTest;

TEST(CanStackReceiveMessage, ValidationRunsInOrderAndStopsAtTheFirstFailure) {
    const uint8_t eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const uint8_t request[3] = {0x00, 0xEE, 0x00};
    const uint8_t otherRequest[3] = {0x00, 0xEF, 0x00};
    const uint8_t requestPage[3] = {0x00, 0xEE, 0x01};
    struct Case {
        uint8_t type;
        uint32_t identifier;
        const uint8_t* data;
        uint8_t length;
        uint8_t channel;
        const char* message;  // null: valid
    };
    const Case cases[] = {
        {1, 0x18FEF100u, nullptr, 0, 5, "Data Pointer NULL"},
        {1, 0x18FEF100u, eight, 0, 5, "Data Length Invalid"},
        {1, 0x18FEF100u, eight, 9, 5, "Data Length Invalid"},
        {1, 0x3FFFFFFFu, eight, 8, 3, "CAN Channel Invalid"},
        {0, 0x800u, eight, 8, 0, "Standard Identifier Out of Range"},
        {1, 0x20000000u, eight, 8, 0, "Extended Identifier Out of Range"},
        {1, 0x18FEF1FFu, eight, 8, 0, "Source Address Invalid"},
        {1, 0x18FEF1FEu, eight, 8, 0, "Source Address Invalid"},
        {1, 0x18EAFFFEu, otherRequest, 3, 0, "Source Address Invalid"},
        {1, 0x18EAFFFEu, requestPage, 3, 0, "Source Address Invalid"},
        {1, 0x19EEFFFEu, eight, 8, 0, "Source Address Invalid"},  // data page set
        {1, 0x18EAFE01u, request, 3, 0, "Destination Address Invalid"},
        {1, 0x18EEFFFEu, eight, 8, 0, nullptr},
        {1, 0x18EAFFFEu, request, 3, 0, nullptr},
        {1, 0x18EAFFFEu, request, 2, 0, nullptr},  // compared with its zero-filled third byte
        {1, 0x18FEFE01u, eight, 8, 0, nullptr},    // PDU 2: byte 254 is a group extension
        {0, 0x7FFu, eight, 1, 2, nullptr},
    };
    for (const Case& c : cases) {
        const uint32_t all = descriptionCount(RECEIVE, nullptr);
        const uint32_t base = descriptionCount("CAN Message", "CAN Channel Invalid");
        const uint32_t own = c.message != nullptr ? descriptionCount(RECEIVE, c.message) : 0;
        CANReceiveMessageClass message(c.type, c.identifier, c.data, c.length, c.channel);
        EXPECT_EQ(message.isValid(), c.message == nullptr) << std::hex << c.identifier;
        // Exactly one report, and the expected one: validation stops at the first failure.
        EXPECT_EQ(descriptionCount(RECEIVE, nullptr) - all, c.message != nullptr ? 1u : 0u)
            << std::hex << c.identifier;
        if (c.message != nullptr) {
            EXPECT_EQ(descriptionCount(RECEIVE, c.message) - own, 1u) << c.message;
        }
        // The base constructor checks the channel on its own, first.
        EXPECT_EQ(descriptionCount("CAN Message", "CAN Channel Invalid") - base,
                  c.channel > 2 ? 1u : 0u);
        NetworkManagementStatisticsClass::updateDescriptionMessages();
    }
    // A source or destination address that cannot be is a warning.
    EXPECT_EQ(descriptionCount(RECEIVE, "Source Address Invalid", 1), 5u);
    EXPECT_EQ(descriptionCount(RECEIVE, "Destination Address Invalid", 1), 1u);
}

TEST(CanStackMessageQueue, LongMessagesAndTheFiftyFirstFrameAreDropped) {
    uint8_t data[20] = {};
    const uint32_t handle = CANMessageQueueClass::getQueueHandle();
    RegisteredControlFunctionClass sender(0, uint8_t{0x20});
    CANLongMessageClass longMessage(0xFEEC, 0xFFFFFFFFu, data, 20, &sender, nullptr, "test");
    ASSERT_TRUE(longMessage.isValid());
    EXPECT_FALSE(queue().addCANMessage(longMessage, handle));
    EXPECT_EQ(queue().getCurrentCount(), 0u);  // the entry stays free
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(
            queue().addCANMessage(CANReceiveMessageClass(1, 0x18FEF100u | i, data, 8, 0), handle))
            << i;
    }
    CANReceiveMessageClass extra(1, 0x18FEF133u, data, 8, 0);
    EXPECT_FALSE(queue().addCANMessage(extra, handle));
    EXPECT_EQ(queue().getDroppedCount(), 2u);
    EXPECT_EQ(queue().getTotalCount(), 52u);
    EXPECT_EQ(queue().getCurrentCount(), 50u);
    EXPECT_EQ(queue().getPeakCount(), 50u);
    EXPECT_EQ(descriptionCount(QUEUE, "Dropped Message"), 2u);
    EXPECT_FALSE(queue().addCANMessage(extra, 0xFFFFFFFFu));
}

TEST(CanStackMessageQueue, OldestFirstPerHandle) {
    const uint32_t mine = CANMessageQueueClass::getQueueHandle();
    const uint32_t other = CANMessageQueueClass::getQueueHandle();
    const uint8_t bytes[3] = {1, 9, 2};
    for (uint8_t i = 0; i < 3; ++i) {
        queue().addCANMessage(CANReceiveMessageClass(1, 0x18FEF101u + i, bytes + i, 1, 0),
                              i == 1 ? other : mine);
    }
    CAN_MESSAGE_QUEUE_STRUCT* entry = queue().getNextReceivedCANMessage(mine);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->data[0], 1);
    EXPECT_TRUE(queue().freeReceivedCANMessage(entry));
    EXPECT_FALSE(queue().freeReceivedCANMessage(entry));
    entry = queue().getNextReceivedCANMessage(mine);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->data[0], 2);
    queue().freeReceivedCANMessage(entry);
    EXPECT_EQ(queue().getNextReceivedCANMessage(mine), nullptr);
    // A freed entry keeps nothing: a short frame placed in it reads zeros past its own bytes.
    const uint8_t full[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    queue().addCANMessage(CANReceiveMessageClass(1, 0x18FEF101u, full, 8, 0), mine);
    queue().freeReceivedCANMessage(queue().getNextReceivedCANMessage(mine));
    queue().addCANMessage(CANReceiveMessageClass(1, 0x18FEF101u, bytes, 1, 0), mine);
    entry = queue().getNextReceivedCANMessage(mine);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(Bytes(entry->data, entry->data + 8), (Bytes{1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(queue().getNextReceivedCANMessage(0xFFFFFFFFu), nullptr);
    EXPECT_EQ(descriptionCount(QUEUE, "Invalid Queue Handle GetNextReceivedCANMessage"), 1u);
    EXPECT_EQ(descriptionCount(QUEUE, "Invalid CAN Message FreeReceivedCANMessage"), 1u);
}
