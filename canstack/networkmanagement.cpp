#include "canstack/networkmanagement.h"

#include <cstring>
#include <new>

#include "canstack/controlfunction.h"
#include "canstack/filteredmessagecallback.h"
#include "canstack/internalcontrolfunction.h"
#include "canstack/networkmanagementstatistics.h"
#include "canstack/networkmanagementutilities.h"

const char* const NetworkManagementClass::MESSAGE_OWNER = "Network Management";
NetworkManagementClass NetworkManagementClass::NETWORK_MANAGEMENT;

bool NetworkManagementClass::networkManagementIsInitialized = false;
uint32_t NetworkManagementClass::updateTimestamp = 0xFFFFFFFFu;
TransmitCANMessageFunction NetworkManagementClass::TransmitCANMessage = nullptr;
TransmitFunction* NetworkManagementClass::transmitFunctions = nullptr;
uint16_t NetworkManagementClass::numberTransmitFunctions = 0;
GLOBAL_RECEIVE_CALLBACK_STRUCT**
    NetworkManagementClass::globalReceiveCallbacks[NUMBER_CAN_CHANNELS] = {};
uint16_t NetworkManagementClass::numberGlobalReceiveCallbacks[NUMBER_CAN_CHANNELS] = {};
NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* NetworkManagementClass::newControlFunctionCallbacks = nullptr;
LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT*
    NetworkManagementClass::loadParameterGroupNumberDataCallbacks = nullptr;
ControlFunctionClass* NetworkManagementClass::controlFunctionTable[NUMBER_CAN_CHANNELS]
                                                                  [NUMBER_ADDRESSES] = {};

namespace {
using Utilities = NetworkManagementUtilitiesClass;
using Statistics = NetworkManagementStatisticsClass;

void report(const char* text, uint8_t severity) {
    Statistics::addDescriptionMessage(NetworkManagementClass::MESSAGE_OWNER, text, severity);
}

bool isInternal(const ControlFunctionClass* cf) {
    return cf != nullptr && cf->getType() == 0;
}
}  // namespace

// ---------------------------------------------------------------- update

void NetworkManagementClass::update() {
    Statistics& statistics = Statistics::NETWORK_MANAGEMENT_STATISTICS;
    const uint32_t start = Utilities::Timestamp_ms();
    if (updateTimestamp != 0xFFFFFFFFu) {
        const uint32_t service = start - updateTimestamp;
        statistics.recordUpdateServiceTime(service);
        if (service > statistics.getUpdateServiceLimit()) {
            report("Update Service Time Longer than Acceptable", 2);
        }
    }
    updateTimestamp = start;
    Statistics::updateDescriptionMessages();

    // Start the protocols constructed since the last update.
    CAN_PROTOCOL_STRUCT* moved = CANProtocolClass::uninitializedCANProtocolList;
    if (moved != nullptr) {
        CANProtocolClass::uninitializedCANProtocolList = nullptr;
        CAN_PROTOCOL_STRUCT** tail = &CANProtocolClass::initializedCANProtocolList;
        while (*tail != nullptr) {
            tail = &(*tail)->next;
        }
        *tail = moved;
        for (CAN_PROTOCOL_STRUCT* node = moved; node != nullptr; node = node->next) {
            node->protocol->initialize();
        }
    }
    CAN_INITIALIZE_STRUCT* initializers = CANInitializeClass::uninitializedCANInitializeList;
    CANInitializeClass::uninitializedCANInitializeList = nullptr;
    while (initializers != nullptr) {
        CAN_INITIALIZE_STRUCT* next = initializers->next;
        initializers->function();
        delete initializers;
        initializers = next;
    }
    networkManagementIsInitialized = true;

    updateInternalControlFunctions();

    for (CAN_PROTOCOL_STRUCT* node = CANProtocolClass::initializedCANProtocolList; node != nullptr;
         node = node->next) {
        const uint32_t protocolStart = Utilities::Timestamp_ms();
        node->protocol->update();
        if (Utilities::timeElapsed(protocolStart) > statistics.getProtocolUpdateLimit()) {
            Statistics::addDescriptionMessage(
                node->protocol->getMessageOwner(),
                "CAN Protocol Update Execution Time Longer than Acceptable", 2);
        }
    }

    if (Utilities::timeElapsed(statistics.getStatisticsTimestamp(), 1000)) {
        statistics.updateRates(Utilities::Timestamp_ms());
    }

    const uint32_t execution = Utilities::Timestamp_ms() - start;
    statistics.recordUpdateExecutionTime(execution);
    if (execution > statistics.getUpdateExecutionLimit()) {
        report("Update Execution Time Longer than Acceptable", 2);
    }
}

