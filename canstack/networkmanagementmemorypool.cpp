#include "canstack/networkmanagementmemorypool.h"

#include <cstring>

#include "canstack/networkmanagementstatistics.h"

const char* const NetworkManagementMemoryPoolClass::MESSAGE_OWNER =
    "Network Management Memory Pool";

NetworkManagementMemoryPoolClass NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL;

namespace {
constexpr uint32_t BLOCKS = NetworkManagementMemoryPoolClass::MAXIMUM_NUMBER_MEMORY_FRAGMENTATIONS;
constexpr uint32_t SIZE = NetworkManagementMemoryPoolClass::MAXIMUM_FRAGMENTATION_SIZE;
constexpr uint32_t NONE = NetworkManagementMemoryPoolClass::INVALID_HANDLE;
}  // namespace

uint8_t NetworkManagementMemoryPoolClass::getReferenceCount(uint32_t block) const {
    return block < BLOCKS ? blocks[block].referenceCount : 0;
}

uint32_t NetworkManagementMemoryPoolClass::takeFreeBlock(uint8_t referenceCount) {
    for (uint32_t i = 0; i < BLOCKS; ++i) {
        if (blocks[i].referenceCount == 0) {
            blocks[i].referenceCount = referenceCount;
            blocks[i].next = NONE;
            ++usedBlockCount;
            if (usedBlockCount > peakBlockCount) {
                peakBlockCount = usedBlockCount;
            }
            return i;
        }
    }
    return NONE;
}

bool NetworkManagementMemoryPoolClass::acquireBuffer(uint32_t size, uint32_t& handle) {
    handle = NONE;
    const uint32_t needed = ((size - 1u) / SIZE) + 1u;  // size 0 wraps to a huge count
    uint32_t first = NONE;
    uint32_t previous = NONE;
    for (uint32_t n = 0; n < needed; ++n) {
        // Block by block, so that the peak also counts an acquire that fails half-way.
        const uint32_t block = takeFreeBlock(1);
        if (block == NONE) {
            if (first != NONE) {
                releaseBuffer(first);
            }
            return false;
        }
        if (previous == NONE) {
            first = block;
        } else {
            blocks[previous].next = block;
        }
        previous = block;
    }
    handle = first;
    return true;
}

bool NetworkManagementMemoryPoolClass::retainBuffer(uint32_t handle) {
    if (handle >= BLOCKS || blocks[handle].referenceCount == 0 ||
        blocks[handle].referenceCount > 253) {
        return false;
    }
    uint32_t steps = 0;
    for (uint32_t b = handle; b < BLOCKS && steps < BLOCKS; b = blocks[b].next, ++steps) {
        ++blocks[b].referenceCount;
    }
    return true;
}

bool NetworkManagementMemoryPoolClass::releaseBuffer(uint32_t handle) {
    if (handle >= BLOCKS || blocks[handle].referenceCount == 0) {
        return false;
    }
    uint32_t steps = 0;
    uint32_t b = handle;
    while (b < BLOCKS && steps++ < BLOCKS && blocks[b].referenceCount != 0) {
        const uint32_t next = blocks[b].next;
        if (--blocks[b].referenceCount == 0) {
            blocks[b].next = NONE;
            if (usedBlockCount > 0) {
                --usedBlockCount;
            }
        }
        b = next;
    }
    return true;
}

bool NetworkManagementMemoryPoolClass::getContiguousPointer(uint32_t handle, uint8_t*& pointer) {
    pointer = nullptr;
    if (handle >= BLOCKS || blocks[handle].referenceCount == 0 || blocks[handle].next != NONE) {
        return false;
    }
    pointer = blocks[handle].data;
    return true;
}

uint32_t NetworkManagementMemoryPoolClass::blockAt(uint32_t handle, uint32_t offset) const {
    uint32_t b = handle;
    for (uint32_t n = offset / SIZE; n > 0 && b < BLOCKS; --n) {
        b = blocks[b].next;
    }
    return (b < BLOCKS && blocks[b].referenceCount != 0) ? b : NONE;
}

