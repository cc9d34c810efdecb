#include "caninterface/pgnmessage.h"

namespace {
constexpr int kMaxFieldBytes = 4;
constexpr std::uint8_t kNotAvailable = 0xFF;
}  // namespace

std::uint32_t PgnMessage::getValue(int offset, int length, bool& valid) const {
    valid = false;
    if (length > kMaxFieldBytes) {
        length = kMaxFieldBytes;
    }
    std::uint32_t value = 0;
    for (int i = 0; i < length; ++i) {
        // Compute the position in 64 bits so huge offsets cannot overflow.
        const long long position = static_cast<long long>(offset) + i;
        const std::uint8_t byte = (position >= 0 && position < static_cast<long long>(data.size()))
                                      ? data[static_cast<std::size_t>(position)]
                                      : kNotAvailable;
        value += static_cast<std::uint32_t>(byte) << (8 * i);
        if (byte != kNotAvailable) {
            valid = true;
        }
    }
    return value;
}
