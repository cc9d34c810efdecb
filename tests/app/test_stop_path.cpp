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
#include <vector>

#include "app/loopback.h"
#include "ice/ice_test_server.h"

extern char** environ;

using apptest::eventually;
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

    // True once the child exited within `timeout` with status 0.
    bool exitsWithZero(milliseconds timeout) {
        int status = 0;
        if (!eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout)) {
            return false;
        }
        pid_ = -1;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

private:
    pid_t pid_ = -1;
};

// Connects to, or binds, a TCP port on this machine; true on success.
bool tryPort(int port, bool connect) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(connect ? INADDR_LOOPBACK : INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const auto* raw = reinterpret_cast<sockaddr*>(&address);
    const bool ok =
        connect ? ::connect(fd, raw, sizeof address) == 0 : ::bind(fd, raw, sizeof address) == 0;
    ::close(fd);
    return ok;
}

// The stop budget: two seconds, plus one delivery on loopback.
const milliseconds kStopBudget(2000 + 1000);

class StopPath : public ::testing::TestWithParam<int> {};

TEST_P(StopPath, SignalDeliversTheOpenIntervalAndExitsWithZero) {
    icetest::IceTestServer ice;
    const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(icetest::freePort());
    apptest::FrameCollector subscriber(endpoint);
    // Long enough that no regular pass falls between the signal and the exit.
    Child daemon({TILTHWATCH_STOP_DAEMON, std::to_string(ice.port()), endpoint, "1000"});
    ASSERT_TRUE(daemon.started());

    // One regular record proves the loop runs and the subscriber is connected.
    ASSERT_TRUE(subscriber.waitForFrames(1, milliseconds(15000)));
    ASSERT_TRUE(eventually([&] { return !ice.calls().empty(); }, milliseconds(5000)));
    const std::size_t callsBefore = ice.calls().size();
    const std::size_t framesBefore = subscriber.frames().size();

    const auto signalled = steady_clock::now();
    daemon.signal(GetParam());
    ASSERT_TRUE(daemon.exitsWithZero(kStopBudget));
    EXPECT_LT(steady_clock::now() - signalled, kStopBudget);

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
// last delivery only logs errors. Its publisher is bound only after the stop signals are
// blocked, so once it accepts, a signal can no longer end it by the default action.
TEST(Service, ExitsWithZeroOnSigterm) {
    const int zmqPort = 4499;
    if (!tryPort(zmqPort, false) || tryPort(9090, true)) {
        GTEST_SKIP() << "the service's ports are in use on this machine";
    }
    Child service({TILTHWATCH_SERVICE});
    ASSERT_TRUE(service.started());
    ASSERT_TRUE(eventually([&] { return tryPort(zmqPort, true); }, milliseconds(15000)));

    service.signal(SIGTERM);
    EXPECT_TRUE(service.exitsWithZero(kStopBudget));
}

}  // namespace
