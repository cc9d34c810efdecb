#pragma once

#include <iostream>
#include <ostream>
#include <string>

#include "telemalog/sink.h"
#include "telemalog/value.h"

namespace nvsf {
namespace telemalog {

// Writes each record as a readable block of "key: value" lines.
class DebugSink : public Sink {
public:
    // The stream must outlive the sink.
    explicit DebugSink(std::ostream& out = std::cout);

    // Throws boost::bad_get, after writing, when "type" holds something else than text.
    void log(const ValueMap& values) override;

    const ValueMap& previousRecord() const { return previous_; }
    const std::string& previousType() const { return previousType_; }

private:
    std::ostream& out_;
    ValueMap previous_;
    std::string previousType_;
};

}  // namespace telemalog
}  // namespace nvsf
