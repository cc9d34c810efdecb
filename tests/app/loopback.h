#pragma once

// Loopback peers for driving the run loop: a free port for its ZeroMQ endpoint and a
// subscriber that timestamps every frame.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <zmq.hpp>

namespace apptest {

// A port the kernel just handed out and that is free again; good enough between tests.
inline int freeLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        throw std::runtime_error("socket");
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(fd);
        throw std::runtime_error("bind");
    }
    ::close(fd);
    return ntohs(address.sin_port);
}

struct Frame {
    std::string bytes;
    std::chrono::steady_clock::time_point at;
};

// Receives on its own thread until destroyed.
class FrameCollector {
public:
    explicit FrameCollector(const std::string& endpoint) {
        socket_.set(zmq::sockopt::subscribe, "");
        socket_.set(zmq::sockopt::rcvtimeo, 50);
        socket_.connect(endpoint);
        thread_ = std::thread([this] {
            while (!stop_) {
                zmq::message_t message;
                if (socket_.recv(message)) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    frames_.push_back({message.to_string(), std::chrono::steady_clock::now()});
                }
            }
        });
    }
    ~FrameCollector() {
        stop_ = true;
        thread_.join();
    }

    std::vector<Frame> frames() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return frames_;
    }

    bool waitForFrames(std::size_t n, std::chrono::milliseconds timeout) const {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (frames().size() >= n) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return frames().size() >= n;
    }

private:
    zmq::context_t context_;
    zmq::socket_t socket_{context_, zmq::socket_type::sub};
    mutable std::mutex mutex_;
    std::vector<Frame> frames_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace apptest
