#include <gtest/gtest.h>

#include <string>

#include "simulated_bus.h"

namespace {
using Statistics = NetworkManagementStatisticsClass;
using Pool = NetworkManagementMemoryPoolClass;
Pool& pool() {
    return Pool::NETWORK_MANAGEMENT_MEMORY_POOL;
}

const char* const OWNER = "Test Owner";
const char* const TEXTS[] = {"one", "two", "three", "four", "five", "six"};
}  // namespace

TEST(CanStackDescriptionMessages, SixthNewMessageIsNotStoredButStillHeard) {
    static std::vector<std::string> heard;
    ASSERT_NE(Statistics::addDescriptionMessageCallback(
                  [](const char*, const char* text, uint8_t, uint32_t count) {
                      heard.push_back(text + std::string(" x") + std::to_string(count));
                  }),
              nullptr);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(Statistics::addDescriptionMessage(OWNER, TEXTS[i], 1));
    }
    EXPECT_FALSE(Statistics::addDescriptionMessage(OWNER, TEXTS[5], 1));
    ASSERT_EQ(heard.size(), 7u);  // five, the overflow record, and the sixth
    EXPECT_EQ(heard[5], "Out Of Description Messages x1");
    EXPECT_EQ(heard[6], "six x1");
    EXPECT_EQ(descriptionCount("Network Management Statistics", "Out Of Description Messages", 2),
              1u);
    EXPECT_EQ(Statistics::getNumberDescriptionMessages(), 6u);
    EXPECT_EQ(descriptionCount(OWNER, "six"), 0u);
    // After the update the slots are free again.
    EXPECT_TRUE(Statistics::addDescriptionMessage(OWNER, TEXTS[5], 1));
}

TEST(CanStackMemoryPool, AcquireBySizeRetainAndRelease) {
    uint32_t handle = 0;
    uint32_t second = 0;
    ASSERT_TRUE(pool().acquireBuffer(100, handle));
    EXPECT_EQ(pool().getPeakBlockCount(), 1u);
    EXPECT_TRUE(pool().releaseBuffer(handle));
    EXPECT_FALSE(pool().acquireBuffer(0, handle));  // the block count wraps
    EXPECT_EQ(handle, Pool::INVALID_HANDLE);
    // Blocks are taken one by one and given back: the peak saw them all.
    EXPECT_EQ(pool().getUsedBlockCount(), 0u);
    EXPECT_EQ(pool().getPeakBlockCount(), 50u);
    ASSERT_TRUE(pool().acquireBuffer(1785, handle));
    EXPECT_EQ(pool().getUsedBlockCount(), 18u);
    EXPECT_FALSE(pool().acquireBuffer(3300, second));  // 33 blocks, 32 free
    EXPECT_EQ(pool().getUsedBlockCount(), 18u);
    // Retained twice, it takes three releases.
    EXPECT_TRUE(pool().retainBuffer(handle));
    EXPECT_TRUE(pool().retainBuffer(handle));
    EXPECT_TRUE(pool().releaseBuffer(handle));
    EXPECT_TRUE(pool().releaseBuffer(handle));
    EXPECT_EQ(pool().getUsedBlockCount(), 18u);
    EXPECT_TRUE(pool().releaseBuffer(handle));
    EXPECT_EQ(pool().getUsedBlockCount(), 0u);
    EXPECT_FALSE(pool().retainBuffer(handle));  // free block
    EXPECT_FALSE(pool().retainBuffer(50));      // out of range
    EXPECT_FALSE(pool().releaseBuffer(handle));
    ASSERT_TRUE(pool().acquireBuffer(5000, handle));
    EXPECT_FALSE(pool().acquireBuffer(1, second));
}

TEST(CanStackMemoryPool, ReadWriteAndMoveAcrossBlocks) {
    uint32_t handle = 0;
    ASSERT_TRUE(pool().acquireBuffer(150, handle));
    Bytes data(260);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    ASSERT_TRUE(pool().writeBuffer(handle, data.data(), 0, 260));  // grows a third block
    EXPECT_EQ(pool().getUsedBlockCount(), 3u);
    Bytes back(213);
    EXPECT_FALSE(pool().readBuffer(handle, back.data(), 250, 60));  // past the chain
    uint8_t* pointer = nullptr;
    EXPECT_FALSE(pool().getContiguousPointer(handle, pointer));
    // Overlapping moves, down and up by 7.
    ASSERT_TRUE(pool().moveBuffer(handle, 7, 0, 213));
    ASSERT_TRUE(pool().readBuffer(handle, back.data(), 0, 213));
    EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin() + 7));
    ASSERT_TRUE(pool().writeBuffer(handle, data.data(), 0, 220));
    ASSERT_TRUE(pool().moveBuffer(handle, 0, 7, 213));
    ASSERT_TRUE(pool().readBuffer(handle, back.data(), 7, 213));
    EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin()));

    uint32_t small = 0;
    ASSERT_TRUE(pool().acquireBuffer(100, small));
    EXPECT_TRUE(pool().getContiguousPointer(small, pointer));
}
