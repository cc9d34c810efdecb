#ifndef CANSTACK_CANPROTOCOL_H
#define CANSTACK_CANPROTOCOL_H

#include <cstdint>

class CANMessageClass;
class CANProtocolClass;
class ReceiveCANMessageCallbackClass;

// Receives a message; the object is null when the callback was registered without one.
typedef void (*CANMessageCallbackFunction)(CANMessageClass* message,
                                           ReceiveCANMessageCallbackClass* object);

// Anything that receives messages from the stack. Leaving, it takes itself out of every table.
class ReceiveCANMessageCallbackClass {
public:
    ReceiveCANMessageCallbackClass() = default;
    ReceiveCANMessageCallbackClass(const ReceiveCANMessageCallbackClass&) = default;
    ReceiveCANMessageCallbackClass& operator=(const ReceiveCANMessageCallbackClass&) = default;
    virtual ~ReceiveCANMessageCallbackClass();
    virtual void receiveCANMessage(CANMessageClass* message) = 0;
};

struct CAN_PROTOCOL_STRUCT {
    CANProtocolClass* protocol;
    CAN_PROTOCOL_STRUCT* next;
};

// A protocol is started by the first update after its construction.
class CANProtocolClass : public ReceiveCANMessageCallbackClass {
public:
    static const char* const MESSAGE_OWNER;

    CANProtocolClass();
    CANProtocolClass(const CANProtocolClass&) = delete;
    CANProtocolClass& operator=(const CANProtocolClass&) = delete;
    ~CANProtocolClass() override;

    virtual const char* getMessageOwner() const { return MESSAGE_OWNER; }
    virtual void initialize() = 0;
    virtual void update() = 0;

    static bool getCANProtocol(uint32_t index, CANProtocolClass*& protocol);
    static uint32_t getNumberCANProtocols();

    static CAN_PROTOCOL_STRUCT* uninitializedCANProtocolList;
    static CAN_PROTOCOL_STRUCT* initializedCANProtocolList;
};

typedef void (*CANInitializeFunction)();

struct CAN_INITIALIZE_STRUCT {
    CANInitializeFunction function;
    CAN_INITIALIZE_STRUCT* next;
};

// Registers a function that the next update runs once.
class CANInitializeClass {
public:
    static const char* const MESSAGE_OWNER;
    explicit CANInitializeClass(CANInitializeFunction function);
    bool isValid() const { return valid; }

    static CAN_INITIALIZE_STRUCT* uninitializedCANInitializeList;

private:
    bool valid = false;
};

#endif
