#include <gtest/gtest.h>

#include "canstack/controlfunction.h"
#include "simulated_bus.h"

namespace {
const char* const RECEIVE = "CAN Receive Message";
const char* const TRANSMIT = "CAN Transmit Message";
const char* const QUEUE = "CAN Message Queue";
CANMessageQueueClass& queue() {
    return CANMessageQueueClass::CAN_MESSAGE_QUEUE;
}
}  // namespace

using CanStackMessageOnBus = BusTest;
using CanStackMessageClaimed = ClaimedTest;

TEST(CanStackIdentifier, ParameterGroupNumberExtraction) {
    struct Case {
        uint32_t word;
        uint32_t pgn;
    };
    const Case cases[] = {
        {0x7FFu, 0xFFFFFFFFu},                 // standard
        {0x80000000u | 0x18EEFF25u, 0xEE00},   // PDU 1, destination byte cleared
        {0x80000000u | 0x0CF00400u, 0xF004},   // PDU 2 keeps the group extension
        {0x80000000u | 0x1BFEEC01u, 0x3FEEC},  // both data pages
        {0x80000000u | 0x18EFFF01u, 0xEF00},   // last PDU 1 format
    };
    for (const Case& c : cases) {
        EXPECT_EQ(CANIdentifierClass::getParameterGroupNumber(c.word), c.pgn) << std::hex << c.word;
    }
    EXPECT_EQ(CANIdentifierClass(0).getWord(), 0x7FFFFFFFu);
    EXPECT_EQ(CANIdentifierClass(1).getWord(), 0xFFFFFFFFu);
    EXPECT_EQ(CANIdentifierClass(2).getWord(), 0x7FFFFFFFu);
    EXPECT_EQ(descriptionCount("CAN Identifier", "Identifier Type Invalid"), 1u);
}

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

TEST_F(CanStackMessageOnBus, ClaimFromNullAddressHasNoSourceAndPDU2IgnoresDestination) {
    ControlFunctionClass* device = bus.claimFrom(0, 0x30, testNAME(9));
    const uint8_t name[8] = {};
    CANReceiveMessageClass claim(1, 0x18EEFFFEu, name, 8, 0);
    EXPECT_EQ(claim.getSourceControlFunction(), nullptr);
    EXPECT_EQ(claim.getSourceAddress(), 254);

    const uint8_t data[2] = {1, 2};
    CANReceiveMessageClass specific(1, 0x18EF3001u, data, 2, 0);
    EXPECT_EQ(specific.getDestinationControlFunction(), device);
    // A standard frame gets no source when built, but takes its low byte as one when updated.
    CANReceiveMessageClass standard(0, 0x130u, data, 2, 0);
    EXPECT_EQ(standard.getSourceControlFunction(), nullptr);
    standard.updateControlFunctions();
    EXPECT_EQ(standard.getSourceControlFunction(), device);
    EXPECT_EQ(standard.getSourceAddress(), 255);
    CANReceiveMessageClass broadcast(1, 0x18FF3130u, data, 2, 0);
    EXPECT_EQ(broadcast.getDestinationAddress(), 255);
    EXPECT_EQ(broadcast.getDestinationControlFunction(), nullptr);
}

TEST(CanStackReceiveMessage, DataBitsAndRanges) {
    const uint8_t data[4] = {0x34, 0x12, 0xF0, 0x0F};
    CANReceiveMessageClass message(1, 0x18FEF100u, data, 4, 0);
    uint8_t nibble = 0;
    ASSERT_TRUE(message.getDataBits(20, 8, nibble));  // two bytes read for a straddling field
    EXPECT_EQ(nibble, 0xFF);
    EXPECT_FALSE(message.getDataBits(28, 8, nibble));  // past the 4 bytes
    EXPECT_EQ(nibble, 0xFF);
    uint32_t wide = 0;
    EXPECT_FALSE(message.getDataBits(0, 33, wide));
    uint8_t buffer[4];
    EXPECT_FALSE(message.getData(buffer, 3));
    EXPECT_TRUE(message.getData(buffer, 2, 2));
    EXPECT_FALSE(message.getData(buffer, 3, 2));
    EXPECT_FALSE(message.getData(nullptr, 4));
}

