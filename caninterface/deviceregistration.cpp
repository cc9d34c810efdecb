#include "caninterface/deviceregistration.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <algorithm>
#include <cctype>
#include <fstream>

namespace deviceregistration {

const char* const kDefaultPath = "/etc/norvane/registration.conf";

namespace {

log4cplus::Logger logger = log4cplus::Logger::getInstance("tilthwatch.caninterface");

// A registration file is a few lines; anything longer is not one.
constexpr std::size_t kMaxLineLength = 4096;
constexpr std::size_t kMaxLines = 256;

struct Registration {
    std::string path = kDefaultPath;
    bool loaded = false;
    std::string partNumber;
    std::string serialNumber;
};

Registration& registration() {
    static Registration value;
    return value;
}

std::string trim(const std::string& text) {
    const auto notBlank = [](unsigned char c) { return !std::isspace(c); };
    const auto first = std::find_if(text.begin(), text.end(), notBlank);
    const auto last = std::find_if(text.rbegin(), text.rend(), notBlank).base();
    return first < last ? std::string(first, last) : std::string();
}

void load(Registration& r) {
    r.loaded = true;
    std::ifstream file(r.path);
    if (!file) {
        LOG4CPLUS_ERROR(logger, "Cannot read the device registration file " << r.path);
        return;
    }
    std::string line;
    for (std::size_t count = 0; count < kMaxLines && std::getline(file, line); ++count) {
        if (line.size() > kMaxLineLength) {
            continue;
        }
        const std::string::size_type equals = line.find('=');
        if (trim(line).rfind('#', 0) == 0 || equals == std::string::npos) {
            continue;
        }
        const std::string key = trim(line.substr(0, equals));
        const std::string value = trim(line.substr(equals + 1));
        if (key == "serial_number") {
            r.serialNumber = value;
        } else if (key == "part_number") {
            r.partNumber = value;
        }
    }
    if (file.bad()) {
        r.serialNumber.clear();
        r.partNumber.clear();
        LOG4CPLUS_ERROR(logger, "Cannot read the device registration file " << r.path);
    }
}

const Registration& loaded() {
    Registration& r = registration();
    if (!r.loaded) {
        load(r);
    }
    return r;
}

}  // namespace

const char* asField(const std::string& text, std::uint8_t& length) {
    length = static_cast<std::uint8_t>(std::min<std::size_t>(text.size(), 255));
    return text.c_str();
}

void setPath(const std::string& path) {
    Registration& r = registration();
    r = Registration();
    r.path = path;
}

const std::string& serialNumber() {
    return loaded().serialNumber;
}

const std::string& partNumber() {
    return loaded().partNumber;
}

std::uint16_t identityFromSerial(const std::string& serial) {
    std::size_t i = 0;
    while (i < serial.size() && std::isspace(static_cast<unsigned char>(serial[i]))) {
        ++i;
    }
    std::uint32_t identity = 0;
    for (; i < serial.size() && std::isdigit(static_cast<unsigned char>(serial[i])); ++i) {
        // Modulo 65536 at every step keeps exactly the low 16 bits of any length of number.
        identity = (identity * 10u + static_cast<std::uint32_t>(serial[i] - '0')) & 0xFFFFu;
    }
    return static_cast<std::uint16_t>(identity);
}

}  // namespace deviceregistration

namespace {
const char* serialNumberField(std::uint8_t& length) {
    return deviceregistration::asField(deviceregistration::serialNumber(), length);
}
const char* partNumberField(std::uint8_t& length) {
    return deviceregistration::asField(deviceregistration::partNumber(), length);
}
}  // namespace

const char* (*DiagnosticServiceProtocolClass::GetECUSerialNumber)(std::uint8_t&) =
    &serialNumberField;
const char* (*DiagnosticServiceProtocolClass::GetECUPartNumber)(std::uint8_t&) = &partNumberField;
