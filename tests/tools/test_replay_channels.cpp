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
#include <future>
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
    return result;
}

// Takes one record from a service end; its length, or -1 when none comes in time.
ssize_t take(int end) {
    pollfd fd{end, POLLIN, 0};
    can_frame record{};
    return ::poll(&fd, 1, 5000) == 1 ? ::recv(end, &record, sizeof record, MSG_DONTWAIT) : -1;
}

// Every service end, as the service opens them by name.
std::vector<int> openAll(replay::Channels& channels) {
    std::vector<int> ends;
    auto open = channels.opener();
    for (const std::string& name : kNames) {
        ends.push_back(open(name));
    }
    EXPECT_EQ(open("can2"), -1);  // each end once
    EXPECT_EQ(open("can0"), -1);
    return ends;
}

// A wait that must go on is given 50 ms.
bool returnsSoon(const std::future<bool>& wait, milliseconds within = milliseconds(50)) {
    return wait.wait_for(within) == std::future_status::ready;
}

TEST(ReplayChannels, DeliveredOnlyOnceTheServiceHasTakenAnEmptyRecordAfterTheFrames) {
    replay::Stopper stopper;
    replay::Channels channels(kNames, stopper);
    const std::vector<int> service = openAll(channels);
    ASSERT_TRUE(channels.write(0, frame(0x100)));
    ASSERT_TRUE(channels.write(2, frame(0x102)));
    std::future<bool> delivered =
        std::async(std::launch::async, [&] { return channels.waitUntilDelivered(); });
    EXPECT_FALSE(returnsSoon(delivered)) << "frames still in the sockets";

    EXPECT_EQ(take(service[0]), static_cast<ssize_t>(sizeof(can_frame)));
    EXPECT_EQ(take(service[2]), static_cast<ssize_t>(sizeof(can_frame)));
    // Now on every channel an empty record follows, which the service reads only when it
    // has handed on what it read before.
    for (int end : service) {
        EXPECT_FALSE(returnsSoon(delivered)) << "an empty record not yet taken";
        EXPECT_EQ(take(end), 0);
    }
    ASSERT_TRUE(returnsSoon(delivered, milliseconds(5000)));
    EXPECT_TRUE(delivered.get());
    for (int end : service) {
        ::close(end);
    }
}

TEST(ReplayChannels, AStopEndsTheWaits) {
    replay::Stopper stopper;
    replay::Channels channels(kNames, stopper);
    ASSERT_TRUE(channels.write(1, frame(0x101)));
    std::future<bool> opened =
        std::async(std::launch::async, [&] { return channels.waitUntilOpened(); });
    std::future<bool> delivered =
        std::async(std::launch::async, [&] { return channels.waitUntilDelivered(); });
    EXPECT_FALSE(returnsSoon(opened));
    EXPECT_FALSE(returnsSoon(delivered));
    stopper.stop();
    ASSERT_TRUE(returnsSoon(delivered, milliseconds(5000)));
    EXPECT_FALSE(delivered.get());
    EXPECT_FALSE(opened.get());
}

// What the service writes is read with its channel, until the service has closed every end.
TEST(ReplayChannels, SentFramesAreReadUntilTheServiceClosesItsEnds) {
    replay::Stopper stopper;
    replay::Channels channels(kNames, stopper);
    const std::vector<int> service = openAll(channels);
    std::vector<std::pair<int, canid_t>> sent;
    std::thread reading([&] {
        channels.readSent(
            [&](int channel, const can_frame& f) { sent.emplace_back(channel, f.can_id); });
    });
    const std::pair<int, canid_t> written[] = {{1, 0x18EEFF25}, {0, 0x18EAFF25}, {0, 0x18EEFF25}};
    for (const auto& w : written) {
        const can_frame f = frame(w.second);
        ASSERT_EQ(::write(service[w.first], &f, sizeof f), static_cast<ssize_t>(sizeof f));
    }
    for (int end : service) {
        ::close(end);
    }
    reading.join();  // ends by itself
    std::sort(sent.begin(), sent.end());
    EXPECT_EQ(sent, (std::vector<std::pair<int, canid_t>>{
                        {0, 0x18EAFF25}, {0, 0x18EEFF25}, {1, 0x18EEFF25}}));
}

}  // namespace

// A step's frames go out many to a system call; across the batches their order holds, and a
// closed service end refuses them.
TEST(ReplayChannels, ABatchArrivesWholeAndInOrder) {
    replay::Stopper stopper;
    replay::Channels channels(kNames, stopper);
    const std::vector<int> service = openAll(channels);
    std::vector<can_frame> frames;
    for (canid_t id = 0; id < 130; ++id) {
        frames.push_back(frame(id));
    }
    ASSERT_TRUE(channels.write(1, frames.data(), frames.size()));
    for (canid_t id = 0; id < 130; ++id) {
        can_frame got{};
        ASSERT_EQ(::recv(service[1], &got, sizeof got, MSG_DONTWAIT),
                  static_cast<ssize_t>(sizeof got));
        ASSERT_EQ(got.can_id, id);
    }
    can_frame more{};
    EXPECT_EQ(::recv(service[1], &more, sizeof more, MSG_DONTWAIT), -1) << "nothing more";
    ::close(service[1]);
    EXPECT_FALSE(channels.write(1, frames.data(), 1));
    ::close(service[0]);
    ::close(service[2]);
}