void NetworkManagementClass::updateInternalControlFunctions() {
    for (uint16_t i = 0; i < InternalControlFunctionClass::numberInternalControlFunctions; ++i) {
        InternalControlFunctionClass::internalControlFunctionList[i]->updateAddressClaim();
    }
}

// ---------------------------------------------------------------- receive

void NetworkManagementClass::receiveMessage(CANMessageClass* message) {
    if (message == nullptr || !networkManagementIsInitialized) {
        return;
    }
    Statistics& statistics = Statistics::NETWORK_MANAGEMENT_STATISTICS;
    const uint32_t t0 = Utilities::Timestamp_ms();
    message->updateControlFunctions();
    const uint8_t channel = message->getChannel();
    if (channel < NUMBER_CAN_CHANNELS) {
        const uint32_t type = message->getMessageType();
        if (type == 1 || type == 2) {
            const uint8_t* data = nullptr;
            message->getDataPointer(data);
            statistics.countReceived(channel, message->getIdentifier().getWord(), data,
                                     message->getDataLength(),
                                     message->getIdentifier().isExtended(), t0);
        }
        ControlFunctionClass* destination = message->getDestinationControlFunction();
        const bool global = message->getDestinationAddress() == GLOBAL_ADDRESS;
        if (message->isValid() && (global || isInternal(destination))) {
            const bool newDevice = processNetworkManagementMessage(message, true);
            destination = message->getDestinationControlFunction();
            if (global) {
                for (uint16_t i = 0;
                     i < InternalControlFunctionClass::numberInternalControlFunctions; ++i) {
                    InternalControlFunctionClass* cf =
                        InternalControlFunctionClass::internalControlFunctionList[i];
                    if (cf->getChannel() == channel) {
                        cf->setLastReceiveTimestamp(t0);
                    }
                }
            } else if (isInternal(destination)) {
                static_cast<InternalControlFunctionClass*>(destination)
                    ->setLastReceiveTimestamp(t0);
            }
            ControlFunctionClass* source = message->getSourceControlFunction();
            if (source != nullptr) {
                if (newDevice) {
                    callNewControlFunctionCallbacks(source);
                }
                if (source->getType() == 1) {
                    RegisteredControlFunctionClass* registered =
                        static_cast<RegisteredControlFunctionClass*>(source);
                    registered->setLastReceiveTimestamp(t0);
                    registered->dispatchMessage(message);
                }
                const uint32_t pgn = message->getParameterGroupNumber();
                for (uint16_t i = 0; i < numberGlobalReceiveCallbacks[channel]; ++i) {
                    const GLOBAL_RECEIVE_CALLBACK_STRUCT* node = globalReceiveCallbacks[channel][i];
                    if (node->parameterGroupNumber != pgn &&
                        node->parameterGroupNumber != PGN_ANY) {
                        continue;
                    }
                    CANMessageCallbackFunction function = node->function;
                    ReceiveCANMessageCallbackClass* object = node->object;
                    if (function != nullptr) {
                        function(message, object);
                    } else if (object != nullptr) {
                        object->receiveCANMessage(message);
                    }
                }
            }
        }
        // Someone else sent from an address this stack holds.
        ControlFunctionClass* source = message->getSourceControlFunction();
        if (message->getMessageType() == 1 && isInternal(source)) {
            InternalControlFunctionClass* cf = static_cast<InternalControlFunctionClass*>(source);
            cf->addressConflictSeen = 1;
            cf->claimRequested = 1;
            if (message->getParameterGroupNumber() == PGN_ADDRESS_CLAIMED) {
                cf->claimConflictSeen = 1;
            }
        }
    }
    runFilteredCallbacks(message);
    const uint32_t execution = Utilities::Timestamp_ms() - t0;
    statistics.recordReceiveExecutionTime(execution, message->getIdentifier().getWord());
    if (execution > statistics.getReceiveLimit()) {
        report("Receive CAN Message Execution Time Longer than Acceptable", 2);
    }
}

