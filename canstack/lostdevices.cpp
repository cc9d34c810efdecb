// The list of known control functions without an address. A device that claims from ever new
// NAMEs would otherwise grow it without end and make each claim walk it: it is indexed by NAME,
// every node knows its neighbours, and each channel remembers at most
// MAXIMUM_NUMBER_FORGETTABLE_LOST_DEVICES unregistered functions, forgetting the oldest first.
// Registered and internal functions belong to the application and are never forgotten.

#include <cstdint>
#include <new>

#include "canstack/controlfunction.h"
#include "canstack/networkmanagement.h"

CONTROL_FUNCTION_LOST_DEVICE_STRUCT* NetworkManagementClass::controlFunctionLostDevices = nullptr;
CONTROL_FUNCTION_LOST_DEVICE_STRUCT* NetworkManagementClass::lostDevicesTail = nullptr;
uint32_t NetworkManagementClass::numberLostDevices = 0;
uint64_t NetworkManagementClass::lostDevicePositions = 0;
CONTROL_FUNCTION_LOST_DEVICE_STRUCT*
    NetworkManagementClass::lostDeviceIndex[LOST_DEVICE_INDEX_SIZE] = {};
CONTROL_FUNCTION_LOST_DEVICE_STRUCT*
    NetworkManagementClass::oldestForgettable[NUMBER_CAN_CHANNELS] = {};
CONTROL_FUNCTION_LOST_DEVICE_STRUCT*
    NetworkManagementClass::newestForgettable[NUMBER_CAN_CHANNELS] = {};
uint32_t NetworkManagementClass::numberForgettableLostDevices[NUMBER_CAN_CHANNELS] = {};

static_assert((NetworkManagementClass::LOST_DEVICE_INDEX_SIZE &
               (NetworkManagementClass::LOST_DEVICE_INDEX_SIZE - 1u)) == 0,
              "the index size must be a power of two");

namespace {
// NAMEs come from the bus: the mix is seeded per process, so that a sender cannot pick NAMEs
// that all land in one slot.
const char anchor = 0;
uint64_t indexSeed() {
    static const uint64_t seed =
        static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&anchor)) * 0x9E3779B97F4A7C15ull;
    return seed;
}

uint32_t slotFor(NAMEClass name, uint8_t channel) {
    uint64_t x = (name.getNAME() ^ indexSeed()) + (channel + 1ull) * 0xD6E8FEB86659FD93ull;
    x ^= x >> 30;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 27;
    x *= 0x94D049BB133111EBull;
    x ^= x >> 31;
    return static_cast<uint32_t>(x & (NetworkManagementClass::LOST_DEVICE_INDEX_SIZE - 1u));
}
}  // namespace

void NetworkManagementClass::fileLostDevice(CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node) {
    const ControlFunctionClass* function = node->controlFunction;
    node->indexSlot = slotFor(function->getNAME(), function->getChannel());
    node->nextWithSameKey = lostDeviceIndex[node->indexSlot];
    lostDeviceIndex[node->indexSlot] = node;
}

void NetworkManagementClass::unfileLostDevice(CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node) {
    for (CONTROL_FUNCTION_LOST_DEVICE_STRUCT** link = &lostDeviceIndex[node->indexSlot];
         *link != nullptr; link = &(*link)->nextWithSameKey) {
        if (*link == node) {
            *link = node->nextWithSameKey;
            node->nextWithSameKey = nullptr;
            return;
        }
    }
}

