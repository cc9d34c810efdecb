// tilthwatch-soak: the whole service, through tilthwatch-replay, at full load on its three
// buses for a long time. Every second it samples the replay's resident memory and CPU; it
// fails when memory grows after the warm-up, when a record is missing, or when a record lacks
// the engine the traffic carries.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ice/ice_test_server.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// Full load per bus, frames per second: 8-byte extended frames take about 128 bits, so
// 500 kbit/s carries 3,900 and 250 kbit/s 1,950.
const struct {
    const char* name;
    int rate;
} kBuses[] = {{"can3", 3900}, {"can2", 1950}, {"can1", 1950}};

constexpr int kPeriodMs = 1000;
// Memory may settle during the warm-up; after it, this much growth fails the soak. glibc
// takes memory from the kernel in steps of 128 KiB and gives it back lazily.
constexpr long kGrowthLimitKb = 256;
constexpr long kRssLimitKb = 15 * 1024;

struct Options {
    std::string replay;
    int seconds = 600;
    int warmup = -1;
    std::string csv;
    std::string work = "/tmp";
};

struct Sample {
    double t;
    long rssKb;
    double cpu;  // seconds of the whole process so far
    std::map<std::string, double> threadCpu;
    std::size_t records;
};

double ticksToSeconds(unsigned long long ticks) {
    return static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// User plus system CPU seconds and the name of a process or thread, from its stat file.
bool readStat(const std::string& path, double& cpu, std::string& name) {
    std::ifstream stat(path);
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos) {
        return false;
    }
    name = text.substr(open + 1, close - open - 1);
    std::istringstream fields(text.substr(close + 2));
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
    cpu = ticksToSeconds(utime + stime);
    return true;
}

long rssKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

// CPU seconds per thread name; threads of one name are added up.
std::map<std::string, double> threadCpu(pid_t pid) {
    std::map<std::string, double> result;
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR* tasks = ::opendir(dir.c_str());
    if (tasks == nullptr) {
        return result;
    }
    while (dirent* entry = ::readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        double cpu = 0;
        std::string name;
        if (readStat(dir + "/" + entry->d_name + "/stat", cpu, name)) {
            result[name] += cpu;
        }
    }
    ::closedir(tasks);
    return result;
}

// Writes the traffic as a candump log: a Cummins engine on can3 with its standard groups, an
// address claim asked for by a terminal, the tractor's own traffic on can2, and on every bus
// enough other nodes' frames to fill it.
class Traffic {
public:
    explicit Traffic(int fd) : fd_(fd) {}

