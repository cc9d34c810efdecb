#include "canstack/transportprotocol.h"

#include <cstring>

#include "canstack/canidentifier.h"
#include "canstack/controlfunction.h"
#include "canstack/internalcontrolfunction.h"
#include "canstack/networkmanagement.h"
#include "canstack/networkmanagementmemorypool.h"
#include "canstack/networkmanagementstatistics.h"
#include "canstack/networkmanagementutilities.h"

namespace {

using Pool = NetworkManagementMemoryPoolClass;
using Utilities = NetworkManagementUtilitiesClass;

constexpr uint32_t NO_HANDLE = 0xFFFFFFFFu;
constexpr uint32_t NO_PGN = 0xFFFFFF;
constexpr uint8_t CONNECTION_MANAGEMENT_PRIORITY = 6;
constexpr uint8_t DATA_TRANSFER_PRIORITY = 7;
constexpr uint32_t BYTES_PER_PACKET = 7;

// Receive side.
const char* const RTS_ALREADY_IN_SESSION = "RTS Already in Session";
const char* const RTS_TO_GLOBAL = "RTS to Global";
const char* const RTS_NO_SESSIONS = "RTS No Sessions Available";
const char* const REQUEST_MEMORY_POOL_FAILURE = "Request Memory Pool Failure";
const char* const RTS_REQUEST_MEMORY_POOL_FAILURE = "RTS Request Memory Pool Failure";
const char* const BAM_ALREADY_IN_SESSION = "BAM Already in Session";
const char* const BAM_POINT_TO_POINT = "BAM Point to Point";
const char* const BAM_NO_SESSIONS = "BAM No Sessions Available";
const char* const BAM_REQUEST_MEMORY_POOL_FAILURE = "BAM Request Memory Pool Failure";
const char* const RECEIVE_DATA_DUPLICATE = "Receive Data Duplicate Sequence Number";
const char* const RECEIVE_DATA_BAD_SEQUENCE = "Receive Data Bad Sequence Number";
const char* const RECEIVE_DATA_NOT_READY = "Receive Data Not Ready for Data";
const char* const RECEIVE_DATA_NOT_IN_SESSION = "Receive Data Not in Session";
const char* const RECEIVE_DATA_TIMEOUT = "Receive Data Timeout";
const char* const FAILED_COPYING_DATA = "Failed Copying Data to Memory Pool";
// Send side.
const char* const CTS_PACKETS_INVALID = "CTS Packets to be sent invalid";
const char* const CTS_RETRY_LIMIT = "CTS Retry Limit Exceeded";
const char* const CTS_PGN_MISMATCH = "CTS PGN Mismatch";
const char* const CTS_WHILE_IN_DATA_TRANSFER = "CTS while in Data Transfer";
const char* const CTS_NOT_IN_SESSION = "CTS Not in Session";
const char* const CTS_TO_GLOBAL = "CTS to Global";
const char* const CTS_FAILED_NEXT_DATA_PAGE = "CTS Failed Next Data Page";
const char* const EOM_INVALID_CONTENTS = "EOM Acknowledgement Invalid Contents";
const char* const EOM_NOT_IN_SESSION = "EOM Acknowledgement Not in Session";
const char* const EOM_TO_GLOBAL = "EOM Acknowledgement to Global";
const char* const WAIT_CLEAR_TO_SEND_TIMEOUT = "Wait Clear to Send Timeout";
const char* const WAIT_FOR_ACKNOWLEDGEMENT_TIMEOUT = "Wait for Acknowledgement Timeout";
const char* const TRANSMIT_NO_SESSIONS = "Transmit No Available Sessions";
const char* const TRANSMIT_DATA_POINTER_NULL = "Transmit Data Pointer NULL";
const char* const TRANSMIT_MEMORY_POOL_FAILURE = "Transmit Memory Pool Failure";
const char* const TRANSMIT_CALLBACK_NULL = "Transmit Complete Callback NULL";
const char* const TRANSMIT_REQUEST_MEMORY_POOL_FAILURE = "Transmit Request Memory Pool Failure";
const char* const TRANSMIT_FAILED_NEXT_DATA_PAGE = "Transmit Failed Next Data Page";
const char* const TRANSMIT_DATA_FAILED_NEXT_PACKET = "Transmit Data Failed Get Next Packet";
const char* const INVALID_DATA_LOCATION = "Invalid Data Location getNextDataPacket";
const char* const INVALID_POOL_OFFSET = "Invalid Pool Offset getNextDataPage";
const char* const INVALID_MOVE_DATA = "Invalid Move Data getNextDataPage";
const char* const NULL_CALLBACK_NEXT_DATA_PAGE = "NULL Transmit Complete Callback getNextDataPage";
const char* const INVALID_CALLBACK_NEXT_DATA_PAGE =
    "Invalid Transmit Complete Callback getNextDataPage";
const char* const INVALID_FRAGMENT_ALLOCATION =
    "Invalid Transmit Complete Memory Allocation getNextDataPage";
const char* const INVALID_FRAGMENT_LENGTH =
    "Invalid Memory Pool Callback Fragment Length getNextDataPage";
const char* const INVALID_ZERO_FRAGMENTS =
    "Invalid Number Consecutive Zero Sized Fragments getNextDataPage";
const char* const INVALID_DATA_LENGTH = "Invalid Memory Pool Callback Data Length getNextDataPage";
// Either side.
const char* const CONNECTION_ABORT_RECEIVED = "Connection Abort Message Received";
const char* const RECEIVE_SESSION_ABORTED = "Receive Session Aborted";
const char* const TRANSMIT_SESSION_ABORTED = "Transmit Session Aborted";
const char* const GENERIC_TIMEOUT = "Generic Timeout";
const char* const DROPPED_MESSAGE = "Dropped Message";
const char* const INVALID_COMMAND = "Invalid Command Multiplexor";
const char* const INVALID_SOURCE = "Received From Invalid Source Control Function";
const char* const INVALID_PGN = "Invalid PGN";

void report(const char* text, uint8_t severity) {
    NetworkManagementStatisticsClass::addDescriptionMessage(TransportProtocolClass::MESSAGE_OWNER,
                                                            text, severity);
}

uint32_t now() {
    return Utilities::Timestamp_ms();
}

// What an RTS or BAM may announce. Sequence numbers end at 255 packets, so a larger message
// could never complete: it would only hold its pool blocks (all 50 for 5000 bytes) for as long
// as its sender kept the sequence going round.
bool fitsInSession(uint32_t size) {
    return size <= TransportProtocolClass::MAXIMUM_MESSAGE_SIZE;
}

uint32_t packetsFor(uint32_t size) {
    return size == 0 ? 0 : (size - 1u) / BYTES_PER_PACKET + 1u;
}

uint32_t pgnFromBytes(const uint8_t* data) {
    return static_cast<uint32_t>(data[5]) | (static_cast<uint32_t>(data[6]) << 8) |
           (static_cast<uint32_t>(data[7]) << 16);
}

void putPGN(uint8_t* data, uint32_t parameterGroupNumber) {
    data[5] = static_cast<uint8_t>(parameterGroupNumber);
    data[6] = static_cast<uint8_t>(parameterGroupNumber >> 8);
    data[7] = static_cast<uint8_t>(parameterGroupNumber >> 16);
}

bool sent(uint32_t result) {
    return result == SEND_SUCCESS;
}

// A reply to a received frame is done with once it went out, and also once it is clear that
// it cannot be built: the peer has no address, or it is this very function (someone sends
// with our address). Kept for a retry, the frame would hold every frame behind it in the
// queue. Only while our own function has no valid address yet, as in its claim period, is
// the reply worth another try.
bool settled(uint32_t result) {
    return result == SEND_SUCCESS || (result >= TRANSMIT_STATUS_DESTINATION_INVALID &&
                                      result <= TRANSMIT_STATUS_STANDARD_OUT_OF_RANGE &&
                                      result != TRANSMIT_STATUS_SOURCE_ADDRESS_INVALID);
}

// Frames of this protocol only ever leave from one of this device's control functions.
InternalControlFunctionClass* asInternal(ControlFunctionClass* function) {
    return (function != nullptr && function->getType() == 0)
               ? static_cast<InternalControlFunctionClass*>(function)
               : nullptr;
}

}  // namespace

