#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include "commandlineparser.h"
#include "telematicsloop.h"
#include "thriftlogging.h"

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("tilthwatch.main");
}

int main(int argc, char** argv) {
    // Before log4cplus can start threads, so that only the run loop ever takes a stop signal.
    blockStopSignals();
    log4cplus::Initializer initializer;
    // Only logging is steered by the command line; nothing reads the options afterwards.
    parse_args(argc, argv);
    routeThriftOutputToLog();
    LOG4CPLUS_INFO(logger, "Starting tilthwatch application");
    runTelematicsLoop(TelematicsConfig());
    return 0;
}
