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

// The entry that a protocol last refused to take off the queue.
struct HeldEntry {
    uint32_t order = 0;
    uint32_t since = 0;
    bool holding = false;
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
    // An entry refused round after round for `holdLimitMs` (its reply can never go out, say,
    // for a peer or a function of ours without an address) would hold every entry behind it
    // for good: it is freed after `giveUp` has been told. `held` is the caller's memory of
    // which entry it refused, and since when.
    template <typename Process, typename GiveUp>
    bool processReceived(uint32_t handle, uint32_t limit, Process process, HeldEntry& held,
                         uint32_t now, uint32_t holdLimitMs, GiveUp giveUp) {
        bool found = false;
        for (uint32_t i = 0; i < limit; ++i) {
            CAN_MESSAGE_QUEUE_STRUCT* entry = getNextReceivedCANMessage(handle);
            if (entry == nullptr) {
                break;
            }
            found = true;
            if (!process(*entry)) {
                if (!held.holding || held.order != entry->order) {
                    held = HeldEntry{entry->order, now, true};
                    break;
                }
                if (now - held.since < holdLimitMs) {
                    break;
                }
                giveUp(*entry);
            }
            held.holding = false;
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
