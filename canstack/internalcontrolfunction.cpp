#include "canstack/internalcontrolfunction.h"

#include "canstack/canmessage.h"
#include "canstack/networkmanagement.h"
#include "canstack/networkmanagementstatistics.h"
#include "canstack/networkmanagementutilities.h"

const char* const InternalControlFunctionClass::MESSAGE_OWNER = "Internal Control Function";
InternalControlFunctionClass** InternalControlFunctionClass::internalControlFunctionList = nullptr;
uint16_t InternalControlFunctionClass::numberInternalControlFunctions = 0;

namespace {
using Utilities = NetworkManagementUtilitiesClass;

void report(const char* text, uint8_t severity) {
    NetworkManagementStatisticsClass::addDescriptionMessage(
        InternalControlFunctionClass::MESSAGE_OWNER, text, severity);
}

// Seeded from the NAME so that devices with different NAMEs spread their first requests.
uint32_t randomState = 1;
void seedRandom(NAMEClass name) {
    const uint64_t value = name.getNAME();
    randomState = static_cast<uint32_t>(value) + static_cast<uint32_t>(value >> 32);
}
uint32_t nextRandom() {
    randomState = randomState * 1103515245u + 12345u;
    return (randomState >> 16) & 0x7FFFu;
}
}  // namespace

InternalControlFunctionClass::InternalControlFunctionClass(NAMEClass name, uint8_t channel)
    : ControlFunctionClass(name, NULL_ADDRESS, channel) {
    drawRandomDelay();
    if (!Utilities::addObjectToArray(this, internalControlFunctionList,
                                     numberInternalControlFunctions)) {
        report("Failed Adding Internal Control Function to List", 2);
    }
}

InternalControlFunctionClass::~InternalControlFunctionClass() {
    Utilities::removeObjectFromArray(this, internalControlFunctionList,
                                     numberInternalControlFunctions);
}

void InternalControlFunctionClass::drawRandomDelay() {
    seedRandom(NAME);
    randomDelay = static_cast<uint8_t>(static_cast<float>(nextRandom() % 256u) * 0.6f);
}

bool InternalControlFunctionClass::getInternalControlFunction(
    uint16_t index, InternalControlFunctionClass*& function) {
    function =
        index < numberInternalControlFunctions ? internalControlFunctionList[index] : nullptr;
    return function != nullptr;
}

void InternalControlFunctionClass::setClaimState(ClaimState state) {
    if (state == claimState) {
        return;
    }
    stateTimestamp = Utilities::Timestamp_ms();
    claimState = state;
}

bool InternalControlFunctionClass::ownsColumn() const {
    return channel < NUMBER_CAN_CHANNELS && address <= 253 &&
           NetworkManagementClass::controlFunctionTable[channel][address] == this;
}

ControlFunctionClass* InternalControlFunctionClass::occupant(uint8_t candidate) const {
    if (channel >= NUMBER_CAN_CHANNELS || candidate > 253) {
        return nullptr;
    }
    return NetworkManagementClass::controlFunctionTable[channel][candidate];
}

bool InternalControlFunctionClass::setPreferredAddress(uint8_t preferred) {
    if (claimState != CLAIM_STATE_START) {
        report("Setting Preferred Address Failed", 1);
        return false;
    }
    candidateAddress = preferred <= 253 ? preferred : NULL_ADDRESS;
    return true;
}

bool InternalControlFunctionClass::requestChangeAddress(uint8_t newAddress) {
    switch (claimState) {
        case CLAIM_STATE_START:
        case CLAIM_STATE_RANDOM_WAIT:
        case CLAIM_STATE_SEND_REQUEST:
        case CLAIM_STATE_CLAIMED:
        case CLAIM_STATE_IDLE:
            break;
        default:
            report("Request Change Address Failed Invalid State Machine State", 1);
            return false;
    }
    if (newAddress == candidateAddress) {
        claimRequested = 1;
        return false;
    }
    if (newAddress <= 253 && channel < NUMBER_CAN_CHANNELS) {
        if (NetworkManagementClass::controlFunctionTable[channel][newAddress] == nullptr) {
            candidateAddress = newAddress;
            setClaimState(CLAIM_STATE_SELECT_ADDRESS);
            return true;
        }
        claimRequested = 1;
        report("Request Change Address Failed Address Already In Use", 1);
        return false;
    }
    claimRequested = 1;
    report("Request Change Address Failed Invalid Address", 2);
    return false;
}

