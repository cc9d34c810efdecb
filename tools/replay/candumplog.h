#pragma once

// Lines of the log format that Linux can-utils' `candump -l` and `candump -L` write:
// "(1700000000.123456) can2 18FEF100#0102030405060708".

#include <linux/can.h>

#include <cstdint>
#include <string>

namespace replay {

// Longer lines are refused before they are parsed: a frame line is under 60 characters.
constexpr std::size_t kMaxLineLength = 256;

struct LogFrame {
    std::int64_t timeUs = 0;  // the line's timestamp
    std::string interface;
    // As a raw CAN socket delivers it: CAN_EFF_FLAG for an extended identifier, CAN_RTR_FLAG
    // for a remote frame, CAN_ERR_FLAG for an error frame.
    can_frame frame{};
};

// Parses one line, without its end of line. Gives "" and fills `frame`, or says why the line is
// not a frame. Accepted beyond data frames: remote frames "123#R" and "123#R4" (length 0 to 8,
// no data), error frames (8 digits with bit 29), a length code above 8 after 8 bytes
// ("_9" to "_F", delivered as 8), and a final "R" or "T" direction mark.
// Refused: CAN FD frames ("##"), more than 8 data bytes, any other byte or text.
std::string parseLine(const std::string& line, LogFrame& frame);

// The line candump writes for `frame` seen on `interface` at `timeUs`.
std::string formatLine(std::int64_t timeUs, const std::string& interface, const can_frame& frame);

}  // namespace replay
