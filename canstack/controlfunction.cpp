#include "canstack/controlfunction.h"

#include <initializer_list>
#include <new>

#include "canstack/canmessage.h"
#include "canstack/networkmanagement.h"
#include "canstack/networkmanagementstatistics.h"
#include "canstack/networkmanagementutilities.h"

const char* const ControlFunctionClass::MESSAGE_OWNER = "Control Function";
const char* const RegisteredControlFunctionClass::MESSAGE_OWNER = "Registered Control Function";
const char* const DynamicRegisteredControlFunctionClass::MESSAGE_OWNER =
    "Dynamic Registered Control Function";

RegisteredControlFunctionClass** RegisteredControlFunctionClass::registeredControlFunctionList =
    nullptr;
uint16_t RegisteredControlFunctionClass::numberRegisteredControlFunctions = 0;
INVALID_REGISTERED_CONTROL_FUNCTION_STRUCT*
    RegisteredControlFunctionClass::invalidRegisteredControlFunctionList = nullptr;
uint16_t RegisteredControlFunctionClass::numberInvalidRegisteredControlFunctions = 0;
DynamicRegisteredControlFunctionClass**
    DynamicRegisteredControlFunctionClass::dynamicRegisteredControlFunctionList = nullptr;
uint16_t DynamicRegisteredControlFunctionClass::numberDynamicRegisteredControlFunctions = 0;
UnregisteredControlFunctionClass* UnregisteredControlFunctionClass::forgottenList = nullptr;
uint32_t UnregisteredControlFunctionClass::numberForgotten = 0;

namespace {
void report(const char* owner, const char* text, uint8_t severity) {
    NetworkManagementStatisticsClass::addDescriptionMessage(owner, text, severity);
}
using Utilities = NetworkManagementUtilitiesClass;
}  // namespace

// ---------------------------------------------------------------- ControlFunctionClass

ControlFunctionClass::ControlFunctionClass(NAMEClass name, uint8_t address, uint8_t channel)
    : NAME(name), channel(channel), address(address) {
    if (channel >= NUMBER_CAN_CHANNELS) {
        report(MESSAGE_OWNER, "Invalid CAN Channel", 2);
    }
    if (address == GLOBAL_ADDRESS) {
        report(MESSAGE_OWNER, "Invalid Address Global Address", 2);
    }
}

ControlFunctionClass::~ControlFunctionClass() {
    leaveTable();
    NetworkManagementClass::removeLostDevice(this);
}

void ControlFunctionClass::leaveTable() {
    if (channel < NUMBER_CAN_CHANNELS && address <= 253 &&
        NetworkManagementClass::controlFunctionTable[channel][address] == this) {
        NetworkManagementClass::controlFunctionTable[channel][address] = nullptr;
    }
}

void ControlFunctionClass::enterTable() {
    if (channel < NUMBER_CAN_CHANNELS && address <= 253) {
        NetworkManagementClass::controlFunctionTable[channel][address] = this;
    }
}

void ControlFunctionClass::changeNAME(NAMEClass name) {
    if (name == NAME) {
        return;
    }
    NAME = name;
    NetworkManagementClass::refileLostDevice(this);
}

bool ControlFunctionClass::swapWith(ControlFunctionClass* other) {
    if (other == nullptr || other->channel != channel || channel >= NUMBER_CAN_CHANNELS) {
        return false;
    }
    if (address <= 253) {
        NetworkManagementClass::controlFunctionTable[channel][address] = other;
    }
    if (other->address <= 253) {
        NetworkManagementClass::controlFunctionTable[channel][other->address] = this;
    }
    const uint8_t ownAddress = address;
    address = other->address;
    other->address = ownAddress;
    const NAMEClass ownNAME = NAME;
    changeNAME(other->NAME);
    other->changeNAME(ownNAME);
    for (ControlFunctionClass* cf : {static_cast<ControlFunctionClass*>(this), other}) {
        if (cf->address <= 253) {
            NetworkManagementClass::removeLostDevice(cf);
        } else {
            NetworkManagementClass::addLostDevice(cf);
        }
    }
    return true;
}

