#ifndef TESTS_CANSTACK_SIMULATED_BUS_H
#define TESTS_CANSTACK_SIMULATED_BUS_H

// Simulated bus: a fake clock behind Timestamp_ms, a transmit function that records every frame
// and confirms it (immediate frames at once, queued ones on confirmPending or by the next
// update), and frames fed in through receiveMessage.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "canstack/canmessage.h"
#include "canstack/canmessagequeue.h"
#include "canstack/internalcontrolfunction.h"
#include "canstack/name.h"
#include "canstack/networkmanagement.h"
#include "canstack/networkmanagementmemorypool.h"
#include "canstack/networkmanagementstatistics.h"
#include "canstack/networkmanagementutilities.h"
#include "canstack/transportprotocol.h"

using NM = NetworkManagementClass;
using Bytes = std::vector<uint8_t>;
using Texts = std::vector<std::string>;

struct SentFrame {
    uint32_t identifier;  // 29 bits as written, addresses filled in
    Bytes data;
    bool immediate;

    uint32_t pgn() const {
        return CANIdentifierClass::getParameterGroupNumber(identifier | 0x80000000u);
    }
    uint8_t source() const { return static_cast<uint8_t>(identifier); }
    uint8_t pduSpecific() const { return static_cast<uint8_t>(identifier >> 8); }
    uint8_t priority() const { return static_cast<uint8_t>((identifier >> 26) & 7u); }
};

// "identifier:data" in hex: priority, PGN, both addresses and every byte in one string.
inline std::string text(const SentFrame& frame) {
    char buffer[12];
    std::snprintf(buffer, sizeof(buffer), "%08X:", frame.identifier);
    std::string out = buffer;
    for (uint8_t byte : frame.data) {
        std::snprintf(buffer, sizeof(buffer), "%02X", byte);
        out += buffer;
    }
    return out;
}

class SimulatedBus {
public:
    SimulatedBus() {
        current = this;
        now = 1000;
        NetworkManagementUtilitiesClass::Timestamp_ms = [] { return now; };
        NM::TransmitCANMessage = &transmit;
    }
    ~SimulatedBus() { current = nullptr; }

    inline static uint32_t now = 1000;
    void advance(uint32_t ms) { now += ms; }
    // Confirms queued frames, then one update.
    void update() {
        confirmPending();
        NM::update();
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
    void run(uint32_t duration) {
        runUntil([] { return false; }, duration);
    }
    void confirmPending() {
        for (; !pending.empty(); pending.pop_front()) {
            NM::transmitComplete(pending.front().get(), confirmSuccess);
        }
    }

    void receive(uint8_t channel, uint32_t identifier, const Bytes& data) {
        CANReceiveMessageClass message(1, identifier, data.data(),
                                       static_cast<uint8_t>(data.size()), channel);
        NM::receiveMessage(&message);
    }
    // An address claim of another device; returns who holds the address after it.
    ControlFunctionClass* claimFrom(uint8_t channel, uint8_t address, uint64_t name) {
        Bytes bytes(8);
        NAMEClass(name).toBytes(bytes.data());
        receive(channel, 0x18EEFF00u | address, bytes);
        return NM::getControlFunction(channel, address);
    }

    std::vector<SentFrame> framesWithPGN(uint32_t pgn) const {
        std::vector<SentFrame> found;
        std::copy_if(frames.begin(), frames.end(), std::back_inserter(found),
                     [pgn](const SentFrame& frame) { return frame.pgn() == pgn; });
        return found;
    }
    Texts texts() const {
        Texts all;
        std::transform(frames.begin(), frames.end(), std::back_inserter(all), text);
        return all;
    }

    std::vector<SentFrame> frames;
    std::set<uint32_t> refused;    // PGNs the transmit function refuses before the bus sees them
    bool confirmSuccess = true;    // result given to transmitComplete
    bool deferQueued = true;       // queued frames wait for confirmPending
    bool confirmImmediate = true;  // false: immediate frames wait like queued ones

private:
    inline static SimulatedBus* current = nullptr;

    static bool transmit(CANTransmitMessageClass* message) {
        SimulatedBus* bus = current;
        if (bus == nullptr || bus->refused.count(message->getParameterGroupNumber()) != 0) {
            return false;
        }
        const bool written = message->prepareIdentifierForTransmit();
        if (written) {
            const uint8_t* data = nullptr;
            message->getDataPointer(data);
            bus->frames.push_back(SentFrame{message->getIdentifier().getIdentifier() & 0x1FFFFFFFu,
                                            Bytes(data, data + message->getDataLength()),
                                            message->isImmediate()});
        }
        if ((message->isImmediate() && bus->confirmImmediate) || !bus->deferQueued) {
            NM::transmitComplete(message, written && bus->confirmSuccess);
        } else if (written) {
            bus->pending.emplace_back(new CANTransmitMessageClass(*message));
        }
        return written;
    }

    std::deque<std::unique_ptr<CANTransmitMessageClass>> pending;
};

// Internal control function with a fixed address list; records its hooks.
class TestInternalControlFunction : public InternalControlFunctionClass {
public:
    TestInternalControlFunction(uint64_t name, uint8_t channel, Bytes addresses)
        : InternalControlFunctionClass(NAMEClass(name), channel), addresses(std::move(addresses)) {}

