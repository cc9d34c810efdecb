// The candump log line: what is accepted as which frame, what is refused and why, and the
// line written for a frame sent.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "replay/candumplog.h"

using replay::LogFrame;

namespace {

// "time interface id dlc data", the id with the flags a raw CAN socket sets (8 extended,
// 4 remote, 2 error); a remote frame has no data.
std::string describe(const LogFrame& frame) {
    char text[64];
    std::snprintf(text, sizeof text, "%lld %s %08X %d", static_cast<long long>(frame.timeUs),
                  frame.interface.c_str(), frame.frame.can_id, frame.frame.can_dlc);
    std::string result = text;
    const int bytes = (frame.frame.can_id & CAN_RTR_FLAG) != 0 ? 0 : frame.frame.can_dlc;
    for (int i = 0; i < bytes && i < 8; ++i) {
        std::snprintf(text, sizeof text, i == 0 ? " %02X" : "%02X", frame.frame.data[i]);
        result += text;
    }
    return result;
}

TEST(CandumpLine, AcceptedLinesGiveTheFrameACanSocketWouldDeliver) {
    const std::pair<const char*, const char*> rows[] = {
        {"(1700000000.123456) can2 18FEF100#0102030405060708",
         "1700000000123456 can2 98FEF100 8 0102030405060708"},
        // Lower-case hex, no data, a 3-digit standard identifier.
        {"(0000000001.000001) can1 7ff#abCD", "1000001 can1 000007FF 2 ABCD"},
        {"(1.000000) can3 123#", "1000000 can3 00000123 0"},
        {"(1.000000) can2 123#R", "1000000 can2 40000123 0"},
        {"(1.000000) can2 18EA00FE#R3", "1000000 can2 D8EA00FE 3"},
        {"(1.000000) can2 20000004#0000000000000000", "1000000 can2 20000004 8 0000000000000000"},
        // candump -x marks the direction at the end of the line.
        {"(1.000000) vcan0 0CF00400#FF R", "1000000 vcan0 8CF00400 1 FF"},
        {"(1.000000) can3 0CF00400#FF T", "1000000 can3 8CF00400 1 FF"},
        // A length code above 8 after 8 bytes: a raw socket reports 8.
        {"(1.000000) can2 123#0102030405060708_F", "1000000 can2 00000123 8 0102030405060708"},
    };
    for (const auto& row : rows) {
        LogFrame frame;
        ASSERT_EQ(replay::parseLine(row.first, frame), "") << row.first;
        EXPECT_EQ(describe(frame), row.second);
    }
}

TEST(CandumpLine, RefusedLinesSayWhy) {
    const std::string time = "bad timestamp, expected \"(seconds.microseconds)\"";
    const std::string binary = "binary data, not a candump log line";
    const std::string blanks = "fields must be separated by single blanks";
    const std::string after = "unexpected text after the frame";
    const std::pair<std::string, std::string> rows[] = {
        {"", "empty line"},
        {std::string(257, 'A'), "line too long"},
        {"(1.000000) can2 123#01\x01", binary},
        {"(1.000000) can2 123#01\xC3\xA9", binary},
        {"1.000000 can2 123#01", time},
        {"(1.00000) can2 123#01", time},
        {"(1.0000000) can2 123#01", time},
        {"(.000000) can2 123#01", time},
        {"(1234567890123.000000) can2 123#01", time},
        {"(1.000000)can2 123#01", "no blank after the timestamp"},
        {"(1.000000)", "missing interface"},
        {"(1.000000) ", "missing interface"},
        {"(1.000000) 123#01", "missing interface"},
        {"(1.000000) can2", "missing frame, expected ID#DATA"},
        {"(1.000000) can2  123#01", blanks},
        {"(1.000000) can2 123#01 ", blanks},
        {"(1.000000) can2 123#01 X", after},
        {"(1.000000) can2 123#01 R T", after},
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

// What the system sends is written as candump writes it, so it reads back as the same line.
TEST(CandumpLine, SentFramesAreWrittenAsCandumpWritesThem) {
    for (const char* line : {"(0000000001.000042) can2 05A#0BA0", "(0000000001.000042) can2 123#R2",
                             "(0000000001.000042) can3 18EEFF25#3A27E012001C00A0"}) {
        LogFrame frame;
        ASSERT_EQ(replay::parseLine(line, frame), "") << line;
        EXPECT_EQ(replay::formatLine(frame.timeUs, frame.interface, frame.frame), line);
    }
}

}  // namespace
