#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include <log4cplus/helpers/property.h>
#include <thrift/TOutput.h>
#include <boost/program_options/errors.hpp>

#include "commandlineparser.h"
#include "support/log_capture.h"
#include "thriftlogging.h"

using norvanelogging::Appender;
using norvanelogging::LogLevel;

namespace {

const std::string kPattern = "[%d{%Y-%m-%d %H:%M:%S}] [%r] [%p] [%c]: %m%n";

template <typename T>
T fromWord(const std::string& word) {
    boost::any value;
    norvanelogging::validate(value, {word}, static_cast<T*>(nullptr), 0);
    return boost::any_cast<T>(value);
}

struct WordCase {
    std::string word;
    int value;
    std::string name;
};

TEST(LogLevelWords, EveryAcceptedWordInAnyCase) {
    const std::vector<WordCase> cases = {
        {"trace", 0, "TRACE"},    {"debug", 1, "DEBUG"}, {"DEBUG", 1, "DEBUG"},
        {"info", 2, "INFO"},      {"warn", 3, "WARN"},   {"Warning", 3, "WARN"},
        {"error", 4, "ERROR"},    {"ERR", 4, "ERROR"},   {"fatal", 5, "FATAL"},
        {"critical", 5, "FATAL"}, {"off", 6, "OFF"},     {"disabled", 6, "OFF"},
        {"None", 6, "OFF"},
    };
    for (const WordCase& c : cases) {
        const LogLevel level = fromWord<LogLevel>(c.word);
        EXPECT_EQ(static_cast<int>(level), c.value) << c.word;
        EXPECT_EQ(norvanelogging::toString(level), c.name) << c.word;
    }
}

TEST(AppenderWords, EveryAcceptedWordInAnyCase) {
    const std::vector<WordCase> cases = {
        {"file", 0, "FileAppender"},       {"FileAppender", 0, "FileAppender"},
        {"console", 1, "ConsoleAppender"}, {"Term", 1, "ConsoleAppender"},
        {"STDOUT", 1, "ConsoleAppender"},  {"consoleappender", 1, "ConsoleAppender"},
    };
    for (const WordCase& c : cases) {
        const Appender appender = fromWord<Appender>(c.word);
        EXPECT_EQ(static_cast<int>(appender), c.value) << c.word;
        EXPECT_EQ(norvanelogging::toString(appender), c.name) << c.word;
    }
}

TEST(OptionWords, AnUnknownWordIsTheLibrarysInvalidValueError) {
    for (const std::string word : {"verbose", "", "debug ", "information", "files", "syslog"}) {
        EXPECT_THROW(fromWord<LogLevel>(word), boost::program_options::invalid_option_value)
            << word;
        EXPECT_THROW(fromWord<Appender>(word), boost::program_options::invalid_option_value)
            << word;
    }
}

TEST(OptionWords, ValuesOutsideTheTablesHaveNoName) {
    EXPECT_EQ(norvanelogging::toString(static_cast<LogLevel>(7)), "");
    EXPECT_EQ(norvanelogging::toString(static_cast<LogLevel>(-1)), "");
    EXPECT_EQ(norvanelogging::toString(static_cast<Appender>(2)), "");
}

TEST(RootLoggerValue, LevelThenEachAppenderInOrder) {
    struct Case {
        LogLevel level;
        std::vector<Appender> appenders;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {LogLevel::debug,
         {Appender::FileAppender, Appender::ConsoleAppender},
         "DEBUG, FileAppender, ConsoleAppender"},
        {LogLevel::info, {Appender::ConsoleAppender}, "INFO, ConsoleAppender"},
        {LogLevel::off,
         {Appender::FileAppender, Appender::ConsoleAppender},
         "OFF, FileAppender, ConsoleAppender"},
        {LogLevel::warn,
         {Appender::ConsoleAppender, Appender::FileAppender},
         "WARN, ConsoleAppender, FileAppender"},
        {LogLevel::trace, {}, "TRACE"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(norvanelogging::rootLoggerValue(c.level, c.appenders), c.expected);
    }
}

// Both appenders are always defined; only the root logger value says which are attached.
TEST(CommandLineLogProperties, EveryKeyAndValue) {
    const log4cplus::helpers::Properties properties = norvanelogging::commandLineLogProperties(
        LogLevel::info, {Appender::ConsoleAppender}, "/tmp/somewhere/log");
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"log4cplus.appender.ConsoleAppender", "log4cplus::ConsoleAppender"},
        {"log4cplus.appender.ConsoleAppender.ImmediateFlush", "true"},
        {"log4cplus.appender.ConsoleAppender.layout", "log4cplus::PatternLayout"},
        {"log4cplus.appender.ConsoleAppender.layout.ConversionPattern", kPattern},
        {"log4cplus.appender.FileAppender", "log4cplus::RollingFileAppender"},
        {"log4cplus.appender.FileAppender.AsyncAppend", "true"},
        {"log4cplus.appender.FileAppender.BufferSize", "2048"},
        {"log4cplus.appender.FileAppender.File", "/tmp/somewhere/log"},
        {"log4cplus.appender.FileAppender.MaxBackupIndex", "5"},
        {"log4cplus.appender.FileAppender.MaxFileSize", "10485760"},
        {"log4cplus.appender.FileAppender.layout", "log4cplus::PatternLayout"},
        {"log4cplus.appender.FileAppender.layout.ConversionPattern", kPattern},
        {"log4cplus.rootLogger", "INFO, ConsoleAppender"},
    };
    std::vector<std::pair<std::string, std::string>> actual;
    for (const std::string& key : properties.propertyNames()) {
        actual.emplace_back(key, properties.getProperty(key));
    }
    std::sort(actual.begin(), actual.end());
    EXPECT_EQ(actual, expected);
}

