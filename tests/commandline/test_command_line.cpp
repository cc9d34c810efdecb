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
using clitest::writeFile;
using std::chrono::milliseconds;
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

std::string foldSpace(const std::string& text) {
    std::istringstream words(text);
    std::string word;
    std::string folded;
    while (words >> word) {
        folded += (folded.empty() ? "" : " ") + word;
    }
    return folded;
}

std::vector<std::string> service(std::vector<std::string> options) {
    options.insert(options.begin(), TILTHWATCH_SERVICE);
    return options;
}

std::string helpText() {
    Process help(service({"--help"}));
    EXPECT_EQ(clitest::run(help), 0);
    return help.out();
}

TEST(ServiceHelp, PrintsTheDescriptionAndExitsWithZero) {
    const std::vector<std::vector<std::string>> commandLines = {
        {"-h"}, {"--help"}, {"-h", "-v"}, {"--version", "--help"}, {"-l", "debug", "-h"}};
    for (const auto& options : commandLines) {
        Process help(service(options));
        ASSERT_EQ(clitest::run(help), 0) << options[0];
        EXPECT_EQ(foldSpace(help.out()), kHelp) << options[0];
        EXPECT_EQ(help.out().back(), '\n');
        EXPECT_EQ(help.err(), "") << options[0];
    }
}

TEST(ServiceVersion, PrintsFourLinesAndExitsWithZero) {
    const std::string revision =
#if TILTHWATCH_HAS_GIT
        "[0-9a-f]{40}";
#else
        "unknown \\(built without git\\)";
#endif
    const std::string boost = std::to_string(BOOST_VERSION / 100000) + "\\." +
                              std::to_string(BOOST_VERSION / 100 % 1000) + "\\." +
                              std::to_string(BOOST_VERSION % 100);
    const std::regex lines("Branch [^\n]+\nVersion " + revision +
                           "\nBuild time [0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}"
                           "UTC\nBoost version " +
                           boost + "\n");
    for (const auto& options : std::vector<std::vector<std::string>>{
             {"-v"}, {"--version"}, {"-v", "-l", "info", "-a", "console"}}) {
        Process version(service(options));
        ASSERT_EQ(clitest::run(version), 0);
        EXPECT_TRUE(std::regex_match(version.out(), lines)) << version.out();
        EXPECT_EQ(version.err(), "");
    }
}

// Nothing is logged and nothing started: the error line and the description are all there is.
TEST(ServiceBadCommandLine, PrintsTheErrorAndDescriptionAndExitsWithOne) {
    struct Case {
        std::vector<std::string> options;
        std::string error;
    };
    const std::vector<Case> cases = {
        {{"--bogus"}, "unrecognised option '--bogus'"},
        {{"-l", "verbose"}, "the argument ('verbose') for option '--log-level' is invalid"},
        {{"-l", "info", "-l", "debug"}, "option '--log-level' cannot be specified more than once"},
        {{"-a", "printer", "-l", "info"},
         "the argument ('printer') for option '--appender' is invalid"},
        {{"-l"}, "the required argument for option '--log-level' is missing"},
        {{"-h", "--bogus"}, "unrecognised option '--bogus'"},
    };
    const std::string help = helpText();
    for (const Case& c : cases) {
        Process bad(service(c.options));
        ASSERT_EQ(clitest::run(bad), 1) << c.error;
        EXPECT_EQ(bad.err(), "Failed to parse commandline arguments: " + c.error + "\n" + help);
        EXPECT_EQ(bad.out(), "");
    }
}