bool InternalControlFunctionClass::requestChangeNAME(NAMEClass name) {
    switch (claimState) {
        case CLAIM_STATE_START:
        case CLAIM_STATE_RANDOM_WAIT:
        case CLAIM_STATE_SEND_REQUEST:
        case CLAIM_STATE_CLAIMED:
            break;
        default:
            report("Request Change NAME Failed Invalid State Machine State", 1);
            return false;
    }
    if (name == NAME) {
        return true;
    }
    changeNAME(name);
    drawRandomDelay();
    setClaimState(CLAIM_STATE_START);
    return true;
}

bool InternalControlFunctionClass::sendAddressClaim() {
    uint8_t data[8];
    NAME.toBytes(data);
    CANTransmitMessageClass message(1, 0xEEFF00u | candidateAddress, data, 8, 6, channel,
                                    &InternalControlFunctionClass::addressClaimTransmitCallback,
                                    true);
    claimHandle = message.getHandle();
    if (!message.isValid() || !NetworkManagementClass::networkManagementIsInitialized) {
        return false;
    }
    // An immediate transmit confirms inside the call, so clear the flags first.
    claimTransmitted = 0;
    claimTransmitSucceeded = 0;
    TransmitCANMessageFunction transmit = NetworkManagementClass::TransmitCANMessage;
    const bool sent = transmit != nullptr && transmit(&message);
    if (sent) {
        lastTransmitTimestamp = Utilities::Timestamp_ms();
        claimRequested = 0;
    }
    return sent;
}

bool InternalControlFunctionClass::sendRequestForAddressClaim() {
    static const uint8_t request[3] = {0x00, 0xEE, 0x00};
    const uint32_t identifier =
        claimState == CLAIM_STATE_CLAIMED ? (0xEAFF00u | address) : 0xEAFFFEu;
    CANTransmitMessageClass message(1, identifier, request, 3, 6, channel, nullptr, true);
    claimHandle = message.getHandle();
    if (!message.isValid() || !NetworkManagementClass::networkManagementIsInitialized) {
        return false;
    }
    TransmitCANMessageFunction transmit = NetworkManagementClass::TransmitCANMessage;
    const bool sent = transmit != nullptr && transmit(&message);
    if (sent) {
        lastTransmitTimestamp = Utilities::Timestamp_ms();
    }
    return sent;
}

bool InternalControlFunctionClass::requestAddressClaims() {
    if (claimState != CLAIM_STATE_CLAIMED) {
        return false;
    }
    const bool sent = sendRequestForAddressClaim();
    claimRequested = 1;
    return sent;
}

bool InternalControlFunctionClass::repeatAddressClaim() {
    if (claimState != CLAIM_STATE_CLAIMED) {
        return false;
    }
    return sendAddressClaim();
}

uint32_t InternalControlFunctionClass::sendGlobalRequestForAddressClaim(uint8_t channel) {
    if (!NetworkManagementClass::networkManagementIsInitialized) {
        return SEND_NOT_INITIALIZED;
    }
    static const uint8_t request[3] = {0x00, 0xEE, 0x00};
    CANTransmitMessageClass message(1, 0xEAFFFEu, request, 3, 6, channel, nullptr, true);
    if (message.getStatus() != TRANSMIT_STATUS_OK) {
        return message.getStatus();
    }
    TransmitCANMessageFunction transmit = NetworkManagementClass::TransmitCANMessage;
    return (transmit != nullptr && transmit(&message)) ? SEND_SUCCESS : SEND_TRANSMIT_REFUSED;
}

