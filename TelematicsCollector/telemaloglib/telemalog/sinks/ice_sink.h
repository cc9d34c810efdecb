#pragma once

#include <memory>
#include <string>
#include <vector>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "ice/Ice.h"
#include "telemalog/sink.h"

namespace nvsf {
namespace telemalog {

// Sends each record as key and value columns through TEL_SendGeneric. The owner connects;
// the connection is kept between sends and re-established after a failed one.
class IceSink : public Sink {
public:
    IceSink(const std::string& host, int port);
    ~IceSink() override;

    using Sink::log;
    void log(const ValueMap& values) override;

    virtual bool connect();
    // Gives up after `retries` reconnections; a protocol fault is never retried.
    virtual bool send(const std::string& type, const std::vector<ice::eDataType::type>& eType,
                      const std::vector<std::string>& sKey, const std::vector<std::string>& sValue,
                      int retries);
    virtual void disconnect();

private:
    // New transport, protocol and client over the same socket.
    void freshBuffers();

    std::shared_ptr<ice::IceClient> client;
    std::shared_ptr<apache::thrift::transport::TSocket> socket;
    std::shared_ptr<apache::thrift::transport::TBufferedTransport> transport;
    std::shared_ptr<apache::thrift::protocol::TBinaryProtocol> protocol;
    std::string host;
    int port;
};

}  // namespace telemalog
}  // namespace nvsf