const char* const TransportProtocolClass::MESSAGE_OWNER = "Transport Protocol";
TransportProtocolClass TransportProtocolClass::TRANSPORT_PROTOCOL;

TransportProtocolClass::TransportProtocolClass()
    : queueHandle(CANMessageQueueClass::getQueueHandle()) {}

void TransportProtocolClass::initialize() {
    NetworkManagementClass::addTransmitFunction(&initializeTransportProtocolTransmit);
    NetworkManagementClass::addGlobalReceiveCallback(PGN_TP_DATA_TRANSFER, this);
    NetworkManagementClass::addGlobalReceiveCallback(PGN_TP_CONNECTION_MANAGEMENT, this);
}

void TransportProtocolClass::receiveCANMessage(CANMessageClass* message) {
    if (message == nullptr) {
        return;
    }
    if (!CANMessageQueueClass::CAN_MESSAGE_QUEUE.addCANMessage(*message, queueHandle)) {
        report(DROPPED_MESSAGE, 2);
        ++droppedMessageCount;
    }
    messagePending = 1;
    ++receivedMessageCount;
}

uint32_t TransportProtocolClass::getNumberActiveSessions() const {
    uint32_t count = 0;
    for (const TransportProtocolSession& session : sessions) {
        if (session.state != SESSION_STATE_FREE) {
            ++count;
        }
    }
    return count;
}

TransportProtocolSession* TransportProtocolClass::findSession(
    const ControlFunctionClass* source, const ControlFunctionClass* destination) {
    for (TransportProtocolSession& session : sessions) {
        if (session.state != SESSION_STATE_FREE && session.source == source &&
            session.destination == destination) {
            return &session;
        }
    }
    return nullptr;
}

const TransportProtocolSession* TransportProtocolClass::findSession(
    const ControlFunctionClass* source, const ControlFunctionClass* destination) const {
    return const_cast<TransportProtocolClass*>(this)->findSession(source, destination);
}

TransportProtocolSession* TransportProtocolClass::takeSession(ControlFunctionClass* source,
                                                              ControlFunctionClass* destination) {
    for (TransportProtocolSession& session : sessions) {
        if (session.state == SESSION_STATE_FREE) {
            session = TransportProtocolSession();
            session.source = source;
            session.destination = destination;
            session.timestamp = now();
            session.state = SESSION_STATE_TAKEN;
            return &session;
        }
    }
    return nullptr;
}

void TransportProtocolClass::releaseSession(TransportProtocolSession& session, bool failed) {
    const bool started = session.state >= SESSION_STATE_SEND_CLEAR_TO_SEND &&
                         session.state <= SESSION_STATE_WAIT_FOR_END_OF_MESSAGE;
    // Told while the session still stands: a new transfer to the same peer from inside the
    // callback is refused as one already in session.
    if (started && session.callback != nullptr) {
        CANCallbackClass result(session.messageHandle, !failed);
        session.callback(&result);
    }
    if (session.poolHandle != NO_HANDLE) {
        Pool::NETWORK_MANAGEMENT_MEMORY_POOL.releaseBuffer(session.poolHandle);
    }
    session = TransportProtocolSession();
}

