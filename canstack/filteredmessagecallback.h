#ifndef CANSTACK_FILTEREDMESSAGECALLBACK_H
#define CANSTACK_FILTEREDMESSAGECALLBACK_H

#include <cstdint>

#include "canstack/canmessage.h"
#include "canstack/canprotocol.h"

class CANMessageClass;

struct FILTER_RECORD_STRUCT;

struct FILTERED_MESSAGE_CALLBACK_STRUCT {
    CANMessageCallbackFunction function;
    ReceiveCANMessageCallbackClass* object;
    FILTERED_MESSAGE_CALLBACK_STRUCT* next;
    // While a callback runs its function and object are zeroed; the owner is kept here so that
    // a removal by object still finds the node.
    ReceiveCANMessageCallbackClass* runningObject;
    bool running;
};

// Receives every message the stack sees (received or confirmed) that its filter accepts.
class FilteredMessageCallbackClass {
public:
    static const char* const MESSAGE_OWNER;

    FilteredMessageCallbackClass();
    FilteredMessageCallbackClass(const FilteredMessageCallbackClass& other);
    FilteredMessageCallbackClass& operator=(const FilteredMessageCallbackClass&) = delete;
    virtual ~FilteredMessageCallbackClass();

    virtual bool filterMatches(const CANMessageClass* message) const = 0;

    FILTERED_MESSAGE_CALLBACK_STRUCT* addCallback(CANMessageCallbackFunction function,
                                                  ReceiveCANMessageCallbackClass* object);
    FILTERED_MESSAGE_CALLBACK_STRUCT* addCallback(ReceiveCANMessageCallbackClass* object) {
        return addCallback(nullptr, object);
    }
    bool removeCallback(FILTERED_MESSAGE_CALLBACK_STRUCT* node);
    void removeCallbacks(ReceiveCANMessageCallbackClass* object);
    // A callback that removes itself ends the walk for this message.
    void invokeCallbacks(CANMessageClass* message);
    uint32_t getNumberCallbacks() const;

    static void removeCallbacksFromAllFilters(ReceiveCANMessageCallbackClass* object);
    static bool getFilteredMessageCallback(uint16_t index, FilteredMessageCallbackClass*& filter);
    static uint16_t getNumberFilteredMessageCallbacks() { return numberFilteredMessageCallbacks; }

    static FilteredMessageCallbackClass** filteredMessageCallbackList;
    static uint16_t numberFilteredMessageCallbacks;

    // Cheap test before the virtual match: true when the filter surely refuses the message.
    inline bool quickReject(const CANMessageClass& message) const;

protected:
    bool isValid() const { return valid; }
    // A record whose identifier and channel criteria every accepted message must meet.
    const FILTER_RECORD_STRUCT* quickRejectRecord = nullptr;

private:
    void unlink(FILTERED_MESSAGE_CALLBACK_STRUCT* node);
    void enterList();

    FILTERED_MESSAGE_CALLBACK_STRUCT* callbackList = nullptr;
    bool valid = false;
};

struct FILTER_RECORD_STRUCT {
    FILTER_RECORD_STRUCT* next = nullptr;
    uint64_t destinationNAMEMask = 0;
    uint64_t destinationNAMEValue = 0;
    uint64_t sourceNAMEMask = 0;
    uint64_t sourceNAMEValue = 0;
    uint32_t dataLengthMask = 0;
    uint32_t dataLengthValue = 0;
    uint32_t identifierMask = 0;
    uint32_t identifierValue = 0;
    uint8_t dataMask[8] = {};
    uint8_t dataValue[8] = {};
    uint32_t action = 0;  // 0 accept, 1 reject
    uint8_t channelMask = 0;
    uint8_t channelValue = 0;
    uint8_t messageTypeMask = 0;
    uint8_t messageTypeValue = 0;
    uint8_t identifierTypeMask = 0;
    uint8_t identifierTypeValue = 0;
    uint8_t destinationAddressMask = 0;
    uint8_t destinationAddressValue = 0;
    uint8_t sourceAddressMask = 0;
    uint8_t sourceAddressValue = 0;
};

