#ifndef CANSTACK_CANMESSAGE_H
#define CANSTACK_CANMESSAGE_H

#include <cstdint>

#include "canstack/canidentifier.h"

class ControlFunctionClass;
class CANCallbackClass;
class CANTransmitMessageClass;

typedef void (*CANCallbackFunction)(CANCallbackClass* callback);

// Status of a transmit message; the send result codes continue these numbers.
enum CANTransmitStatus : uint32_t {
    TRANSMIT_STATUS_OK = 0,
    TRANSMIT_STATUS_IDENTIFIER_TYPE_INVALID = 1,
    TRANSMIT_STATUS_DESTINATION_INVALID = 2,
    TRANSMIT_STATUS_DESTINATION_SPECIFIC_INVALID = 3,
    TRANSMIT_STATUS_SOURCE_ADDRESS_INVALID = 4,
    TRANSMIT_STATUS_CHANNEL_INVALID = 5,
    TRANSMIT_STATUS_PGN_OUT_OF_RANGE = 6,
    TRANSMIT_STATUS_PRIORITY_INVALID = 7,
    TRANSMIT_STATUS_DATA_LENGTH_INVALID = 8,
    TRANSMIT_STATUS_DATA_POINTER_NULL = 9,
    TRANSMIT_STATUS_CONTROL_FUNCTIONS_EQUAL = 10,
    TRANSMIT_STATUS_SOURCE_NULL = 11,
    TRANSMIT_STATUS_STANDARD_OUT_OF_RANGE = 12,
    TRANSMIT_STATUS_NOT_BUILT = 21,
};

class CANMessageClass {
public:
    static const char* const MESSAGE_OWNER;
    static uint32_t uniqueMessageHandle;

    virtual ~CANMessageClass() = default;

    virtual uint32_t getMessageType() const = 0;
    virtual bool getDataPointer(const uint8_t*& pointer) const = 0;
    virtual bool getData(uint8_t* buffer, uint32_t capacity) const = 0;
    virtual bool getData(uint8_t* buffer, uint32_t offset, uint32_t count) const = 0;
    virtual uint32_t getDataLength() const = 0;
    virtual bool isValid() const = 0;
    virtual void updateControlFunctions() = 0;

    // The control function is read first: it may have moved since the identifier was built.
    uint8_t getSourceAddress() const;
    uint8_t getDestinationAddress() const;
    uint32_t getParameterGroupNumber() const { return identifier.getParameterGroupNumber(); }
    const CANIdentifierClass& getIdentifier() const { return identifier; }
    uint32_t getHandle() const { return handle; }
    uint8_t getChannel() const { return channel; }
    ControlFunctionClass* getSourceControlFunction() const { return source; }
    ControlFunctionClass* getDestinationControlFunction() const { return destination; }

    bool getDataBits(uint32_t bitOffset, uint32_t bitCount, uint8_t& value) const;
    bool getDataBits(uint32_t bitOffset, uint32_t bitCount, uint16_t& value) const;
    bool getDataBits(uint32_t bitOffset, uint32_t bitCount, uint32_t& value) const;
    bool getDataBits(uint32_t bitOffset, uint32_t bitCount, uint64_t& value) const;

protected:
    // Reports a channel above 2; the message stays usable and the caller tests it.
    explicit CANMessageClass(uint8_t channel);
    CANMessageClass(const CANMessageClass&) = default;
    CANMessageClass& operator=(const CANMessageClass&) = default;

    bool readDataBytes(uint32_t bitOffset, uint32_t bitCount, uint8_t* buffer) const;
    // Only address claims and requests for address claim may come from the null address.
    static bool isNullSourceAllowed(uint32_t word, const uint8_t (&data)[8]);

    ControlFunctionClass* destination = nullptr;
    ControlFunctionClass* source = nullptr;
    CANIdentifierClass identifier;
    uint32_t handle;
    uint8_t channel;
};

class CANReceiveMessageClass : public CANMessageClass {
public:
    static const char* const MESSAGE_OWNER;

    CANReceiveMessageClass(uint8_t identifierType, uint32_t identifierBits, const uint8_t* data,
                           uint8_t length, uint8_t channel);

    uint32_t getMessageType() const override { return 1; }
    bool getDataPointer(const uint8_t*& pointer) const override;
    bool getData(uint8_t* buffer, uint32_t capacity) const override;
    bool getData(uint8_t* buffer, uint32_t offset, uint32_t count) const override;
    uint32_t getDataLength() const override { return dataLength; }
    bool isValid() const override { return valid != 0; }
    void updateControlFunctions() override;

private:
    uint8_t data[8] = {};
    uint8_t dataLength = 0;
    uint8_t valid = 0;
};

class CANTransmitMessageClass : public CANMessageClass {
public:
    static const char* const MESSAGE_OWNER;

    CANTransmitMessageClass();
    // By parameter group number; the channel comes from the control functions.
    CANTransmitMessageClass(uint32_t parameterGroupNumber, const uint8_t* data, uint8_t length,
                            uint8_t priority, ControlFunctionClass* source,
                            ControlFunctionClass* destination, uint8_t destinationAddress,
                            CANCallbackFunction callback, bool immediate);
    // Raw identifier; for 29-bit identifiers without the priority bits.
    CANTransmitMessageClass(uint8_t identifierType, uint32_t identifierBits, const uint8_t* data,
                            uint8_t length, uint8_t priority, uint8_t channel,
                            CANCallbackFunction callback, bool immediate);
    CANTransmitMessageClass(const CANTransmitMessageClass&) = default;
    CANTransmitMessageClass& operator=(const CANTransmitMessageClass&) = default;
    explicit CANTransmitMessageClass(const CANMessageClass& other);

