#include <gtest/gtest.h>

#include <fcntl.h>

#include <cstdio>
#include <fstream>
#include <tuple>

#include "caninterface/caninterfaceimplementation.h"
#include "caninterface/deviceregistration.h"
#include "caninterface/machinebuswatchercontrolfunction.h"
#include "caninterface/peers.h"
#include "canstack/filteredmessagecallback.h"
#include "canstack/networkmanagement.h"
#include "support/log_capture.h"

using cantest::Bytes;
using cantest::eventually;
using cantest::extendedId;
using cantest::littleEndian;
using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

namespace {

const std::vector<std::string> kChannels = {"can2", "can3", "can1"};
constexpr std::uint32_t kPostPgn = 0xFF99;  // runs posted work on the CAN main thread
const Bytes kEight = {1, 2, 3, 4, 5, 6, 7, 8};

// A running service on `channels` and its application, which counts starts and stops and runs
// posted work on the CAN main thread. `piped` is the read end of a pipe: no socket, not writable.
struct ServiceRig : CanApplication_i {
    explicit ServiceRig(const Texts& open = kChannels, const Texts& channels = kChannels,
                        const std::string& piped = "")
        : peers(open) {
        (void)!::pipe2(pipe, O_CLOEXEC);
        service = std::make_shared<CanInterfaceImplementation>(
            [this, piped, opener = peers.opener()](const std::string& name) {
                return name == piped ? std::exchange(pipe[0], -1) : opener(name);
            });
        // The rig outlives the service's threads: it hands over no ownership.
        service->start(std::shared_ptr<CanApplication_i>(this, [](CanApplication_i*) {}), channels);
        EXPECT_TRUE(peers.attach("", "can2"));
    }
    ~ServiceRig() override {
        service->stop();
        for (const int end : pipe) {
            ::close(end);
        }
    }

    void onStart(std::shared_ptr<CanInterface> service) override {
        can = std::move(service);
        ++starts;
        const auto runPosted = [this](const PgnMessage&) {
            std::lock_guard<std::mutex> lock(mutex);  // onCanThread waits until the work is done
            if (posted) {
                posted(*can);
                posted = nullptr;
            }
        };
        can->addPgnFilter(kPostPgn, runPosted, Bus::MACHINE_250K);
    }
    void onStop() override {
        ++stops;
        can.reset();
    }
    // Runs `work` on the CAN main thread and waits for it; the trigger repeats until it runs.
    void onCanThread(std::function<void(CanInterface&)> work) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            posted = std::move(work);
        }
        ASSERT_TRUE(eventually([&] {
            peers.send("can2", extendedId(6, kPostPgn, 0x80), Bytes(8, 0));
            std::lock_guard<std::mutex> lock(mutex);
            return !posted;
        })) << "the CAN main thread never ran the work";
    }
    // Waits until `size` on the CAN main thread reaches `count`; gives the last size seen.
    std::size_t waitForCount(std::function<std::size_t()> size, std::size_t count) {
        std::size_t seen = 0;
        eventually([&] {
            onCanThread([&](CanInterface&) { seen = size(); });
            return seen >= count;
        });
        return seen;
    }

    cantest::Peers peers;
    int pipe[2] = {-1, -1};
    std::shared_ptr<CanInterfaceImplementation> service;
    std::shared_ptr<CanInterface> can;
    std::atomic<int> starts{0};
    std::atomic<int> stops{0};
    std::mutex mutex;
    std::function<void(CanInterface&)> posted;
};

