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
    if (length <= 0) {
        return 0;
    }
    // A field cut off by a short frame is not available, as if all its bytes were 0xFF.
    // Computed in 64 bits so that no offset can overflow.
    const long long end = static_cast<long long>(offset) + length;
    if (offset < 0 || end > static_cast<long long>(data.size())) {
        return length == kMaxFieldBytes ? 0xFFFFFFFFu : (1u << (8 * length)) - 1u;
    }
    std::uint32_t value = 0;
    for (int i = 0; i < length; ++i) {
        const std::uint8_t byte = data[static_cast<std::size_t>(offset + i)];
        value |= static_cast<std::uint32_t>(byte) << (8 * i);
        if (byte != kNotAvailable) {
            valid = true;
        }
    }
    return value;
}
