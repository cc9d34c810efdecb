#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "app/loopback.h"
#include "ice/ice_test_server.h"

extern char** environ;

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

// A child process that is killed if the test leaves before reaping it.
class Child {
public:
    explicit Child(std::vector<std::string> arguments) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    bool started() const { return pid_ > 0; }
    void signal(int number) { ::kill(pid_, number); }

    // Waits for the exit; false on timeout. `status` is the raw wait status.
    bool waitForExit(milliseconds timeout, int& status) {
        const auto deadline = steady_clock::now() + timeout;
        do {
            const pid_t done = ::waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                pid_ = -1;
                return true;
            }
            std::this_thread::sleep_for(milliseconds(5));
        } while (steady_clock::now() < deadline);
        return false;
    }

private:
    pid_t pid_ = -1;
};

bool canConnect(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool connected =
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return connected;
}

bool canBind(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return bound;
}

// The publisher is bound only after the stop signals are blocked: once it accepts, a signal
// can no longer end the process by its default action.
bool waitUntilListening(int port) {
    const auto deadline = steady_clock::now() + milliseconds(15000);
    while (!canConnect(port)) {
        if (steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
    return true;
}

// The stop budget: two seconds, plus one delivery on loopback.
const milliseconds kStopBudget(2000 + 1000);

class StopPath : public ::testing::TestWithParam<int> {};

TEST_P(StopPath, SignalDeliversTheOpenIntervalAndExitsWithZero) {
    icetest::IceTestServer ice;
    const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(apptest::freeLoopbackPort());
    apptest::FrameCollector subscriber(endpoint);
    // Long enough that no regular pass falls between the signal and the exit.
    Child daemon({TILTHWATCH_STOP_DAEMON, std::to_string(ice.port()), endpoint, "1000"});
    ASSERT_TRUE(daemon.started());

    // One regular record proves the loop runs and the subscriber is connected.
    ASSERT_TRUE(subscriber.waitForFrames(1, milliseconds(15000)));
    ASSERT_TRUE(ice.waitForCalls(1, milliseconds(5000)));
    const std::size_t callsBefore = ice.calls().size();
    const std::size_t framesBefore = subscriber.frames().size();

    const auto signalled = steady_clock::now();
    daemon.signal(GetParam());
    int status = 0;
    ASSERT_TRUE(daemon.waitForExit(kStopBudget, status));
    EXPECT_LT(steady_clock::now() - signalled, kStopBudget);
    ASSERT_TRUE(WIFEXITED(status)) << "raw status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);

    const std::vector<icetest::Call> calls = ice.calls();
    ASSERT_GE(calls.size(), callsBefore + 1);
    EXPECT_LE(calls.size(), callsBefore + 2);  // a pass under way when the signal came
    EXPECT_GT(calls.back().at, signalled);
    EXPECT_EQ(calls.back().sType, "machineTelematics");
    EXPECT_EQ(calls.back().sPayload, "{}");
    ASSERT_TRUE(subscriber.waitForFrames(framesBefore + 1, milliseconds(1000)));
    EXPECT_EQ(subscriber.frames().back().bytes, std::string("ETS 0\0", 6));
    EXPECT_GT(subscriber.frames().back().at, signalled);
}

INSTANTIATE_TEST_SUITE_P(Signals, StopPath, ::testing::Values(SIGTERM, SIGINT),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return info.param == SIGTERM ? "Sigterm" : "Sigint";
                         });

// The service itself, with its compiled-in peers: the Ice port is normally closed here, so the
// last delivery only logs errors.
TEST(Service, ExitsWithZeroOnSigterm) {
    const int zmqPort = 4499;
    if (!canBind(zmqPort) || canConnect(9090)) {
        GTEST_SKIP() << "the service's ports are in use on this machine";
    }
    Child service({TILTHWATCH_SERVICE});
    ASSERT_TRUE(service.started());
    ASSERT_TRUE(waitUntilListening(zmqPort));

    service.signal(SIGTERM);
    int status = 0;
    ASSERT_TRUE(service.waitForExit(kStopBudget, status));
    ASSERT_TRUE(WIFEXITED(status)) << "raw status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
