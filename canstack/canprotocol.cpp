#include "canstack/canprotocol.h"

#include <initializer_list>
#include <new>

#include "canstack/controlfunction.h"
#include "canstack/filteredmessagecallback.h"
#include "canstack/networkmanagement.h"
#include "canstack/networkmanagementstatistics.h"

const char* const CANProtocolClass::MESSAGE_OWNER = "CAN Protocol";
const char* const CANInitializeClass::MESSAGE_OWNER = "CAN Initialize";
CAN_PROTOCOL_STRUCT* CANProtocolClass::uninitializedCANProtocolList = nullptr;
CAN_PROTOCOL_STRUCT* CANProtocolClass::initializedCANProtocolList = nullptr;
CAN_INITIALIZE_STRUCT* CANInitializeClass::uninitializedCANInitializeList = nullptr;

ReceiveCANMessageCallbackClass::~ReceiveCANMessageCallbackClass() {
    NetworkManagementClass::removeGlobalReceiveCallbacks(this);
    RegisteredControlFunctionClass::removeParameterGroupNumberCallbacksOfObject(this);
    FilteredMessageCallbackClass::removeCallbacksFromAllFilters(this);
}

CANProtocolClass::CANProtocolClass() {
    CAN_PROTOCOL_STRUCT* node = new (std::nothrow) CAN_PROTOCOL_STRUCT{this, nullptr};
    if (node == nullptr) {
        NetworkManagementStatisticsClass::addDescriptionMessage(
            MESSAGE_OWNER, "Failed Creating CAN_PROTOCOL_STRUCT", 2);
        return;
    }
    CAN_PROTOCOL_STRUCT** tail = &uninitializedCANProtocolList;
    while (*tail != nullptr) {
        tail = &(*tail)->next;
    }
    *tail = node;
}

CANProtocolClass::~CANProtocolClass() {
    for (CAN_PROTOCOL_STRUCT** list :
         {&uninitializedCANProtocolList, &initializedCANProtocolList}) {
        for (CAN_PROTOCOL_STRUCT** link = list; *link != nullptr; link = &(*link)->next) {
            if ((*link)->protocol == this) {
                CAN_PROTOCOL_STRUCT* node = *link;
                *link = node->next;
                delete node;
                return;
            }
        }
    }
}

bool CANProtocolClass::getCANProtocol(uint32_t index, CANProtocolClass*& protocol) {
    protocol = nullptr;
    uint32_t position = 0;
    for (CAN_PROTOCOL_STRUCT* list : {uninitializedCANProtocolList, initializedCANProtocolList}) {
        for (CAN_PROTOCOL_STRUCT* node = list; node != nullptr; node = node->next) {
            if (position++ == index) {
                protocol = node->protocol;
                return protocol != nullptr;
            }
        }
    }
    return false;
}

uint32_t CANProtocolClass::getNumberCANProtocols() {
    uint32_t count = 0;
    for (CAN_PROTOCOL_STRUCT* list : {uninitializedCANProtocolList, initializedCANProtocolList}) {
        for (CAN_PROTOCOL_STRUCT* node = list; node != nullptr; node = node->next) {
            ++count;
        }
    }
    return count;
}

CANInitializeClass::CANInitializeClass(CANInitializeFunction function) {
    if (function == nullptr) {
        NetworkManagementStatisticsClass::addDescriptionMessage(
            MESSAGE_OWNER, "Invalid Parameters CANInitializeClass constructor", 2);
        return;
    }
    CAN_INITIALIZE_STRUCT* node = new (std::nothrow) CAN_INITIALIZE_STRUCT{function, nullptr};
    if (node == nullptr) {
        NetworkManagementStatisticsClass::addDescriptionMessage(
            MESSAGE_OWNER, "Failed Creating CAN_INITIALIZE_STRUCT", 2);
        return;
    }
    CAN_INITIALIZE_STRUCT** tail = &uninitializedCANInitializeList;
    while (*tail != nullptr) {
        tail = &(*tail)->next;
    }
    *tail = node;
    valid = true;
}
