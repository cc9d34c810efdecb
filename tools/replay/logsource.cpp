#include "replay/logsource.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace replay {

LogSource::LogSource(std::string path, int stopFd)
    : path_(std::move(path)), name_(path_ == "-" ? "standard input" : path_), stopFd_(stopFd) {}

LogSource::~LogSource() {
    if (fd_ > STDIN_FILENO) {
        ::close(fd_);
    }
}

bool LogSource::open(std::string& error) {
    fd_ = path_ == "-" ? STDIN_FILENO : ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        error = name_ + ": cannot open: " + std::strerror(errno);
        return false;
    }
    return true;
}

std::string LogSource::where() const {
    return name_ + ":" + std::to_string(line_) + ": ";
}

LogSource::Result LogSource::next(LogFrame& frame, std::string& error) {
    std::string line;
    for (;;) {
        const std::size_t newline = buffer_.find('\n', scanned_);
        if (newline != std::string::npos) {
            line = buffer_.substr(0, newline);
            buffer_.erase(0, newline + 1);
            scanned_ = 0;
            break;
        }
        scanned_ = buffer_.size();
        // Garbage without ends of line is not read into memory whole.
        if (buffer_.size() > kMaxLineLength + 1) {
            ++line_;
            error = where() + "line too long";
            return Result::Error;
        }
        if (end_) {
            if (buffer_.empty()) {
                return Result::End;
            }
            ++line_;
            error = where() + "last line has no end of line (truncated)";
            return Result::Error;
        }
        if (stopFd_ >= 0) {
            pollfd fds[] = {{fd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
                error = name_ + ": cannot read: " + std::strerror(errno);
                return Result::Error;
            }
            if ((fds[1].revents & POLLIN) != 0) {
                return Result::Stopped;
            }
        }
        char chunk[4096];
        const ssize_t got = ::read(fd_, chunk, sizeof chunk);
        if (got < 0 && errno != EINTR && errno != EAGAIN) {
            error = name_ + ": cannot read: " + std::strerror(errno);
            return Result::Error;
        }
        if (got == 0) {
            end_ = true;
        } else if (got > 0) {
            buffer_.append(chunk, static_cast<std::size_t>(got));
        }
    }
    ++line_;
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    const std::string reason = parseLine(line, frame);
    if (!reason.empty()) {
        error = where() + reason;
        return Result::Error;
    }
    return Result::Frame;
}

}  // namespace replay
