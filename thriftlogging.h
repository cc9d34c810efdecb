#pragma once

// Sends the Thrift library's own messages, such as a refused connection, to log4cplus under
// "tilthwatch.thrift" at WARN instead of straight to standard error. The delivery that failed
// logs its own ERROR; these lines give the detail.
void routeThriftOutputToLog();
