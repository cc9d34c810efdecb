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
const std::string kSamples = TILTHWATCH_SAMPLES;

inline Tree parseJson(const std::string& text) {
    std::istringstream in(text);
    Tree tree;
    boost::property_tree::read_json(in, tree);
    return tree;
}

// The lines of `text` that start with `prefix`, without it.
inline std::vector<std::string> lines(const std::string& text, const std::string& prefix = "") {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            result.push_back(line.substr(prefix.size()));
        }
    }
    return result;
}

template <typename Predicate>
bool eventually(Predicate done, milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(milliseconds(5));
    }
    return done();
}

// The Ice receiver on a free loopback port, with `options`; sets the port it listens on.
inline std::unique_ptr<clitest::Process> startReceiver(std::vector<std::string> options,
                                                       int& port) {
    options.insert(options.begin(),
                   {TILTHWATCH_ICE_RECEIVER, "--host", "127.0.0.1", "--port", "0"});
    auto receiver = std::make_unique<clitest::Process>(options);
    const std::string marker = "listening on 127.0.0.1:";
    EXPECT_TRUE(eventually([&] { return receiver->err().find(marker) != std::string::npos; },
                           milliseconds(10000)));
    const std::string err = receiver->err();
    port = std::atoi(err.c_str() + err.find(marker) + marker.size());
    return receiver;
}

// The receiver, subscribed to the replay's status publisher, and the replay run to its end in
// a fresh folder.
class ReplayRun {
public:
    ReplayRun() : receiver_(startReceiver({"--status", "ipc://" + path("status")}, port_)) {
        clitest::writeFile(dir_ / "machine.json", "{}");
    }
    ~ReplayRun() { receiver_->signal(SIGTERM); }

    std::string path(const std::string& name) const { return (dir_ / name).string(); }

    // Runs the replay in the folder with `options` and the common ones it does not give, its
    // standard input from the file `input` if given; gives the exit status.
    int run(std::vector<std::string> options, const std::string& input = "") {
        const std::vector<std::string> common = {
            "--ice",           "127.0.0.1:" + std::to_string(port_),
            "--zmq",           "ipc://" + path("status"),
            "--detected-file", path("detected.json"),
            "--period-ms",     "600000",
            "--machine-file",  path("machine.json")};
        for (std::size_t i = 0; i < common.size(); i += 2) {
            if (std::find(options.begin(), options.end(), common[i]) == options.end()) {
                options.insert(options.begin(), {common[i], common[i + 1]});
            }
        }
        std::string command = "cd '" + path("") + "' && exec '" + kReplay + "'";
        for (const std::string& word : options) {
            command += " '" + word + "'";
        }
        clitest::Process replay(
            {"/bin/sh", "-c", command + (input.empty() ? "" : " < '" + input + "'")});
        const int status = replay.wait(milliseconds(90000));
        out = replay.out();
        err = replay.err();
        // Status frames follow each delivery to Ice; wait for the last to arrive.
        eventually([&] { return statusLines().size() >= bodies().size(); }, milliseconds(5000));
        return status;
    }

    // What the receiver printed for each record, and for each status frame.
    std::vector<std::string> bodies() const {
        return lines(receiver_->out(), "machineTelematics ");
    }
    std::vector<std::string> statusLines() const { return lines(receiver_->out(), "STATUS "); }

    std::string out;  // the replay's console log
    std::string err;

private:
    clitest::TempDir dir_;
    int port_ = 0;
    std::unique_ptr<clitest::Process> receiver_;
};

}  // namespace tooltest