    uint32_t getMessageType() const override { return 2; }
    bool getDataPointer(const uint8_t*& pointer) const override;
    bool getData(uint8_t* buffer, uint32_t capacity) const override;
    bool getData(uint8_t* buffer, uint32_t offset, uint32_t count) const override;
    uint32_t getDataLength() const override { return dataLength; }
    bool isValid() const override { return status == TRANSMIT_STATUS_OK; }
    void updateControlFunctions() override {}

    uint32_t getStatus() const { return status; }
    bool isImmediate() const { return immediate != 0; }
    CANCallbackFunction getCompletionCallback() const { return completionCallback; }
    // Fills in the addresses just before the frame is written.
    bool prepareIdentifierForTransmit();

private:
    void fail(uint32_t code, const char* text, uint8_t severity);

    CANCallbackFunction completionCallback = nullptr;
    uint8_t data[8] = {};
    uint32_t status = TRANSMIT_STATUS_NOT_BUILT;
    uint8_t dataLength = 0;
    uint8_t immediate = 0;
};

// A reassembled message; it does not own its pool block.
class CANLongMessageClass : public CANMessageClass {
public:
    static const char* const MESSAGE_OWNER;

    CANLongMessageClass(uint32_t parameterGroupNumber, uint32_t poolHandle, uint8_t* dataPointer,
                        uint32_t length, ControlFunctionClass* source,
                        ControlFunctionClass* destination, const char* originator);

    uint32_t getMessageType() const override { return 0; }
    bool getDataPointer(const uint8_t*& pointer) const override;
    bool getData(uint8_t* buffer, uint32_t capacity) const override;
    bool getData(uint8_t* buffer, uint32_t offset, uint32_t count) const override;
    uint32_t getDataLength() const override { return dataLength; }
    bool isValid() const override { return valid != 0; }
    void updateControlFunctions() override {}

    uint32_t getPoolHandle() const { return poolHandle; }
    uint8_t* getStoredPointer() const { return dataPointer; }
    const char* getOriginator() const { return originator; }

private:
    uint8_t* dataPointer;
    const char* originator;
    uint32_t dataLength;
    uint32_t poolHandle;
    uint8_t valid = 0;
};

class CANCallbackClass {
public:
    CANCallbackClass(uint32_t handle, bool success) : handle(handle), success(success ? 1 : 0) {}
    virtual ~CANCallbackClass() = default;
    virtual uint32_t getCallbackType() const { return 0; }

    uint32_t getHandle() const { return handle; }
    bool isSuccess() const { return success != 0; }

private:
    uint32_t handle;
    uint8_t success;
};

class CANDataCallbackClass : public CANCallbackClass {
public:
    CANDataCallbackClass(uint32_t handle, bool success, void* pointer)
        : CANCallbackClass(handle, success), pointer(pointer) {}
    uint32_t getCallbackType() const override { return 1; }
    void* getPointer() const { return pointer; }

private:
    void* pointer;
};

class CANFragmentCallbackClass;
typedef bool (*FragmentStoreFunction)(CANFragmentCallbackClass* fragment, void* context);

// Asks the application for the next piece of a long transmit; answered once by setFragmentData.
class CANFragmentCallbackClass : public CANCallbackClass {
public:
    CANFragmentCallbackClass(FragmentStoreFunction store, void* context, uint32_t offset,
                             uint32_t totalLength, uint32_t sequence, uint32_t handle, bool success)
        : CANCallbackClass(handle, success),
          context(context),
          store(store),
          sequence(sequence),
          totalLength(totalLength),
          offset(offset) {}
    uint32_t getCallbackType() const override { return 2; }

    bool setFragmentData(const uint8_t* data, uint32_t length);

    const uint8_t* getFragmentData() const { return dataPointer; }
    uint32_t getFragmentLength() const { return fragmentLength; }
    uint32_t getOffset() const { return offset; }
    uint32_t getTotalLength() const { return totalLength; }
    uint32_t getSequence() const { return sequence; }
    void* getContext() const { return context; }
    bool isFragmentSet() const { return fragmentSet != 0; }
    bool getStoreResult() const { return storeResult != 0; }

private:
    const uint8_t* dataPointer = nullptr;
    void* context;
    FragmentStoreFunction store;
    uint32_t sequence;
    uint32_t totalLength;
    uint32_t offset;
    uint32_t fragmentLength = 0;
    uint8_t storeResult = 0;
    uint8_t fragmentSet = 0;
};

class CANTransmitCallbackClass : public CANCallbackClass {
public:
    CANTransmitCallbackClass(CANTransmitMessageClass* message, uint32_t handle, bool success)
        : CANCallbackClass(handle, success), message(message) {}
    uint32_t getCallbackType() const override { return 3; }
    CANTransmitMessageClass* getMessage() const { return message; }

private:
    CANTransmitMessageClass* message;
};

#endif
