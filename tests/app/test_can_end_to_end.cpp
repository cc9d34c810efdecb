// The whole service in-process: the real run function, CAN stack, state machine and sinks,
// with a machine on the CAN channels, a Thrift Ice server and a ZeroMQ subscriber on loopback.

#include <gtest/gtest.h>

#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "caninterface/peers.h"
#include "ice/ice_test_server.h"
#include "telemalog/sinks/collecting_sink.h"
#include "telematicsloop.h"

using cantest::Bytes;
using cantest::Clock;
using cantest::extendedId;
using std::chrono::milliseconds;
using Tree = boost::property_tree::ptree;

namespace {

const std::uint32_t kEngineSpeedId = extendedId(3, 0xF004, 0x00);

// 0xF004 from the engine controller, 0x00, with engine speed raw / 8 and torque 160 - 125.
Bytes engineSpeed(std::uint16_t raw) {
    return {0xFF, 0xFF, 160, static_cast<std::uint8_t>(raw), static_cast<std::uint8_t>(raw >> 8),
            0xFF, 0xFF, 0xFF};
}

// min, max, avg and cur of one engine key in a delivered body.
void expectEngine(const Tree& body, const std::string& key, std::vector<double> values) {
    for (const char* aggregate : {"min", "max", "avg", "cur"}) {
        EXPECT_DOUBLE_EQ(body.get<double>("engine." + key + "." + aggregate), values.at(0))
            << key << "." << aggregate;
        values.erase(values.begin(), values.begin() + (values.size() > 1 ? 1 : 0));
    }
}

// The run function on a thread, with a machine on can3 whose engine controller claims 0x00 as
// made by maker 1 and sends engine speed 1200 every 20 ms until paused; can2 cannot be opened.
// Its files are in a fresh directory; the stop signals are blocked before any thread starts.
struct Service {
    explicit Service(std::int64_t periodMs) {
        std::filesystem::create_directories(directory);
        std::ofstream(directory / "registration.conf") << "serial_number=70001\n";
        TelematicsConfig config;
        config.periodMs = periodMs;
        config.channelOpener = peers.opener();
        config.machineFilePath = (directory / "machine.json").string();
        config.detectedMachineFilePath = (directory / "detected.json").string();
        config.deviceRegistrationPath = (directory / "registration.conf").string();
        config.iceHost = "127.0.0.1";
        config.icePort = ice.port();
        config.zmqEndpoint = "tcp://127.0.0.1:" + std::to_string(icetest::freePort());
        config.extraSinks = {collector};
        loop = std::thread([config] { runTelematicsLoop(config); });
        EXPECT_TRUE(peers.attach(config.zmqEndpoint));
        machine = std::thread([this] {
            const Bytes name = cantest::littleEndian(0x2Aull | (1ull << 21) | (2ull << 60), 8);
            for (int turn = 0; !stopMachine; ++turn) {
                if (turn % 5 == 0) {
                    peers.send("can3", extendedId(6, 0xEE00, 0x00), name);
                }
                {
                    std::lock_guard<std::mutex> lock(sending);
                    if (!paused) {
                        peers.send("can3", kEngineSpeedId, engineSpeed(0x2580));
                    }
                }
                std::this_thread::sleep_for(milliseconds(20));
            }
        });
    }
    ~Service() {
        stopMachine = true;
        machine.join();
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
    // The first body delivered at Ice from call `from` on that holds `path`; its index, or -1.
    int waitForBody(const std::string& path, std::size_t from = 0) const {
        int found = -1;
        cantest::eventually([&] {
            for (std::size_t i = from; i < ice.calls().size() && found < 0; ++i) {
                found = body(i).get_child_optional(path) ? static_cast<int>(i) : -1;
            }
            return found >= 0;
        });
        return found;
    }
    Tree body(std::size_t index) const {
        std::istringstream in(ice.calls().at(index).sPayload);
        Tree tree;
        boost::property_tree::read_json(in, tree);
        return tree;
    }

    // Returns once every frame sent on can3 before it has been through the stack: the watcher
    // answers a request for address claim with its claim at the next update.
    void sync() {
        const std::size_t before = peers.frames("can3", 0xEE00).size();
        peers.send("can3", extendedId(6, 0xEA00, 0x00), {0x00, 0xEE, 0x00});
        ASSERT_TRUE(
            cantest::eventually([&] { return peers.frames("can3", 0xEE00).size() > before; }));
    }

    const bool signalsBlocked = (blockStopSignals(), true);
    const std::filesystem::path directory =
        std::filesystem::temp_directory_path() / ("tilthwatch-e2e-" + std::to_string(::getpid()));
    icetest::IceTestServer ice;
    cantest::Peers peers{{"can3", "can1"}};
    std::shared_ptr<nvsf::telemalog::CollectingSink> collector =
        std::make_shared<nvsf::telemalog::CollectingSink>();
    std::thread loop;
    std::mutex sending;
    bool paused = false;  // once set under `sending`, no frame of engine speed is on its way
    std::atomic<bool> stopMachine{false};
    std::thread machine;
};

// can2 keeps its place though it cannot be opened: the watchers claim on can3 alone, with the
// registered serial number. A record with engine speed changed partway; then a burst beyond
// the sample cap and the stop, whose last record carries it.
TEST(CanEndToEnd, AMachineIsReportedAndTheStopDeliversTheLastRecord) {
    const std::int64_t periodMs = 1200;
    Service service(periodMs);
    const int first = service.waitForBody("manufacturerCode");
    ASSERT_GE(first, 0);
    EXPECT_EQ(service.body(first).get<std::string>("manufacturerCode"), "1");
    // 70001 mod 65536 = 0x1171, manufacturer 151, function 28, industry group 2.
    EXPECT_EQ(service.peers.frames("can3", 0xEE00).at(0), "98EEFF25 7111E012001C00A0");
    EXPECT_TRUE(service.peers.frames("can1", 0xEE00).empty());

    // Halfway through the next interval engine speed goes from 1200 to 0x3200 / 8 = 1600 and
    // stays there, the last 0xF004 until the burst.
    const Clock::time_point openedAfter = service.ice.calls()[first].at;
    std::this_thread::sleep_until(openedAfter + milliseconds(periodMs / 2));
    {
        std::lock_guard<std::mutex> lock(service.sending);
        service.paused = true;
    }
    service.peers.send("can3", kEngineSpeedId, engineSpeed(0x3200));
    service.sync();
    const int full = service.waitForBody("engine.rpm", first + 1);
    ASSERT_GE(full, 0);
    const Clock::time_point closedBefore = service.ice.calls()[full].at;
    // Weighted by time, half the interval at each speed; the mean of the frames is about 1213.
    const Tree body = service.body(full);
    const double rpm = body.get<double>("engine.rpm.avg");
    EXPECT_NEAR(rpm, 1400, 100);
    expectEngine(body, "rpm", {1200, 1600, rpm, 1600});
    ASSERT_TRUE(cantest::eventually([&] {
        const std::vector<cantest::Published> published = service.peers.published();
        return !published.empty() && published.back().at > closedBefore;
    }));
    EXPECT_EQ(service.peers.published().back().bytes, std::string("ETS 2\0", 6));

    // The next interval is open once the status of this one is out. Engine speed
    // (6400 + i) / 8 for i = 1 to 10004: the interval keeps 10000 samples of a key, the first
    // of them the 1600 taken over from the interval before, and so 9999 of the burst.
    std::this_thread::sleep_for(milliseconds(50));
    for (int i = 1; i <= 10004; ++i) {
        service.peers.send("can3", kEngineSpeedId, engineSpeed(6400 + i));
    }
    service.sync();
    service.stop();
    EXPECT_TRUE(service.peers.closedByService("can3"));
    EXPECT_TRUE(service.peers.closedByService("can1"));
    const std::vector<icetest::Call> calls = service.ice.calls();
    ASSERT_EQ(calls.size(), static_cast<std::size_t>(full) + 2) << "the burst crossed a period";
    // i = 1 to 9999: 6401 / 8 the lowest, 16399 / 8 the highest and latest. Should the loop
    // have been slow to open the interval, the first few frames count in none, and the 9999
    // kept start later: the cap shows in max - min all the same.
    const Tree last = service.body(calls.size() - 1);
    const double lowest = last.get<double>("engine.rpm.min");
    EXPECT_GE(lowest, 6401 / 8.0);
    EXPECT_LE(lowest, 6405 / 8.0);
    const double highest = lowest + 9998 / 8.0;
    expectEngine(last, "rpm", {lowest, highest, last.get<double>("engine.rpm.avg"), highest});
    expectEngine(last, "percentLoadOfTotalTorque", {35});
    // The taken-over sample is no event of the interval.
    EXPECT_EQ(service.collector->collected().back().getInt("rpm.event_count"), 9999);
}

}  // namespace
