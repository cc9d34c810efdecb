#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "caninterface/can_peer.h"
#include "caninterface/caninterfaceimplementation.h"
#include "caninterface/deviceregistration.h"
#include "caninterface/machinebuswatchercontrolfunction.h"
#include "canstack/filteredmessagecallback.h"
#include "canstack/networkmanagement.h"
#include "support/log_capture.h"

using cantest::CanPeer;
using cantest::extendedId;
using cantest::Frame;
using std::chrono::milliseconds;
using Bytes = std::vector<std::uint8_t>;

namespace {

const std::vector<std::string> kChannels = {"can2", "can3", "can1"};
constexpr std::uint32_t kPostPgn = 0xFF99;  // runs posted work on the CAN main thread
constexpr std::uint32_t kTick = 0x7FF;      // standard frame that keeps the loop turning

// The application side: counts starts and stops and runs posted work on the CAN main thread.
struct TestApplication : CanApplication_i {
    void onStart(std::shared_ptr<CanInterface> service) override {
        can = std::move(service);
        ++starts;
        if (atStart) {
            atStart(*can);
        }
        can->addPgnFilter(
            kPostPgn, [this](const PgnMessage&) { runPosted(); }, Bus::MACHINE_250K);
    }
    void onStop() override {
        ++stops;
        can->removePgnFilter(kPostPgn, Bus::MACHINE_250K);
        can.reset();
    }
    void runPosted() {
        std::deque<std::function<void()>> work;
        {
            std::lock_guard<std::mutex> lock(mutex);
            work.swap(posted);
        }
        for (auto& item : work) {
            item();
        }
        std::lock_guard<std::mutex> lock(mutex);
        done += work.size();
        changed.notify_all();
    }

    std::function<void(CanInterface&)> atStart;
    std::shared_ptr<CanInterface> can;
    std::atomic<int> starts{0};
    std::atomic<int> stops{0};
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::function<void()>> posted;
    std::size_t done = 0;
};

// A running service on a CanPeer, with a tick on can3 so that the stack updates every few
// milliseconds instead of every four seconds.
class ServiceRig {
public:
    explicit ServiceRig(std::set<std::string> failing = {}, bool tick = true,
                        std::function<void(CanInterface&)> atStart = nullptr)
        : peer(kChannels, std::move(failing)),
          service(std::make_shared<CanInterfaceImplementation>(peer.opener())) {
        application->atStart = std::move(atStart);
        service->start(application, kChannels);
        if (tick) {
            ticker = std::thread([this] {
                while (!stopTicking) {
                    peer.send("can3", kTick, {0});
                    std::this_thread::sleep_for(milliseconds(2));
                }
            });
        }
    }
    ~ServiceRig() { stop(); }

    void stop() {
        stopTicking = true;
        if (ticker.joinable()) {
            ticker.join();
        }
        service->stop();
    }
    // Runs `work` on the CAN main thread with the service and waits for it.
    void onCanThread(std::function<void(CanInterface&)> work) {
        std::size_t target;
        {
            std::lock_guard<std::mutex> lock(application->mutex);
            application->posted.push_back([this, work] { work(*application->can); });
            target = application->done + application->posted.size();
        }
        std::unique_lock<std::mutex> lock(application->mutex);
        // The filter exists once the stack has started: repeat the trigger until it runs.
        for (int i = 0; i < 2000 && application->done < target; ++i) {
            lock.unlock();
            peer.send("can2", extendedId(6, kPostPgn, 0x80), Bytes(8, 0));
            lock.lock();
            application->changed.wait_for(lock, milliseconds(5));
        }
        ASSERT_GE(application->done, target) << "the CAN main thread never ran the work";
    }

