#pragma once

#include "telemalog/value.h"

namespace nvsf {
namespace telemalog {

// Receiver of finished records. Sinks are called from the manager's thread only.
class Sink {
public:
    virtual ~Sink() = default;

    // Records are passed by reference only; a pointer never reaches a sink.
    virtual void log(const ValueMap* values) = delete;

    virtual void log(const ValueMap& values) = 0;
};

}  // namespace telemalog
}  // namespace nvsf
