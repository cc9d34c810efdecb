#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("tilthwatch.main");
}

int main(int /*argc*/, char** /*argv*/) {
    log4cplus::Initializer initializer;
    LOG4CPLUS_INFO(logger, "Starting tilthwatch application");
    // The run loop joins here once the subsystems it needs exist.
    return 0;
}
