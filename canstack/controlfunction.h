#ifndef CANSTACK_CONTROLFUNCTION_H
#define CANSTACK_CONTROLFUNCTION_H

#include <cstdint>

#include "canstack/canprotocol.h"
#include "canstack/name.h"

class CANMessageClass;
class RegisteredControlFunctionClass;
struct CONTROL_FUNCTION_LOST_DEVICE_STRUCT;
class UnregisteredControlFunctionClass;

// A node on a channel: type 0 internal, 1 registered, 2 unregistered.
class ControlFunctionClass {
public:
    static const char* const MESSAGE_OWNER;

    ControlFunctionClass(NAMEClass name, uint8_t address, uint8_t channel);
    ControlFunctionClass(const ControlFunctionClass&) = delete;
    ControlFunctionClass& operator=(const ControlFunctionClass&) = delete;
    virtual ~ControlFunctionClass();

    virtual uint8_t getType() const = 0;
    virtual bool isAddressValid() const = 0;
    virtual void reset() = 0;

    NAMEClass getNAME() const { return NAME; }
    uint8_t getChannel() const { return channel; }
    uint8_t getAddress() const { return address; }
    uint8_t getNumberNAMEFields() const { return numberNAMEFields; }
    uint8_t getNumberParameterGroupNumberCallbacks() const {
        return numberParameterGroupNumberCallbacks;
    }

    // Exchanges identity (address, NAME, table column) with another function on the channel.
    bool swapWith(ControlFunctionClass* other);

protected:
    friend class NetworkManagementClass;
    friend class DynamicRegisteredControlFunctionClass;
    // Clears this function's table column if it stands there.
    void leaveTable();
    void enterTable();
    // Every change of NAME goes through here: the lost list is indexed by NAME.
    void changeNAME(NAMEClass name);

    NAMEClass NAME;
    uint8_t channel;
    uint8_t address;
    uint8_t numberNAMEFields = 0;
    uint8_t numberParameterGroupNumberCallbacks = 0;
    // This function's node in the lost list, null when not listed.
    CONTROL_FUNCTION_LOST_DEVICE_STRUCT* lostDevice = nullptr;
};

struct PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT {
    CANMessageCallbackFunction function;
    ReceiveCANMessageCallbackClass* object;
    uint32_t parameterGroupNumber;
};

struct INVALID_REGISTERED_CONTROL_FUNCTION_STRUCT {
    RegisteredControlFunctionClass* registeredControlFunction;
    UnregisteredControlFunctionClass* unregisteredControlFunction;
    INVALID_REGISTERED_CONTROL_FUNCTION_STRUCT* next;
};

typedef void (*NewRegisteredControlFunctionCallback)(RegisteredControlFunctionClass* function,
                                                     uint8_t numberCreated);

// A remote node the application cares about, bound to a device by NAME fields, address or NAME.
class RegisteredControlFunctionClass : public ControlFunctionClass {
public:
    static const char* const MESSAGE_OWNER;

    RegisteredControlFunctionClass(uint8_t channel, const NAMEFieldEntry* list, uint8_t count,
                                   NewRegisteredControlFunctionCallback callback = nullptr);
    RegisteredControlFunctionClass(uint8_t channel, uint8_t address,
                                   NewRegisteredControlFunctionCallback callback = nullptr);
    RegisteredControlFunctionClass(uint8_t channel, NAMEClass name,
                                   NewRegisteredControlFunctionCallback callback = nullptr);
    ~RegisteredControlFunctionClass() override;

    uint8_t getType() const override { return 1; }
    bool isAddressValid() const override { return address <= 253; }
    void reset() override;

    bool bindByNAMEFields(const NAMEFieldEntry* list, uint8_t count);
    bool bindByAddress(uint8_t newAddress);
    bool bindByNAME(NAMEClass name);

    const NAMEFieldEntry* getNAMEFields() const { return NAMEFieldList; }
    uint32_t getLastReceiveTimestamp() const { return lastReceiveTimestamp; }
    void setLastReceiveTimestamp(uint32_t ms) { lastReceiveTimestamp = ms; }

    PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT* addParameterGroupNumberCallback(
        uint32_t parameterGroupNumber, CANMessageCallbackFunction function,
        ReceiveCANMessageCallbackClass* object);
    bool removeParameterGroupNumberCallback(PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT* node);
    void removeParameterGroupNumberCallbacks(ReceiveCANMessageCallbackClass* object);
    static void removeParameterGroupNumberCallbacksOfObject(ReceiveCANMessageCallbackClass* object);
    void dispatchMessage(CANMessageClass* message);

