#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "caninterface/pgnmessage.h"

namespace {

struct Message : PgnMessage {
    explicit Message(std::vector<std::uint8_t> bytes) { data = std::move(bytes); }
    int manufacturerCode() const override { return -1; }
    bool hasSource() const override { return false; }
};

TEST(PgnMessage, GetValueReadsLittleEndianAndTellsAvailability) {
    const std::vector<std::uint8_t> counting = {1, 2, 3, 4, 5, 6, 7, 8};
    const struct {
        std::vector<std::uint8_t> data;
        int offset;
        int length;
        std::uint32_t value;
        bool valid;
    } rows[] = {
        // clang-format off
        {counting, 2, 1, 0x03, true}, {counting, 0, 3, 0x030201, true},
        {counting, 1, 6, 0x05040302, true},  // longer fields read four bytes
        {{0xFF, 0xFE}, 0, 2, 0xFEFF, true}, {{0xFF, 0xFF}, 0, 2, 0xFFFF, false},
        {{0xFF, 0xFF, 0xFF, 0xFF}, 0, 4, 0xFFFFFFFF, false}, {counting, 0, 0, 0, false},
        {counting, 0, -3, 0, false},  // no length, no value
        // a field not wholly inside the payload is not available
        {{0x10}, 0, 3, 0xFFFFFF, false}, {{1, 2, 3, 4}, 3, 2, 0xFFFF, false},
        {{1, 2, 3, 4}, 0, 6, 0x04030201, true}, {{0x10}, -1, 1, 0xFF, false},
        {counting, INT_MAX, 4, 0xFFFFFFFF, false}, {{}, 0, 1, 0xFF, false},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&row - rows));
        bool valid = !row.valid;  // must be overwritten either way
        EXPECT_EQ(Message(row.data).getValue(row.offset, row.length, valid), row.value);
        EXPECT_EQ(valid, row.valid);
    }
}

}  // namespace
