#include "telemalog/sinks/debug_sink.h"

namespace nvsf {
namespace telemalog {

DebugSink::DebugSink(std::ostream& out) : out_(out) {}

void DebugSink::log(const ValueMap& values) {
    out_ << "{" << std::endl;
    for (const auto& entry : values) {
        out_ << '\t' << entry.first << ":\t" << toText(entry.second) << std::endl;
    }
    out_ << "}" << std::endl;

    previousType_ = values.has("type") ? values.getString("type") : std::string();
    if (&values != &previous_) {
        previous_ = values;
    }
}

}  // namespace telemalog
}  // namespace nvsf
