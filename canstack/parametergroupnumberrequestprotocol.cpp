#include "canstack/parametergroupnumberrequestprotocol.h"

#include <new>

#include "canstack/canidentifier.h"
#include "canstack/canmessage.h"
#include "canstack/controlfunction.h"
#include "canstack/internalcontrolfunction.h"
#include "canstack/networkmanagementstatistics.h"
#include "canstack/networkmanagementutilities.h"

namespace {

const char* const FAILED_ADDING_EXTERNALLY_HANDLED =
    "Failed Adding Externally Handled PGN Request Function to List";
const char* const DROPPED_PGN_REQUEST = "Dropped PGN Request";
const char* const DROPPED_NO_SESSIONS = "PGN Request Dropped No Sessions Available";
const char* const LOAD_PGN_INVALID_STATE = "Load PGN Invalid State";
const char* const NEGATIVE_ACKNOWLEDGEMENT_RESPONSE = "Negative Acknowledgement Response";
const char* const CANNOT_RESPOND_RESPONSE = "Cannot Respond Response";
const char* const DROPPED_TIMEOUT_POINT_TO_POINT = "PGN Request Dropped Timeout Point to Point";
const char* const DROPPED_TIMEOUT_GLOBAL = "PGN Request Dropped Timeout Global";
const char* const INVALID_PGN = "Invalid PGN";
const char* const INVALID_DESTINATION = "Invalid Destination Control Function";
const char* const INVALID_SOURCE = "Invalid Source Control Function";

constexpr uint8_t REQUEST_PRIORITY = 6;
constexpr uint8_t ACKNOWLEDGEMENT_PRIORITY = 6;

void report(const char* text, uint8_t severity) {
    NetworkManagementStatisticsClass::addDescriptionMessage(
        ParameterGroupNumberRequestProtocolClass::MESSAGE_OWNER, text, severity);
}

uint32_t now() {
    return NetworkManagementUtilitiesClass::Timestamp_ms();
}

// PDU 2 groups go to everyone, whoever asked.
bool isBroadcastGroup(uint32_t parameterGroupNumber) {
    return ((parameterGroupNumber >> 12) & 0xFu) == 0xFu;
}

}  // namespace

const char* const ParameterGroupNumberRequestProtocolClass::MESSAGE_OWNER =
    "Parameter Group Number Request Protocol";
EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT*
    ParameterGroupNumberRequestProtocolClass::externallyHandledParameterGroupNumberRequests =
        nullptr;
ParameterGroupNumberRequestProtocolClass
    ParameterGroupNumberRequestProtocolClass::PARAMETER_GROUP_NUMBER_REQUEST_PROTOCOL;

ParameterGroupNumberRequestProtocolClass::ParameterGroupNumberRequestProtocolClass()
    : queueHandle(CANMessageQueueClass::getQueueHandle()) {}

void ParameterGroupNumberRequestProtocolClass::initialize() {
    // Requests for the address claim are answered by the claim procedure itself.
    addExternallyHandled(PGN_ADDRESS_CLAIMED);
    NetworkManagementClass::addGlobalReceiveCallback(PGN_REQUEST, this);
}

void ParameterGroupNumberRequestProtocolClass::receiveCANMessage(CANMessageClass* message) {
    uint8_t buffer[8];
    if (message == nullptr || !message->getData(buffer, sizeof(buffer))) {
        return;
    }
    if (!CANMessageQueueClass::CAN_MESSAGE_QUEUE.addCANMessage(*message, queueHandle)) {
        report(DROPPED_PGN_REQUEST, 2);
        ++droppedRequestCount;
    }
    ++receivedRequestCount;
    messagePending = 1;
}

EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT*
ParameterGroupNumberRequestProtocolClass::addExternallyHandled(uint32_t parameterGroupNumber) {
    EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT** tail = &externallyHandledParameterGroupNumberRequests;
    for (; *tail != nullptr; tail = &(*tail)->next) {
        if ((*tail)->parameterGroupNumber == parameterGroupNumber) {
            report(FAILED_ADDING_EXTERNALLY_HANDLED, 2);
            return nullptr;
        }
    }
    EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT* node =
        new (std::nothrow) EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT{nullptr, parameterGroupNumber};
    if (node == nullptr) {
        report(FAILED_ADDING_EXTERNALLY_HANDLED, 2);
        return nullptr;
    }
    *tail = node;
    return node;
}