// The stamp script writes the revision of the tree itself only; any other tree says it had none.
TEST(VersionStamp, RevisionOnlyFromTheTreesOwnGit) {
    TempDir dir;
    std::filesystem::create_directories(dir / "tree");
    struct Case {
        std::string tree;
        std::string revision;  // pattern
    };
    const std::string none = "unknown \\(built without git\\)";
    const std::vector<Case> cases = {
        {dir / "tree", none},
        {TILTHWATCH_SOURCE_DIR "/cmake", none},  // inside the repository, not its top
        {TILTHWATCH_SOURCE_DIR, TILTHWATCH_HAS_GIT ? "[0-9a-f]{40}" : none},
    };
    for (const Case& c : cases) {
        const std::string output = dir / "buildversion.cpp";
        Process stamp({TILTHWATCH_CMAKE, "-DSOURCE_DIR=" + c.tree,
                       "-DTEMPLATE=" TILTHWATCH_SOURCE_DIR "/cmake/buildversion.cpp.in",
                       "-DOUTPUT_FILE=" + output, "-P",
                       TILTHWATCH_SOURCE_DIR "/cmake/GenerateVersion.cmake"});
        ASSERT_EQ(clitest::run(stamp), 0) << stamp.err();
        const std::string text = readFile(output);
        EXPECT_TRUE(std::regex_search(text, std::regex("revision = \"" + c.revision + "\";")))
            << c.tree << "\n"
            << text;
        EXPECT_TRUE(std::regex_search(
            text, std::regex("buildTime = \"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}"
                             "UTC\";")));
        if (c.revision == none) {
            EXPECT_THAT(text, HasSubstr("branch = \"unknown\";"));
        }
    }
}

// A driver that runs the same set-up with its own files and reports the root logger.
class LoggingDriver : public ::testing::Test {
protected:
    // A configuration file whose lines are told apart by `marker`.
    std::string config(const std::string& marker, const std::string& level = "INFO") {
        return "log4cplus.rootLogger=" + level + ", Out\n" +
               "log4cplus.appender.Out=log4cplus::FileAppender\n"
               "log4cplus.appender.Out.File=" +
               (dir_ / (marker + ".log")).string() +
               "\n"
               "log4cplus.appender.Out.layout=log4cplus::PatternLayout\n"
               "log4cplus.appender.Out.layout.ConversionPattern=" +
               marker + " %p %c: %m%n\n";
    }
    std::vector<std::string> driver(const std::string& mode, std::vector<std::string> options) {
        options.insert(options.begin(),
                       {TILTHWATCH_LOGGING_DRIVER, installed(), fallback(), logFile(), mode});
        return options;
    }
    std::string installed() const { return dir_ / "installed.ini"; }
    std::string fallback() const { return dir_ / "fallback.ini"; }
    std::string logFile() const { return dir_ / "commandline.log"; }
    std::string log(const std::string& marker) const { return readFile(dir_ / (marker + ".log")); }

    TempDir dir_;
};

const std::string kBranchLine = "[INFO] [tilthwatch.commandlineparser]: Branch ";

TEST_F(LoggingDriver, LevelAndAppendersFromTheCommandLine) {
    struct Case {
        std::vector<std::string> options;
        std::string root;
    };
    const std::vector<Case> cases = {
        {{"-l", "DEBUG"}, "DEBUG, FileAppender, ConsoleAppender"},
        {{"-l", "info", "-a", "console"}, "INFO, ConsoleAppender"},
        {{"-l", "off"}, "OFF, FileAppender, ConsoleAppender"},
        {{"--log-level", "Warning", "-a", "term", "--appender", "FILE"},
         "WARN, ConsoleAppender, FileAppender"},
        {{"-l", "trace", "-a", "fileappender"}, "TRACE, FileAppender"},
        {{"-l", "none", "-a", "stdout"}, "OFF, ConsoleAppender"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.root);
        // Both files exist and would log elsewhere: the command line's level beats them.
        writeFile(installed(), config("installed"));
        writeFile(fallback(), config("fallback"));
        std::filesystem::remove(logFile());
        Process process(driver("report", c.options));
        ASSERT_EQ(clitest::run(process), 0) << process.err();
        EXPECT_THAT(process.out(), HasSubstr("root: " + c.root + "\n"));

        // The version lines at INFO, where the appenders and the level let them through.
        const bool info = c.root.rfind("DEBUG", 0) == 0 || c.root.rfind("INFO", 0) == 0 ||
                          c.root.rfind("TRACE", 0) == 0;
        const bool console = c.root.find("ConsoleAppender") != std::string::npos;
        const bool file = c.root.find("FileAppender") != std::string::npos;
        EXPECT_EQ(process.out().find(kBranchLine) != std::string::npos, info && console);
        EXPECT_EQ(readFile(logFile()).find(kBranchLine) != std::string::npos, info && file);
        EXPECT_EQ(log("installed"), "");
        EXPECT_EQ(log("fallback"), "");
    }
}

