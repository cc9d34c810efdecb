// The candump log line: what is accepted as which frame, what is refused and why, and the
// line written for a frame sent.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "replay/candumplog.h"

using replay::LogFrame;

namespace {

constexpr canid_t E = CAN_EFF_FLAG, R = CAN_RTR_FLAG;

can_frame makeFrame(canid_t id, std::uint8_t dlc, const std::vector<std::uint8_t>& data) {
    can_frame frame{};
    frame.can_id = id;
    frame.can_dlc = dlc;
    std::copy(data.begin(), data.end(), frame.data);
    return frame;
}

struct Accepted {
    const char* line;
    std::int64_t timeUs;
    const char* interface;
    canid_t id;  // with the flags a raw CAN socket sets
    int dlc;
    std::vector<std::uint8_t> data;
};

TEST(CandumpLine, AcceptedLinesGiveTheFrameACanSocketWouldDeliver) {
    const std::vector<std::uint8_t> bytes8 = {1, 2, 3, 4, 5, 6, 7, 8}, zeros8(8, 0);
    const Accepted rows[] = {
        {"(1700000000.123456) can2 18FEF100#0102030405060708", 1700000000123456, "can2",
         0x18FEF100 | E, 8, bytes8},
        // Lower-case hex, no data, a 3-digit standard identifier.
        {"(0000000001.000001) can1 7ff#abCD", 1000001, "can1", 0x7FF, 2, {0xAB, 0xCD}},
        {"(1.000000) can3 123#", 1000000, "can3", 0x123, 0, {}},
        // Remote frames carry a length and no data.
        {"(1.000000) can2 123#R", 1000000, "can2", 0x123 | R, 0, {}},
        {"(1.000000) can2 18EA00FE#R3", 1000000, "can2", 0x18EA00FE | E | R, 3, {}},
        // Error frames keep their flag; the replay skips them.
        {"(1.000000) can2 20000004#0000000000000000", 1000000, "can2", 0x20000004, 8, zeros8},
        // candump -x marks the direction at the end of the line.
        {"(1.000000) vcan0 0CF00400#FF R", 1000000, "vcan0", 0x0CF00400 | E, 1, {0xFF}},
        {"(1.000000) can3 0CF00400#FF T", 1000000, "can3", 0x0CF00400 | E, 1, {0xFF}},
        // A length code above 8 after 8 bytes: a raw socket reports 8.
        {"(1.000000) can2 123#0102030405060708_F", 1000000, "can2", 0x123, 8, bytes8},
    };
    for (const Accepted& row : rows) {
        SCOPED_TRACE(row.line);
        LogFrame frame;
        ASSERT_EQ(replay::parseLine(row.line, frame), "");
        EXPECT_EQ(frame.timeUs, row.timeUs);
        EXPECT_EQ(frame.interface, row.interface);
        EXPECT_EQ(frame.frame.can_id, row.id);
        EXPECT_EQ(frame.frame.can_dlc, row.dlc);
        EXPECT_EQ(std::vector<std::uint8_t>(frame.frame.data, frame.frame.data + row.data.size()),
                  row.data);
    }
}

TEST(CandumpLine, RefusedLinesSayWhy) {
    const std::pair<std::string, std::string> rows[] = {
        {"", "empty line"},
        {std::string(257, 'A'), "line too long"},
        {"(1.000000) can2 123#01\x01", "binary data, not a candump log line"},
        {"(1.000000) can2 123#01\xC3\xA9", "binary data, not a candump log line"},
        {"1.000000 can2 123#01", "bad timestamp, expected \"(seconds.microseconds)\""},
        {"(1.00000) can2 123#01", "bad timestamp, expected \"(seconds.microseconds)\""},
        {"(1.0000000) can2 123#01", "bad timestamp, expected \"(seconds.microseconds)\""},
        {"(.000000) can2 123#01", "bad timestamp, expected \"(seconds.microseconds)\""},
        {"(1234567890123.000000) can2 123#01",
         "bad timestamp, expected \"(seconds.microseconds)\""},
        {"(1.000000)can2 123#01", "no blank after the timestamp"},
        {"(1.000000)", "missing interface"},
        {"(1.000000) ", "missing interface"},
        {"(1.000000) 123#01", "missing interface"},
        {"(1.000000) can2", "missing frame, expected ID#DATA"},
        {"(1.000000) can2  123#01", "fields must be separated by single blanks"},
        {"(1.000000) can2 123#01 ", "fields must be separated by single blanks"},
        {"(1.000000) can2 123#01 X", "unexpected text after the frame"},
        {"(1.000000) can2 123#01 R T", "unexpected text after the frame"},
        {"(1.000000) abcdefghijklmnop 123#01", "interface name longer than 15 characters"},
        {"(1.000000) can2 12301", "frame without '#', expected ID#DATA"},
        {"(1.000000) can2 1234#01", "identifier must have 3 or 8 hex digits"},
        {"(1.000000) can2 #01", "identifier must have 3 or 8 hex digits"},
        {"(1.000000) can2 12G#01", "bad hex digit in identifier"},
        {"(1.000000) can2 800#01", "standard identifier above 7FF"},
        {"(1.000000) can2 40000000#01", "extended identifier above 1FFFFFFF"},
        {"(1.000000) can2 123##0112233", "CAN FD frame: only classic CAN frames can be played"},
        {"(1.000000) can2 123#R9", "remote frame length above 8 (DLC over 8)"},
        {"(1.000000) can2 123#R12", "bad remote frame length"},
        {"(1.000000) can2 123#RX", "bad remote frame length"},
        {"(1.000000) can2 123#0G", "bad hex digit in data"},
        {"(1.000000) can2 123#011", "odd number of hex digits in data"},
        {"(1.000000) can2 123#112233445566778899", "more than 8 data bytes (DLC over 8)"},
        {"(1.000000) can2 123#1122_9", "bad length code after '_'"},
        {"(1.000000) can2 123#1122334455667788_8", "bad length code after '_'"},
    };
    for (const auto& row : rows) {
        LogFrame frame;
        frame.interface = "untouched";
        EXPECT_EQ(replay::parseLine(row.first, frame), row.second) << row.first;
        EXPECT_EQ(frame.interface, "untouched") << row.first;
    }
}

// What the system sends is written as candump writes it, and reads back as the same frame.
// Extended frames with data are checked as the replay writes them (test_replay_samples).
TEST(CandumpLine, SentFramesAreWrittenAsCandumpWritesThem) {
    const std::pair<can_frame, std::string> rows[] = {
        {makeFrame(0x05A, 2, {0x0B, 0xA0}), "(0000000001.000042) can2 05A#0BA0"},
        {makeFrame(0x123 | R, 2, {}), "(0000000001.000042) can2 123#R2"},
    };
    for (const auto& row : rows) {
        const std::string line = replay::formatLine(1000042, "can2", row.first);
        EXPECT_EQ(line, row.second);
        LogFrame back;
        ASSERT_EQ(replay::parseLine(line, back), "") << line;
        EXPECT_EQ(back.frame.can_id, row.first.can_id) << line;
        EXPECT_EQ(back.frame.can_dlc, row.first.can_dlc) << line;
    }
}

}  // namespace