void NetworkManagementClass::callNewControlFunctionCallbacks(ControlFunctionClass* function) {
    for (NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* node = newControlFunctionCallbacks;
         node != nullptr;) {
        NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* next = node->next;
        node->function(function, node->parameter);
        // A callback may remove nodes; go on only while the next one is still listed.
        bool listed = false;
        for (NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* n = newControlFunctionCallbacks; n != nullptr;
             n = n->next) {
            if (n == next) {
                listed = true;
                break;
            }
        }
        node = listed ? next : nullptr;
    }
}

void NetworkManagementClass::runFilteredCallbacks(CANMessageClass* message) {
    // By index over the live array: a filter destroyed in its callback lets the next one slip.
    for (uint16_t i = 0; i < FilteredMessageCallbackClass::numberFilteredMessageCallbacks; ++i) {
        FilteredMessageCallbackClass* filter =
            FilteredMessageCallbackClass::filteredMessageCallbackList[i];
        if (!filter->quickReject(*message) && filter->filterMatches(message)) {
            filter->invokeCallbacks(message);
        }
    }
}

void NetworkManagementClass::transmitComplete(CANTransmitMessageClass* message, bool success) {
    if (message == nullptr || !networkManagementIsInitialized) {
        return;
    }
    const uint8_t channel = message->getChannel();
    if (channel < NUMBER_CAN_CHANNELS) {
        Statistics& statistics = Statistics::NETWORK_MANAGEMENT_STATISTICS;
        const uint32_t now = Utilities::Timestamp_ms();
        if (success) {
            statistics.countTransmitted(channel, message->getDataLength(),
                                        message->getIdentifier().isExtended(), now);
            processNetworkManagementMessage(message, false);
            ControlFunctionClass* source = message->getSourceControlFunction();
            if (isInternal(source)) {
                static_cast<InternalControlFunctionClass*>(source)->setLastTransmitTimestamp(now);
            }
        } else {
            statistics.countTransmitFailure(channel, now);
        }
        CANCallbackFunction callback = message->getCompletionCallback();
        if (callback != nullptr) {
            CANTransmitCallbackClass argument(message, message->getHandle(), success);
            callback(&argument);
        }
    }
    runFilteredCallbacks(message);
}

// ---------------------------------------------------------------- network management PGNs

bool NetworkManagementClass::processNetworkManagementMessage(CANMessageClass* message,
                                                             bool received) {
    if (message == nullptr) {
        return false;
    }
    const uint32_t pgn = message->getParameterGroupNumber();
    const uint8_t channel = message->getChannel();
    if (pgn == PGN_REQUEST) {
        uint8_t requested[3];
        const uint32_t length = message->getDataLength();
        if (length < 3 || length > 8 || !message->getData(requested, 0, 3)) {
            report("Invalid Data Length in PGN Request", 1);
            return false;
        }
        if ((requested[0] | (requested[1] << 8) | (requested[2] << 16)) != PGN_ADDRESS_CLAIMED) {
            return false;
        }
        ControlFunctionClass* destination = message->getDestinationControlFunction();
        if (destination != nullptr) {
            if (isInternal(destination)) {
                static_cast<InternalControlFunctionClass*>(destination)->claimRequested = 1;
            }
        } else if (message->getDestinationAddress() == GLOBAL_ADDRESS) {
            for (uint16_t i = 0; i < InternalControlFunctionClass::numberInternalControlFunctions;
                 ++i) {
                InternalControlFunctionClass* cf =
                    InternalControlFunctionClass::internalControlFunctionList[i];
                if (cf->getChannel() == channel) {
                    cf->claimRequested = 1;
                }
            }
        }
        return false;
    }
    if (pgn == PGN_COMMANDED_ADDRESS) {
        if (message->getDestinationAddress() != GLOBAL_ADDRESS) {
            report("Invalid Destination Address in Commanded Address", 1);
            return false;
        }
        uint8_t data[9];
        if (message->getDataLength() != 9 || !message->getData(data, 0, 9)) {
            report("Invalid Data Length in Commanded Address", 1);
            return false;
        }
        ControlFunctionClass* commander = message->getSourceControlFunction();
        if (commander == nullptr) {
            return false;
        }
        const NAMEClass name = NAMEClass::fromBytes(data);
        for (uint16_t i = 0; i < InternalControlFunctionClass::numberInternalControlFunctions;
             ++i) {
            InternalControlFunctionClass* cf =
                InternalControlFunctionClass::internalControlFunctionList[i];
            if (cf->getNAME() == name && cf->getChannel() == channel) {
                if (cf->acceptCommandedAddress(commander)) {
                    cf->requestChangeAddress(data[8]);
                }
                break;
            }
        }
        return false;
    }
    if (pgn == PGN_ADDRESS_CLAIMED) {
        return processAddressClaim(message, received);
    }
    return false;
}

