#include "replay/player.h"

#include <algorithm>
#include <iostream>
#include <memory>

#include "replay/logsource.h"

namespace replay {

namespace {
constexpr std::size_t kStepFrames = 256;
}  // namespace

int FrameSelection::channelOf(const LogFrame& frame, const std::string& file, std::size_t line) {
    std::string warning;
    int channel = -1;
    if ((frame.frame.can_id & CAN_ERR_FLAG) != 0) {
        warning = "error frames are skipped: a raw CAN socket does not receive them";
    } else {
        channel = channels_.index(frame.interface);
        if (channel < 0) {
            warning = "frames of interface \"" + frame.interface + "\" are skipped";
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (channel < 0 && warned_.insert(warning).second) {
        std::cerr << "tilthwatch-replay: " << file << ":" << line << ": warning: " << warning
                  << std::endl;
    }
    return channel;
}

std::string checkLog(const std::string& path, FrameSelection& selection) {
    LogSource source(path);
    std::string error;
    if (!source.open(error)) {
        return error;
    }
    LogFrame frame;
    for (;;) {
        switch (source.next(frame, error)) {
            case LogSource::Result::Frame:
                selection.channelOf(frame, source.name(), source.lineNumber());
                break;
            case LogSource::Result::End:
                return "";
            case LogSource::Result::Error:
            case LogSource::Result::Stopped:
                return error;
        }
    }
}

struct Player::Source {
    explicit Source(const std::string& path, int stopFd) : log(path, stopFd) {}
    LogSource log;
    LogFrame head;  // the next frame to be played
    int channel = -1;
    bool done = false;
};

bool Player::advance(Source& source) {
    for (;;) {
        switch (source.log.next(source.head, error_)) {
            case LogSource::Result::Frame:
                source.channel =
                    selection_.channelOf(source.head, source.log.name(), source.log.lineNumber());
                if (source.channel >= 0) {
                    return true;
                }
                break;
            case LogSource::Result::End:
                source.done = true;
                return false;
            case LogSource::Result::Error:
            case LogSource::Result::Stopped:
                source.done = true;
                return false;
        }
    }
}

bool Player::writeStep() {
    for (std::size_t channel = 0; channel < step_.size(); ++channel) {
        std::vector<can_frame>& frames = step_[channel];
        if (!frames.empty() &&
            !channels_.write(static_cast<int>(channel), frames.data(), frames.size())) {
            return false;
        }
        frames.clear();
    }
    return true;
}

bool Player::run() {
    if (!channels_.waitUntilOpened()) {
        return false;
    }
    const auto start = std::chrono::steady_clock::now() + kFirstFrameDelay;
    std::vector<std::unique_ptr<Source>> sources;
    for (const std::string& path : paths_) {
        sources.push_back(std::make_unique<Source>(path, stopper_.fd()));
        if (!sources.back()->log.open(error_)) {
            return false;
        }
    }
    // Every source's first frame is needed to know where the recording starts.
    std::int64_t firstUs = 0;
    bool any = false;
    for (auto& source : sources) {
        if (advance(*source)) {
            firstUs = any ? std::min(firstUs, source->head.timeUs) : source->head.timeUs;
            any = true;
        } else if (!error_.empty() || stopper_.stopped()) {
            return false;
        }
    }
    step_.assign(channels_.count(), {});
    auto stepEnd = start - kPlayStep;  // the first frame waits for its step
    for (;;) {
        Source* next = nullptr;
        for (auto& source : sources) {
            if (!source->done && (next == nullptr || source->head.timeUs < next->head.timeUs)) {
                next = source.get();
            }
        }
        // A timestamp that goes back is played at once.
        const auto due = next == nullptr
                             ? stepEnd
                             : start + std::chrono::microseconds(next->head.timeUs - firstUs);
        if (next == nullptr || due > stepEnd) {
            if (!writeStep()) {
                return false;
            }
            if (next == nullptr) {
                break;
            }
            const auto steps = (due - start + kPlayStep - std::chrono::nanoseconds(1)) / kPlayStep;
            stepEnd = start + steps * kPlayStep;
            if (!stopper_.sleepUntil(stepEnd)) {
                return false;
            }
        }
        std::vector<can_frame>& frames = step_[static_cast<std::size_t>(next->channel)];
        frames.push_back(next->head.frame);
        // A log may stamp any number of frames with one time: a step holds a bounded number.
        if (frames.size() == kStepFrames && !writeStep()) {
            return false;
        }
        if (!advance(*next) && (!error_.empty() || stopper_.stopped())) {
            return false;
        }
    }
    return channels_.waitUntilDelivered();
}

}  // namespace replay
