#include "canstack/networkmanagementutilities.h"

#include <time.h>

#include "canstack/networkmanagementstatistics.h"

const char* const NetworkManagementUtilitiesClass::MESSAGE_OWNER = "Network Management Utilities";
const char* const NetworkManagementUtilitiesClass::FAILED_ALLOCATE_ARRAY =
    "Failed to allocate array AddObjectToArray";
const char* const NetworkManagementUtilitiesClass::FAILED_REALLOCATE_ARRAY =
    "Failed to reallocate array RemoveObjectFromArray";

uint32_t (*NetworkManagementUtilitiesClass::Timestamp_ms)() =
    &NetworkManagementUtilitiesClass::defaultTimestamp_ms;

uint32_t NetworkManagementUtilitiesClass::defaultTimestamp_ms() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t nanoseconds =
        static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
    return static_cast<uint32_t>(nanoseconds / 1000000ull);
}

bool NetworkManagementUtilitiesClass::timeElapsed(uint32_t start, uint32_t ms) {
    return static_cast<uint32_t>(Timestamp_ms() - start) >= ms;
}

uint32_t NetworkManagementUtilitiesClass::timeElapsed(uint32_t start) {
    return Timestamp_ms() - start;
}

float NetworkManagementUtilitiesClass::lowPassFilter(float sample, float previous, float dt,
                                                     float tau) {
    float a = dt / tau;
    if (!(a > 0.0f)) {
        a = 0.0f;  // also catches NaN from tau 0 with dt 0
    } else if (a > 1.0f) {
        a = 1.0f;
    }
    return sample * a + previous * (1.0f - a);
}

void NetworkManagementUtilitiesClass::reportArrayFailure(const char* text) {
    NetworkManagementStatisticsClass::addDescriptionMessage(MESSAGE_OWNER, text, 2);
}

uint64_t NetworkManagementUtilitiesClass::extractBits(const uint8_t* data, uint32_t bitOffset,
                                                      uint32_t bitCount) {
    uint64_t result = 0;
    for (uint32_t i = 0; i < bitCount; ++i) {
        const uint32_t bit = bitOffset + i;
        if ((data[bit >> 3] >> (bit & 7u)) & 1u) {
            result |= (1ull << i);
        }
    }
    return result;
}

bool NetworkManagementUtilitiesClass::getBits(const uint8_t* data, uint32_t bitOffset,
                                              uint32_t bitCount, uint8_t& value) {
    if (data == nullptr || bitCount > 8) {
        value = 0xFF;
        return false;
    }
    value = static_cast<uint8_t>(extractBits(data, bitOffset, bitCount));
    return true;
}

bool NetworkManagementUtilitiesClass::getBits(const uint8_t* data, uint32_t bitOffset,
                                              uint32_t bitCount, uint16_t& value) {
    if (data == nullptr || bitCount > 16) {
        value = 0xFFFF;
        return false;
    }
    value = static_cast<uint16_t>(extractBits(data, bitOffset, bitCount));
    return true;
}

bool NetworkManagementUtilitiesClass::getBits(const uint8_t* data, uint32_t bitOffset,
                                              uint32_t bitCount, uint32_t& value) {
    if (data == nullptr || bitCount > 32) {
        value = 0xFFFFFFFFu;
        return false;
    }
    value = static_cast<uint32_t>(extractBits(data, bitOffset, bitCount));
    return true;
}

bool NetworkManagementUtilitiesClass::getBits(const uint8_t* data, uint32_t bitOffset,
                                              uint32_t bitCount, uint64_t& value) {
    if (data == nullptr || bitCount > 64) {
        value = 0xFFFFFFFFFFFFFFFFull;
        return false;
    }
    value = extractBits(data, bitOffset, bitCount);
    return true;
}

bool NetworkManagementUtilitiesClass::setBits(uint8_t* data, uint32_t bitOffset, uint32_t bitCount,
                                              uint32_t value) {
    if (data == nullptr || bitCount > 32) {
        return false;
    }
    for (uint32_t i = 0; i < bitCount; ++i) {
        const uint32_t bit = bitOffset + i;
        const uint8_t mask = static_cast<uint8_t>(1u << (bit & 7u));
        if ((value >> i) & 1u) {
            data[bit >> 3] |= mask;
        } else {
            data[bit >> 3] &= static_cast<uint8_t>(~mask);
        }
    }
    return true;
}
