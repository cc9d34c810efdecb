#include "thriftlogging.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <thrift/TOutput.h>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("tilthwatch.thrift");

void logThriftMessage(const char* message) {
    LOG4CPLUS_WARN(logger, message);
}
}  // namespace

void routeThriftOutputToLog() {
    apache::thrift::GlobalOutput.setOutputFunction(logThriftMessage);
}
