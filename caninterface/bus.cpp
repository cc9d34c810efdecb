#include "caninterface/bus.h"

namespace {
constexpr std::uint8_t kChannelOfBus[3] = {0, 1, 2};
constexpr std::uint8_t kNoChannel = 255;
}  // namespace

std::uint8_t busChannelIndex(Bus bus) {
    const int value = static_cast<int>(bus);
    if (value < 0 || value >= 3) {
        return kNoChannel;
    }
    return kChannelOfBus[value];
}

std::string busName(Bus bus) {
    switch (bus) {
        case Bus::MACHINE_250K:
            return "MACHINE_250K";
        case Bus::MACHINE_500K:
            return "MACHINE_500K";
        case Bus::PRODUCT_250K:
            return "PRODUCT_250K";
        case Bus::NONE:
            return "NONE";
    }
    return std::to_string(static_cast<int>(bus));
}