bool NetworkManagementClass::processAddressClaim(CANMessageClass* message, bool received) {
    const uint8_t s = message->getSourceAddress();
    const uint8_t channel = message->getChannel();
    uint8_t data[8];
    if (s > 253 || message->getDestinationAddress() != GLOBAL_ADDRESS) {
        report(s == NULL_ADDRESS ? "Received Cannot Claim Address Message"
                                 : "Invalid Address Claim Message not Destined to Global Address",
               2);
        message->updateControlFunctions();
        return false;
    }
    if (message->getDataLength() != 8 || !message->getData(data, 0, 8) ||
        channel >= NUMBER_CAN_CHANNELS) {
        report("Invalid Data Length in Address Claim Message", 2);
        message->updateControlFunctions();
        return false;
    }
    const NAMEClass name = NAMEClass::fromBytes(data);
    ControlFunctionClass*& column = controlFunctionTable[channel][s];
    if (column != nullptr) {
        if (column->getNAME() == name) {
            message->updateControlFunctions();
            return false;
        }
        ControlFunctionClass* loser = column;
        loser->address = NULL_ADDRESS;
        addLostDevice(loser);
        column = nullptr;
    }
    ControlFunctionClass* found = nullptr;
    if (findControlFunctionByNAME(name, channel, found)) {
        if (found->address <= 253) {
            found->leaveTable();
        } else {
            removeLostDevice(found);
        }
        found->address = s;
        column = found;
        message->updateControlFunctions();
        return false;
    }

    Statistics::NETWORK_MANAGEMENT_STATISTICS.countNewNAME(channel);
    RegisteredControlFunctionClass* match = nullptr;
    bool unboundFound = false;
    for (uint16_t i = 0; i < RegisteredControlFunctionClass::numberRegisteredControlFunctions;
         ++i) {
        RegisteredControlFunctionClass* cf =
            RegisteredControlFunctionClass::registeredControlFunctionList[i];
        if (cf->getChannel() != channel || cf->numberNAMEFields == 0 ||
            !NAMEClass::matchesNAMEFields(cf->NAMEFieldList, cf->numberNAMEFields, name)) {
            continue;
        }
        match = cf;
        if (cf->getNAME().isUnknown()) {
            unboundFound = true;
            break;
        }
    }
    ControlFunctionClass* outcome = nullptr;
    if (unboundFound) {
        match->leaveTable();
        removeLostDevice(match);
        match->changeNAME(name);
        match->address = s;
        outcome = match;
    } else if (received) {
        if (match != nullptr) {
            UnregisteredControlFunctionClass* other =
                UnregisteredControlFunctionClass::create(name, s, channel);
            if (other != nullptr) {
                RegisteredControlFunctionClass::addInvalidRegisteredControlFunction(match, other);
            }
            outcome = other;
        } else {
            DynamicRegisteredControlFunctionClass* record = nullptr;
            for (uint16_t i = 0;
                 i < DynamicRegisteredControlFunctionClass::numberDynamicRegisteredControlFunctions;
                 ++i) {
                DynamicRegisteredControlFunctionClass* r =
                    DynamicRegisteredControlFunctionClass::dynamicRegisteredControlFunctionList[i];
                if (r->matches(channel, name)) {
                    record = r;
                    break;
                }
            }
            if (record != nullptr) {
                outcome = record->create(name, s);
            } else {
                outcome = UnregisteredControlFunctionClass::create(name, s, channel);
            }
        }
    }
    column = outcome;
    message->updateControlFunctions();
    return true;
}

// ---------------------------------------------------------------- send

uint32_t NetworkManagementClass::transmit(CANTransmitMessageClass& message, uint32_t* handleOut,
                                          InternalControlFunctionClass* source) {
    if (message.getStatus() != TRANSMIT_STATUS_OK) {
        return message.getStatus();
    }
    if (handleOut != nullptr) {
        *handleOut = message.getHandle();
    }
    if (TransmitCANMessage == nullptr || !TransmitCANMessage(&message)) {
        return SEND_TRANSMIT_REFUSED;
    }
    if (source != nullptr) {
        source->setLastTransmitTimestamp(Utilities::Timestamp_ms());
    }
    return SEND_SUCCESS;
}

