// Preloaded into the real service by tests: raw CAN sockets become SOCK_SEQPACKET connections
// to "$TILTHWATCH_FAKE_CAN_DIR/<interface>", so the service's own SocketCAN code runs
// unchanged on a machine without CAN.
#include <dlfcn.h>
#include <linux/can.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

constexpr int kMaxFd = 1024;
std::mutex mutex;
char names[kMaxFd][IFNAMSIZ];
bool fake[kMaxFd];

template <typename F>
F next(const char* name) {
    return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}

bool isFake(int fd) {
    std::lock_guard<std::mutex> lock(mutex);
    return fd >= 0 && fd < kMaxFd && fake[fd];
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) {
    static auto real = next<int (*)(int, int, int)>("socket");
    if (domain != PF_CAN) {
        return real(domain, type, protocol);
    }
    const int fd = real(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd >= 0 && fd < kMaxFd) {
        std::lock_guard<std::mutex> lock(mutex);
        fake[fd] = true;
        names[fd][0] = '\0';
    }
    return fd;
}

int ioctl(int fd, unsigned long request, ...) {
    static auto real = next<int (*)(int, unsigned long, void*)>("ioctl");
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (!isFake(fd) || request != SIOCGIFINDEX) {
        return real(fd, request, argument);
    }
    ifreq* interface = static_cast<ifreq*>(argument);
    std::lock_guard<std::mutex> lock(mutex);
    std::memcpy(names[fd], interface->ifr_name, IFNAMSIZ);
    names[fd][IFNAMSIZ - 1] = '\0';
    interface->ifr_ifindex = fd + 100;
    return 0;
}

int bind(int fd, const sockaddr* address, socklen_t length) {
    static auto real = next<int (*)(int, const sockaddr*, socklen_t)>("bind");
    if (!isFake(fd)) {
        return real(fd, address, length);
    }
    const char* directory = std::getenv("TILTHWATCH_FAKE_CAN_DIR");
    sockaddr_un peer{};
    peer.sun_family = AF_UNIX;
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::snprintf(peer.sun_path, sizeof(peer.sun_path), "%s/%s",
                      directory != nullptr ? directory : ".", names[fd]);
    }
    return ::connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer));
}

int close(int fd) {
    static auto real = next<int (*)(int)>("close");
    if (fd >= 0 && fd < kMaxFd) {
        std::lock_guard<std::mutex> lock(mutex);
        fake[fd] = false;
    }
    return real(fd);
}
}
