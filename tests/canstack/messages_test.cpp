#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "canstack/controlfunction.h"
#include "simulated_bus.h"

namespace {
const char* const QUEUE = "CAN Message Queue";
CANMessageQueueClass& queue() {
    return CANMessageQueueClass::CAN_MESSAGE_QUEUE;
}

// Every description report since the last call, as "owner: text severity; ...".
std::string reports;
void listen() {
    NetworkManagementStatisticsClass::addDescriptionMessageCallback(
        [](const char* owner, const char* text, uint8_t severity, uint32_t) {
            reports += (reports.empty() ? "" : "; ") + std::string(owner) + ": " + text + " " +
                       std::to_string(severity);
        });
}
std::string heard() {
    NetworkManagementStatisticsClass::updateDescriptionMessages();  // frees the slots
    return std::exchange(reports, "");
}
}  // namespace

using CanStackMessageOnBus = BusTest;
using CanStackMessageClaimed = ClaimedTest;

TEST(CanStackIdentifier, ParameterGroupNumberExtraction) {
    listen();
    const std::pair<uint32_t, uint32_t> cases[] = {
        {0x7FFu, 0xFFFFFFFFu},                 // standard
        {0x80000000u | 0x18EEFF25u, 0xEE00},   // PDU 1, destination byte cleared
        {0x80000000u | 0x0CF00400u, 0xF004},   // PDU 2 keeps the group extension
        {0x80000000u | 0x1BFEEC01u, 0x3FEEC},  // both data pages
        {0x80000000u | 0x1AEA1201u, 0x2EA00},  // PDU 1 keeps the extended data page
        {0x80000000u | 0x18EFFF01u, 0xEF00},   // last PDU 1 format
    };
    for (const auto& [word, pgn] : cases) {
        EXPECT_EQ(CANIdentifierClass::getParameterGroupNumber(word), pgn) << std::hex << word;
    }
    EXPECT_EQ(CANIdentifierClass(0).getWord(), 0x7FFFFFFFu);
    EXPECT_EQ(CANIdentifierClass(1).getWord(), 0xFFFFFFFFu);
    EXPECT_EQ(CANIdentifierClass(2).getWord(), 0x7FFFFFFFu);
    EXPECT_EQ(heard(), "CAN Identifier: Identifier Type Invalid 2");
}

// Validation stops at the first failure: one report each, the base constructor's channel check
// aside. A source or destination address that cannot be is only a warning.
TEST(CanStackReceiveMessage, ValidationReportsTheFirstFailureOnly) {
    listen();
    const uint8_t eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const uint8_t request[3] = {0x00, 0xEE, 0x00};
    const uint8_t otherRequest[3] = {0x00, 0xEF, 0x00};
    const uint8_t requestPage[3] = {0x00, 0xEE, 0x01};
    const std::string own = "CAN Receive Message: ";
    // clang-format off
    // Frame type, identifier, data, length, channel, report (none: valid).
    const std::tuple<uint8_t, uint32_t, const uint8_t*, uint8_t, uint8_t, const char*> cases[] = {
        {2, 0x18FEF100u, eight, 8, 0, "Identifier Type Invalid 2"},
        {1, 0x18FEF100u, nullptr, 0, 5, "Data Pointer NULL 2"},
        {1, 0x18FEF100u, eight, 0, 5, "Data Length Invalid 2"},
        {1, 0x18FEF100u, eight, 9, 5, "Data Length Invalid 2"},
        {1, 0x3FFFFFFFu, eight, 8, 3, "CAN Channel Invalid 2"},
        {0, 0x800u, eight, 8, 0, "Standard Identifier Out of Range 2"},
        {1, 0x20000000u, eight, 8, 0, "Extended Identifier Out of Range 2"},
        {1, 0x18FEF1FFu, eight, 8, 0, "Source Address Invalid 1"},
        {1, 0x18FEF1FEu, eight, 8, 0, "Source Address Invalid 1"},
        {1, 0x18EAFFFEu, otherRequest, 3, 0, "Source Address Invalid 1"},
        {1, 0x18EAFFFEu, requestPage, 3, 0, "Source Address Invalid 1"},
        {1, 0x19EEFFFEu, eight, 8, 0, "Source Address Invalid 1"},  // data page set
        {1, 0x18EAFE01u, request, 3, 0, "Destination Address Invalid 1"},
        {1, 0x18EEFFFEu, eight, 8, 0, ""},
        {1, 0x18EAFFFEu, request, 3, 0, ""},
        {1, 0x18EAFFFEu, request, 2, 0, ""},  // compared with its zero-filled third byte
        {1, 0x18FEFE01u, eight, 8, 0, ""},    // PDU 2: byte 254 is a group extension
        {0, 0x7FFu, eight, 1, 2, ""},
    };
    // clang-format on
    for (const auto& [type, identifier, data, length, channel, report] : cases) {
        CANReceiveMessageClass message(type, identifier, data, length, channel);
        const std::string base = channel > 2 ? "CAN Message: CAN Channel Invalid 2; " : "";
        EXPECT_EQ(heard(), *report ? base + own + report : "") << std::hex << identifier;
        EXPECT_EQ(message.isValid(), !*report) << std::hex << identifier;
    }
}

