#ifndef TESTS_CANSTACK_PROTOCOL_TEST_SUPPORT_H
#define TESTS_CANSTACK_PROTOCOL_TEST_SUPPORT_H

// For the request and transport protocol tests, on top of the simulated bus: a transmit filter
// that refuses chosen PGNs, and description counts that check the severity too.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

#include "simulated_bus.h"

// Install after the bus, which puts back what stood before it.
class RefusingTransmit {
public:
    RefusingTransmit() : busTransmit(NetworkManagementClass::TransmitCANMessage) {
        current() = this;
        NetworkManagementClass::TransmitCANMessage = &transmit;
    }
    ~RefusingTransmit() { NetworkManagementClass::TransmitCANMessage = busTransmit; }

    std::set<uint32_t> refused;

private:
    static RefusingTransmit*& current() {
        static RefusingTransmit* instance = nullptr;
        return instance;
    }
    static bool transmit(CANTransmitMessageClass* message) {
        return current()->refused.count(message->getParameterGroupNumber()) == 0 &&
               current()->busTransmit(message);
    }
    TransmitCANMessageFunction busTransmit;
};

// Count of a description message, listed or still in a slot.
inline uint32_t reportCount(const char* owner, const char* text, uint8_t severity) {
    uint32_t count = 0;
    const char *o = nullptr, *t = nullptr;
    uint8_t s = 0;
    uint32_t c = 0;
    for (uint32_t i = 0; NetworkManagementStatisticsClass::getDescriptionMessage(i, o, t, s, c);
         ++i) {
        if (s == severity && std::strcmp(o, owner) == 0 && std::strcmp(t, text) == 0) {
            count += c;
        }
    }
    for (const DescriptionMessageSlot& slot :
         NetworkManagementStatisticsClass::availableDescriptionMessages) {
        if (slot.owner != nullptr && slot.severity == severity &&
            std::strcmp(slot.owner, owner) == 0 && std::strcmp(slot.text, text) == 0) {
            ++count;
        }
    }
    return count;
}

// 29-bit identifier of a frame from `source` to `destination` (255 for global).
inline uint32_t frameIdentifier(uint8_t priority, uint32_t pgn, uint8_t destination,
                                uint8_t source) {
    const uint32_t pduFormat = (pgn >> 8) & 0xFFu;
    const uint32_t pduSpecific = pduFormat < 0xF0 ? destination : (pgn & 0xFFu);
    return (static_cast<uint32_t>(priority) << 26) | ((pgn & 0x30000u) << 8) | (pduFormat << 16) |
           (pduSpecific << 8) | source;
}

constexpr uint8_t SELF = 0x80;
constexpr uint8_t PEER = 0x30;
constexpr uint8_t OTHER = 0x31;

// This device claims SELF on channel 0, after PEER and OTHER have claimed theirs.
class ProtocolTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.runUntilClaimed(self));
        bus.receiveClaim(0, PEER, testNAME(2));
        bus.receiveClaim(0, OTHER, testNAME(3));
        bus.update();
        bus.frames.clear();
    }

    SimulatedBus bus;
    RefusingTransmit transmit;
    TestInternalControlFunction self{testNAME(1), 0, {SELF}};
};

#endif
