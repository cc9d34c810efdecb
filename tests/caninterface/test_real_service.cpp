// The real tilthwatch binary on CAN channels faked under its SocketCAN calls: both protocols of
// the stack are in it and answer on the wire.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "caninterface/can_peer.h"
#include "tools/fake_can_interfaces.h"

extern char** environ;

using cantest::extendedId;
using cantest::Frame;
using std::chrono::milliseconds;
using Bytes = std::vector<std::uint8_t>;

namespace {

bool portFree(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

TEST(RealService, BothProtocolsAnswerOnTheWire) {
    if (!portFree(4499)) {
        GTEST_SKIP() << "the service's publisher port is in use on this machine";
    }
    fakecan::FakeInterfaces interfaces({"can2", "can3", "can1"});
    std::vector<std::string> environment = {
        std::string("LD_PRELOAD=") + FAKE_SOCKETCAN_LIBRARY,
        "TILTHWATCH_FAKE_CAN_DIR=" + interfaces.directory(),
        // The preloaded library comes before the sanitizer runtime of a sanitized build.
        "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1"};
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (std::string(*variable).rfind("ASAN_OPTIONS=", 0) != 0) {
            environment.emplace_back(*variable);
        }
    }
    std::vector<char*> envp;
    for (std::string& variable : environment) {
        envp.push_back(&variable[0]);
    }
    envp.push_back(nullptr);
    std::string program = TILTHWATCH_SERVICE;
    char* argv[] = {&program[0], nullptr};
    pid_t pid = -1;
    ASSERT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, argv, envp.data()), 0);

    std::map<std::string, int> ends = interfaces.accept(milliseconds(15000));
    ASSERT_EQ(ends.size(), 3u);
    {
        cantest::CanPeer peer(ends);
        std::atomic<bool> ticking{true};
        std::thread ticker([&] {
            while (ticking) {
                peer.send("can2", 0x7FF, {0});
                std::this_thread::sleep_for(milliseconds(2));
            }
        });
        ASSERT_TRUE(peer.waitForFrame("can2", 0xEE00, milliseconds(15000)));
        EXPECT_EQ(peer.frames("can2", 0xEE00).front().id, 0x98EEFF25u);

        const std::uint64_t name = 0x1234ull | (33ull << 21) | (1ull << 63);
        Bytes claim;
        for (int i = 0; i < 8; ++i) {
            claim.push_back(static_cast<std::uint8_t>(name >> (8 * i)));
        }
        peer.send("can2", extendedId(6, 0xEE00, 0x80), claim);
        // Nobody here produces 0xFEDA: the request protocol says no, to all, naming 0x80.
        peer.send("can2", extendedId(6, 0xEA00, 0x80, 0x25), {0xDA, 0xFE, 0x00});
        ASSERT_TRUE(peer.waitForFrame("can2", 0xE800));
        const Frame nack = peer.frames("can2", 0xE800).front();
        EXPECT_EQ(nack.id, 0x98E8FF25u);
        EXPECT_EQ(nack.data, (Bytes{1, 0xFF, 0xFF, 0xFF, 0x80, 0xDA, 0xFE, 0x00}));

        // A 20-byte transfer to the watcher: the transport protocol clears it and confirms it.
        peer.send("can2", extendedId(7, 0xEC00, 0x80, 0x25), {16, 20, 0, 3, 0xFF, 0x30, 0xFF, 0});
        ASSERT_TRUE(peer.waitFor([](const std::vector<Frame>& frames) {
            for (const Frame& frame : frames) {
                if (frame.pgn() == 0xEC00 && !frame.data.empty() && frame.data[0] == 17) {
                    return true;
                }
            }
            return false;
        }));
        for (std::uint8_t packet = 1; packet <= 3; ++packet) {
            peer.send("can2", extendedId(7, 0xEB00, 0x80, 0x25), {packet, 1, 2, 3, 4, 5, 6, 7});
        }
        ASSERT_TRUE(peer.waitFor([](const std::vector<Frame>& frames) {
            for (const Frame& frame : frames) {
                if (frame.pgn() == 0xEC00 && !frame.data.empty() && frame.data[0] == 19) {
                    return true;
                }
            }
            return false;
        }));
        std::vector<Frame> connection = peer.frames("can2", 0xEC00);
        ASSERT_EQ(connection.size(), 2u);
        EXPECT_EQ(connection[0].id, 0x98EC8025u);
        EXPECT_EQ(connection[0].data[2], 1);  // from the first packet
        EXPECT_EQ(Bytes(connection[0].data.begin() + 5, connection[0].data.end()),
                  (Bytes{0x30, 0xFF, 0}));
        EXPECT_EQ(connection[1].id, 0x98EC8025u);
        EXPECT_EQ(connection[1].data, (Bytes{19, 20, 0, 3, 0xFF, 0x30, 0xFF, 0}));
        ticking = false;
        ticker.join();
    }
    ::kill(pid, SIGTERM);
    int status = 0;
    ASSERT_TRUE(cantest::eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; },
                                    milliseconds(10000)));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
