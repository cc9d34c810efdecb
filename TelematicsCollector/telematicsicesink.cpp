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

constexpr int kBufferSize = 512;
// A reply holds the method name and a number, or an error text. A garbled reply can announce a
// string of gigabytes, which would be allocated before the read fails.
constexpr int32_t kReplyStringLimit = 64 * 1024;
constexpr int32_t kReplyContainerLimit = 1024;

}  // namespace

TelematicsIceSink::TelematicsIceSink(
    std::vector<std::shared_ptr<TelematicsMessageConstructor>> constructors,
    const std::string& host, int port, int timeoutMs)
    : constructors(std::move(constructors)),
      socket(std::make_shared<apache::thrift::transport::TSocket>(host, port)) {
    socket->setConnTimeout(timeoutMs);
    socket->setRecvTimeout(timeoutMs);
    socket->setSendTimeout(timeoutMs);
    freshBuffers();
}

void TelematicsIceSink::freshBuffers() {
    transport = std::make_shared<apache::thrift::transport::TBufferedTransport>(socket, kBufferSize,
                                                                                kBufferSize);
    protocol = std::make_shared<apache::thrift::protocol::TBinaryProtocol>(
        transport, kReplyStringLimit, kReplyContainerLimit, false, true);
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
        // A failed attempt can leave a request half written or a reply half read in the
        // buffers. Closing through the transport would flush the rest into a broken
        // connection, and throw from here; the next connection must not see either.
        if (socket->isOpen()) {
            socket->close();
        }
        freshBuffers();
        if (attempt >= retries) {
            return;
        }
    }
}
