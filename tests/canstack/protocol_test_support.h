#ifndef TESTS_CANSTACK_PROTOCOL_TEST_SUPPORT_H
#define TESTS_CANSTACK_PROTOCOL_TEST_SUPPORT_H

// For the request and transport protocol tests, on top of the simulated bus: a transmit filter
// that refuses chosen PGNs, and description counts that check the severity too.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>

#include "simulated_bus.h"

// PGNs the transmit function refuses before the bus sees them.
inline std::set<uint32_t> refused;
inline TransmitCANMessageFunction busTransmit = nullptr;
inline bool refusingTransmit(CANTransmitMessageClass* message) {
    return refused.count(message->getParameterGroupNumber()) == 0 && busTransmit(message);
}

// 29-bit identifier of a destination-specific PGN (low byte 0) sent to `destination`.
inline uint32_t frameIdentifier(uint8_t priority, uint32_t pgn, uint8_t destination,
                                uint8_t source) {
    return (static_cast<uint32_t>(priority) << 26) | (pgn << 8) |
           (static_cast<uint32_t>(destination) << 8) | source;
}

constexpr uint8_t SELF = 0x80;
constexpr uint8_t PEER = 0x30;
constexpr uint8_t OTHER = 0x31;

// This device claims SELF on channel 0, after PEER and OTHER have claimed theirs.
class ProtocolTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The bus puts back what stood before it.
        busTransmit = NetworkManagementClass::TransmitCANMessage;
        NetworkManagementClass::TransmitCANMessage = &refusingTransmit;
        ASSERT_TRUE(bus.runUntilClaimed(self));
        bus.receiveClaim(0, PEER, testNAME(2));
        bus.receiveClaim(0, OTHER, testNAME(3));
        bus.update();
        bus.frames.clear();
    }

    SimulatedBus bus;
    TestInternalControlFunction self{testNAME(1), 0, {SELF}};
};

#endif
