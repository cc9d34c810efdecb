#pragma once

#include <cstdint>
#include <string>

// The device registration file, written at production: one "key=value" per line, "#" starts a
// comment. Keys read here: "part_number" and "serial_number".
namespace deviceregistration {

extern const char* const kDefaultPath;  // "/etc/norvane/registration.conf"

// Where the file is; takes effect at the next first use. Call before the CAN service starts.
void setPath(const std::string& path);

// Read once, on first use. A missing or unreadable file gives "" and one ERROR log line.
const std::string& serialNumber();
const std::string& partNumber();

// Low 16 bits of the decimal number a text starts with (blanks skipped); 0 without one.
std::uint16_t identityFromSerial(const std::string& serial);

}  // namespace deviceregistration

// What the device tells about itself; only the serial number is ever asked for.
class DiagnosticServiceProtocolClass {
public:
    // Gives the text and writes its length, at most 255, to length.
    static const char* (*GetECUSerialNumber)(std::uint8_t& length);
    static const char* (*GetECUPartNumber)(std::uint8_t& length);
};
