#ifndef CANSTACK_NETWORKMANAGEMENT_H
#define CANSTACK_NETWORKMANAGEMENT_H

#include <cstdint>

#include "canstack/canmessage.h"
#include "canstack/canprotocol.h"
#include "canstack/name.h"

class ControlFunctionClass;
class InternalControlFunctionClass;

// Result codes of the send operations; 2 to 12 are the message status.
enum SendResult : uint32_t {
    SEND_SUCCESS = 0,
    SEND_IDENTIFIER_TYPE_INVALID = 1,
    SEND_TRANSMIT_REFUSED = 13,
    SEND_NOT_TAKEN = 14,
    SEND_SESSION_EXISTS = 15,
    SEND_NO_FREE_SESSION = 16,
    SEND_MEMORY_POOL_FAILURE = 17,
    SEND_NO_CALLBACK = 18,
    SEND_NOT_INITIALIZED = 19,
    SEND_FRAGMENT_CALLBACK_FAILED = 20,
    SEND_DATA_NOT_PRODUCED = 21,
};

typedef bool (*TransmitCANMessageFunction)(CANTransmitMessageClass* message);
// Long-message transmitter: returns 14 when it does not take the message.
typedef uint32_t (*TransmitFunction)(uint32_t parameterGroupNumber, const uint8_t* data,
                                     uint32_t length, InternalControlFunctionClass* source,
                                     ControlFunctionClass* destination, bool persistent,
                                     uint32_t* handleOut, CANCallbackFunction callback);
typedef void (*NewControlFunctionFunction)(ControlFunctionClass* function, void* parameter);

// Out values of a load callback, preset before the walk.
struct LoadParameterGroupNumberData {
    const uint8_t* data = nullptr;
    uint32_t length = 0;
    uint8_t priority = 6;
    bool persistent = false;
    uint32_t* handleOut = nullptr;
    CANCallbackFunction callback = nullptr;
};
// Returns 1 when it filled the out values, 2 when it cannot respond for now, 0 not handled.
typedef uint32_t (*LoadParameterGroupNumberDataFunction)(uint32_t parameterGroupNumber,
                                                         InternalControlFunctionClass* source,
                                                         ControlFunctionClass* destination,
                                                         uint8_t selector0, uint8_t selector1,
                                                         LoadParameterGroupNumberData* out);

struct GLOBAL_RECEIVE_CALLBACK_STRUCT {
    CANMessageCallbackFunction function;
    ReceiveCANMessageCallbackClass* object;
    uint32_t parameterGroupNumber;
};

struct NEW_CONTROL_FUNCTION_CALLBACK_STRUCT {
    NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* next;
    NewControlFunctionFunction function;
    void* parameter;
};

struct LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT {
    LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT* next;
    LoadParameterGroupNumberDataFunction function;
    ControlFunctionClass* controlFunction;
    uint32_t parameterGroupNumber;
};

struct CONTROL_FUNCTION_LOST_DEVICE_STRUCT {
    CONTROL_FUNCTION_LOST_DEVICE_STRUCT* next;
    ControlFunctionClass* controlFunction;
    // The rest keeps every operation on the list constant-time however long a flood of new
    // NAMEs makes it.
    CONTROL_FUNCTION_LOST_DEVICE_STRUCT* previous;
    CONTROL_FUNCTION_LOST_DEVICE_STRUCT* nextWithSameKey;  // index by channel and NAME
    // Unregistered functions of one channel, oldest first: the ones that may be forgotten.
    CONTROL_FUNCTION_LOST_DEVICE_STRUCT* nextForgettable;
    CONTROL_FUNCTION_LOST_DEVICE_STRUCT* previousForgettable;
    uint64_t position;  // rises along the list, so that the first of equal NAMEs is found
    uint32_t indexSlot;
    bool forgettable;
};

// Centre of the stack: address table, update cycle, receive routing and send operations.
class NetworkManagementClass {
public:
    static constexpr uint8_t NUMBER_ADDRESSES = 254;
    static const char* const MESSAGE_OWNER;
    static NetworkManagementClass NETWORK_MANAGEMENT;

