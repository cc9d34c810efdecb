#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace replay {

// Ends the replay's waits: sleeps on a condition, and waits in poll through a descriptor that
// becomes readable once stopped.
class Stopper {
public:
    Stopper() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Stopper() { ::close(fd_); }
    Stopper(const Stopper&) = delete;
    Stopper& operator=(const Stopper&) = delete;

    void stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopped_ = true;
        }
        condition_.notify_all();
        const std::uint64_t one = 1;
        (void)!::write(fd_, &one, sizeof one);
    }
    bool stopped() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return stopped_;
    }
    // Sleeps until `deadline`; false when stopped first.
    bool sleepUntil(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(mutex_);
        return !condition_.wait_until(lock, deadline, [this] { return stopped_; });
    }
    int fd() const { return fd_; }

private:
    const int fd_;
    mutable std::mutex mutex_;
    std::condition_variable condition_;
    bool stopped_ = false;
};

}  // namespace replay