void InternalControlFunctionClass::addressClaimTransmitCallback(CANCallbackClass* callback) {
    if (callback == nullptr) {
        return;
    }
    for (uint16_t i = 0; i < numberInternalControlFunctions; ++i) {
        InternalControlFunctionClass* cf = internalControlFunctionList[i];
        if (cf->claimHandle == callback->getHandle()) {
            cf->claimTransmitted = 1;
            cf->claimTransmitSucceeded = callback->isSuccess() ? 1 : 0;
        }
    }
}

void InternalControlFunctionClass::reset() {
    leaveTable();
    address = NULL_ADDRESS;
    setClaimState(CLAIM_STATE_START);
    candidateAddress = NULL_ADDRESS;
    addressIndex = 0;
    lastReceiveTimestamp = 0;
    lastTransmitTimestamp = 0;
    claimHandle = 0;
    claimTransmitted = 0;
    claimTransmitSucceeded = 0;
    addressConflictSeen = 0;
    claimConflictSeen = 0;
    claimRequested = 0;
    enabled = 1;
    NetworkManagementClass::removeLostDevice(this);
}

void InternalControlFunctionClass::closingTest() {
    if (candidateAddress > 253 || channel >= NUMBER_CAN_CHANNELS) {
        setClaimState(CLAIM_STATE_CANNOT_CLAIM);
    }
}

void InternalControlFunctionClass::selectAddress() {
    if (candidateAddress > 253) {
        setClaimState(CLAIM_STATE_CANNOT_CLAIM);
        return;
    }
    const bool selfConfigurable = NAME.getSelfConfigurableAddress() != 0;
    while (channel < NUMBER_CAN_CHANNELS) {
        ControlFunctionClass* holder = occupant(candidateAddress);
        if (holder == nullptr || holder == this) {
            if (sendAddressClaim()) {
                setClaimState(CLAIM_STATE_WAIT_FOR_TRANSMIT);
            }
            closingTest();
            return;
        }
        if (!selfConfigurable || addressIndex > 253) {
            break;
        }
        ++addressIndex;
        candidateAddress = getAddressAtIndex(addressIndex);
        if (candidateAddress > 253) {
            break;
        }
    }
    addressIndex = 0;
    candidateAddress = getAddressAtIndex(0);
    setClaimState(CLAIM_STATE_SELECT_BY_NAME);
    closingTest();
}

void InternalControlFunctionClass::selectByNAME() {
    if (candidateAddress > 253 || channel >= NUMBER_CAN_CHANNELS) {
        setClaimState(CLAIM_STATE_CANNOT_CLAIM);
        return;
    }
    const bool selfConfigurable = NAME.getSelfConfigurableAddress() != 0;
    for (;;) {
        ControlFunctionClass* holder = occupant(candidateAddress);
        // The address may have come free since it was seen taken: then it is simply claimed.
        if (holder == nullptr || holder == this || NAME < holder->getNAME()) {
            if (sendAddressClaim()) {
                setClaimState(CLAIM_STATE_WAIT_FOR_TRANSMIT);
            }
            closingTest();
            return;
        }
        if (!selfConfigurable) {
            setClaimState(CLAIM_STATE_CANNOT_CLAIM);
            report("Cannot Find a Valid Address, Not Self Configurable", 2);
            return;
        }
        if (addressIndex > 253) {
            setClaimState(CLAIM_STATE_CANNOT_CLAIM);
            report("Cannot Find a Valid Address, Address Index Out of Range", 2);
            return;
        }
        ++addressIndex;
        candidateAddress = getAddressAtIndex(addressIndex);
        if (candidateAddress > 253) {
            setClaimState(CLAIM_STATE_CANNOT_CLAIM);
            return;
        }
    }
}

void InternalControlFunctionClass::lostAddress() {
    ControlFunctionClass* holder = occupant(candidateAddress);
    if (holder == nullptr) {
        return;
    }
    if (NAME < holder->getNAME()) {
        if (sendAddressClaim()) {
            setClaimState(CLAIM_STATE_WAIT_FOR_RECLAIM_TRANSMIT);
        }
        return;
    }
    addressIndex = 0;
    candidateAddress = getAddressAtIndex(0);
    setClaimState(CLAIM_STATE_SEND_REQUEST);
}

