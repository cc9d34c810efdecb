#pragma once

#include <cstdint>

#include "canstack/internalcontrolfunction.h"
#include "canstack/name.h"

// This device's own node on a machine channel: it claims an address, stays on the network and
// asks for groups on behalf of the detectors.
class MachineBusWatcherControlFunction : public InternalControlFunctionClass {
public:
    explicit MachineBusWatcherControlFunction(std::uint8_t channel);

    // 37 first, then 128 upward; 254 at index 127 ends the list.
    std::uint8_t getAddressAtIndex(std::uint8_t index) override;

    // Global request for the group at priority 6; false when the stack refused it.
    bool requestParameterGroupNumber(std::uint32_t pgn);

    // The NAME both watchers use, from the device's serial number.
    static NAMEClass watcherNAME();
};