TEST_F(CanStackMessageOnBus, ClaimFromNullAddressHasNoSourceAndPDU2IgnoresDestination) {
    ControlFunctionClass* device = bus.claimFrom(0, 0x30, testNAME(9));
    const uint8_t data[8] = {1, 2};
    CANReceiveMessageClass claim(1, 0x18EEFFFEu, data, 8, 0);
    EXPECT_EQ(claim.getSourceControlFunction(), nullptr);
    EXPECT_EQ(claim.getSourceAddress(), 254);
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
    uint8_t buffer[4];
    EXPECT_EQ((std::vector<bool>{message.getDataBits(0, 33, wide), message.getData(buffer, 3),
                                 message.getData(buffer, 2, 2), message.getData(buffer, 3, 2),
                                 message.getData(nullptr, 4)}),
              (std::vector<bool>{false, false, true, false, false}));
}

TEST_F(CanStackMessageClaimed, TransmitStatusByConstructionCase) {
    listen();
    TestInternalControlFunction unclaimed(testNAME(2), 0, {0x81});
    TestInternalControlFunction elsewhere(testNAME(3), 1, {0x82});
    ControlFunctionClass* device = bus.claimFrom(0, 0x40, testNAME(50));
    UnregisteredControlFunctionClass gone(NAMEClass(testNAME(51)), 254, 0);
    heard();
    const uint8_t data[8] = {};
    using CF = ControlFunctionClass*;
    const std::string noChannel = "CAN Message: CAN Channel Invalid 2; ";
    // clang-format off
    // PGN, data, length, priority, source, destination, its address, status, report.
    const std::tuple<uint32_t, const uint8_t*, uint8_t, uint8_t, CF, CF, uint8_t, uint32_t, const char*> cases[] = {
        {0xFEF1, data, 8, 6, nullptr, nullptr, 255, 11, "Internal Control Function NULL 2"},
        {0xEF00, data, 8, 6, &self, &self, 255, 10, "Control Functions Equal 2"},
        {0xFEF1, nullptr, 8, 6, &self, nullptr, 255, 9, "Data Pointer NULL 2"},
        {0xFEF1, data, 0, 6, &self, nullptr, 255, 8, "Data Length Invalid 2"},
        {0xFEF1, data, 9, 6, &self, nullptr, 255, 8, "Data Length Invalid 2"},
        {0xFEF1, data, 8, 8, &self, nullptr, 255, 7, "CAN Priority Invalid 2"},
        {0x40000, data, 8, 6, &self, nullptr, 255, 6, "Parameter Group Number Out of Range 2"},
        {0xEF00, data, 8, 6, &self, &elsewhere, 255, 5, "CAN Channel Invalid 2"},
        {0xFEF1, data, 8, 6, &unclaimed, nullptr, 255, 4, "Source Address Invalid 0"},
        {0xEF01, data, 8, 6, &self, nullptr, 255, 3, "Parameter Group Number Destination Specific Invalid 2"},
        {0xEF00, data, 8, 6, &self, nullptr, 254, 2, "Destination Address Invalid 0"},
        {0xEF00, data, 8, 6, &self, &gone, 255, 2, "Destination Address Invalid 0"},
        {0xEF00, data, 8, 6, &self, device, 255, 0, ""},
        {0xEF00, data, 8, 6, &self, nullptr, 0x22, 0, ""},
        {0xFEF1, data, 1, 3, &self, nullptr, 254, 0, ""},
    };
    // clang-format on
    for (const auto& [pgn, bytes, length, priority, source, destination, address, status, report] :
         cases) {
        CANTransmitMessageClass message(pgn, bytes, length, priority, source, destination, address,
                                        nullptr, false);
        EXPECT_EQ(message.getStatus(), status) << std::hex << pgn << " " << int(length);
        const std::string base = status == 11 || status == 5 ? noChannel : "";
        EXPECT_EQ(heard(), *report ? base + "CAN Transmit Message: " + report : "");
    }
    EXPECT_EQ(CANTransmitMessageClass().getStatus(), 21u);
}

