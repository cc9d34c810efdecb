#include "canstack/canmessage.h"

#include <cstring>

#include "canstack/controlfunction.h"
#include "canstack/networkmanagement.h"
#include "canstack/networkmanagementmemorypool.h"
#include "canstack/networkmanagementstatistics.h"
#include "canstack/networkmanagementutilities.h"

const char* const CANMessageClass::MESSAGE_OWNER = "CAN Message";
const char* const CANReceiveMessageClass::MESSAGE_OWNER = "CAN Receive Message";
const char* const CANTransmitMessageClass::MESSAGE_OWNER = "CAN Transmit Message";
const char* const CANLongMessageClass::MESSAGE_OWNER = "CAN Long Message";
uint32_t CANMessageClass::uniqueMessageHandle = 0;

namespace {
const char* const DATA_POINTER_NULL = "Data Pointer NULL";
const char* const DATA_LENGTH_INVALID = "Data Length Invalid";
const char* const CHANNEL_INVALID = "CAN Channel Invalid";
const char* const STANDARD_OUT_OF_RANGE = "Standard Identifier Out of Range";
const char* const EXTENDED_OUT_OF_RANGE = "Extended Identifier Out of Range";
const char* const SOURCE_ADDRESS_INVALID = "Source Address Invalid";
const char* const DESTINATION_ADDRESS_INVALID = "Destination Address Invalid";
const char* const DESTINATION_SPECIFIC_INVALID =
    "Parameter Group Number Destination Specific Invalid";
const char* const PGN_OUT_OF_RANGE = "Parameter Group Number Out of Range";
const char* const PRIORITY_INVALID = "CAN Priority Invalid";
const char* const CONTROL_FUNCTIONS_EQUAL = "Control Functions Equal";
const char* const INTERNAL_NULL = "Internal Control Function NULL";
const char* const IDENTIFIER_TYPE_INVALID = "Identifier Type Invalid";
const char* const SOURCE_NULL = "Source Control Function NULL";

void report(const char* owner, const char* text, uint8_t severity) {
    NetworkManagementStatisticsClass::addDescriptionMessage(owner, text, severity);
}

ControlFunctionClass* tableEntry(uint8_t channel, uint32_t address) {
    if (channel >= NUMBER_CAN_CHANNELS || address > 253) {
        return nullptr;
    }
    return NetworkManagementClass::controlFunctionTable[channel][address];
}

// A read of `count` bytes from `offset` stays inside a payload of `length` bytes.
inline bool readFits(const uint8_t* buffer, uint32_t length, uint32_t offset, uint32_t count) {
    return buffer != nullptr && offset <= length && count <= length - offset;
}

// Payload reads of the single-frame messages, whose bytes sit in the object.
inline bool copyFrameData(const uint8_t* data, uint32_t length, uint8_t* buffer, uint32_t offset,
                          uint32_t count) {
    if (!readFits(buffer, length, offset, count)) {
        return false;
    }
    std::memcpy(buffer, data + offset, count);
    return true;
}

uint8_t channelOf(ControlFunctionClass* source, ControlFunctionClass* destination) {
    if (source == nullptr) {
        return 3;
    }
    if (destination == nullptr || destination->getChannel() == source->getChannel()) {
        return source->getChannel();
    }
    return 3;
}
}  // namespace

// ---------------------------------------------------------------- CANMessageClass

CANMessageClass::CANMessageClass(uint8_t channel)
    : identifier(1), handle(++uniqueMessageHandle), channel(channel) {
    if (channel >= NUMBER_CAN_CHANNELS) {
        report(MESSAGE_OWNER, CHANNEL_INVALID, 2);
    }
}

uint8_t CANMessageClass::getSourceAddress() const {
    if (!identifier.isExtended()) {
        return GLOBAL_ADDRESS;
    }
    if (source != nullptr) {
        return source->getAddress();
    }
    return identifier.getSourceAddressByte();
}

