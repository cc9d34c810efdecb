#pragma once

#include <memory>
#include <ostream>
#include <string>

#include "telemalog/sink.h"
#include "telemalog/value.h"

namespace nvsf {
namespace telemalog {

// Writes records as CSV lines, with a new header line whenever type or key set changes.
class CsvSink : public Sink {
public:
    // An empty file name writes to standard output; otherwise the file is appended to.
    // A file that cannot be opened leaves the sink without output.
    explicit CsvSink(const std::string& fileName, char separator = ',', char quote = '"',
                     char escape = '\\');
    CsvSink(const CsvSink&) = delete;
    CsvSink& operator=(const CsvSink&) = delete;

    void log(const ValueMap& values) override;

    bool hasStream() const { return out_ != nullptr; }

private:
    void writeQuoted(const std::string& text);
    void writeCell(const Value& value);

    // Standard output, the opened file, or nothing when the file could not be opened.
    std::unique_ptr<std::ostream> file_;
    std::ostream* out_ = nullptr;
    unsigned long counter_ = 0;
    std::string lastHeader_;
    char separator_;
    char quote_;
    char escape_;
};

}  // namespace telemalog
}  // namespace nvsf