bool NetworkManagementClass::addLostDevice(ControlFunctionClass* function) {
    if (function == nullptr || function->lostDevice != nullptr) {
        return false;
    }
    const uint8_t channel = function->getChannel();
    const bool forgettable = function->getType() == 2 && channel < NUMBER_CAN_CHANNELS;
    CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node = nullptr;
    if (forgettable &&
        numberForgettableLostDevices[channel] >= MAXIMUM_NUMBER_FORGETTABLE_LOST_DEVICES) {
        node = forgetOldestLostDevice(channel);
    }
    if (node == nullptr) {
        node = new (std::nothrow) CONTROL_FUNCTION_LOST_DEVICE_STRUCT;
        if (node == nullptr) {
            return false;
        }
    }
    *node = CONTROL_FUNCTION_LOST_DEVICE_STRUCT{};
    node->controlFunction = function;
    node->previous = lostDevicesTail;
    node->position = ++lostDevicePositions;
    node->forgettable = forgettable;
    if (lostDevicesTail != nullptr) {
        lostDevicesTail->next = node;
    } else {
        controlFunctionLostDevices = node;
    }
    lostDevicesTail = node;
    ++numberLostDevices;
    fileLostDevice(node);
    if (forgettable) {
        node->previousForgettable = newestForgettable[channel];
        if (newestForgettable[channel] != nullptr) {
            newestForgettable[channel]->nextForgettable = node;
        } else {
            oldestForgettable[channel] = node;
        }
        newestForgettable[channel] = node;
        ++numberForgettableLostDevices[channel];
    }
    function->lostDevice = node;
    return true;
}

void NetworkManagementClass::unlinkLostDevice(CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node) {
    ControlFunctionClass* function = node->controlFunction;
    (node->previous != nullptr ? node->previous->next : controlFunctionLostDevices) = node->next;
    (node->next != nullptr ? node->next->previous : lostDevicesTail) = node->previous;
    --numberLostDevices;
    unfileLostDevice(node);
    if (node->forgettable) {
        const uint8_t channel = function->getChannel();
        (node->previousForgettable != nullptr ? node->previousForgettable->nextForgettable
                                              : oldestForgettable[channel]) = node->nextForgettable;
        (node->nextForgettable != nullptr ? node->nextForgettable->previousForgettable
                                          : newestForgettable[channel]) = node->previousForgettable;
        --numberForgettableLostDevices[channel];
    }
    function->lostDevice = nullptr;
}

CONTROL_FUNCTION_LOST_DEVICE_STRUCT* NetworkManagementClass::forgetOldestLostDevice(
    uint8_t channel) {
    CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node = oldestForgettable[channel];
    if (node == nullptr) {
        return nullptr;
    }
    unlinkLostDevice(node);
    static_cast<UnregisteredControlFunctionClass*>(node->controlFunction)->forget();
    return node;
}

bool NetworkManagementClass::removeLostDevice(ControlFunctionClass* function) {
    if (function == nullptr || function->lostDevice == nullptr) {
        return false;
    }
    CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node = function->lostDevice;
    unlinkLostDevice(node);
    delete node;
    return true;
}

bool NetworkManagementClass::isLostDevice(const ControlFunctionClass* function) {
    return function != nullptr && function->lostDevice != nullptr;
}

void NetworkManagementClass::refileLostDevice(ControlFunctionClass* function) {
    CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node = function->lostDevice;
    if (node == nullptr) {
        return;
    }
    unfileLostDevice(node);
    fileLostDevice(node);
}

ControlFunctionClass* NetworkManagementClass::findLostDevice(NAMEClass name, uint8_t channel) {
    const CONTROL_FUNCTION_LOST_DEVICE_STRUCT* first = nullptr;
    for (const CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node = lostDeviceIndex[slotFor(name, channel)];
         node != nullptr; node = node->nextWithSameKey) {
        const ControlFunctionClass* function = node->controlFunction;
        if (function->getChannel() == channel && function->getNAME() == name &&
            (first == nullptr || node->position < first->position)) {
            first = node;
        }
    }
    return first != nullptr ? first->controlFunction : nullptr;
}

bool NetworkManagementClass::getLostDevice(uint32_t index, ControlFunctionClass*& function) {
    function = nullptr;
    uint32_t position = 0;
    for (CONTROL_FUNCTION_LOST_DEVICE_STRUCT* n = controlFunctionLostDevices; n != nullptr;
         n = n->next) {
        if (position++ == index) {
            function = n->controlFunction;
            return true;
        }
    }
    return false;
}

uint32_t NetworkManagementClass::getNumberForgettableLostDevices(uint8_t channel) {
    return channel < NUMBER_CAN_CHANNELS ? numberForgettableLostDevices[channel] : 0;
}