uint8_t CANMessageClass::getDestinationAddress() const {
    if (!identifier.isExtended() || !identifier.isPDU1()) {
        return GLOBAL_ADDRESS;
    }
    if (destination != nullptr) {
        return destination->getAddress();
    }
    return identifier.getPDUSpecific();
}

bool CANMessageClass::isNullSourceAllowed(uint32_t word, const uint8_t (&data)[8]) {
    const uint8_t pduFormat = static_cast<uint8_t>(word >> 16);
    const bool pagesClear = ((word >> 24) & 3u) == 0;
    if (!pagesClear) {
        return false;
    }
    if (pduFormat == 0xEE) {
        return true;
    }
    // The payload is zero-filled past its length, so a short request compares zeros.
    return pduFormat == 0xEA && data[0] == 0x00 && data[1] == 0xEE && data[2] == 0x00;
}

bool CANMessageClass::readDataBytes(uint32_t bitOffset, uint32_t bitCount, uint8_t* buffer) const {
    const uint32_t first = bitOffset / 8u;
    const int32_t span = static_cast<int32_t>(bitOffset % 8u) - 1 + static_cast<int32_t>(bitCount);
    const uint32_t bytes = static_cast<uint32_t>(span < 0 ? 0 : span / 8) + 1u;
    return getData(buffer, first, bytes);
}

#define DATA_BITS(type, width)                                                                    \
    bool CANMessageClass::getDataBits(uint32_t bitOffset, uint32_t bitCount, type& value) const { \
        value = static_cast<type>(~static_cast<type>(0));                                         \
        if (bitCount > (width)) {                                                                 \
            return false;                                                                         \
        }                                                                                         \
        uint8_t buffer[9] = {};                                                                   \
        if (!readDataBytes(bitOffset, bitCount, buffer)) {                                        \
            return false;                                                                         \
        }                                                                                         \
        return NetworkManagementUtilitiesClass::getBits(buffer, bitOffset % 8u, bitCount, value); \
    }
DATA_BITS(uint8_t, 8)
DATA_BITS(uint16_t, 16)
DATA_BITS(uint32_t, 32)
DATA_BITS(uint64_t, 64)
#undef DATA_BITS

// ---------------------------------------------------------------- CANReceiveMessageClass

CANReceiveMessageClass::CANReceiveMessageClass(uint8_t identifierType, uint32_t identifierBits,
                                               const uint8_t* data, uint8_t length, uint8_t channel)
    : CANMessageClass(channel) {
    if (identifierType > 1) {
        report(MESSAGE_OWNER, IDENTIFIER_TYPE_INVALID, 2);
        return;
    }
    const bool extended = identifierType == 1;
    identifier.setWord((extended ? CANIdentifierClass::TYPE_BIT : 0u) |
                       (identifierBits & 0x7FFFFFFFu));
    if (data == nullptr) {
        report(MESSAGE_OWNER, DATA_POINTER_NULL, 2);
        return;
    }
    if (length == 0 || length > 8) {
        report(MESSAGE_OWNER, DATA_LENGTH_INVALID, 2);
        return;
    }
    std::memcpy(this->data, data, length);
    dataLength = length;
    if (channel >= NUMBER_CAN_CHANNELS) {
        report(MESSAGE_OWNER, CHANNEL_INVALID, 2);
        return;
    }
    if (!extended) {
        if (identifierBits >= 2048) {
            report(MESSAGE_OWNER, STANDARD_OUT_OF_RANGE, 2);
            return;
        }
        valid = 1;
        return;
    }
    if (identifierBits > 0x1FFFFFFFu) {
        report(MESSAGE_OWNER, EXTENDED_OUT_OF_RANGE, 2);
        return;
    }
    const uint8_t sourceByte = static_cast<uint8_t>(identifierBits);
    if (sourceByte == GLOBAL_ADDRESS ||
        (sourceByte == NULL_ADDRESS && !isNullSourceAllowed(identifierBits, this->data))) {
        report(MESSAGE_OWNER, SOURCE_ADDRESS_INVALID, 1);
        return;
    }
    const bool pdu1 = identifier.isPDU1();
    const uint8_t destinationByte = identifier.getPDUSpecific();
    if (pdu1 && destinationByte == NULL_ADDRESS) {
        report(MESSAGE_OWNER, DESTINATION_ADDRESS_INVALID, 1);
        return;
    }
    source = tableEntry(channel, sourceByte);
    if (pdu1) {
        destination = tableEntry(channel, destinationByte);
    }
    valid = 1;
}