// ---------------------------------------------------------------- Registered

void RegisteredControlFunctionClass::addToList() {
    if (!Utilities::addObjectToArray(this, registeredControlFunctionList,
                                     numberRegisteredControlFunctions)) {
        report(MESSAGE_OWNER, "Failed Adding Registered Control Function to List", 2);
    }
}

RegisteredControlFunctionClass::RegisteredControlFunctionClass(
    uint8_t channel, const NAMEFieldEntry* list, uint8_t count,
    NewRegisteredControlFunctionCallback callback)
    : ControlFunctionClass(NAMEClass(), NULL_ADDRESS, channel) {
    addToList();
    if (!bindByNAMEFields(list, count)) {
        NAMEFieldList = list;
        numberNAMEFields = count;
    }
    if (callback != nullptr) {
        callback(this, 0);
    }
}

RegisteredControlFunctionClass::RegisteredControlFunctionClass(
    uint8_t channel, uint8_t address, NewRegisteredControlFunctionCallback callback)
    : ControlFunctionClass(NAMEClass(), NULL_ADDRESS, channel) {
    addToList();
    if (!bindByAddress(address)) {
        NetworkManagementClass::addLostDevice(this);
    }
    if (callback != nullptr) {
        callback(this, 0);
    }
}

RegisteredControlFunctionClass::RegisteredControlFunctionClass(
    uint8_t channel, NAMEClass name, NewRegisteredControlFunctionCallback callback)
    : ControlFunctionClass(NAMEClass(), NULL_ADDRESS, channel) {
    addToList();
    if (!bindByNAME(name)) {
        changeNAME(name);
        NetworkManagementClass::addLostDevice(this);
    }
    if (callback != nullptr) {
        callback(this, 0);
    }
}

RegisteredControlFunctionClass::~RegisteredControlFunctionClass() {
    for (uint8_t i = 0; i < numberParameterGroupNumberCallbacks; ++i) {
        delete parameterGroupNumberCallbacks[i];
    }
    delete[] parameterGroupNumberCallbacks;
    parameterGroupNumberCallbacks = nullptr;
    numberParameterGroupNumberCallbacks = 0;
    // Shrinking may fail to allocate; the helper still closes the gap.
    Utilities::removeObjectFromArray(this, registeredControlFunctionList,
                                     numberRegisteredControlFunctions);
}

void RegisteredControlFunctionClass::handOver() {
    if (channel >= NUMBER_CAN_CHANNELS) {
        return;
    }
    if (address <= 253) {
        UnregisteredControlFunctionClass* heir =
            UnregisteredControlFunctionClass::create(NAME, address, channel);
        NetworkManagementClass::controlFunctionTable[channel][address] = heir;
    } else if (!NAME.isUnknown()) {
        UnregisteredControlFunctionClass* heir =
            UnregisteredControlFunctionClass::create(NAME, NULL_ADDRESS, channel);
        if (heir != nullptr) {
            NetworkManagementClass::addLostDevice(heir);
        }
    }
}

void RegisteredControlFunctionClass::becomeUnbound() {
    leaveTable();
    address = NULL_ADDRESS;
    changeNAME(NAMEClass());
    lastReceiveTimestamp = 0;
    NetworkManagementClass::removeLostDevice(this);
}

bool RegisteredControlFunctionClass::bindByNAMEFields(const NAMEFieldEntry* list, uint8_t count) {
    if (channel >= NUMBER_CAN_CHANNELS || list == nullptr || count == 0) {
        return false;
    }
    if (NAMEClass::matchesNAMEFields(list, count, NAME)) {
        return true;
    }
    const uint16_t matches =
        NetworkManagementClass::countControlFunctionsByNAMEFields(list, count, channel);
    if (matches > 1) {
        return false;
    }
    if (matches == 1) {
        ControlFunctionClass* match = nullptr;
        if (!NetworkManagementClass::findControlFunctionByNAMEFields(0, list, count, channel,
                                                                     match) ||
            match->getType() != 2) {
            return false;
        }
        NAMEFieldList = list;
        numberNAMEFields = count;
        swapWith(match);
        return true;
    }
    NAMEFieldList = list;
    numberNAMEFields = count;
    handOver();
    // handOver replaced this object in its column; only the lost list may still hold it.
    address = NULL_ADDRESS;
    changeNAME(NAMEClass());
    lastReceiveTimestamp = 0;
    NetworkManagementClass::removeLostDevice(this);
    return true;
}

