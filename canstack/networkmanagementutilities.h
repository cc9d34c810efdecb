#ifndef CANSTACK_NETWORKMANAGEMENTUTILITIES_H
#define CANSTACK_NETWORKMANAGEMENTUTILITIES_H

#include <cstdint>
#include <new>

// Time, array and bit helpers shared by the whole stack. All static.
class NetworkManagementUtilitiesClass {
public:
    static const char* const MESSAGE_OWNER;
    static const char* const FAILED_ALLOCATE_ARRAY;
    static const char* const FAILED_REALLOCATE_ARRAY;

    // Replaceable clock, milliseconds; wraps, so compare by unsigned subtraction only.
    static uint32_t (*Timestamp_ms)();
    static uint32_t defaultTimestamp_ms();

    static bool timeElapsed(uint32_t start, uint32_t ms);
    static uint32_t timeElapsed(uint32_t start);
    static float lowPassFilter(float sample, float previous, float dt, float tau);

    // Grow or shrink a heap array of pointers by one; the array is rebuilt each time.
    template <typename T>
    static bool addObjectToArray(T object, T*& array, uint16_t& count);
    template <typename T>
    static bool removeObjectFromArray(T object, T*& array, uint16_t& count);

    static bool getBits(const uint8_t* data, uint32_t bitOffset, uint32_t bitCount, uint8_t& value);
    static bool getBits(const uint8_t* data, uint32_t bitOffset, uint32_t bitCount,
                        uint16_t& value);
    static bool getBits(const uint8_t* data, uint32_t bitOffset, uint32_t bitCount,
                        uint32_t& value);
    static bool getBits(const uint8_t* data, uint32_t bitOffset, uint32_t bitCount,
                        uint64_t& value);
    static bool setBits(uint8_t* data, uint32_t bitOffset, uint32_t bitCount, uint32_t value);

private:
    static void reportArrayFailure(const char* text);
    static uint64_t extractBits(const uint8_t* data, uint32_t bitOffset, uint32_t bitCount);
};

template <typename T>
bool NetworkManagementUtilitiesClass::addObjectToArray(T object, T*& array, uint16_t& count) {
    if (object == nullptr || count == 0xFFFF) {
        return false;
    }
    T* grown = new (std::nothrow) T[count + 1u];
    if (grown == nullptr) {
        reportArrayFailure(FAILED_ALLOCATE_ARRAY);
        return false;
    }
    for (uint16_t i = 0; i < count; ++i) {
        grown[i] = array[i];
    }
    grown[count] = object;
    delete[] array;
    array = grown;
    ++count;
    return true;
}

template <typename T>
bool NetworkManagementUtilitiesClass::removeObjectFromArray(T object, T*& array, uint16_t& count) {
    uint16_t found = count;
    for (uint16_t i = 0; i < count; ++i) {
        if (array[i] == object) {
            found = i;
            break;
        }
    }
    if (found == count) {
        return false;
    }
    array[found] = nullptr;
    if (count == 1) {
        delete[] array;
        array = nullptr;
        count = 0;
        return true;
    }
    T* shrunk = new (std::nothrow) T[count - 1u];
    if (shrunk == nullptr) {
        // Keep the old array but close the gap, so the table stays consistent.
        for (uint16_t i = found; i + 1u < count; ++i) {
            array[i] = array[i + 1u];
        }
        --count;
        reportArrayFailure(FAILED_REALLOCATE_ARRAY);
        return true;
    }
    uint16_t out = 0;
    for (uint16_t i = 0; i < count; ++i) {
        if (i != found) {
            shrunk[out++] = array[i];
        }
    }
    delete[] array;
    array = shrunk;
    --count;
    return true;
}

#endif
