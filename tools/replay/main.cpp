// tilthwatch-replay: runs the whole service, the same run function, stack, state machine and
// sinks, with its CAN channels fed from candump logs.

#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <boost/program_options.hpp>

#include "commandlineparser.h"
#include "replay/candumplog.h"
#include "replay/channels.h"
#include "replay/player.h"
#include "replay/recordcountdown.h"
#include "replay/stopper.h"
#include "telemalog/sink.h"
#include "telematicsloop.h"
#include "thriftlogging.h"

namespace po = boost::program_options;

namespace {

const char* const kName = "tilthwatch-replay";
constexpr int kFailed = 1;
constexpr int kBadInput = 2;

const char* const kUsage =
    "Usage: tilthwatch-replay [options] LOG...\n"
    "\n"
    "Runs tilthwatch, the same run function, CAN stack, identification and sinks as the\n"
    "service, with the CAN channels can2, can3 and can1 fed from candump logs (the format of\n"
    "`candump -l` and `candump -L`) at their recorded pace. Several logs are merged by their\n"
    "timestamps; \"-\" reads standard input. Frames of other interfaces and error frames are\n"
    "skipped; remote frames are played as a CAN socket delivers them. After the last frame,\n"
    "the replay stops once --records records have been delivered, the last of them closed by\n"
    "the stop.\n"
    "\n"
    "Exit status: 0 after a clean stop; 1 when the service fails or is stopped from outside\n"
    "before the end; 2 for a bad option, an unreadable log or a malformed line.\n";

struct Options {
    std::vector<std::string> logs;
    TelematicsConfig config;
    std::string serial;
    bool hasSerial = false;
    std::string transmitted;
    std::uint64_t records = 1;
    norvanelogging::LogLevel level = norvanelogging::LogLevel::info;
};

int fail(int status, const std::string& message) {
    std::cerr << kName << ": " << message << std::endl;
    return status;
}

// "HOST:PORT", the host maybe in brackets.
bool parseEndpoint(const std::string& text, std::string& host, int& port) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size() ||
        colon + 6 < text.size()) {
        return false;
    }
    port = 0;
    for (std::size_t i = colon + 1; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
        port = port * 10 + (text[i] - '0');
    }
    host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return port >= 1 && port <= 65535;
}

// Gives -1 to go on, or the exit status.
int parseOptions(int argc, char** argv, Options& options) {
    std::int64_t periodMs = options.config.periodMs;
    std::int64_t records = 1;
    std::string ice = "localhost:9090";
    po::options_description visible("Options");
    visible.add_options()("help,h", "show this help")(
        "period-ms", po::value<std::int64_t>(&periodMs)->value_name("N")->default_value(periodMs),
        "telemetry period in milliseconds")(
        "ice", po::value<std::string>(&ice)->value_name("HOST:PORT")->default_value(ice),
        "the Ice service")("zmq",
                           po::value<std::string>(&options.config.zmqEndpoint)
                               ->value_name("ENDPOINT")
                               ->default_value(options.config.zmqEndpoint),
                           "endpoint the status publisher binds")(
        "machine-file",
        po::value<std::string>(&options.config.machineFilePath)
            ->value_name("PATH")
            ->default_value(options.config.machineFilePath),
        "the user's machine selection")(
        "detected-file",
        po::value<std::string>(&options.config.detectedMachineFilePath)
            ->value_name("PATH")
            ->default_value(options.config.detectedMachineFilePath),
        "where the detected machine is written")(
        "serial", po::value<std::string>(&options.serial)->value_name("TEXT"),
        "device serial number for the node's NAME (default: the device registration file)")(
        "transmitted", po::value<std::string>(&options.transmitted)->value_name("PATH"),
        "write every frame the system sends to PATH, as a candump log stamped with the wall "
        "clock")("records",
                 po::value<std::int64_t>(&records)->value_name("N")->default_value(records),
                 "records delivered after the last frame before the replay stops")(
        "log-level", po::value<norvanelogging::LogLevel>(&options.level)->value_name("LEVEL"),
        "console logging as the service's -l: trace, debug, info (default), warn, error, "
        "fatal or off");
    po::options_description all;
    all.add(visible).add_options()("log", po::value<std::vector<std::string>>(&options.logs));
    po::positional_options_description positional;
    positional.add("log", -1);

    po::variables_map map;
    try {
        po::store(po::command_line_parser(argc, argv).options(all).positional(positional).run(),
                  map);
        po::notify(map);
    } catch (const std::exception& e) {
        return fail(kBadInput, std::string(e.what()) + " (see --help)");
    }
    if (map.count("help") != 0) {
        std::cout << kUsage << "\n" << visible << std::endl;
        return 0;
    }
    if (options.logs.empty()) {
        return fail(kBadInput, "no log file given (see --help)");
    }
    if (std::count(options.logs.begin(), options.logs.end(), "-") > 1) {
        return fail(kBadInput, "standard input \"-\" can be given once only");
    }
    if (periodMs < 1) {
        return fail(kBadInput, "--period-ms must be at least 1");
    }
    if (records < 1) {
        return fail(kBadInput, "--records must be at least 1");
    }
    if (!parseEndpoint(ice, options.config.iceHost, options.config.icePort)) {
        return fail(kBadInput, "--ice must be HOST:PORT with a port from 1 to 65535");
    }
    // ZeroMQ judges the rest when it binds.
    const std::size_t scheme = options.config.zmqEndpoint.find("://");
    if (scheme == std::string::npos || scheme == 0 ||
        scheme + 3 == options.config.zmqEndpoint.size()) {
        return fail(kBadInput, "--zmq must be an endpoint such as tcp://*:4499");
    }
    options.hasSerial = map.count("serial") != 0;
    if (options.hasSerial && options.serial.find_first_of("\r\n") != std::string::npos) {
        return fail(kBadInput, "--serial must be one line");
    }
    options.config.periodMs = periodMs;
    options.records = static_cast<std::uint64_t>(records);
    return -1;
}