bool RegisteredControlFunctionClass::bindByAddress(uint8_t newAddress) {
    if (channel >= NUMBER_CAN_CHANNELS || newAddress > 253) {
        return false;
    }
    if (address == newAddress) {
        return true;
    }
    if (NetworkManagementClass::controlFunctionTable[channel][newAddress] != nullptr) {
        return false;
    }
    NAMEFieldList = nullptr;
    numberNAMEFields = 0;
    handOver();
    address = newAddress;
    changeNAME(NAMEClass());
    lastReceiveTimestamp = 0;
    enterTable();
    NetworkManagementClass::removeLostDevice(this);
    return true;
}

bool RegisteredControlFunctionClass::bindByNAME(NAMEClass name) {
    if (channel >= NUMBER_CAN_CHANNELS || name.isUnknown()) {
        return false;
    }
    if (NAME == name) {
        return true;
    }
    ControlFunctionClass* found = nullptr;
    if (!NetworkManagementClass::findControlFunctionByNAME(name, channel, found)) {
        NAMEFieldList = nullptr;
        numberNAMEFields = 0;
        handOver();
        address = NULL_ADDRESS;
        changeNAME(name);
        lastReceiveTimestamp = 0;
        NetworkManagementClass::addLostDevice(this);
        return true;
    }
    if (found->getType() == 0) {
        return false;
    }
    NAMEFieldList = nullptr;
    numberNAMEFields = 0;
    swapWith(found);
    return true;
}

void RegisteredControlFunctionClass::reset() {
    becomeUnbound();
}

void UnregisteredControlFunctionClass::reset() {
    // Forgotten and waiting for reuse: whoever still holds it must not list it again.
    if (waitingForReuse) {
        return;
    }
    leaveTable();
    address = NULL_ADDRESS;
    changeNAME(NAMEClass());
    NetworkManagementClass::addLostDevice(this);
}

UnregisteredControlFunctionClass* UnregisteredControlFunctionClass::create(NAMEClass name,
                                                                           uint8_t address,
                                                                           uint8_t channel) {
    UnregisteredControlFunctionClass* function = forgottenList;
    if (function == nullptr) {
        function = new (std::nothrow) UnregisteredControlFunctionClass(name, address, channel);
        if (function != nullptr) {
            function->madeByStack = true;
        }
        return function;
    }
    forgottenList = function->nextForgotten;
    --numberForgotten;
    function->nextForgotten = nullptr;
    function->waitingForReuse = false;
    function->NAME = name;
    function->address = address;
    function->channel = channel;
    return function;
}

void UnregisteredControlFunctionClass::forget() {
    if (paired) {
        RegisteredControlFunctionClass::removeInvalidRegisteredControlFunctions(this);
    }
    leaveTable();
    address = NULL_ADDRESS;
    NAME = NAMEClass();
    if (madeByStack) {
        waitingForReuse = true;
        nextForgotten = forgottenList;
        forgottenList = this;
        ++numberForgotten;
    }
}

PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT*
RegisteredControlFunctionClass::addParameterGroupNumberCallback(
    uint32_t parameterGroupNumber, CANMessageCallbackFunction function,
    ReceiveCANMessageCallbackClass* object) {
    if (numberParameterGroupNumberCallbacks == 255) {
        report(MESSAGE_OWNER, "Failed Adding PGN Callback to List", 2);
        return nullptr;
    }
    for (uint8_t i = 0; i < numberParameterGroupNumberCallbacks; ++i) {
        const PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT* n = parameterGroupNumberCallbacks[i];
        if (n->function == function && n->object == object &&
            n->parameterGroupNumber == parameterGroupNumber) {
            return nullptr;
        }
    }
    PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT* node = new (std::nothrow)
        PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT{function, object, parameterGroupNumber};
    uint16_t count = numberParameterGroupNumberCallbacks;
    if (node == nullptr ||
        !Utilities::addObjectToArray(node, parameterGroupNumberCallbacks, count)) {
        delete node;
        report(MESSAGE_OWNER, "Failed Adding PGN Callback to List", 2);
        return nullptr;
    }
    numberParameterGroupNumberCallbacks = static_cast<uint8_t>(count);
    return node;
}

bool RegisteredControlFunctionClass::removeParameterGroupNumberCallback(
    PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT* node) {
    uint16_t count = numberParameterGroupNumberCallbacks;
    if (node == nullptr ||
        !Utilities::removeObjectFromArray(node, parameterGroupNumberCallbacks, count)) {
        return false;
    }
    numberParameterGroupNumberCallbacks = static_cast<uint8_t>(count);
    delete node;
    return true;
}

void RegisteredControlFunctionClass::removeParameterGroupNumberCallbacks(
    ReceiveCANMessageCallbackClass* object) {
    for (uint8_t i = numberParameterGroupNumberCallbacks; i > 0; --i) {
        PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT* node = parameterGroupNumberCallbacks[i - 1u];
        if (node->object == object) {
            removeParameterGroupNumberCallback(node);
        }
    }
}

void RegisteredControlFunctionClass::removeParameterGroupNumberCallbacksOfObject(
    ReceiveCANMessageCallbackClass* object) {
    for (uint16_t i = 0; i < numberRegisteredControlFunctions; ++i) {
        registeredControlFunctionList[i]->removeParameterGroupNumberCallbacks(object);
    }
}

