#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

namespace replay {

// Decides when the replay stops the run loop: once `records` records closed after the last
// frame has been played have reached the sinks. The record that the stop itself closes counts
// as the last of them, so the loop is asked to stop when the one before it has been handed
// over, or at once for a single record. A record whose close began before the last frame
// was through the stack does not count, even if it reaches the sinks afterwards.
class RecordCountdown {
public:
    RecordCountdown(std::uint64_t records, std::function<void()> stop)
        : records_(records), stop_(std::move(stop)) {}

    // On the run loop's thread, as a record is about to be closed.
    void closing() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++closed_;
    }
    // On the run loop's thread, after every other sink has had the record.
    void handedOver() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++handedOver_;
        check();
    }
    // The last frame has been through the stack.
    void played() {
        std::lock_guard<std::mutex> lock(mutex_);
        played_ = true;
        target_ = closed_ + records_ - 1;
        check();
    }
    // Whether the countdown asked for the stop.
    bool stopped() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return stopped_;
    }

private:
    void check() {
        if (played_ && !stopped_ && handedOver_ >= target_) {
            stopped_ = true;
            stop_();
        }
    }

    const std::uint64_t records_;
    const std::function<void()> stop_;
    mutable std::mutex mutex_;
    std::uint64_t closed_ = 0;
    std::uint64_t handedOver_ = 0;
    std::uint64_t target_ = 0;
    bool played_ = false;
    bool stopped_ = false;
};

}  // namespace replay
