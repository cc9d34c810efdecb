#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "caninterface/bus.h"
#include "caninterface/pgnmessage.h"

namespace {

class Message : public PgnMessage {
public:
    explicit Message(std::vector<std::uint8_t> bytes) { data = std::move(bytes); }
    int manufacturerCode() const override { return -1; }
    bool hasSource() const override { return false; }
};

struct FieldCase {
    const char* what;
    std::vector<std::uint8_t> data;
    int offset;
    int length;
    std::uint32_t value;
    bool valid;
};

void PrintTo(const FieldCase& c, std::ostream* os) {
    *os << c.what;
}

class GetValue : public testing::TestWithParam<FieldCase> {};

TEST_P(GetValue, ReadsLittleEndianAndTellsAvailability) {
    const FieldCase& c = GetParam();
    bool valid = !c.valid;  // must be overwritten either way
    EXPECT_EQ(Message(c.data).getValue(c.offset, c.length, valid), c.value) << c.what;
    EXPECT_EQ(valid, c.valid) << c.what;
}

const std::vector<std::uint8_t> kCounting = {1, 2, 3, 4, 5, 6, 7, 8};

// clang-format off
INSTANTIATE_TEST_SUITE_P(Fields, GetValue, testing::Values(
    FieldCase{"one byte", kCounting, 2, 1, 0x03, true}, FieldCase{"two bytes", kCounting, 3, 2, 0x0504, true},
    FieldCase{"three bytes", kCounting, 0, 3, 0x030201, true},
    FieldCase{"length 6 reads four", kCounting, 1, 6, 0x05040302, true},
    FieldCase{"low byte 0xFF alone", {0xFF, 0xFE}, 0, 2, 0xFEFF, true},
    FieldCase{"all 0xFF", {0xFF, 0xFF}, 0, 2, 0xFFFF, false},
    FieldCase{"four 0xFF", {0xFF, 0xFF, 0xFF, 0xFF}, 0, 4, 0xFFFFFFFF, false},
    FieldCase{"zero is a value", {0x00}, 0, 1, 0, true}, FieldCase{"length 0", kCounting, 0, 0, 0, false},
    FieldCase{"negative length", kCounting, 0, -3, 0, false},
    FieldCase{"past the payload", {0x10}, 0, 2, 0xFF10, true}, FieldCase{"wholly past", {0x10}, 4, 2, 0xFFFF, false},
    FieldCase{"negative offset", {0x10}, -1, 1, 0xFF, false},
    FieldCase{"huge offset", kCounting, INT_MAX, 4, 0xFFFFFFFF, false},
    FieldCase{"empty payload", {}, 0, 1, 0xFF, false}));

TEST(Bus, MapsToChannelAndName) {
    const struct { Bus bus; std::uint8_t channel; const char* name; } rows[] = {
        {Bus::MACHINE_250K, 0, "MACHINE_250K"}, {Bus::MACHINE_500K, 1, "MACHINE_500K"},
        {Bus::PRODUCT_250K, 2, "PRODUCT_250K"}, {Bus::NONE, 255, "NONE"},
        {static_cast<Bus>(7), 255, "7"}, {static_cast<Bus>(-1), 255, "-1"}};
    // clang-format on
    for (const auto& row : rows) {
        EXPECT_EQ(busChannelIndex(row.bus), row.channel) << row.name;
        EXPECT_EQ(busName(row.bus), row.name);
    }
}

}  // namespace
