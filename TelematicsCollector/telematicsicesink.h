#pragma once

#include <memory>
#include <string>
#include <vector>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "TelematicsCollector/telematicsmessageconstructor.h"
#include "ice/Ice.h"
#include "telemalog/sink.h"

// Sends each record as JSON to the local Ice service. A connection lives for one send;
// a failed send is retried at once, then dropped.
class TelematicsIceSink : public nvsf::telemalog::Sink {
public:
    static constexpr const char* kDefaultHost = "localhost";
    static constexpr int kDefaultPort = 9090;
    // Connect, receive and send timeouts alike.
    static constexpr int kDefaultTimeoutMs = 20000;

    explicit TelematicsIceSink(
        std::vector<std::shared_ptr<TelematicsMessageConstructor>> constructors,
        const std::string& host = kDefaultHost, int port = kDefaultPort,
        int timeoutMs = kDefaultTimeoutMs);
    ~TelematicsIceSink() override;

    using nvsf::telemalog::Sink::log;
    void log(const nvsf::telemalog::ValueMap& values) override;

    void sendToIce(std::string type, std::string body);

private:
    // New transport, protocol and client over the same socket.
    void freshBuffers();

    std::vector<std::shared_ptr<TelematicsMessageConstructor>> constructors;
    std::shared_ptr<apache::thrift::transport::TSocket> socket;
    std::shared_ptr<apache::thrift::transport::TBufferedTransport> transport;
    std::shared_ptr<apache::thrift::protocol::TBinaryProtocol> protocol;
    std::shared_ptr<ice::IceClient> client;
    int retries = 3;
};
