#include "telemalog/sinks/collecting_sink.h"

namespace nvsf {
namespace telemalog {

void CollectingSink::log(const ValueMap& values) {
    collected_.push_back(values);
}

}  // namespace telemalog
}  // namespace nvsf