bool NetworkManagementClass::setFragmentCallback(CANFragmentCallbackClass* fragment,
                                                 void* context) {
    if (fragment == nullptr) {
        return false;
    }
    const uint32_t length = fragment->getFragmentLength();
    if (length == 0) {
        return true;
    }
    const uint8_t* data = fragment->getFragmentData();
    const uint32_t offset = fragment->getOffset();
    if (data == nullptr || context == nullptr || offset > fragment->getTotalLength() ||
        length > fragment->getTotalLength() - offset) {
        return false;
    }
    std::memcpy(static_cast<uint8_t*>(context) + offset, data, length);
    return true;
}

uint32_t NetworkManagementClass::sendMessage(uint8_t identifierType, uint32_t identifierOrPGN,
                                             const uint8_t* data, uint32_t length, uint8_t channel,
                                             InternalControlFunctionClass* source,
                                             ControlFunctionClass* destination,
                                             uint8_t destinationAddress, uint8_t priority,
                                             bool persistent, uint32_t* handleOut,
                                             CANCallbackFunction callback, bool immediate) {
    if (handleOut != nullptr) {
        *handleOut = 0xFFFFFFFFu;
    }
    if (!networkManagementIsInitialized) {
        return SEND_NOT_INITIALIZED;
    }
    if (identifierType == 0) {
        if (length > 8) {
            return TRANSMIT_STATUS_DATA_LENGTH_INVALID;
        }
        CANTransmitMessageClass message(0, identifierOrPGN, data, static_cast<uint8_t>(length),
                                        priority, channel, callback, immediate);
        return transmit(message, handleOut, nullptr);
    }
    if (identifierType != 1) {
        report("Identifier Type Invalid", 2);
        return SEND_IDENTIFIER_TYPE_INVALID;
    }
    if (length > 8) {
        if (numberTransmitFunctions == 0) {
            return SEND_SUCCESS;  // callers see success; nothing goes out
        }
        for (uint16_t i = 0; i < numberTransmitFunctions; ++i) {
            const uint32_t result =
                transmitFunctions[i](identifierOrPGN, data, length, source, destination, persistent,
                                     handleOut, callback);
            if (result != SEND_NOT_TAKEN) {
                return result;
            }
        }
        return SEND_NOT_TAKEN;
    }
    uint8_t collected[8] = {};
    if (data == nullptr && !persistent && callback != nullptr && length > 0) {
        const uint32_t handle =
            handleOut != nullptr ? ++CANMessageClass::uniqueMessageHandle : 0xFFFFFFFFu;
        uint32_t offset = 0;
        uint32_t sequence = 0;
        uint32_t emptyAnswers = 0;
        while (offset < length) {
            CANFragmentCallbackClass fragment(&NetworkManagementClass::setFragmentCallback,
                                              collected, offset, length, sequence++, handle, true);
            callback(&fragment);
            if (!fragment.isFragmentSet()) {
                return SEND_FRAGMENT_CALLBACK_FAILED;
            }
            const uint32_t piece = fragment.getFragmentLength();
            if (fragment.getFragmentData() == nullptr && piece != 0) {
                return SEND_FRAGMENT_CALLBACK_FAILED;
            }
            if (piece > length - offset) {
                return TRANSMIT_STATUS_DATA_LENGTH_INVALID;
            }
            if (piece == 0) {
                if (++emptyAnswers == 0xFFFFFFFFu) {
                    return SEND_FRAGMENT_CALLBACK_FAILED;
                }
                continue;
            }
            emptyAnswers = 0;
            offset += piece;
        }
        data = collected;
    }
    CANTransmitMessageClass message(identifierOrPGN, data, static_cast<uint8_t>(length), priority,
                                    source, destination, destinationAddress, callback, immediate);
    return transmit(message, handleOut, source);
}

uint32_t NetworkManagementClass::sendParameterGroupNumber(
    uint32_t parameterGroupNumber, const uint8_t* data, uint32_t length,
    InternalControlFunctionClass* source, ControlFunctionClass* destination, uint8_t priority,
    bool persistent, uint32_t* handleOut, CANCallbackFunction callback, bool immediate) {
    if (source == nullptr) {
        report("Internal Control Function NULL", 2);
        return TRANSMIT_STATUS_SOURCE_NULL;
    }
    return sendMessage(1, parameterGroupNumber, data, length, source->getChannel(), source,
                       destination, GLOBAL_ADDRESS, priority, persistent, handleOut, callback,
                       immediate);
}

