#include "telemalog/sinks/ice_sink.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>

#include "ice/Ice.h"

namespace nvsf {
namespace telemalog {

namespace {

log4cplus::Logger logger = log4cplus::Logger::getInstance("telemalog.sinks.ice");

constexpr int kConnectTimeoutMs = 30000;
constexpr int kReceiveTimeoutMs = 2000;
constexpr int kSendTimeoutMs = 2000;
// A reply holds the method name and a number, or an error text. A garbled reply can announce a
// string of gigabytes, which would be allocated before the read fails.
constexpr int32_t kReplyStringLimit = 64 * 1024;
constexpr int32_t kReplyContainerLimit = 1024;

}  // namespace

IceSink::IceSink(const std::string& host, int port) : host(host), port(port) {
    socket = std::make_shared<apache::thrift::transport::TSocket>(this->host, this->port);
    socket->setConnTimeout(kConnectTimeoutMs);
    socket->setRecvTimeout(kReceiveTimeoutMs);
    socket->setSendTimeout(kSendTimeoutMs);
    freshBuffers();
}

void IceSink::freshBuffers() {
    transport = std::make_shared<apache::thrift::transport::TBufferedTransport>(socket);
    protocol = std::make_shared<apache::thrift::protocol::TBinaryProtocol>(
        transport, kReplyStringLimit, kReplyContainerLimit, false, true);
    client = std::make_shared<ice::IceClient>(protocol);
}

IceSink::~IceSink() {
    // Not virtual dispatch: a derived part is already gone here.
    IceSink::disconnect();
}

bool IceSink::connect() {
    try {
        // A failed send can leave a request half written or a reply half read in the buffers;
        // the new connection starts without them, and nothing is flushed into the old one.
        if (socket->isOpen()) {
            socket->close();
        }
        freshBuffers();
        transport->open();
        LOG4CPLUS_INFO(logger, "Thrift ICE Connection successful.");
        return true;
    } catch (const apache::thrift::transport::TTransportException& e) {
        LOG4CPLUS_ERROR(logger, "Thrift Transport Error on Connect: " << e.what());
    } catch (const apache::thrift::TException& e) {
        LOG4CPLUS_ERROR(logger, "Thrift Generic Error on Connect: " << e.what());
    }
    return false;
}

void IceSink::disconnect() {
    try {
        if (transport->isOpen()) {
            transport->close();
        }
    } catch (const apache::thrift::transport::TTransportException& e) {
        LOG4CPLUS_ERROR(logger, "Thrift Transport Error on Disconnect: " << e.what());
    } catch (const apache::thrift::TException& e) {
        LOG4CPLUS_ERROR(logger, "Thrift Generic Error on Disconnect: " << e.what());
    }
}

void IceSink::log(const ValueMap& values) {
    if (!client) {
        LOG4CPLUS_ERROR(logger, "Error: Failed to send message.  IceSink is not connected.");
        return;
    }
    std::string type;
    std::vector<ice::eDataType::type> eType;
    std::vector<std::string> sKey;
    std::vector<std::string> sValue;
    for (const auto& entry : values) {
        const Value& value = entry.second;
        if (entry.first == "type") {
            type = toText(value);
        }
        sKey.push_back(entry.first);
        if (value.type() == typeid(bool)) {
            eType.push_back(ice::eDataType::json_INTEGER);
            sValue.push_back(toBool(value) ? "1" : "0");
        } else if (value.type() == typeid(int)) {
            eType.push_back(ice::eDataType::json_INTEGER);
            sValue.push_back(toText(value));
        } else if (value.type() == typeid(double)) {
            eType.push_back(ice::eDataType::json_DOUBLE);
            sValue.push_back(toText(value));
        } else {
            eType.push_back(ice::eDataType::json_STRING);
            sValue.push_back(toText(value));
        }
    }
    if (type.empty()) {
        LOG4CPLUS_ERROR(logger, "Programmer Error: Attempt to send telematics without type.");
    }
    send(type, eType, sKey, sValue, 1);
}

bool IceSink::send(const std::string& type, const std::vector<ice::eDataType::type>& eType,
                   const std::vector<std::string>& sKey, const std::vector<std::string>& sValue,
                   int retries) {
    if (retries < 0) {
        return false;
    }
    int i = 0;
    for (;;) {
        try {
            client->TEL_SendGeneric(type, eType, sKey, sValue);
            return true;
        } catch (const apache::thrift::protocol::TProtocolException& e) {
            LOG4CPLUS_ERROR(logger, "Thrift Protocol Error on Send: " << e.what());
            // Not sent again, but the stream is out of step: the next send needs a new one.
            connect();
            return false;
        } catch (const apache::thrift::transport::TTransportException& e) {
            LOG4CPLUS_ERROR(logger, "Thrift Transport Error on Send: " << e.what());
        } catch (const std::exception& e) {
            LOG4CPLUS_ERROR(logger, "Thrift Generic Error on Send: " << e.what());
        }
        ++i;
        LOG4CPLUS_ERROR(logger, "ICE Send Failed: Retry " << i);
        connect();
        if (i > retries) {
            return false;
        }
    }
}

}  // namespace telemalog
}  // namespace nvsf
