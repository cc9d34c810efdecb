#include "canstack/datacarrier.h"

#include "canstack/canmessage.h"
#include "canstack/networkmanagementmemorypool.h"

namespace {
NetworkManagementMemoryPoolClass& pool() {
    return NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL;
}
}  // namespace

void DataCarrier::build(const CANMessageClass& message) {
    data = nullptr;
    length = EMPTY;
    poolHandle = EMPTY;
    if (message.getMessageType() == 0) {
        const CANLongMessageClass& longMessage = static_cast<const CANLongMessageClass&>(message);
        const uint32_t handle = longMessage.getPoolHandle();
        if (handle != EMPTY) {
            if (!pool().retainBuffer(handle)) {
                return;
            }
        } else if (longMessage.getStoredPointer() == nullptr) {
            return;
        }
        data = longMessage.getStoredPointer();
        length = longMessage.getDataLength();
        poolHandle = handle;
        return;
    }
    const uint32_t size = message.getDataLength();
    uint8_t bytes[8];
    uint32_t handle = EMPTY;
    if (size == 0 || size > 8 || !message.getData(bytes, 8) ||
        !pool().acquireBuffer(size, handle)) {
        return;
    }
    if (!pool().writeBuffer(handle, bytes, 0, size)) {
        pool().releaseBuffer(handle);
        return;
    }
    length = size;
    poolHandle = handle;
}

DataCarrier::DataCarrier(const CANMessageClass& message) {
    build(message);
}

DataCarrier::DataCarrier(const DataCarrier& other)
    : data(other.data), length(other.length), poolHandle(other.poolHandle) {
    if (poolHandle != EMPTY && !pool().retainBuffer(poolHandle)) {
        data = nullptr;
        length = EMPTY;
        poolHandle = EMPTY;
    }
}

DataCarrier& DataCarrier::operator=(const DataCarrier& other) {
    if (this == &other) {
        return *this;
    }
    DataCarrier copy(other);  // build the new state before letting go of the old block
    release();
    data = copy.data;
    length = copy.length;
    poolHandle = copy.poolHandle;
    copy.poolHandle = EMPTY;
    copy.length = EMPTY;
    copy.data = nullptr;
    return *this;
}

DataCarrier& DataCarrier::operator=(const CANMessageClass& message) {
    DataCarrier fresh(message);
    return *this = fresh;
}

DataCarrier::~DataCarrier() {
    release();
}

void DataCarrier::release() {
    if (poolHandle != EMPTY) {
        pool().releaseBuffer(poolHandle);
    }
    data = nullptr;
    length = EMPTY;
    poolHandle = EMPTY;
}

bool DataCarrier::getData(uint8_t* buffer, uint32_t capacity) const {
    if (buffer == nullptr || length == EMPTY || length > capacity) {
        return false;
    }
    return pool().readData(poolHandle, data, 0, buffer, length);
}

bool DataCarrier::getData(uint8_t* buffer, uint32_t offset, uint32_t count) const {
    if (buffer == nullptr || length == EMPTY || offset > length || count > length - offset) {
        return false;
    }
    return pool().readData(poolHandle, data, offset, buffer, count);
}
