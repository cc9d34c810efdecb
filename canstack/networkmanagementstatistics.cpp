#include "canstack/networkmanagementstatistics.h"

#include <cstring>
#include <new>

#include "canstack/controlfunction.h"
#include "canstack/internalcontrolfunction.h"
#include "canstack/networkmanagement.h"
#include "canstack/networkmanagementutilities.h"

const char* const NetworkManagementStatisticsClass::MESSAGE_OWNER = "Network Management Statistics";

namespace {
const char* const FAILED_CALLBACK_POINTER = "Failed AddDescriptionMessageCallback Pointer";
const char* const FAILED_CALLBACK = "Failed AddDescriptionMessageCallback";
const char* const INVALID_PARAMETERS = "Invalid Parameters AddDescriptionMessage";

DescriptionMessageRecord outOfDescriptionMessages = {"Out Of Description Messages",
                                                     "Network Management Statistics", nullptr, 0};
DescriptionMessageRecord memoryAllocationFailure = {
    "Memory Allocation Failure updateDescriptionMessages", "Network Management Statistics", nullptr,
    0};

DescriptionMessageRecord* findRecord(DescriptionMessageRecord* list, const char* owner,
                                     const char* text) {
    for (DescriptionMessageRecord* record = list; record != nullptr; record = record->next) {
        if (record->owner == owner && record->text == text) {
            return record;
        }
    }
    return nullptr;
}
}  // namespace

NetworkManagementStatisticsClass NetworkManagementStatisticsClass::NETWORK_MANAGEMENT_STATISTICS;
DescriptionMessageRecord* NetworkManagementStatisticsClass::descriptionMessageNoticeList = nullptr;
DescriptionMessageRecord* NetworkManagementStatisticsClass::descriptionMessageWarningList = nullptr;
DescriptionMessageRecord* NetworkManagementStatisticsClass::descriptionMessageCriticalList =
    nullptr;
uint32_t NetworkManagementStatisticsClass::numberDescriptionMessages = 0;
DescriptionMessageSlot NetworkManagementStatisticsClass::availableDescriptionMessages
    [NetworkManagementStatisticsClass::NUMBER_DESCRIPTION_SLOTS] = {};
DescriptionMessageCallbackNode* NetworkManagementStatisticsClass::descriptionMessageCallbackList =
    nullptr;

DescriptionMessageRecord** NetworkManagementStatisticsClass::listFor(uint8_t severity) {
    switch (severity) {
        case 0:
            return &descriptionMessageNoticeList;
        case 1:
            return &descriptionMessageWarningList;
        case 2:
            return &descriptionMessageCriticalList;
        default:
            return nullptr;
    }
}

void NetworkManagementStatisticsClass::callCallbacks(const char* owner, const char* text,
                                                     uint8_t severity, uint32_t count) {
    for (DescriptionMessageCallbackNode* node = descriptionMessageCallbackList; node != nullptr;
         node = node->next) {
        if (node->parameter != nullptr && node->parameterFunction != nullptr) {
            node->parameterFunction(owner, text, severity, count, node->parameter);
        } else if (node->function != nullptr) {
            node->function(owner, text, severity, count);
        }
    }
}

bool NetworkManagementStatisticsClass::addDescriptionMessage(const char* owner, const char* text,
                                                             uint8_t severity) {
    DescriptionMessageRecord** list = listFor(severity);
    if (owner == nullptr || text == nullptr || list == nullptr) {
        addDescriptionMessage(MESSAGE_OWNER, INVALID_PARAMETERS, 2);
        return false;
    }
    DescriptionMessageRecord* record = findRecord(*list, owner, text);
    if (record != nullptr) {
        ++record->count;
        callCallbacks(owner, text, severity, record->count);
        return true;
    }
    for (DescriptionMessageSlot& slot : availableDescriptionMessages) {
        if (slot.text == nullptr && slot.owner == nullptr) {
            slot.text = text;
            slot.owner = owner;
            slot.severity = severity;
            callCallbacks(owner, text, severity, 1);
            return true;
        }
    }
    registerDescriptionMessage(&outOfDescriptionMessages, 2);
    callCallbacks(owner, text, severity, 1);
    return false;
}

