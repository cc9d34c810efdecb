#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "simulated_bus.h"

namespace {
using Statistics = NetworkManagementStatisticsClass;
using Pool = NetworkManagementMemoryPoolClass;
using Utilities = NetworkManagementUtilitiesClass;
Pool& pool() {
    return Pool::NETWORK_MANAGEMENT_MEMORY_POOL;
}

const char* const OWNER = "Test Owner";
const char* const TEXTS[] = {"one", "two", "three", "four", "five", "six"};
}  // namespace

TEST(CanStackDescriptionMessages, SixthNewMessageIsNotStoredButStillHeard) {
    static std::vector<std::string> heard;
    ASSERT_NE(
        Statistics::addDescriptionMessageCallback([](const char*, const char* text,
                                                     uint8_t severity, uint32_t count) {
            heard.push_back(text + (" " + std::to_string(severity)) + " x" + std::to_string(count));
        }),
        nullptr);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(Statistics::addDescriptionMessage(OWNER, TEXTS[i], 1), i < 5) << i;
    }
    EXPECT_EQ(heard, (std::vector<std::string>{"one 1 x1", "two 1 x1", "three 1 x1", "four 1 x1",
                                               "five 1 x1", "Out Of Description Messages 2 x1",
                                               "six 1 x1"}));
    EXPECT_EQ(descriptionCount("Network Management Statistics", "Out Of Description Messages", 2),
              1u);
    EXPECT_EQ(Statistics::getNumberDescriptionMessages(), 6u);
    EXPECT_EQ(descriptionCount(OWNER, "six"), 0u);
    // After the update the slots are free again.
    EXPECT_TRUE(Statistics::addDescriptionMessage(OWNER, TEXTS[5], 1));
}

