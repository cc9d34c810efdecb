#include "canstack/filteredmessagecallback.h"

#include <cstring>
#include <new>

#include "canstack/canmessage.h"
#include "canstack/controlfunction.h"
#include "canstack/networkmanagementstatistics.h"
#include "canstack/networkmanagementutilities.h"

const char* const FilteredMessageCallbackClass::MESSAGE_OWNER = "Filtered Message Callback";
FilteredMessageCallbackClass** FilteredMessageCallbackClass::filteredMessageCallbackList = nullptr;
uint16_t FilteredMessageCallbackClass::numberFilteredMessageCallbacks = 0;

namespace {
using Utilities = NetworkManagementUtilitiesClass;
}

// ---------------------------------------------------------------- FilteredMessageCallbackClass

void FilteredMessageCallbackClass::enterList() {
    valid = Utilities::addObjectToArray(this, filteredMessageCallbackList,
                                        numberFilteredMessageCallbacks);
    if (!valid) {
        NetworkManagementStatisticsClass::addDescriptionMessage(
            MESSAGE_OWNER, "Failed Adding Filtered Message Callback to List", 2);
    }
}

FilteredMessageCallbackClass::FilteredMessageCallbackClass() {
    enterList();
}

FilteredMessageCallbackClass::FilteredMessageCallbackClass(
    const FilteredMessageCallbackClass& other) {
    for (const FILTERED_MESSAGE_CALLBACK_STRUCT* n = other.callbackList; n != nullptr;
         n = n->next) {
        CANMessageCallbackFunction function = n->function;
        ReceiveCANMessageCallbackClass* object = n->running ? n->runningObject : n->object;
        if (n->running) {
            // A running node keeps its function only on the stack of the walk; skip it.
            continue;
        }
        addCallback(function, object);
    }
    enterList();
}

FilteredMessageCallbackClass::~FilteredMessageCallbackClass() {
    Utilities::removeObjectFromArray(this, filteredMessageCallbackList,
                                     numberFilteredMessageCallbacks);
    while (callbackList != nullptr) {
        removeCallback(callbackList);
    }
}

void FilteredMessageCallbackClass::unlink(FILTERED_MESSAGE_CALLBACK_STRUCT* node) {
    for (FILTERED_MESSAGE_CALLBACK_STRUCT** link = &callbackList; *link != nullptr;
         link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            return;
        }
    }
}

FILTERED_MESSAGE_CALLBACK_STRUCT* FilteredMessageCallbackClass::addCallback(
    CANMessageCallbackFunction function, ReceiveCANMessageCallbackClass* object) {
    if (function == nullptr && object == nullptr) {
        NetworkManagementStatisticsClass::addDescriptionMessage(
            MESSAGE_OWNER, "Failed Adding Callback to List", 2);
        return nullptr;
    }
    FILTERED_MESSAGE_CALLBACK_STRUCT** tail = &callbackList;
    for (; *tail != nullptr; tail = &(*tail)->next) {
        if ((*tail)->function == function && (*tail)->object == object) {
            return nullptr;
        }
    }
    FILTERED_MESSAGE_CALLBACK_STRUCT* node = new (std::nothrow)
        FILTERED_MESSAGE_CALLBACK_STRUCT{function, object, nullptr, nullptr, false};
    if (node == nullptr) {
        NetworkManagementStatisticsClass::addDescriptionMessage(
            MESSAGE_OWNER, "Failed Adding Callback to List", 2);
        return nullptr;
    }
    *tail = node;
    return node;
}

bool FilteredMessageCallbackClass::removeCallback(FILTERED_MESSAGE_CALLBACK_STRUCT* node) {
    bool found = false;
    for (FILTERED_MESSAGE_CALLBACK_STRUCT* n = callbackList; n != nullptr; n = n->next) {
        if (n == node) {
            found = true;
            break;
        }
    }
    if (!found) {
        return false;
    }
    unlink(node);
    if (node->running) {
        node->next = node;  // the walk frees it once its call returns
    } else {
        delete node;
    }
    return true;
}

