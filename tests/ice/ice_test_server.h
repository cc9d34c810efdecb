#pragma once

// A Thrift server of service Ice on a loopback port. It records every call, answers as the
// real service does, and can be told to misbehave: each call takes the next queued reply.
// It reads and writes the wire format itself, so what it does not break reaches the client
// as the real service would send it.

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "ice/Ice.h"

namespace icetest {

namespace at = apache::thrift;

struct Reply {
    std::chrono::milliseconds delay{0};  // before a proper answer
    enum { kAnswer, kFailure, kBytes, kHalf, kReset } kind = kAnswer;
    std::string bytes;  // sent instead of an answer, and then the server closes

    static Reply late(std::chrono::milliseconds by) { return {by, kAnswer, {}}; }
    static const Reply ApplicationError, DropConnection, BadVersion, HttpError, HalfAnswer, Reset;
};
inline const Reply Reply::ApplicationError{{}, kFailure, {}};  // a TApplicationException
inline const Reply Reply::DropConnection{{}, kBytes, ""};
// Reads as a protocol version that does not exist.
inline const Reply Reply::BadVersion{{}, kBytes, std::string("\x80\x02\x00\x01", 4)};
// Reads as a string length of over a gigabyte.
inline const Reply Reply::HttpError{{}, kBytes, "HTTP/1.1 400 Bad Request\r\n\r\n"};
inline const Reply Reply::HalfAnswer{{}, kHalf, {}};  // then it closes
inline const Reply Reply::Reset{{}, kReset, {}};      // on accept, before anything is read

// A request read in full, whatever its answer.
struct Call {
    std::string method;
    std::string sType;
    std::string sPayload;
    std::vector<ice::eDataType::type> eType;
    std::vector<std::string> sKey;
    std::vector<std::string> sValue;
    std::chrono::steady_clock::time_point at;  // when it had arrived whole
};

class IceTestServer {
public:
    // Stalled takes no connection: the kernel completes the first into the backlog of one and
    // drops the others, which run into the client's connect timeout. Down has closed its port.
    enum class Listen { Accepting, Stalled, Down };

    // A call answered properly returns `successValue`.
    explicit IceTestServer(int32_t successValue = 0, Listen mode = Listen::Accepting)
        : successValue_(successValue), listener_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        // A stalled service's connections take a few kilobytes at most: writes to it soon block.
        const int buffer = 4096;
        if ((mode == Listen::Stalled &&
             ::setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer) != 0) ||
            ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener_, mode == Listen::Stalled ? 0 : SOMAXCONN) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("Ice test server cannot listen");
        }
        port_ = ntohs(address.sin_port);
        if (mode == Listen::Accepting) {
            acceptor_ = std::thread([this] { acceptLoop(); });
        } else if (mode == Listen::Down) {
            stop();
        }
    }
    ~IceTestServer() { stop(); }
    IceTestServer(const IceTestServer&) = delete;
    IceTestServer& operator=(const IceTestServer&) = delete;

    int port() const { return port_; }

    // Replies for the next calls, in order; afterwards calls are answered properly.
    void queueReplies(const std::vector<Reply>& replies) {
        std::lock_guard<std::mutex> lock(mutex_);
        replies_.insert(replies_.end(), replies.begin(), replies.end());
    }

    std::vector<Call> calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

    // Ends every connection and closes the port.
    void stop() {
        std::unique_lock<std::mutex> lock(mutex_);
        stopping_ = true;
        for (int fd : open_) {
            ::shutdown(fd, SHUT_RDWR);
        }
        wake_.notify_all();
        lock.unlock();
        if (acceptor_.joinable()) {
            acceptor_.join();
        }
        lock.lock();
        wake_.wait(lock, [this] { return open_.empty(); });
        ::close(std::exchange(listener_, -1));
    }

private:
    void acceptLoop() {
        for (;;) {
            pollfd p{listener_, POLLIN, 0};
            const int fd = ::poll(&p, 1, 10) > 0 ? ::accept(listener_, nullptr, nullptr) : -1;
            std::lock_guard<std::mutex> lock(mutex_);
            const bool reset =
                fd >= 0 && !replies_.empty() && replies_.front().kind == Reply::kReset;
            if (fd >= 0 && !stopping_ && !reset) {
                open_.insert(fd);
                std::thread([this, fd] { serve(fd); }).detach();
            } else if (fd >= 0) {
                const linger abortive{1, 0};
                ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
                ::close(fd);
                replies_.erase(replies_.begin(), replies_.begin() + (reset ? 1 : 0));
            }
            if (stopping_) {
                return;
            }
        }
    }

    // Takes calls on one connection until the client closes it or a reply ends it.
    void serve(int fd) {
        auto socket = std::make_shared<at::transport::TSocket>(fd);
        at::protocol::TBinaryProtocol in(
            std::make_shared<at::transport::TBufferedTransport>(socket));
        for (bool open = true; open;) {
            Call call;
            int32_t sequenceId = 0;
            try {
                at::protocol::TMessageType type;
                in.readMessageBegin(call.method, type, sequenceId);
                ice::Ice_TEL_SendGeneric_args generic;
                ice::Ice_TEL_SendGenericJSON_args json;
                call.method == "TEL_SendGeneric" ? generic.read(&in) : json.read(&in);
                in.readMessageEnd();
                call = {call.method,
                        generic.sType + json.sType,
                        json.sPayload,
                        generic.eType,
                        generic.sKey,
                        generic.sValue,
                        std::chrono::steady_clock::now()};
            } catch (const at::TException&) {
                break;  // the client closed
            }
            std::unique_lock<std::mutex> lock(mutex_);
            calls_.push_back(call);
            const Reply reply = replies_.empty() ? Reply{} : replies_.front();
            replies_.erase(replies_.begin(), replies_.begin() + (replies_.empty() ? 0 : 1));
            if (wake_.wait_for(lock, reply.delay, [this] { return stopping_; })) {
                break;
            }
            lock.unlock();
            std::string bytes =
                reply.kind == Reply::kBytes ? reply.bytes : answer(call, sequenceId, reply.kind);
            if (reply.kind == Reply::kHalf) {
                bytes.resize(bytes.size() / 2);
            }
            // The client may have given up and closed already.
            open = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0 &&
                   (reply.kind == Reply::kAnswer || reply.kind == Reply::kFailure);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        socket->close();
        open_.erase(fd);
        wake_.notify_all();
    }

    std::string answer(const Call& call, int32_t sequenceId, int kind) const {
        auto buffer = std::make_shared<at::transport::TMemoryBuffer>();
        at::protocol::TBinaryProtocol out(buffer);
        const bool failure = kind == Reply::kFailure;
        out.writeMessageBegin(
            call.method, failure ? at::protocol::T_EXCEPTION : at::protocol::T_REPLY, sequenceId);
        if (failure) {
            at::TApplicationException(at::TApplicationException::INTERNAL_ERROR).write(&out);
        } else {
            ice::Ice_TEL_SendGenericJSON_result result;  // as every method's: an i32 success
            result.success = successValue_;
            result.__isset.success = true;
            result.write(&out);
        }
        out.writeMessageEnd();
        return buffer->getBufferAsString();
    }

    const int32_t successValue_;
    int listener_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::deque<Reply> replies_;
    std::vector<Call> calls_;
    std::set<int> open_;
    std::thread acceptor_;
};

// A loopback port nobody listens on: taken from a server that is then stopped.
inline int freePort() {
    return IceTestServer().port();
}

}  // namespace icetest
