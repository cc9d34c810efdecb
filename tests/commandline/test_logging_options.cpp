#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include <thrift/TOutput.h>

#include "commandlineparser.h"
#include "support/log_capture.h"
#include "thriftlogging.h"

using norvanelogging::Appender;
using norvanelogging::LogLevel;

namespace {

// Neither comes from a command line: values outside the tables and no appenders at all.
TEST(OptionWords, EdgesOfTheTables) {
    EXPECT_EQ(norvanelogging::toString(static_cast<LogLevel>(7)), "");
    EXPECT_EQ(norvanelogging::toString(static_cast<LogLevel>(-1)), "");
    EXPECT_EQ(norvanelogging::toString(static_cast<Appender>(2)), "");
    EXPECT_EQ(norvanelogging::rootLoggerValue(LogLevel::trace, {}), "TRACE");
}

TEST(ThriftOutput, GoesToTheLogAtWarnAndNotToStandardError) {
    logtest::LogCapture capture("tilthwatch.thrift");
    routeThriftOutputToLog();
    ::testing::internal::CaptureStderr();
    apache::thrift::GlobalOutput("TSocket::open() connect() <Host: localhost Port: 9090>");
    apache::thrift::GlobalOutput.perror("TSocket::open() connect() ", ECONNREFUSED);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_THAT(capture.lines(), ::testing::ElementsAre(
                                     "WARN TSocket::open() connect() <Host: localhost Port: 9090>",
                                     ::testing::AllOf(::testing::StartsWith("WARN "),
                                                      ::testing::HasSubstr("Connection refused"))));
}

}  // namespace