    CanPeer peer;
    std::shared_ptr<TestApplication> application = std::make_shared<TestApplication>();
    std::shared_ptr<CanInterfaceImplementation> service;
    std::atomic<bool> stopTicking{false};
    std::thread ticker;
};

Bytes nameBytes(std::uint64_t name) {
    Bytes bytes;
    for (int i = 0; i < 8; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(name >> (8 * i)));
    }
    return bytes;
}

std::string temporaryFile(const std::string& content) {
    char path[] = "/tmp/tilthwatch-registration-XXXXXX";
    const int fd = ::mkstemp(path);
    ::close(fd);
    std::ofstream(path) << content;
    return path;
}

TEST(CanService, WatchersClaimOnTheFirstTwoChannelsOnlyAndTheStopClosesEverything) {
    const std::string registration = temporaryFile("part_number=P1\nserial_number=70001\n");
    deviceregistration::setPath(registration);
    ServiceRig rig;
    // 70001 mod 65536 = 4465 = 0x1171; manufacturer 151, function 28, industry group 2,
    // self-configurable.
    const std::uint64_t name =
        0x1171ull | (151ull << 21) | (28ull << 40) | (2ull << 60) | (1ull << 63);
    for (const char* channel : {"can2", "can3"}) {
        ASSERT_TRUE(rig.peer.waitForFrame(channel, 0xEE00)) << channel;
        const std::vector<Frame> requests = rig.peer.frames(channel, 0xEA00);
        ASSERT_FALSE(requests.empty()) << channel;
        EXPECT_EQ(requests.front().id, 0x98EAFFFEu) << channel;
        EXPECT_EQ(requests.front().data, (Bytes{0x00, 0xEE, 0x00})) << channel;
        const Frame claim = rig.peer.frames(channel, 0xEE00).front();
        EXPECT_EQ(claim.id, 0x98EEFF25u) << channel;
        EXPECT_EQ(claim.data, nameBytes(name)) << channel;
        EXPECT_LT(requests.front().at, claim.at);
    }
    EXPECT_EQ(rig.peer.opened(), 3);
    // The default-bus query follows the default bus.
    bool claimed[3] = {};
    // A claim holds after 250 ms without contention.
    EXPECT_TRUE(cantest::eventually(
        [&] {
            rig.onCanThread([&](CanInterface& can) {
                can.setDefaultBus(Bus::MACHINE_500K);
                claimed[0] = can.isAddressClaimed();
                can.setDefaultBus(Bus::PRODUCT_250K);
                claimed[1] = can.isAddressClaimed();
                claimed[2] = can.isAddressClaimed(Bus::MACHINE_250K);
            });
            return claimed[0] && claimed[2];
        },
        milliseconds(3000)));
    EXPECT_FALSE(claimed[1]);
    EXPECT_EQ(rig.application->starts, 1);

    rig.stop();
    EXPECT_EQ(rig.application->stops, 1);
    for (const std::string& channel : kChannels) {
        EXPECT_TRUE(cantest::eventually([&] { return rig.peer.closedByService(channel); },
                                        milliseconds(2000)))
            << channel;
    }
    for (const Frame& frame : rig.peer.frames()) {
        EXPECT_NE(frame.channel, "can1") << std::hex << frame.id;
    }
    std::remove(registration.c_str());
}

// Without traffic poll waits 4000 "microseconds" as milliseconds: a periodic callback of one
// second, due at once when installed, then runs only every four seconds.
TEST(CanService, OnASilentBusTheLoopTurnsEveryFourSeconds) {
    std::vector<std::chrono::steady_clock::time_point> calls;
    std::mutex mutex;
    ServiceRig rig({}, false, [&](CanInterface& can) {
        can.setPeriodicCallback(
            [&] {
                std::lock_guard<std::mutex> lock(mutex);
                calls.push_back(std::chrono::steady_clock::now());
            },
            1000000);
    });
    ASSERT_TRUE(cantest::eventually(
        [&] {
            std::lock_guard<std::mutex> lock(mutex);
            return calls.size() >= 2;
        },
        milliseconds(6000)));
    rig.stop();
    // 4000 less the first pass's microseconds, read as milliseconds; never the 1 s interval.
    EXPECT_GE(calls[1] - calls[0], milliseconds(2000));
    EXPECT_LT(calls[1] - calls[0], milliseconds(4500));
    EXPECT_TRUE(rig.peer.frames().empty());  // the stack has not even begun to claim
}

