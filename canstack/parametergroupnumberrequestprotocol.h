#ifndef CANSTACK_PARAMETERGROUPNUMBERREQUESTPROTOCOL_H
#define CANSTACK_PARAMETERGROUPNUMBERREQUESTPROTOCOL_H

#include <cstdint>

#include "canstack/canmessagequeue.h"
#include "canstack/canprotocol.h"
#include "canstack/networkmanagement.h"

class ControlFunctionClass;
class InternalControlFunctionClass;

struct EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT {
    EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT* next;
    uint32_t parameterGroupNumber;
};

// Answers Requests (0xEA00) for the internal control functions with data from the load
// callbacks or an Acknowledgement (0xE800); a reply that cannot go out at once waits in a
// small session table and is retried until it goes or its timers end it.
class ParameterGroupNumberRequestProtocolClass : public CANProtocolClass {
public:
    static constexpr uint32_t MAXIMUM_NUMBER_PARAMETER_GROUP_NUMBER_REQUEST_SESSIONS = 10;
    static_assert(MAXIMUM_NUMBER_PARAMETER_GROUP_NUMBER_REQUEST_SESSIONS > 0,
                  "MAXIMUM_NUMBER_PARAMETER_GROUP_NUMBER_REQUEST_SESSIONS has to be greater "
                  "than 0");
    static constexpr uint32_t MAXIMUM_QUEUE_ENTRIES_PER_UPDATE = 50;
    static constexpr uint32_t CANNOT_RESPOND_TIMEOUT_MS = 1000;
    static constexpr uint32_t POINT_TO_POINT_TIMEOUT_MS = 1500;

    enum AcknowledgementControl : uint8_t {
        ACKNOWLEDGEMENT_POSITIVE = 0,
        ACKNOWLEDGEMENT_NEGATIVE = 1,
        ACKNOWLEDGEMENT_CANNOT_RESPOND = 3,
    };
    enum RequestSessionState : uint32_t {
        REQUEST_SESSION_FREE = 0,
        REQUEST_SESSION_TAKEN = 1,
        REQUEST_SESSION_WAITING_TO_SEND = 2,
    };

    struct RequestSession {
        ControlFunctionClass* destination = nullptr;  // null for a global request
        InternalControlFunctionClass* responder = nullptr;
        ControlFunctionClass* requester = nullptr;
        uint32_t parameterGroupNumber = 0xFFFFFF;
        uint32_t timestamp = 0;
        uint32_t state = REQUEST_SESSION_FREE;
        uint8_t selectors[2] = {255, 255};
    };

    static const char* const MESSAGE_OWNER;
    static ParameterGroupNumberRequestProtocolClass PARAMETER_GROUP_NUMBER_REQUEST_PROTOCOL;
    static EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT* externallyHandledParameterGroupNumberRequests;

    ParameterGroupNumberRequestProtocolClass();

    void receiveCANMessage(CANMessageClass* message) override;
    const char* getMessageOwner() const override { return MESSAGE_OWNER; }
    void initialize() override;
    void update() override;

    // A PGN on this list is answered by someone else and ignored here.
    static EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT* addExternallyHandled(
        uint32_t parameterGroupNumber);
    static bool removeExternallyHandled(EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT* node);
    static bool isExternallyHandled(uint32_t parameterGroupNumber);

    // Sends a Request for the PGN; a null destination asks everyone.
    static bool requestParameterGroupNumber(uint32_t parameterGroupNumber,
                                            InternalControlFunctionClass* source,
                                            ControlFunctionClass* destination);

    const RequestSession& getSession(uint32_t index) const {
        return sessions[index < MAXIMUM_NUMBER_PARAMETER_GROUP_NUMBER_REQUEST_SESSIONS ? index : 0];
    }
    uint32_t getNumberActiveSessions() const;
    uint32_t getCannotRespondCount() const { return cannotRespondCount; }
    uint32_t getDroppedRequestCount() const { return droppedRequestCount; }
    uint32_t getDroppedNoSessionCount() const { return droppedNoSessionCount; }
    uint32_t getNegativeAcknowledgementCount() const { return negativeAcknowledgementCount; }
    uint32_t getPositiveAcknowledgementCount() const { return positiveAcknowledgementCount; }
    uint32_t getReceivedRequestCount() const { return receivedRequestCount; }
    uint32_t getQueueHandle() const { return queueHandle; }

private:
    // False keeps the entry queued for the next update.
    bool processQueueEntry(const CAN_MESSAGE_QUEUE_STRUCT& entry);
    bool processRequest(ControlFunctionClass* requester, ControlFunctionClass* destination,
                        uint32_t parameterGroupNumber, uint8_t selector0, uint8_t selector1);
    // One responder's answer; false only when an acknowledgement could not be sent.
    bool respond(InternalControlFunctionClass* responder, ControlFunctionClass* requester,
                 ControlFunctionClass* destination, uint32_t parameterGroupNumber,
                 uint8_t selector0, uint8_t selector1);
    RequestSession* findPendingSession(InternalControlFunctionClass* responder,
                                       ControlFunctionClass* requester,
                                       uint32_t parameterGroupNumber, uint8_t selector0,
                                       uint8_t selector1, uint32_t dataLength);
    RequestSession* takeSession();
    void updateSession(RequestSession& session);
    static void freeSession(RequestSession& session);
    static bool sendAcknowledgement(InternalControlFunctionClass* responder,
                                    ControlFunctionClass* requester, uint8_t control,
                                    uint32_t parameterGroupNumber);
    static uint32_t sendData(InternalControlFunctionClass* responder,
                             ControlFunctionClass* destination, uint32_t parameterGroupNumber,
                             const LoadParameterGroupNumberData& data);

    RequestSession sessions[MAXIMUM_NUMBER_PARAMETER_GROUP_NUMBER_REQUEST_SESSIONS];
    uint32_t cannotRespondCount = 0;
    uint32_t droppedRequestCount = 0;
    uint32_t droppedNoSessionCount = 0;
    uint32_t negativeAcknowledgementCount = 0;
    uint32_t positiveAcknowledgementCount = 0;
    uint32_t queueHandle;
    uint32_t receivedRequestCount = 0;
    uint8_t messagePending = 0;
    uint8_t sessionsActive = 0;
    HeldEntry heldEntry;
};

#endif
