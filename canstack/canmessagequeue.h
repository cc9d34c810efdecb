#ifndef CANSTACK_CANMESSAGEQUEUE_H
#define CANSTACK_CANMESSAGEQUEUE_H

#include <cstdint>

class CANMessageClass;
class ControlFunctionClass;

struct CAN_MESSAGE_QUEUE_STRUCT {
    ControlFunctionClass* destination = nullptr;
    ControlFunctionClass* source = nullptr;
    uint32_t order = 0xFFFFFFFFu;
    uint32_t parameterGroupNumber = 0xFFFFFFu;
    uint32_t queueHandle = 0xFFFFFFFFu;  // 0xFFFFFFFF marks a free entry
    uint8_t data[8] = {};
};

// Bounded queue shared by the protocols between the receive path and their update.
class CANMessageQueueClass {
public:
    static constexpr uint32_t MAXIMUM_NUMBER_QUEUE_ENTRIES = 50;
    static constexpr uint32_t FREE_HANDLE = 0xFFFFFFFFu;
    static const char* const MESSAGE_OWNER;
    static CANMessageQueueClass CAN_MESSAGE_QUEUE;
    static uint32_t uniqueQueueHandle;

    constexpr CANMessageQueueClass() = default;

    static uint32_t getQueueHandle() { return ++uniqueQueueHandle; }

    bool addCANMessage(const CANMessageClass& message, uint32_t handle);
    CAN_MESSAGE_QUEUE_STRUCT* getNextReceivedCANMessage(uint32_t handle);
    bool freeReceivedCANMessage(CAN_MESSAGE_QUEUE_STRUCT* entry);

    // Hands up to `limit` received entries of `handle` to `process`, freeing each one it
    // accepts; the first it refuses stays queued for the next round. True if any was found.
    template <typename Process>
    bool processReceived(uint32_t handle, uint32_t limit, Process process) {
        bool found = false;
        for (uint32_t i = 0; i < limit; ++i) {
            CAN_MESSAGE_QUEUE_STRUCT* entry = getNextReceivedCANMessage(handle);
            if (entry == nullptr) {
                break;
            }
            found = true;
            if (!process(*entry)) {
                break;
            }
            freeReceivedCANMessage(entry);
        }
        return found;
    }

    uint32_t getCurrentCount() const { return currentCount; }
    uint32_t getDroppedCount() const { return droppedCount; }
    uint32_t getPeakCount() const { return peakCount; }
    uint32_t getTotalCount() const { return totalCount; }

private:
    uint32_t currentCount = 0;
    uint32_t droppedCount = 0;
    uint32_t peakCount = 0;
    uint32_t totalCount = 0;
    CAN_MESSAGE_QUEUE_STRUCT entries[MAXIMUM_NUMBER_QUEUE_ENTRIES] = {};
};

#endif