uint32_t NetworkManagementClass::sendParameterGroupNumber(
    uint32_t parameterGroupNumber, const uint8_t* data, uint32_t length,
    InternalControlFunctionClass* source, uint8_t destinationAddress, uint8_t priority,
    bool persistent, uint32_t* handleOut, CANCallbackFunction callback, bool immediate) {
    if (source == nullptr) {
        report("Internal Control Function NULL", 2);
        return TRANSMIT_STATUS_SOURCE_NULL;
    }
    return sendMessage(1, parameterGroupNumber, data, length, source->getChannel(), source, nullptr,
                       destinationAddress, priority, persistent, handleOut, callback, immediate);
}

uint32_t NetworkManagementClass::sendStandardMessage(uint32_t identifier, const uint8_t* data,
                                                     uint32_t length, uint8_t channel,
                                                     bool immediate, uint32_t* handleOut,
                                                     CANCallbackFunction callback) {
    return sendMessage(0, identifier, data, length, channel, nullptr, nullptr, GLOBAL_ADDRESS, 6,
                       false, handleOut, callback, immediate);
}

uint32_t NetworkManagementClass::loadParameterGroupNumberData(uint32_t parameterGroupNumber,
                                                              InternalControlFunctionClass* source,
                                                              ControlFunctionClass* destination,
                                                              uint8_t selector0, uint8_t selector1,
                                                              LoadParameterGroupNumberData& out) {
    for (int pass = 0; pass < 3; ++pass) {
        for (LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT* node = loadParameterGroupNumberDataCallbacks;
             node != nullptr; node = node->next) {
            ControlFunctionClass* cf = node->controlFunction;
            const bool concerned = cf == source || cf == destination;
            bool take = false;
            if (pass == 0) {
                take = node->parameterGroupNumber == parameterGroupNumber &&
                       (cf == nullptr || concerned);
            } else if (pass == 1) {
                take = node->parameterGroupNumber == PGN_ANY && cf != nullptr && concerned;
            } else {
                take = node->parameterGroupNumber == PGN_ANY && cf == nullptr;
            }
            if (!take) {
                continue;
            }
            const uint32_t result = node->function(parameterGroupNumber, source, destination,
                                                   selector0, selector1, &out);
            if (result != 0) {
                return result;
            }
        }
    }
    return 0;
}

uint32_t NetworkManagementClass::sendParameterGroupNumberFromCallback(
    uint32_t parameterGroupNumber, InternalControlFunctionClass* source,
    ControlFunctionClass* destination, uint8_t selector0, uint8_t selector1) {
    LoadParameterGroupNumberData out;
    if (loadParameterGroupNumberData(parameterGroupNumber, source, destination, selector0,
                                     selector1, out) != 1) {
        report("PGN Not Valid Send Parameter Group Number", 2);
        return SEND_DATA_NOT_PRODUCED;
    }
    return sendParameterGroupNumber(parameterGroupNumber, out.data, out.length, source, destination,
                                    out.priority, out.persistent, out.handleOut, out.callback,
                                    false);
}

// ---------------------------------------------------------------- registries

LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT*
NetworkManagementClass::addLoadParameterGroupNumberDataCallback(
    LoadParameterGroupNumberDataFunction function, uint32_t parameterGroupNumber,
    ControlFunctionClass* controlFunction) {
    LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT** tail = &loadParameterGroupNumberDataCallbacks;
    bool duplicate = false;
    for (; *tail != nullptr; tail = &(*tail)->next) {
        if ((*tail)->function == function && (*tail)->controlFunction == controlFunction &&
            (*tail)->parameterGroupNumber == parameterGroupNumber) {
            duplicate = true;
        }
    }
    LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT* node =
        (function == nullptr || duplicate)
            ? nullptr
            : new (std::nothrow) LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT{
                  nullptr, function, controlFunction, parameterGroupNumber};
    if (node == nullptr) {
        report("Failed Adding Load PGN Data Callback to List", 2);
        return nullptr;
    }
    *tail = node;
    return node;
}

bool NetworkManagementClass::removeLoadParameterGroupNumberDataCallback(
    LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT* node) {
    for (LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT** link = &loadParameterGroupNumberDataCallbacks;
         *link != nullptr; link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            delete node;
            return true;
        }
    }
    return false;
}

