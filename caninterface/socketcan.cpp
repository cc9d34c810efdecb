#include "caninterface/socketcan.h"

#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

int initializeSocket(const std::string& name) {
    const int fd = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
    if (fd < 0) {
        std::fprintf(stderr, "%s: %s\n", "initializeSocket", std::strerror(errno));
        return -1;
    }
    ifreq request;
    std::memset(&request, 0, sizeof(request));
    // At most 16 bytes, and the kernel wants the name terminated within them.
    std::strncpy(request.ifr_name, name.c_str(), sizeof(request.ifr_name) - 1);
    if (::ioctl(fd, SIOCGIFINDEX, &request) == -1) {
        ::close(fd);
        return -1;
    }
    sockaddr_can address;
    std::memset(&address, 0, sizeof(address));
    address.can_family = AF_CAN;
    address.can_ifindex = request.ifr_ifindex;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == -1) {
        ::close(fd);
        return -1;
    }
    const int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags == -1) {
        ::close(fd);
        return -1;
    }
    if (::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}
