#pragma once

#include <linux/can.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "replay/stopper.h"

namespace replay {

// The replay's side of the service's CAN channels: one socketpair(AF_UNIX, SOCK_SEQPACKET) per
// channel name, carrying 16-byte can_frame records as a raw CAN socket does. The service gets
// one end of each through the opener; the replay writes the log's frames into the other end
// and reads there what the service sends.
class Channels {
public:
    Channels(const std::vector<std::string>& names, Stopper& stopper);
    ~Channels();
    Channels(const Channels&) = delete;
    Channels& operator=(const Channels&) = delete;

    // For the CAN service: hands each service end out once.
    std::function<int(const std::string&)> opener();
    // Returns once the service has opened every channel; false when stopped first.
    bool waitUntilOpened();

    // The channel of an interface name, or -1.
    int index(const std::string& interface) const;
    const std::string& name(int channel) const { return names_[channel]; }
    std::size_t count() const { return names_.size(); }

    // False once the service has closed the channel.
    bool write(int channel, const can_frame& frame);
    // Writes the frames in order, many to a system call.
    bool write(int channel, const can_frame* frames, std::size_t count);
    // Returns once every frame written so far has been handed to the CAN stack; false when
    // stopped first.
    bool waitUntilDelivered();

    // Gives each frame the service writes, until the service has closed every channel or the
    // replay stops. Runs on the caller's thread.
    void readSent(const std::function<void(int channel, const can_frame&)>& onFrame);

private:
    bool waitUntilTaken();

    const std::vector<std::string> names_;
    Stopper& stopper_;
    std::vector<int> peerEnds_;
    std::mutex mutex_;
    std::condition_variable opened_;
    std::vector<int> serviceEnds_;  // -1 once handed out
    std::size_t handedOut_ = 0;
};

}  // namespace replay