// A callback that replaces a slow one with a shorter interval is not held back by the old
// interval's timer.
TEST(CanService, AShorterIntervalTakesEffectAtOnce) {
    std::atomic<int> fastRuns{0};
    ServiceRig rig({}, true, [](CanInterface& can) { can.setPeriodicCallback([] {}, 60000000); });
    rig.onCanThread([&](CanInterface& can) {
        can.clearPeriodicCallback();
        can.setPeriodicCallback([&] { ++fastRuns; }, 50000);
    });
    EXPECT_TRUE(cantest::eventually([&] { return fastRuns >= 2; }, milliseconds(2000)));
}

// Records what the stack makes of each frame on can1.
struct RecordingFilter : FilteredMessageMatchingCallbackClass, ReceiveCANMessageCallbackClass {
    RecordingFilter() {
        setChannel(2);
        addCallback(static_cast<ReceiveCANMessageCallbackClass*>(this));
    }
    void receiveCANMessage(CANMessageClass* message) override {
        Bytes data(message->getDataLength());
        message->getData(data.data(), static_cast<std::uint32_t>(data.size()));
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back({message->getIdentifier().getWord(), message->isValid(), data});
    }
    struct Seen {
        std::uint32_t word;
        bool valid;
        Bytes data;
    };
    std::mutex mutex;
    std::vector<Seen> seen;
};

TEST(CanService, IdentifierWordsBecomeExtendedOrStandardFrames) {
    ServiceRig rig;
    std::unique_ptr<RecordingFilter> filter;
    rig.onCanThread([&](CanInterface&) { filter = std::make_unique<RecordingFilter>(); });
    const struct {
        std::uint32_t sent;
        int length;
        std::uint32_t word;  // as the stack holds it: bit 31 for 29 bits
        bool valid;
    } rows[] = {
        {0x98FEF117u, 8, 0x98FEF117u, true},
        {0xE0000123u, 8, 0x80000123u, true},   // remote and error bits are not looked at
        {0x9FFFFFFFu, 8, 0x9FFFFFFFu, false},  // from the global address: refused
        {0x00000123u, 8, 0x123u, true},
        {0x40000123u, 8, 0x123u, true},
        {0x00000ABCu, 8, 0x2BCu, true},  // 11 bits kept
        {0x7FFFFFFFu, 3, 0x7FFu, true},
        {0x00000123u, 9, 0x123u, false},  // a length the stack refuses
    };
    const Bytes data = {1, 2, 3, 4, 5, 6, 7, 8};
    for (const auto& row : rows) {
        rig.peer.send("can1", row.sent, data, row.length);
    }
    ASSERT_TRUE(cantest::eventually(
        [&] {
            std::lock_guard<std::mutex> lock(filter->mutex);
            return filter->seen.size() >= std::size(rows);
        },
        milliseconds(5000)));
    rig.onCanThread([&](CanInterface&) {
        ASSERT_EQ(filter->seen.size(), std::size(rows));
        for (std::size_t i = 0; i < std::size(rows); ++i) {
            EXPECT_EQ(filter->seen[i].word, rows[i].word) << i;
            EXPECT_EQ(filter->seen[i].valid, rows[i].valid) << i;
            if (rows[i].valid) {
                EXPECT_EQ(filter->seen[i].data, Bytes(data.begin(), data.begin() + rows[i].length));
            }
        }
        filter.reset();
    });
}