bool TransportProtocolClass::getSessionStatus(const ControlFunctionClass* source,
                                              const ControlFunctionClass* destination,
                                              uint32_t& parameterGroupNumber, uint32_t& bytesDone,
                                              uint32_t& totalSize, uint32_t& handle) const {
    const TransportProtocolSession* session = findSession(source, destination);
    if (session == nullptr) {
        parameterGroupNumber = 0xFFFFFFFFu;
        bytesDone = 0xFFFFFFFFu;
        totalSize = 0xFFFFFFFFu;
        handle = 0xFFFFFFFFu;
        return false;
    }
    parameterGroupNumber = session->parameterGroupNumber;
    const uint32_t done = static_cast<uint32_t>(session->packetCount) * BYTES_PER_PACKET;
    bytesDone = done < session->totalSize ? done : session->totalSize;
    totalSize = session->totalSize;
    handle = session->messageHandle;
    return true;
}

// ---- Sending ----

uint32_t TransportProtocolClass::initializeTransportProtocolTransmit(
    uint32_t parameterGroupNumber, const uint8_t* data, uint32_t length,
    InternalControlFunctionClass* source, ControlFunctionClass* destination, bool persistent,
    uint32_t* handleOut, CANCallbackFunction callback) {
    return TRANSPORT_PROTOCOL.startTransmit(parameterGroupNumber, data, length, source, destination,
                                            persistent, handleOut, callback);
}

uint32_t TransportProtocolClass::startTransmit(uint32_t parameterGroupNumber, const uint8_t* data,
                                               uint32_t length,
                                               InternalControlFunctionClass* source,
                                               ControlFunctionClass* destination, bool persistent,
                                               uint32_t* handleOut, CANCallbackFunction callback) {
    if (length < MINIMUM_MESSAGE_SIZE || length > MAXIMUM_MESSAGE_SIZE || source == nullptr ||
        !source->isAddressValid() || (destination != nullptr && !destination->isAddressValid())) {
        return SEND_NOT_TAKEN;
    }
    if (findSession(source, destination) != nullptr) {
        return SEND_SESSION_EXISTS;
    }
    TransportProtocolSession* session = takeSession(source, destination);
    if (session == nullptr) {
        report(TRANSMIT_NO_SESSIONS, 2);
        return SEND_NO_FREE_SESSION;
    }
    session->messageHandle = ++CANMessageClass::uniqueMessageHandle;
    if (handleOut != nullptr) {
        *handleOut = session->messageHandle;
    }
    session->parameterGroupNumber = parameterGroupNumber;
    session->totalSize = static_cast<uint16_t>(length);
    session->stopPacket = 255;
    session->callback = callback;

    Pool& pool = Pool::NETWORK_MANAGEMENT_MEMORY_POOL;
    uint32_t result = SEND_SUCCESS;
    if (persistent) {
        if (data == nullptr) {
            report(TRANSMIT_DATA_POINTER_NULL, 2);
            result = TRANSMIT_STATUS_DATA_POINTER_NULL;
        } else {
            // Only ever read on the sending side.
            session->dataPointer = const_cast<uint8_t*>(data);
        }
    } else if (data != nullptr) {
        if (!pool.acquireBuffer(length, session->poolHandle) ||
            !pool.writeBuffer(session->poolHandle, data, 0, length)) {
            report(TRANSMIT_MEMORY_POOL_FAILURE, 2);
            result = SEND_MEMORY_POOL_FAILURE;
        } else {
            session->bufferedBytes = static_cast<uint16_t>(length);
        }
    } else if (callback == nullptr) {
        report(TRANSMIT_CALLBACK_NULL, 2);
        result = SEND_NO_CALLBACK;
    } else if (!pool.acquireBuffer(length < MAXIMUM_PAGE_SIZE ? length : MAXIMUM_PAGE_SIZE,
                                   session->poolHandle)) {
        report(TRANSMIT_REQUEST_MEMORY_POOL_FAILURE, 2);
        result = SEND_MEMORY_POOL_FAILURE;
    } else {
        result = getNextDataPage(*session);
        if (result != SEND_SUCCESS) {
            report(TRANSMIT_FAILED_NEXT_DATA_PAGE, 2);
            CANCallbackClass failure(session->messageHandle, false);
            callback(&failure);
        }
    }
    if (result != SEND_SUCCESS) {
        // Still in state 1, so the callback is not called again.
        releaseSession(*session, true);
        return result;
    }
    session->state = SESSION_STATE_SEND_REQUEST_TO_SEND;
    sessionsActive = 1;
    return SEND_SUCCESS;
}

void TransportProtocolClass::transmitDataComplete(CANCallbackClass* callback) {
    if (callback == nullptr || callback->getHandle() == NO_HANDLE) {
        return;
    }
    for (TransportProtocolSession& session : TRANSPORT_PROTOCOL.sessions) {
        if (session.state == SESSION_STATE_FREE) {
            continue;
        }
        for (uint32_t& handle : session.packetHandles) {
            if (handle == callback->getHandle()) {
                handle = NO_HANDLE;
                session.timestamp = now();
                return;
            }
        }
    }
}

