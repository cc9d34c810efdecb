// The replay's side of the CAN channels: the service gets each end once, and the replay knows
// that every frame it wrote has reached the CAN stack only when the service has taken an
// empty record written after them, since the service reads its sockets again only once it
// has handed on every frame read before.

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "replay/channels.h"

using std::chrono::milliseconds;

namespace {

const std::vector<std::string> kNames = {"can2", "can3", "can1"};

can_frame frame(canid_t id) {
    can_frame result{};
    result.can_id = id;
    result.can_dlc = 1;
    result.data[0] = 0x5A;
    return result;
}

// Takes one record from a service end; its length, or -1 when none comes in time.
ssize_t take(int end) {
    pollfd fd{end, POLLIN, 0};
    if (::poll(&fd, 1, 5000) != 1) {
        return -1;
    }
    can_frame record{};
    return ::recv(end, &record, sizeof record, MSG_DONTWAIT);
}

// Runs `wait` on a thread; `returned()` tells whether it has.
class Waiter {
public:
    explicit Waiter(replay::Channels& channels)
        : thread_([&] {
              result_ = channels.waitUntilDelivered();
              returned_ = true;
          }) {}
    ~Waiter() { thread_.join(); }
    // Whether it returns within a short while; a wait that must go on is given 50 ms.
    bool returnsSoon(milliseconds within = milliseconds(50)) {
        const auto deadline = std::chrono::steady_clock::now() + within;
        while (!returned_ && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(milliseconds(1));
        }
        return returned_;
    }
    bool result() const { return result_; }

private:
    std::atomic<bool> returned_{false};
    std::atomic<bool> result_{false};
    std::thread thread_;
};

TEST(ReplayChannels, DeliveredOnlyOnceTheServiceHasTakenAnEmptyRecordAfterTheFrames) {
    replay::Stopper stopper;
    replay::Channels channels(kNames, stopper);
    auto open = channels.opener();
    std::vector<int> service;
    for (const std::string& name : kNames) {
        service.push_back(open(name));
    }
    ASSERT_TRUE(channels.write(0, frame(0x100)));
    ASSERT_TRUE(channels.write(2, frame(0x102)));
    Waiter waiter(channels);
    EXPECT_FALSE(waiter.returnsSoon()) << "frames still in the sockets";

    EXPECT_EQ(take(service[0]), static_cast<ssize_t>(sizeof(can_frame)));
    EXPECT_EQ(take(service[2]), static_cast<ssize_t>(sizeof(can_frame)));
    // Now on every channel an empty record follows, which the service reads only when it
    // has handed on what it read before.
    for (int end : service) {
        EXPECT_EQ(take(end), 0);
        if (end != service.back()) {
            EXPECT_FALSE(waiter.returnsSoon()) << "an empty record not yet taken";
        }
    }
    EXPECT_TRUE(waiter.returnsSoon(milliseconds(5000)));
    EXPECT_TRUE(waiter.result());
    for (int end : service) {
        ::close(end);
    }
}

TEST(ReplayChannels, AStopEndsTheWaits) {
    replay::Stopper stopper;
    replay::Channels channels(kNames, stopper);
    ASSERT_TRUE(channels.write(1, frame(0x101)));
    std::atomic<bool> opened{true};
    std::thread waitingForOpen([&] { opened = channels.waitUntilOpened(); });
    Waiter waiter(channels);
    EXPECT_FALSE(waiter.returnsSoon());
    stopper.stop();
    EXPECT_TRUE(waiter.returnsSoon(milliseconds(5000)));
    EXPECT_FALSE(waiter.result());
    waitingForOpen.join();
    EXPECT_FALSE(opened);
}

// What the service writes is read with its channel, until the service has closed every end.
TEST(ReplayChannels, SentFramesAreReadUntilTheServiceClosesItsEnds) {
    replay::Stopper stopper;
    replay::Channels channels(kNames, stopper);
    auto open = channels.opener();
    std::vector<int> service;
    for (const std::string& name : kNames) {
        service.push_back(open(name));
    }
    std::vector<std::pair<int, canid_t>> sent;
    std::thread reading([&] {
        channels.readSent(
            [&](int channel, const can_frame& f) { sent.emplace_back(channel, f.can_id); });
    });
    const can_frame claim = frame(0x18EEFF25 | CAN_EFF_FLAG);
    const can_frame request = frame(0x18EAFF25 | CAN_EFF_FLAG);
    ASSERT_EQ(::write(service[1], &claim, sizeof claim), static_cast<ssize_t>(sizeof claim));
    ASSERT_EQ(::write(service[0], &request, sizeof request), static_cast<ssize_t>(sizeof request));
    ASSERT_EQ(::write(service[0], &claim, sizeof claim), static_cast<ssize_t>(sizeof claim));
    for (int end : service) {
        ::close(end);
    }
    reading.join();  // ends by itself
    std::sort(sent.begin(), sent.end());
    const std::vector<std::pair<int, canid_t>> expected = {
        {0, request.can_id}, {0, claim.can_id}, {1, claim.can_id}};
    EXPECT_EQ(sent, expected);
}

}  // namespace
