#pragma once

#include <string>
#include <vector>

#include <log4cplus/helpers/property.h>
#include <boost/any.hpp>
#include <boost/program_options/variables_map.hpp>

namespace norvanelogging {

enum class LogLevel { trace = 0, debug = 1, info = 2, warn = 3, error = 4, fatal = 5, off = 6 };

enum class Appender { FileAppender = 0, ConsoleAppender = 1 };

// The log4cplus name of a level, or "" for a value outside the table.
std::string toString(LogLevel level);
// The appender's name in the logging properties, or "" for a value outside the table.
std::string toString(Appender appender);

// Option validators, found by argument-dependent lookup: a word is folded to lower case and
// looked up in the table; an unknown word raises the option library's invalid-value error.
void validate(boost::any& value, const std::vector<std::string>& words, LogLevel*, int);
void validate(boost::any& value, const std::vector<std::string>& words, Appender*, int);

// "DEBUG, FileAppender, ConsoleAppender"; the level name alone for no appenders.
std::string rootLoggerValue(LogLevel level, const std::vector<Appender>& appenders);

// The complete logging set-up used when the level comes from the command line.
log4cplus::helpers::Properties commandLineLogProperties(LogLevel level,
                                                        const std::vector<Appender>& appenders,
                                                        const std::string& logFile);

}  // namespace norvanelogging

// Where logging is configured from. The defaults are the service's; tests use their own.
struct LoggingPaths {
    std::string installedConfig = "/etc/norvane/tilthwatch/log4cplus.ini";
    std::string fallbackConfig = "/etc/norvane/tilthwatch/log4cplus.default.ini";
    std::string logFile = "/var/log/tilthwatch/tilthwatch";
};

// Reads the command line, answers help and version, and configures log4cplus. Ends the process
// on help, version (status 0) or an invalid command line (status 1).
boost::program_options::variables_map parse_args(int argc, const char* const argv[]);
boost::program_options::variables_map parse_args(int argc, const char* const argv[],
                                                 const LoggingPaths& paths);
