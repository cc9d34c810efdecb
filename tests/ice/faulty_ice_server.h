#pragma once

// An Ice service on a loopback port that misbehaves on purpose, one connection at a time:
// it answers late, answers garbage, closes half-way through its answer, resets the connection
// at once, or never accepts at all. It speaks the real wire format, so what it does not break
// reaches the client as the real service would send it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "ice/Ice.h"

namespace icetest {

struct Fault {
    enum Kind {
        Answer,      // a proper reply, `delay` after the whole request arrived
        Garbage,     // read the request, answer `bytes`, close
        HalfAnswer,  // read the request, send the first half of a proper reply, close
        Reset,       // reset the connection as soon as it is accepted, reading nothing
    };
    Kind kind = Answer;
    std::chrono::milliseconds delay{0};
    std::string bytes;

    static Fault answer() { return {}; }
    static Fault late(std::chrono::milliseconds by) { return {Answer, by, {}}; }
    static Fault garbage(std::string bytes) { return {Garbage, {}, std::move(bytes)}; }
    static Fault halfAnswer() { return {HalfAnswer, {}, {}}; }
    static Fault reset() { return {Reset, {}, {}}; }
};

struct Received {
    std::string method;
    std::string sType;
    std::string sPayload;
    std::chrono::steady_clock::time_point at;
};

class FaultyIceServer {
public:
    // A server that takes connections; the n-th one gets the n-th queued fault, later ones a
    // proper answer.
    explicit FaultyIceServer(std::vector<Fault> faults = {})
        : faults_(faults.begin(), faults.end()) {
        listen(SOMAXCONN);
        acceptor_ = std::thread([this] { acceptLoop(); });
    }

    // A service that hangs before accepting. The kernel completes the first connection
    // into the backlog of one, and nobody reads it; it drops any further connection request,
    // so those run into the client's connect timeout.
    struct Stalled {};
    explicit FaultyIceServer(Stalled) { listen(0); }
    // As Stalled, with the backlog already taken: no connection completes at all.
    struct NeverAccepting {};
    explicit FaultyIceServer(NeverAccepting) {
        listen(0);
        filler_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback(port_);
        if (::connect(filler_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("cannot fill the backlog");
        }
    }

    ~FaultyIceServer() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        if (acceptor_.joinable()) {
            acceptor_.join();
        }
        for (std::thread& t : connections_) {
            t.join();
        }
        if (filler_ >= 0) {
            ::close(filler_);
        }
        ::close(listener_);
    }
    FaultyIceServer(const FaultyIceServer&) = delete;
    FaultyIceServer& operator=(const FaultyIceServer&) = delete;

    int port() const { return port_; }

    // Requests read in full, in the order they arrived; a late or broken answer does not
    // make a request any less received.
    std::vector<Received> received() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }
    int connections() const { return connectionCount_; }

private:
    static sockaddr_in loopback(int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    void listen(int backlog) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, backlog) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("faulty Ice server cannot listen");
        }
        port_ = ntohs(address.sin_port);
    }

    void acceptLoop() {
        for (;;) {
            pollfd p{listener_, POLLIN, 0};
            if (::poll(&p, 1, 10) > 0) {
                const int fd = ::accept(listener_, nullptr, nullptr);
                if (fd >= 0) {
                    ++connectionCount_;
                    Fault fault = nextFault();
                    std::lock_guard<std::mutex> lock(mutex_);
                    connections_.emplace_back([this, fd, fault] { serve(fd, fault); });
                }
            }
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) {
                return;
            }
        }
    }

    Fault nextFault() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (faults_.empty()) {
            return Fault::answer();
        }
        Fault fault = faults_.front();
        faults_.pop_front();
        return fault;
    }

    void serve(int fd, const Fault& fault) {
        namespace at = apache::thrift;
        if (fault.kind == Fault::Reset) {
            const linger abortive{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
            ::close(fd);
            return;
        }
        // The accepted socket belongs to this TSocket and is closed with it. A connection
        // that is kept takes proper answers after its first one.
        auto socket = std::make_shared<at::transport::TSocket>(fd);
        socket->setRecvTimeout(5000);
        auto in = std::make_shared<at::transport::TBufferedTransport>(socket);
        at::protocol::TBinaryProtocol protocol(in);
        for (Fault next = fault;; next = Fault::answer()) {
            Received request;
            int32_t sequenceId = 0;
            try {
                at::protocol::TMessageType type;
                protocol.readMessageBegin(request.method, type, sequenceId);
                ice::Ice_TEL_SendGenericJSON_args args;
                args.read(&protocol);
                protocol.readMessageEnd();
                request.sType = args.sType;
                request.sPayload = args.sPayload;
            } catch (const at::TException&) {
                return;  // the client closed
            }
            request.at = std::chrono::steady_clock::now();
            {
                std::lock_guard<std::mutex> lock(mutex_);
                received_.push_back(request);
            }
            std::string reply = properReply(request.method, sequenceId);
            if (next.kind == Fault::Answer) {
                std::unique_lock<std::mutex> lock(mutex_);
                if (wake_.wait_for(lock, next.delay, [this] { return stopping_; })) {
                    return;
                }
            } else if (next.kind == Fault::Garbage) {
                reply = next.bytes;
            } else if (next.kind == Fault::HalfAnswer) {
                reply.resize(reply.size() / 2);
            }
            // The client may have given up and closed already.
            if (::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) < 0 ||
                next.kind != Fault::Answer) {
                return;
            }
        }
    }

    static std::string properReply(const std::string& method, int32_t sequenceId) {
        namespace at = apache::thrift;
        auto buffer = std::make_shared<at::transport::TMemoryBuffer>();
        at::protocol::TBinaryProtocol out(buffer);
        ice::Ice_TEL_SendGenericJSON_result result;
        result.success = 0;
        result.__isset.success = true;
        out.writeMessageBegin(method, at::protocol::T_REPLY, sequenceId);
        result.write(&out);
        out.writeMessageEnd();
        return buffer->getBufferAsString();
    }

    int listener_ = -1;
    int filler_ = -1;
    int port_ = 0;
    std::atomic<int> connectionCount_{0};
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::deque<Fault> faults_;
    std::vector<Received> received_;
    std::thread acceptor_;
    std::vector<std::thread> connections_;
};

}  // namespace icetest
