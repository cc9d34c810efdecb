#ifndef CANSTACK_DATACARRIER_H
#define CANSTACK_DATACARRIER_H

#include <cstdint>

class CANMessageClass;

// A copy of a message's data that outlives the message, held in the memory pool.
class DataCarrier {
public:
    static constexpr uint32_t EMPTY = 0xFFFFFFFFu;

    DataCarrier() = default;
    explicit DataCarrier(const CANMessageClass& message);
    DataCarrier(const DataCarrier& other);
    DataCarrier& operator=(const DataCarrier& other);
    DataCarrier& operator=(const CANMessageClass& message);
    ~DataCarrier();

    bool isEmpty() const { return length == EMPTY; }
    uint32_t getDataLength() const { return length == EMPTY ? 0 : length; }
    uint32_t getPoolHandle() const { return poolHandle; }
    bool getData(uint8_t* buffer, uint32_t capacity) const;
    bool getData(uint8_t* buffer, uint32_t offset, uint32_t count) const;
    void release();

private:
    void build(const CANMessageClass& message);

    uint8_t* data = nullptr;
    uint32_t length = EMPTY;
    uint32_t poolHandle = EMPTY;
};

#endif
