#include "replay/channels.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace replay {

namespace {

// Bytes written on this end that the other end has not read yet; empty records included.
int unread(int peerEnd) {
    int bytes = 0;
    return ::ioctl(peerEnd, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

}  // namespace

Channels::Channels(const std::vector<std::string>& names, Stopper& stopper)
    : names_(names), stopper_(stopper) {
    for (std::size_t i = 0; i < names_.size(); ++i) {
        int pair[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
            throw std::system_error(errno, std::generic_category(), "socketpair");
        }
        // The service's end is non-blocking, as the service makes a raw CAN socket.
        ::fcntl(pair[0], F_SETFL, ::fcntl(pair[0], F_GETFL, 0) | O_NONBLOCK);
        serviceEnds_.push_back(pair[0]);
        peerEnds_.push_back(pair[1]);
    }
}

Channels::~Channels() {
    for (int end : peerEnds_) {
        ::close(end);
    }
    for (int end : serviceEnds_) {
        if (end >= 0) {
            ::close(end);  // never handed out
        }
    }
}

std::function<int(const std::string&)> Channels::opener() {
    return [this](const std::string& name) {
        const int channel = index(name);
        std::lock_guard<std::mutex> lock(mutex_);
        if (channel < 0 || serviceEnds_[channel] < 0) {
            return -1;
        }
        const int end = serviceEnds_[channel];
        serviceEnds_[channel] = -1;
        if (++handedOut_ == names_.size()) {
            opened_.notify_all();
        }
        return end;
    };
}

bool Channels::waitUntilOpened() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (handedOut_ < names_.size()) {
        if (stopper_.stopped()) {
            return false;
        }
        opened_.wait_for(lock, std::chrono::milliseconds(20));
    }
    return true;
}

int Channels::index(const std::string& interface) const {
    for (std::size_t i = 0; i < names_.size(); ++i) {
        if (names_[i] == interface) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

bool Channels::write(int channel, const can_frame& frame) {
    return ::send(peerEnds_[channel], &frame, sizeof frame, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(sizeof frame);
}

bool Channels::write(int channel, const can_frame* frames, std::size_t count) {
    constexpr std::size_t kBatch = 64;
    mmsghdr headers[kBatch];
    iovec vectors[kBatch];
    while (count > 0) {
        const std::size_t n = std::min(count, kBatch);
        for (std::size_t i = 0; i < n; ++i) {
            vectors[i] = iovec{const_cast<can_frame*>(&frames[i]), sizeof(can_frame)};
            std::memset(&headers[i], 0, sizeof(mmsghdr));
            headers[i].msg_hdr.msg_iov = &vectors[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
        const int sent =
            ::sendmmsg(peerEnds_[channel], headers, static_cast<unsigned>(n), MSG_NOSIGNAL);
        if (sent <= 0) {
            if (sent < 0 && errno == EINTR) {
                continue;
            }
            return false;
        }
        frames += sent;
        count -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool Channels::waitUntilTaken() {
    for (;;) {
        bool taken = true;
        for (int end : peerEnds_) {
            taken = taken && unread(end) == 0;
        }
        if (taken) {
            return true;
        }
        if (!stopper_.sleepUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(1))) {
            return false;
        }
    }
}

bool Channels::waitUntilDelivered() {
    // Once nothing is left in the sockets, every frame is in the service's hands, though maybe
    // not yet through the stack: the service takes frames in batches and hands them on one per
    // channel and pass. It asks its sockets again only when all batches are through, so an
    // empty record taken after that proves the rest delivered. The service drops empty records.
    if (!waitUntilTaken()) {
        return false;
    }
    for (int end : peerEnds_) {
        ::send(end, "", 0, MSG_NOSIGNAL);
    }
    return waitUntilTaken();
}

void Channels::readSent(const std::function<void(int, const can_frame&)>& onFrame) {
    std::vector<bool> open(peerEnds_.size(), true);
    std::size_t openCount = peerEnds_.size();
    const auto readAll = [&](std::size_t channel) {
        for (;;) {
            can_frame frame;
            std::memset(&frame, 0, sizeof frame);
            const ssize_t got = ::recv(peerEnds_[channel], &frame, sizeof frame, MSG_DONTWAIT);
            if (got == 0) {
                open[channel] = false;
                --openCount;
                return;
            }
            if (got < 0) {
                if (errno != EAGAIN && errno != EINTR) {
                    open[channel] = false;
                    --openCount;
                }
                return;
            }
            onFrame(static_cast<int>(channel), frame);
        }
    };
    while (openCount > 0) {
        std::vector<pollfd> fds;
        for (std::size_t i = 0; i < peerEnds_.size(); ++i) {
            fds.push_back(pollfd{open[i] ? peerEnds_[i] : -1, POLLIN, 0});
        }
        fds.push_back(pollfd{stopper_.fd(), POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) {
            return;
        }
        const bool stopping = (fds.back().revents & POLLIN) != 0;
        for (std::size_t i = 0; i < peerEnds_.size(); ++i) {
            // A stop comes after the service has closed its ends: what it wrote is all here.
            if (open[i] && (stopping || fds[i].revents != 0)) {
                readAll(i);
            }
        }
        if (stopping) {
            return;
        }
    }
}

}  // namespace replay
