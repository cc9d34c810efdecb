#ifndef TESTS_CANSTACK_SIMULATED_BUS_H
#define TESTS_CANSTACK_SIMULATED_BUS_H

// Simulated bus for stack tests. It puts a fake clock behind Timestamp_ms, installs a transmit
// function that records every frame and confirms it through transmitComplete (immediate frames
// at once, queued ones on confirmPending or by the next step), and feeds frames in through
// receiveMessage. One instance per test; it restores the clock and transmit function when done.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "canstack/canmessage.h"
#include "canstack/internalcontrolfunction.h"
#include "canstack/name.h"
#include "canstack/networkmanagement.h"
#include "canstack/networkmanagementstatistics.h"
#include "canstack/networkmanagementutilities.h"

struct SentFrame {
    uint8_t channel;
    uint32_t identifier;  // 29 bits as written, addresses filled in
    std::vector<uint8_t> data;
    bool immediate;

    uint32_t pgn() const {
        return CANIdentifierClass::getParameterGroupNumber(identifier | 0x80000000u);
    }
    uint8_t source() const { return static_cast<uint8_t>(identifier); }
    uint8_t pduSpecific() const { return static_cast<uint8_t>(identifier >> 8); }
    uint8_t priority() const { return static_cast<uint8_t>((identifier >> 26) & 7u); }
};

class SimulatedBus {
public:
    SimulatedBus() {
        current() = this;
        now() = 1000;
        previousClock = NetworkManagementUtilitiesClass::Timestamp_ms;
        previousTransmit = NetworkManagementClass::TransmitCANMessage;
        NetworkManagementUtilitiesClass::Timestamp_ms = &clock;
        NetworkManagementClass::TransmitCANMessage = &transmit;
    }
    ~SimulatedBus() {
        NetworkManagementUtilitiesClass::Timestamp_ms = previousClock;
        NetworkManagementClass::TransmitCANMessage = previousTransmit;
        current() = nullptr;
    }
    SimulatedBus(const SimulatedBus&) = delete;
    SimulatedBus& operator=(const SimulatedBus&) = delete;

    static uint32_t& now() {
        static uint32_t value = 1000;
        return value;
    }
    static uint32_t clock() { return now(); }

    void advance(uint32_t ms) { now() += ms; }
    // Confirms queued frames, then one update.
    void update() {
        confirmPending();
        NetworkManagementClass::update();
    }
    // Steps updates every 10 ms until `done` holds; false if it does not within `limit` ms.
    template <typename Done>
    bool runUntil(Done done, uint32_t limit = 3000) {
        for (uint32_t t = 0; t < limit; t += 10) {
            advance(10);
            update();
            if (done()) {
                return true;
            }
        }
        return false;
    }
    bool runUntilClaimed(InternalControlFunctionClass& function, uint32_t limit = 3000) {
        return runUntil([&function] { return function.isAddressValid(); }, limit);
    }
    // Runs updates every 10 ms for `duration` ms of fake time.
    void run(uint32_t duration) {
        runUntil([] { return false; }, duration);
    }

    // Confirms every queued (non-immediate) frame with the configured result.
    void confirmPending() {
        while (!pending.empty()) {
            std::unique_ptr<CANTransmitMessageClass> message = std::move(pending.front());
            pending.pop_front();
            NetworkManagementClass::transmitComplete(message.get(), confirmSuccess);
        }
    }

    void receive(uint8_t channel, uint32_t identifier, const std::vector<uint8_t>& data) {
        CANReceiveMessageClass message(1, identifier, data.data(),
                                       static_cast<uint8_t>(data.size()), channel);
        NetworkManagementClass::receiveMessage(&message);
    }
    // An address claim of another device.
    void receiveClaim(uint8_t channel, uint8_t address, uint64_t name) {
        std::vector<uint8_t> bytes(8);
        NAMEClass(name).toBytes(bytes.data());
        receive(channel, 0x18EEFF00u | address, bytes);
    }
    // The same, returning the control function that now holds the address.
    ControlFunctionClass* claimFrom(uint8_t channel, uint8_t address, uint64_t name) {
        receiveClaim(channel, address, name);
        return NetworkManagementClass::getControlFunction(channel, address);
    }

    std::vector<SentFrame> framesWithPGN(uint32_t pgn) const {
        std::vector<SentFrame> found;
        for (const SentFrame& frame : frames) {
            if (frame.pgn() == pgn) {
                found.push_back(frame);
            }
        }
        return found;
    }

