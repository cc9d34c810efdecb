#include <gtest/gtest.h>

#include "caninterface/peers.h"

namespace {

// The service with its compiled-in peers: the Ice port is closed here, so its last delivery
// only logs errors. Once its publisher accepts, the stop signals are blocked; it exits within
// two seconds and one delivery attempt. real_service_tests stops it with SIGTERM.
TEST(StopPath, TheServiceExitsWithZeroOnSigint) {
    if (!cantest::tryPort(4499, false) || cantest::tryPort(9090, true)) {
        GTEST_SKIP() << "the service's ports are in use on this machine";
    }
    cantest::Child service({TILTHWATCH_SERVICE});
    ASSERT_TRUE(cantest::eventually([&] { return cantest::tryPort(4499, true); }));
    EXPECT_TRUE(service.exitsWithZeroOn(SIGINT, std::chrono::milliseconds(3000)));
}

}  // namespace
