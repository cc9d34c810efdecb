// The whole service in-process: the real run function, CAN stack, state machine and sinks,
// with a machine on socketpair CAN channels, a Thrift Ice server and a ZeroMQ subscriber on
// loopback.

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "app/loopback.h"
#include "caninterface/can_peer.h"
#include "ice/ice_test_server.h"
#include "support/log_capture.h"
#include "telemalog/sinks/collecting_sink.h"
#include "telematicsloop.h"

using cantest::extendedId;
using cantest::Frame;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;
using Tree = boost::property_tree::ptree;

namespace {

const std::vector<std::string> kChannels = {"can2", "can3", "can1"};
constexpr std::uint8_t kWatcher = 0x25;  // the first address our watchers claim
constexpr std::uint8_t kEcu = 0x00;      // the machine's engine controller
const Bytes kRequestForClaim = {0x00, 0xEE, 0x00};

// Serial number 70001 in the registration file: identity 70001 mod 65536 = 4465 = 0x1171;
// manufacturer 151, function 28, industry group 2, self-configurable.
constexpr std::uint64_t kWatcherName =
    0x1171ull | (151ull << 21) | (28ull << 40) | (2ull << 60) | (1ull << 63);

// An engine controller (function 0) of an agricultural machine.
std::uint64_t ecuName(std::uint64_t manufacturer) {
    return 0x2Aull | (manufacturer << 21) | (2ull << 60);
}

Bytes littleEndian(std::uint64_t value, int bytes) {
    Bytes result;
    for (int i = 0; i < bytes; ++i) {
        result.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    return result;
}

bool isRequestFor(const Frame& frame, std::uint32_t pgn) {
    return frame.pgn() == 0xEA00 && frame.data == littleEndian(pgn, 3);
}

// 0xF004 with engine speed raw / 8 and torque 160 - 125 = 35.
Bytes engineSpeed(std::uint16_t raw) {
    return {0xFF, 0xFF, 160, static_cast<std::uint8_t>(raw), static_cast<std::uint8_t>(raw >> 8),
            0xFF, 0xFF, 0xFF};
}
const std::uint32_t kEngineSpeedId = extendedId(3, 0xF004, kEcu);

// A body that holds all of `paths`. A sample set while the loop delivers a record is stamped
// before the next interval opens and so counts in none, though later records take it over:
// one key can be missing from the first record in which another appears.
std::function<bool(const Tree&)> holding(std::vector<std::string> paths) {
    return [paths](const Tree& body) {
        return std::all_of(paths.begin(), paths.end(), [&](const std::string& path) {
            return !!body.get_child_optional(path);
        });
    };
}

Tree parse(const std::string& body) {
    std::istringstream in(body);
    Tree tree;
    boost::property_tree::read_json(in, tree);
    return tree;
}

// A machine on the bus: broadcasts its groups at their rates, and its engine controller
// answers every request for address claim from our watchers on its channel with its claim.
class Machine {
public:
    struct Group {
        std::string channel;
        std::uint32_t id;
        int periodMs;
        Bytes data;
    };

    Machine(cantest::CanPeer& peer, std::string channel, std::uint64_t name,
            std::vector<Group> groups)
        : peer_(peer), channel_(std::move(channel)), name_(name), groups_(std::move(groups)) {
        thread_ = std::thread([this] { run(); });
    }
    ~Machine() {
        stop_ = true;
        thread_.join();
    }

    // Once this returns, no frame of the group is on its way.
    void pause(std::uint32_t id) {
        std::lock_guard<std::mutex> lock(mutex_);
        paused_.insert(id);
    }

private:
    void run() {
        std::vector<steady_clock::time_point> due(groups_.size(), steady_clock::now());
        std::size_t seen = 0;
        while (!stop_) {
            const steady_clock::time_point now = steady_clock::now();
            {
                std::lock_guard<std::mutex> lock(mutex_);
                for (std::size_t i = 0; i < groups_.size(); ++i) {
                    if (now >= due[i] && paused_.count(groups_[i].id) == 0) {
                        peer_.send(groups_[i].channel, groups_[i].id, groups_[i].data);
                        due[i] += milliseconds(groups_[i].periodMs);
                    }
                }
            }
            const std::vector<Frame> written = peer_.frames();
            for (; seen < written.size(); ++seen) {
                if (written[seen].channel == channel_ && isRequestFor(written[seen], 0xEE00)) {
                    peer_.send(channel_, extendedId(6, 0xEE00, kEcu), littleEndian(name_, 8));
                }
            }
            std::this_thread::sleep_for(milliseconds(1));
        }
    }

    cantest::CanPeer& peer_;
    const std::string channel_;
    const std::uint64_t name_;
    const std::vector<Group> groups_;
    std::mutex mutex_;
    std::set<std::uint32_t> paused_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// The run function on a thread with every peer it talks to; its files in a fresh directory.
// Members are built in this order: the stop signals are blocked before any thread starts.
struct Service {
    explicit Service(std::int64_t periodMs, std::set<std::string> failing = {},
                     const std::string& machineFile = "")
        : peer(kChannels, std::move(failing)) {
        std::filesystem::create_directories(directory);
        std::ofstream(directory / "registration.conf") << "serial_number=70001\n";
        if (!machineFile.empty()) {
            std::ofstream(directory / "machine.json") << machineFile;
        }
        TelematicsConfig config;
        config.periodMs = periodMs;
        config.channelOpener = peer.opener();
        config.machineFilePath = (directory / "machine.json").string();
        config.detectedMachineFilePath = (directory / "detected.json").string();
        config.deviceRegistrationPath = (directory / "registration.conf").string();
        config.iceHost = "127.0.0.1";
        config.icePort = ice.port();
        config.zmqEndpoint = "tcp://127.0.0.1:" + std::to_string(icetest::freePort());
        config.extraSinks = {collector};
        loop = std::thread([config] { runTelematicsLoop(config); });
        subscriber = std::make_unique<apptest::FrameCollector>(config.zmqEndpoint);
    }
    ~Service() {
        stop();
        std::filesystem::remove_all(directory);
    }

    // SIGTERM, as the service supervisor stops it; returns once the run function has.
    void stop() {
        if (loop.joinable()) {
            ::kill(::getpid(), SIGTERM);
            loop.join();
        }
    }
    void expectClosed(const std::vector<std::string>& channels) const {
        for (const std::string& channel : channels) {
            EXPECT_TRUE(apptest::eventually([&] { return peer.closedByService(channel); },
                                            milliseconds(2000)))
                << channel;
        }
    }

    // The first body delivered at Ice, from call `from` on, for which `done` holds; its index,
    // or -1 when none came within the timeout.
    int waitForBody(const std::function<bool(const Tree&)>& done, milliseconds timeout,
                    std::size_t from = 0) const {
        int found = -1;
        apptest::eventually(
            [&] {
                const std::vector<icetest::Call> calls = ice.calls();
                for (std::size_t i = from; i < calls.size() && found < 0; ++i) {
                    if (done(parse(calls[i].sPayload))) {
                        found = static_cast<int>(i);
                    }
                }
                return found >= 0;
            },
            timeout);
        return found;
    }
    Tree body(std::size_t index) const { return parse(ice.calls().at(index).sPayload); }

    std::vector<std::string> statusFrames() const {
        std::vector<std::string> result;
        for (const apptest::Frame& frame : subscriber->frames()) {
            result.push_back(frame.bytes);
        }
        return result;
    }
    // Waits for a status frame that arrived after `after`.
    bool waitForStatus(steady_clock::time_point after) const {
        return apptest::eventually(
            [&] {
                const std::vector<apptest::Frame> frames = subscriber->frames();
                return !frames.empty() && frames.back().at > after;
            },
            milliseconds(2000));
    }

    // Returns once every frame sent on `channel` before it has been through the stack: the
    // watcher answers a request for address claim with its claim at the next update.
    void sync(const std::string& channel) {
        const auto claims = [&] { return peer.frames(channel, 0xEE00).size(); };
        const std::size_t before = claims();
        peer.send(channel, extendedId(6, 0xEA00, kEcu), kRequestForClaim);
        ASSERT_TRUE(peer.waitFor([&](const std::vector<Frame>&) { return claims() > before; },
                                 milliseconds(5000)));
    }

    const bool signalsBlocked = (blockStopSignals(), true);
    const std::filesystem::path directory =
        std::filesystem::temp_directory_path() / ("tilthwatch-e2e-" + std::to_string(::getpid()));
    logtest::LogCapture stateLog{"tilthwatch.canpropertysourcestatemachine"};
    icetest::IceTestServer ice;
    cantest::CanPeer peer;
    std::shared_ptr<nvsf::telemalog::CollectingSink> collector =
        std::make_shared<nvsf::telemalog::CollectingSink>();
    std::thread loop;
    std::unique_ptr<apptest::FrameCollector> subscriber;
};

// min, max, avg and cur of one engine key in a delivered body.
struct Engine {
    const char* name;
    double min, max, avg, cur;
};

void expectEngine(const Tree& body, const Engine& e) {
    const std::string path = std::string("engine.") + e.name;
    ASSERT_TRUE(body.get_child_optional(path)) << e.name;
    EXPECT_DOUBLE_EQ(body.get<double>(path + ".min"), e.min) << e.name;
    EXPECT_DOUBLE_EQ(body.get<double>(path + ".max"), e.max) << e.name;
    EXPECT_DOUBLE_EQ(body.get<double>(path + ".avg"), e.avg) << e.name;
    EXPECT_DOUBLE_EQ(body.get<double>(path + ".cur"), e.cur) << e.name;
}

Engine steady(const char* name, double value) {
    return {name, value, value, value, value};
}

// A Case sprayer, Patriot 2250 T4B, on can3: its engine groups at their usual rates, and the
// proprietary 0xFF12 that names the model and carries hours and fuel level.
std::vector<Machine::Group> patriotGroups() {
    const std::uint8_t x = 0xFF;
    return {
        {"can3", kEngineSpeedId, 20, engineSpeed(0x2580)},
        {"can3", extendedId(3, 0xF003, kEcu), 50, {x, x, 45, x, x, x, x, x}},
        {"can3", extendedId(6, 0xFEF2, kEcu), 100, {0xF4, 0x01, x, x, x, x, x, x}},
        {"can3", extendedId(6, 0xFEEF, kEcu), 500, {x, x, x, 100, x, x, x, x}},
        {"can3", extendedId(6, 0xFEEE, kEcu), 1000, {130, x, 0x40, 0x2F, x, x, x, x}},
        {"can3", extendedId(6, 0xFEF8, kEcu), 1000, {x, x, x, x, 0x20, 0x2C, x, x}},
        {"can3", extendedId(6, 0xFE56, kEcu), 1000, {200, x, x, x, x, x, x, x}},
        // Hours and fuel level of the standard groups: this model takes both from 0xFF12.
        {"can3", extendedId(6, 0xFEE5, kEcu), 1000, {0x40, 0x0D, 0x03, 0x00, x, x, x, x}},
        {"can3", extendedId(6, 0xFEFC, kEcu), 1000, {x, 50, x, x, x, x, x, x}},
        {"can3", extendedId(6, 0xFF12, kEcu), 100, {x, x, 0x34, 0x12, 146, 0x14, x, x}},
    };
}

// What those frames read as, whatever the interval: every value is constant. Engine speed,
// 0x2580 = 9600 / 8 = 1200, is the one the test changes.
const Engine kPatriotEngine[] = {
    steady("percentLoadAtCurrentSpeed", 45),   // 45
    steady("percentLoadOfTotalTorque", 35),    // 160 - 125
    steady("fuelConsumptionRate", 25),         // 0x01F4 = 500, × 0.05
    steady("coolantTemperature", 90),          // 130 - 40
    steady("engineOilPressure", 400),          // 100 × 4
    steady("engineOilTemperature", 105),       // 0x2F40 = 12096, / 32 - 273
    steady("transmissionOilTemperature", 80),  // 0x2C20 = 11296, / 32 - 273
    steady("defLevel", 80),                    // 200 × 0.4
    steady("hours", 4660),                     // 0x1234 of 0xFF12, not 0x030D40 × 0.05
    steady("fuelLevel", 100),  // 146 × 0.6849315 in single precision, not 50 × 0.4
};

// The transport protocol's connection frames that carry size, packet count and group: RTS,
// BAM and EOM alike.
Bytes connection(std::uint8_t command, const std::string& text, std::uint32_t pgn) {
    Bytes frame = {command, static_cast<std::uint8_t>(text.size()),
                   static_cast<std::uint8_t>(text.size() >> 8),
                   static_cast<std::uint8_t>((text.size() + 6) / 7), 0xFF};
    const Bytes group = littleEndian(pgn, 3);
    frame.insert(frame.end(), group.begin(), group.end());
    return frame;
}

// Sends `text` as data packets: sequence number from 1, seven bytes each, 0xFF-padded.
void sendPackets(cantest::CanPeer& peer, const std::string& channel, std::uint8_t destination,
                 const std::string& text, milliseconds gap) {
    for (std::size_t offset = 0; offset < text.size(); offset += 7) {
        Bytes packet(8, 0xFF);
        packet[0] = static_cast<std::uint8_t>(offset / 7 + 1);
        std::copy(text.begin() + offset, text.begin() + std::min(offset + 7, text.size()),
                  packet.begin() + 1);
        peer.send(channel, extendedId(7, 0xEB00, kEcu, destination), packet);
        std::this_thread::sleep_for(gap);
    }
}

// Watchers claim on can2 and can3 only; a Case engine's first 0xF004 on can3 makes that the
// machine bus; with no model group the Case detector asks for 0xFF7A every second there, and
// the answer makes the machine a CT-56.
TEST(CanEndToEnd, CaseMachineOnCan3IsAskedForItsModelEverySecond) {
    Service service(300, {}, R"({"manufacturer": "New Holland", "model": "T7.270"})");
    Machine machine(service.peer, "can3", ecuName(70),
                    {{"can3", kEngineSpeedId, 20, engineSpeed(0x2580)}});
    const auto modelRequests = [&](const std::string& channel) {
        std::vector<Frame> result;
        for (const Frame& frame : service.peer.frames(channel, 0xEA00)) {
            if (isRequestFor(frame, 0xFF7A)) {
                result.push_back(frame);
            }
        }
        return result;
    };
    ASSERT_TRUE(service.peer.waitFor(
        [&](const std::vector<Frame>&) { return modelRequests("can3").size() >= 3; },
        milliseconds(8000)));

    for (const char* channel : {"can2", "can3"}) {
        const std::vector<Frame> requests = service.peer.frames(channel, 0xEA00);
        const std::vector<Frame> claims = service.peer.frames(channel, 0xEE00);
        ASSERT_FALSE(requests.empty()) << channel;
        ASSERT_FALSE(claims.empty()) << channel;
        EXPECT_EQ(requests[0].id, extendedId(6, 0xEA00, 0xFE)) << channel;  // from null
        EXPECT_EQ(requests[0].data, kRequestForClaim) << channel;
        EXPECT_EQ(claims[0].id, extendedId(6, 0xEE00, kWatcher)) << channel;
        EXPECT_EQ(claims[0].data, littleEndian(kWatcherName, 8)) << channel;
    }
    for (const Frame& frame : service.peer.frames()) {
        EXPECT_NE(frame.channel, "can1") << std::hex << frame.id;
    }
    EXPECT_EQ(service.stateLog.count("Setting default CAN bus to: MACHINE_500K"), 1);

    const std::vector<Frame> requests = modelRequests("can3");
    for (std::size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].id, extendedId(6, 0xEA00, kWatcher));  // global, from the watcher
        if (i > 0) {
            EXPECT_GE(requests[i].at - requests[i - 1].at, milliseconds(900)) << i;
            EXPECT_LE(requests[i].at - requests[i - 1].at, milliseconds(1200)) << i;
        }
    }
    EXPECT_TRUE(modelRequests("can2").empty());
    Tree detected;
    boost::property_tree::read_json((service.directory / "detected.json").string(), detected);
    EXPECT_EQ(detected.get<std::string>("detectedManufacturer"), "CaseIH");

    // Any 0xFF7A at all answers: the contents are not read.
    service.peer.send("can3", extendedId(6, 0xFF7A, kEcu), Bytes(8, 0));
    const int record = service.waitForBody(holding({"detected.model"}), milliseconds(3000));
    ASSERT_GE(record, 0);
    const Tree body = service.body(record);
    EXPECT_EQ(body.get<std::string>("detected.manufacturer"), "CaseIH");
    EXPECT_EQ(body.get<std::string>("detected.model"), "CT-56");
    EXPECT_EQ(body.get<std::string>("manufacturerCode"), "70");
    EXPECT_EQ(body.get<std::string>("userSelected.manufacturer"), "New Holland");
    EXPECT_EQ(body.get<std::string>("userSelected.model"), "T7.270");
}

// An Agco machine on can2 answers the request for its identification first point to point
// with a text that is too short, then by broadcast with the whole text. Its fuel and DEF
// levels come from the product bus, can1.
TEST(CanEndToEnd, AgcoMachineOnCan2IsIdentifiedThroughTheTransportProtocol) {
    Service service(300);
    const std::uint8_t x = 0xFF;
    const std::uint8_t product = 0x80;  // a node on the product bus, without a NAME
    Machine machine(service.peer, "can2", ecuName(102),
                    {{"can2", kEngineSpeedId, 20, engineSpeed(0x2580)},
                     {"can2", extendedId(6, 0xFEFC, kEcu), 100, {x, 50, x, x, x, x, x, x}},
                     {"can2", extendedId(6, 0xFE56, kEcu), 100, {100, x, x, x, x, x, x, x}},
                     {"can1", extendedId(6, 0xFEFC, product), 100, {x, 250, x, x, x, x, x, x}},
                     {"can1", extendedId(6, 0xFE56, product), 100, {125, x, x, x, x, x, x, x}}});

    ASSERT_TRUE(service.peer.waitFor(
        [&](const std::vector<Frame>& frames) {
            return std::any_of(frames.begin(), frames.end(),
                               [](const Frame& f) { return isRequestFor(f, 0xFEEC); });
        },
        milliseconds(8000)));
    for (const Frame& frame : service.peer.frames("can2", 0xEA00)) {
        if (isRequestFor(frame, 0xFEEC)) {
            EXPECT_EQ(frame.id, extendedId(6, 0xEA00, kWatcher));
        }
    }
    const auto waitForConnection = [&](std::uint8_t command) {
        std::vector<Frame> found;
        service.peer.waitFor(
            [&](const std::vector<Frame>&) {
                found.clear();
                for (const Frame& frame : service.peer.frames("can2", 0xEC00)) {
                    if (frame.data.at(0) == command) {
                        found.push_back(frame);
                    }
                }
                return !found.empty();
            },
            milliseconds(3000));
        return found;
    };

    // Three fields and a final '*': 12 bytes in 2 packets, which the detector turns down.
    const std::string partial = "AGCO*B*2019*";
    service.peer.send("can2", extendedId(7, 0xEC00, kEcu, kWatcher),
                      connection(16, partial, 0xFEEC));
    const std::vector<Frame> clear = waitForConnection(17);
    ASSERT_EQ(clear.size(), 1u);
    EXPECT_EQ(clear[0].id, extendedId(6, 0xEC00, kWatcher, kEcu));
    // All 2 packets at once, from packet 1.
    EXPECT_EQ(clear[0].data, (Bytes{17, 2, 1, 0xFF, 0xFF, 0xEC, 0xFE, 0x00}));
    sendPackets(service.peer, "can2", kWatcher, partial, milliseconds(0));
    const std::vector<Frame> end = waitForConnection(19);
    ASSERT_EQ(end.size(), 1u);
    EXPECT_EQ(end[0].id, extendedId(6, 0xEC00, kWatcher, kEcu));
    EXPECT_EQ(end[0].data, connection(19, partial, 0xFEEC));
    EXPECT_TRUE(apptest::eventually(
        [&] { return service.stateLog.count("0xfeec contains \"AGCO*B*2019*\"") == 1; },
        milliseconds(2000)));

    // Model code 9320 of field 1: the 900 series reader. 18 bytes in 3 packets, 50 ms apart.
    const std::string text = "AGCO*B9320*2019*X*";
    service.peer.send("can2", extendedId(7, 0xEC00, kEcu), connection(32, text, 0xFEEC));
    sendPackets(service.peer, "can2", 0xFF, text, milliseconds(50));
    const int record = service.waitForBody(
        holding({"detected.manufacturer", "detected.model", "engine.fuelLevel", "engine.defLevel"}),
        milliseconds(3000));
    ASSERT_GE(record, 0);
    const Tree body = service.body(record);
    EXPECT_EQ(body.get<std::string>("detected.manufacturer"), "AGCO");
    EXPECT_EQ(body.get<std::string>("detected.model"), text);
    EXPECT_EQ(body.get<std::string>("manufacturerCode"), "102");
    expectEngine(body, steady("fuelLevel", 100));  // 250 × 0.4 from can1, not 50 × 0.4
    expectEngine(body, steady("defLevel", 50));    // 125 × 0.4 from can1, not 100 × 0.4
}

// Identification on a machine with every engine group at its usual rate; a record with every
// engine key, one of them changed partway; then a burst beyond the sample cap and the stop,
// whose last record carries it.
TEST(CanEndToEnd, AWholeMachineIsReportedAndTheStopDeliversTheLastRecord) {
    const std::int64_t periodMs = 1200;
    Service service(periodMs);
    Machine machine(service.peer, "can3", ecuName(213), patriotGroups());
    const auto ms = [](steady_clock::duration d) {
        return static_cast<double>(std::chrono::duration_cast<milliseconds>(d).count());
    };

    // Model known in record `identified`: the reader runs through the whole next interval.
    const int identified = service.waitForBody(holding({"detected.model"}), milliseconds(8000));
    ASSERT_GE(identified, 0);
    const steady_clock::time_point openedAfter = service.ice.calls()[identified].at;
    // Halfway through that interval engine speed goes from 1200 to 0x3200 = 12800 / 8 = 1600
    // and stays there, the last 0xF004 until the burst.
    std::this_thread::sleep_until(openedAfter + milliseconds(periodMs / 2));
    machine.pause(kEngineSpeedId);
    const steady_clock::time_point changedAt = steady_clock::now();
    service.peer.send("can3", kEngineSpeedId, engineSpeed(0x3200));
    service.sync("can3");
    const steady_clock::time_point seenAt = steady_clock::now();

    const int full = service.waitForBody([](const Tree&) { return true; },
                                         milliseconds(periodMs + 3000), identified + 1);
    ASSERT_GE(full, 0);
    const steady_clock::time_point closedBefore = service.ice.calls()[full].at;
    const Tree body = service.body(full);
    EXPECT_EQ(body.get<std::string>("detected.manufacturer"), "CaseIH");
    EXPECT_EQ(body.get<std::string>("detected.model"), "Patriot 2250 T4B");
    EXPECT_EQ(body.get<std::string>("manufacturerCode"), "213");
    EXPECT_EQ(body.get_child("engine").size(), std::size(kPatriotEngine) + 1);
    for (const Engine& engine : kPatriotEngine) {
        expectEngine(body, engine);
    }
    // Weighted by time, 1200 + 400 × (time at 1600) / (interval). The interval opened after
    // Ice had the record before, lasted a period and closed before Ice had this one; the 1600
    // frame went out at `changedAt` and was through by `seenAt`. ± 1 for whole milliseconds.
    const double rpm = body.get<double>("engine.rpm.avg");
    const double shortest = ms(openedAfter - seenAt) + periodMs - 1;
    const double longest = ms(closedBefore - changedAt) + 1;
    EXPECT_GE(rpm, 1200 + 400 * shortest / (ms(closedBefore - openedAfter) + 1));
    EXPECT_LE(rpm, 1200 + 400 * longest / periodMs);
    expectEngine(body, {"rpm", 1200, 1600, rpm, 1600});
    ASSERT_TRUE(service.waitForStatus(closedBefore));
    EXPECT_EQ(service.statusFrames().back(), std::string("ETS 2\0", 6));

    // The next interval is open once the status of this one is out. Engine speed
    // (6400 + i) / 8 for i = 1 to 10004: the interval keeps 10000 samples of a key, the first
    // of them the 1600 taken over from the interval before, and so 9999 of the burst.
    std::this_thread::sleep_for(milliseconds(50));
    for (int i = 1; i <= 10004; ++i) {
        service.peer.send("can3", kEngineSpeedId,
                          engineSpeed(static_cast<std::uint16_t>(6400 + i)));
    }
    service.sync("can3");
    service.stop();

    service.expectClosed(kChannels);
    const std::vector<icetest::Call> calls = service.ice.calls();
    ASSERT_EQ(calls.size(), static_cast<std::size_t>(full) + 2) << "the burst crossed a period";
    const Tree last = parse(calls.back().sPayload);
    // i = 1 to 9999: 6401 / 8 the lowest, 16399 / 8 the highest and latest. Should the loop
    // have been slow to open the interval, the first few frames count in none, and the 9999
    // kept start later: the cap shows in max - min all the same.
    const double lowest = last.get<double>("engine.rpm.min");
    EXPECT_GE(lowest, 6401 / 8.0);
    EXPECT_LE(lowest, 6405 / 8.0);
    const double highest = lowest + 9998 / 8.0;
    expectEngine(last, {"rpm", lowest, highest, last.get<double>("engine.rpm.avg"), highest});
    expectEngine(last, steady("percentLoadOfTotalTorque", 35));
    // The taken-over sample is no event of the interval.
    EXPECT_EQ(service.collector->collected().back().getInt("rpm.event_count"), 9999);
}

// A missing can2 leaves the service to run on can3: claim, identification and record.
TEST(CanEndToEnd, AChannelThatCannotBeOpenedLeavesTheOthersRunning) {
    Service service(300, {"can2"});
    Machine machine(service.peer, "can3", ecuName(1),
                    {{"can3", kEngineSpeedId, 20, engineSpeed(0x2580)}});
    const int record =
        service.waitForBody(holding({"manufacturerCode", "engine.rpm"}), milliseconds(8000));
    ASSERT_GE(record, 0);
    const Tree body = service.body(record);
    EXPECT_EQ(body.get<std::string>("manufacturerCode"), "1");
    EXPECT_FALSE(body.get_child_optional("detected"));  // an unknown maker
    expectEngine(body, steady("rpm", 1200));

    EXPECT_EQ(service.peer.opened(), 2);
    EXPECT_FALSE(service.peer.frames("can3", 0xEE00).empty());
    service.stop();
    service.expectClosed({"can3", "can1"});
}

// With no channel at all the loop goes on: an empty record and "ETS 0" every period.
TEST(CanEndToEnd, WithNoChannelOpenEveryPeriodStillDeliversAnEmptyRecord) {
    const std::int64_t periodMs = 200;
    Service service(periodMs, {"can2", "can3", "can1"});
    ASSERT_TRUE(apptest::eventually(
        [&] { return service.ice.calls().size() >= 3 && service.statusFrames().size() >= 2; },
        milliseconds(5000)));
    const std::vector<icetest::Call> calls = service.ice.calls();
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].sPayload, "{}");
        if (i > 0) {
            EXPECT_GE(calls[i].at - calls[i - 1].at, milliseconds(periodMs));
        }
    }
    for (const std::string& status : service.statusFrames()) {
        EXPECT_EQ(status, std::string("ETS 0\0", 6));
    }
    EXPECT_EQ(service.peer.opened(), 0);
}

}  // namespace