TEST_F(CanStackMessageClaimed, TransmitStatusByConstructionCase) {
    TestInternalControlFunction unclaimed(testNAME(2), 0, {0x81});
    TestInternalControlFunction elsewhere(testNAME(3), 1, {0x82});
    ControlFunctionClass* device = bus.claimFrom(0, 0x40, testNAME(50));
    UnregisteredControlFunctionClass gone(NAMEClass(testNAME(51)), 254, 0);
    const uint8_t data[8] = {};
    struct Case {
        uint32_t pgn;
        const uint8_t* data;
        uint8_t length;
        uint8_t priority;
        ControlFunctionClass* source;
        ControlFunctionClass* destination;
        uint8_t destinationAddress;
        uint32_t status;
    };
    const Case cases[] = {
        {0xFEF1, data, 8, 6, nullptr, nullptr, 255, 11},
        {0xEF00, data, 8, 6, &self, &self, 255, 10},
        {0xFEF1, nullptr, 8, 6, &self, nullptr, 255, 9},
        {0xFEF1, data, 0, 6, &self, nullptr, 255, 8},
        {0xFEF1, data, 9, 6, &self, nullptr, 255, 8},
        {0xFEF1, data, 8, 8, &self, nullptr, 255, 7},
        {0x40000, data, 8, 6, &self, nullptr, 255, 6},
        {0xEF00, data, 8, 6, &self, &elsewhere, 255, 5},
        {0xFEF1, data, 8, 6, &unclaimed, nullptr, 255, 4},
        {0xEF01, data, 8, 6, &self, nullptr, 255, 3},
        {0xEF00, data, 8, 6, &self, nullptr, 254, 2},
        {0xEF00, data, 8, 6, &self, &gone, 255, 2},
        {0xEF00, data, 8, 6, &self, device, 255, 0},
        {0xEF00, data, 8, 6, &self, nullptr, 0x22, 0},
        {0xFEF1, data, 1, 3, &self, nullptr, 254, 0},
    };
    for (const Case& c : cases) {
        CANTransmitMessageClass message(c.pgn, c.data, c.length, c.priority, c.source,
                                        c.destination, c.destinationAddress, nullptr, false);
        EXPECT_EQ(message.getStatus(), c.status) << std::hex << c.pgn << " " << int(c.length);
        EXPECT_EQ(message.isValid(), c.status == 0);
        NetworkManagementStatisticsClass::updateDescriptionMessages();
    }
    // A destination without address is a notice, not a critical message.
    EXPECT_EQ(NetworkManagementStatisticsClass::getDescriptionMessageCount(
                  TRANSMIT, "Destination Address Invalid", 2),
              0u);
    EXPECT_EQ(descriptionCount(TRANSMIT, "Destination Address Invalid"), 2u);
    EXPECT_EQ(CANTransmitMessageClass().getStatus(), 21u);
}

TEST_F(CanStackMessageOnBus, RawTransmitStatusesAndIdentifierPreparation) {
    const uint8_t data[8] = {};
    const uint8_t request[3] = {0x00, 0xEE, 0x00};
    const uint8_t otherRequest[3] = {0x00, 0xEF, 0x00};
    struct Case {
        uint8_t type;
        uint32_t identifier;
        const uint8_t* data;
        uint8_t length;
        uint8_t priority;
        uint8_t channel;
        uint32_t status;
        bool prepared;
        uint32_t word;  // identifier bits after preparation
    };
    const Case cases[] = {
        {0, 0x7FF, nullptr, 8, 6, 0, 9, false, 0},
        {0, 0x7FF, data, 9, 6, 0, 8, false, 0},
        {0, 0x7FF, data, 8, 6, 3, 5, false, 0},
        {0, 0x800, data, 8, 6, 0, 12, false, 0},
        {1, 0xFEF100, data, 8, 8, 0, 7, false, 0},
        {1, 0x4000000, data, 8, 6, 0, 6, false, 0},
        {1, 0xEFFE01, data, 8, 6, 0, 3, false, 0},
        {0, 0x123, data, 8, 6, 1, 0, true, 0x123},
        {1, 0xEEFF05, data, 8, 6, 0, 0, true, 0x18EEFF05},
        {1, 0xEEFFFE, data, 8, 6, 0, 0, true, 0x18EEFFFE},  // cannot claim
        {1, 0xEAFFFE, request, 3, 6, 0, 0, true, 0x18EAFFFE},
        {1, 0xEAFFFE, otherRequest, 3, 6, 0, 0, false, 0},  // only requests for claims
        {1, 0xFEF1FE, data, 8, 3, 0, 0, false, 0},          // other frames never from 254
        {1, 0xFEF122, data, 8, 3, 0, 0, true, 0x0CFEF122},
    };
    for (const Case& c : cases) {
        CANTransmitMessageClass message(c.type, c.identifier, c.data, c.length, c.priority,
                                        c.channel, nullptr, false);
        EXPECT_EQ(message.getStatus(), c.status) << std::hex << c.identifier;
        EXPECT_EQ(message.prepareIdentifierForTransmit(), c.prepared) << std::hex << c.identifier;
        if (c.prepared) {
            EXPECT_EQ(message.getIdentifier().getIdentifier(), c.word) << std::hex << c.identifier;
        }
    }
}

TEST_F(CanStackMessageClaimed, PreparationFillsAddressesFromTheControlFunctions) {
    ControlFunctionClass* device = bus.claimFrom(0, 0x40, testNAME(50));
    const uint8_t data[8] = {};
    CANTransmitMessageClass message(0xEF00, data, 8, 6, &self, device, 255, nullptr, false);
    ASSERT_TRUE(message.isValid());
    // The device moves before the frame leaves.
    bus.claimFrom(0, 0x41, testNAME(50));
    ASSERT_TRUE(message.prepareIdentifierForTransmit());
    EXPECT_EQ(message.getIdentifier().getIdentifier(), 0x18EF4180u);
    // And then loses its address altogether.
    bus.claimFrom(0, 0x41, testNAME(49));
    CANTransmitMessageClass copy(message);
    EXPECT_EQ(copy.getHandle(), message.getHandle());
    EXPECT_FALSE(copy.prepareIdentifierForTransmit());
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