    // Frames of `seconds` of bus time, as fast as the reader takes them; it plays them at
    // their recorded pace.
    bool write(int seconds) {
        const std::int64_t endUs = static_cast<std::int64_t>(seconds) * 1000000;
        std::int64_t next[3] = {0, 0, 0};
        std::int64_t count[3] = {0, 0, 0};
        for (;;) {
            int bus = 0;
            for (int b = 1; b < 3; ++b) {
                if (next[b] < next[bus]) {
                    bus = b;
                }
            }
            const std::int64_t t = next[bus];
            if (t >= endUs) {
                break;
            }
            frame(bus, count[bus], t);
            ++count[bus];
            next[bus] = count[bus] * 1000000 / kBuses[bus].rate;
            if (out_.size() > 60000 && !flush()) {
                return false;
            }
        }
        frames_ = count[0] + count[1] + count[2];
        return flush();
    }
    std::int64_t frames() const { return frames_; }

private:
    // The n-th frame of a bus at `t` microseconds. The engine's groups take fixed slots of
    // can3's 3,900 frames a second; the rest is filler from other nodes.
    void frame(int bus, std::int64_t n, std::int64_t t) {
        const std::int64_t slot = n % kBuses[bus].rate;
        const std::int64_t second = n / kBuses[bus].rate;
        const auto byte = [](std::int64_t v) { return static_cast<unsigned>(v & 0xFF); };
        char data[40];
        std::uint32_t id = 0;
        if (bus == 0 && second == 0 && slot == 780) {  // 0.2 s: a terminal asks for claims
            line(t, bus, 0x18EAFF26u, "00EE00");
            return;
        }
        if (bus == 0 && second == 0 && slot == 790) {  // the engine's NAME: Cummins, code 10
            line(t, bus, 0x18EEFF00u, "C1A5430100000020");
            return;
        }
        if (bus == 0 && slot % 39 == 0) {  // engine speed, 100 Hz, 1200 to 1455 rpm
            const unsigned raw = 9600 + static_cast<unsigned>((n / 39) % 2048);
            std::snprintf(data, sizeof data, "F07D8C%02X%02X00F0FF", raw & 0xFF, raw >> 8);
            line(t, bus, 0x0CF00400u, data);
            return;
        }
        if (bus == 0 && slot % 390 == 1) {  // 10 Hz: load, fuel rate
            std::snprintf(data, sizeof data, "F0%02X0DFFFFFFFFFF", 20 + byte(second % 60));
            line(t, bus, 0x0CF00300u, data);
            return;
        }
        if (bus == 0 && slot % 390 == 2) {
            line(t, bus, 0x18FEF200u, "6600FFFFFFFFFFFF");
            return;
        }
        if (bus == 0 && slot == 3) {  // 1 Hz: temperatures, pressure, hours, fuel level
            line(t, bus, 0x18FEEE00u, "7E46802EFFFFFFFF");
            line(t, bus, 0x18FEEF00u, "FFFFFF51FFFFFFFF");
            line(t, bus, 0x18FEE500u, "FE610000FFFFFFFF");
            line(t, bus, 0x18FE5600u, "D23CFFFFFFFFFFFF");
            line(t, bus, 0x18FEF803u, "FFFFFFFF402BFFFF");
            line(t, bus, 0x18FEFC17u, "FFAFFFFFFFFFFFFF");
            return;
        }
        if (bus == 1 && slot % 195 == 0) {  // the tractor on can2, 10 Hz
            line(t, bus, 0x18FEF117u, "F3800800000000C0");
            return;
        }
        // Proprietary traffic of other nodes, which nothing here reads.
        id = 0x18FF0000u | static_cast<std::uint32_t>((n % 16) << 8) |
             static_cast<std::uint32_t>(0x30 + bus);
        std::snprintf(data, sizeof data, "%02X%02X%02X%02XFFFFFFFF", byte(n), byte(n >> 8),
                      byte(second), byte(bus));
        line(t, bus, id, data);
    }

    void line(std::int64_t t, int bus, std::uint32_t id, const char* data) {
        char text[96];
        const std::int64_t us = kStartUs + t;
        const int length =
            std::snprintf(text, sizeof text, "(%" PRId64 ".%06" PRId64 ") %s %08X#%s\n",
                          us / 1000000, us % 1000000, kBuses[bus].name, id, data);
        out_.append(text, static_cast<std::size_t>(length));
    }

    bool flush() {
        std::size_t done = 0;
        while (done < out_.size()) {
            const ssize_t n = ::write(fd_, out_.data() + done, out_.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(n);
        }
        out_.clear();
        return true;
    }

    static constexpr std::int64_t kStartUs = 1715338442000000;
    int fd_;
    std::string out_;
    std::int64_t frames_ = 0;
};

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--replay" && hasValue) {
            options.replay = argv[++i];
        } else if (arg == "--seconds" && hasValue) {
            options.seconds = std::atoi(argv[++i]);
        } else if (arg == "--warmup" && hasValue) {
            options.warmup = std::atoi(argv[++i]);
        } else if (arg == "--csv" && hasValue) {
            options.csv = argv[++i];
        } else if (arg == "--work" && hasValue) {
            options.work = argv[++i];
        } else {
            return false;
        }
    }
    if (options.warmup < 0) {
        // A minute, or a third of a short run.
        options.warmup = std::min(60, options.seconds / 3);
    }
    return !options.replay.empty() && options.seconds >= 10 && options.warmup < options.seconds - 5;
}