void FilteredMessageCallbackClass::removeCallbacks(ReceiveCANMessageCallbackClass* object) {
    FILTERED_MESSAGE_CALLBACK_STRUCT* n = callbackList;
    while (n != nullptr) {
        FILTERED_MESSAGE_CALLBACK_STRUCT* next = n->next;
        if ((n->running ? n->runningObject : n->object) == object) {
            removeCallback(n);
        }
        n = next;
    }
}

void FilteredMessageCallbackClass::invokeCallbacks(CANMessageClass* message) {
    FILTERED_MESSAGE_CALLBACK_STRUCT* node = callbackList;
    while (node != nullptr) {
        if (node->running) {
            node = node->next;  // re-entered from its own callback
            continue;
        }
        CANMessageCallbackFunction function = node->function;
        ReceiveCANMessageCallbackClass* object = node->object;
        node->function = nullptr;
        node->object = nullptr;
        node->runningObject = object;
        node->running = true;
        if (function != nullptr) {
            function(message, object);
        } else if (object != nullptr) {
            object->receiveCANMessage(message);
        }
        // Removed during its own call: the filter itself may be gone, so touch nothing else.
        if (node->next == node) {
            delete node;
            return;
        }
        node->function = function;
        node->object = object;
        node->runningObject = nullptr;
        node->running = false;
        node = node->next;
    }
}

uint32_t FilteredMessageCallbackClass::getNumberCallbacks() const {
    uint32_t count = 0;
    for (const FILTERED_MESSAGE_CALLBACK_STRUCT* n = callbackList; n != nullptr; n = n->next) {
        ++count;
    }
    return count;
}

void FilteredMessageCallbackClass::removeCallbacksFromAllFilters(
    ReceiveCANMessageCallbackClass* object) {
    for (uint16_t i = 0; i < numberFilteredMessageCallbacks; ++i) {
        filteredMessageCallbackList[i]->removeCallbacks(object);
    }
}

bool FilteredMessageCallbackClass::getFilteredMessageCallback(
    uint16_t index, FilteredMessageCallbackClass*& filter) {
    filter = index < numberFilteredMessageCallbacks ? filteredMessageCallbackList[index] : nullptr;
    return filter != nullptr;
}

// ---------------------------------------------------------------- matching

FilteredMessageMatchingCallbackClass::FilteredMessageMatchingCallbackClass() {
    addFilterRecord();
}

FilteredMessageMatchingCallbackClass::FilteredMessageMatchingCallbackClass(
    const FilteredMessageMatchingCallbackClass& other)
    : FilteredMessageCallbackClass(other), selectedRecord(other.selectedRecord) {
    FILTER_RECORD_STRUCT** tail = &records;
    for (const FILTER_RECORD_STRUCT* r = other.records; r != nullptr; r = r->next) {
        FILTER_RECORD_STRUCT* copy = new (std::nothrow) FILTER_RECORD_STRUCT(*r);
        if (copy == nullptr) {
            break;
        }
        copy->next = nullptr;
        *tail = copy;
        tail = &copy->next;
    }
    refreshQuickReject();
}

// With a single accept record, its identifier and channel criteria must hold for any match.
void FilteredMessageMatchingCallbackClass::refreshQuickReject() {
    quickRejectRecord =
        (records != nullptr && records->next == nullptr && records->action == ACTION_ACCEPT)
            ? records
            : nullptr;
}

FilteredMessageMatchingCallbackClass::~FilteredMessageMatchingCallbackClass() {
    quickRejectRecord = nullptr;
    while (records != nullptr) {
        FILTER_RECORD_STRUCT* next = records->next;
        delete records;
        records = next;
    }
}

