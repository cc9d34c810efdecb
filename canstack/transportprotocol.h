#ifndef CANSTACK_TRANSPORTPROTOCOL_H
#define CANSTACK_TRANSPORTPROTOCOL_H

#include <cstdint>

#include "canstack/canmessage.h"
#include "canstack/canmessagequeue.h"
#include "canstack/canprotocol.h"

class ControlFunctionClass;
class InternalControlFunctionClass;

enum SessionState : uint8_t {
    SESSION_STATE_FREE = 0,
    SESSION_STATE_TAKEN = 1,
    SESSION_STATE_SEND_CLEAR_TO_SEND = 2,
    SESSION_STATE_RECEIVE_DATA = 3,
    SESSION_STATE_SEND_REQUEST_TO_SEND = 4,
    SESSION_STATE_WAIT_FOR_CLEAR_TO_SEND = 5,
    SESSION_STATE_SEND_DATA = 6,
    SESSION_STATE_WAIT_FOR_END_OF_MESSAGE = 7,
};

struct TransportProtocolSession {
    static constexpr uint32_t MAXIMUM_PACKETS_IN_FLIGHT = 20;

    ControlFunctionClass* destination = nullptr;  // null for a broadcast
    ControlFunctionClass* source = nullptr;       // the sender, whichever side this is
    CANCallbackFunction callback = nullptr;
    // Caller's data when sending, or the application's receive storage; null with the pool.
    uint8_t* dataPointer = nullptr;
    uint32_t packetHandles[MAXIMUM_PACKETS_IN_FLIGHT] = {
        0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu,
        0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu,
        0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu};
    uint32_t fragmentSequence = 0;
    uint32_t poolHandle = 0xFFFFFFFFu;
    uint32_t messageHandle = 0xFFFFFFFFu;
    uint32_t parameterGroupNumber = 0xFFFFFF;
    uint32_t timestamp = 0;
    uint16_t bufferedBytes = 0;
    uint16_t bufferOffset = 0;
    uint16_t totalSize = 0;
    uint8_t packetCount = 0;
    // Receiver: packets per CTS. Sender: retransmissions in a row.
    uint8_t pageOrRetryCount = 0;
    uint8_t stopPacket = 0;
    SessionState state = SESSION_STATE_FREE;
};

// Messages of 9 to 1785 bytes in connection mode (RTS, CTS, data, EOM) and broadcast mode
// (BAM, data). Frames are queued on receipt and handled in update; the page being sent lives in
// the memory pool and is refilled through the caller's fragment callback.
class TransportProtocolClass : public CANProtocolClass {
public:
    static constexpr uint32_t MAXIMUM_NUMBER_TRANSPORT_PROTOCOL_SESSIONS = 10;
    static constexpr uint32_t MAXIMUM_NUMBER_RETRANSMISSION_ATTEMPTS = 2;
    static constexpr uint32_t MAXIMUM_NUMBER_PACKETS_PER_TRANSPORT_PROTOCOL_PAGE = 255;
    static_assert(MAXIMUM_NUMBER_TRANSPORT_PROTOCOL_SESSIONS > 0,
                  "Initialize Invalid MAXIMUM_NUMBER_TRANSPORT_PROTOCOL_SESSIONS");
    static_assert(MAXIMUM_NUMBER_RETRANSMISSION_ATTEMPTS < 256,
                  "Initialize Invalid MAXIMUM_NUMBER_RETRANSMISSION_ATTEMPTS");
    static_assert(MAXIMUM_NUMBER_PACKETS_PER_TRANSPORT_PROTOCOL_PAGE > 0 &&
                      MAXIMUM_NUMBER_PACKETS_PER_TRANSPORT_PROTOCOL_PAGE < 256,
                  "Initialize Invalid MAXIMUM_NUMBER_PACKETS_PER_TRANSPORT_PROTOCOL_PAGE");
    static constexpr uint32_t MAXIMUM_PAGE_SIZE =
        MAXIMUM_NUMBER_PACKETS_PER_TRANSPORT_PROTOCOL_PAGE * 7;
    static constexpr uint32_t MINIMUM_MESSAGE_SIZE = 9;
    static constexpr uint32_t MAXIMUM_MESSAGE_SIZE = MAXIMUM_PAGE_SIZE;
    static constexpr uint32_t MAXIMUM_QUEUE_ENTRIES_PER_UPDATE = 50;

    enum ControlByte : uint8_t {
        CONTROL_REQUEST_TO_SEND = 16,
        CONTROL_CLEAR_TO_SEND = 17,
        CONTROL_END_OF_MESSAGE = 19,
        CONTROL_BROADCAST_ANNOUNCE = 32,
        CONTROL_ABORT = 255,
    };
    enum AbortReason : uint8_t {
        ABORT_ALREADY_IN_SESSION = 1,
        ABORT_NO_RESOURCES = 2,
        ABORT_TIMEOUT = 3,
        ABORT_CTS_WHILE_IN_DATA_TRANSFER = 4,
        ABORT_RETRANSMISSION_LIMIT = 5,
        ABORT_UNEXPECTED_DATA = 6,
        ABORT_BAD_SEQUENCE_NUMBER = 7,
        ABORT_DUPLICATE_SEQUENCE_NUMBER = 8,
        ABORT_OTHER = 254,
    };

