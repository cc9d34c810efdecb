#pragma once

// Loopback peers for driving the run loop: a subscriber that timestamps every frame, and a
// way to wait for a condition without sleeping longer than needed.

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <zmq.hpp>

namespace apptest {

// Polls `done` until it holds or `timeout` passes; gives its last answer.
template <typename Predicate>
bool eventually(Predicate done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
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
        return eventually([&] { return frames().size() >= n; }, timeout);
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
