#include "telemalog/sinks/csv_sink.h"

#include <chrono>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <iostream>

namespace nvsf {
namespace telemalog {

CsvSink::CsvSink(const std::string& fileName, char separator, char quote, char escape)
    : separator_(separator), quote_(quote), escape_(escape) {
    if (fileName.empty()) {
        out_ = &std::cout;
        return;
    }
    auto file = std::make_unique<std::ofstream>(fileName, std::ios::out | std::ios::app);
    if (!file->is_open()) {
        return;
    }
    out_ = file.get();
    file_ = std::move(file);
}

void CsvSink::writeQuoted(const std::string& text) {
    std::ostream& out = *out_;
    out << quote_;
    for (char c : text) {
        if (c == escape_ || c == quote_) {
            out << escape_ << c;
        } else if (c == '\n') {
            out << "\\n";
        } else if (c == '\t') {
            out << "\\t";
        } else if (c == '\r') {
            out << "\\r";
        } else {
            out << c;
        }
    }
    out << quote_;
}

void CsvSink::writeCell(const Value& value) {
    switch (value.which()) {
        case kEmptyIndex:
            break;
        case kBoolIndex:
        case kIntIndex:
        case kDoubleIndex:
            *out_ << toText(value);
            break;
        default:
            writeQuoted(toText(value));
            break;
    }
}

void CsvSink::log(const ValueMap& values) {
    ++counter_;
    if (out_ == nullptr) {
        return;
    }
    std::ostream& out = *out_;

    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm local{};
    localtime_r(&seconds, &local);
    // The fractional field is the clock's nanosecond count modulo 1000, by design.
    const auto fraction = std::chrono::duration_cast<std::chrono::nanoseconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count() %
                          1000;

    const std::string type = values.has("type") ? toText(values.get("type")) : "?";

    std::string header = type + ":" + separator_ + "record" + separator_ + "timestamp";
    for (const auto& entry : values) {
        if (entry.first != "type") {
            header += separator_;
            header += entry.first;
        }
    }
    header += '\n';
    if (header != lastHeader_) {
        out << header;
    }
    lastHeader_ = header;

    char time[64];
    const std::size_t length = std::strftime(time, sizeof time, "%Y-%m-%dT%X.", &local);
    out << type << separator_ << counter_ << separator_ << std::string(time, length) << std::setw(3)
        << std::setfill('0') << fraction << std::setfill(' ');
    for (const auto& entry : values) {
        if (entry.first != "type") {
            out << separator_;
            writeCell(entry.second);
        }
    }
    out << '\n';
    out.flush();
}

}  // namespace telemalog
}  // namespace nvsf