void RegisteredControlFunctionClass::dispatchMessage(CANMessageClass* message) {
    const uint32_t pgn = message->getParameterGroupNumber();
    for (uint8_t i = 0; i < numberParameterGroupNumberCallbacks; ++i) {
        const PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT* node = parameterGroupNumberCallbacks[i];
        if (node->parameterGroupNumber != pgn && node->parameterGroupNumber != PGN_ANY) {
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

bool RegisteredControlFunctionClass::getRegisteredControlFunction(
    uint16_t index, RegisteredControlFunctionClass*& function) {
    function =
        index < numberRegisteredControlFunctions ? registeredControlFunctionList[index] : nullptr;
    return function != nullptr;
}

bool RegisteredControlFunctionClass::addInvalidRegisteredControlFunction(
    RegisteredControlFunctionClass* registered, UnregisteredControlFunctionClass* other) {
    INVALID_REGISTERED_CONTROL_FUNCTION_STRUCT* node =
        new (std::nothrow) INVALID_REGISTERED_CONTROL_FUNCTION_STRUCT{registered, other, nullptr};
    if (node == nullptr) {
        return false;
    }
    INVALID_REGISTERED_CONTROL_FUNCTION_STRUCT** tail = &invalidRegisteredControlFunctionList;
    while (*tail != nullptr) {
        tail = &(*tail)->next;
    }
    *tail = node;
    ++numberInvalidRegisteredControlFunctions;
    if (other != nullptr) {
        other->paired = true;
    }
    return true;
}

void RegisteredControlFunctionClass::removeInvalidRegisteredControlFunctions(
    UnregisteredControlFunctionClass* other) {
    for (INVALID_REGISTERED_CONTROL_FUNCTION_STRUCT** link = &invalidRegisteredControlFunctionList;
         *link != nullptr;) {
        INVALID_REGISTERED_CONTROL_FUNCTION_STRUCT* node = *link;
        if (node->unregisteredControlFunction == other) {
            *link = node->next;
            delete node;
            --numberInvalidRegisteredControlFunctions;
        } else {
            link = &node->next;
        }
    }
    other->paired = false;
}

// ---------------------------------------------------------------- Dynamic

DynamicRegisteredControlFunctionClass::DynamicRegisteredControlFunctionClass(
    uint8_t channel, const NAMEFieldEntry* list, uint8_t count,
    NewRegisteredControlFunctionCallback callback, uint8_t maximum)
    : NAMEFieldList(list),
      callback(callback),
      channel(channel),
      maximum(maximum),
      numberNAMEFields(count) {
    if (list == nullptr || count == 0) {
        report(MESSAGE_OWNER, "Invalid NAME Fields", 2);
    }
    if (callback == nullptr) {
        report(MESSAGE_OWNER, "Invalid New Registered Control Function Callback", 2);
    }
    if (maximum == 0) {
        report(MESSAGE_OWNER, "Invalid Maximum Number Registered Control Functions", 2);
    }
    if (channel >= NUMBER_CAN_CHANNELS) {
        report(MESSAGE_OWNER, "Invalid CAN Channel", 2);
    }
    if (!Utilities::addObjectToArray(this, dynamicRegisteredControlFunctionList,
                                     numberDynamicRegisteredControlFunctions)) {
        report(MESSAGE_OWNER, "Failed Adding Dynamic Registered Control Function to List", 2);
        return;
    }
    if (channel >= NUMBER_CAN_CHANNELS || list == nullptr || count == 0) {
        return;
    }
    const uint16_t matches =
        NetworkManagementClass::countControlFunctionsByNAMEFields(list, count, channel);
    // Creating functions reshapes the table, so collect the candidates first.
    for (uint16_t i = 0, index = 0; i < matches && numberCreated < maximum; ++i) {
        ControlFunctionClass* match = nullptr;
        if (!NetworkManagementClass::findControlFunctionByNAMEFields(index, list, count, channel,
                                                                     match)) {
            break;
        }
        if (match->getType() != 2 || match->getNAME().isUnknown()) {
            ++index;
            continue;
        }
        RegisteredControlFunctionClass* created =
            new (std::nothrow) RegisteredControlFunctionClass(channel, match->getNAME(), nullptr);
        if (created == nullptr) {
            break;
        }
        ++numberCreated;
        // The new function took the match's place, so the same index now shows the next match.
        ++index;
        if (callback != nullptr) {
            callback(created, numberCreated);
        }
    }
}

DynamicRegisteredControlFunctionClass::~DynamicRegisteredControlFunctionClass() {
    Utilities::removeObjectFromArray(this, dynamicRegisteredControlFunctionList,
                                     numberDynamicRegisteredControlFunctions);
}

bool DynamicRegisteredControlFunctionClass::matches(uint8_t onChannel, NAMEClass name) const {
    return onChannel == channel && NAMEFieldList != nullptr && numberNAMEFields > 0 &&
           numberCreated < maximum &&
           NAMEClass::matchesNAMEFields(NAMEFieldList, numberNAMEFields, name);
}

RegisteredControlFunctionClass* DynamicRegisteredControlFunctionClass::create(NAMEClass name,
                                                                              uint8_t address) {
    if (numberCreated >= maximum) {
        return nullptr;
    }
    RegisteredControlFunctionClass* created =
        new (std::nothrow) RegisteredControlFunctionClass(channel, name, nullptr);
    if (created == nullptr) {
        return nullptr;
    }
    // Bound by NAME to an unknown device it waits in the lost list; the claim gives the address.
    NetworkManagementClass::removeLostDevice(created);
    created->address = address;
    created->enterTable();
    ++numberCreated;
    if (callback != nullptr) {
        callback(created, numberCreated);
    }
    return created;
}

bool DynamicRegisteredControlFunctionClass::getDynamicRegisteredControlFunction(
    uint16_t index, DynamicRegisteredControlFunctionClass*& record) {
    record = index < numberDynamicRegisteredControlFunctions
                 ? dynamicRegisteredControlFunctionList[index]
                 : nullptr;
    return record != nullptr;
}
