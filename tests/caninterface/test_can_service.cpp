#include <gtest/gtest.h>

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

namespace {

const std::vector<std::string> kChannels = {"can2", "can3", "can1"};
constexpr std::uint32_t kPostPgn = 0xFF99;  // runs posted work on the CAN main thread
const Bytes kEight = {1, 2, 3, 4, 5, 6, 7, 8};

// A running service and its application, which counts starts and stops and runs posted work
// on the CAN main thread.
struct ServiceRig : CanApplication_i {
    explicit ServiceRig(const std::vector<std::string>& open = kChannels) : peers(open) {
        // The rig outlives the service's threads: it hands over no ownership.
        service->start(std::shared_ptr<CanApplication_i>(this, [](CanApplication_i*) {}),
                       kChannels);
        EXPECT_TRUE(peers.attach("", "can3"));
    }
    ~ServiceRig() override { service->stop(); }

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
    // Runs `work` on the CAN main thread and waits for it. The filter stands once the stack has
    // started: the trigger repeats until it runs.
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

    cantest::Peers peers;
    std::shared_ptr<CanInterfaceImplementation> service =
        std::make_shared<CanInterfaceImplementation>(peers.opener());
    std::shared_ptr<CanInterface> can;
    std::atomic<int> starts{0};
    std::atomic<int> stops{0};
    std::mutex mutex;
    std::function<void(CanInterface&)> posted;
};

// Each watcher asks for claims from the null address, then claims 37; a claim holds after
// 250 ms without contention, and the default-bus query follows the default bus.
TEST(CanService, WatchersClaimAndTheBusesAreQueried) {
    ServiceRig rig;
    for (const char* channel : {"can2", "can3"}) {
        ASSERT_TRUE(rig.peers.waitForFrame(channel, 0xEE00)) << channel;
        const cantest::Frame request = rig.peers.frames(channel, 0xEA00).at(0);
        EXPECT_EQ(request.id, 0x98EAFFFEu) << channel;
        EXPECT_EQ(request.data, (Bytes{0x00, 0xEE, 0x00})) << channel;
        EXPECT_EQ(rig.peers.frames(channel, 0xEE00)[0].id, 0x98EEFF25u) << channel;
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
    rig.service->stop();
    EXPECT_EQ(rig.starts, 1);
    EXPECT_EQ(rig.stops, 1);
}

// One periodic callback at a time. Replacing a slow one by a faster one is not held back by
// the old interval's timer.
TEST(CanService, AShorterIntervalTakesEffectAtOnce) {
    std::atomic<int> fastRuns{0};
    ServiceRig rig;
    rig.onCanThread([](CanInterface& can) { can.setPeriodicCallback([] {}, 60000000); });
    rig.onCanThread([&](CanInterface& can) {
        EXPECT_FALSE(can.setPeriodicCallback([] {}, 1000));
        EXPECT_TRUE(can.clearPeriodicCallback());
        EXPECT_FALSE(can.clearPeriodicCallback());
        EXPECT_TRUE(can.setPeriodicCallback([&] { ++fastRuns; }, 50000));
    });
    EXPECT_TRUE(eventually([&] { return fastRuns >= 2; }, milliseconds(2000)));
}

// Records what the stack makes of each frame on can1: identifier word (bit 31 for 29 bits),
// validity, and the data of a valid frame. On the CAN main thread only.
struct RecordingFilter : FilteredMessageMatchingCallbackClass, ReceiveCANMessageCallbackClass {
    RecordingFilter() {
        setChannel(2);
        addCallback(static_cast<ReceiveCANMessageCallbackClass*>(this));
    }
    void receiveCANMessage(CANMessageClass* message) override {
        Bytes data(message->isValid() ? message->getDataLength() : 0);
        message->getData(data.data(), static_cast<std::uint32_t>(data.size()));
        seen.emplace_back(message->getIdentifier().getWord(), message->isValid(), data);
    }
    std::vector<std::tuple<std::uint32_t, bool, Bytes>> seen;
};

TEST(CanService, IdentifierWordsBecomeExtendedOrStandardFrames) {
    ServiceRig rig;
    RecordingFilter* filter = nullptr;
    rig.onCanThread([&](CanInterface&) { filter = new RecordingFilter; });
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
    std::vector<std::tuple<std::uint32_t, bool, Bytes>> expected;
    rig.peers.sendRaw("can1", "", 0);  // an empty record is no frame
    for (const auto& row : rows) {
        rig.peers.send("can1", row.sent, kEight, row.length);
        expected.emplace_back(row.word, row.valid,
                              Bytes(kEight.begin(), kEight.begin() + (row.valid ? row.length : 0)));
    }
    std::vector<std::tuple<std::uint32_t, bool, Bytes>> seen;
    EXPECT_TRUE(eventually([&] {
        rig.onCanThread([&](CanInterface&) { seen = filter->seen; });
        return seen.size() >= std::size(rows);
    }));
    EXPECT_EQ(seen, expected);
    rig.onCanThread([&](CanInterface&) { delete filter; });
}

// Completion callbacks of the frames sent from a filter callback, on the CAN main thread.
std::vector<std::string> events;
std::thread::id canThread;
void noteCompletion(CANCallbackClass* callback) {
    events.push_back(std::string(callback->isSuccess() ? "done" : "failed") +
                     (std::this_thread::get_id() == canThread ? "" : " elsewhere"));
}

TEST(CanService, AnImmediateFrameCompletesBeforeTheSendReturnsAQueuedOneLater) {
    ServiceRig rig({"can2", "can3"});
    const auto send = [](const char* what, std::uint32_t id, std::uint8_t channel, bool now) {
        events.push_back(what + std::string(" ") +
                         std::to_string(NetworkManagementClass::sendStandardMessage(
                             id, kEight.data(), 8, channel, now, nullptr, &noteCompletion)));
    };
    rig.onCanThread([&](CanInterface&) {
        canThread = std::this_thread::get_id();
        send("immediate", 0x123, 0, true);
        send("queued", 0x124, 0, false);
        send("unopened", 0x125, 2, false);  // can1: each of the ten attempts reports
    });
    std::size_t seen = 0;
    ASSERT_TRUE(eventually(
        [&] {
            rig.onCanThread([&](CanInterface&) { seen = events.size(); });
            return seen >= 15;
        },
        milliseconds(5000)));
    std::this_thread::sleep_for(milliseconds(50));  // ten failures, and not one more
    rig.service->stop();
    ASSERT_EQ(events.size(), 15u);
    EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + 4),
              (std::vector<std::string>{"done", "immediate 0", "queued 0", "unopened 0"}));
    EXPECT_EQ(std::count(events.begin() + 4, events.end(), "done"), 1);
    EXPECT_EQ(std::count(events.begin() + 4, events.end(), "failed"), 10);
    const std::vector<cantest::Frame> written = rig.peers.frames("can2", 0);  // standard frames
    ASSERT_EQ(written.size(), 2u);
    EXPECT_EQ(written[0].id, 0x123u);
    EXPECT_EQ(written[1].id, 0x124u);
}

// Every refusal of the contract, on the CAN main thread. A filter takes only the frames of its
// group on its bus; a reassembled message, which has no pointer of its own, is copied out of
// the pool; the sender's NAME tells the manufacturer, and one that never claimed has none.
TEST(CanService, FiltersAndQueriesFollowTheContract) {
    ServiceRig rig;
    std::vector<std::string> delivered;
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
    std::size_t count = 0;
    EXPECT_TRUE(eventually([&] {
        rig.onCanThread([&](CanInterface&) { count = delivered.size(); });
        return count >= 4;
    }));
    rig.service->stop();
    std::sort(delivered.begin() + 2, delivered.end());
    EXPECT_EQ(errorOutput, "Error: No machine bus selected, failed to send global pgn request\n");
    // Group 0xFF10 is 65296, 0xFF20 65312.
    EXPECT_EQ(delivered,
              (std::vector<std::string>{"first 65296 8 -1", "first 65296 3 -1",
                                        "long 65312 150 102 source", "long 65312 2 -1"}));
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
                                    ? std::vector<std::string>{}
                                    : std::vector<std::string>{
                                          "Cannot read the device registration file " + path});
        std::remove(path.c_str());
    }
}

}  // namespace
