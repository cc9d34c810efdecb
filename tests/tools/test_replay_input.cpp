// What the replay tool does with bad input: malformed logs and bad options end it with status
// 2 and a message before anything is played, so the receiver gets no record, not even the one
// a stop delivers (or, for logs, those of a period of 1 ms); frames it cannot play are
// skipped with one warning.

#include <gtest/gtest.h>

#include <signal.h>

#include <filesystem>
#include <string>

#include <zmq.hpp>

#include "tools/replay_run.h"

using tooltest::ReplayRun;

namespace {

// Two good lines, as every malformed log below starts.
const std::string kGood =
    "(1700000000.000000) can2 0CF00400#F18A88781F00F0FF\n"
    "(1700000000.010000) can2 0CF00400#F18A88781F00F0FF\n";

// Each malformed log, and the message after "tilthwatch-replay: in.log". Paths are relative
// to the run's folder.
TEST(ReplayInput, BadLogOrOptionEndsWithStatus2AndAMessageAndNoRecord) {
    const std::string line3 = "(1700000000.020000) can2 18FEF100#";
    const std::string elf(
        "\x7F"
        "ELF\x02\x01\x01\x00\x00\x00\n",
        11);
    const std::pair<std::string, std::string> logs[] = {
        {kGood + line3 + "01G2\n", ":3: bad hex digit in data"},
        {kGood + line3 + "01", ":3: last line has no end of line (truncated)"},
        {kGood + "(1700000000.02\n", ":3: bad timestamp, expected \"(seconds.microseconds)\""},
        {kGood + elf, ":3: binary data, not a candump log line"},
        {kGood + std::string(5000, '\x01'), ":3: line too long"},
    };
    const std::string range = "--ice must be HOST:PORT with a port from 1 to 65535";
    const std::pair<std::vector<std::string>, std::string> options[] = {
        // A good first log does not help a bad second one.
        {{"--period-ms", "1", "good.log", "bad.log"},
         "bad.log:5: identifier must have 3 or 8 hex digits"},
        {{"missing.log"}, "missing.log: cannot open: No such file or directory"},
        {{"."}, ".: cannot read: Is a directory"},
        {{"--period-ms", "0", "good.log"}, "--period-ms must be at least 1"},
        {{"--period-ms", "soon", "good.log"},
         "the argument ('soon') for option '--period-ms' is invalid (see --help)"},
        {{"--records", "0", "good.log"}, "--records must be at least 1"},
        {{"--records", "-1", "good.log"}, "--records must be at least 1"},
        {{"--ice", "localhost", "good.log"}, range},
        {{"--ice", "localhost:65536", "good.log"}, range},
        {{"--zmq", "4499", "good.log"}, "--zmq must be an endpoint such as tcp://*:4499"},
        {{"--log-level", "loud", "good.log"},
         "the argument ('loud') for option '--log-level' is invalid (see --help)"},
        {{"--speed", "2", "good.log"}, "unrecognised option '--speed' (see --help)"},
        {{"--serial", "1\nserial_number=2", "good.log"}, "--serial must be one line"},
        {{}, "no log file given (see --help)"},
        {{"-", "-"}, "standard input \"-\" can be given once only"},
        {{"--transmitted", "none/sent.log", "good.log"},
         "none/sent.log: cannot write: No such file or directory"},
    };
    ReplayRun run;
    clitest::writeFile(run.path("good.log"), kGood);
    clitest::writeFile(run.path("bad.log"), kGood + kGood + "(1700000000.020000) can2 1#01\n");
    for (const auto& row : logs) {
        clitest::writeFile(run.path("in.log"), row.first);
        EXPECT_EQ(run.run({"--period-ms", "1", "in.log"}), 2) << row.second;
        EXPECT_EQ(run.err, "tilthwatch-replay: in.log" + row.second + "\n");
    }
    for (const auto& row : options) {
        EXPECT_EQ(run.run(row.first), 2) << row.second;
        EXPECT_EQ(run.err, "tilthwatch-replay: " + row.second + "\n");
    }
    EXPECT_TRUE(run.bodies().empty());
    // Standard input is read as it comes: a bad line there ends the replay, with status 2
    // though the service has been running.
    clitest::writeFile(run.path("in.log"),
                       kGood + "(1700000000.020000) can2 0CF00400#F18A8878\n" +
                           "(1700000000.030000) can2 0CF00400#F18A88781F00F0FF0000\n");
    EXPECT_EQ(run.run({"-"}, run.path("in.log")), 2);
    EXPECT_NE(run.err.find("tilthwatch-replay: standard input:4: more than 8 data bytes "
                           "(DLC over 8)\n"),
              std::string::npos)
        << run.err;
}

// Frames of an interface that is no channel, and error frames, are skipped with one warning
// each; the rest plays, a line ending in CR LF too, and the replay ends well.
TEST(ReplayInput, FramesItCannotPlayAreSkippedWithOneWarningEach) {
    ReplayRun run;
    const std::string log = run.path("mixed.log");
    clitest::writeFile(log,
                       "(1700000000.000000) vcan0 0CF00400#F18A88781F00F0FF\n"
                       "(1700000000.001000) can2 0CF00400#F18A88781F00F0FF\n"
                       "(1700000000.002000) vcan0 0CF00400#F18A88781F00F0FF\n"
                       "(1700000000.003000) can0 0CF00400#F18A88781F00F0FF\n"
                       "(1700000000.004000) can2 20000004#0000000000000000\n"
                       "(1700000000.005000) can3 20000004#0000000000000000\n"
                       "(1700000000.006000) can2 123#R\r\n");  // as written on Windows
    ASSERT_EQ(run.run({log}), 0) << run.err;
    const std::string prefix = "tilthwatch-replay: " + log;
    EXPECT_EQ(run.err, prefix + ":1: warning: frames of interface \"vcan0\" are skipped\n" +
                           prefix + ":4: warning: frames of interface \"can0\" are skipped\n" +
                           prefix +
                           ":5: warning: error frames are skipped: a raw CAN socket does not "
                           "receive them\n");
    EXPECT_EQ(run.bodies(), std::vector<std::string>{"{}"});
}

// Logs given together play as if recorded together: by their timestamps, not one after the
// other. The machine bus is the one whose engine speaks first.
TEST(ReplayInput, LogsAreMergedByTheirTimestamps) {
    ReplayRun run;
    clitest::writeFile(run.path("a.log"),
                       // The first frame played comes before the stack's first update.
                       "(1700000001.000000) can1 18FEFC80#FF64FFFFFFFFFFFF\n"
                       "(1700000001.100000) can2 0CF00400#F18A88781F00F0FF\n");
    clitest::writeFile(run.path("b.log"), "(1700000001.050000) can3 0CF00400#F18A88781F00F0FF\n");
    ASSERT_EQ(run.run({run.path("a.log"), run.path("b.log")}), 0) << run.err;
    EXPECT_NE(run.out.find("Setting default CAN bus to: MACHINE_500K"), std::string::npos)
        << run.out;
    EXPECT_EQ(run.out.find("MACHINE_250K"), std::string::npos) << run.out;
}

// A log may stamp any number of frames with one time: 256 of them fill a step of their own,
// and are played.
TEST(ReplayInput, AFullStepIsPlayed) {
    ReplayRun run;
    std::string log;
    for (int i = 0; i < 256; ++i) {
        log += "(1700000001.050000) can3 0CF00400#F18A88781F00F0FF\n";
    }
    clitest::writeFile(run.path("step.log"), log);
    ASSERT_EQ(run.run({run.path("step.log")}), 0) << run.err;
    EXPECT_NE(run.out.find("Setting default CAN bus to: MACHINE_500K"), std::string::npos)
        << run.out;
}

// A stop from outside before the last frame is no success; nor is a service that cannot
// start, here for its publisher's endpoint being taken.
TEST(ReplayInput, StoppedBeforeTheEndOrServiceFailedIsAFailure) {
    ReplayRun run;
    clitest::Process replay({tooltest::kReplay, "--zmq", "ipc://" + run.path("own"), "--ice",
                             "127.0.0.1:1", "--detected-file", run.path("detected.json"),
                             "--machine-file", run.path("machine.json"),
                             tooltest::kSamples + "/cummins-can3.log"});
    ASSERT_TRUE(replay.waitForOutput("Setting default CAN bus to", std::chrono::seconds(10)));
    replay.signal(SIGINT);
    EXPECT_EQ(replay.wait(), 1);
    EXPECT_NE(replay.err().find("tilthwatch-replay: stopped before the replay had ended"),
              std::string::npos)
        << replay.err();

    clitest::writeFile(run.path("good.log"), kGood);
    zmq::context_t context;
    zmq::socket_t taken(context, zmq::socket_type::pub);
    taken.bind("tcp://127.0.0.1:*");
    const std::string endpoint = taken.get(zmq::sockopt::last_endpoint);
    EXPECT_EQ(run.run({"--zmq", endpoint, run.path("good.log")}), 1);
    EXPECT_EQ(run.err, "tilthwatch-replay: the service failed: Address already in use\n");
    EXPECT_TRUE(run.bodies().empty());
}

// The committed samples are what the generator writes.
TEST(Samples, AreWhatTheGeneratorWrites) {
    clitest::TempDir dir;
    clitest::Process generator({TILTHWATCH_MAKE_SAMPLES, (dir / "").string()});
    ASSERT_EQ(clitest::run(generator), 0) << generator.err();
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(tooltest::kSamples)) {
        const std::string name = entry.path().filename().string();
        if (name != "README.md") {
            ++files;
            EXPECT_TRUE(clitest::readFile(entry.path()) == clitest::readFile(dir / name)) << name;
        }
    }
    EXPECT_EQ(files, 5u);
}

}  // namespace
