// Runs the command-line and logging set-up with its own file paths, then reports what it got:
//   logging_driver <installed ini> <fallback ini> <log file> <mode> [options...]
// The mode stands in for the program name. "report" prints the root logger; "hold" then also
// waits longer than the watch interval before it logs again.
#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include "commandlineparser.h"

int main(int argc, char** argv) {
    if (argc < 5) {
        std::cerr << "usage: logging_driver <installed> <fallback> <log file> <mode> [options]\n";
        return 2;
    }
    log4cplus::Initializer initializer;
    LoggingPaths paths;
    paths.installedConfig = argv[1];
    paths.fallbackConfig = argv[2];
    paths.logFile = argv[3];
    const std::string mode = argv[4];
    parse_args(argc - 4, argv + 4, paths);

    log4cplus::Logger root = log4cplus::Logger::getRoot();
    std::string value = log4cplus::getLogLevelManager().toString(root.getLogLevel());
    for (const auto& appender : root.getAllAppenders()) {
        value += ", " + appender->getName();
    }
    std::cout << "root: " << value << std::endl;

    if (mode == "hold") {
        // Past one full watch interval of 5000 ms after the test's edit.
        std::this_thread::sleep_for(std::chrono::milliseconds(5500));
        LOG4CPLUS_INFO(log4cplus::Logger::getInstance("tilthwatch.driver"), "after the edit");
    }
    return 0;
}
