#include "replay/candumplog.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace replay {

namespace {

constexpr std::size_t kMaxInterfaceLength = 15;  // IFNAMSIZ less its terminating zero
constexpr std::size_t kMaxSecondsDigits = 12;
constexpr std::size_t kMicrosDigits = 6;

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Reads `count` decimal digits at `at`; false if any is missing.
bool readDecimal(const std::string& text, std::size_t at, std::size_t count, std::int64_t& value) {
    value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        if (i >= text.size() || !isDigit(text[i])) {
            return false;
        }
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

std::string parseTimestamp(const std::string& line, std::size_t& at, std::int64_t& timeUs) {
    static const std::string kBad = "bad timestamp, expected \"(seconds.microseconds)\"";
    if (line[0] != '(') {
        return kBad;
    }
    std::size_t digits = 0;
    while (1 + digits < line.size() && isDigit(line[1 + digits])) {
        ++digits;
    }
    std::int64_t seconds = 0;
    std::int64_t micros = 0;
    if (digits == 0 || digits > kMaxSecondsDigits || !readDecimal(line, 1, digits, seconds) ||
        1 + digits >= line.size() || line[1 + digits] != '.' ||
        !readDecimal(line, 2 + digits, kMicrosDigits, micros) ||
        2 + digits + kMicrosDigits >= line.size() || line[2 + digits + kMicrosDigits] != ')') {
        return kBad;
    }
    timeUs = seconds * 1000000 + micros;
    at = 3 + digits + kMicrosDigits;
    return "";
}

std::string parseIdentifier(const std::string& id, can_frame& frame) {
    if (id.size() != 3 && id.size() != 8) {
        return "identifier must have 3 or 8 hex digits";
    }
    std::uint32_t value = 0;
    for (char c : id) {
        const int digit = hexValue(c);
        if (digit < 0) {
            return "bad hex digit in identifier";
        }
        value = (value << 4) | static_cast<std::uint32_t>(digit);
    }
    if (id.size() == 3) {
        if (value > CAN_SFF_MASK) {
            return "standard identifier above 7FF";
        }
        frame.can_id = value;
    } else if ((value & ~CAN_EFF_MASK) == CAN_ERR_FLAG) {
        // candump writes error frames with 8 digits and the error flag.
        frame.can_id = value;
    } else if (value > CAN_EFF_MASK) {
        return "extended identifier above 1FFFFFFF";
    } else {
        frame.can_id = value | CAN_EFF_FLAG;
    }
    return "";
}

std::string parsePayload(const std::string& payload, can_frame& frame) {
    if (!payload.empty() && payload[0] == '#') {
        return "CAN FD frame: only classic CAN frames can be played";
    }
    if (!payload.empty() && payload[0] == 'R') {
        // A remote frame carries no data, only the length it asks for.
        if (payload.size() > 2 || (payload.size() == 2 && !isDigit(payload[1]))) {
            return "bad remote frame length";
        }
        const int length = payload.size() == 2 ? payload[1] - '0' : 0;
        if (length > CAN_MAX_DLEN) {
            return "remote frame length above 8 (DLC over 8)";
        }
        frame.can_id |= CAN_RTR_FLAG;
        frame.can_dlc = static_cast<std::uint8_t>(length);
        return "";
    }
    std::string data = payload;
    const std::size_t underscore = payload.find('_');
    if (underscore != std::string::npos) {
        // "_9" to "_F" after 8 bytes: a length code above 8, which a raw socket reports as 8.
        if (underscore != 2 * CAN_MAX_DLEN || payload.size() != underscore + 2 ||
            hexValue(payload.back()) < 9) {
            return "bad length code after '_'";
        }
        data.resize(underscore);
    }
    for (char c : data) {
        if (hexValue(c) < 0) {
            return "bad hex digit in data";
        }
    }
    if (data.size() % 2 != 0) {
        return "odd number of hex digits in data";
    }
    if (data.size() > 2 * CAN_MAX_DLEN) {
        return "more than 8 data bytes (DLC over 8)";
    }
    frame.can_dlc = static_cast<std::uint8_t>(data.size() / 2);
    for (std::size_t i = 0; i < frame.can_dlc; ++i) {
        frame.data[i] =
            static_cast<std::uint8_t>(hexValue(data[2 * i]) * 16 + hexValue(data[2 * i + 1]));
    }
    return "";
}

}  // namespace

std::string parseLine(const std::string& line, LogFrame& result) {
    if (line.size() > kMaxLineLength) {
        return "line too long";
    }
    for (char c : line) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7F) {
            return "binary data, not a candump log line";
        }
    }
    if (line.empty()) {
        return "empty line";
    }
    LogFrame parsed;
    std::size_t at = 0;
    std::string error = parseTimestamp(line, at, parsed.timeUs);
    if (!error.empty()) {
        return error;
    }
    // Fields are separated by single blanks: "(time) interface frame [R|T]".
    if (at == line.size()) {
        return "missing interface";
    }
    if (line[at] != ' ') {
        return "no blank after the timestamp";
    }
    std::vector<std::string> fields;
    std::size_t start = at + 1;
    for (;;) {
        const std::size_t blank = line.find(' ', start);
        fields.push_back(line.substr(start, blank - start));
        if (blank == std::string::npos) {
            break;
        }
        start = blank + 1;
    }
    if (fields.size() == 1 && fields[0].empty()) {
        return "missing interface";
    }
    for (const std::string& field : fields) {
        if (field.empty()) {
            return "fields must be separated by single blanks";
        }
    }
    if (fields[0].find('#') != std::string::npos) {
        return "missing interface";
    }
    if (fields.size() < 2) {
        return "missing frame, expected ID#DATA";
    }
    if (fields.size() > 3 || (fields.size() == 3 && fields[2] != "R" && fields[2] != "T")) {
        return "unexpected text after the frame";
    }
    parsed.interface = fields[0];
    if (parsed.interface.size() > kMaxInterfaceLength) {
        return "interface name longer than 15 characters";
    }
    const std::string& text = fields[1];
    const std::size_t hash = text.find('#');
    if (hash == std::string::npos) {
        return "frame without '#', expected ID#DATA";
    }
    error = parseIdentifier(text.substr(0, hash), parsed.frame);
    if (error.empty()) {
        error = parsePayload(text.substr(hash + 1), parsed.frame);
    }
    if (!error.empty()) {
        return error;
    }
    result = parsed;
    return "";
}

std::string formatLine(std::int64_t timeUs, const std::string& interface, const can_frame& frame) {
    char text[64];
    int used = std::snprintf(text, sizeof text, "(%010lld.%06lld) ",
                             static_cast<long long>(timeUs / 1000000),
                             static_cast<long long>(timeUs % 1000000));
    std::string line(text, static_cast<std::size_t>(used));
    line += interface;
    if ((frame.can_id & CAN_EFF_FLAG) != 0) {
        used = std::snprintf(text, sizeof text, " %08X#", frame.can_id & CAN_EFF_MASK);
    } else {
        used = std::snprintf(text, sizeof text, " %03X#", frame.can_id & CAN_SFF_MASK);
    }
    line.append(text, static_cast<std::size_t>(used));
    const unsigned length = frame.can_dlc <= CAN_MAX_DLEN ? frame.can_dlc : CAN_MAX_DLEN;
    if ((frame.can_id & CAN_RTR_FLAG) != 0) {
        line += length == 0 ? "R" : "R" + std::to_string(length);
        return line;
    }
    for (unsigned i = 0; i < length; ++i) {
        std::snprintf(text, sizeof text, "%02X", frame.data[i]);
        line += text;
    }
    return line;
}

}  // namespace replay
