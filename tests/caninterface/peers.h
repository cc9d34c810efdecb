#pragma once

// Peers of the service, recorded on a thread of their own: the machine's end of its CAN
// channels on tools/fake_can_interfaces.h (in-process through opener(), in a child through the
// preloaded fake_socketcan library) and a ZeroMQ subscriber. Also a child process.

#include <linux/can.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include <zmq.hpp>

#include "tools/fake_can_interfaces.h"

namespace cantest {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Polls `done` until it holds or `timeout` passes; gives its last answer.
template <typename Predicate>
bool eventually(Predicate done, milliseconds timeout = milliseconds(10000)) {
    for (const auto deadline = Clock::now() + timeout; !done();
         std::this_thread::sleep_for(milliseconds(2))) {
        if (Clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

// Identifier word of a 29-bit frame; the destination counts only for PDU1 groups.
inline std::uint32_t extendedId(std::uint8_t priority, std::uint32_t pgn, std::uint8_t source,
                                std::uint8_t destination = 0xFF) {
    const std::uint32_t id = 0x80000000u | (std::uint32_t{priority} << 26) | (pgn << 8) | source;
    return ((pgn >> 8) & 0xFFu) < 0xF0u ? (id & ~0xFF00u) | (destination << 8u) : id;
}

// The low `size` bytes of `value`, least significant first, as NAMEs and groups travel.
inline Bytes littleEndian(std::uint64_t value, int size) {
    Bytes bytes;
    for (int i = 0; i < size; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    return bytes;
}

// Connects to, or binds, a TCP port of this machine; true on success.
inline bool tryPort(int port, bool connect) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(connect ? INADDR_LOOPBACK : INADDR_ANY);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const auto* raw = reinterpret_cast<sockaddr*>(&address);
    const bool ok =
        (connect ? ::connect(fd, raw, sizeof address) : ::bind(fd, raw, sizeof address)) == 0;
    ::close(fd);
    return ok;
}

// A frame the service wrote: channel, identifier word (bit 31 for 29 bits) and data.
struct Frame {
    std::string channel;
    std::uint32_t id;
    Bytes data;

    std::uint32_t pgn() const {
        const std::uint32_t pgn = (id >> 8) & 0x3FFFFu;
        return ((id >> 16) & 0xFFu) < 0xF0u ? (pgn & 0x3FF00u) : pgn;
    }
    // "98EAFFFE 00EE00": one comparison checks identifier and data.
    std::string text() const {
        char out[12];
        std::string result(out, std::snprintf(out, sizeof out, "%08X ", id));
        for (const std::uint8_t byte : data) {
            result.append(out, std::snprintf(out, sizeof out, "%02X", byte));
        }
        return result;
    }
};

// A message the service published.
struct Published {
    std::string bytes;
    Clock::time_point at;
};

// The CAN channels are SOCK_SEQPACKET connections carrying 16-byte can_frame records, as a raw
// CAN socket does. Only the channels in `open` have a listener: the others cannot be opened.
class Peers {
public:
    explicit Peers(const std::vector<std::string>& open = {"can2", "can3", "can1"})
        : count_(open.size()), interfaces_(open) {}
    ~Peers() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        for (auto& end : ends_) {
            ::close(end.second);
        }
    }

    // TILTHWATCH_FAKE_CAN_DIR of a service with the fake_socketcan library preloaded.
    const std::string& directory() const { return interfaces_.directory(); }
    // The channel opener of an in-process service: non-blocking, as a raw CAN socket is made.
    std::function<int(const std::string&)> opener() const {
        return [directory = directory()](const std::string& name) {
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::snprintf(address.sun_path, sizeof address.sun_path, "%s/%s", directory.c_str(),
                          name.c_str());
            const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
                ::close(fd);
                return -1;
            }
            return fd;
        };
    }
    // Takes the service's connection on every channel that can be opened and subscribes to
    // `endpoint` if given; then records. With a `tick` channel it also sends a standard frame
    // there at every turn, at least every 10 ms: the stack then updates every few milliseconds
    // instead of every four seconds. False when a channel was not opened.
    bool attach(const std::string& endpoint = "", const std::string& tick = "") {
        ends_ = interfaces_.accept(milliseconds(15000));
        if (!endpoint.empty()) {
            subscriber_.emplace(context_, zmq::socket_type::sub);
            subscriber_->set(zmq::sockopt::subscribe, "");
            subscriber_->connect(endpoint);
        }
        thread_ = std::thread([this, tick] {
            while (!stop_) {
                send(tick, 0x7FF, {0});
                receive();
            }
        });
        return ends_.size() == count_;
    }

    // Writes one record. `length` defaults to the data's size and may lie, as on a real bus.
    void send(const std::string& channel, std::uint32_t id, const Bytes& data, int length = -1) {
        const can_frame frame = record(id, data, length);
        sendRaw(channel, &frame, sizeof frame);
    }
    static can_frame record(std::uint32_t id, const Bytes& data, int length = -1) {
        can_frame frame{};
        frame.can_id = id;
        frame.can_dlc = static_cast<std::uint8_t>(length < 0 ? data.size() : length);
        std::memcpy(frame.data, data.data(), std::min<std::size_t>(data.size(), 8));
        return frame;
    }
    void sendRaw(const std::string& channel, const void* bytes, std::size_t size) {
        const auto end = ends_.find(channel);
        if (end != ends_.end()) {
            (void)!::send(end->second, bytes, size, MSG_NOSIGNAL);
        }
    }

    // The texts of the frames of one group on one channel.
    std::vector<std::string> frames(const std::string& channel, std::uint32_t pgn) const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> texts;
        for (const Frame& frame : frames_) {
            if (frame.channel == channel && frame.pgn() == pgn) {
                texts.push_back(frame.text());
            }
        }
        return texts;
    }
    // Waits until at least `count` frames of the group came on the channel.
    bool waitForFrame(const std::string& channel, std::uint32_t pgn, std::size_t count = 1) const {
        return eventually([&] { return frames(channel, pgn).size() >= count; });
    }
    // True once the service has closed its end of the channel.
    bool closedByService(const std::string& channel) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return hungUp_.count(channel) != 0;
    }
    std::vector<Published> published() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return published_;
    }