bool CANReceiveMessageClass::getDataPointer(const uint8_t*& pointer) const {
    pointer = data;
    return true;
}

bool CANReceiveMessageClass::getData(uint8_t* buffer, uint32_t capacity) const {
    return dataLength <= capacity && copyFrameData(data, dataLength, buffer, 0, dataLength);
}

bool CANReceiveMessageClass::getData(uint8_t* buffer, uint32_t offset, uint32_t count) const {
    return copyFrameData(data, dataLength, buffer, offset, count);
}

void CANReceiveMessageClass::updateControlFunctions() {
    source = nullptr;
    destination = nullptr;
    // No test of the identifier type: a standard frame takes its low byte as a source too.
    source = tableEntry(channel, identifier.getSourceAddressByte());
    if (identifier.isPDU1()) {
        destination = tableEntry(channel, identifier.getPDUSpecific());
    }
}

// ---------------------------------------------------------------- CANTransmitMessageClass

void CANTransmitMessageClass::fail(uint32_t code, const char* text, uint8_t severity) {
    status = code;
    report(MESSAGE_OWNER, text, severity);
}

CANTransmitMessageClass::CANTransmitMessageClass() : CANMessageClass(0) {}

CANTransmitMessageClass::CANTransmitMessageClass(uint32_t parameterGroupNumber, const uint8_t* data,
                                                 uint8_t length, uint8_t priority,
                                                 ControlFunctionClass* source,
                                                 ControlFunctionClass* destination,
                                                 uint8_t destinationAddress,
                                                 CANCallbackFunction callback, bool immediate)
    : CANMessageClass(channelOf(source, destination)),
      completionCallback(callback),
      immediate(immediate ? 1 : 0) {
    this->source = source;
    this->destination = destination;
    if (source == nullptr) {
        fail(TRANSMIT_STATUS_SOURCE_NULL, INTERNAL_NULL, 2);
        return;
    }
    if (source == destination) {
        fail(TRANSMIT_STATUS_CONTROL_FUNCTIONS_EQUAL, CONTROL_FUNCTIONS_EQUAL, 2);
        return;
    }
    if (data == nullptr) {
        fail(TRANSMIT_STATUS_DATA_POINTER_NULL, DATA_POINTER_NULL, 2);
        return;
    }
    if (length == 0 || length > 8) {
        fail(TRANSMIT_STATUS_DATA_LENGTH_INVALID, DATA_LENGTH_INVALID, 2);
        return;
    }
    if (priority > 7) {
        fail(TRANSMIT_STATUS_PRIORITY_INVALID, PRIORITY_INVALID, 2);
        return;
    }
    if (parameterGroupNumber >= 262144u) {
        fail(TRANSMIT_STATUS_PGN_OUT_OF_RANGE, PGN_OUT_OF_RANGE, 2);
        return;
    }
    std::memcpy(this->data, data, length);
    dataLength = length;
    if (channel >= NUMBER_CAN_CHANNELS) {
        fail(TRANSMIT_STATUS_CHANNEL_INVALID, CHANNEL_INVALID, 2);
        return;
    }
    if (!source->isAddressValid()) {
        fail(TRANSMIT_STATUS_SOURCE_ADDRESS_INVALID, SOURCE_ADDRESS_INVALID, 0);
        return;
    }
    const uint32_t base =
        CANIdentifierClass::TYPE_BIT | (uint32_t{priority} << 26) | (parameterGroupNumber << 8);
    if ((parameterGroupNumber & 0xF000u) == 0xF000u) {
        identifier.setWord(base);
    } else if ((parameterGroupNumber & 0xFFu) != 0) {
        fail(TRANSMIT_STATUS_DESTINATION_SPECIFIC_INVALID, DESTINATION_SPECIFIC_INVALID, 2);
        return;
    } else if (destination != nullptr && destination->isAddressValid()) {
        identifier.setWord(base);
    } else if (destination == nullptr && destinationAddress != NULL_ADDRESS) {
        identifier.setWord(base | (uint32_t{destinationAddress} << 8));
    } else {
        fail(TRANSMIT_STATUS_DESTINATION_INVALID, DESTINATION_ADDRESS_INVALID, 0);
        return;
    }
    status = TRANSMIT_STATUS_OK;
}

