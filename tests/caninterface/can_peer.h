#pragma once

// The other end of the CAN service's channels: one socketpair(AF_UNIX, SOCK_SEQPACKET) per
// channel, carrying 16-byte can_frame records as a raw CAN socket does. It hands the service
// its ends through the channel opener, writes frames in, and records every frame the service
// writes, on a thread of its own.

#include <fcntl.h>
#include <linux/can.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace cantest {

constexpr std::uint32_t kExtended = 0x80000000u;

// Identifier word of a 29-bit frame; the destination counts only for PDU1 groups.
inline std::uint32_t extendedId(std::uint8_t priority, std::uint32_t pgn, std::uint8_t source,
                                std::uint8_t destination = 0xFF) {
    std::uint32_t id = kExtended | (std::uint32_t{priority} << 26) | (pgn << 8) | source;
    if (((pgn >> 8) & 0xFFu) < 0xF0u) {
        id = (id & ~0xFF00u) | (std::uint32_t{destination} << 8);
    }
    return id;
}

struct Frame {
    std::string channel;
    std::uint32_t id = 0;  // the identifier word as written, bit 31 for 29 bits
    std::vector<std::uint8_t> data;
    std::chrono::steady_clock::time_point at;

    std::uint32_t pgn() const {
        const std::uint32_t pf = (id >> 16) & 0xFFu;
        const std::uint32_t pgn = (id >> 8) & 0x3FFFFu;
        return pf < 0xF0u ? (pgn & 0x3FF00u) : pgn;
    }
    std::uint8_t source() const { return static_cast<std::uint8_t>(id); }
    std::uint8_t destination() const { return static_cast<std::uint8_t>(id >> 8); }
    std::uint8_t priority() const { return static_cast<std::uint8_t>((id >> 26) & 7u); }
};

template <typename Predicate>
bool eventually(Predicate done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

class CanPeer {
public:
    // Channels named in `failing` cannot be opened.
    explicit CanPeer(std::vector<std::string> names = {"can2", "can3", "can1"},
                     std::set<std::string> failing = {}) {
        for (const std::string& name : names) {
            if (failing.count(name) != 0) {
                continue;
            }
            int pair[2];
            if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
                continue;
            }
            // The service's end is non-blocking, as a raw CAN socket is made.
            ::fcntl(pair[0], F_SETFL, ::fcntl(pair[0], F_GETFL, 0) | O_NONBLOCK);
            serviceEnds_[name] = pair[0];
            peerEnds_[name] = pair[1];
        }
        reader_ = std::thread([this] { readLoop(); });
    }
    // Peer ends made elsewhere, such as connections accepted from a service in another process.
    explicit CanPeer(std::map<std::string, int> peerEnds) : peerEnds_(std::move(peerEnds)) {
        reader_ = std::thread([this] { readLoop(); });
    }
    ~CanPeer() {
        stop_ = true;
        reader_.join();
        for (auto& end : peerEnds_) {
            ::close(end.second);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& end : serviceEnds_) {
            ::close(end.second);  // never handed out
        }
    }
    CanPeer(const CanPeer&) = delete;
    CanPeer& operator=(const CanPeer&) = delete;

    // Hands each end out once; the service owns and closes it from then on.
    std::function<int(const std::string&)> opener() {
        return [this](const std::string& name) {
            std::lock_guard<std::mutex> lock(mutex_);
            const auto found = serviceEnds_.find(name);
            if (found == serviceEnds_.end()) {
                return -1;
            }
            const int fd = found->second;
            serviceEnds_.erase(found);
            ++opened_;
            return fd;
        };
    }
    int opened() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return opened_;
    }

    // Writes one record. `length` defaults to the data's size and may lie, as on a real bus.
    bool send(const std::string& channel, std::uint32_t id, const std::vector<std::uint8_t>& data,
              int length = -1) {
        can_frame frame;
        std::memset(&frame, 0, sizeof(frame));
        frame.can_id = id;
        frame.can_dlc = static_cast<std::uint8_t>(length < 0 ? data.size() : length);
        std::memcpy(frame.data, data.data(), std::min<std::size_t>(data.size(), 8));
        return sendRaw(channel, &frame, sizeof(frame));
    }
    bool sendRaw(const std::string& channel, const void* bytes, std::size_t size) {
        const auto found = peerEnds_.find(channel);
        return found != peerEnds_.end() && ::write(found->second, bytes, size) > 0;
    }

    std::vector<Frame> frames() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return frames_;
    }
    std::vector<Frame> frames(const std::string& channel, std::uint32_t pgn) const {
        std::vector<Frame> result;
        for (const Frame& frame : frames()) {
            if (frame.channel == channel && frame.pgn() == pgn) {
                result.push_back(frame);
            }
        }
        return result;
    }
    bool waitFor(std::function<bool(const std::vector<Frame>&)> done,
                 std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) const {
        return eventually([&] { return done(frames()); }, timeout);
    }
    bool waitForFrame(const std::string& channel, std::uint32_t pgn,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) const {
        return waitFor([&](const std::vector<Frame>&) { return !frames(channel, pgn).empty(); },
                       timeout);
    }
    // True once the service has closed its end of the channel.
    bool closedByService(const std::string& channel) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return hungUp_.count(channel) != 0;
    }

private:
    void readLoop() {
        while (!stop_) {
            std::vector<pollfd> fds;
            std::vector<std::string> names;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                for (const auto& end : peerEnds_) {
                    if (hungUp_.count(end.first) == 0) {
                        fds.push_back(pollfd{end.second, POLLIN, 0});
                        names.push_back(end.first);
                    }
                }
            }
            if (::poll(fds.data(), fds.size(), 10) <= 0) {
                continue;
            }
            for (std::size_t i = 0; i < fds.size(); ++i) {
                if ((fds[i].revents & POLLIN) != 0) {
                    can_frame frame;
                    std::memset(&frame, 0, sizeof(frame));
                    const ssize_t got = ::read(fds[i].fd, &frame, sizeof(frame));
                    if (got == 0) {
                        std::lock_guard<std::mutex> lock(mutex_);
                        hungUp_.insert(names[i]);
                    } else if (got > 0) {
                        Frame received{
                            names[i], frame.can_id,
                            std::vector<std::uint8_t>(frame.data,
                                                      frame.data + std::min<int>(frame.can_dlc, 8)),
                            std::chrono::steady_clock::now()};
                        std::lock_guard<std::mutex> lock(mutex_);
                        frames_.push_back(std::move(received));
                    }
                } else if ((fds[i].revents & (POLLHUP | POLLERR)) != 0) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    hungUp_.insert(names[i]);
                }
            }
        }
    }

    std::map<std::string, int> serviceEnds_;
    std::map<std::string, int> peerEnds_;
    mutable std::mutex mutex_;
    std::vector<Frame> frames_;
    std::set<std::string> hungUp_;
    int opened_ = 0;
    std::atomic<bool> stop_{false};
    std::thread reader_;
};

}  // namespace cantest
