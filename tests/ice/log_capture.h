#pragma once

// Collects what one log4cplus category logs, for as long as the capture lives.

#include <mutex>
#include <string>
#include <vector>

#include <log4cplus/appender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

namespace logtest {

class LogCapture {
public:
    explicit LogCapture(const std::string& category)
        : logger_((initializeOnce(), log4cplus::Logger::getInstance(category))),
          appender_(new Appender) {
        logger_.addAppender(appender_);
        logger_.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    }
    ~LogCapture() { logger_.removeAppender(appender_); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> messagesAt(log4cplus::LogLevel level) const {
        auto& appender = static_cast<Appender&>(*appender_);
        std::lock_guard<std::mutex> lock(appender.mutex);
        std::vector<std::string> result;
        for (const auto& line : appender.lines) {
            if (line.first == level) {
                result.push_back(line.second);
            }
        }
        return result;
    }
    std::vector<std::string> errors() const { return messagesAt(log4cplus::ERROR_LOG_LEVEL); }

private:
    struct Appender : log4cplus::Appender {
        ~Appender() override { destructorImpl(); }
        void close() override {}
        void append(const log4cplus::spi::InternalLoggingEvent& event) override {
            std::lock_guard<std::mutex> lock(mutex);
            lines.emplace_back(event.getLogLevel(), event.getMessage());
        }
        std::mutex mutex;
        std::vector<std::pair<log4cplus::LogLevel, std::string>> lines;
    };

    // log4cplus cannot start again once shut down, so it stays up for the whole process.
    static void initializeOnce() { static log4cplus::Initializer initializer; }

    log4cplus::Logger logger_;
    log4cplus::SharedAppenderPtr appender_;
};

inline bool startsWith(const std::string& text, const std::string& head) {
    return text.compare(0, head.size(), head) == 0;
}

}  // namespace logtest
