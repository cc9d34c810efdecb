#include "TelematicsCollector/telematicsicesink.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>

#include "ice/Ice.h"

namespace {

log4cplus::Logger logger = log4cplus::Logger::getInstance("tilthwatch.telematicsicesink");

constexpr int kTimeoutMs = 20000;
constexpr int kBufferSize = 512;

}  // namespace

TelematicsIceSink::TelematicsIceSink(
    std::vector<std::shared_ptr<TelematicsMessageConstructor>> constructors,
    const std::string& host, int port)
    : constructors(std::move(constructors)),
      socket(std::make_shared<apache::thrift::transport::TSocket>(host, port)) {
    socket->setConnTimeout(kTimeoutMs);
    socket->setRecvTimeout(kTimeoutMs);
    socket->setSendTimeout(kTimeoutMs);
    transport = std::make_shared<apache::thrift::transport::TBufferedTransport>(socket, kBufferSize,
                                                                                kBufferSize);
    protocol = std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport);
    client = std::make_shared<ice::IceClient>(protocol);
}

TelematicsIceSink::~TelematicsIceSink() = default;

void TelematicsIceSink::log(const nvsf::telemalog::ValueMap& values) {
    for (const auto& constructor : constructors) {
        std::string type;
        std::string body;
        if (constructor->construct(values, type, body)) {
            LOG4CPLUS_TRACE(logger, type << " " << body);
            sendToIce(type, body);
        }
    }
}

void TelematicsIceSink::sendToIce(std::string type, std::string body) {
    if (retries <= 0) {
        return;
    }
    for (int attempt = 1;; ++attempt) {
        const char* outcome = attempt < retries ? " Retrying." : " Aborting.";
        try {
            transport->open();
            client->TEL_SendGenericJSON(type, body);  // any reply counts as delivered
            transport->close();
            return;
        } catch (const apache::thrift::transport::TTransportException& e) {
            LOG4CPLUS_ERROR(logger, "Failed to send telematics to ice: " << e.what() << outcome);
        } catch (const apache::thrift::protocol::TProtocolException& e) {
            LOG4CPLUS_ERROR(logger, "Failed to send telematics to ice: " << e.what() << outcome);
            LOG4CPLUS_ERROR(logger, e.what());
        } catch (const apache::thrift::TApplicationException& e) {
            LOG4CPLUS_ERROR(logger, "Failed to send telematics to ice: " << e.what() << outcome);
        }
        if (transport->isOpen()) {
            transport->close();
        }
        if (attempt >= retries) {
            return;
        }
    }
}
