#pragma once

// The ZeroMQ subscriber and the wait of caninterface/peers.h, by the names the sink tests use.

#include "caninterface/peers.h"

namespace apptest {

using cantest::eventually;

struct FrameCollector : cantest::Peers {
    explicit FrameCollector(const std::string& endpoint) : Peers(std::vector<std::string>{}) {
        attach(endpoint);
    }
    std::vector<cantest::Published> frames() const { return published(); }
};

}  // namespace apptest