bool NetworkManagementStatisticsClass::registerDescriptionMessage(DescriptionMessageRecord* record,
                                                                  uint8_t severity) {
    DescriptionMessageRecord** list = listFor(severity);
    if (record == nullptr || list == nullptr || record->owner == nullptr ||
        record->text == nullptr) {
        return false;
    }
    bool present = false;
    for (DescriptionMessageRecord* r = *list; r != nullptr; r = r->next) {
        if (r == record || (r->owner == record->owner && r->text == record->text)) {
            present = true;
            break;
        }
    }
    if (!present) {
        record->count = 0;
        record->next = *list;
        *list = record;
        ++numberDescriptionMessages;
    }
    return addDescriptionMessage(record->owner, record->text, severity);
}

void NetworkManagementStatisticsClass::updateDescriptionMessages() {
    for (DescriptionMessageSlot& slot : availableDescriptionMessages) {
        if (slot.text == nullptr && slot.owner == nullptr) {
            continue;
        }
        DescriptionMessageRecord** list = listFor(slot.severity);
        DescriptionMessageRecord* record =
            list != nullptr ? findRecord(*list, slot.owner, slot.text) : nullptr;
        const char* owner = slot.owner;
        const char* text = slot.text;
        const uint8_t severity = slot.severity;
        slot.text = nullptr;
        slot.owner = nullptr;
        slot.severity = 0;
        if (list == nullptr) {
            continue;
        }
        if (record != nullptr) {
            ++record->count;
            continue;
        }
        record = new (std::nothrow) DescriptionMessageRecord{text, owner, *list, 1};
        if (record == nullptr) {
            registerDescriptionMessage(&memoryAllocationFailure, 2);
            continue;
        }
        (void)severity;
        *list = record;
        ++numberDescriptionMessages;
    }
}

bool NetworkManagementStatisticsClass::getDescriptionMessage(uint32_t index, const char*& owner,
                                                             const char*& text, uint8_t& severity,
                                                             uint32_t& count) {
    const uint8_t order[3] = {2, 1, 0};
    uint32_t position = 0;
    for (uint8_t s : order) {
        for (DescriptionMessageRecord* r = *listFor(s); r != nullptr; r = r->next) {
            if (position++ == index) {
                owner = r->owner;
                text = r->text;
                severity = s;
                count = r->count;
                return true;
            }
        }
    }
    return false;
}

uint32_t NetworkManagementStatisticsClass::getDescriptionMessageCount(const char* owner,
                                                                      const char* text,
                                                                      uint8_t severity) {
    DescriptionMessageRecord** list = listFor(severity);
    if (list == nullptr) {
        return 0;
    }
    DescriptionMessageRecord* record = findRecord(*list, owner, text);
    return record != nullptr ? record->count : 0;
}

DescriptionMessageCallbackNode* NetworkManagementStatisticsClass::addDescriptionMessageCallback(
    DescriptionMessageFunction function) {
    bool duplicate = false;
    for (DescriptionMessageCallbackNode* n = descriptionMessageCallbackList; n != nullptr;
         n = n->next) {
        if (n->function == function && n->parameter == nullptr) {
            duplicate = true;
        }
    }
    DescriptionMessageCallbackNode* node = (function == nullptr || duplicate)
                                               ? nullptr
                                               : new (std::nothrow) DescriptionMessageCallbackNode{
                                                     nullptr, function, nullptr, nullptr};
    if (node == nullptr) {
        addDescriptionMessage(MESSAGE_OWNER, FAILED_CALLBACK, 2);
        return nullptr;
    }
    DescriptionMessageCallbackNode** tail = &descriptionMessageCallbackList;
    while (*tail != nullptr) {
        tail = &(*tail)->next;
    }
    *tail = node;
    return node;
}

