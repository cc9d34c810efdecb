#pragma once

#include <memory>
#include <string>
#include <vector>

#include <zmq.hpp>

#include "TelematicsCollector/telematicsmessageconstructor.h"
#include "telemalog/sink.h"

// Publishes each record's status line on a ZeroMQ PUB socket, with its terminating zero byte.
// The socket is bound at construction; a taken endpoint throws zmq::error_t.
class TelematicsZmqSink : public nvsf::telemalog::Sink {
public:
    static constexpr const char* kDefaultEndpoint = "tcp://*:4499";

    explicit TelematicsZmqSink(
        std::vector<std::shared_ptr<TelematicsMessageConstructor>> constructors,
        const std::string& endpoint = kDefaultEndpoint);

    using nvsf::telemalog::Sink::log;
    void log(const nvsf::telemalog::ValueMap& values) override;

    // The endpoint actually bound, with a wildcard port resolved.
    std::string boundEndpoint() const;

private:
    void publish(const std::string& body);

    std::vector<std::shared_ptr<TelematicsMessageConstructor>> constructors;
    std::string endpoint;
    // Declared before the socket, so the socket closes first on destruction.
    zmq::context_t context;
    zmq::socket_t socket;
};