void configureLogging(norvanelogging::LogLevel level) {
    using norvanelogging::Appender;
    log4cplus::helpers::Properties properties =
        norvanelogging::commandLineLogProperties(level, {Appender::ConsoleAppender}, "");
    // The console alone: a file appender would be created even though nothing uses it.
    for (const std::string& key : properties.propertyNames()) {
        if (key.rfind("log4cplus.appender.FileAppender", 0) == 0) {
            properties.removeProperty(key);
        }
    }
    log4cplus::PropertyConfigurator(properties, log4cplus::Logger::getDefaultHierarchy())
        .configure();
}

// A registration file in memory that holds only the serial number.
std::string registrationWithSerial(const std::string& serial) {
    const int fd = ::memfd_create("registration", 0);
    const std::string text = "serial_number=" + serial + "\n";
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error(std::string("cannot hold the serial number: ") +
                                 std::strerror(errno));
    }
    // Open for the life of the process; the service reads the file on first use.
    return "/proc/self/fd/" + std::to_string(fd);
}

std::int64_t wallClockUs() {
    timeval now;
    ::gettimeofday(&now, nullptr);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

// Sees each record after the Ice and ZeroMQ sinks.
class HandOverSink : public nvsf::telemalog::Sink {
public:
    explicit HandOverSink(replay::RecordCountdown& countdown) : countdown_(countdown) {}
    void log(const nvsf::telemalog::ValueMap&) override { countdown_.handedOver(); }

private:
    replay::RecordCountdown& countdown_;
};

void stopRunLoop() {
    // Every thread blocks the signal; the run loop takes it between passes.
    ::kill(::getpid(), SIGTERM);
}

}  // namespace

int main(int argc, char** argv) {
    // Before any thread starts, so that only the run loop ever takes a stop signal.
    blockStopSignals();
    log4cplus::Initializer initializer;
    Options options;
    const int status = parseOptions(argc, argv, options);
    if (status >= 0) {
        return status;
    }
    configureLogging(options.level);
    routeThriftOutputToLog();

    replay::Stopper stopper;
    replay::Channels channels(options.config.channels, stopper);
    replay::FrameSelection selection(channels);
    // Whole files are checked first: nothing is played from a log that is not all valid.
    for (const std::string& log : options.logs) {
        if (log != "-") {
            const std::string error = replay::checkLog(log, selection);
            if (!error.empty()) {
                return fail(kBadInput, error);
            }
        }
    }
    std::ofstream transmitted;
    if (!options.transmitted.empty()) {
        transmitted.open(options.transmitted, std::ios::trunc);
        if (!transmitted) {
            return fail(kBadInput, options.transmitted + ": cannot write: " + std::strerror(errno));
        }
    }

    replay::RecordCountdown countdown(options.records, stopRunLoop);
    TelematicsConfig& config = options.config;
    config.channelOpener = channels.opener();
    config.extraSinks = {std::make_shared<HandOverSink>(countdown)};
    config.beforeClose = [&countdown] { countdown.closing(); };
    if (options.hasSerial) {
        config.deviceRegistrationPath = registrationWithSerial(options.serial);
    }

    replay::Player player(options.logs, channels, stopper, selection);
    // Named apart from the run loop's thread, so that per-thread figures tell the replay's own
    // work from the service's.
    std::thread playing([&] {
        ::pthread_setname_np(::pthread_self(), "replay-play");
        if (player.run()) {
            countdown.played();
        } else if (!player.error().empty()) {
            stopRunLoop();
        }
    });
    std::thread reading([&] {
        ::pthread_setname_np(::pthread_self(), "replay-read");
        channels.readSent([&](int channel, const can_frame& frame) {
            if (transmitted.is_open()) {
                transmitted << replay::formatLine(wallClockUs(), channels.name(channel), frame)
                            << '\n';
            }
        });
    });

    int result = 0;
    try {
        runTelematicsLoop(config);
    } catch (const std::exception& e) {
        result = fail(kFailed, std::string("the service failed: ") + e.what());
    }
    stopper.stop();
    playing.join();
    reading.join();

    if (transmitted.is_open()) {
        transmitted.close();
        if (!transmitted && result == 0) {
            result = fail(kFailed, options.transmitted + ": cannot write");
        }
    }
    if (!player.error().empty()) {
        return fail(kBadInput, player.error());
    }
    if (result == 0 && !countdown.stopped()) {
        result = fail(kFailed, "stopped before the replay had ended");
    }
    return result;
}
