#pragma once

// Listening sockets where a service running with the preloaded fake_socketcan library connects
// its CAN channels: set TILTHWATCH_FAKE_CAN_DIR to directory() in its environment.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace fakecan {

using std::chrono::milliseconds;

// Listening sockets where the preloaded service connects its channels.
class FakeInterfaces {
public:
    explicit FakeInterfaces(const std::vector<std::string>& names) {
        char pattern[] = "/tmp/tilthwatch-can-XXXXXX";
        directory_ = ::mkdtemp(pattern);
        for (const std::string& name : names) {
            const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::snprintf(address.sun_path, sizeof address.sun_path, "%s/%s", directory_.c_str(),
                          name.c_str());
            ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
            ::listen(fd, 1);
            listeners_[name] = fd;
        }
    }
    ~FakeInterfaces() {
        for (auto& listener : listeners_) {
            ::close(listener.second);
            ::unlink((directory_ + "/" + listener.first).c_str());
        }
        ::rmdir(directory_.c_str());
    }
    const std::string& directory() const { return directory_; }

    // The service's connection on every channel, or an empty map after the timeout.
    std::map<std::string, int> accept(milliseconds timeout) {
        std::map<std::string, int> accepted;
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (accepted.size() < listeners_.size() && std::chrono::steady_clock::now() < deadline) {
            for (auto& listener : listeners_) {
                pollfd entry{listener.second, POLLIN, 0};
                if (accepted.count(listener.first) == 0 && ::poll(&entry, 1, 10) > 0) {
                    accepted[listener.first] = ::accept(listener.second, nullptr, nullptr);
                }
            }
        }
        if (accepted.size() < listeners_.size()) {
            for (auto& end : accepted) {
                ::close(end.second);
            }
            accepted.clear();
        }
        return accepted;
    }

private:
    std::string directory_;
    std::map<std::string, int> listeners_;
};

}  // namespace fakecan