bool TransportProtocolClass::setFragmentCallback(CANFragmentCallbackClass* fragment,
                                                 void* context) {
    if (fragment == nullptr) {
        return false;
    }
    const uint32_t length = fragment->getFragmentLength();
    if (length == 0) {
        return true;
    }
    const uint8_t* data = fragment->getFragmentData();
    TransportProtocolSession* session = static_cast<TransportProtocolSession*>(context);
    if (data == nullptr || session == nullptr) {
        return false;
    }
    return Pool::NETWORK_MANAGEMENT_MEMORY_POOL.writeBuffer(session->poolHandle, data,
                                                            session->bufferedBytes, length);
}

uint32_t TransportProtocolClass::getNextDataPage(TransportProtocolSession& session) {
    if (session.poolHandle == NO_HANDLE) {
        return SEND_SUCCESS;
    }
    // From the packet count: a retransmission may have moved it back.
    const uint32_t offset = static_cast<uint32_t>(session.packetCount) * BYTES_PER_PACKET;
    const uint32_t end = static_cast<uint32_t>(session.bufferOffset) + session.bufferedBytes;
    if (offset < session.bufferOffset || offset > end || offset > session.totalSize) {
        report(INVALID_POOL_OFFSET, 2);
        return SEND_DATA_NOT_PRODUCED;
    }
    const uint32_t kept = end - offset;
    if (!Pool::NETWORK_MANAGEMENT_MEMORY_POOL.moveBuffer(session.poolHandle,
                                                         offset - session.bufferOffset, 0, kept)) {
        report(INVALID_MOVE_DATA, 2);
        return SEND_MEMORY_POOL_FAILURE;
    }
    session.bufferedBytes = static_cast<uint16_t>(kept);
    session.bufferOffset = static_cast<uint16_t>(offset);

    const uint32_t remaining = session.totalSize - offset;
    const uint32_t wanted = remaining < MAXIMUM_PAGE_SIZE ? remaining : MAXIMUM_PAGE_SIZE;
    uint32_t emptyFragments = 0;
    while (session.bufferedBytes < wanted) {
        if (session.callback == nullptr) {
            report(NULL_CALLBACK_NEXT_DATA_PAGE, 2);
            return SEND_NO_CALLBACK;
        }
        CANFragmentCallbackClass fragment(&TransportProtocolClass::setFragmentCallback, &session,
                                          offset + session.bufferedBytes, session.totalSize,
                                          session.fragmentSequence, session.messageHandle, true);
        session.callback(&fragment);
        ++session.fragmentSequence;
        const uint8_t* data = fragment.getFragmentData();
        const uint32_t length = fragment.getFragmentLength();
        if (!fragment.isFragmentSet() || (data == nullptr && length != 0)) {
            report(INVALID_CALLBACK_NEXT_DATA_PAGE, 2);
            return SEND_FRAGMENT_CALLBACK_FAILED;
        }
        if (data != nullptr && length != 0) {
            uint32_t result = SEND_SUCCESS;
            if (!fragment.getStoreResult()) {
                report(INVALID_FRAGMENT_ALLOCATION, 2);
                result = SEND_MEMORY_POOL_FAILURE;
            } else if (length > MAXIMUM_PAGE_SIZE) {
                report(INVALID_FRAGMENT_LENGTH, 2);
                result = SEND_DATA_NOT_PRODUCED;
            }
            const uint32_t grown = session.bufferedBytes + length;
            session.bufferedBytes = static_cast<uint16_t>(grown < 0xFFFFu ? grown : 0xFFFFu);
            emptyFragments = 0;
            if (result != SEND_SUCCESS) {
                return result;
            }
        } else if (++emptyFragments == 0xFFFFFFFFu) {
            report(INVALID_ZERO_FRAGMENTS, 2);
            return SEND_FRAGMENT_CALLBACK_FAILED;
        }
    }
    if (static_cast<uint32_t>(session.bufferOffset) + session.bufferedBytes > session.totalSize) {
        report(INVALID_DATA_LENGTH, 2);
        return SEND_DATA_NOT_PRODUCED;
    }
    return SEND_SUCCESS;
}

bool TransportProtocolClass::getNextDataPacket(TransportProtocolSession& session, uint8_t* packet) {
    packet[0] = static_cast<uint8_t>(session.packetCount + 1u);
    std::memset(packet + 1, 0xFF, BYTES_PER_PACKET);
    const uint32_t offset = static_cast<uint32_t>(session.packetCount) * BYTES_PER_PACKET;
    if (offset >= session.totalSize) {
        return false;
    }
    const uint32_t remaining = session.totalSize - offset;
    const uint32_t length = remaining < BYTES_PER_PACKET ? remaining : BYTES_PER_PACKET;
    if (session.poolHandle != NO_HANDLE) {
        if (offset + length > static_cast<uint32_t>(session.bufferOffset) + session.bufferedBytes &&
            getNextDataPage(session) != SEND_SUCCESS) {
            return false;
        }
        if (offset < session.bufferOffset ||
            offset + length > static_cast<uint32_t>(session.bufferOffset) + session.bufferedBytes) {
            return false;
        }
        return Pool::NETWORK_MANAGEMENT_MEMORY_POOL.readBuffer(
            session.poolHandle, packet + 1, offset - session.bufferOffset, length);
    }
    if (session.dataPointer == nullptr) {
        report(INVALID_DATA_LOCATION, 2);
        return false;
    }
    std::memcpy(packet + 1, session.dataPointer + offset, length);
    return true;
}

