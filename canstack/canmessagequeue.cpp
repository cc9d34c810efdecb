#include "canstack/canmessagequeue.h"

#include "canstack/canmessage.h"
#include "canstack/networkmanagementstatistics.h"

const char* const CANMessageQueueClass::MESSAGE_OWNER = "CAN Message Queue";
CANMessageQueueClass CANMessageQueueClass::CAN_MESSAGE_QUEUE;
uint32_t CANMessageQueueClass::uniqueQueueHandle = 0;

bool CANMessageQueueClass::addCANMessage(const CANMessageClass& message, uint32_t handle) {
    const uint32_t order = totalCount++;
    if (handle != FREE_HANDLE) {
        for (CAN_MESSAGE_QUEUE_STRUCT& entry : entries) {
            if (entry.queueHandle != FREE_HANDLE) {
                continue;
            }
            if (message.getData(entry.data, 8)) {
                entry.destination = message.getDestinationControlFunction();
                entry.source = message.getSourceControlFunction();
                entry.order = order;
                entry.parameterGroupNumber = message.getParameterGroupNumber();
                entry.queueHandle = handle;
                ++currentCount;
                if (currentCount > peakCount) {
                    peakCount = currentCount;
                }
                return true;
            }
            entry = CAN_MESSAGE_QUEUE_STRUCT();  // a failed read leaves the entry free
            break;
        }
    }
    ++droppedCount;
    NetworkManagementStatisticsClass::addDescriptionMessage(MESSAGE_OWNER, "Dropped Message", 2);
    return false;
}

CAN_MESSAGE_QUEUE_STRUCT* CANMessageQueueClass::getNextReceivedCANMessage(uint32_t handle) {
    if (handle > 0xFFFFFFFEu) {
        NetworkManagementStatisticsClass::addDescriptionMessage(
            MESSAGE_OWNER, "Invalid Queue Handle GetNextReceivedCANMessage", 2);
        return nullptr;
    }
    CAN_MESSAGE_QUEUE_STRUCT* oldest = nullptr;
    for (CAN_MESSAGE_QUEUE_STRUCT& entry : entries) {
        if (entry.queueHandle == handle && (oldest == nullptr || entry.order < oldest->order)) {
            oldest = &entry;
        }
    }
    return oldest;
}

bool CANMessageQueueClass::freeReceivedCANMessage(CAN_MESSAGE_QUEUE_STRUCT* entry) {
    const bool inTable = entry >= entries && entry < entries + MAXIMUM_NUMBER_QUEUE_ENTRIES;
    if (entry == nullptr || !inTable || entry->queueHandle == FREE_HANDLE) {
        NetworkManagementStatisticsClass::addDescriptionMessage(
            MESSAGE_OWNER, "Invalid CAN Message FreeReceivedCANMessage", 2);
        return false;
    }
    // Back to the free values: a later short frame must not read this one's bytes.
    *entry = CAN_MESSAGE_QUEUE_STRUCT();
    if (currentCount > 0) {
        --currentCount;
    }
    return true;
}