DescriptionMessageCallbackNode* NetworkManagementStatisticsClass::addDescriptionMessageCallback(
    DescriptionMessageParameterFunction function, void* parameter) {
    bool duplicate = false;
    for (DescriptionMessageCallbackNode* n = descriptionMessageCallbackList; n != nullptr;
         n = n->next) {
        if (n->parameterFunction == function && n->parameter == parameter) {
            duplicate = true;
        }
    }
    DescriptionMessageCallbackNode* node =
        (function == nullptr || parameter == nullptr || duplicate)
            ? nullptr
            : new (std::nothrow)
                  DescriptionMessageCallbackNode{nullptr, nullptr, function, parameter};
    if (node == nullptr) {
        addDescriptionMessage(MESSAGE_OWNER, FAILED_CALLBACK_POINTER, 2);
        return nullptr;
    }
    DescriptionMessageCallbackNode** tail = &descriptionMessageCallbackList;
    while (*tail != nullptr) {
        tail = &(*tail)->next;
    }
    *tail = node;
    return node;
}

bool NetworkManagementStatisticsClass::removeDescriptionMessageCallback(
    DescriptionMessageCallbackNode* node) {
    for (DescriptionMessageCallbackNode** link = &descriptionMessageCallbackList; *link != nullptr;
         link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            delete node;
            return true;
        }
    }
    return false;
}

uint32_t NetworkManagementStatisticsClass::getMessageBitCount(uint32_t dataLength, bool extended) {
    return (extended ? 64u : 44u) + 8u * dataLength;
}

uint32_t NetworkManagementStatisticsClass::getMessageStuffedBitCount(uint32_t dataLength,
                                                                     bool extended) {
    return (extended ? 75u : 51u) + 8u * dataLength + (8u * dataLength) / 5u;
}

void NetworkManagementStatisticsClass::countReceived(uint8_t channel, uint32_t identifier,
                                                     const uint8_t* data, uint32_t dataLength,
                                                     bool extended, uint32_t timestamp) {
    lastReceivedIdentifier = identifier;
    if (data != nullptr && dataLength >= 8) {
        std::memcpy(lastReceivedData, data, 8);
    } else {
        for (uint32_t i = 0; i < 8; ++i) {
            lastReceivedData[i] = (data != nullptr && i < dataLength) ? data[i] : 0xFF;
        }
    }
    if (channel >= NUMBER_CHANNELS) {
        return;
    }
    lastReceiveTimestamp[channel] = timestamp;
    ++receivedCount[channel];
    receivedBits[channel] += getMessageBitCount(dataLength, extended);
    receivedStuffedBits[channel] += getMessageStuffedBitCount(dataLength, extended);
}

void NetworkManagementStatisticsClass::countTransmitted(uint8_t channel, uint32_t dataLength,
                                                        bool extended, uint32_t timestamp) {
    if (channel >= NUMBER_CHANNELS) {
        return;
    }
    ++transmittedCount[channel];
    lastTransmitTimestamp[channel] = timestamp;
    transmittedBits[channel] += getMessageBitCount(dataLength, extended);
    transmittedStuffedBits[channel] += getMessageStuffedBitCount(dataLength, extended);
}

void NetworkManagementStatisticsClass::countTransmitFailure(uint8_t channel, uint32_t timestamp) {
    if (channel >= NUMBER_CHANNELS) {
        return;
    }
    ++transmitFailures[channel];
    lastTransmitFailureTimestamp[channel] = timestamp;
}

void NetworkManagementStatisticsClass::countNewNAME(uint8_t channel) {
    if (channel < NUMBER_CHANNELS) {
        ++newNAMECount[channel];
    }
}

void NetworkManagementStatisticsClass::updateRates(uint32_t now) {
    statisticsTimestamp = now;
    for (uint8_t c = 0; c < NUMBER_CHANNELS; ++c) {
        receivedPerSecond[c] = receivedCount[c] - previousReceivedCount[c];
        transmittedPerSecond[c] = transmittedCount[c] - previousTransmittedCount[c];
        previousReceivedCount[c] = receivedCount[c];
        previousTransmittedCount[c] = transmittedCount[c];
        averageReceivedPerSecond[c] = NetworkManagementUtilitiesClass::lowPassFilter(
            static_cast<float>(receivedPerSecond[c]), averageReceivedPerSecond[c], 1.0f, 10.0f);
        averageTransmittedPerSecond[c] = NetworkManagementUtilitiesClass::lowPassFilter(
            static_cast<float>(transmittedPerSecond[c]), averageTransmittedPerSecond[c], 1.0f,
            10.0f);
    }
}

