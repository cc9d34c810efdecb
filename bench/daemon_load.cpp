// CPU the real daemon spends per second of a fully loaded machine: three buses at their
// physical limit, about 7,800 frames a second together (can3 at 500 kbit/s, can2 and can1 at
// 250 kbit/s), with an engine the daemon identifies and decodes. The binary runs unchanged
// with its raw CAN sockets faked by the preloaded library.
#include <benchmark/benchmark.h>
#include <linux/can.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tools/fake_can_interfaces.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// Full load per bus, frames per second: 8-byte extended frames take about 128 bits.
const struct {
    const char* name;
    double rate;
} kBuses[] = {{"can3", 3900}, {"can2", 1950}, {"can1", 1950}};

// User and system CPU seconds of a process so far.
double cpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) {
            utime = std::stoull(field);
        } else if (i == 15) {
            stime = std::stoull(field);
        }
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

void write(int fd, std::uint32_t id, const std::uint8_t (&data)[8]) {
    can_frame frame;
    std::memset(&frame, 0, sizeof(frame));
    frame.can_id = id;
    frame.can_dlc = 8;
    std::memcpy(frame.data, data, 8);
    if (::write(fd, &frame, sizeof(frame)) != sizeof(frame)) {
        std::abort();
    }
}

void BM_DaemonAtFullLoad(benchmark::State& state) {
    fakecan::FakeInterfaces interfaces({"can2", "can3", "can1"});
    std::vector<std::string> environment = {std::string("LD_PRELOAD=") + FAKE_SOCKETCAN_LIBRARY,
                                            "TILTHWATCH_FAKE_CAN_DIR=" + interfaces.directory()};
    for (char** variable = environ; *variable != nullptr; ++variable) {
        environment.emplace_back(*variable);
    }
    std::vector<char*> envp;
    for (std::string& variable : environment) {
        envp.push_back(&variable[0]);
    }
    envp.push_back(nullptr);
    std::string program = TILTHWATCH_SERVICE;
    char* argv[] = {&program[0], nullptr};
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv, envp.data()) != 0) {
        state.SkipWithError("cannot start the service");
        return;
    }
    std::map<std::string, int> ends = interfaces.accept(fakecan::milliseconds(15000));
    if (ends.size() != 3) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        state.SkipWithError("the service did not open its channels");
        return;
    }
    // Nothing reads what the service sends; a drain keeps its sockets from filling.
    std::atomic<bool> draining{true};
    std::thread drain([&] {
        char buffer[16];
        while (draining) {
            for (auto& end : ends) {
                while (::recv(end.second, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });

    // A Cummins engine claims on can3 and sends engine speed at 100 Hz; the rest of each bus
    // is other traffic the service filters out.
    const std::uint8_t cummins[8] = {1, 0, 0x40, 0x01, 0, 0, 0, 0x80};  // code 10 in bits 21-31
    write(ends["can3"], 0x98EEFF00u, cummins);
    const double seconds = static_cast<double>(state.range(0));
    double sent[3] = {};
    std::uint64_t frames = 0;
    const Clock::time_point start = Clock::now();
    const double cpuStart = cpuSeconds(pid);
    for (auto _ : state) {
        for (;;) {
            const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
            if (elapsed >= seconds) {
                break;
            }
            for (int bus = 0; bus < 3; ++bus) {
                while (sent[bus] < elapsed * kBuses[bus].rate) {
                    const auto n = static_cast<std::uint64_t>(sent[bus]);
                    std::uint8_t data[8] = {0xF0, 0x7D, 0x8C, 0, 0, 0xFF, 0xFF, 0xFF};
                    data[3] = static_cast<std::uint8_t>(n);
                    data[4] = static_cast<std::uint8_t>(0x10 + (n >> 8) % 0x20);
                    // Every 39th can3 frame is engine speed: 100 of its 3,900 a second.
                    const std::uint32_t id = bus == 0 && n % 39 == 0
                                                 ? 0x8CF00400u
                                                 : 0x98FF0000u | ((n % 16) << 8) | (0x10 + bus);
                    write(ends[kBuses[bus].name], id, data);
                    sent[bus] += 1;
                    ++frames;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    const double cpu = cpuSeconds(pid) - cpuStart;
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
    draining = false;
    drain.join();
    for (auto& end : ends) {
        ::close(end.second);
    }
    state.counters["frames_per_s"] = static_cast<double>(frames) / wall;
    state.counters["cpu_s_per_s"] = cpu / wall;
}
BENCHMARK(BM_DaemonAtFullLoad)->Arg(10)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