// Without a level on the command line the files decide, whatever -a says.
TEST_F(LoggingDriver, FilesDecideWithoutALevel) {
    struct Case {
        bool installedExists;
        bool fallbackExists;
        std::vector<std::string> options;
        std::string used;  // marker of the file that logs, or "" for none
    };
    const std::vector<Case> cases = {
        {true, true, {}, "installed"},
        {false, true, {}, "fallback"},
        {true, false, {}, "installed"},
        {true, true, {"-a", "console"}, "installed"},
        {false, true, {"-a", "file", "-a", "console"}, "fallback"},
        {false, false, {}, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.used);
        for (const std::string marker : {"installed", "fallback"}) {
            std::filesystem::remove(dir_ / (marker + ".log"));
        }
        std::filesystem::remove(installed());
        std::filesystem::remove(fallback());
        if (c.installedExists) {
            writeFile(installed(), config("installed"));
        }
        if (c.fallbackExists) {
            writeFile(fallback(), config("fallback"));
        }
        Process process(driver("report", c.options));
        // A missing fallback is log4cplus's to report; the process goes on.
        ASSERT_EQ(clitest::run(process), 0) << process.err();
        EXPECT_THAT(process.out(), Not(HasSubstr("tilthwatch.commandlineparser")));
        EXPECT_FALSE(std::filesystem::exists(logFile()));
        for (const std::string marker : {"installed", "fallback"}) {
            const std::string text = log(marker);
            if (marker == c.used) {
                EXPECT_THAT(text,
                            HasSubstr(marker + " INFO tilthwatch.commandlineparser: Branch "));
                EXPECT_THAT(text, HasSubstr(marker + " INFO tilthwatch.commandlineparser: Boost "));
            } else {
                EXPECT_EQ(text, "") << marker;
            }
        }
    }
}

// The file is read once at start-up; an edit later is never picked up.
TEST_F(LoggingDriver, AFileChangedAfterStartUpDoesNotTakeEffect) {
    writeFile(installed(), config("installed"));
    Process process(driver("hold", {}));
    ASSERT_TRUE(process.waitForOutput("root: INFO, Out\n", milliseconds(20000)));
    writeFile(installed(), config("edited", "WARN") + "# a longer file than before\n");
    ASSERT_EQ(process.wait(), 0);
    EXPECT_THAT(log("installed"), HasSubstr("installed INFO tilthwatch.driver: after the edit\n"));
    EXPECT_FALSE(std::filesystem::exists(dir_ / "edited.log"));
}

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
    Process process(service({"-l", "info", "-a", "console"}));
    ASSERT_TRUE(process.started());
    ASSERT_TRUE(process.waitForOutput("Starting tilthwatch application", milliseconds(20000)));
    process.signal(SIGTERM);
    ASSERT_EQ(process.wait(), 0) << process.err();

    const std::string out = process.out();
    const std::vector<std::string> ordered = {
        "[INFO] [tilthwatch.commandlineparser]: Branch ",
        "[INFO] [tilthwatch.commandlineparser]: Version ",
        "[INFO] [tilthwatch.commandlineparser]: Build time ",
        "[INFO] [tilthwatch.commandlineparser]: Boost version ",
        "[INFO] [tilthwatch.main]: Starting tilthwatch application",
        "[WARN] [tilthwatch.thrift]: TSocket::open() ",
    };
    std::size_t at = 0;
    for (const std::string& text : ordered) {
        at = out.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << "\n" << out;
    }
    EXPECT_THAT(out, HasSubstr("Connection refused"));
    EXPECT_THAT(process.err(), Not(HasSubstr("Thrift:")));
    EXPECT_THAT(process.err(), Not(HasSubstr("No appenders could be found")));
}

}  // namespace