// Completion callbacks of the frames sent from a filter callback, on the CAN main thread.
std::vector<std::string> events;
std::thread::id canThread;
void noteCompletion(CANCallbackClass* callback) {
    const bool onCanThread = std::this_thread::get_id() == canThread;
    events.push_back(std::string(callback->isSuccess() ? "done" : "failed") +
                     (onCanThread ? "" : " elsewhere"));
}

TEST(CanService, AnImmediateFrameCompletesBeforeTheSendReturnsAQueuedOneLater) {
    ServiceRig rig({"can1"});
    const Bytes data = {1, 2, 3, 4, 5, 6, 7, 8};
    rig.onCanThread([&](CanInterface&) {
        canThread = std::this_thread::get_id();
        events.push_back("immediate " +
                         std::to_string(NetworkManagementClass::sendStandardMessage(
                             0x123, data.data(), 8, 0, true, nullptr, &noteCompletion)));
        events.push_back("queued " +
                         std::to_string(NetworkManagementClass::sendStandardMessage(
                             0x124, data.data(), 8, 0, false, nullptr, &noteCompletion)));
        // can1 could not be opened: every one of the ten attempts reports.
        events.push_back("unopened " +
                         std::to_string(NetworkManagementClass::sendStandardMessage(
                             0x125, data.data(), 8, 2, false, nullptr, &noteCompletion)));
    });
    std::vector<std::string> seen;
    ASSERT_TRUE(cantest::eventually(
        [&] {
            rig.onCanThread([&](CanInterface&) { seen = events; });
            return seen.size() >= 14;
        },
        milliseconds(5000)));
    std::this_thread::sleep_for(milliseconds(50));  // ten failures, and not one more
    rig.stop();
    std::vector<std::string> expected = {"done", "immediate 0", "queued 0", "unopened 0"};
    std::vector<std::string> rest(events.begin() + 4, events.end());
    std::sort(rest.begin(), rest.end());
    std::vector<std::string> expectedRest(1, "done");
    expectedRest.insert(expectedRest.end(), 10, "failed");
    EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + 4), expected);
    EXPECT_EQ(rest, expectedRest);

    std::vector<std::uint32_t> written;
    for (const Frame& frame : rig.peer.frames()) {
        if (frame.channel == "can2" && (frame.id & cantest::kExtended) == 0) {
            written.push_back(frame.id);
        }
    }
    EXPECT_EQ(written, (std::vector<std::uint32_t>{0x123, 0x124}));
}

TEST(CanService, APeriodicCallbackInstalledFromAFilterRunsInThatSamePass) {
    ServiceRig rig;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::vector<std::string> results;
    int runs = 0;
    int runsWhenBArrived = -1;
    const auto result = [&](const char* what, bool value) {
        results.push_back(std::string(what) + (value ? " true" : " false"));
    };
    rig.onCanThread([&](CanInterface& can) {
        can.addPgnFilter(
            0xFF01, [released](const PgnMessage&) { released.wait(); }, Bus::MACHINE_250K);
        can.addPgnFilter(
            0xFF02,
            [&](const PgnMessage&) {
                result("set", rig.application->can->setPeriodicCallback([&] { ++runs; }, 1000000));
                result("set again", rig.application->can->setPeriodicCallback([] {}, 1000));
            },
            Bus::MACHINE_250K);
        can.addPgnFilter(
            0xFF03,
            [&](const PgnMessage&) {
                runsWhenBArrived = runs;
                CanInterface& service = *rig.application->can;
                result("clear", service.clearPeriodicCallback());
                result("clear again", service.clearPeriodicCallback());
                result("set after clear", service.setPeriodicCallback([] {}, 1000000));
            },
            Bus::MACHINE_250K);
    });
    // Hold the CAN main thread in the first callback until both frames wait in the socket: one
    // frame per channel and pass, so the second is read in the pass after the first.
    rig.peer.send("can2", extendedId(6, 0xFF01, 0x80), Bytes(8, 0));
    std::this_thread::sleep_for(milliseconds(50));
    rig.peer.send("can2", extendedId(6, 0xFF02, 0x80), Bytes(8, 0));
    rig.peer.send("can2", extendedId(6, 0xFF03, 0x80), Bytes(8, 0));
    release.set_value();
    rig.onCanThread([](CanInterface&) {});
    rig.stop();
    EXPECT_EQ(runsWhenBArrived, 1);
    EXPECT_EQ(results, (std::vector<std::string>{"set true", "set again false", "clear true",
                                                 "clear again false", "set after clear true"}));
}