void TransportProtocolClass::sendData(TransportProtocolSession& session) {
    while (session.state == SESSION_STATE_SEND_DATA) {
        uint32_t* slot = nullptr;
        for (uint32_t& handle : session.packetHandles) {
            if (handle == NO_HANDLE) {
                slot = &handle;
                break;
            }
        }
        if (slot == nullptr) {
            return;
        }
        const bool broadcast = session.destination == nullptr;
        if (broadcast && !Utilities::timeElapsed(session.timestamp, BROADCAST_PACKET_GAP_MS)) {
            return;
        }
        uint8_t packet[8];
        if (!getNextDataPacket(session, packet)) {
            if (!broadcast &&
                !sent(sendConnectionAbort(session.source, session.destination, ABORT_NO_RESOURCES,
                                          session.parameterGroupNumber))) {
                return;
            }
            report(TRANSMIT_DATA_FAILED_NEXT_PACKET, 2);
            releaseSession(session, true);
            return;
        }
        const uint32_t result = NetworkManagementClass::sendParameterGroupNumber(
            PGN_TP_DATA_TRANSFER, packet, sizeof(packet), asInternal(session.source),
            session.destination, DATA_TRANSFER_PRIORITY, false, slot,
            &TransportProtocolClass::transmitDataComplete);
        if (result != SEND_SUCCESS) {
            // The packet goes again next time; a refused frame is never confirmed.
            *slot = NO_HANDLE;
            return;
        }
        ++session.packetCount;
        session.timestamp = now();
        if (static_cast<uint32_t>(session.packetCount) * BYTES_PER_PACKET >= session.totalSize) {
            if (broadcast) {
                releaseSession(session, false);
            } else {
                session.state = SESSION_STATE_WAIT_FOR_END_OF_MESSAGE;
            }
        } else if (!broadcast && session.packetCount == session.stopPacket) {
            session.state = SESSION_STATE_WAIT_FOR_CLEAR_TO_SEND;
        }
    }
}

// ---- Frames out ----

uint32_t TransportProtocolClass::sendConnectionManagement(ControlFunctionClass* from,
                                                          ControlFunctionClass* to,
                                                          const uint8_t* data) {
    return NetworkManagementClass::sendParameterGroupNumber(PGN_TP_CONNECTION_MANAGEMENT, data, 8,
                                                            asInternal(from), to,
                                                            CONNECTION_MANAGEMENT_PRIORITY);
}

uint32_t TransportProtocolClass::sendConnectionAbort(ControlFunctionClass* from,
                                                     ControlFunctionClass* to, uint8_t reason,
                                                     uint32_t parameterGroupNumber) {
    uint8_t data[8] = {CONTROL_ABORT, reason, 0xFF, 0xFF, 0xFF};
    putPGN(data, parameterGroupNumber);
    return sendConnectionManagement(from, to, data);
}

uint32_t TransportProtocolClass::sendClearToSend(const TransportProtocolSession& session,
                                                 uint8_t packets, uint8_t nextPacket) {
    uint8_t data[8] = {CONTROL_CLEAR_TO_SEND, packets, nextPacket, 0xFF, 0xFF};
    putPGN(data, session.parameterGroupNumber);
    // Receiving side: this device is the session's destination.
    return sendConnectionManagement(session.destination, session.source, data);
}

// ---- Update ----

void TransportProtocolClass::update() {
    if (messagePending != 0) {
        messagePending = CANMessageQueueClass::CAN_MESSAGE_QUEUE.processReceived(
                             queueHandle, MAXIMUM_QUEUE_ENTRIES_PER_UPDATE,
                             [this](CAN_MESSAGE_QUEUE_STRUCT& entry) {
                                 return processTransportProtocolMessage(entry);
                             },
                             heldEntry, now(), GENERIC_TIMEOUT_MS,
                             [this](CAN_MESSAGE_QUEUE_STRUCT&) {
                                 report(DROPPED_MESSAGE, 2);
                                 ++droppedMessageCount;
                             })
                             ? 1
                             : 0;
    }
    if (sessionsActive != 0) {
        sessionsActive = 0;
        for (TransportProtocolSession& session : sessions) {
            if (session.state != SESSION_STATE_FREE) {
                sessionsActive = 1;
                updateSession(session);
            }
        }
    }
}

