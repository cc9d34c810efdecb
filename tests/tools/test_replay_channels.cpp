// The replay's side of the CAN channels: the service gets each end once, and the replay knows
// that every frame it wrote has reached the CAN stack only when the service has taken an
// empty record written after them, since the service reads its sockets again only once it
// has handed on every frame read before.

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "replay/channels.h"

using std::chrono::milliseconds;

namespace {

can_frame frame(canid_t id) {
    can_frame result{};
    result.can_id = id;
    result.can_dlc = 1;
    return result;
}

struct Rig {
    // Every service end, as the service opens them by name, each once.
    const std::vector<int>& open() {
        auto opener = channels.opener();
        for (const char* name : {"can2", "can3", "can1"}) {
            service.push_back(opener(name));
        }
        EXPECT_EQ(opener("can2"), -1);
        EXPECT_EQ(opener("can0"), -1);
        return service;
    }
    ~Rig() {
        for (int end : service) {
            ::close(end);
        }
    }
    replay::Stopper stopper;
    replay::Channels channels{{"can2", "can3", "can1"}, stopper};
    std::vector<int> service;
};

// The next `count` records on a service end: each frame's identifier, -1 for an empty record;
// fewer when none comes within 5 s.
std::vector<long> take(int end, std::size_t count) {
    std::vector<long> taken;
    pollfd fd{end, POLLIN, 0};
    can_frame record{};
    while (taken.size() < count && ::poll(&fd, 1, 5000) == 1) {
        const ssize_t got = ::recv(end, &record, sizeof record, MSG_DONTWAIT);
        taken.push_back(got == sizeof record ? static_cast<long>(record.can_id)
                        : got == 0           ? -1
                                             : -2);
    }
    return taken;
}

// A wait that must go on is given 50 ms.
bool returnsSoon(const std::future<bool>& wait, milliseconds within = milliseconds(50)) {
    return wait.wait_for(within) == std::future_status::ready;
}

// A step's frames go out many to a system call; across the batches their order holds, and a
// closed service end refuses them.
TEST(ReplayChannels, DeliveredInOrderOnceTheServiceHasTakenAnEmptyRecordAfterTheFrames) {
    Rig rig;
    const std::vector<int> service = rig.open();
    std::vector<can_frame> frames;
    std::vector<long> ids;
    for (canid_t id = 0; id < 130; ++id) {
        frames.push_back(frame(id));
        ids.push_back(id);
    }
    ASSERT_TRUE(rig.channels.write(0, frame(0x100)));
    ASSERT_TRUE(rig.channels.write(2, frames.data(), frames.size()));
    std::future<bool> delivered =
        std::async(std::launch::async, [&] { return rig.channels.waitUntilDelivered(); });
    EXPECT_FALSE(returnsSoon(delivered)) << "frames still in the sockets";
    EXPECT_EQ(take(service[0], 1), std::vector<long>{0x100});
    EXPECT_EQ(take(service[2], ids.size()), ids);
    // Now an empty record follows on every channel, and nothing else.
    for (int end : service) {
        EXPECT_FALSE(returnsSoon(delivered)) << "an empty record not yet taken";
        EXPECT_EQ(take(end, 1), std::vector<long>{-1});
    }
    ASSERT_TRUE(returnsSoon(delivered, milliseconds(5000)));
    EXPECT_TRUE(delivered.get());
    ::close(std::exchange(rig.service[2], -1));
    EXPECT_FALSE(rig.channels.write(2, frames.data(), 1));
}

TEST(ReplayChannels, AStopEndsTheWaits) {
    Rig rig;
    ASSERT_TRUE(rig.channels.write(1, frame(0x101)));
    std::future<bool> opened =
        std::async(std::launch::async, [&] { return rig.channels.waitUntilOpened(); });
    std::future<bool> delivered =
        std::async(std::launch::async, [&] { return rig.channels.waitUntilDelivered(); });
    EXPECT_FALSE(returnsSoon(opened));
    EXPECT_FALSE(returnsSoon(delivered));
    rig.stopper.stop();
    ASSERT_TRUE(returnsSoon(delivered, milliseconds(5000)));
    EXPECT_FALSE(delivered.get());
    EXPECT_FALSE(opened.get());
}

// What the service writes is read with its channel, until the service has closed every end.
TEST(ReplayChannels, SentFramesAreReadUntilTheServiceClosesItsEnds) {
    Rig rig;
    const std::vector<int> service = rig.open();
    std::vector<std::pair<int, canid_t>> sent;
    std::thread reading([&] {
        rig.channels.readSent(
            [&](int channel, const can_frame& f) { sent.emplace_back(channel, f.can_id); });
    });
    const std::pair<int, canid_t> written[] = {{1, 0x18EEFF25}, {0, 0x18EAFF25}, {0, 0x18EEFF25}};
    for (const auto& w : written) {
        const can_frame f = frame(w.second);
        ASSERT_EQ(::write(service[w.first], &f, sizeof f), static_cast<ssize_t>(sizeof f));
    }
    for (int& end : rig.service) {
        ::close(std::exchange(end, -1));
    }
    reading.join();  // ends by itself
    std::sort(sent.begin(), sent.end());
    EXPECT_EQ(sent, (std::vector<std::pair<int, canid_t>>{
                        {0, 0x18EAFF25}, {0, 0x18EEFF25}, {1, 0x18EEFF25}}));
}

}  // namespace