bool NetworkManagementClass::addTransmitFunction(TransmitFunction function) {
    if (function == nullptr || numberTransmitFunctions == 0xFFFF) {
        report("Failed Adding Transmit Function to List", 2);
        return false;
    }
    for (uint16_t i = 0; i < numberTransmitFunctions; ++i) {
        if (transmitFunctions[i] == function) {
            return false;
        }
    }
    if (!Utilities::addObjectToArray(function, transmitFunctions, numberTransmitFunctions)) {
        report("Failed Adding Transmit Function to List", 2);
        return false;
    }
    return true;
}

bool NetworkManagementClass::removeTransmitFunction(TransmitFunction function) {
    return Utilities::removeObjectFromArray(function, transmitFunctions, numberTransmitFunctions);
}

GLOBAL_RECEIVE_CALLBACK_STRUCT* NetworkManagementClass::addGlobalReceiveCallback(
    uint32_t parameterGroupNumber, CANMessageCallbackFunction function,
    ReceiveCANMessageCallbackClass* object, uint8_t channel) {
    bool refused = (function == nullptr && object == nullptr) || channel >= NUMBER_CAN_CHANNELS;
    if (!refused) {
        refused = numberGlobalReceiveCallbacks[channel] == 0xFFFF;
        for (uint16_t i = 0; !refused && i < numberGlobalReceiveCallbacks[channel]; ++i) {
            const GLOBAL_RECEIVE_CALLBACK_STRUCT* n = globalReceiveCallbacks[channel][i];
            refused = n->function == function && n->object == object &&
                      n->parameterGroupNumber == parameterGroupNumber;
        }
    }
    GLOBAL_RECEIVE_CALLBACK_STRUCT* node =
        refused ? nullptr
                : new (std::nothrow)
                      GLOBAL_RECEIVE_CALLBACK_STRUCT{function, object, parameterGroupNumber};
    if (node != nullptr && !Utilities::addObjectToArray(node, globalReceiveCallbacks[channel],
                                                        numberGlobalReceiveCallbacks[channel])) {
        delete node;
        node = nullptr;
    }
    if (node == nullptr) {
        report("Failed Adding Global PGN Callback to List", 2);
    }
    return node;
}

bool NetworkManagementClass::addGlobalReceiveCallback(uint32_t parameterGroupNumber,
                                                      CANMessageCallbackFunction function,
                                                      ReceiveCANMessageCallbackClass* object) {
    bool all = true;
    for (uint8_t channel = 0; channel < NUMBER_CAN_CHANNELS; ++channel) {
        all =
            addGlobalReceiveCallback(parameterGroupNumber, function, object, channel) != nullptr &&
            all;
    }
    return all;
}

bool NetworkManagementClass::addGlobalReceiveCallback(uint32_t parameterGroupNumber,
                                                      CANMessageCallbackFunction function) {
    return addGlobalReceiveCallback(parameterGroupNumber, function, nullptr);
}

bool NetworkManagementClass::addGlobalReceiveCallback(uint32_t parameterGroupNumber,
                                                      ReceiveCANMessageCallbackClass* object) {
    return addGlobalReceiveCallback(parameterGroupNumber, nullptr, object);
}

bool NetworkManagementClass::removeGlobalReceiveCallback(GLOBAL_RECEIVE_CALLBACK_STRUCT* node) {
    for (uint8_t channel = 0; channel < NUMBER_CAN_CHANNELS; ++channel) {
        if (Utilities::removeObjectFromArray(node, globalReceiveCallbacks[channel],
                                             numberGlobalReceiveCallbacks[channel])) {
            delete node;
            return true;
        }
    }
    return false;
}

void NetworkManagementClass::removeGlobalReceiveCallbacks(ReceiveCANMessageCallbackClass* object) {
    for (uint8_t channel = 0; channel < NUMBER_CAN_CHANNELS; ++channel) {
        for (uint16_t i = numberGlobalReceiveCallbacks[channel]; i > 0; --i) {
            GLOBAL_RECEIVE_CALLBACK_STRUCT* node = globalReceiveCallbacks[channel][i - 1u];
            if (node->object == object) {
                removeGlobalReceiveCallback(node);
            }
        }
    }
}

NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* NetworkManagementClass::addNewControlFunctionCallback(
    NewControlFunctionFunction function, void* parameter) {
    NEW_CONTROL_FUNCTION_CALLBACK_STRUCT** tail = &newControlFunctionCallbacks;
    bool duplicate = false;
    for (; *tail != nullptr; tail = &(*tail)->next) {
        if ((*tail)->function == function && (*tail)->parameter == parameter) {
            duplicate = true;
        }
    }
    NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* node =
        (function == nullptr || duplicate)
            ? nullptr
            : new (std::nothrow) NEW_CONTROL_FUNCTION_CALLBACK_STRUCT{nullptr, function, parameter};
    if (node == nullptr) {
        report("Failed AddNewControlFunctionCallback", 2);
        return nullptr;
    }
    *tail = node;
    return node;
}

bool NetworkManagementClass::removeNewControlFunctionCallback(
    NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* node) {
    for (NEW_CONTROL_FUNCTION_CALLBACK_STRUCT** link = &newControlFunctionCallbacks;
         *link != nullptr; link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            delete node;
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------- lookups

ControlFunctionClass* NetworkManagementClass::getControlFunction(uint8_t channel, uint8_t address) {
    if (channel >= NUMBER_CAN_CHANNELS || address > 253) {
        return nullptr;
    }
    return controlFunctionTable[channel][address];
}

bool NetworkManagementClass::findControlFunctionByNAME(NAMEClass name, uint8_t channel,
                                                       ControlFunctionClass*& function) {
    function = nullptr;
    if (channel >= NUMBER_CAN_CHANNELS) {
        return false;
    }
    for (uint16_t i = 0; i < InternalControlFunctionClass::numberInternalControlFunctions; ++i) {
        InternalControlFunctionClass* cf =
            InternalControlFunctionClass::internalControlFunctionList[i];
        if (cf->getChannel() == channel && cf->getNAME() == name) {
            function = cf;
            return true;
        }
    }
    for (ControlFunctionClass* cf : controlFunctionTable[channel]) {
        if (cf != nullptr && cf->getNAME() == name) {
            function = cf;
            return true;
        }
    }
    function = findLostDevice(name, channel);
    return function != nullptr;
}

bool NetworkManagementClass::findControlFunctionByNAMEFields(uint16_t index,
                                                             const NAMEFieldEntry* list,
                                                             uint8_t count, uint8_t channel,
                                                             ControlFunctionClass*& function) {
    function = nullptr;
    if (channel >= NUMBER_CAN_CHANNELS) {
        return false;
    }
    uint16_t position = 0;
    for (ControlFunctionClass* cf : controlFunctionTable[channel]) {
        if (cf != nullptr && NAMEClass::matchesNAMEFields(list, count, cf->getNAME()) &&
            position++ == index) {
            function = cf;
            return true;
        }
    }
    for (CONTROL_FUNCTION_LOST_DEVICE_STRUCT* n = controlFunctionLostDevices; n != nullptr;
         n = n->next) {
        ControlFunctionClass* cf = n->controlFunction;
        if (cf->getChannel() == channel &&
            NAMEClass::matchesNAMEFields(list, count, cf->getNAME()) && position++ == index) {
            function = cf;
            return true;
        }
    }
    return false;
}

uint16_t NetworkManagementClass::countControlFunctionsByNAMEFields(const NAMEFieldEntry* list,
                                                                   uint8_t count, uint8_t channel) {
    if (channel >= NUMBER_CAN_CHANNELS) {
        return 0;
    }
    uint16_t matches = 0;
    for (ControlFunctionClass* cf : controlFunctionTable[channel]) {
        if (cf != nullptr && NAMEClass::matchesNAMEFields(list, count, cf->getNAME())) {
            ++matches;
        }
    }
    for (CONTROL_FUNCTION_LOST_DEVICE_STRUCT* n = controlFunctionLostDevices; n != nullptr;
         n = n->next) {
        if (n->controlFunction->getChannel() == channel &&
            NAMEClass::matchesNAMEFields(list, count, n->controlFunction->getNAME())) {
            ++matches;
        }
    }
    return matches;
}

bool NetworkManagementClass::compareChannels(uint8_t first, uint8_t second) {
    if (first >= NUMBER_CAN_CHANNELS || second >= NUMBER_CAN_CHANNELS) {
        return false;
    }
    for (uint8_t address = 0; address < NUMBER_ADDRESSES; ++address) {
        const ControlFunctionClass* a = controlFunctionTable[first][address];
        const ControlFunctionClass* b = controlFunctionTable[second][address];
        if ((a == nullptr) != (b == nullptr) || (a != nullptr && a->getNAME() != b->getNAME())) {
            return false;
        }
    }
    return true;
}
