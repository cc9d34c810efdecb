#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <string>
#include <tuple>
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

std::string nameOfWord(const std::string& word, bool level) {
    boost::any value;
    if (level) {
        norvanelogging::validate(value, {word}, static_cast<LogLevel*>(nullptr), 0);
        return norvanelogging::toString(boost::any_cast<LogLevel>(value));
    }
    norvanelogging::validate(value, {word}, static_cast<Appender*>(nullptr), 0);
    return norvanelogging::toString(boost::any_cast<Appender>(value));
}

TEST(OptionWords, EveryAcceptedWordInAnyCase) {
    // Is a level, name, and the words that give it.
    const std::vector<std::tuple<bool, std::string, std::string>> cases = {
        {true, "TRACE", "trace"},
        {true, "DEBUG", "debug DEBUG"},
        {true, "INFO", "info"},
        {true, "WARN", "warn Warning"},
        {true, "ERROR", "error ERR"},
        {true, "FATAL", "fatal Critical"},
        {true, "OFF", "off disabled None"},
        {false, "FileAppender", "file FileAppender"},
        {false, "ConsoleAppender", "console Term STDOUT consoleappender"},
    };
    for (const auto& c : cases) {
        std::istringstream words(std::get<2>(c));
        for (std::string word; words >> word;) {
            EXPECT_EQ(nameOfWord(word, std::get<0>(c)), std::get<1>(c)) << word;
        }
    }
}

TEST(OptionWords, AnUnknownWordIsTheLibrarysInvalidValueError) {
    for (const std::string word : {"verbose", "", "debug ", "information", "files", "syslog"}) {
        for (const bool level : {true, false}) {
            EXPECT_THROW(nameOfWord(word, level), boost::program_options::invalid_option_value)
                << word;
        }
    }
}

// Neither comes from a command line: values outside the tables and no appenders at all.
TEST(OptionWords, EdgesOfTheTables) {
    EXPECT_EQ(norvanelogging::toString(static_cast<LogLevel>(7)), "");
    EXPECT_EQ(norvanelogging::toString(static_cast<LogLevel>(-1)), "");
    EXPECT_EQ(norvanelogging::toString(static_cast<Appender>(2)), "");
    EXPECT_EQ(norvanelogging::rootLoggerValue(LogLevel::trace, {}), "TRACE");
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
