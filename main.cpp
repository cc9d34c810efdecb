#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include "telematicsloop.h"

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("tilthwatch.main");
}

int main(int /*argc*/, char** /*argv*/) {
    // Before log4cplus can start threads, so that only the run loop ever takes a stop signal.
    blockStopSignals();
    log4cplus::Initializer initializer;
    LOG4CPLUS_INFO(logger, "Starting tilthwatch application");
    runTelematicsLoop(TelematicsConfig());
    return 0;
}