// Every refusal of the contract, run on the CAN main thread.
TEST(CanService, FiltersAndQueriesFollowTheContract) {
    ServiceRig rig;
    std::vector<std::string> delivered;
    const auto deliverTo = [&](const char* name) {
        return [&delivered, name](const PgnMessage& message) {
            delivered.push_back(std::string(name) + " " + std::to_string(message.data.size()));
        };
    };
    std::vector<std::string> results;
    const auto note = [&](const char* what, bool value) {
        results.push_back(std::string(what) + (value ? " true" : " false"));
    };
    std::string errorOutput;
    rig.onCanThread([&](CanInterface& can) {
        note("default bus is none", can.defaultBus() == Bus::NONE);
        note("add", can.addPgnFilter(0xFF10, deliverTo("first"), Bus::MACHINE_250K));
        note("add twice", can.addPgnFilter(0xFF10, deliverTo("second"), Bus::MACHINE_250K));
        note("add other bus", can.addPgnFilter(0xFF10, deliverTo("other"), Bus::MACHINE_500K));
        note("remove other bus", can.removePgnFilter(0xFF10, Bus::MACHINE_500K));
        note("remove again", can.removePgnFilter(0xFF10, Bus::MACHINE_500K));
        note("add on none", can.addPgnFilter(0xFF11, deliverTo("none"), Bus::NONE));
        note("add out of range", can.addPgnFilter(0xFF11, deliverTo("7"), static_cast<Bus>(7)));
        note("add on default none", can.addPgnFilter(0xFF12, deliverTo("default")));
        note("remove on none", can.removePgnFilter(0xFF10, Bus::NONE));
        note("request on none", can.sendPgnRequest(0xFEEC, Bus::NONE));
        note("request without watcher", can.sendPgnRequest(0xFEEC, Bus::PRODUCT_250K));
        note("claimed without watcher", can.isAddressClaimed(Bus::PRODUCT_250K));
        note("claimed on none", can.isAddressClaimed());
        // Refused groups stay silent instead of matching everything.
        note("add beyond 18 bits", can.addPgnFilter(0x40000, deliverTo("huge"), Bus::MACHINE_250K));
        note("add PDU1 with address",
             can.addPgnFilter(0xEF12, deliverTo("pdu1"), Bus::MACHINE_250K));
        testing::internal::CaptureStderr();
        can.sendPgnRequest(0xFEEC);
        errorOutput = testing::internal::GetCapturedStderr();
        can.setDefaultBus(Bus::MACHINE_250K);
        // The default-bus form installs, but its result says nothing.
        note("default add", can.addPgnFilter(0xFF13, deliverTo("default")));
        note("explicit add where it stands",
             can.addPgnFilter(0xFF13, deliverTo("x"), Bus::MACHINE_250K));
        note("default remove", can.removePgnFilter(0xFF13));
        note("default remove never added", can.removePgnFilter(0xFF12));
    });
    rig.peer.send("can2", extendedId(6, 0xFF10, 0x80), Bytes(8, 1));
    rig.peer.send("can3", extendedId(6, 0xFF10, 0x80), Bytes(8, 1));
    rig.peer.send("can2", extendedId(6, 0xFF11, 0x80), Bytes(8, 1));
    rig.peer.send("can2", extendedId(6, 0xEF12, 0x80, 0x12), Bytes(8, 1));
    rig.peer.send("can2", extendedId(6, 0xFF10, 0x80), Bytes(3, 1));
    rig.onCanThread([](CanInterface&) {});
    rig.stop();
    EXPECT_EQ(results, (std::vector<std::string>{"default bus is none true",
                                                 "add true",
                                                 "add twice false",
                                                 "add other bus true",
                                                 "remove other bus true",
                                                 "remove again false",
                                                 "add on none false",
                                                 "add out of range false",
                                                 "add on default none false",
                                                 "remove on none false",
                                                 "request on none false",
                                                 "request without watcher false",
                                                 "claimed without watcher false",
                                                 "claimed on none false",
                                                 "add beyond 18 bits true",
                                                 "add PDU1 with address true",
                                                 "default add false",
                                                 "explicit add where it stands false",
                                                 "default remove true",
                                                 "default remove never added false"}));
    EXPECT_EQ(errorOutput, "Error: No machine bus selected, failed to send global pgn request\n");
    EXPECT_EQ(delivered, (std::vector<std::string>{"first 8", "first 3"}));
}