    static void update();
    static void receiveMessage(CANMessageClass* message);
    static void transmitComplete(CANTransmitMessageClass* message, bool success);
    // True when the message brought up a new device.
    static bool processNetworkManagementMessage(CANMessageClass* message, bool received);

    static uint32_t sendMessage(uint8_t identifierType, uint32_t identifierOrPGN,
                                const uint8_t* data, uint32_t length, uint8_t channel,
                                InternalControlFunctionClass* source,
                                ControlFunctionClass* destination, uint8_t destinationAddress,
                                uint8_t priority, bool persistent, uint32_t* handleOut,
                                CANCallbackFunction callback, bool immediate);
    static uint32_t sendParameterGroupNumber(uint32_t parameterGroupNumber, const uint8_t* data,
                                             uint32_t length, InternalControlFunctionClass* source,
                                             ControlFunctionClass* destination, uint8_t priority,
                                             bool persistent = false, uint32_t* handleOut = nullptr,
                                             CANCallbackFunction callback = nullptr,
                                             bool immediate = false);
    static uint32_t sendParameterGroupNumber(uint32_t parameterGroupNumber, const uint8_t* data,
                                             uint32_t length, InternalControlFunctionClass* source,
                                             uint8_t destinationAddress, uint8_t priority,
                                             bool persistent = false, uint32_t* handleOut = nullptr,
                                             CANCallbackFunction callback = nullptr,
                                             bool immediate = false);
    static uint32_t sendStandardMessage(uint32_t identifier, const uint8_t* data, uint32_t length,
                                        uint8_t channel, bool immediate = false,
                                        uint32_t* handleOut = nullptr,
                                        CANCallbackFunction callback = nullptr);
    static uint32_t sendParameterGroupNumberFromCallback(uint32_t parameterGroupNumber,
                                                         InternalControlFunctionClass* source,
                                                         ControlFunctionClass* destination,
                                                         uint8_t selector0 = 255,
                                                         uint8_t selector1 = 255);
    // Stores a fragment in the caller's buffer given as context.
    static bool setFragmentCallback(CANFragmentCallbackClass* fragment, void* context);

    // Load callbacks: three passes, the first nonzero result ends the walk.
    static uint32_t loadParameterGroupNumberData(uint32_t parameterGroupNumber,
                                                 InternalControlFunctionClass* source,
                                                 ControlFunctionClass* destination,
                                                 uint8_t selector0, uint8_t selector1,
                                                 LoadParameterGroupNumberData& out);
    static LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT* addLoadParameterGroupNumberDataCallback(
        LoadParameterGroupNumberDataFunction function, uint32_t parameterGroupNumber = 0xFFFFFF,
        ControlFunctionClass* controlFunction = nullptr);
    static bool removeLoadParameterGroupNumberDataCallback(
        LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT* node);

    static bool addTransmitFunction(TransmitFunction function);
    static bool removeTransmitFunction(TransmitFunction function);

    static GLOBAL_RECEIVE_CALLBACK_STRUCT* addGlobalReceiveCallback(
        uint32_t parameterGroupNumber, CANMessageCallbackFunction function,
        ReceiveCANMessageCallbackClass* object, uint8_t channel);
    static bool addGlobalReceiveCallback(uint32_t parameterGroupNumber,
                                         CANMessageCallbackFunction function);
    static bool addGlobalReceiveCallback(uint32_t parameterGroupNumber,
                                         CANMessageCallbackFunction function,
                                         ReceiveCANMessageCallbackClass* object);
    static bool addGlobalReceiveCallback(uint32_t parameterGroupNumber,
                                         ReceiveCANMessageCallbackClass* object);
    static bool removeGlobalReceiveCallback(GLOBAL_RECEIVE_CALLBACK_STRUCT* node);
    static void removeGlobalReceiveCallbacks(ReceiveCANMessageCallbackClass* object);

    static NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* addNewControlFunctionCallback(
        NewControlFunctionFunction function, void* parameter = nullptr);
    static bool removeNewControlFunctionCallback(NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* node);

