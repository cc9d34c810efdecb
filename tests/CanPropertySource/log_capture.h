#pragma once

#include <log4cplus/appender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <string>
#include <vector>

// Collects the messages of one log category while it lives.
class LogCapture {
public:
    explicit LogCapture(const std::string& category = "tilthwatch.canpropertysourcestatemachine")
        : m_logger((initialize(), log4cplus::Logger::getInstance(category))),
          m_appender(new Appender) {
        m_logger.setLogLevel(log4cplus::ALL_LOG_LEVEL);
        m_logger.addAppender(m_appender);
    }
    ~LogCapture() { m_logger.removeAppender(m_appender); }

    const std::vector<std::string>& lines() const {
        return static_cast<Appender&>(*m_appender).lines;
    }
    long count(const std::string& line) const {
        long n = 0;
        for (const auto& l : lines()) {
            n += (l == line) ? 1 : 0;
        }
        return n;
    }
    void clear() { static_cast<Appender&>(*m_appender).lines.clear(); }

private:
    // log4cplus cannot be initialised again once shut down, so it stays up for the process.
    static void initialize() {
        static auto* initializer = new log4cplus::Initializer;
        (void)initializer;
    }

    class Appender : public log4cplus::Appender {
    public:
        ~Appender() override { destructorImpl(); }
        void close() override {}
        std::vector<std::string> lines;

    protected:
        void append(const log4cplus::spi::InternalLoggingEvent& event) override {
            const std::string prefix =
                event.getLogLevel() >= log4cplus::ERROR_LOG_LEVEL ? "ERROR " : "";
            lines.push_back(prefix + event.getMessage());
        }
    };

    log4cplus::Logger m_logger;
    log4cplus::SharedAppenderPtr m_appender;
};
