#pragma once

// Runs the replay tool against the Ice receiver, both as the programs that are installed, and
// collects what the receiver printed.

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "commandline/process.h"

namespace tooltest {

using Tree = boost::property_tree::ptree;
using std::chrono::milliseconds;

const std::string kReplay = TILTHWATCH_REPLAY;
const std::string kReceiver = TILTHWATCH_ICE_RECEIVER;
const std::string kSamples = TILTHWATCH_SAMPLES;

inline Tree parseJson(const std::string& text) {
    std::istringstream in(text);
    Tree tree;
    boost::property_tree::read_json(in, tree);
    return tree;
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        result.push_back(line);
    }
    return result;
}

template <typename Predicate>
bool eventually(Predicate done, milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(5));
    }
    return true;
}

// The receiver on a free loopback port, subscribed to the replay's status publisher, and the
// replay run to its end. Files live in a fresh folder.
class ReplayRun {
public:
    ReplayRun() {
        clitest::writeFile(dir_ / "machine.json", "{}");
        receiver_ = std::make_unique<clitest::Process>(std::vector<std::string>{
            kReceiver, "--host", "127.0.0.1", "--port", "0", "--status", statusEndpoint()});
        const std::string marker = "listening on 127.0.0.1:";
        EXPECT_TRUE(eventually([&] { return receiver_->err().find(marker) != std::string::npos; },
                               milliseconds(10000)))
            << receiver_->err();
        const std::string err = receiver_->err();
        port_ = std::atoi(err.c_str() + err.find(marker) + marker.size());
    }
    ~ReplayRun() {
        if (receiver_) {
            receiver_->signal(SIGTERM);
        }
    }

    std::string path(const std::string& name) const { return (dir_ / name).string(); }

    // Runs the replay with `options` and the logs, and the common options unless given; with
    // `input`, its standard input comes from that file. Gives the exit status.
    int run(std::vector<std::string> options, const std::string& input = "",
            milliseconds timeout = milliseconds(90000)) {
        const auto given = [&](const std::string& name) {
            return std::find(options.begin(), options.end(), name) != options.end();
        };
        std::vector<std::string> common = {"--ice",           "127.0.0.1:" + std::to_string(port_),
                                           "--zmq",           statusEndpoint(),
                                           "--detected-file", path("detected.json"),
                                           "--period-ms",     "600000"};
        if (!given("--machine-file")) {
            common.insert(common.end(), {"--machine-file", path("machine.json")});
        }
        for (std::size_t i = 0; i < common.size(); i += 2) {
            if (!given(common[i])) {
                options.insert(options.begin(), {common[i], common[i + 1]});
            }
        }
        options.insert(options.begin(), kReplay);
        if (!input.empty()) {
            std::string command = "exec";
            for (const std::string& word : options) {
                command += " '" + word + "'";
            }
            options = {"/bin/sh", "-c", command + " < '" + input + "'"};
        }
        clitest::Process replay(options);
        const int status = replay.wait(timeout);
        out = replay.out();
        err = replay.err();
        // Status frames follow each delivery to Ice; wait for the last to arrive.
        eventually([&] { return statusLines().size() >= bodies().size(); }, milliseconds(5000));
        return status;
    }

    // Every "TYPE JSON" line the receiver printed, as the JSON text.
    std::vector<std::string> bodies() const {
        std::vector<std::string> result;
        for (const std::string& line : lines(receiver_->out())) {
            const std::string prefix = "machineTelematics ";
            if (line.compare(0, prefix.size(), prefix) == 0) {
                result.push_back(line.substr(prefix.size()));
            }
        }
        return result;
    }
    std::vector<std::string> statusLines() const {
        std::vector<std::string> result;
        for (const std::string& line : lines(receiver_->out())) {
            if (line.compare(0, 7, "STATUS ") == 0) {
                result.push_back(line.substr(7));
            }
        }
        return result;
    }

    std::string out;  // the replay's console log
    std::string err;

private:
    std::string statusEndpoint() const { return "ipc://" + path("status"); }

    clitest::TempDir dir_;
    std::unique_ptr<clitest::Process> receiver_;
    int port_ = 0;
};

}  // namespace tooltest