TEST_F(CanStackMessageOnBus, RawTransmitStatusesAndIdentifierPreparation) {
    listen();
    const uint8_t data[8] = {};
    const uint8_t request[3] = {0x00, 0xEE, 0x00};
    const uint8_t otherRequest[3] = {0x00, 0xEF, 0x00};
    // clang-format off
    // Type, identifier, data, length, priority, channel, status, report, the identifier bits
    // after preparation (0: not prepared).
    const std::tuple<uint8_t, uint32_t, const uint8_t*, uint8_t, uint8_t, uint8_t, uint32_t, const char*, uint32_t> cases[] = {
        {0, 0x7FF, nullptr, 8, 6, 0, 9, "Data Pointer NULL 2", 0},
        {2, 0x7FF, data, 8, 6, 0, 1, "Identifier Type Invalid 2", 0},
        {0, 0x7FF, data, 9, 6, 0, 8, "Data Length Invalid 2", 0},
        {0, 0x7FF, data, 8, 6, 3, 5, "CAN Channel Invalid 2", 0},
        {0, 0x800, data, 8, 6, 0, 12, "Standard Identifier Out of Range 2", 0},
        {1, 0xFEF100, data, 8, 8, 0, 7, "CAN Priority Invalid 2", 0},
        {1, 0x4000000, data, 8, 6, 0, 6, "Parameter Group Number Out of Range 2", 0},
        {1, 0xEFFE01, data, 8, 6, 0, 3, "Parameter Group Number Destination Specific Invalid 2", 0},
        {0, 0x123, data, 8, 6, 1, 0, "", 0x123},
        {1, 0xEEFF05, data, 8, 6, 0, 0, "", 0x18EEFF05},
        {1, 0xEEFFFE, data, 8, 6, 0, 0, "", 0x18EEFFFE},  // cannot claim
        {1, 0xEAFFFE, request, 3, 6, 0, 0, "", 0x18EAFFFE},
        {1, 0xEAFFFE, otherRequest, 3, 6, 0, 0, "", 0},  // only requests for claims
        {1, 0xFEF1FE, data, 8, 3, 0, 0, "", 0},          // other frames never from 254
        {1, 0xFEF122, data, 8, 3, 0, 0, "", 0x0CFEF122},
    };
    // clang-format on
    for (const auto& [type, identifier, bytes, length, priority, channel, status, report, word] :
         cases) {
        CANTransmitMessageClass message(type, identifier, bytes, length, priority, channel, nullptr,
                                        false);
        EXPECT_EQ(message.getStatus(), status) << std::hex << identifier;
        const std::string base = channel > 2 ? "CAN Message: CAN Channel Invalid 2; " : "";
        EXPECT_EQ(heard(), *report ? base + "CAN Transmit Message: " + report : "");
        const bool prepared = message.prepareIdentifierForTransmit();
        EXPECT_EQ(prepared ? message.getIdentifier().getIdentifier() : 0u, word)
            << std::hex << identifier;
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
    EXPECT_FALSE(queue().addCANMessage(extra, 0xFFFFFFFFu));
    EXPECT_EQ((std::vector<uint32_t>{queue().getDroppedCount(), queue().getTotalCount(),
                                     queue().getCurrentCount(), queue().getPeakCount()}),
              (std::vector<uint32_t>{3, 53, 50, 50}));
    EXPECT_EQ(descriptionCount(QUEUE, "Dropped Message", 2), 3u);
}

TEST(CanStackMessageQueue, OldestFirstPerHandleAndFreedEntriesKeepNothing) {
    const uint32_t mine = CANMessageQueueClass::getQueueHandle();
    const uint32_t other = CANMessageQueueClass::getQueueHandle();
    const uint8_t full[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    queue().addCANMessage(CANReceiveMessageClass(1, 0x18FEF101u, full, 8, 0), mine);
    queue().freeReceivedCANMessage(queue().getNextReceivedCANMessage(mine));
    const uint8_t bytes[3] = {1, 9, 2};
    for (uint8_t i = 0; i < 3; ++i) {
        queue().addCANMessage(CANReceiveMessageClass(1, 0x18FEF101u + i, bytes + i, 1, 0),
                              i == 1 ? other : mine);
    }
    std::vector<Bytes> taken;
    while (CAN_MESSAGE_QUEUE_STRUCT* entry = queue().getNextReceivedCANMessage(mine)) {
        taken.emplace_back(entry->data, entry->data + 8);
        EXPECT_TRUE(queue().freeReceivedCANMessage(entry));
        EXPECT_FALSE(queue().freeReceivedCANMessage(entry));
    }
    // The first went into the entry the full frame left: it reads zeros past its own byte.
    EXPECT_EQ(taken, (std::vector<Bytes>{{1, 0, 0, 0, 0, 0, 0, 0}, {2, 0, 0, 0, 0, 0, 0, 0}}));
    EXPECT_EQ(queue().getCurrentCount(), 1u);
    EXPECT_EQ(queue().getPeakCount(), 3u);
    EXPECT_EQ(queue().getNextReceivedCANMessage(0xFFFFFFFFu), nullptr);
    EXPECT_EQ(descriptionCount(QUEUE, "Invalid Queue Handle GetNextReceivedCANMessage", 2), 1u);
    EXPECT_EQ(descriptionCount(QUEUE, "Invalid CAN Message FreeReceivedCANMessage", 2), 2u);
}