TEST(LoggingPaths, DefaultsAreTheInstalledOnes) {
    const LoggingPaths paths;
    EXPECT_EQ(paths.installedConfig, "/etc/norvane/tilthwatch/log4cplus.ini");
    EXPECT_EQ(paths.fallbackConfig, "/etc/norvane/tilthwatch/log4cplus.default.ini");
    EXPECT_EQ(paths.logFile, "/var/log/tilthwatch/tilthwatch");
}

// The packaged fallback: a rolling file in the log folder plus the console, in the system's
// pattern.
TEST(PackagedConfiguration, RollingFileAndConsoleInTheSystemPattern) {
    const log4cplus::helpers::Properties ini(TILTHWATCH_SOURCE_DIR
                                             "/packaging/log4cplus.default.ini");
    EXPECT_EQ(ini.getProperty("log4cplus.rootLogger"), "INFO, FileAppender, ConsoleAppender");
    EXPECT_EQ(ini.getProperty("log4cplus.appender.FileAppender"), "log4cplus::RollingFileAppender");
    EXPECT_EQ(ini.getProperty("log4cplus.appender.FileAppender.File"),
              "/var/log/tilthwatch/tilthwatch");
    EXPECT_EQ(ini.getProperty("log4cplus.appender.ConsoleAppender"), "log4cplus::ConsoleAppender");
    for (const std::string appender : {"FileAppender", "ConsoleAppender"}) {
        const std::string prefix = "log4cplus.appender." + appender + ".layout";
        EXPECT_EQ(ini.getProperty(prefix), "log4cplus::PatternLayout");
        EXPECT_EQ(ini.getProperty(prefix + ".ConversionPattern"), kPattern);
    }
}

TEST(ThriftOutput, GoesToTheLogAtWarnAndNotToStandardError) {
    logtest::LogCapture capture("tilthwatch.thrift");
    routeThriftOutputToLog();
    ::testing::internal::CaptureStderr();
    apache::thrift::GlobalOutput("TSocket::open() connect() <Host: localhost Port: 9090>");
    apache::thrift::GlobalOutput.perror("TSocket::open() connect() ", ECONNREFUSED);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_THAT(capture.messagesAt(log4cplus::WARN_LOG_LEVEL),
                ::testing::ElementsAre("TSocket::open() connect() <Host: localhost Port: 9090>",
                                       ::testing::HasSubstr("Connection refused")));
    EXPECT_EQ(capture.lines().size(), 2u);
}

}  // namespace
