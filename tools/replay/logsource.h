#pragma once

#include <cstddef>
#include <string>

#include "replay/candumplog.h"

namespace replay {

// The frames of one candump log, a file or standard input, read line by line as needed.
class LogSource {
public:
    enum class Result { Frame, End, Error, Stopped };

    // `path` "-" is standard input. A wait for input ends when `stopFd` becomes readable.
    LogSource(std::string path, int stopFd = -1);
    ~LogSource();
    LogSource(const LogSource&) = delete;
    LogSource& operator=(const LogSource&) = delete;

    // False, with the reason in `error`, when the file cannot be opened.
    bool open(std::string& error);
    // The next line as a frame. A malformed line is an Error whose text starts with the name
    // and line number: "trip.log:12: bad hex digit in data".
    Result next(LogFrame& frame, std::string& error);

    // The path, or "standard input".
    const std::string& name() const { return name_; }
    std::size_t lineNumber() const { return line_; }

private:
    std::string where() const;

    std::string path_;
    std::string name_;
    int stopFd_;
    int fd_ = -1;
    std::string buffer_;
    std::size_t scanned_ = 0;  // bytes of buffer_ known to hold no end of line
    std::size_t line_ = 0;
    bool end_ = false;
};

}  // namespace replay