CANTransmitMessageClass::CANTransmitMessageClass(uint8_t identifierType, uint32_t identifierBits,
                                                 const uint8_t* data, uint8_t length,
                                                 uint8_t priority, uint8_t channel,
                                                 CANCallbackFunction callback, bool immediate)
    : CANMessageClass(channel), completionCallback(callback), immediate(immediate ? 1 : 0) {
    if (data == nullptr) {
        fail(TRANSMIT_STATUS_DATA_POINTER_NULL, DATA_POINTER_NULL, 2);
        return;
    }
    if (identifierType > 1) {
        fail(TRANSMIT_STATUS_IDENTIFIER_TYPE_INVALID, IDENTIFIER_TYPE_INVALID, 2);
        return;
    }
    if (length == 0 || length > 8) {
        fail(TRANSMIT_STATUS_DATA_LENGTH_INVALID, DATA_LENGTH_INVALID, 2);
        return;
    }
    std::memcpy(this->data, data, length);
    dataLength = length;
    if (channel >= NUMBER_CAN_CHANNELS) {
        fail(TRANSMIT_STATUS_CHANNEL_INVALID, CHANNEL_INVALID, 2);
        return;
    }
    if (identifierType == 0) {
        if (identifierBits >= 2048) {
            fail(TRANSMIT_STATUS_STANDARD_OUT_OF_RANGE, STANDARD_OUT_OF_RANGE, 2);
            return;
        }
        identifier.setWord(identifierBits);
        status = TRANSMIT_STATUS_OK;
        return;
    }
    if (priority > 7) {
        fail(TRANSMIT_STATUS_PRIORITY_INVALID, PRIORITY_INVALID, 2);
        return;
    }
    if (identifierBits > 0x3FFFFFFu) {
        fail(TRANSMIT_STATUS_PGN_OUT_OF_RANGE, PGN_OUT_OF_RANGE, 2);
        return;
    }
    if (((identifierBits >> 16) & 0xFFu) < 0xF0u &&
        ((identifierBits >> 8) & 0xFFu) == NULL_ADDRESS) {
        fail(TRANSMIT_STATUS_DESTINATION_SPECIFIC_INVALID, DESTINATION_SPECIFIC_INVALID, 2);
        return;
    }
    identifier.setWord(CANIdentifierClass::TYPE_BIT | (uint32_t{priority} << 26) | identifierBits);
    status = TRANSMIT_STATUS_OK;
}

CANTransmitMessageClass::CANTransmitMessageClass(const CANMessageClass& other)
    : CANMessageClass(other), status(TRANSMIT_STATUS_OK) {
    const uint32_t length = other.getDataLength();
    if (length <= 8 && other.getData(data, 8)) {
        dataLength = static_cast<uint8_t>(length);
    } else {
        status = TRANSMIT_STATUS_DATA_LENGTH_INVALID;
    }
}

bool CANTransmitMessageClass::getDataPointer(const uint8_t*& pointer) const {
    pointer = data;
    return true;
}

bool CANTransmitMessageClass::getData(uint8_t* buffer, uint32_t capacity) const {
    return dataLength <= capacity && copyFrameData(data, dataLength, buffer, 0, dataLength);
}

