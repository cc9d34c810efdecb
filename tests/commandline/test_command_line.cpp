#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <boost/version.hpp>

#include "commandline/process.h"

using clitest::Process;
using clitest::readFile;
using clitest::TempDir;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

// The help text with its line wrapping folded away.
const std::string kHelp =
    "Allowed options: -h [ --help ] Produce help message. -v [ --version ] Print version "
    "informating and exit. -a [ --appender ] (file|console) (=file console) Specify multipe "
    "times, e.g. \"-a file -a console\". The appenders to use when log-level is set. If none are "
    "specified, the default will be all appenders. Note: this will have no effect unless the "
    "log-level is set via command line. -l [ --log-level ] "
    "(trace|debug|info|warn|error|fatal|off) When loging level is set from the command line, "
    "logging configuration file is ignored. Choices are listed from most verbose to least "
    "verbose.";
const std::string kNoGit = "unknown \\(built without git\\)";
const std::string kRevision = TILTHWATCH_HAS_GIT ? "[0-9a-f]{40}" : kNoGit;
const std::string kBuildTime = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}UTC";

std::string foldSpace(const std::string& text) {
    std::istringstream words(text);
    std::string folded;
    for (std::string word; words >> word;) {
        folded += (folded.empty() ? "" : " ") + word;
    }
    return folded;
}

// Help beats version; on a bad command line nothing is logged and nothing started: the error
// line and the description are all there is.
TEST(ServiceCommandLine, HelpVersionAndErrorsWithTheirExitStatus) {
    const std::string version = "Branch [^\n]+\nVersion " + kRevision + "\nBuild time " +
                                kBuildTime + "\nBoost version " +
                                std::to_string(BOOST_VERSION / 100000) + "\\." +
                                std::to_string(BOOST_VERSION / 100 % 1000) + "\\." +
                                std::to_string(BOOST_VERSION % 100) + "\n";
    // The options, then "help", "version" or the parser's complaint.
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        // clang-format off
        {{"-h"}, "help"}, {{"--help"}, "help"}, {{"-h", "-v"}, "help"},
        {{"--version", "--help"}, "help"}, {{"-l", "debug", "-h"}, "help"},
        {{"-v"}, "version"}, {{"--version"}, "version"},
        {{"-v", "-l", "info", "-a", "console"}, "version"},
        {{"--bogus"}, "unrecognised option '--bogus'"},
        {{"-l", "verbose"}, "the argument ('verbose') for option '--log-level' is invalid"},
        {{"-l", "information"}, "the argument ('information') for option '--log-level' is invalid"},
        {{"-l", "info", "-l", "debug"}, "option '--log-level' cannot be specified more than once"},
        {{"-a", "files", "-l", "info"}, "the argument ('files') for option '--appender' is invalid"},
        {{"-l"}, "the required argument for option '--log-level' is missing"},
        {{"-h", "--bogus"}, "unrecognised option '--bogus'"},
        // clang-format on
    };
    std::string help;  // as printed, with its wrapping
    for (const auto& row : rows) {
        SCOPED_TRACE(row.first.front() + " " + row.first.back());
        std::vector<std::string> command = row.first;
        command.insert(command.begin(), TILTHWATCH_SERVICE);
        Process process(command);
        const bool bad = row.second != "help" && row.second != "version";
        ASSERT_EQ(process.wait(), bad ? 1 : 0);
        if (row.second == "help") {
            help = process.out();
            EXPECT_EQ(foldSpace(help), kHelp);
            EXPECT_TRUE(!help.empty() && help.back() == '\n');
        } else {
            EXPECT_TRUE(std::regex_match(process.out(), std::regex(bad ? "" : version)))
                << process.out();
        }
        EXPECT_EQ(process.err(),
                  bad ? "Failed to parse commandline arguments: " + row.second + "\n" + help : "");
    }
}

