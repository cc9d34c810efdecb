#pragma once

#include <vector>

#include "telemalog/sink.h"
#include "telemalog/value.h"

namespace nvsf {
namespace telemalog {

// Keeps a copy of every record it receives.
class CollectingSink : public Sink {
public:
    void log(const ValueMap& values) override;

    const std::vector<ValueMap>& collected() const { return collected_; }

private:
    std::vector<ValueMap> collected_;
};

}  // namespace telemalog
}  // namespace nvsf