namespace {
bool nameMatches(const ControlFunctionClass* cf, uint64_t mask, uint64_t value) {
    if (cf == nullptr || cf->getNAME().isUnknown()) {
        return true;
    }
    return (cf->getNAME().getNAME() & mask) == value;
}

// With a NAME criterion but no known NAME, the address criterion stands in for it.
bool addressStandsIn(const ControlFunctionClass* cf, uint64_t nameMask, uint8_t addressMask,
                     uint8_t addressValue, uint8_t address) {
    if (nameMask == 0 || (cf != nullptr && !cf->getNAME().isUnknown())) {
        return true;
    }
    return addressMask != 0 && (address & addressMask) == addressValue;
}
}  // namespace

bool FilteredMessageMatchingCallbackClass::recordMatches(const FILTER_RECORD_STRUCT& r,
                                                         const CANMessageClass& message) {
    const CANIdentifierClass& identifier = message.getIdentifier();
    if ((identifier.getIdentifier() & r.identifierMask) != r.identifierValue ||
        (message.getChannel() & r.channelMask) != r.channelValue ||
        (identifier.getIdentifierType() & r.identifierTypeMask) != r.identifierTypeValue) {
        return false;
    }
    if (r.messageTypeMask != 0 && (static_cast<uint8_t>(message.getMessageType()) &
                                   r.messageTypeMask) != r.messageTypeValue) {
        return false;
    }
    if ((r.destinationNAMEMask | r.sourceNAMEMask) != 0) {
        const ControlFunctionClass* destination = message.getDestinationControlFunction();
        const ControlFunctionClass* source = message.getSourceControlFunction();
        if (!addressStandsIn(destination, r.destinationNAMEMask, r.destinationAddressMask,
                             r.destinationAddressValue, message.getDestinationAddress()) ||
            !addressStandsIn(source, r.sourceNAMEMask, r.sourceAddressMask, r.sourceAddressValue,
                             message.getSourceAddress()) ||
            !nameMatches(destination, r.destinationNAMEMask, r.destinationNAMEValue) ||
            !nameMatches(source, r.sourceNAMEMask, r.sourceNAMEValue)) {
            return false;
        }
    }
    uint64_t anyMask = 0;
    std::memcpy(&anyMask, r.dataMask, sizeof(anyMask));
    // Masks and values are set and cleared together: a zero mask leaves nothing to compare.
    if (r.dataLengthMask == 0 && anyMask == 0) {
        return r.dataLengthValue == 0;
    }
    const uint32_t length = message.getDataLength();
    if ((length & r.dataLengthMask) != r.dataLengthValue) {
        return false;
    }
    if (anyMask == 0) {
        return true;
    }
    uint8_t buffer[8] = {};
    const uint32_t available = length < 8 ? length : 8;
    const uint8_t* data = nullptr;
    if (!message.getDataPointer(data)) {
        if (!message.getData(buffer, 0, available)) {
            return false;
        }
        data = buffer;
    }
    for (uint32_t i = 0; i < 8; ++i) {
        if (r.dataMask[i] == 0) {
            continue;
        }
        if (i >= available || (data[i] & r.dataMask[i]) != r.dataValue[i]) {
            return false;
        }
    }
    return true;
}

bool FilteredMessageMatchingCallbackClass::filterMatches(const CANMessageClass* message) const {
    if (message == nullptr) {
        return false;
    }
    bool result = false;
    for (const FILTER_RECORD_STRUCT* r = records; r != nullptr; r = r->next) {
        const bool matched = recordMatches(*r, *message);
        if (matched && r->action == ACTION_REJECT) {
            return false;
        }
        result = result || matched;
    }
    return result;
}

FILTER_RECORD_STRUCT* FilteredMessageMatchingCallbackClass::recordAt(int32_t index) const {
    if (index < 0) {
        return nullptr;
    }
    FILTER_RECORD_STRUCT* r = records;
    for (int32_t i = 0; r != nullptr && i < index; ++i) {
        r = r->next;
    }
    return r;
}

FILTER_RECORD_STRUCT* FilteredMessageMatchingCallbackClass::selected() const {
    return recordAt(selectedRecord);
}

uint32_t FilteredMessageMatchingCallbackClass::getNumberFilterRecords() const {
    uint32_t count = 0;
    for (const FILTER_RECORD_STRUCT* r = records; r != nullptr; r = r->next) {
        ++count;
    }
    return count;
}