// The stamp script writes the revision of the tree itself only; any other tree says it had none.
TEST(VersionStamp, RevisionOnlyFromTheTreesOwnGit) {
    TempDir dir;
    std::filesystem::create_directories(dir / "tree");
    const std::pair<std::string, std::string> rows[] = {
        {dir / "tree", kNoGit},
        {TILTHWATCH_SOURCE_DIR "/cmake", kNoGit},  // inside the repository, not its top
        {TILTHWATCH_SOURCE_DIR, kRevision},
    };
    for (const auto& row : rows) {
        const std::string output = dir / "buildversion.cpp";
        Process stamp({TILTHWATCH_CMAKE, "-DSOURCE_DIR=" + row.first,
                       "-DTEMPLATE=" TILTHWATCH_SOURCE_DIR "/cmake/buildversion.cpp.in",
                       "-DOUTPUT_FILE=" + output, "-P",
                       TILTHWATCH_SOURCE_DIR "/cmake/GenerateVersion.cmake"});
        ASSERT_EQ(stamp.wait(), 0) << stamp.err();
        const std::string text = readFile(output);
        SCOPED_TRACE(row.first + "\n" + text);
        EXPECT_TRUE(std::regex_search(text, std::regex("revision = \"" + row.second + "\";")));
        EXPECT_TRUE(std::regex_search(text, std::regex("buildTime = \"" + kBuildTime + "\";")));
        EXPECT_EQ(text.find("branch = \"unknown\";") != std::string::npos, row.second == kNoGit);
    }
}

// A configuration file whose lines are told apart by `marker`.
std::string config(const TempDir& dir, const std::string& marker, const std::string& level) {
    return "log4cplus.rootLogger=" + level +
           ", Out\nlog4cplus.appender.Out=log4cplus::FileAppender\nlog4cplus.appender.Out.File=" +
           (dir / (marker + ".log")).string() +
           "\nlog4cplus.appender.Out.layout=log4cplus::PatternLayout\n"
           "log4cplus.appender.Out.layout.ConversionPattern=" +
           marker + " %p %c: %m%n\n";
}

// The same set-up in a driver with its own files, which reports the root logger.
std::vector<std::string> driver(const TempDir& dir, const std::string& mode,
                                std::vector<std::string> options) {
    options.insert(options.begin(), {TILTHWATCH_LOGGING_DRIVER, dir / "installed.ini",
                                     dir / "fallback.ini", dir / "commandline.log", mode});
    return options;
}