void TransportProtocolClass::updateSession(TransportProtocolSession& session) {
    const bool broadcast = session.destination == nullptr;
    switch (session.state) {
        case SESSION_STATE_SEND_CLEAR_TO_SEND:
            if (session.poolHandle == NO_HANDLE && session.dataPointer == nullptr) {
                if (sent(sendConnectionAbort(session.destination, session.source,
                                             ABORT_NO_RESOURCES, session.parameterGroupNumber))) {
                    releaseSession(session, true);
                    report(RTS_REQUEST_MEMORY_POOL_FAILURE, 2);
                }
            } else if (sent(sendClearToSend(session, session.pageOrRetryCount, 1))) {
                session.timestamp = now();
                session.state = SESSION_STATE_RECEIVE_DATA;
            }
            break;
        case SESSION_STATE_RECEIVE_DATA:
            if (!broadcast) {
                // The first packet of a page may take longer than the next ones.
                const bool pageStarted =
                    static_cast<uint8_t>(session.stopPacket - session.packetCount) !=
                    session.pageOrRetryCount;
                const uint32_t limit =
                    pageStarted ? RECEIVE_PACKET_TIMEOUT_MS : RECEIVE_PAGE_TIMEOUT_MS;
                if (Utilities::timeElapsed(session.timestamp, limit) &&
                    sent(sendConnectionAbort(session.destination, session.source, ABORT_TIMEOUT,
                                             session.parameterGroupNumber))) {
                    releaseSession(session, true);
                    report(RECEIVE_DATA_TIMEOUT, 2);
                }
            } else if (Utilities::timeElapsed(session.timestamp, RECEIVE_PACKET_TIMEOUT_MS)) {
                releaseSession(session, true);
                report(RECEIVE_DATA_TIMEOUT, 2);
            }
            break;
        case SESSION_STATE_SEND_REQUEST_TO_SEND: {
            uint8_t data[8] = {broadcast ? CONTROL_BROADCAST_ANNOUNCE : CONTROL_REQUEST_TO_SEND,
                               static_cast<uint8_t>(session.totalSize),
                               static_cast<uint8_t>(session.totalSize >> 8),
                               static_cast<uint8_t>(packetsFor(session.totalSize)), 0xFF};
            putPGN(data, session.parameterGroupNumber);
            if (sent(sendConnectionManagement(session.source, session.destination, data))) {
                session.timestamp = now();
                session.state =
                    broadcast ? SESSION_STATE_SEND_DATA : SESSION_STATE_WAIT_FOR_CLEAR_TO_SEND;
            }
            break;
        }
        case SESSION_STATE_WAIT_FOR_CLEAR_TO_SEND: {
            // A CTS of zero packets holds the connection open for a shorter time.
            const uint32_t limit = session.stopPacket == 0 ? HOLD_CLEAR_TO_SEND_TIMEOUT_MS
                                                           : WAIT_CLEAR_TO_SEND_TIMEOUT_MS;
            if (Utilities::timeElapsed(session.timestamp, limit) &&
                sent(sendConnectionAbort(session.source, session.destination, ABORT_TIMEOUT,
                                         session.parameterGroupNumber))) {
                releaseSession(session, true);
                report(WAIT_CLEAR_TO_SEND_TIMEOUT, 2);
            }
            break;
        }
        case SESSION_STATE_SEND_DATA:
            sendData(session);
            break;
        case SESSION_STATE_WAIT_FOR_END_OF_MESSAGE:
            if (Utilities::timeElapsed(session.timestamp, WAIT_END_OF_MESSAGE_TIMEOUT_MS) &&
                sent(sendConnectionAbort(session.source, session.destination, ABORT_TIMEOUT,
                                         session.parameterGroupNumber))) {
                releaseSession(session, true);
                report(WAIT_FOR_ACKNOWLEDGEMENT_TIMEOUT, 2);
            }
            break;
        default:
            break;
    }
    if (session.state != SESSION_STATE_FREE &&
        Utilities::timeElapsed(session.timestamp, GENERIC_TIMEOUT_MS)) {
        releaseSession(session, true);
        report(GENERIC_TIMEOUT, 2);
    }
}

// ---- Frames in ----

bool TransportProtocolClass::processTransportProtocolMessage(
    const CAN_MESSAGE_QUEUE_STRUCT& entry) {
    if (entry.source == nullptr ||
        (entry.destination != nullptr && entry.destination->getType() != 0)) {
        report(INVALID_SOURCE, 1);
        return true;
    }
    ControlFunctionClass* from = entry.source;
    InternalControlFunctionClass* to = asInternal(entry.destination);
    if (entry.parameterGroupNumber == PGN_TP_DATA_TRANSFER) {
        return processDataPacket(entry, from, to);
    }
    if (entry.parameterGroupNumber != PGN_TP_CONNECTION_MANAGEMENT) {
        report(INVALID_PGN, 2);
        return true;
    }
    switch (entry.data[0]) {
        case CONTROL_REQUEST_TO_SEND:
            return processRequestToSend(entry, from, to);
        case CONTROL_BROADCAST_ANNOUNCE:
            return processBroadcastAnnounce(entry, from, to);
        case CONTROL_CLEAR_TO_SEND:
            return processClearToSend(entry, from, to);
        case CONTROL_END_OF_MESSAGE:
            return processEndOfMessage(entry, from, to);
        case CONTROL_ABORT:
            return processAbort(entry, from, to);
        default:
            return processInvalidCommand(from, to);
    }
}

bool TransportProtocolClass::processDataPacket(const CAN_MESSAGE_QUEUE_STRUCT& entry,
                                               ControlFunctionClass* from,
                                               InternalControlFunctionClass* to) {
    TransportProtocolSession* session = findSession(from, to);
    if (session == nullptr) {
        if (to != nullptr &&
            !settled(sendConnectionAbort(to, from, ABORT_UNEXPECTED_DATA, NO_PGN))) {
            return false;
        }
        report(RECEIVE_DATA_NOT_IN_SESSION, 0);
        return true;
    }
    // Any refusal below ends the session; without an abort sent it is tried again.
    const auto fail = [&](uint8_t reason, const char* text, uint8_t severity) {
        if (to != nullptr &&
            !settled(sendConnectionAbort(to, from, reason, session->parameterGroupNumber))) {
            return false;
        }
        releaseSession(*session, true);
        report(text, severity);
        return true;
    };
    if (session->state != SESSION_STATE_RECEIVE_DATA) {
        return fail(ABORT_UNEXPECTED_DATA, RECEIVE_DATA_NOT_READY, 0);
    }
    const uint8_t sequence = entry.data[0];
    if (sequence != static_cast<uint8_t>(session->packetCount + 1u)) {
        if (sequence == session->packetCount) {
            return fail(ABORT_DUPLICATE_SEQUENCE_NUMBER, RECEIVE_DATA_DUPLICATE, 0);
        }
        return fail(ABORT_BAD_SEQUENCE_NUMBER, RECEIVE_DATA_BAD_SEQUENCE, 0);
    }
    const uint32_t offset = static_cast<uint32_t>(session->packetCount) * BYTES_PER_PACKET;
    const uint32_t remaining = offset < session->totalSize ? session->totalSize - offset : 0;
    const uint32_t length = remaining < BYTES_PER_PACKET ? remaining : BYTES_PER_PACKET;
    if (length > 0 &&
        !Pool::NETWORK_MANAGEMENT_MEMORY_POOL.writeData(session->poolHandle, session->dataPointer,
                                                        offset, entry.data + 1, length)) {
        return fail(ABORT_NO_RESOURCES, FAILED_COPYING_DATA, 2);
    }
    const uint8_t count = static_cast<uint8_t>(session->packetCount + 1u);
    if (static_cast<uint32_t>(count) * BYTES_PER_PACKET < session->totalSize) {
        if (count != session->stopPacket) {
            session->packetCount = count;
            session->timestamp = now();
        } else if (to == nullptr) {
            session->packetCount = count;
        } else {
            if (!settled(sendClearToSend(*session, session->pageOrRetryCount,
                                         static_cast<uint8_t>(count + 1u)))) {
                return false;
            }
            session->timestamp = now();
            session->packetCount = count;
            const uint32_t stop =
                static_cast<uint32_t>(session->stopPacket) + session->pageOrRetryCount;
            session->stopPacket = static_cast<uint8_t>(stop < 255u ? stop : 255u);
        }
        return true;
    }
    if (to != nullptr) {
        uint8_t data[8] = {CONTROL_END_OF_MESSAGE, static_cast<uint8_t>(session->totalSize),
                           static_cast<uint8_t>(session->totalSize >> 8),
                           static_cast<uint8_t>(packetsFor(session->totalSize)), 0xFF};
        putPGN(data, session->parameterGroupNumber);
        if (!settled(sendConnectionManagement(to, from, data))) {
            return false;
        }
    }
    session->packetCount = count;
    CANLongMessageClass message(session->parameterGroupNumber, session->poolHandle,
                                session->dataPointer, session->totalSize, from, to, MESSAGE_OWNER);
    NetworkManagementClass::receiveMessage(&message);
    releaseSession(*session, false);
    return true;
}

