#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "replay/candumplog.h"
#include "replay/channels.h"
#include "replay/stopper.h"

namespace replay {

// The first frame goes out this long after the CAN service has opened its channels.
constexpr std::chrono::milliseconds kFirstFrameDelay{500};
// Frames are played in steps of this length: each goes out at the first step at or after its
// time, together with the others of that step. Waking once a step rather than once a frame
// keeps the replay's and the service's wake-ups at a thousand a second at full bus load.
constexpr std::chrono::milliseconds kPlayStep{1};

// Which frames are played. Frames of an interface that is no channel, and error frames (a raw
// CAN socket without an error mask never receives them), are skipped with one warning each.
class FrameSelection {
public:
    explicit FrameSelection(const Channels& channels) : channels_(channels) {}
    // The frame's channel, or -1 to skip it; `file` and `line` say where, for the warning.
    int channelOf(const LogFrame& frame, const std::string& file, std::size_t line);

private:
    const Channels& channels_;
    std::mutex mutex_;
    std::set<std::string> warned_;
};

// Reads a whole log file and checks every line; gives "" or the first error.
std::string checkLog(const std::string& path, FrameSelection& selection);

// Plays logs into the channels on the caller's thread. The logs are merged by their
// timestamps, as if recorded together, and played at their recorded pace.
class Player {
public:
    Player(std::vector<std::string> paths, Channels& channels, Stopper& stopper,
           FrameSelection& selection)
        : paths_(std::move(paths)), channels_(channels), stopper_(stopper), selection_(selection) {}

    // True once every frame has been played and handed to the CAN stack; false when stopped
    // or when a log fails (see error()).
    bool run();
    const std::string& error() const { return error_; }

private:
    struct Source;
    // Reads the source's next frame to be played; false at its end or on a failure.
    bool advance(Source& source);

    // Writes the frames gathered for the current step; false once a channel is closed.
    bool writeStep();

    const std::vector<std::string> paths_;
    Channels& channels_;
    std::vector<std::vector<can_frame>> step_;  // per channel
    Stopper& stopper_;
    FrameSelection& selection_;
    std::string error_;
};

}  // namespace replay