void InternalControlFunctionClass::updateAddressClaim() {
    if (enabled == 0) {
        leaveTable();
        address = NULL_ADDRESS;
        setClaimState(CLAIM_STATE_START);
        addressIndex = 0;
        claimHandle = 0;
        claimTransmitted = 0;
        claimTransmitSucceeded = 0;
        claimRequested = 0;
        return;
    }
    switch (claimState) {
        case CLAIM_STATE_START:
            onStart();
            if (candidateAddress == NULL_ADDRESS) {
                candidateAddress = getAddressAtIndex(addressIndex);
            }
            setClaimState(CLAIM_STATE_RANDOM_WAIT);
            break;
        case CLAIM_STATE_RANDOM_WAIT:
            if (claimRequested != 0) {
                setClaimState(CLAIM_STATE_CONTENTION_WAIT);
            } else if (Utilities::timeElapsed(stateTimestamp, randomDelay)) {
                setClaimState(CLAIM_STATE_SEND_REQUEST);
            }
            break;
        case CLAIM_STATE_SEND_REQUEST:
            if (sendRequestForAddressClaim()) {
                setClaimState(CLAIM_STATE_CONTENTION_WAIT);
            }
            break;
        case CLAIM_STATE_CONTENTION_WAIT:
            if (Utilities::timeElapsed(stateTimestamp, uint32_t{randomDelay} + CLAIM_HOLD_MS)) {
                setClaimState(CLAIM_STATE_SELECT_ADDRESS);
            }
            break;
        case CLAIM_STATE_SELECT_ADDRESS:
            selectAddress();
            break;
        case CLAIM_STATE_SELECT_BY_NAME:
            selectByNAME();
            break;
        case CLAIM_STATE_WAIT_FOR_TRANSMIT:
            if (claimTransmitted == 0) {
                if (Utilities::timeElapsed(stateTimestamp, CLAIM_HOLD_MS)) {
                    setClaimState(CLAIM_STATE_SELECT_ADDRESS);
                }
            } else {
                setClaimState(claimTransmitSucceeded != 0 ? CLAIM_STATE_CLAIM_PERIOD
                                                          : CLAIM_STATE_SELECT_ADDRESS);
            }
            break;
        case CLAIM_STATE_CLAIM_PERIOD:
            if (!ownsColumn()) {
                setClaimState(CLAIM_STATE_LOST_ADDRESS);
            } else if (Utilities::timeElapsed(stateTimestamp, CLAIM_HOLD_MS)) {
                setClaimState(CLAIM_STATE_CLAIMED);
                onAddressClaimed();
            } else if (claimRequested != 0) {
                sendAddressClaim();
            }
            break;
        case CLAIM_STATE_CLAIMED:
            if (!ownsColumn()) {
                setClaimState(CLAIM_STATE_LOST_ADDRESS);
            } else if (claimRequested != 0) {
                sendAddressClaim();
            }
            break;
        case CLAIM_STATE_LOST_ADDRESS:
            lostAddress();
            break;
        case CLAIM_STATE_WAIT_FOR_RECLAIM_TRANSMIT:
            if (claimTransmitted == 0) {
                if (Utilities::timeElapsed(stateTimestamp, CLAIM_HOLD_MS)) {
                    setClaimState(CLAIM_STATE_LOST_ADDRESS);
                }
            } else if (claimTransmitSucceeded != 0) {
                setClaimState(CLAIM_STATE_CLAIMED);
                onAddressClaimed();
            } else {
                setClaimState(CLAIM_STATE_LOST_ADDRESS);
            }
            break;
        case CLAIM_STATE_CANNOT_CLAIM:
            addressIndex = 0;
            candidateAddress = NULL_ADDRESS;
            if (sendAddressClaim()) {
                setClaimState(CLAIM_STATE_IDLE);
            }
            break;
        case CLAIM_STATE_IDLE:
            if (claimRequested != 0) {
                setClaimState(candidateAddress == NULL_ADDRESS ? CLAIM_STATE_CANNOT_CLAIM
                                                               : CLAIM_STATE_SELECT_ADDRESS);
            }
            break;
    }
}
