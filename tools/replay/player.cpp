#include "replay/player.h"

#include <algorithm>
#include <iostream>
#include <memory>

#include "replay/logsource.h"

namespace replay {

int FrameSelection::channelOf(const LogFrame& frame, const std::string& where) {
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
        std::cerr << "tilthwatch-replay: " << where << ": warning: " << warning << std::endl;
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
                selection.channelOf(frame,
                                    source.name() + ":" + std::to_string(source.lineNumber()));
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
            case LogSource::Result::Frame: {
                const std::string where =
                    source.log.name() + ":" + std::to_string(source.log.lineNumber());
                source.channel = selection_.channelOf(source.head, where);
                if (source.channel >= 0) {
                    return true;
                }
                break;
            }
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
    for (;;) {
        Source* next = nullptr;
        for (auto& source : sources) {
            if (!source->done && (next == nullptr || source->head.timeUs < next->head.timeUs)) {
                next = source.get();
            }
        }
        if (next == nullptr) {
            break;
        }
        // A timestamp that goes back is played at once.
        const auto due = start + std::chrono::microseconds(next->head.timeUs - firstUs);
        if (!stopper_.sleepUntil(due) || !channels_.write(next->channel, next->head.frame)) {
            return false;
        }
        if (!advance(*next) && (!error_.empty() || stopper_.stopped())) {
            return false;
        }
    }
    return channels_.waitUntilDelivered();
}

}  // namespace replay