// Each watcher asks for claims from the null address, then claims 37; a claim holds after
// 250 ms without contention, and the default-bus query follows the default bus. One periodic
// callback at a time; a faster one replacing a slow one is not held back by the old timer.
TEST(CanService, WatchersClaimAndTheBusesAreQueried) {
    ServiceRig rig;
    for (const char* channel : {"can2", "can3"}) {
        ASSERT_TRUE(rig.peers.waitForFrame(channel, 0xEE00)) << channel;
        EXPECT_EQ(rig.peers.frames(channel, 0xEA00).at(0), "98EAFFFE 00EE00") << channel;
        EXPECT_EQ(rig.peers.frames(channel, 0xEE00)[0].substr(0, 8), "98EEFF25") << channel;
    }
    bool claimed = false;
    EXPECT_TRUE(eventually(
        [&] {
            rig.onCanThread([&](CanInterface& can) {
                can.setDefaultBus(Bus::MACHINE_500K);
                claimed = can.isAddressClaimed() && can.isAddressClaimed(Bus::MACHINE_250K);
                can.setDefaultBus(Bus::PRODUCT_250K);
                claimed = claimed && !can.isAddressClaimed();
            });
            return claimed;
        },
        milliseconds(3000)));
    // A manufacturer is searched for on channel 1 only, whatever the default bus.
    const Bytes caseName = littleEndian(9ull | (7ull << 21) | (1ull << 63), 8);
    const auto ask = [&](std::set<int> codes) {
        bool found = false;
        rig.onCanThread([&](CanInterface& can) { found = can.hasManufacturerOnBus(codes); });
        return found;
    };
    rig.peers.send("can2", extendedId(6, 0xEE00, 0x40), caseName);
    EXPECT_FALSE(ask({7, 70}));
    rig.peers.send("can3", extendedId(6, 0xEE00, 0x40), caseName);
    // The claim on can3 may be read in the same pass as, and after, the query's trigger on can2.
    EXPECT_TRUE(eventually([&] { return ask({7, 70}); }, milliseconds(2000)));
    EXPECT_FALSE(ask({102}));
    EXPECT_FALSE(ask({}));

    std::atomic<int> fastRuns{0};
    rig.onCanThread([](CanInterface& can) { can.setPeriodicCallback([] {}, 60000000); });
    rig.onCanThread([&](CanInterface& can) {
        EXPECT_FALSE(can.setPeriodicCallback([] {}, 1000));
        EXPECT_TRUE(can.clearPeriodicCallback());
        EXPECT_FALSE(can.clearPeriodicCallback());
        EXPECT_TRUE(can.setPeriodicCallback([&] { ++fastRuns; }, 50000));
    });
    EXPECT_TRUE(eventually([&] { return fastRuns >= 2; }, milliseconds(2000)));
    rig.service->stop();
    EXPECT_EQ(rig.starts, 1);
    EXPECT_EQ(rig.stops, 1);
}

// What the stack makes of each frame on one channel: identifier word, validity, valid data.
struct RecordingFilter : FilteredMessageMatchingCallbackClass, ReceiveCANMessageCallbackClass {
    explicit RecordingFilter(std::uint8_t channel) {
        setChannel(channel);
        addCallback(static_cast<ReceiveCANMessageCallbackClass*>(this));
    }
    void receiveCANMessage(CANMessageClass* message) override {
        Bytes data(message->isValid() ? message->getDataLength() : 0);
        message->getData(data.data(), static_cast<std::uint32_t>(data.size()));
        seen.emplace_back(message->getIdentifier().getWord(), message->isValid(), data);
    }
    std::vector<std::tuple<std::uint32_t, bool, Bytes>> seen;
};

// can3 is a pipe, read one record at a time, where the watcher's frames cannot be written.
TEST(CanService, IdentifierWordsBecomeExtendedOrStandardFrames) {
    ServiceRig rig({"can2", "can1"}, kChannels, "can3");
    RecordingFilter* filters[3] = {};
    rig.onCanThread([&](CanInterface&) {
        filters[1] = new RecordingFilter(1);
        filters[2] = new RecordingFilter(2);
    });
    const struct {
        std::uint32_t sent;
        int length;
        std::uint32_t word;
        bool valid;
    } rows[] = {
        {0x98FEF117u, 8, 0x98FEF117u, true},
        {0xE0000123u, 8, 0x80000123u, true},  // remote and error bits are not looked at
        {0x00000123u, 8, 0x123u, true},
        {0x40000123u, 8, 0x123u, true},
        {0x00000ABCu, 8, 0x2BCu, true},  // 11 bits kept
        {0x7FFFFFFFu, 3, 0x7FFu, true},
        {0x00000123u, 9, 0x123u, false},  // the length byte as it came: the stack refuses it
    };
    decltype(RecordingFilter::seen) expected;
    rig.peers.sendRaw("can1", "", 0);  // an empty record is no frame
    for (const auto& row : rows) {
        rig.peers.send("can1", row.sent, kEight, row.length);
        expected.emplace_back(row.word, row.valid,
                              Bytes(kEight.begin(), kEight.begin() + (row.valid ? row.length : 0)));
    }
    for (const auto& row : {rows[0], rows[5]}) {
        const can_frame frame = cantest::Peers::record(row.sent, kEight, row.length);
        EXPECT_EQ(::write(rig.pipe[1], &frame, sizeof frame), 16);
    }
    decltype(RecordingFilter::seen) seen[3];
    rig.waitForCount([&] { return filters[1]->seen.size() + filters[2]->seen.size(); }, 9);
    rig.onCanThread([&](CanInterface&) {
        for (const int channel : {1, 2}) {
            seen[channel] = filters[channel]->seen;
            delete filters[channel];
        }
    });
    EXPECT_EQ(seen[2], expected);
    EXPECT_EQ(seen[1], (decltype(expected){expected[0], expected[5]}));
}