bool ParameterGroupNumberRequestProtocolClass::removeExternallyHandled(
    EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT* node) {
    for (EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT** link =
             &externallyHandledParameterGroupNumberRequests;
         *link != nullptr; link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            delete node;
            return true;
        }
    }
    return false;
}

bool ParameterGroupNumberRequestProtocolClass::isExternallyHandled(uint32_t parameterGroupNumber) {
    for (const EXTERNALLY_HANDLED_PGN_REQUEST_STRUCT* node =
             externallyHandledParameterGroupNumberRequests;
         node != nullptr; node = node->next) {
        if (node->parameterGroupNumber == parameterGroupNumber) {
            return true;
        }
    }
    return false;
}

bool ParameterGroupNumberRequestProtocolClass::requestParameterGroupNumber(
    uint32_t parameterGroupNumber, InternalControlFunctionClass* source,
    ControlFunctionClass* destination) {
    const uint8_t data[3] = {static_cast<uint8_t>(parameterGroupNumber),
                             static_cast<uint8_t>(parameterGroupNumber >> 8),
                             static_cast<uint8_t>(parameterGroupNumber >> 16)};
    return NetworkManagementClass::sendParameterGroupNumber(PGN_REQUEST, data, sizeof(data), source,
                                                            destination,
                                                            REQUEST_PRIORITY) == SEND_SUCCESS;
}

uint32_t ParameterGroupNumberRequestProtocolClass::getNumberActiveSessions() const {
    uint32_t count = 0;
    for (const RequestSession& session : sessions) {
        if (session.state != REQUEST_SESSION_FREE) {
            ++count;
        }
    }
    return count;
}

void ParameterGroupNumberRequestProtocolClass::update() {
    if (messagePending != 0) {
        messagePending =
            CANMessageQueueClass::CAN_MESSAGE_QUEUE.processReceived(
                queueHandle, MAXIMUM_QUEUE_ENTRIES_PER_UPDATE,
                [this](CAN_MESSAGE_QUEUE_STRUCT& entry) { return processQueueEntry(entry); },
                heldEntry, now(), POINT_TO_POINT_TIMEOUT_MS,
                [this](CAN_MESSAGE_QUEUE_STRUCT&) {
                    report(DROPPED_PGN_REQUEST, 2);
                    ++droppedRequestCount;
                })
                ? 1
                : 0;
    }
    if (sessionsActive != 0) {
        sessionsActive = 0;
        for (RequestSession& session : sessions) {
            if (session.state != REQUEST_SESSION_FREE) {
                sessionsActive = 1;
                updateSession(session);
            }
        }
    }
}

bool ParameterGroupNumberRequestProtocolClass::processQueueEntry(
    const CAN_MESSAGE_QUEUE_STRUCT& entry) {
    if (entry.source == nullptr) {
        report(INVALID_SOURCE, 1);
        return true;
    }
    if (entry.destination != nullptr && entry.destination->getType() != 0) {
        report(INVALID_DESTINATION, 1);
        return true;
    }
    if (entry.parameterGroupNumber != PGN_REQUEST) {
        report(INVALID_PGN, 2);
        return true;
    }
    const uint32_t requested = static_cast<uint32_t>(entry.data[0]) |
                               (static_cast<uint32_t>(entry.data[1]) << 8) |
                               (static_cast<uint32_t>(entry.data[2]) << 16);
    return processRequest(entry.source, entry.destination, requested, 255, 255);
}

