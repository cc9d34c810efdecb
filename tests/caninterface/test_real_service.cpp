// The real tilthwatch binary on CAN channels faked under its SocketCAN calls: both protocols of
// the stack are in it and answer on the wire.
#include <gtest/gtest.h>

#include "caninterface/peers.h"

using cantest::extendedId;

namespace {

TEST(RealService, AnswersARequestAndARequestToSend) {
    if (!cantest::tryPort(4499, false) || cantest::tryPort(9090, true)) {
        GTEST_SKIP() << "the service's ports are in use on this machine";
    }
    cantest::Peers peers;
    // The preloaded library comes before the sanitizer runtime of a sanitized build.
    cantest::Child service({"/usr/bin/env", std::string("LD_PRELOAD=") + FAKE_SOCKETCAN_LIBRARY,
                            "TILTHWATCH_FAKE_CAN_DIR=" + peers.directory(),
                            "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1",
                            TILTHWATCH_SERVICE});
    ASSERT_TRUE(peers.attach("", "can2"));
    ASSERT_TRUE(peers.waitForFrame("can2", 0xEE00));
    peers.send("can2", extendedId(6, 0xEE00, 0x80),
               cantest::littleEndian(0x1234ull | (33ull << 21) | (1ull << 63), 8));
    // Nobody here produces 0xFEDA: the request protocol says no, to all, naming 0x80.
    peers.send("can2", extendedId(6, 0xEA00, 0x80, 0x25), {0xDA, 0xFE, 0x00});
    ASSERT_TRUE(peers.waitForFrame("can2", 0xE800));
    EXPECT_EQ(peers.frames("can2", 0xE800).at(0), "98E8FF25 01FFFFFF80DAFE00");

    // A 20-byte transfer to the watcher: cleared from the first packet, then confirmed.
    peers.send("can2", extendedId(7, 0xEC00, 0x80, 0x25), {16, 20, 0, 3, 0xFF, 0x30, 0xFF, 0});
    ASSERT_TRUE(peers.waitForFrame("can2", 0xEC00));
    for (std::uint8_t packet = 1; packet <= 3; ++packet) {
        peers.send("can2", extendedId(7, 0xEB00, 0x80, 0x25), {packet, 1, 2, 3, 4, 5, 6, 7});
    }
    ASSERT_TRUE(peers.waitForFrame("can2", 0xEC00, 2));
    EXPECT_EQ(peers.frames("can2", 0xEC00),
              (std::vector<std::string>{"98EC8025 110301FFFF30FF00", "98EC8025 13140003FF30FF00"}));
    // Within two seconds and one delivery attempt.
    EXPECT_TRUE(service.exitsWithZeroOn(SIGTERM, std::chrono::milliseconds(3000)));
}

}  // namespace