// Completion callbacks of the frames sent from a filter callback, on the CAN main thread.
Texts events;
std::thread::id canThread;
void noteCompletion(CANCallbackClass* callback) {
    events.push_back(std::string(callback->isSuccess() ? "done" : "failed") +
                     (std::this_thread::get_id() == canThread ? "" : " elsewhere"));
}

TEST(CanService, AnImmediateFrameCompletesBeforeTheSendReturnsAQueuedOneLater) {
    ServiceRig rig({"can2", "can3"}, {"can2", "can3"});
    const auto send = [](const char* what, std::uint32_t id, std::uint8_t channel, bool now) {
        events.push_back(what + std::string(" ") +
                         std::to_string(NetworkManagementClass::sendStandardMessage(
                             id, kEight.data(), 8, channel, now, nullptr, &noteCompletion)));
    };
    rig.onCanThread([&](CanInterface&) {
        canThread = std::this_thread::get_id();
        send("immediate", 0x123, 0, true);
        send("queued", 0x124, 0, false);
        send("no channel", 0x125, 2, false);  // each of the ten attempts reports
    });
    ASSERT_GE(rig.waitForCount([] { return events.size(); }, 15), 15u);
    std::this_thread::sleep_for(milliseconds(50));  // ten failures, and not one more
    rig.service->stop();
    Texts expected = {"done", "immediate 0", "queued 0", "no channel 0", "done"};
    expected.resize(15, "failed");
    std::sort(events.begin() + 4, events.end());  // the queued frame's result comes any time
    EXPECT_EQ(events, expected);
    EXPECT_EQ(rig.peers.frames("can2", 0),  // standard frames
              (Texts{"00000123 0102030405060708", "00000124 0102030405060708"}));
}

