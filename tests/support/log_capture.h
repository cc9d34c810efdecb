#pragma once

// Collects what one log4cplus category logs, for as long as the capture lives.

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <log4cplus/appender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/spi/loggingevent.h>

namespace logtest {

class LogCapture {
public:
    explicit LogCapture(const std::string& category)
        : logger_((initializeOnce(), log4cplus::Logger::getInstance(category))),
          appender_(new Appender) {
        logger_.setLogLevel(log4cplus::ALL_LOG_LEVEL);
        logger_.addAppender(appender_);
    }
    ~LogCapture() { logger_.removeAppender(appender_); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Every line in order as "LEVEL message", e.g. "INFO Starting": a line at the wrong level
    // does not compare equal.
    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        for (const auto& line : snapshot()) {
            result.push_back(log4cplus::getLogLevelManager().toString(line.first) + " " +
                             line.second);
        }
        return result;
    }
    // Messages logged at exactly this level, without prefix.
    std::vector<std::string> messagesAt(log4cplus::LogLevel level) const {
        std::vector<std::string> result;
        for (const auto& line : snapshot()) {
            if (line.first == level) {
                result.push_back(line.second);
            }
        }
        return result;
    }
    std::vector<std::string> errors() const { return messagesAt(log4cplus::ERROR_LOG_LEVEL); }
    // How often this message was logged, at any level.
    long count(const std::string& message) const {
        long n = 0;
        for (const auto& line : snapshot()) {
            n += (line.second == message) ? 1 : 0;
        }
        return n;
    }
    void clear() {
        auto& appender = static_cast<Appender&>(*appender_);
        std::lock_guard<std::mutex> lock(appender.mutex);
        appender.lines.clear();
    }

private:
    using Entry = std::pair<log4cplus::LogLevel, std::string>;

    struct Appender : log4cplus::Appender {
        ~Appender() override { destructorImpl(); }
        void close() override {}
        void append(const log4cplus::spi::InternalLoggingEvent& event) override {
            std::lock_guard<std::mutex> lock(mutex);
            lines.emplace_back(event.getLogLevel(), event.getMessage());
        }
        std::mutex mutex;
        std::vector<Entry> lines;
    };

    // Copy under the lock: the system logs from its own threads.
    std::vector<Entry> snapshot() const {
        auto& appender = static_cast<Appender&>(*appender_);
        std::lock_guard<std::mutex> lock(appender.mutex);
        return appender.lines;
    }

    // log4cplus cannot start again once shut down, so it stays up for the whole process.
    static void initializeOnce() {
        static auto* initializer = new log4cplus::Initializer;
        (void)initializer;
    }

    log4cplus::Logger logger_;
    log4cplus::SharedAppenderPtr appender_;
};

inline bool startsWith(const std::string& text, const std::string& head) {
    return text.compare(0, head.size(), head) == 0;
}

}  // namespace logtest