    std::vector<SentFrame> frames;
    bool acceptTransmits = true;   // false: the transmit function refuses
    bool confirmSuccess = true;    // result given to transmitComplete
    bool deferQueued = true;       // queued frames wait for confirmPending
    bool confirmImmediate = true;  // false: immediate frames wait like queued ones

private:
    static SimulatedBus*& current() {
        static SimulatedBus* bus = nullptr;
        return bus;
    }

    static bool transmit(CANTransmitMessageClass* message) {
        SimulatedBus* bus = current();
        if (bus == nullptr || !bus->acceptTransmits) {
            return false;
        }
        const bool written = message->prepareIdentifierForTransmit();
        if (written) {
            const uint8_t* data = nullptr;
            message->getDataPointer(data);
            bus->frames.push_back(SentFrame{
                message->getChannel(), message->getIdentifier().getIdentifier() & 0x1FFFFFFFu,
                std::vector<uint8_t>(data, data + message->getDataLength()),
                message->isImmediate()});
        }
        if ((message->isImmediate() && bus->confirmImmediate) || !bus->deferQueued) {
            NetworkManagementClass::transmitComplete(message, written && bus->confirmSuccess);
            return written;
        }
        if (written) {
            bus->pending.emplace_back(new CANTransmitMessageClass(*message));
        }
        return written;
    }

    uint32_t (*previousClock)() = nullptr;
    TransmitCANMessageFunction previousTransmit = nullptr;
    std::deque<std::unique_ptr<CANTransmitMessageClass>> pending;
};

// Internal control function with a fixed address list; records its hooks.
class TestInternalControlFunction : public InternalControlFunctionClass {
public:
    TestInternalControlFunction(uint64_t name, uint8_t channel, std::vector<uint8_t> addresses)
        : InternalControlFunctionClass(NAMEClass(name), channel), addresses(std::move(addresses)) {}

    uint8_t getAddressAtIndex(uint8_t index) override {
        return index < addresses.size() ? addresses[index] : 254;
    }
    bool acceptCommandedAddress(ControlFunctionClass*) override { return acceptCommands; }
    void onAddressClaimed() override { ++claimedCount; }
    void onStart() override { ++startCount; }

    std::vector<uint8_t> addresses;
    bool acceptCommands = true;
    int claimedCount = 0;
    int startCount = 0;
};

// Count of a description message, in the lists and the pending slots, by text content;
// a null text or a negative severity matches any.
inline uint32_t descriptionCount(const char* owner, const char* text, int severity = -1) {
    const auto matches = [&](const char* o, const char* t, uint8_t s) {
        return std::strcmp(o, owner) == 0 && (text == nullptr || std::strcmp(t, text) == 0) &&
               (severity < 0 || s == severity);
    };
    uint32_t count = 0;
    const char* o = nullptr;
    const char* t = nullptr;
    uint8_t s = 0;
    uint32_t c = 0;
    for (uint32_t i = 0; NetworkManagementStatisticsClass::getDescriptionMessage(i, o, t, s, c);
         ++i) {
        if (matches(o, t, s)) {
            count += c;
        }
    }
    for (const DescriptionMessageSlot& slot :
         NetworkManagementStatisticsClass::availableDescriptionMessages) {
        if (slot.owner != nullptr && matches(slot.owner, slot.text, slot.severity)) {
            ++count;
        }
    }
    return count;
}

// NAME with the given identity, self-configurable unless told otherwise.
inline uint64_t testNAME(uint32_t identity, uint32_t manufacturer = 151,
                         bool selfConfigurable = true) {
    NAMEClass name(0);
    name.setIdentityNumber(identity);
    name.setManufacturerCode(manufacturer);
    name.setIndustryGroup(2);
    name.setSelfConfigurableAddress(selfConfigurable ? 1 : 0);
    return name.getNAME();
}

// A bus past its first update.
class BusTest : public ::testing::Test {
protected:
    void SetUp() override { bus.update(); }
    SimulatedBus bus;
};

// The same with a function of our own holding 0x80 (0x81 next in its list) on channel 0.
class ClaimedTest : public BusTest {
protected:
    void SetUp() override {
        BusTest::SetUp();
        ASSERT_TRUE(bus.runUntilClaimed(self));
    }
    TestInternalControlFunction self{testNAME(100), 0, {0x80, 0x81}};
};

#endif
