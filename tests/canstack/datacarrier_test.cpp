#include <gtest/gtest.h>

#include <vector>

#include "canstack/canmessage.h"
#include "canstack/datacarrier.h"
#include "canstack/networkmanagementmemorypool.h"

namespace {
using Bytes = std::vector<uint8_t>;
constexpr uint32_t kNone = DataCarrier::EMPTY;
NetworkManagementMemoryPoolClass& pool() {
    return NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL;
}

// Length, handle and every byte as getData returns them; {} when the read is refused.
Bytes contents(const DataCarrier& carrier) {
    Bytes bytes(carrier.getDataLength());
    return carrier.getData(bytes.data(), static_cast<uint32_t>(bytes.size())) ? bytes : Bytes{};
}

uint32_t pooled(const Bytes& bytes) {
    uint32_t handle = kNone;
    EXPECT_TRUE(pool().acquireBuffer(static_cast<uint32_t>(bytes.size()), handle));
    EXPECT_TRUE(pool().writeBuffer(handle, bytes.data(), 0, static_cast<uint32_t>(bytes.size())));
    return handle;
}
}  // namespace

// A reassembled message's block is shared, not copied: the carrier holds a reference that
// outlives the message, and copies hold one each.
TEST(DataCarrier, ALongMessageSharesItsBlock) {
    Bytes payload(150);
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i);
    }
    const uint32_t handle = pooled(payload);
    ControlFunctionClass* none = nullptr;
    {
        DataCarrier carrier(CANLongMessageClass(0xFEEC, handle, nullptr, 150, none, none, "t"));
        EXPECT_EQ(carrier.getPoolHandle(), handle);
        EXPECT_EQ(contents(carrier), payload);
        EXPECT_EQ(pool().getReferenceCount(handle), 2);
        DataCarrier copy(carrier);
        DataCarrier assigned;
        assigned = copy;
        const DataCarrier& alias = assigned;
        assigned = alias;  // itself: no second reference
        EXPECT_EQ(pool().getReferenceCount(handle), 4);
        uint8_t window[3] = {};
        EXPECT_TRUE(assigned.getData(window, 147, 3));
        EXPECT_EQ(Bytes(window, window + 3), (Bytes{147, 148, 149}));
        EXPECT_FALSE(assigned.getData(window, 148, 3));
        EXPECT_FALSE(assigned.getData(window, 151, 0));
        EXPECT_FALSE(assigned.getData(nullptr, 0, 1));
        EXPECT_FALSE(assigned.getData(window, 149));  // capacity below the length
        copy.release();
        EXPECT_TRUE(copy.isEmpty());
        EXPECT_EQ(copy.getPoolHandle(), kNone);
        EXPECT_EQ(contents(copy), Bytes{});
        EXPECT_EQ(pool().getReferenceCount(handle), 3);
    }
    EXPECT_EQ(pool().getReferenceCount(handle), 1);
    pool().releaseBuffer(handle);
    EXPECT_EQ(pool().getUsedBlockCount(), 0u);
}

// Every way of building that fails leaves the carrier empty and the pool as it was.
TEST(DataCarrier, AFailedBuildIsEmptyAndTakesNothing) {
    const uint8_t eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ControlFunctionClass* none = nullptr;
    uint8_t storage[4] = {9, 9, 9, 9};
    const CANLongMessageClass freed(0xFEEC, 7, nullptr, 20, none, none, "t");  // block 7 unused
    const CANLongMessageClass unstored(0xFEEC, kNone, nullptr, 20, none, none, "t");
    const CANReceiveMessageClass tooLong(1, 0x18FEF117u, eight, 9, 0);
    const CANReceiveMessageClass empty(1, 0x18FEF117u, eight, 0, 0);
    const CANMessageClass* const failures[] = {&freed, &unstored, &tooLong, &empty};
    for (const CANMessageClass* message : failures) {
        const DataCarrier carrier(*message);
        EXPECT_TRUE(carrier.isEmpty());
        EXPECT_EQ(carrier.getPoolHandle(), kNone);
        EXPECT_EQ(pool().getUsedBlockCount(), 0u);
    }
    // Kept in the application's storage: no block, and no read without its read function.
    const DataCarrier applications(CANLongMessageClass(0xFEEC, kNone, storage, 4, none, none, "t"));
    EXPECT_EQ(applications.getDataLength(), 4u);
    EXPECT_EQ(contents(applications), Bytes{});
    // A full pool refuses a frame's copy.
    std::vector<uint32_t> all;
    for (uint32_t handle = 0; pool().acquireBuffer(1, handle);) {
        all.push_back(handle);
    }
    EXPECT_TRUE(DataCarrier(CANReceiveMessageClass(1, 0x18FEF117u, eight, 8, 0)).isEmpty());
    for (uint32_t handle : all) {
        pool().releaseBuffer(handle);
    }
}

// A frame's data is copied into a block of its own; assigning another frame lets go of the
// old block only after the new one is taken.
TEST(DataCarrier, AFrameIsCopiedAndReassignmentSwapsBlocks) {
    const uint8_t eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    DataCarrier carrier(CANReceiveMessageClass(1, 0x18FEF117u, eight, 8, 0));
    const uint32_t first = carrier.getPoolHandle();
    EXPECT_EQ(contents(carrier), Bytes(eight, eight + 8));
    carrier = CANTransmitMessageClass(0, 0x123, eight + 5, 3, 6, 0, nullptr, false);
    EXPECT_NE(carrier.getPoolHandle(), first);
    EXPECT_EQ(contents(carrier), (Bytes{6, 7, 8}));
    EXPECT_EQ(pool().getUsedBlockCount(), 1u);
    EXPECT_EQ(pool().getReferenceCount(first), 0);
}