private:
    void receive() {
        std::vector<zmq::pollitem_t> items;
        std::vector<std::string> names;
        for (const auto& end : ends_) {
            if (!closedByService(end.first)) {
                items.push_back({nullptr, end.second, ZMQ_POLLIN, 0});
                names.push_back(end.first);
            }
        }
        if (subscriber_) {
            items.push_back({subscriber_->handle(), 0, ZMQ_POLLIN, 0});
        }
        if (zmq::poll(items.data(), items.size(), milliseconds(10)) <= 0) {
            return;
        }
        for (std::size_t i = 0; i < names.size(); ++i) {
            can_frame frame{};
            const bool got = (items[i].revents & ZMQ_POLLIN) != 0 &&
                             ::read(items[i].fd, &frame, sizeof frame) > 0;
            std::lock_guard<std::mutex> lock(mutex_);
            if (got) {
                const Bytes data(frame.data, frame.data + std::min<int>(frame.can_dlc, 8));
                frames_.push_back({names[i], frame.can_id, data});
            } else if (items[i].revents != 0) {
                hungUp_.insert(names[i]);
            }
        }
        zmq::message_t message;
        while (subscriber_ && subscriber_->recv(message, zmq::recv_flags::dontwait)) {
            std::lock_guard<std::mutex> lock(mutex_);
            published_.push_back({message.to_string(), Clock::now()});
        }
    }

    const std::size_t count_;
    fakecan::FakeInterfaces interfaces_;
    std::map<std::string, int> ends_;
    zmq::context_t context_;
    std::optional<zmq::socket_t> subscriber_;
    mutable std::mutex mutex_;
    std::vector<Frame> frames_;
    std::vector<Published> published_;
    std::set<std::string> hungUp_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// A child process; killed if the test leaves it running.
class Child {
public:
    explicit Child(std::vector<std::string> arguments) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        if (::posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    // True once the child, sent `number`, exited within `timeout` with status 0.
    bool exitsWithZeroOn(int number, milliseconds timeout) {
        ::kill(pid_, number);
        int status = 0;
        const bool exited =
            eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout);
        pid_ = exited ? -1 : pid_;
        return exited && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

private:
    pid_t pid_ = -1;
};

}  // namespace cantest