bool TransportProtocolClass::processRequestToSend(const CAN_MESSAGE_QUEUE_STRUCT& entry,
                                                  ControlFunctionClass* from,
                                                  InternalControlFunctionClass* to) {
    if (to == nullptr) {
        report(RTS_TO_GLOBAL, 0);
        return true;
    }
    const uint32_t parameterGroupNumber = pgnFromBytes(entry.data);
    if (TransportProtocolSession* running = findSession(from, to)) {
        if (!settled(sendConnectionAbort(to, from, ABORT_ALREADY_IN_SESSION,
                                         running->parameterGroupNumber))) {
            return false;
        }
        report(RTS_ALREADY_IN_SESSION, 0);
        return true;
    }
    TransportProtocolSession* session = takeSession(from, to);
    if (session == nullptr) {
        // An abort that names no session carries no PGN.
        if (!settled(sendConnectionAbort(to, from, ABORT_NO_RESOURCES, NO_PGN))) {
            return false;
        }
        report(RTS_NO_SESSIONS, 2);
        return true;
    }
    session->parameterGroupNumber = parameterGroupNumber;
    session->totalSize = static_cast<uint16_t>(entry.data[1] | (entry.data[2] << 8));
    const uint8_t page = entry.data[3] < entry.data[4] ? entry.data[3] : entry.data[4];
    session->pageOrRetryCount = page;
    session->stopPacket = page;
    if (!fitsInSession(session->totalSize) ||
        !Pool::NETWORK_MANAGEMENT_MEMORY_POOL.acquireForMessage(
            parameterGroupNumber, from, to, session->totalSize, session->poolHandle,
            session->dataPointer)) {
        releaseSession(*session, true);
        report(REQUEST_MEMORY_POOL_FAILURE, 2);
        return true;
    }
    session->state = SESSION_STATE_SEND_CLEAR_TO_SEND;
    sessionsActive = 1;
    return true;
}

bool TransportProtocolClass::processBroadcastAnnounce(const CAN_MESSAGE_QUEUE_STRUCT& entry,
                                                      ControlFunctionClass* from,
                                                      InternalControlFunctionClass* to) {
    const uint32_t parameterGroupNumber = pgnFromBytes(entry.data);
    if (to != nullptr) {
        if (!settled(sendConnectionAbort(to, from, ABORT_OTHER, parameterGroupNumber))) {
            return false;
        }
        report(BAM_POINT_TO_POINT, 0);
        return true;
    }
    if (findSession(from, nullptr) != nullptr) {
        report(BAM_ALREADY_IN_SESSION, 0);
        return true;
    }
    TransportProtocolSession* session = takeSession(from, nullptr);
    if (session == nullptr) {
        report(BAM_NO_SESSIONS, 2);
        return true;
    }
    session->parameterGroupNumber = parameterGroupNumber;
    session->totalSize = static_cast<uint16_t>(entry.data[1] | (entry.data[2] << 8));
    session->stopPacket = entry.data[3];
    session->pageOrRetryCount = 0;
    if (!fitsInSession(session->totalSize) ||
        !Pool::NETWORK_MANAGEMENT_MEMORY_POOL.acquireForMessage(
            parameterGroupNumber, from, nullptr, session->totalSize, session->poolHandle,
            session->dataPointer)) {
        releaseSession(*session, true);
        report(BAM_REQUEST_MEMORY_POOL_FAILURE, 2);
        return true;
    }
    session->state = SESSION_STATE_RECEIVE_DATA;
    sessionsActive = 1;
    return true;
}