bool FilteredMessageMatchingCallbackClass::addFilterRecord() {
    FILTER_RECORD_STRUCT* record = new (std::nothrow) FILTER_RECORD_STRUCT();
    if (record == nullptr) {
        return false;
    }
    int32_t index = 0;
    FILTER_RECORD_STRUCT** tail = &records;
    for (; *tail != nullptr; tail = &(*tail)->next) {
        ++index;
    }
    *tail = record;
    selectedRecord = index;
    refreshQuickReject();
    return true;
}

bool FilteredMessageMatchingCallbackClass::selectFilterRecord(int32_t index) {
    if (recordAt(index) == nullptr) {
        return false;
    }
    selectedRecord = index;
    return true;
}

bool FilteredMessageMatchingCallbackClass::removeFilterRecord(int32_t index) {
    FILTER_RECORD_STRUCT* record = recordAt(index);
    if (record == nullptr) {
        return false;
    }
    for (FILTER_RECORD_STRUCT** link = &records; *link != nullptr; link = &(*link)->next) {
        if (*link == record) {
            *link = record->next;
            break;
        }
    }
    delete record;
    refreshQuickReject();
    if (selectedRecord == index) {
        selectedRecord = -1;
    } else if (selectedRecord > index) {
        --selectedRecord;
    }
    return true;
}

bool FilteredMessageMatchingCallbackClass::getAction(uint32_t& action) const {
    const FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr) {
        return false;
    }
    action = r->action;
    return true;
}

bool FilteredMessageMatchingCallbackClass::setAction(uint32_t action) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr) {
        return false;
    }
    r->action = action;
    refreshQuickReject();
    return true;
}

#define SMALL_FIELD(Name, mask, value, limit)                  \
    bool FilteredMessageMatchingCallbackClass::clear##Name() { \
        FILTER_RECORD_STRUCT* r = selected();                  \
        if (r == nullptr) {                                    \
            return false;                                      \
        }                                                      \
        r->mask = 0;                                           \
        r->value = 0;                                          \
        return true;                                           \
    }
SMALL_FIELD(Channel, channelMask, channelValue, 0)
SMALL_FIELD(MessageType, messageTypeMask, messageTypeValue, 0)
SMALL_FIELD(DataLength, dataLengthMask, dataLengthValue, 0)
SMALL_FIELD(IdentifierType, identifierTypeMask, identifierTypeValue, 0)
SMALL_FIELD(DestinationAddress, destinationAddressMask, destinationAddressValue, 0)
SMALL_FIELD(SourceAddress, sourceAddressMask, sourceAddressValue, 0)
#undef SMALL_FIELD

bool FilteredMessageMatchingCallbackClass::setChannel(uint8_t channel) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr || r->channelMask != 0) {
        return false;
    }
    r->channelMask = 0xFF;
    r->channelValue = channel;
    return true;
}

bool FilteredMessageMatchingCallbackClass::setMessageType(uint8_t type) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr || r->messageTypeMask != 0) {
        return false;
    }
    r->messageTypeMask = 0xFF;
    r->messageTypeValue = type;
    return true;
}

bool FilteredMessageMatchingCallbackClass::setDataLength(uint32_t length) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr || r->dataLengthMask != 0) {
        return false;
    }
    r->dataLengthMask = 0xFFFFFFFFu;
    r->dataLengthValue = length;
    return true;
}

bool FilteredMessageMatchingCallbackClass::setIdentifierType(uint8_t type) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr || type > 1) {
        return false;
    }
    if (r->identifierTypeMask != 0) {
        return r->identifierTypeValue == type;
    }
    r->identifierTypeMask = 0xFF;
    r->identifierTypeValue = type;
    return true;
}

bool FilteredMessageMatchingCallbackClass::requireExtended(FILTER_RECORD_STRUCT* r) {
    if (r->identifierTypeMask != 0 && r->identifierTypeValue == 0) {
        return false;
    }
    r->identifierTypeMask = 0xFF;
    r->identifierTypeValue = 1;
    return true;
}

