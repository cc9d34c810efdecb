#ifndef CANSTACK_INTERNALCONTROLFUNCTION_H
#define CANSTACK_INTERNALCONTROLFUNCTION_H

#include <cstdint>

#include "canstack/controlfunction.h"

class CANCallbackClass;

enum ClaimState : uint8_t {
    CLAIM_STATE_START = 0,
    CLAIM_STATE_RANDOM_WAIT = 1,
    CLAIM_STATE_SEND_REQUEST = 2,
    CLAIM_STATE_CONTENTION_WAIT = 3,
    CLAIM_STATE_SELECT_ADDRESS = 4,
    CLAIM_STATE_SELECT_BY_NAME = 5,
    CLAIM_STATE_WAIT_FOR_TRANSMIT = 6,
    CLAIM_STATE_CLAIM_PERIOD = 7,
    CLAIM_STATE_CLAIMED = 8,
    CLAIM_STATE_LOST_ADDRESS = 9,
    CLAIM_STATE_WAIT_FOR_RECLAIM_TRANSMIT = 10,
    CLAIM_STATE_CANNOT_CLAIM = 11,
    CLAIM_STATE_IDLE = 12,
};

// A node of this device; claims an address from the list its subclass gives.
class InternalControlFunctionClass : public ControlFunctionClass {
public:
    static const char* const MESSAGE_OWNER;
    static constexpr uint32_t CLAIM_HOLD_MS = 250;

    InternalControlFunctionClass(NAMEClass name, uint8_t channel);
    ~InternalControlFunctionClass() override;

    uint8_t getType() const override { return 0; }
    bool isAddressValid() const override {
        return address <= 253 && claimState == CLAIM_STATE_CLAIMED;
    }
    void reset() override;

    // Address wanted at a position of the list; above 253 ends the list.
    virtual uint8_t getAddressAtIndex(uint8_t index) = 0;
    virtual bool acceptCommandedAddress(ControlFunctionClass* commander) {
        (void)commander;
        return true;
    }
    virtual void onAddressClaimed() {}
    virtual void onStart() {}

    bool setPreferredAddress(uint8_t address);
    bool requestChangeAddress(uint8_t address);
    bool requestChangeNAME(NAMEClass name);
    // In state 8: ask all for their claims (this one answers too), or repeat this claim.
    bool requestAddressClaims();
    bool repeatAddressClaim();
    static uint32_t sendGlobalRequestForAddressClaim(uint8_t channel);
    static void addressClaimTransmitCallback(CANCallbackClass* callback);

    // One step of the claim state machine, run by each update.
    void updateAddressClaim();

    ClaimState getClaimState() const { return claimState; }
    uint8_t getCandidateAddress() const { return candidateAddress; }
    uint8_t getAddressIndex() const { return addressIndex; }
    uint8_t getRandomDelay() const { return randomDelay; }
    uint32_t getClaimHandle() const { return claimHandle; }
    uint32_t getLastReceiveTimestamp() const { return lastReceiveTimestamp; }
    void setLastReceiveTimestamp(uint32_t ms) { lastReceiveTimestamp = ms; }
    uint32_t getLastTransmitTimestamp() const { return lastTransmitTimestamp; }
    void setLastTransmitTimestamp(uint32_t ms) { lastTransmitTimestamp = ms; }
    bool getAddressConflictSeen() const { return addressConflictSeen != 0; }
    bool getClaimConflictSeen() const { return claimConflictSeen != 0; }
    bool isClaimRequested() const { return claimRequested != 0; }
    bool isEnabled() const { return enabled != 0; }
    void setEnabled(bool value) { enabled = value ? 1 : 0; }

    static bool getInternalControlFunction(uint16_t index, InternalControlFunctionClass*& function);
    static uint16_t getNumberInternalControlFunctions() { return numberInternalControlFunctions; }

    static InternalControlFunctionClass** internalControlFunctionList;
    static uint16_t numberInternalControlFunctions;

private:
    friend class NetworkManagementClass;

    void setClaimState(ClaimState state);
    bool ownsColumn() const;
    ControlFunctionClass* occupant(uint8_t candidate) const;
    bool sendAddressClaim();
    bool sendRequestForAddressClaim();
    void drawRandomDelay();
    void selectAddress();
    void selectByNAME();
    void lostAddress();
    void closingTest();

    uint32_t lastReceiveTimestamp = 0;
    uint32_t stateTimestamp = 0;
    uint32_t lastTransmitTimestamp = 0;
    uint32_t claimHandle = 0;
    ClaimState claimState = CLAIM_STATE_START;
    uint8_t addressIndex = 0;
    uint8_t candidateAddress = 254;
    uint8_t randomDelay = 0;
    uint8_t claimTransmitted = 0;
    uint8_t claimTransmitSucceeded = 0;
    uint8_t addressConflictSeen = 0;
    uint8_t claimConflictSeen = 0;
    uint8_t enabled = 1;
    uint8_t claimRequested = 0;
};

#endif