    static bool getRegisteredControlFunction(uint16_t index,
                                             RegisteredControlFunctionClass*& function);
    static uint16_t getNumberRegisteredControlFunctions() {
        return numberRegisteredControlFunctions;
    }
    static bool addInvalidRegisteredControlFunction(RegisteredControlFunctionClass* registered,
                                                    UnregisteredControlFunctionClass* other);

    static RegisteredControlFunctionClass** registeredControlFunctionList;
    static uint16_t numberRegisteredControlFunctions;
    static INVALID_REGISTERED_CONTROL_FUNCTION_STRUCT* invalidRegisteredControlFunctionList;
    static uint16_t numberInvalidRegisteredControlFunctions;
    // Drops the pairs naming a forgotten device.
    static void removeInvalidRegisteredControlFunctions(UnregisteredControlFunctionClass* other);

private:
    friend class NetworkManagementClass;
    void addToList();
    // Leaves behind an unregistered function for the device this object stood for.
    void handOver();
    void becomeUnbound();

    const NAMEFieldEntry* NAMEFieldList = nullptr;
    PARAMETER_GROUP_NUMBER_CALLBACK_STRUCT** parameterGroupNumberCallbacks = nullptr;
    uint32_t lastReceiveTimestamp = 0;
};

// A device that claimed an address and that no registered control function wants.
class UnregisteredControlFunctionClass : public ControlFunctionClass {
public:
    UnregisteredControlFunctionClass(NAMEClass name, uint8_t address, uint8_t channel)
        : ControlFunctionClass(name, address, channel) {}

    uint8_t getType() const override { return 2; }
    bool isAddressValid() const override { return address <= 253; }
    void reset() override;

    // How the stack makes one: from a function it forgot earlier when it has one, so that a
    // flood of new NAMEs reuses memory; null when memory runs out.
    static UnregisteredControlFunctionClass* create(NAMEClass name, uint8_t address,
                                                    uint8_t channel);
    static uint32_t getNumberForgotten() { return numberForgotten; }

private:
    friend class NetworkManagementClass;
    friend class RegisteredControlFunctionClass;
    // Called once the lost list has let go of it. The stack never deletes what it made, since
    // queued frames and sessions may still point here: its own go back to the stack for reuse.
    void forget();

    static UnregisteredControlFunctionClass* forgottenList;
    static uint32_t numberForgotten;
    UnregisteredControlFunctionClass* nextForgotten = nullptr;
    bool madeByStack = false;
    bool waitingForReuse = false;
    bool paired = false;  // stands in invalidRegisteredControlFunctionList
};

// Creates registered control functions on demand for devices matching a NAME field list.
class DynamicRegisteredControlFunctionClass {
public:
    static const char* const MESSAGE_OWNER;

    DynamicRegisteredControlFunctionClass(uint8_t channel, const NAMEFieldEntry* list,
                                          uint8_t count,
                                          NewRegisteredControlFunctionCallback callback,
                                          uint8_t maximum);
    DynamicRegisteredControlFunctionClass(const DynamicRegisteredControlFunctionClass&) = delete;
    DynamicRegisteredControlFunctionClass& operator=(const DynamicRegisteredControlFunctionClass&) =
        delete;
    ~DynamicRegisteredControlFunctionClass();

    uint8_t getChannel() const { return channel; }
    uint8_t getNumberCreated() const { return numberCreated; }
    uint8_t getMaximum() const { return maximum; }
    bool matches(uint8_t channel, NAMEClass name) const;
    // Counts one created function and tells the application; false at the maximum.
    RegisteredControlFunctionClass* create(NAMEClass name, uint8_t address);

    static bool getDynamicRegisteredControlFunction(uint16_t index,
                                                    DynamicRegisteredControlFunctionClass*& record);
    static uint16_t getNumberDynamicRegisteredControlFunctions() {
        return numberDynamicRegisteredControlFunctions;
    }

    static DynamicRegisteredControlFunctionClass** dynamicRegisteredControlFunctionList;
    static uint16_t numberDynamicRegisteredControlFunctions;

private:
    const NAMEFieldEntry* NAMEFieldList;
    NewRegisteredControlFunctionCallback callback;
    uint8_t channel;
    uint8_t maximum;
    uint8_t numberNAMEFields;
    uint8_t numberCreated = 0;
};

#endif
