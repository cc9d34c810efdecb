#include "TelematicsCollector/telematicszmqsink.h"

#include <cstdio>
#include <cstring>

namespace {
constexpr int kIoThreads = 1;
constexpr int kMaxSockets = 1023;
}  // namespace

TelematicsZmqSink::TelematicsZmqSink(
    std::vector<std::shared_ptr<TelematicsMessageConstructor>> constructors,
    const std::string& endpoint)
    : constructors(std::move(constructors)),
      endpoint(endpoint),
      context(kIoThreads, kMaxSockets),
      socket(context, zmq::socket_type::pub) {
    socket.bind(endpoint);
}

void TelematicsZmqSink::log(const nvsf::telemalog::ValueMap& values) {
    for (const auto& constructor : constructors) {
        std::string type;
        std::string body;
        if (constructor->construct(values, type, body)) {
            publish(body);  // the type is not sent
        }
    }
}

std::string TelematicsZmqSink::boundEndpoint() const {
    return socket.get(zmq::sockopt::last_endpoint);
}

void TelematicsZmqSink::publish(const std::string& body) {
    if (socket.handle() == nullptr) {
        socket = zmq::socket_t(context, zmq::socket_type::pub);
        socket.bind(endpoint);
        if (socket.handle() == nullptr) {
            return;
        }
    }
    // The frame carries the terminating zero; "%s" cuts the text at an inner zero byte while
    // the frame keeps its full length.
    zmq::message_t message(body.size() + 1);
    std::memset(message.data(), 0, message.size());
    std::snprintf(static_cast<char*>(message.data()), message.size(), "%s", body.c_str());
    // An empty result means EAGAIN, which counts as sent; other failures throw zmq::error_t.
    (void)socket.send(message, zmq::send_flags::none);
}