bool CANTransmitMessageClass::getData(uint8_t* buffer, uint32_t offset, uint32_t count) const {
    return copyFrameData(data, dataLength, buffer, offset, count);
}

bool CANTransmitMessageClass::prepareIdentifierForTransmit() {
    if (!isValid()) {
        return false;
    }
    if (!identifier.isExtended()) {
        return true;
    }
    const uint8_t s = getSourceAddress();
    const uint8_t d = getDestinationAddress();
    const uint32_t word = identifier.getWord();
    if (s > 253 && (s != NULL_ADDRESS || !isNullSourceAllowed(word, data))) {
        return false;
    }
    if (d == NULL_ADDRESS) {
        return false;
    }
    if (!identifier.isPDU1()) {
        identifier.setWord((word & ~0xFFu) | s);
    } else {
        identifier.setWord((word & ~0xFFFFu) | (uint32_t{d} << 8) | s);
    }
    return true;
}

// ---------------------------------------------------------------- CANLongMessageClass

CANLongMessageClass::CANLongMessageClass(uint32_t parameterGroupNumber, uint32_t poolHandle,
                                         uint8_t* dataPointer, uint32_t length,
                                         ControlFunctionClass* source,
                                         ControlFunctionClass* destination, const char* originator)
    : CANMessageClass(channelOf(source, destination)),
      dataPointer(dataPointer),
      originator(originator),
      dataLength(length),
      poolHandle(poolHandle) {
    this->source = source;
    this->destination = destination;
    if (source == nullptr) {
        report(MESSAGE_OWNER, SOURCE_NULL, 2);
        return;
    }
    if (parameterGroupNumber >= 262144u) {
        report(MESSAGE_OWNER, PGN_OUT_OF_RANGE, 2);
        return;
    }
    if (channel >= NUMBER_CAN_CHANNELS) {
        report(MESSAGE_OWNER, CHANNEL_INVALID, 2);
        return;
    }
    const bool pdu1 = (parameterGroupNumber & 0xF000u) != 0xF000u;
    if (pdu1 && (parameterGroupNumber & 0xFFu) != 0) {
        report(MESSAGE_OWNER, DESTINATION_SPECIFIC_INVALID, 2);
        return;
    }
    uint32_t word = CANIdentifierClass::TYPE_BIT | 0x18000000u | (parameterGroupNumber << 8) |
                    source->getAddress();
    if (pdu1) {
        word |= uint32_t{destination != nullptr ? destination->getAddress() : GLOBAL_ADDRESS} << 8;
    }
    identifier.setWord(word);
    valid = 1;
}

bool CANLongMessageClass::getDataPointer(const uint8_t*& pointer) const {
    if (poolHandle != NetworkManagementMemoryPoolClass::INVALID_HANDLE) {
        uint8_t* contiguous = nullptr;
        NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL.getContiguousPointer(
            poolHandle, contiguous);
        pointer = contiguous;
    } else {
        pointer = dataPointer;
    }
    return pointer != nullptr;
}

bool CANLongMessageClass::getData(uint8_t* buffer, uint32_t capacity) const {
    if (buffer == nullptr || dataLength > capacity) {
        return false;
    }
    return NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL.readData(
        poolHandle, dataPointer, 0, buffer, dataLength);
}

bool CANLongMessageClass::getData(uint8_t* buffer, uint32_t offset, uint32_t count) const {
    if (!readFits(buffer, dataLength, offset, count)) {
        return false;
    }
    return NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL.readData(
        poolHandle, dataPointer, offset, buffer, count);
}

// ---------------------------------------------------------------- callbacks

bool CANFragmentCallbackClass::setFragmentData(const uint8_t* data, uint32_t length) {
    if (fragmentSet != 0) {
        return false;
    }
    dataPointer = data;
    fragmentLength = length;
    fragmentSet = 1;
    if (store == nullptr) {
        return true;
    }
    storeResult = store(this, context) ? 1 : 0;
    return storeResult != 0;
}
