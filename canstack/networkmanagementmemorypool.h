#ifndef CANSTACK_NETWORKMANAGEMENTMEMORYPOOL_H
#define CANSTACK_NETWORKMANAGEMENTMEMORYPOOL_H

#include <cstdint>

class ControlFunctionClass;

// Application hooks for keeping long messages in its own storage.
typedef bool (*MemoryPoolReadFunction)(const uint8_t* source, uint8_t* buffer, uint32_t count);
typedef bool (*MemoryPoolWriteFunction)(const uint8_t* buffer, uint8_t* destination,
                                        uint32_t count);
// Returns 0 storage given, 1 use the pool, 2 refuse.
typedef uint32_t (*MemoryPoolAllocateFunction)(uint32_t parameterGroupNumber,
                                               ControlFunctionClass* source,
                                               ControlFunctionClass* destination, uint32_t size,
                                               uint8_t*& pointer);

// Chained fixed blocks, so long messages need no heap.
class NetworkManagementMemoryPoolClass {
public:
    static constexpr uint32_t MAXIMUM_NUMBER_MEMORY_FRAGMENTATIONS = 50;
    static constexpr uint32_t MAXIMUM_FRAGMENTATION_SIZE = 100;
    static constexpr uint32_t INVALID_HANDLE = 0xFFFFFFFFu;
    static_assert(MAXIMUM_NUMBER_MEMORY_FRAGMENTATIONS > 0,
                  "MAXIMUM_NUMBER_MEMORY_FRAGMENTATIONS needs to be greater than 0");
    static_assert(MAXIMUM_FRAGMENTATION_SIZE >= 8,
                  "MAXIMUM_FRAGMENTATION_SIZE needs to be greater or equal to 8");
    static const char* const MESSAGE_OWNER;
    static NetworkManagementMemoryPoolClass NETWORK_MANAGEMENT_MEMORY_POOL;

    struct Block {
        uint32_t next = INVALID_HANDLE;
        uint8_t data[MAXIMUM_FRAGMENTATION_SIZE] = {};
        uint8_t referenceCount = 0;
    };

    constexpr NetworkManagementMemoryPoolClass() = default;

    bool acquireBuffer(uint32_t size, uint32_t& handle);
    bool retainBuffer(uint32_t handle);
    bool releaseBuffer(uint32_t handle);
    bool getContiguousPointer(uint32_t handle, uint8_t*& pointer);
    bool readBuffer(uint32_t handle, uint8_t* buffer, uint32_t offset, uint32_t count) const;
    bool writeBuffer(uint32_t handle, const uint8_t* buffer, uint32_t offset, uint32_t count);
    bool moveBuffer(uint32_t handle, uint32_t from, uint32_t to, uint32_t count);

    // Pool when a handle is given, else the application's functions on the pointer.
    bool readData(uint32_t handle, const uint8_t* source, uint32_t offset, uint8_t* buffer,
                  uint32_t count) const;
    bool writeData(uint32_t handle, uint8_t* destination, uint32_t offset, const uint8_t* buffer,
                   uint32_t count);

    bool acquireForMessage(uint32_t parameterGroupNumber, ControlFunctionClass* source,
                           ControlFunctionClass* destination, uint32_t size, uint32_t& handle,
                           uint8_t*& pointer);

    void setReadFunction(MemoryPoolReadFunction function) { readFunction = function; }
    void setAllocateFunction(MemoryPoolAllocateFunction function) { allocateFunction = function; }
    void setWriteFunction(MemoryPoolWriteFunction function) { writeFunction = function; }

    uint32_t getUsedBlockCount() const { return usedBlockCount; }
    uint32_t getPeakBlockCount() const { return peakBlockCount; }
    uint8_t getReferenceCount(uint32_t block) const;

private:
    // Block holding byte `offset` of the chain, or INVALID_HANDLE past its end.
    uint32_t blockAt(uint32_t handle, uint32_t offset) const;
    uint8_t* byteAt(uint32_t handle, uint32_t offset, bool grow);
    uint32_t takeFreeBlock(uint8_t referenceCount);

    MemoryPoolReadFunction readFunction = nullptr;
    MemoryPoolAllocateFunction allocateFunction = nullptr;
    MemoryPoolWriteFunction writeFunction = nullptr;
    Block blocks[MAXIMUM_NUMBER_MEMORY_FRAGMENTATIONS] = {};
    uint32_t usedBlockCount = 0;
    uint32_t peakBlockCount = 0;
};

#endif