double mean(const std::vector<Sample>& samples, std::size_t from, std::size_t to) {
    double sum = 0;
    for (std::size_t i = from; i < to; ++i) {
        sum += static_cast<double>(samples[i].rssKb);
    }
    return sum / static_cast<double>(to - from);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::cerr << "Usage: tilthwatch-soak --replay PATH [--seconds N] [--warmup N] "
                     "[--csv FILE] [--work DIR]\n";
        return 2;
    }
    ::signal(SIGPIPE, SIG_IGN);

    icetest::IceTestServer ice;
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        std::perror("pipe");
        return 1;
    }
    ::fcntl(pipeFds[1], F_SETPIPE_SZ, 1 << 20);

    const std::string logPath = options.work + "/soak-replay.log";
    const std::string ice_ = "127.0.0.1:" + std::to_string(ice.port());
    const std::string zmq = "tcp://127.0.0.1:" + std::to_string(icetest::freePort());
    std::vector<std::string> args = {options.replay,
                                     "--period-ms",
                                     std::to_string(kPeriodMs),
                                     "--ice",
                                     ice_,
                                     "--zmq",
                                     zmq,
                                     "--machine-file",
                                     options.work + "/soak-machine.json",
                                     "--detected-file",
                                     options.work + "/soak-detected.json",
                                     "--serial",
                                     "SOAK0001",
                                     "-"};
    std::vector<char*> argvChild;
    for (std::string& a : args) {
        argvChild.push_back(&a[0]);
    }
    argvChild.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[0], 0);
    posix_spawn_file_actions_addopen(&actions, 1, logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    const int spawned =
        ::posix_spawn(&pid, argvChild[0], &actions, nullptr, argvChild.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[0]);
    if (spawned != 0) {
        std::cerr << "cannot start " << options.replay << ": " << std::strerror(spawned) << "\n";
        return 1;
    }

    std::atomic<bool> written{false};
    std::atomic<std::int64_t> frames{0};
    std::thread writer([&] {
        Traffic traffic(pipeFds[1]);
        written = traffic.write(options.seconds);
        frames = traffic.frames();
        ::close(pipeFds[1]);
    });

    std::vector<Sample> samples;
    const Clock::time_point start = Clock::now();
    int status = 0;
    for (int i = 1;; ++i) {
        std::this_thread::sleep_until(start + std::chrono::seconds(i));
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            break;
        }
        Sample s;
        s.t = std::chrono::duration<double>(Clock::now() - start).count();
        s.rssKb = rssKb(pid);
        std::string name;
        readStat("/proc/" + std::to_string(pid) + "/stat", s.cpu, name);
        s.threadCpu = threadCpu(pid);
        s.records = ice.calls().size();
        samples.push_back(s);
        if (i % 10 == 0) {
            std::printf("%5.0f s  RSS %6ld KiB  CPU %5.2f %% of a core  records %zu\n", s.t,
                        s.rssKb, 100.0 * (s.cpu - samples[samples.size() - 10].cpu) / 10.0,
                        s.records);
            std::fflush(stdout);
        }
        if (i > options.seconds + 60) {  // the replay should have stopped long ago
            ::kill(pid, SIGKILL);
        }
    }
    writer.join();

    std::vector<std::string> failures;
    if (!written) {
        failures.push_back("the replay stopped reading its input");
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        failures.push_back("the replay did not stop cleanly; see " + logPath);
    }

    // Records: one a period from the first on, none missing, each with the engine once the
    // machine is identified (within the first seconds).
    const std::vector<icetest::Call> calls = ice.calls();
    const auto periodGap = std::chrono::milliseconds(kPeriodMs * 3 / 2);
    std::size_t gaps = 0;
    std::size_t withoutEngine = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        if (i > 0 && calls[i].at - calls[i - 1].at > periodGap) {
            ++gaps;
        }
        const bool last = i + 1 == calls.size();  // closed by the stop, maybe after the traffic
        if (i >= 5 && !last && calls[i].sPayload.find("\"rpm\":{") == std::string::npos) {
            ++withoutEngine;
        }
    }
    if (calls.size() + 2 < static_cast<std::size_t>(options.seconds)) {
        failures.push_back("only " + std::to_string(calls.size()) + " records in " +
                           std::to_string(options.seconds) + " s");
    }
    if (gaps > 0) {
        failures.push_back(std::to_string(gaps) + " gaps of more than 1.5 periods between records");
    }
    if (withoutEngine > 0) {
        failures.push_back(std::to_string(withoutEngine) + " records without engine speed");
    }

    // Memory: flat after the warm-up, and small.
    std::size_t first = 0;
    while (first < samples.size() && samples[first].t < options.warmup) {
        ++first;
    }
    long peak = 0;
    for (const Sample& s : samples) {
        peak = std::max(peak, s.rssKb);
    }
    double growth = 0;
    if (samples.size() >= first + 10) {
        const std::size_t window = std::max<std::size_t>(5, (samples.size() - first) / 10);
        growth = mean(samples, samples.size() - window, samples.size()) -
                 mean(samples, first, first + window);
        long after = 0;
        for (std::size_t i = first; i < samples.size(); ++i) {
            after = std::max(after, samples[i].rssKb);
        }
        if (growth > kGrowthLimitKb || after - samples[first].rssKb > 2 * kGrowthLimitKb) {
            failures.push_back("memory grew after the warm-up: " +
                               std::to_string(static_cast<long>(growth)) + " KiB on average, " +
                               std::to_string(after - samples[first].rssKb) + " KiB at most");
        }
    } else {
        failures.push_back("too few samples after the warm-up");
    }
    if (peak > kRssLimitKb) {
        failures.push_back("resident memory reached " + std::to_string(peak) + " KiB");
    }

    // CPU over the whole loaded run, per process and per thread.
    if (!samples.empty()) {
        const Sample& a = samples.front();
        const Sample& b = samples.back();
        const double wall = b.t - a.t;
        std::printf("\nframes written %" PRId64 " (%.0f a second), records %zu\n",
                    static_cast<std::int64_t>(frames),
                    static_cast<double>(frames) / options.seconds, calls.size());
        std::printf(
            "RSS after warm-up %ld KiB, at the end %ld KiB, peak %ld KiB, growth %.0f KiB\n",
            first < samples.size() ? samples[first].rssKb : -1, b.rssKb, peak, growth);
        std::printf("CPU of the replay process: %.2f %% of one core\n",
                    100.0 * (b.cpu - a.cpu) / wall);
        // The replay's own threads read and pace the log; all others are the service's.
        double service = 0;
        for (const auto& thread : b.threadCpu) {
            const auto was = a.threadCpu.find(thread.first);
            const double before = was == a.threadCpu.end() ? 0.0 : was->second;
            const double share = 100.0 * (thread.second - before) / wall;
            std::printf("  thread %-16s %.2f %%\n", thread.first.c_str(), share);
            if (thread.first.rfind("replay-", 0) != 0) {
                service += share;
            }
        }
        std::printf("CPU of the service's threads: %.2f %% of one core\n", service);
    }
    if (!options.csv.empty()) {
        std::ofstream csv(options.csv);
        csv << "seconds,rss_kib,cpu_s,records\n";
        for (const Sample& s : samples) {
            csv << s.t << "," << s.rssKb << "," << s.cpu << "," << s.records << "\n";
        }
    }

    for (const std::string& failure : failures) {
        std::printf("FAIL: %s\n", failure.c_str());
    }
    std::printf("%s\n", failures.empty() ? "soak passed" : "soak failed");
    return failures.empty() ? 0 : 1;
}
