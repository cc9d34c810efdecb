// Runs the command-line and logging set-up with its own file paths, then reports the root logger:
//   logging_driver <installed ini> <fallback ini> <log file> <mode> [options...]
// The mode stands in for the program name; "hold" then waits longer than the watch interval of
// 5000 ms before it logs again.
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
    parse_args(argc - 4, argv + 4, LoggingPaths{argv[1], argv[2], argv[3]});
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    std::string value = log4cplus::getLogLevelManager().toString(root.getLogLevel());
    for (const auto& appender : root.getAllAppenders()) {
        value += ", " + appender->getName();
    }
    std::cout << "root: " << value << std::endl;
    if (std::string(argv[4]) == "hold") {
        std::this_thread::sleep_for(std::chrono::milliseconds(5500));
        LOG4CPLUS_INFO(log4cplus::Logger::getInstance("tilthwatch.driver"), "after the edit");
    }
    return 0;
}