void NetworkManagementStatisticsClass::recordUpdateServiceTime(uint32_t ms) {
    averageUpdateServiceTime = NetworkManagementUtilitiesClass::lowPassFilter(
        static_cast<float>(ms), averageUpdateServiceTime, 1.0f, 2000.0f);
    if (ms > maximumUpdateServiceTime) {
        maximumUpdateServiceTime = ms;
    }
}

void NetworkManagementStatisticsClass::recordUpdateExecutionTime(uint32_t ms) {
    averageUpdateExecutionTime = NetworkManagementUtilitiesClass::lowPassFilter(
        static_cast<float>(ms), averageUpdateExecutionTime, 1.0f, 2000.0f);
    if (ms > maximumUpdateExecutionTime) {
        maximumUpdateExecutionTime = ms;
    }
}

void NetworkManagementStatisticsClass::recordReceiveExecutionTime(uint32_t ms,
                                                                  uint32_t identifier) {
    if (ms > maximumReceiveExecutionTime) {
        maximumReceiveExecutionTime = ms;
        maximumReceiveExecutionIdentifier = identifier;
    }
}

#define CHANNEL_GETTER(type, name, field, invalid)                                      \
    type NetworkManagementStatisticsClass::name(uint8_t channel) const {                \
        return channel < NUMBER_CHANNELS ? field[channel] : static_cast<type>(invalid); \
    }
CHANNEL_GETTER(uint32_t, getReceivedPerSecond, receivedPerSecond, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getTransmittedPerSecond, transmittedPerSecond, 0xFFFFFFFFu)
CHANNEL_GETTER(float, getAverageReceivedPerSecond, averageReceivedPerSecond, 0.0f)
CHANNEL_GETTER(float, getAverageTransmittedPerSecond, averageTransmittedPerSecond, 0.0f)
CHANNEL_GETTER(uint32_t, getNewNAMECount, newNAMECount, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getTransmitFailures, transmitFailures, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getReceivedBits, receivedBits, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getReceivedStuffedBits, receivedStuffedBits, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getReceivedCount, receivedCount, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getTransmittedCount, transmittedCount, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getTransmittedBits, transmittedBits, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getTransmittedStuffedBits, transmittedStuffedBits, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getLastReceiveTimestamp, lastReceiveTimestamp, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getLastTransmitFailureTimestamp, lastTransmitFailureTimestamp, 0xFFFFFFFFu)
CHANNEL_GETTER(uint32_t, getLastTransmitTimestamp, lastTransmitTimestamp, 0xFFFFFFFFu)
CHANNEL_GETTER(uint16_t, getChannelValue, channelValue, 0xFFFF)
#undef CHANNEL_GETTER

bool NetworkManagementStatisticsClass::setChannelValue(uint8_t channel, uint16_t value) {
    if (channel >= NUMBER_CHANNELS) {
        return false;
    }
    channelValue[channel] = value;
    return true;
}

uint32_t NetworkManagementStatisticsClass::getLastReceived(const uint8_t*& data) const {
    data = lastReceivedData;
    return lastReceivedIdentifier;
}

void NetworkManagementStatisticsClass::clearMaxima() {
    maximumReceiveExecutionTime = 0;
    maximumUpdateExecutionTime = 0;
    maximumUpdateServiceTime = 0;
    maximumReceiveExecutionIdentifier = 0xFFFFFFFFu;
}

uint8_t NetworkManagementStatisticsClass::countDevices(uint8_t channel) const {
    if (channel >= NUMBER_CHANNELS) {
        return 0;
    }
    uint8_t count = 0;
    for (uint8_t address = 0; address < NetworkManagementClass::NUMBER_ADDRESSES; ++address) {
        ControlFunctionClass* cf = NetworkManagementClass::controlFunctionTable[channel][address];
        if (cf == nullptr) {
            continue;
        }
        if (cf->getType() == 1 &&
            static_cast<RegisteredControlFunctionClass*>(cf)->getLastReceiveTimestamp() == 0) {
            continue;
        }
        ++count;
    }
    return count;
}