bool ParameterGroupNumberRequestProtocolClass::processRequest(ControlFunctionClass* requester,
                                                              ControlFunctionClass* destination,
                                                              uint32_t parameterGroupNumber,
                                                              uint8_t selector0,
                                                              uint8_t selector1) {
    sessionsActive = 1;
    if (isExternallyHandled(parameterGroupNumber)) {
        return true;
    }
    if (destination != nullptr) {
        // Checked to be internal by the caller.
        return respond(static_cast<InternalControlFunctionClass*>(destination), requester,
                       destination, parameterGroupNumber, selector0, selector1);
    }
    const uint8_t channel = requester->getChannel();
    for (uint16_t i = 0; i < InternalControlFunctionClass::numberInternalControlFunctions; ++i) {
        InternalControlFunctionClass* responder =
            InternalControlFunctionClass::internalControlFunctionList[i];
        if (responder != nullptr && responder->getChannel() == channel) {
            respond(responder, requester, nullptr, parameterGroupNumber, selector0, selector1);
        }
    }
    return true;
}

bool ParameterGroupNumberRequestProtocolClass::respond(InternalControlFunctionClass* responder,
                                                       ControlFunctionClass* requester,
                                                       ControlFunctionClass* destination,
                                                       uint32_t parameterGroupNumber,
                                                       uint8_t selector0, uint8_t selector1) {
    const bool global = destination == nullptr;
    LoadParameterGroupNumberData data;
    const uint32_t result = NetworkManagementClass::loadParameterGroupNumberData(
        parameterGroupNumber, responder, requester, selector0, selector1, data);
    switch (result) {
        case 1: {
            RequestSession* pending = findPendingSession(responder, requester, parameterGroupNumber,
                                                         selector0, selector1, data.length);
            if (pending != nullptr) {
                pending->timestamp = now();
                return true;
            }
            if (sendData(responder, global ? nullptr : requester, parameterGroupNumber, data) ==
                SEND_SUCCESS) {
                return true;
            }
            RequestSession* session = takeSession();
            if (session != nullptr) {
                session->destination = destination;
                session->responder = responder;
                session->requester = requester;
                session->parameterGroupNumber = parameterGroupNumber;
                session->timestamp = now();
                session->selectors[0] = selector0;
                session->selectors[1] = selector1;
                session->state = REQUEST_SESSION_WAITING_TO_SEND;
                return true;
            }
            if (global) {
                report(DROPPED_NO_SESSIONS, 2);
                ++droppedNoSessionCount;
                return true;
            }
            if (!sendAcknowledgement(responder, requester, ACKNOWLEDGEMENT_CANNOT_RESPOND,
                                     parameterGroupNumber)) {
                return false;
            }
            report(CANNOT_RESPOND_RESPONSE, 2);
            ++cannotRespondCount;
            return true;
        }
        case 2:
            // A global request is never acknowledged.
            if (global) {
                return true;
            }
            if (!sendAcknowledgement(responder, requester, ACKNOWLEDGEMENT_POSITIVE,
                                     parameterGroupNumber)) {
                return false;
            }
            ++positiveAcknowledgementCount;
            return true;
        case 0:
            if (global) {
                return true;
            }
            if (!sendAcknowledgement(responder, requester, ACKNOWLEDGEMENT_NEGATIVE,
                                     parameterGroupNumber)) {
                return false;
            }
            report(NEGATIVE_ACKNOWLEDGEMENT_RESPONSE, 0);
            ++negativeAcknowledgementCount;
            return true;
        default:
            report(LOAD_PGN_INVALID_STATE, 2);
            return true;
    }
}

ParameterGroupNumberRequestProtocolClass::RequestSession*
ParameterGroupNumberRequestProtocolClass::findPendingSession(
    InternalControlFunctionClass* responder, ControlFunctionClass* requester,
    uint32_t parameterGroupNumber, uint8_t selector0, uint8_t selector1, uint32_t dataLength) {
    const bool anyRequester = dataLength <= 8 && isBroadcastGroup(parameterGroupNumber);
    for (RequestSession& session : sessions) {
        if (session.state != REQUEST_SESSION_FREE && session.responder == responder &&
            session.parameterGroupNumber == parameterGroupNumber &&
            session.selectors[0] == selector0 && session.selectors[1] == selector1 &&
            (anyRequester || session.requester == requester)) {
            return &session;
        }
    }
    return nullptr;
}

ParameterGroupNumberRequestProtocolClass::RequestSession*
ParameterGroupNumberRequestProtocolClass::takeSession() {
    for (RequestSession& session : sessions) {
        if (session.state == REQUEST_SESSION_FREE) {
            session.state = REQUEST_SESSION_TAKEN;
            return &session;
        }
    }
    return nullptr;
}