bool NetworkManagementMemoryPoolClass::readBuffer(uint32_t handle, uint8_t* buffer, uint32_t offset,
                                                  uint32_t count) const {
    if (buffer == nullptr || handle >= BLOCKS) {
        return false;
    }
    uint32_t b = blockAt(handle, offset);
    uint32_t within = offset % SIZE;
    while (count > 0) {
        if (b >= BLOCKS || blocks[b].referenceCount == 0) {
            return false;
        }
        const uint32_t piece = (SIZE - within) < count ? (SIZE - within) : count;
        std::memcpy(buffer, blocks[b].data + within, piece);
        buffer += piece;
        count -= piece;
        within = 0;
        if (count > 0) {
            b = blocks[b].next;
        }
    }
    return true;
}

bool NetworkManagementMemoryPoolClass::writeBuffer(uint32_t handle, const uint8_t* buffer,
                                                   uint32_t offset, uint32_t count) {
    if (buffer == nullptr || handle >= BLOCKS || blocks[handle].referenceCount == 0) {
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        uint8_t* target = byteAt(handle, offset + i, true);
        if (target == nullptr) {
            return false;
        }
        *target = buffer[i];
        // Fast path: finish the rest of this block in one copy.
        const uint32_t within = (offset + i) % SIZE;
        const uint32_t room = SIZE - within - 1u;
        const uint32_t rest = count - i - 1u;
        const uint32_t piece = room < rest ? room : rest;
        std::memcpy(target + 1, buffer + i + 1, piece);
        i += piece;
    }
    return true;
}

uint8_t* NetworkManagementMemoryPoolClass::byteAt(uint32_t handle, uint32_t offset, bool grow) {
    if (handle >= BLOCKS || blocks[handle].referenceCount == 0) {
        return nullptr;
    }
    uint32_t b = handle;
    for (uint32_t n = offset / SIZE; n > 0; --n) {
        uint32_t next = blocks[b].next;
        if (next >= BLOCKS) {
            if (!grow) {
                return nullptr;
            }
            next = takeFreeBlock(blocks[b].referenceCount);
            if (next == NONE) {
                return nullptr;
            }
            blocks[b].next = next;
        }
        b = next;
    }
    return &blocks[b].data[offset % SIZE];
}

bool NetworkManagementMemoryPoolClass::moveBuffer(uint32_t handle, uint32_t from, uint32_t to,
                                                  uint32_t count) {
    if (count == 0) {
        return true;
    }
    if (from == to) {
        return byteAt(handle, from + count - 1u, false) != nullptr;
    }
    for (uint32_t n = 0; n < count; ++n) {
        const uint32_t i = (to > from) ? (count - 1u - n) : n;
        uint8_t* source = byteAt(handle, from + i, false);
        if (source == nullptr) {
            return false;
        }
        const uint8_t value = *source;
        uint8_t* target = byteAt(handle, to + i, true);
        if (target == nullptr) {
            return false;
        }
        *target = value;
    }
    return true;
}

bool NetworkManagementMemoryPoolClass::readData(uint32_t handle, const uint8_t* source,
                                                uint32_t offset, uint8_t* buffer,
                                                uint32_t count) const {
    if (handle != NONE) {
        return readBuffer(handle, buffer, offset, count);
    }
    if (source != nullptr && readFunction != nullptr) {
        return readFunction(source + offset, buffer, count);
    }
    return false;
}

bool NetworkManagementMemoryPoolClass::writeData(uint32_t handle, uint8_t* destination,
                                                 uint32_t offset, const uint8_t* buffer,
                                                 uint32_t count) {
    if (handle != NONE) {
        return writeBuffer(handle, buffer, offset, count);
    }
    if (destination != nullptr && writeFunction != nullptr) {
        return writeFunction(buffer, destination + offset, count);
    }
    return false;
}

bool NetworkManagementMemoryPoolClass::acquireForMessage(uint32_t parameterGroupNumber,
                                                         ControlFunctionClass* source,
                                                         ControlFunctionClass* destination,
                                                         uint32_t size, uint32_t& handle,
                                                         uint8_t*& pointer) {
    handle = NONE;
    pointer = nullptr;
    if (allocateFunction == nullptr) {
        return acquireBuffer(size, handle);
    }
    switch (allocateFunction(parameterGroupNumber, source, destination, size, pointer)) {
        case 0:
            return pointer != nullptr;
        case 1:
            pointer = nullptr;
            return acquireBuffer(size, handle);
        case 2:
            pointer = nullptr;
            return false;
        default:
            pointer = nullptr;
            NetworkManagementStatisticsClass::addDescriptionMessage(
                MESSAGE_OWNER, "Request Memory Pool Invalid Request Memory Type", 2);
            return false;
    }
}