    static constexpr uint32_t BROADCAST_PACKET_GAP_MS = 51;
    static constexpr uint32_t RECEIVE_PACKET_TIMEOUT_MS = 750;
    static constexpr uint32_t RECEIVE_PAGE_TIMEOUT_MS = 1250;
    static constexpr uint32_t WAIT_CLEAR_TO_SEND_TIMEOUT_MS = 1250;
    static constexpr uint32_t HOLD_CLEAR_TO_SEND_TIMEOUT_MS = 1050;
    static constexpr uint32_t WAIT_END_OF_MESSAGE_TIMEOUT_MS = 1250;
    static constexpr uint32_t GENERIC_TIMEOUT_MS = 1500;

    static const char* const MESSAGE_OWNER;
    static TransportProtocolClass TRANSPORT_PROTOCOL;

    TransportProtocolClass();

    void receiveCANMessage(CANMessageClass* message) override;
    const char* getMessageOwner() const override { return MESSAGE_OWNER; }
    void initialize() override;
    void update() override;

    // The only way in for sending, registered as a transmit function of the stack.
    static uint32_t initializeTransportProtocolTransmit(uint32_t parameterGroupNumber,
                                                        const uint8_t* data, uint32_t length,
                                                        InternalControlFunctionClass* source,
                                                        ControlFunctionClass* destination,
                                                        bool persistent, uint32_t* handleOut,
                                                        CANCallbackFunction callback);
    // Progress of the session (source, destination); out values all ones without one.
    bool getSessionStatus(const ControlFunctionClass* source,
                          const ControlFunctionClass* destination, uint32_t& parameterGroupNumber,
                          uint32_t& bytesDone, uint32_t& totalSize, uint32_t& handle) const;
    // Completion of each data packet sent.
    static void transmitDataComplete(CANCallbackClass* callback);
    // Stores a fragment from the application in the session's pool page.
    static bool setFragmentCallback(CANFragmentCallbackClass* fragment, void* session);

    const TransportProtocolSession& getSession(uint32_t index) const {
        return sessions[index < MAXIMUM_NUMBER_TRANSPORT_PROTOCOL_SESSIONS ? index : 0];
    }
    uint32_t getNumberActiveSessions() const;
    uint32_t getDroppedMessageCount() const { return droppedMessageCount; }
    uint32_t getReceivedMessageCount() const { return receivedMessageCount; }
    uint32_t getQueueHandle() const { return queueHandle; }

private:
    uint32_t startTransmit(uint32_t parameterGroupNumber, const uint8_t* data, uint32_t length,
                           InternalControlFunctionClass* source, ControlFunctionClass* destination,
                           bool persistent, uint32_t* handleOut, CANCallbackFunction callback);
    TransportProtocolSession* findSession(const ControlFunctionClass* source,
                                          const ControlFunctionClass* destination);
    const TransportProtocolSession* findSession(const ControlFunctionClass* source,
                                                const ControlFunctionClass* destination) const;
    TransportProtocolSession* takeSession(ControlFunctionClass* source,
                                          ControlFunctionClass* destination);
    void releaseSession(TransportProtocolSession& session, bool failed);

    // False keeps the entry queued for the next update.
    bool processTransportProtocolMessage(const CAN_MESSAGE_QUEUE_STRUCT& entry);
    bool processDataPacket(const CAN_MESSAGE_QUEUE_STRUCT& entry, ControlFunctionClass* from,
                           InternalControlFunctionClass* to);
    bool processRequestToSend(const CAN_MESSAGE_QUEUE_STRUCT& entry, ControlFunctionClass* from,
                              InternalControlFunctionClass* to);
    bool processBroadcastAnnounce(const CAN_MESSAGE_QUEUE_STRUCT& entry, ControlFunctionClass* from,
                                  InternalControlFunctionClass* to);
    bool processClearToSend(const CAN_MESSAGE_QUEUE_STRUCT& entry, ControlFunctionClass* from,
                            InternalControlFunctionClass* to);
    bool processEndOfMessage(const CAN_MESSAGE_QUEUE_STRUCT& entry, ControlFunctionClass* from,
                             InternalControlFunctionClass* to);
    bool processAbort(const CAN_MESSAGE_QUEUE_STRUCT& entry, ControlFunctionClass* from,
                      InternalControlFunctionClass* to);
    bool processInvalidCommand(ControlFunctionClass* from, InternalControlFunctionClass* to);

    void updateSession(TransportProtocolSession& session);
    void sendData(TransportProtocolSession& session);
    bool getNextDataPacket(TransportProtocolSession& session, uint8_t* packet);
    uint32_t getNextDataPage(TransportProtocolSession& session);

    // These return the result code of the send.
    static uint32_t sendConnectionAbort(ControlFunctionClass* from, ControlFunctionClass* to,
                                        uint8_t reason, uint32_t parameterGroupNumber);
    static uint32_t sendConnectionManagement(ControlFunctionClass* from, ControlFunctionClass* to,
                                             const uint8_t* data);
    static uint32_t sendClearToSend(const TransportProtocolSession& session, uint8_t packets,
                                    uint8_t nextPacket);

    TransportProtocolSession sessions[MAXIMUM_NUMBER_TRANSPORT_PROTOCOL_SESSIONS];
    uint32_t droppedMessageCount = 0;
    uint32_t queueHandle;
    uint32_t receivedMessageCount = 0;
    uint8_t messagePending = 0;
    uint8_t sessionsActive = 0;
    HeldEntry heldEntry;
};

#endif