TEST(CanStackDescriptionMessages, OneRecordPerTextPointerListedCriticalFirst) {
    static const char first[] = "same words";
    static const char second[] = "same words";
    Statistics::addDescriptionMessage(OWNER, first, 0);
    Statistics::addDescriptionMessage(OWNER, TEXTS[0], 2);
    Statistics::addDescriptionMessage(OWNER, TEXTS[0], 2);
    EXPECT_EQ(Statistics::availableDescriptionMessages[2].text, TEXTS[0]);  // a slot each
    Statistics::addDescriptionMessage(OWNER, second, 0);
    Statistics::addDescriptionMessage(OWNER, TEXTS[1], 1);
    Statistics::updateDescriptionMessages();
    EXPECT_EQ(Statistics::getNumberDescriptionMessages(), 4u);
    EXPECT_EQ(Statistics::getDescriptionMessageCount(OWNER, TEXTS[0], 2), 2u);
    EXPECT_EQ(Statistics::getDescriptionMessageCount(OWNER, second, 0), 1u);
    const char* owner = nullptr;
    const char* text = nullptr;
    uint32_t count = 0;
    uint8_t severity = 9;
    std::vector<int> severities;
    while (Statistics::getDescriptionMessage(severities.size(), owner, text, severity, count)) {
        severities.push_back(severity);
    }
    EXPECT_EQ(severities, (std::vector<int>{2, 1, 0, 0}));
    // Once listed, further reports count in the record without a slot.
    Statistics::addDescriptionMessage(OWNER, TEXTS[0], 2);
    EXPECT_EQ(Statistics::availableDescriptionMessages[0].text, nullptr);
    EXPECT_EQ(Statistics::getDescriptionMessageCount(OWNER, TEXTS[0], 2), 3u);
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

TEST(CanStackUtilities, GetAndSetBits) {
    const uint8_t data[8] = {0xA5, 0x3C, 0xFF, 0x00, 0x12, 0x34, 0x56, 0x78};
    const std::tuple<uint32_t, uint32_t, uint64_t> cases[] = {
        {4, 8, 0xCA}, {3, 5, 0x14}, {12, 12, 0xFF3}, {0, 64, 0x78563412'00FF3CA5ull}};
    for (const auto& [offset, count, expected] : cases) {
        uint64_t value = 0;
        ASSERT_TRUE(Utilities::getBits(data, offset, count, value));
        EXPECT_EQ(value, expected) << offset << "/" << count;
    }
    uint8_t narrow = 0;
    EXPECT_FALSE(Utilities::getBits(data, 0, 9, narrow));
    EXPECT_EQ(narrow, 0xFF);
    uint8_t target[3] = {0xFF, 0xFF, 0xFF};
    ASSERT_TRUE(Utilities::setBits(target, 4, 12, 0x123));
    EXPECT_EQ(Bytes(target, target + 3), (Bytes{0x3F, 0x12, 0xFF}));
    EXPECT_FALSE(Utilities::setBits(target, 0, 33, 0));
}

// Callback and device lists keep their registration order when one leaves.
TEST(CanStackUtilities, ArrayKeepsItsOrderWhenShrinking) {
    int a = 0, b = 0, c = 0;
    int** array = nullptr;
    uint16_t count = 0;
    for (int* p : {&a, &b, &c}) {
        ASSERT_TRUE(Utilities::addObjectToArray(p, array, count));
    }
    ASSERT_TRUE(Utilities::removeObjectFromArray(&b, array, count));
    EXPECT_FALSE(Utilities::removeObjectFromArray(&b, array, count));
    EXPECT_EQ(std::vector<int*>(array, array + count), (std::vector<int*>{&a, &c}));
    Utilities::removeObjectFromArray(&a, array, count);
    Utilities::removeObjectFromArray(&c, array, count);  // the last one frees the array
}

// Bad parameters and callbacks are refused with a critical report of the statistics' own.
TEST(CanStackStatistics, RefusalsAreReported) {
    auto hear = [](const char*, const char*, uint8_t, uint32_t, void*) {};
    int parameter = 0;
    const char* const SELF = "Network Management Statistics";
    EXPECT_EQ((std::vector<bool>{Statistics::addDescriptionMessage(nullptr, "text", 1),
                                 Statistics::addDescriptionMessage(OWNER, nullptr, 1),
                                 Statistics::addDescriptionMessage(OWNER, "text", 3)}),
              (std::vector<bool>(3, false)));
    EXPECT_EQ(descriptionCount(SELF, "Invalid Parameters AddDescriptionMessage", 2), 3u);
    const DescriptionMessageFunction none = nullptr;
    EXPECT_EQ(Statistics::addDescriptionMessageCallback(none), nullptr);
    EXPECT_EQ(Statistics::addDescriptionMessageCallback(hear, nullptr), nullptr);
    EXPECT_NE(Statistics::addDescriptionMessageCallback(hear, &parameter), nullptr);
    EXPECT_EQ(Statistics::addDescriptionMessageCallback(hear, &parameter), nullptr);
    EXPECT_EQ(descriptionCount(SELF, "Failed AddDescriptionMessageCallback", 2), 1u);
    EXPECT_EQ(descriptionCount(SELF, "Failed AddDescriptionMessageCallback Pointer", 2), 2u);
}

TEST(CanStackStatistics, BitCountsLowPassAndChannelRangeRefused) {
    EXPECT_EQ(Statistics::getMessageBitCount(8, false), 108u);
    EXPECT_EQ(Statistics::getMessageStuffedBitCount(3, false), 51u + 24u + 4u);
    // The weight dt / tau is clamped to [0, 1].
    EXPECT_FLOAT_EQ(Utilities::lowPassFilter(10.0f, 2.0f, 5.0f, 1.0f), 10.0f);
    EXPECT_FLOAT_EQ(Utilities::lowPassFilter(10.0f, 2.0f, -1.0f, 1.0f), 2.0f);
    const Statistics& s = Statistics::NETWORK_MANAGEMENT_STATISTICS;
    EXPECT_EQ(s.getReceivedCount(3), 0xFFFFFFFFu);
    EXPECT_EQ(s.countDevices(3), 0u);
}