// Every refusal of the contract, on the CAN main thread. A filter takes only the frames of its
// group on its bus; a reassembled message, which has no pointer of its own, is copied out of
// the pool; the sender's NAME tells the manufacturer, and one that never claimed has none.
TEST(CanService, FiltersAndQueriesFollowTheContract) {
    ServiceRig rig;
    Texts delivered;
    Bytes longest;
    const auto to = [&](const char* name) {
        return [&delivered, &longest, name](const PgnMessage& message) {
            delivered.push_back(std::string(name) + " " + std::to_string(message.pgn) + " " +
                                std::to_string(message.data.size()) + " " +
                                std::to_string(message.manufacturerCode()) +
                                (message.hasSource() ? " source" : ""));
            longest = message.data.size() > longest.size() ? message.data : longest;
        };
    };
    const Bus none = Bus::NONE;
    const Bus first = Bus::MACHINE_250K;
    std::string errorOutput;
    rig.onCanThread([&](CanInterface& can) {
        EXPECT_EQ(can.defaultBus(), none);
        EXPECT_TRUE(can.addPgnFilter(0xFF10, to("first"), first));
        EXPECT_FALSE(can.addPgnFilter(0xFF10, to("second"), first));
        EXPECT_TRUE(can.addPgnFilter(0xFF10, to("other"), Bus::MACHINE_500K));
        EXPECT_TRUE(can.removePgnFilter(0xFF10, Bus::MACHINE_500K));
        EXPECT_FALSE(can.removePgnFilter(0xFF10, Bus::MACHINE_500K));
        EXPECT_FALSE(can.addPgnFilter(0xFF11, to("none"), none));
        EXPECT_FALSE(can.addPgnFilter(0xFF11, to("7"), static_cast<Bus>(7)));
        EXPECT_FALSE(can.addPgnFilter(0xFF12, to("default")));
        EXPECT_FALSE(can.removePgnFilter(0xFF10, none));
        EXPECT_FALSE(can.sendPgnRequest(0xFEEC, none));
        EXPECT_FALSE(can.sendPgnRequest(0xFEEC, Bus::PRODUCT_250K));  // no watcher
        EXPECT_FALSE(can.isAddressClaimed(Bus::PRODUCT_250K));
        EXPECT_FALSE(can.isAddressClaimed());
        // Refused groups stay silent instead of matching everything.
        EXPECT_TRUE(can.addPgnFilter(0x40000, to("beyond 18 bits"), first));
        EXPECT_TRUE(can.addPgnFilter(0xEF12, to("PDU1 with address"), first));
        testing::internal::CaptureStderr();
        can.sendPgnRequest(0xFEEC);
        errorOutput = testing::internal::GetCapturedStderr();
        can.setDefaultBus(first);
        // The default-bus form installs, but its result says nothing.
        EXPECT_FALSE(can.addPgnFilter(0xFF13, to("default")));
        EXPECT_FALSE(can.addPgnFilter(0xFF13, to("x"), first));
        EXPECT_TRUE(can.removePgnFilter(0xFF13));
        EXPECT_FALSE(can.removePgnFilter(0xFF12));
        EXPECT_TRUE(can.addPgnFilter(0xFF20, to("long"), first));
    });
    rig.peers.send("can2", extendedId(6, 0xFF10, 0x80), Bytes(8, 1));
    rig.peers.send("can3", extendedId(6, 0xFF10, 0x80), Bytes(8, 1));
    rig.peers.send("can2", extendedId(6, 0xFF11, 0x80), Bytes(8, 1));
    rig.peers.send("can2", extendedId(6, 0xEF12, 0x80, 0x12), Bytes(8, 1));
    rig.peers.send("can2", extendedId(6, 0xFF10, 0x80), Bytes(3, 1));
    // 150 bytes in 22 packets from 0x31, claimed with an Agco NAME (manufacturer 102).
    rig.peers.send("can2", extendedId(6, 0xEE00, 0x31), littleEndian(5 | (102ull << 21), 8));
    rig.peers.send("can2", extendedId(7, 0xEC00, 0x31), {32, 150, 0, 22, 0xFF, 0x20, 0xFF, 0});
    Bytes payload;
    for (std::uint8_t packet = 1; packet <= 22; ++packet) {
        rig.peers.send("can2", extendedId(7, 0xEB00, 0x31), Bytes(8, packet));  // its number
        payload.insert(payload.end(), 7, packet);
        std::this_thread::sleep_for(milliseconds(1));
    }
    payload.resize(150);
    rig.peers.send("can2", extendedId(6, 0xFF20, 0x30), {1, 2});
    // The transfer completes in the stack's update, which may come after the short frame.
    EXPECT_GE(rig.waitForCount([&] { return delivered.size(); }, 4), 4u);
    rig.service->stop();
    std::sort(delivered.begin() + 2, delivered.end());
    EXPECT_EQ(errorOutput, "Error: No machine bus selected, failed to send global pgn request\n");
    // Group 0xFF10 is 65296, 0xFF20 65312.
    EXPECT_EQ(delivered, (Texts{"first 65296 8 -1", "first 65296 3 -1", "long 65312 150 102 source",
                                "long 65312 2 -1"}));
    EXPECT_EQ(longest, payload);
}

TEST(DeviceRegistration, SerialNumberGivesTheIdentity) {
    const std::string overlong = "serial_number=" + std::string(5000, '7') + "\n";
    const struct {
        const char* content;  // nullptr: no file
        const char* serial;
        std::uint32_t identity;
    } rows[] = {
        {"part_number = P07\n serial_number = 12345 \n#serial_number=9\n", "12345", 12345},
        {"serial_number=SN42\n", "SN42", 0},  // no leading number
        {"serial_number=42SN\n", "42SN", 42},
        {"serial_number=99999999999999999999\n", "99999999999999999999", 65535},  // 10^20 mod 2^16
        {"part_number=P07\n", "", 0},
        {overlong.c_str(), "", 0},  // longer than any registration line
        {nullptr, "", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.serial);
        const std::string path = row.content
                                     ? "/tmp/tilthwatch-registration-" + std::to_string(::getpid())
                                     : "/nonexistent/registration";
        std::ofstream(path) << (row.content ? row.content : "");
        deviceregistration::setPath(path);
        logtest::LogCapture log("tilthwatch.caninterface");
        EXPECT_EQ(deviceregistration::serialNumber(), row.serial);  // the NAME reads it again
        EXPECT_EQ(MachineBusWatcherControlFunction::watcherNAME().getIdentityNumber(),
                  row.identity);
        EXPECT_EQ(log.errors(), row.content
                                    ? Texts{}
                                    : Texts{"Cannot read the device registration file " + path});
        std::remove(path.c_str());
    }
}

}  // namespace