Bytes bamAnnouncement(std::uint32_t pgn, std::size_t size) {
    const auto packets = static_cast<std::uint8_t>((size + 6) / 7);
    return {32,
            static_cast<std::uint8_t>(size),
            static_cast<std::uint8_t>(size >> 8),
            packets,
            0xFF,
            static_cast<std::uint8_t>(pgn),
            static_cast<std::uint8_t>(pgn >> 8),
            static_cast<std::uint8_t>(pgn >> 16)};
}

// A reassembled message has no pointer of its own: the filter copies it out of the pool, and
// the sender's NAME tells the manufacturer.
TEST(CanService, ALongMessageReachesTheFilterWholeWithItsSender) {
    ServiceRig rig;
    struct Received {
        std::size_t size;
        Bytes data;
        int manufacturer;
        bool hasSource;
    };
    std::vector<Received> received;
    rig.onCanThread([&](CanInterface& can) {
        can.addPgnFilter(
            0xFF20,
            [&](const PgnMessage& message) {
                received.push_back({message.data.size(), message.data, message.manufacturerCode(),
                                    message.hasSource()});
            },
            Bus::MACHINE_250K);
    });
    Bytes payload(150);
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<std::uint8_t>(i * 7 + 3);
    }
    // From 0x31 once it has claimed with an Agco NAME (manufacturer 102); transfers need a
    // claimed sender.
    const std::uint64_t agco = 5ull | (102ull << 21) | (1ull << 63);
    rig.peer.send("can2", extendedId(6, 0xEE00, 0x31), nameBytes(agco));
    rig.peer.send("can2", extendedId(7, 0xEC00, 0x31), bamAnnouncement(0xFF20, payload.size()));
    for (std::size_t packet = 0; packet * 7 < payload.size(); ++packet) {
        Bytes data = {static_cast<std::uint8_t>(packet + 1)};
        for (std::size_t i = packet * 7; i < packet * 7 + 7; ++i) {
            data.push_back(i < payload.size() ? payload[i] : 0xFF);
        }
        std::this_thread::sleep_for(milliseconds(1));
        rig.peer.send("can2", extendedId(7, 0xEB00, 0x31), data);
    }
    // From 0x30, which never claimed.
    rig.peer.send("can2", extendedId(6, 0xFF20, 0x30), {1, 2});
    ASSERT_TRUE(cantest::eventually(
        [&] {
            std::size_t count = 0;
            rig.onCanThread([&](CanInterface&) { count = received.size(); });
            return count >= 2;
        },
        milliseconds(5000)));
    rig.stop();
    ASSERT_EQ(received.size(), 2u);
    // The transfer completes in the stack's update, which may come after the short frame.
    if (received[0].size < received[1].size) {
        std::swap(received[0], received[1]);
    }
    EXPECT_EQ(received[0].data, payload);
    EXPECT_EQ(received[0].manufacturer, 102);
    EXPECT_TRUE(received[0].hasSource);
    EXPECT_EQ(received[1].data, (Bytes{1, 2}));
    EXPECT_EQ(received[1].manufacturer, -1);
    EXPECT_FALSE(received[1].hasSource);
}