// A level on the command line beats both files, with the appenders it names; without one the
// installed file beats the fallback, whatever -a says.
TEST(LoggingDriver, LevelAndAppendersElseTheFirstFileThatExists) {
    const std::string all = ", FileAppender, ConsoleAppender";
    const struct {
        std::string files;  // those that exist
        std::vector<std::string> options;
        std::string root;
        std::string used;  // marker of the file that logs
    } rows[] = {
        // clang-format off
        {"installed fallback", {"-l", "DEBUG"}, "DEBUG" + all, ""},
        {"installed fallback", {"-l", "info", "-a", "console"}, "INFO, ConsoleAppender", ""},
        {"installed fallback", {"-l", "off"}, "OFF" + all, ""},
        {"installed fallback", {"--log-level", "Warning", "-a", "term", "--appender", "FILE"},
         "WARN, ConsoleAppender, FileAppender", ""},
        {"installed fallback", {"-l", "trace", "-a", "fileappender"}, "TRACE, FileAppender", ""},
        {"installed fallback", {"-l", "none", "-a", "stdout"}, "OFF, ConsoleAppender", ""},
        // Every other accepted word, in any case.
        {"", {"-l", "warn", "-a", "consoleappender"}, "WARN, ConsoleAppender", ""},
        {"", {"-l", "Error", "-a", "file"}, "ERROR, FileAppender", ""},
        {"", {"-l", "ERR"}, "ERROR" + all, ""}, {"", {"-l", "fatal"}, "FATAL" + all, ""},
        {"", {"-l", "Critical"}, "FATAL" + all, ""}, {"", {"-l", "disabled"}, "OFF" + all, ""},
        {"installed fallback", {}, "INFO, Out", "installed"},
        {"fallback", {}, "INFO, Out", "fallback"}, {"installed", {}, "INFO, Out", "installed"},
        {"installed fallback", {"-a", "console"}, "INFO, Out", "installed"},
        {"fallback", {"-a", "file", "-a", "console"}, "INFO, Out", "fallback"},
        {"", {}, "DEBUG", ""},  // a missing fallback is log4cplus's to report; the process goes on
        // clang-format on
    };
    const std::string branch = "[INFO] [tilthwatch.commandlineparser]: Branch ";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.root + " from " + row.used);
        TempDir dir;
        for (const std::string marker : {"installed", "fallback"}) {
            if (row.files.find(marker) != std::string::npos) {
                clitest::writeFile(dir / (marker + ".ini"), config(dir, marker, "INFO"));
            }
        }
        Process process(driver(dir, "report", row.options));
        ASSERT_EQ(process.wait(), 0) << process.err();
        EXPECT_THAT(process.out(), HasSubstr("root: " + row.root + "\n"));
        // The version lines at INFO, where the level and the appenders let them through.
        const bool info = std::regex_search(row.root, std::regex("^(TRACE|DEBUG|INFO)"));
        EXPECT_EQ(process.out().find(branch) != std::string::npos,
                  info && row.root.find("ConsoleAppender") != std::string::npos);
        EXPECT_EQ(readFile(dir / "commandline.log").find(branch) != std::string::npos,
                  info && row.root.find("FileAppender") != std::string::npos);
        for (const std::string marker : {"installed", "fallback"}) {
            const std::string text = readFile(dir / (marker + ".log"));
            const std::string line = marker + " INFO tilthwatch.commandlineparser: ";
            EXPECT_EQ(text.find(line + "Branch ") != std::string::npos, marker == row.used);
            EXPECT_EQ(text.find(line + "Boost version ") != std::string::npos, marker == row.used);
        }
    }
}

// The file is read once at start-up; an edit later is never picked up.
TEST(LoggingDriver, AFileChangedAfterStartUpDoesNotTakeEffect) {
    TempDir dir;
    clitest::writeFile(dir / "installed.ini", config(dir, "installed", "INFO"));
    Process process(driver(dir, "hold", {}));
    ASSERT_TRUE(process.waitForOutput("root: INFO, Out\n", std::chrono::seconds(20)));
    clitest::writeFile(dir / "installed.ini",
                       config(dir, "edited", "WARN") + "# a longer file than before\n");
    ASSERT_EQ(process.wait(), 0);
    EXPECT_THAT(readFile(dir / "installed.log"),
                HasSubstr("installed INFO tilthwatch.driver: after the edit\n"));
    EXPECT_FALSE(std::filesystem::exists(dir / "edited.log"));
}

// True if the port takes a connection on loopback (connect) or can be bound (not connect).
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

// The service itself on the console: who it is, that it starts, and Thrift's own complaint
// about the closed Ice port as a log line of its own on the last delivery.
TEST(ServiceLogging, IdentifiesItselfStartsAndLogsThriftMessages) {
    if (!tryPort(4499, false) || tryPort(9090, true)) {
        GTEST_SKIP() << "the service's ports are in use on this machine";
    }
    Process process({TILTHWATCH_SERVICE, "-l", "info", "-a", "console"});
    ASSERT_TRUE(process.waitForOutput("Starting tilthwatch application", std::chrono::seconds(20)));
    process.signal(SIGTERM);
    ASSERT_EQ(process.wait(), 0) << process.err();
    const std::string out = process.out();
    std::size_t at = 0;
    for (const std::string text :
         {"[INFO] [tilthwatch.commandlineparser]: Boost version ",
          "[INFO] [tilthwatch.main]: Starting tilthwatch application",
          "[WARN] [tilthwatch.thrift]: TSocket::open() ", "Connection refused"}) {
        at = out.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << "\n" << out;
    }
    EXPECT_THAT(process.err(), Not(HasSubstr("Thrift:")));
    EXPECT_THAT(process.err(), Not(HasSubstr("No appenders could be found")));
}

}  // namespace