bool TransportProtocolClass::processClearToSend(const CAN_MESSAGE_QUEUE_STRUCT& entry,
                                                ControlFunctionClass* from,
                                                InternalControlFunctionClass* to) {
    if (to == nullptr) {
        report(CTS_TO_GLOBAL, 0);
        return true;
    }
    const uint32_t parameterGroupNumber = pgnFromBytes(entry.data);
    TransportProtocolSession* session = findSession(to, from);
    if (session == nullptr) {
        if (!settled(sendConnectionAbort(to, from, ABORT_OTHER, NO_PGN))) {
            return false;
        }
        report(CTS_NOT_IN_SESSION, 0);
        return true;
    }
    const auto fail = [&](uint8_t reason, const char* text, uint8_t severity) {
        if (!settled(sendConnectionAbort(to, from, reason, session->parameterGroupNumber))) {
            return false;
        }
        releaseSession(*session, true);
        report(text, severity);
        return true;
    };
    if (session->state != SESSION_STATE_WAIT_FOR_CLEAR_TO_SEND) {
        return fail(ABORT_CTS_WHILE_IN_DATA_TRANSFER, CTS_WHILE_IN_DATA_TRANSFER, 0);
    }
    const uint8_t packets = entry.data[1];
    session->stopPacket = packets;
    if (packets == 0) {
        // The receiver holds the connection open.
        session->timestamp = now();
        return true;
    }
    if (session->parameterGroupNumber != parameterGroupNumber) {
        return fail(ABORT_OTHER, CTS_PGN_MISMATCH, 0);
    }
    const uint32_t totalPackets = packetsFor(session->totalSize);
    const uint8_t next = entry.data[2];
    if (next == static_cast<uint32_t>(session->packetCount) + 1u) {
        if (packets > totalPackets) {
            return fail(ABORT_OTHER, CTS_PACKETS_INVALID, 0);
        }
        session->pageOrRetryCount = 0;
    } else {
        const bool allowed =
            session->pageOrRetryCount < MAXIMUM_NUMBER_RETRANSMISSION_ATTEMPTS && next != 0 &&
            (static_cast<uint32_t>(next) - 1u) * BYTES_PER_PACKET >= session->bufferOffset;
        if (!allowed) {
            return fail(ABORT_RETRANSMISSION_LIMIT, CTS_RETRY_LIMIT, 0);
        }
        if (packets > totalPackets) {
            return fail(ABORT_OTHER, CTS_PACKETS_INVALID, 0);
        }
        session->packetCount = static_cast<uint8_t>(next - 1u);
        ++session->pageOrRetryCount;
    }
    session->timestamp = now();
    const uint32_t stop = static_cast<uint32_t>(session->packetCount) + packets;
    session->stopPacket = static_cast<uint8_t>(stop < 255u ? stop : 255u);
    if (getNextDataPage(*session) != SEND_SUCCESS) {
        return fail(ABORT_OTHER, CTS_FAILED_NEXT_DATA_PAGE, 2);
    }
    session->state = SESSION_STATE_SEND_DATA;
    sessionsActive = 1;
    return true;
}

bool TransportProtocolClass::processEndOfMessage(const CAN_MESSAGE_QUEUE_STRUCT& entry,
                                                 ControlFunctionClass* from,
                                                 InternalControlFunctionClass* to) {
    if (to == nullptr) {
        report(EOM_TO_GLOBAL, 0);
        return true;
    }
    const uint32_t parameterGroupNumber = pgnFromBytes(entry.data);
    TransportProtocolSession* session = findSession(to, from);
    if (session == nullptr) {
        if (!settled(sendConnectionAbort(to, from, ABORT_OTHER, NO_PGN))) {
            return false;
        }
        report(EOM_NOT_IN_SESSION, 0);
        return true;
    }
    const uint32_t size = static_cast<uint32_t>(entry.data[1]) | (entry.data[2] << 8);
    if (session->state == SESSION_STATE_WAIT_FOR_END_OF_MESSAGE && size == session->totalSize &&
        entry.data[3] == packetsFor(session->totalSize) &&
        parameterGroupNumber == session->parameterGroupNumber) {
        releaseSession(*session, false);
        return true;
    }
    if (!settled(sendConnectionAbort(to, from, ABORT_OTHER, session->parameterGroupNumber))) {
        return false;
    }
    releaseSession(*session, true);
    report(EOM_INVALID_CONTENTS, 0);
    return true;
}

bool TransportProtocolClass::processAbort(const CAN_MESSAGE_QUEUE_STRUCT& entry,
                                          ControlFunctionClass* from,
                                          InternalControlFunctionClass* to) {
    report(CONNECTION_ABORT_RECEIVED, 2);
    const uint32_t parameterGroupNumber = pgnFromBytes(entry.data);
    TransportProtocolSession* receiving = findSession(from, to);
    if (receiving != nullptr && receiving->parameterGroupNumber == parameterGroupNumber) {
        releaseSession(*receiving, true);
        report(RECEIVE_SESSION_ABORTED, 2);
    }
    TransportProtocolSession* sending = to != nullptr ? findSession(to, from) : nullptr;
    if (sending != nullptr && sending->parameterGroupNumber == parameterGroupNumber) {
        releaseSession(*sending, true);
        report(TRANSMIT_SESSION_ABORTED, 2);
    }
    return true;
}

bool TransportProtocolClass::processInvalidCommand(ControlFunctionClass* from,
                                                   InternalControlFunctionClass* to) {
    if (to != nullptr) {
        if (!settled(sendConnectionAbort(to, from, ABORT_OTHER, NO_PGN))) {
            return false;
        }
        if (TransportProtocolSession* receiving = findSession(from, to)) {
            releaseSession(*receiving, true);
        }
        if (TransportProtocolSession* sending = findSession(to, from)) {
            releaseSession(*sending, true);
        }
    }
    report(INVALID_COMMAND, 1);
    return true;
}