bool FilteredMessageMatchingCallbackClass::setDestinationAddress(uint8_t address) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr || !requireExtended(r) || r->destinationAddressMask != 0) {
        return false;
    }
    r->destinationAddressMask = 0xFF;
    r->destinationAddressValue = address;
    return true;
}

bool FilteredMessageMatchingCallbackClass::setSourceAddress(uint8_t address) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr || !requireExtended(r) || r->sourceAddressMask != 0) {
        return false;
    }
    r->sourceAddressMask = 0xFF;
    r->sourceAddressValue = address;
    return true;
}

bool FilteredMessageMatchingCallbackClass::clearDataBits(uint32_t bitOffset, uint32_t bitCount) {
    FILTER_RECORD_STRUCT* r = selected();
    // Subtracted, not added: an offset near the top must not wrap past the 8-byte mask.
    if (r == nullptr || bitCount > 32 || bitOffset > 64 - bitCount) {
        return false;
    }
    Utilities::setBits(r->dataMask, bitOffset, bitCount, 0);
    Utilities::setBits(r->dataValue, bitOffset, bitCount, 0);
    return true;
}

bool FilteredMessageMatchingCallbackClass::setDataBits(uint32_t bitOffset, uint32_t bitCount,
                                                       uint32_t value) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr || bitCount > 32 || bitOffset > 64 - bitCount) {
        return false;
    }
    uint32_t existing = 0;
    Utilities::getBits(r->dataMask, bitOffset, bitCount, existing);
    if (existing != 0) {
        return false;
    }
    const uint32_t ones = bitCount == 32 ? 0xFFFFFFFFu : ((1u << bitCount) - 1u);
    Utilities::setBits(r->dataMask, bitOffset, bitCount, ones);
    Utilities::setBits(r->dataValue, bitOffset, bitCount, value & ones);
    return true;
}

bool FilteredMessageMatchingCallbackClass::setNAMEField(bool destination, uint32_t field,
                                                        uint64_t value) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr) {
        return false;
    }
    uint64_t fieldMask = 0xFFFFFFFFFFFFFFFFull;
    uint32_t offset = 0;
    if (field != NAME_FIELD_WHOLE_NAME) {
        uint32_t width = 0;
        if (!NAMEClass::getFieldLayout(field, offset, width) || value > ((1ull << width) - 1u)) {
            return false;
        }
        fieldMask = ((1ull << width) - 1u) << offset;
    }
    uint64_t& mask = destination ? r->destinationNAMEMask : r->sourceNAMEMask;
    uint64_t& stored = destination ? r->destinationNAMEValue : r->sourceNAMEValue;
    if ((mask & fieldMask) != 0) {
        return false;
    }
    mask |= fieldMask;
    stored = (stored & ~fieldMask) | ((value << offset) & fieldMask);
    return true;
}

bool FilteredMessageMatchingCallbackClass::clearNAMEField(bool destination, uint32_t field) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr) {
        return false;
    }
    uint64_t fieldMask = 0xFFFFFFFFFFFFFFFFull;
    if (field != NAME_FIELD_WHOLE_NAME) {
        uint32_t offset = 0;
        uint32_t width = 0;
        if (!NAMEClass::getFieldLayout(field, offset, width)) {
            return false;
        }
        fieldMask = ((1ull << width) - 1u) << offset;
    }
    uint64_t& mask = destination ? r->destinationNAMEMask : r->sourceNAMEMask;
    uint64_t& stored = destination ? r->destinationNAMEValue : r->sourceNAMEValue;
    mask &= ~fieldMask;
    stored &= ~fieldMask;
    return true;
}

bool FilteredMessageMatchingCallbackClass::clearDestinationNAMEField(uint32_t field) {
    return clearNAMEField(true, field);
}
bool FilteredMessageMatchingCallbackClass::setDestinationNAMEField(uint32_t field, uint64_t value) {
    return setNAMEField(true, field, value);
}
bool FilteredMessageMatchingCallbackClass::clearSourceNAMEField(uint32_t field) {
    return clearNAMEField(false, field);
}
bool FilteredMessageMatchingCallbackClass::setSourceNAMEField(uint32_t field, uint64_t value) {
    return setNAMEField(false, field, value);
}

