#include "commandlineparser.h"

#include <sys/stat.h>

#include <cstdlib>
#include <iostream>

#include <log4cplus/configurator.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/program_options.hpp>

#include "buildversion.h"

namespace po = boost::program_options;

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("tilthwatch.commandlineparser");

const char* const kPattern = "[%d{%Y-%m-%d %H:%M:%S}] [%r] [%p] [%c]: %m%n";

template <typename T>
struct Row {
    T value;
    std::vector<std::string> words;
    std::string name;
};

using norvanelogging::Appender;
using norvanelogging::LogLevel;

// Words are tried in table order.
const std::vector<Row<LogLevel>> kLogLevels = {
    {LogLevel::trace, {"trace"}, "TRACE"},
    {LogLevel::debug, {"debug"}, "DEBUG"},
    {LogLevel::info, {"info"}, "INFO"},
    {LogLevel::warn, {"warn", "warning"}, "WARN"},
    {LogLevel::error, {"error", "err"}, "ERROR"},
    {LogLevel::fatal, {"fatal", "critical"}, "FATAL"},
    {LogLevel::off, {"off", "disabled", "none"}, "OFF"},
};

const std::vector<Row<Appender>> kAppenders = {
    {Appender::FileAppender, {"file", "fileappender"}, "FileAppender"},
    {Appender::ConsoleAppender,
     {"console", "term", "stdout", "consoleappender"},
     "ConsoleAppender"},
};

template <typename T>
std::string nameOf(const std::vector<Row<T>>& table, T value) {
    for (const Row<T>& row : table) {
        if (row.value == value) {
            return row.name;
        }
    }
    return "";
}

template <typename T>
T fromWord(const std::vector<Row<T>>& table, const std::string& word) {
    const std::string folded = boost::algorithm::to_lower_copy(word);
    for (const Row<T>& row : table) {
        for (const std::string& accepted : row.words) {
            if (folded == accepted) {
                return row.value;
            }
        }
    }
    throw po::invalid_option_value(word);
}

// "(trace|debug|...)": the argument's name in the help text.
template <typename T>
std::string choices(const std::vector<Row<T>>& table) {
    std::string text = "(";
    for (const Row<T>& row : table) {
        text += (text.size() > 1 ? "|" : "") + row.words.front();
    }
    return text + ")";
}

po::options_description optionDescription() {
    po::options_description description("Allowed options");
    description.add_options()("help,h", "Produce help message.")(
        "version,v", "Print version informating and exit.")(
        "appender,a",
        po::value<std::vector<Appender>>()
            ->default_value({Appender::FileAppender, Appender::ConsoleAppender}, "file console")
            ->value_name(choices(kAppenders)),
        "Specify multipe times, e.g. \"-a file -a console\". The appenders to use when "
        "log-level is set. If none are specified, the default will be all appenders. Note: this "
        "will have no effect unless the log-level is set via command line.")(
        "log-level,l", po::value<LogLevel>()->value_name(choices(kLogLevels)),
        "When loging level is set from the command line, logging configuration file is ignored. "
        "Choices are listed from most verbose to least verbose.");
    return description;
}

std::vector<std::string> versionLines() {
    return {std::string("Branch ") + buildversion::branch,
            std::string("Version ") + buildversion::revision,
            std::string("Build time ") + buildversion::buildTime,
            "Boost version " + buildversion::boostVersion()};
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

}  // namespace

namespace norvanelogging {

std::string toString(LogLevel level) {
    return nameOf(kLogLevels, level);
}

std::string toString(Appender appender) {
    return nameOf(kAppenders, appender);
}

void validate(boost::any& value, const std::vector<std::string>& words, LogLevel*, int) {
    po::validators::check_first_occurrence(value);
    value = fromWord(kLogLevels, po::validators::get_single_string(words));
}

void validate(boost::any& value, const std::vector<std::string>& words, Appender*, int) {
    po::validators::check_first_occurrence(value);
    value = fromWord(kAppenders, po::validators::get_single_string(words));
}

std::string rootLoggerValue(LogLevel level, const std::vector<Appender>& appenders) {
    std::string value = toString(level) + ",";
    for (Appender appender : appenders) {
        value += " " + toString(appender) + ",";
    }
    value.pop_back();
    return value;
}

log4cplus::helpers::Properties commandLineLogProperties(LogLevel level,
                                                        const std::vector<Appender>& appenders,
                                                        const std::string& logFile) {
    log4cplus::helpers::Properties properties;
    properties.setProperty("log4cplus.appender.FileAppender", "log4cplus::RollingFileAppender");
    properties.setProperty("log4cplus.appender.FileAppender.MaxFileSize",
                           std::to_string(10 * 1024 * 1024));
    properties.setProperty("log4cplus.appender.FileAppender.MaxBackupIndex", std::to_string(5));
    properties.setProperty("log4cplus.appender.FileAppender.layout", "log4cplus::PatternLayout");
    properties.setProperty("log4cplus.appender.FileAppender.layout.ConversionPattern", kPattern);
    properties.setProperty("log4cplus.appender.FileAppender.File", logFile);
    properties.setProperty("log4cplus.appender.FileAppender.BufferSize", "2048");
    properties.setProperty("log4cplus.appender.FileAppender.AsyncAppend", "true");
    properties.setProperty("log4cplus.appender.ConsoleAppender", "log4cplus::ConsoleAppender");
    properties.setProperty("log4cplus.appender.ConsoleAppender.layout", "log4cplus::PatternLayout");
    properties.setProperty("log4cplus.appender.ConsoleAppender.layout.ConversionPattern", kPattern);
    properties.setProperty("log4cplus.appender.ConsoleAppender.ImmediateFlush", "true");
    properties.setProperty("log4cplus.rootLogger", rootLoggerValue(level, appenders));
    return properties;
}

}  // namespace norvanelogging

po::variables_map parse_args(int argc, const char* const argv[]) {
    return parse_args(argc, argv, LoggingPaths());
}

po::variables_map parse_args(int argc, const char* const argv[], const LoggingPaths& paths) {
    const po::options_description description = optionDescription();
    po::variables_map options;
    try {
        po::store(po::parse_command_line(argc, argv, description), options);
        po::notify(options);
    } catch (const std::exception& e) {
        std::cerr << "Failed to parse commandline arguments: " << e.what() << "\n"
                  << description << "\n";
        std::exit(1);
    }

    if (options.count("help") > 0) {
        std::cout << description << "\n";
        std::exit(0);
    }
    if (options.count("version") > 0) {
        for (const std::string& line : versionLines()) {
            std::cout << line << std::endl;
        }
        std::exit(0);
    }

    if (options.count("log-level") == 0) {
        const std::string& path =
            exists(paths.installedConfig) ? paths.installedConfig : paths.fallbackConfig;
        // Destroyed at once, so the file is read once and later edits are not picked up.
        log4cplus::ConfigureAndWatchThread configuration(path, 5000);
    } else {
        const auto level = options["log-level"].as<LogLevel>();
        const auto& appenders = options["appender"].as<std::vector<Appender>>();
        log4cplus::PropertyConfigurator configurator(
            norvanelogging::commandLineLogProperties(level, appenders, paths.logFile),
            log4cplus::Logger::getDefaultHierarchy());
        configurator.configure();
    }

    for (const std::string& line : versionLines()) {
        LOG4CPLUS_INFO(logger, line);
    }
    return options;
}
