// Counts heap allocations on the receive path; replaces the global allocator in this
// executable only.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

#include "canstack/controlfunction.h"
#include "canstack/filteredmessagecallback.h"
#include "simulated_bus.h"

namespace {
std::atomic<uint64_t> allocations{0};
}  // namespace

void* operator new(std::size_t size) {
    ++allocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    ++allocations;
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
// GCC at -O2 sees free() meet a pointer from the inlined operator new above and warns;
// both sides are replaced here, so they match.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {
struct CopyingReceiver : ReceiveCANMessageCallbackClass {
    void receiveCANMessage(CANMessageClass* message) override {
        message->getData(last, sizeof(last));
        ++count;
    }
    uint8_t last[8] = {};
    uint32_t count = 0;
};
}  // namespace

TEST(CanStackAllocation, OrdinaryFramesFromAKnownSourceAllocateNothing) {
    SimulatedBus bus;
    bus.update();
    TestInternalControlFunction self(testNAME(100), 1, {0x80});
    ASSERT_TRUE(bus.runUntilClaimed(self));
    bus.claimFrom(1, 0x00, testNAME(1, 93));
    RegisteredControlFunctionClass engine(1, NAMEClass(testNAME(1, 93)));
    CopyingReceiver receiver;
    engine.addParameterGroupNumberCallback(0xF004, nullptr, &receiver);
    NM::addGlobalReceiveCallback(PGN_ANY, &receiver);
    std::vector<std::unique_ptr<FilteredMessageMatchingCallbackClass>> filters;
    for (uint32_t pgn : {0xF003, 0xF004, 0xFE56, 0xFEE5, 0xFEEE, 0xFEEF, 0xFEF2, 0xFEF8}) {
        filters.emplace_back(new FilteredMessageMatchingCallbackClass());
        filters.back()->setParameterGroupNumber(pgn);
        filters.back()->setChannel(1);
        filters.back()->addCallback(&receiver);
    }
    bus.run(20);  // settle description messages into their lists

    const uint8_t data[8] = {0xF0, 0x7D, 0x7D, 0x20, 0x1C, 0x00, 0xF0, 0x7D};
    const uint64_t before = allocations.load();
    for (int i = 0; i < 1000; ++i) {
        CANReceiveMessageClass frame(1, 0x0CF00400u, data, 8, 1);
        NM::receiveMessage(&frame);
        CANReceiveMessageClass other(1, 0x18FECA00u, data, 8, 1);
        NM::receiveMessage(&other);
    }
    // A refused frame reports without allocating as well.
    CANReceiveMessageClass bad(1, 0x0CF004FFu, data, 8, 1);
    NM::receiveMessage(&bad);
    EXPECT_EQ(allocations.load() - before, 0u);
    // Registered, global and filter callbacks, the global one for the other group, and the
    // filter for the refused frame, which filters see whatever its validity.
    EXPECT_EQ(receiver.count, 1000u * (1 + 1 + 1) + 1000u + 1u);
}

// A node claiming one address from ever new NAMEs: past the maximum of remembered lost devices
// each claim forgets the oldest NAME and gives its node and its object to the newest.
TEST(CanStackAllocation, PastTheMaximumAClaimFloodAllocatesNothing) {
    constexpr uint32_t MAXIMUM = NM::MAXIMUM_NUMBER_FORGETTABLE_LOST_DEVICES;
    SimulatedBus bus;
    bus.update();
    // Built here rather than through the bus, whose helper allocates for the data.
    uint8_t name[8];
    uint64_t before = 0;
    for (uint32_t i = 1; i <= 4 * MAXIMUM; ++i) {
        if (i == MAXIMUM + 2) {
            before = allocations.load();
        }
        NAMEClass(testNAME(1000 + i, 151, false)).toBytes(name);
        CANReceiveMessageClass claim(1, 0x18EEFF42u, name, 8, 0);
        NM::receiveMessage(&claim);
    }
    EXPECT_EQ(allocations.load() - before, 0u);
    EXPECT_EQ(NM::getNumberLostDevices(), MAXIMUM);
    EXPECT_LE(UnregisteredControlFunctionClass::getNumberForgotten(), 1u);
    EXPECT_EQ(NetworkManagementStatisticsClass::NETWORK_MANAGEMENT_STATISTICS.getNewNAMECount(0),
              4 * MAXIMUM);
}