// Only channel 1 is searched, whatever the default bus.
TEST(CanService, AManufacturerCountsOnlyOnTheSecondChannel) {
    ServiceRig rig;
    const std::uint64_t caseName = 9ull | (7ull << 21) | (1ull << 63);
    const auto ask = [&](std::set<int> codes) {
        bool found = false;
        rig.onCanThread([&](CanInterface& can) { found = can.hasManufacturerOnBus(codes); });
        return found;
    };
    rig.onCanThread([](CanInterface& can) { can.setDefaultBus(Bus::MACHINE_250K); });
    rig.peer.send("can2", extendedId(6, 0xEE00, 0x40), nameBytes(caseName));
    rig.onCanThread([](CanInterface&) {});
    EXPECT_FALSE(ask({7, 70}));
    rig.peer.send("can3", extendedId(6, 0xEE00, 0x40), nameBytes(caseName));
    // The claim on can3 may be read in the same pass as, and after, the query's trigger on can2.
    EXPECT_TRUE(cantest::eventually([&] { return ask({7, 70}); }, milliseconds(2000)));
    EXPECT_FALSE(ask({102}));
    EXPECT_FALSE(ask({}));
}

TEST(DeviceRegistration, SerialNumberGivesTheIdentity) {
    const struct {
        const char* content;  // nullptr: no file
        const char* serial;
        std::uint32_t identity;
    } rows[] = {
        {"serial_number=70001\n", "70001", 4465},  // 70001 - 65536
        {"# device\npart_number = P07\n serial_number = 12345 \n", "12345", 12345},
        {"serial_number=SN42\n", "SN42", 0},  // no leading number
        {"serial_number=42SN\n", "42SN", 42},
        {"serial_number=99999999999999999999\n", "99999999999999999999", 65535},  // 10^20 mod 2^16
        {"part_number=P07\n", "", 0},
        {nullptr, "", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.serial);
        const std::string path =
            row.content != nullptr ? temporaryFile(row.content) : "/nonexistent/registration";
        deviceregistration::setPath(path);
        logtest::LogCapture log("tilthwatch.caninterface");
        EXPECT_EQ(deviceregistration::serialNumber(), row.serial);
        EXPECT_EQ(deviceregistration::serialNumber(), row.serial);  // read once
        EXPECT_EQ(MachineBusWatcherControlFunction::watcherNAME().getIdentityNumber(),
                  row.identity);
        const std::vector<std::string> errors = log.errors();
        if (row.content == nullptr) {
            EXPECT_EQ(errors,
                      std::vector<std::string>{"Cannot read the device registration file " + path});
        } else {
            EXPECT_TRUE(errors.empty());
            std::remove(path.c_str());
        }
    }
}

TEST(MachineBusWatcher, AddressListAndNAME) {
    deviceregistration::setPath("/nonexistent/registration");
    MachineBusWatcherControlFunction watcher(1);
    const std::pair<std::uint8_t, std::uint8_t> rows[] = {{0, 37},    {1, 128},   {2, 129},
                                                          {126, 253}, {127, 254}, {255, 126}};
    for (const auto& row : rows) {
        EXPECT_EQ(watcher.getAddressAtIndex(row.first), row.second) << int{row.first};
    }
    const NAMEClass name = watcher.getNAME();
    EXPECT_EQ(name.getNAME(), (151ull << 21) | (28ull << 40) | (2ull << 60) | (1ull << 63));
    EXPECT_EQ(watcher.getChannel(), 1);
    EXPECT_EQ(watcher.getAddress(), 254);
}

}  // namespace