// A filter of records with masks and values; a matching reject record wins over any accept.
class FilteredMessageMatchingCallbackClass : public FilteredMessageCallbackClass {
public:
    static constexpr uint32_t ACTION_ACCEPT = 0;
    static constexpr uint32_t ACTION_REJECT = 1;
    static constexpr uint32_t NAME_FIELD_WHOLE_NAME = 11;

    FilteredMessageMatchingCallbackClass();
    FilteredMessageMatchingCallbackClass(const FilteredMessageMatchingCallbackClass& other);
    ~FilteredMessageMatchingCallbackClass() override;

    // Final: the receive walk relies on quickReject agreeing with it.
    bool filterMatches(const CANMessageClass* message) const final;

    bool addFilterRecord();
    bool selectFilterRecord(int32_t index);
    bool removeFilterRecord(int32_t index);
    int32_t getSelectedFilterRecord() const { return selectedRecord; }
    uint32_t getNumberFilterRecords() const;

    bool getAction(uint32_t& action) const;
    bool setAction(uint32_t action);
    bool clearChannel();
    bool setChannel(uint8_t channel);
    bool clearMessageType();
    bool setMessageType(uint8_t type);
    bool clearDataLength();
    bool setDataLength(uint32_t length);
    bool clearIdentifierType();
    bool setIdentifierType(uint8_t type);
    bool clearDataBits(uint32_t bitOffset, uint32_t bitCount);
    bool setDataBits(uint32_t bitOffset, uint32_t bitCount, uint32_t value);
    // NAME fields use the identifiers of NAMEFieldEntry, plus NAME_FIELD_WHOLE_NAME.
    bool clearDestinationNAMEField(uint32_t field);
    bool setDestinationNAMEField(uint32_t field, uint64_t value);
    bool clearSourceNAMEField(uint32_t field);
    bool setSourceNAMEField(uint32_t field, uint64_t value);
    bool clearIdentifier();
    bool setIdentifier(uint32_t identifier);
    bool clearPriority();
    bool setPriority(uint8_t priority);
    bool clearDataPage();
    bool setDataPage(uint8_t dataPage);
    bool clearExtendedDataPage();
    bool setExtendedDataPage(uint8_t extendedDataPage);
    bool clearParameterGroupNumber();
    bool setParameterGroupNumber(uint32_t parameterGroupNumber);
    bool clearPDUFormat();
    bool setPDUFormat(uint8_t pduFormat);
    bool clearPDUSpecific();
    bool setPDUSpecific(uint8_t pduSpecific);
    bool clearSourceAddressByte();
    bool setSourceAddressByte(uint8_t address);
    bool clearDestinationAddress();
    bool setDestinationAddress(uint8_t address);
    bool clearSourceAddress();
    bool setSourceAddress(uint8_t address);

private:
    void refreshQuickReject();
    FILTER_RECORD_STRUCT* selected() const;
    FILTER_RECORD_STRUCT* recordAt(int32_t index) const;
    bool requireExtended(FILTER_RECORD_STRUCT* record);
    bool setIdentifierBits(uint32_t mask, uint32_t value, bool extendedOnly);
    bool clearIdentifierBits(uint32_t mask);
    bool setNAMEField(bool destination, uint32_t field, uint64_t value);
    bool clearNAMEField(bool destination, uint32_t field);
    static bool recordMatches(const FILTER_RECORD_STRUCT& record, const CANMessageClass& message);

    FILTER_RECORD_STRUCT* records = nullptr;
    int32_t selectedRecord = -1;
};

inline bool FilteredMessageCallbackClass::quickReject(const CANMessageClass& message) const {
    const FILTER_RECORD_STRUCT* r = quickRejectRecord;
    return r != nullptr &&
           ((message.getIdentifier().getIdentifier() & r->identifierMask) != r->identifierValue ||
            (message.getChannel() & r->channelMask) != r->channelValue);
}

#endif