bool FilteredMessageMatchingCallbackClass::setIdentifierBits(uint32_t mask, uint32_t value,
                                                             bool extendedOnly) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr || (extendedOnly && !requireExtended(r)) || (r->identifierMask & mask) != 0) {
        return false;
    }
    r->identifierMask |= mask;
    r->identifierValue = (r->identifierValue & ~mask) | (value & mask);
    return true;
}

bool FilteredMessageMatchingCallbackClass::clearIdentifierBits(uint32_t mask) {
    FILTER_RECORD_STRUCT* r = selected();
    if (r == nullptr) {
        return false;
    }
    r->identifierMask &= ~mask;
    r->identifierValue &= ~mask;
    return true;
}

bool FilteredMessageMatchingCallbackClass::clearIdentifier() {
    return clearIdentifierBits(0x7FFFFFFFu);
}
bool FilteredMessageMatchingCallbackClass::setIdentifier(uint32_t identifier) {
    return identifier <= 0x1FFFFFFFu && setIdentifierBits(0x1FFFFFFFu, identifier, false);
}
bool FilteredMessageMatchingCallbackClass::clearPriority() {
    return clearIdentifierBits(0x1C000000u);
}
bool FilteredMessageMatchingCallbackClass::setPriority(uint8_t priority) {
    return priority <= 7 && setIdentifierBits(0x1C000000u, uint32_t{priority} << 26, true);
}
bool FilteredMessageMatchingCallbackClass::clearDataPage() {
    return clearIdentifierBits(0x1000000u);
}
bool FilteredMessageMatchingCallbackClass::setDataPage(uint8_t dataPage) {
    return dataPage <= 1 && setIdentifierBits(0x1000000u, uint32_t{dataPage} << 24, true);
}
bool FilteredMessageMatchingCallbackClass::clearExtendedDataPage() {
    return clearIdentifierBits(0x2000000u);
}
bool FilteredMessageMatchingCallbackClass::setExtendedDataPage(uint8_t extendedDataPage) {
    return extendedDataPage <= 1 &&
           setIdentifierBits(0x2000000u, uint32_t{extendedDataPage} << 25, true);
}
bool FilteredMessageMatchingCallbackClass::clearParameterGroupNumber() {
    return clearIdentifierBits(0x3FFFF00u);
}
bool FilteredMessageMatchingCallbackClass::setParameterGroupNumber(uint32_t pgn) {
    if (pgn >= 262144u) {
        return false;
    }
    if ((pgn & 0xF000u) == 0xF000u) {
        return setIdentifierBits(0x3FFFF00u, pgn << 8, true);
    }
    if ((pgn & 0xFFu) == 0) {
        return setIdentifierBits(0x3FF0000u, pgn << 8, true);
    }
    return false;
}
bool FilteredMessageMatchingCallbackClass::clearPDUFormat() {
    return clearIdentifierBits(0xFF0000u);
}
bool FilteredMessageMatchingCallbackClass::setPDUFormat(uint8_t pduFormat) {
    return setIdentifierBits(0xFF0000u, uint32_t{pduFormat} << 16, true);
}
bool FilteredMessageMatchingCallbackClass::clearPDUSpecific() {
    return clearIdentifierBits(0xFF00u);
}
bool FilteredMessageMatchingCallbackClass::setPDUSpecific(uint8_t pduSpecific) {
    return setIdentifierBits(0xFF00u, uint32_t{pduSpecific} << 8, true);
}
bool FilteredMessageMatchingCallbackClass::clearSourceAddressByte() {
    return clearIdentifierBits(0xFFu);
}
bool FilteredMessageMatchingCallbackClass::setSourceAddressByte(uint8_t address) {
    return setIdentifierBits(0xFFu, address, true);
}