void ParameterGroupNumberRequestProtocolClass::freeSession(RequestSession& session) {
    session = RequestSession();
}

void ParameterGroupNumberRequestProtocolClass::updateSession(RequestSession& session) {
    if (session.state != REQUEST_SESSION_WAITING_TO_SEND) {
        freeSession(session);
        return;
    }
    const bool global = session.destination == nullptr;
    LoadParameterGroupNumberData data;
    const uint32_t result = NetworkManagementClass::loadParameterGroupNumberData(
        session.parameterGroupNumber, session.responder, session.requester, session.selectors[0],
        session.selectors[1], data);
    bool finished = false;
    switch (result) {
        case 1:
            finished = sendData(session.responder, global ? nullptr : session.requester,
                                session.parameterGroupNumber, data) == SEND_SUCCESS;
            break;
        case 2:
            if (global) {
                finished = true;
            } else if (sendAcknowledgement(session.responder, session.requester,
                                           ACKNOWLEDGEMENT_POSITIVE,
                                           session.parameterGroupNumber)) {
                ++positiveAcknowledgementCount;
                finished = true;
            }
            break;
        case 0:
            if (global) {
                finished = true;
            } else if (sendAcknowledgement(session.responder, session.requester,
                                           ACKNOWLEDGEMENT_NEGATIVE,
                                           session.parameterGroupNumber)) {
                report(NEGATIVE_ACKNOWLEDGEMENT_RESPONSE, 0);
                ++negativeAcknowledgementCount;
                finished = true;
            }
            break;
        default:
            report(LOAD_PGN_INVALID_STATE, 2);
            finished = true;
            break;
    }
    if (finished) {
        freeSession(session);
        return;
    }
    const uint32_t elapsed = NetworkManagementUtilitiesClass::timeElapsed(session.timestamp);
    if (elapsed < CANNOT_RESPOND_TIMEOUT_MS) {
        return;
    }
    if (global) {
        report(DROPPED_TIMEOUT_GLOBAL, 2);
        ++droppedNoSessionCount;
        freeSession(session);
        return;
    }
    if (elapsed < POINT_TO_POINT_TIMEOUT_MS) {
        if (sendAcknowledgement(session.responder, session.requester,
                                ACKNOWLEDGEMENT_CANNOT_RESPOND, session.parameterGroupNumber)) {
            report(CANNOT_RESPOND_RESPONSE, 2);
            ++cannotRespondCount;
            freeSession(session);
        }
        return;
    }
    report(DROPPED_TIMEOUT_POINT_TO_POINT, 2);
    ++droppedNoSessionCount;
    freeSession(session);
}

bool ParameterGroupNumberRequestProtocolClass::sendAcknowledgement(
    InternalControlFunctionClass* responder, ControlFunctionClass* requester, uint8_t control,
    uint32_t parameterGroupNumber) {
    const uint8_t data[8] = {control,
                             0xFF,
                             0xFF,
                             0xFF,
                             requester != nullptr ? requester->getAddress() : GLOBAL_ADDRESS,
                             static_cast<uint8_t>(parameterGroupNumber),
                             static_cast<uint8_t>(parameterGroupNumber >> 8),
                             static_cast<uint8_t>(parameterGroupNumber >> 16)};
    // Sent to everyone; byte 4 names the requester.
    return NetworkManagementClass::sendParameterGroupNumber(
               PGN_ACKNOWLEDGEMENT, data, sizeof(data), responder,
               static_cast<ControlFunctionClass*>(nullptr),
               ACKNOWLEDGEMENT_PRIORITY) == SEND_SUCCESS;
}

uint32_t ParameterGroupNumberRequestProtocolClass::sendData(
    InternalControlFunctionClass* responder, ControlFunctionClass* destination,
    uint32_t parameterGroupNumber, const LoadParameterGroupNumberData& data) {
    return NetworkManagementClass::sendParameterGroupNumber(
        parameterGroupNumber, data.data, data.length, responder, destination, data.priority,
        data.persistent, data.handleOut, data.callback);
}