    uint8_t getAddressAtIndex(uint8_t index) override {
        return index < addresses.size() ? addresses[index] : 254;
    }
    bool acceptCommandedAddress(ControlFunctionClass*) override { return acceptCommands; }
    void onAddressClaimed() override { ++claimedCount; }
    void onStart() override { ++startCount; }

    Bytes addresses;
    bool acceptCommands = true;
    int claimedCount = 0;
    int startCount = 0;
};

// Calls each(owner, text, severity, count) for every description message, pending ones listed
// first; most severe first, each severity newest first.
template <typename Each>
void forEachDescription(Each each) {
    NetworkManagementStatisticsClass::updateDescriptionMessages();
    const char* o = nullptr;
    const char* t = nullptr;
    uint8_t s = 0;
    uint32_t c = 0;
    for (uint32_t i = 0; NetworkManagementStatisticsClass::getDescriptionMessage(i, o, t, s, c);
         ++i) {
        each(o, t, s, c);
    }
}
// Count of a description message by text content; a null text or a negative severity matches any.
inline uint32_t descriptionCount(const char* owner, const char* text, int severity = -1) {
    uint32_t count = 0;
    forEachDescription([&](const char* o, const char* t, uint8_t s, uint32_t c) {
        const bool same = text == nullptr || std::strcmp(t, text) == 0;
        count += std::strcmp(o, owner) == 0 && same && (severity < 0 || s == severity) ? c : 0;
    });
    return count;
}
// Description messages of `owner` as "severity text", with " xN" when counted N > 1 times.
inline Texts descriptions(const char* owner) {
    Texts found;
    forEachDescription([&](const char* o, const char* t, uint8_t s, uint32_t c) {
        if (std::strcmp(o, owner) == 0) {
            found.push_back(std::to_string(s) + " " + t + (c > 1 ? " x" + std::to_string(c) : ""));
        }
    });
    return found;
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

inline uint32_t usedBlocks() {
    return NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL.getUsedBlockCount();
}
inline uint32_t queued() {
    return CANMessageQueueClass::CAN_MESSAGE_QUEUE.getCurrentCount();
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

// 29-bit identifier of a destination-specific PGN (low byte 0) sent to `destination`.
inline uint32_t frameIdentifier(uint8_t priority, uint32_t pgn, uint8_t destination,
                                uint8_t source) {
    return (uint32_t{priority} << 26) | (pgn << 8) | (uint32_t{destination} << 8) | source;
}

// Transport frames: connection management carries a control byte, three bytes, 0xFF and the PGN;
// RTS, BAM and EOM carry the size and the packet count.
enum Control : uint8_t { RTS = 16, CTS = 17, EOM = 19, BAM = 32, ABORT = 255 };
inline Bytes cm(uint8_t control, uint8_t b1, uint8_t b2, uint8_t b3, uint32_t pgn) {
    const auto byte = [pgn](int shift) { return static_cast<uint8_t>(pgn >> shift); };
    return {control, b1, b2, b3, 0xFF, byte(0), byte(8), byte(16)};
}
inline Bytes sized(uint8_t control, size_t size, uint32_t pgn) {
    const size_t packets = std::min<size_t>((size - 1) / 7 + 1, 255);
    return cm(control, static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8),
              static_cast<uint8_t>(packets), pgn);
}
// Data packet `sequence` of `message`, padded with 0xFF.
inline Bytes packet(uint32_t sequence, const Bytes& message) {
    Bytes data(8, 0xFF);
    data[0] = static_cast<uint8_t>(sequence);
    for (size_t i = 0, at = (sequence - 1) * 7; i < 7 && at < message.size(); ++i, ++at) {
        data[i + 1] = message[at];
    }
    return data;
}

constexpr uint8_t SELF = 0x80;
constexpr uint8_t PEER = 0x30;
constexpr uint8_t OTHER = 0x31;

// For the request and transport protocols: this device claims SELF on channel 0, after PEER and
// OTHER have claimed theirs.
class ProtocolTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.runUntilClaimed(self));
        bus.claimFrom(0, PEER, testNAME(2));
        bus.claimFrom(0, OTHER, testNAME(3));
        bus.update();
        bus.frames.clear();
    }
    static uint32_t sessions() {
        return TransportProtocolClass::TRANSPORT_PROTOCOL.getNumberActiveSessions();
    }
    SimulatedBus bus;
    TestInternalControlFunction self{testNAME(1), 0, {SELF}};
};

#endif
