#pragma once

#include <cstdint>
#include <string>

// Buses as the application sees them; the value is also the channel index.
enum class Bus : int {
    MACHINE_250K = 0,  // "can2"
    MACHINE_500K = 1,  // "can3"
    PRODUCT_250K = 2,  // "can1"
    NONE = 3,          // no machine bus chosen yet
};

// Channel index of a bus; 255 for NONE and any value out of range.
std::uint8_t busChannelIndex(Bus bus);

// "MACHINE_250K", ..., "NONE", or the decimal number of any other value.
std::string busName(Bus bus);