    // Lookups over the address table and the lost list.
    static bool findControlFunctionByNAME(NAMEClass name, uint8_t channel,
                                          ControlFunctionClass*& function);
    static uint16_t countControlFunctionsByNAMEFields(const NAMEFieldEntry* list, uint8_t count,
                                                      uint8_t channel);
    static bool findControlFunctionByNAMEFields(uint16_t index, const NAMEFieldEntry* list,
                                                uint8_t count, uint8_t channel,
                                                ControlFunctionClass*& function);
    static ControlFunctionClass* getControlFunction(uint8_t channel, uint8_t address);
    // True when both channels show the same NAMEs at every address.
    static bool compareChannels(uint8_t first, uint8_t second);

    // Unregistered functions remembered without an address, per channel. Past this the
    // oldest is forgotten: a device that claims again later comes up as a new one.
    static constexpr uint32_t MAXIMUM_NUMBER_FORGETTABLE_LOST_DEVICES = 1024;
    static constexpr uint32_t LOST_DEVICE_INDEX_SIZE = 4096;

    static bool addLostDevice(ControlFunctionClass* function);
    static bool removeLostDevice(ControlFunctionClass* function);
    static bool isLostDevice(const ControlFunctionClass* function);
    static bool getLostDevice(uint32_t index, ControlFunctionClass*& function);
    static uint32_t getNumberLostDevices() { return numberLostDevices; }
    // Unregistered ones on a channel, those counted against the maximum.
    static uint32_t getNumberForgettableLostDevices(uint8_t channel);

    static bool isInitialized() { return networkManagementIsInitialized; }

    static bool networkManagementIsInitialized;
    static uint32_t updateTimestamp;
    static TransmitCANMessageFunction TransmitCANMessage;
    static TransmitFunction* transmitFunctions;
    static uint16_t numberTransmitFunctions;
    static GLOBAL_RECEIVE_CALLBACK_STRUCT** globalReceiveCallbacks[NUMBER_CAN_CHANNELS];
    static uint16_t numberGlobalReceiveCallbacks[NUMBER_CAN_CHANNELS];
    static NEW_CONTROL_FUNCTION_CALLBACK_STRUCT* newControlFunctionCallbacks;
    static LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT* loadParameterGroupNumberDataCallbacks;
    static CONTROL_FUNCTION_LOST_DEVICE_STRUCT* controlFunctionLostDevices;
    static ControlFunctionClass* controlFunctionTable[NUMBER_CAN_CHANNELS][NUMBER_ADDRESSES];

private:
    friend class ControlFunctionClass;
    // First lost function of the channel with this NAME, in list order.
    static ControlFunctionClass* findLostDevice(NAMEClass name, uint8_t channel);
    // Files a listed function again under the NAME it now has.
    static void refileLostDevice(ControlFunctionClass* function);
    static void unlinkLostDevice(CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node);
    static void fileLostDevice(CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node);
    static void unfileLostDevice(CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node);
    static CONTROL_FUNCTION_LOST_DEVICE_STRUCT* forgetOldestLostDevice(uint8_t channel);

    static CONTROL_FUNCTION_LOST_DEVICE_STRUCT* lostDevicesTail;
    static uint32_t numberLostDevices;
    static uint64_t lostDevicePositions;
    static CONTROL_FUNCTION_LOST_DEVICE_STRUCT* lostDeviceIndex[LOST_DEVICE_INDEX_SIZE];
    static CONTROL_FUNCTION_LOST_DEVICE_STRUCT* oldestForgettable[NUMBER_CAN_CHANNELS];
    static CONTROL_FUNCTION_LOST_DEVICE_STRUCT* newestForgettable[NUMBER_CAN_CHANNELS];
    static uint32_t numberForgettableLostDevices[NUMBER_CAN_CHANNELS];

    static void updateInternalControlFunctions();
    static void runFilteredCallbacks(CANMessageClass* message);
    static void callNewControlFunctionCallbacks(ControlFunctionClass* function);
    static bool processAddressClaim(CANMessageClass* message, bool received);
    static uint32_t transmit(CANTransmitMessageClass& message, uint32_t* handleOut,
                             InternalControlFunctionClass* source);
};

#endif
