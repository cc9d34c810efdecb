#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "caninterface/canapplication_i.h"
#include "caninterface/caninterface.h"

class CANTransmitMessageClass;
class MachineBusWatcherControlFunction;
class PgnReceiveFilter;

// Opens a CAN channel by interface name and gives its descriptor, -1 when it cannot. The
// descriptor carries 16-byte `struct can_frame` records, as a raw CAN socket does.
using ChannelOpener = std::function<int(const std::string& name)>;

// The CAN service: owns the channels and the two CAN threads, and drives the stack. Every call
// into the stack, every filter callback and the periodic callback run on the CAN main thread;
// the CAN send thread only writes queued frames.
class CanInterfaceImplementation : public CanInterface,
                                   public std::enable_shared_from_this<CanInterfaceImplementation> {
public:
    static constexpr std::int64_t kStackUpdateIntervalUs = 4000;
    static constexpr int kValidityWaits = 131;
    static constexpr int kValidityWaitStepMs = 5;
    static constexpr int kWriteAttempts = 10;
    static constexpr int kWriteRetryStepMs = 2;
    // Frames taken from a socket in one system call; each pass still handles one per channel.
    static constexpr unsigned kReadBatch = 32;

    // Opens channels through SocketCAN.
    CanInterfaceImplementation();
    explicit CanInterfaceImplementation(ChannelOpener opener);
    // Stops the threads if they still run.
    ~CanInterfaceImplementation() override;
    CanInterfaceImplementation(const CanInterfaceImplementation&) = delete;
    CanInterfaceImplementation& operator=(const CanInterfaceImplementation&) = delete;

    // Starts the CAN main thread on a copy of the channel names; position = channel index.
    // Returns at once; a second call does nothing.
    void start(std::shared_ptr<CanApplication_i> application, std::vector<std::string> channels);
    // Leaves the main loop, runs the application's onStop on the CAN main thread, joins both
    // threads and closes the channels. Returns once all that is done.
    void stop();

    bool sendPgnRequest(std::uint32_t pgn, Bus bus) override;
    void sendPgnRequest(std::uint32_t pgn) override;
    bool addPgnFilter(std::uint32_t pgn, PgnCallback callback, Bus bus) override;
    bool addPgnFilter(std::uint32_t pgn, PgnCallback callback) override;
    bool removePgnFilter(std::uint32_t pgn, Bus bus) override;
    bool removePgnFilter(std::uint32_t pgn) override;
    bool setPeriodicCallback(PeriodicCallback callback, std::int64_t intervalUs) override;
    bool clearPeriodicCallback() override;
    bool isAddressClaimed(Bus bus) override;
    bool isAddressClaimed() override;
    bool hasManufacturerOnBus(const std::set<int>& manufacturerCodes) override;
    void setDefaultBus(Bus bus) override;
    Bus defaultBus() override;

    // The stack's transmit function; it has no context argument, hence the singleton.
    static bool TransmitCANMessage(CANTransmitMessageClass* message);
    // The live service while its CAN main thread runs, null otherwise.
    static CanInterfaceImplementation* m_dangerousCanThreadSingletonPointer;

private:
    // A queued frame: the heap copy belongs to the service until its last result is handled.
    struct Completion {
        CANTransmitMessageClass* message;
        bool success;
        bool last;  // the copy is freed once this result has been handled
    };
    struct Queued {
        CANTransmitMessageClass* message;
        bool prepared;  // addresses filled in on the CAN main thread
    };

    void canMainThreadMethod(std::shared_ptr<CanApplication_i> application,
                             std::vector<std::string> channels);
    void canSendThreadMethod();
    void runMainLoop();
    void drainCompletions();
    struct Inbox;
    // Takes what waits in the channel's socket, up to one batch; false when nothing came.
    bool fillInbox(std::size_t channel, Inbox& inbox);
    void deliverFrame(std::size_t channel, const struct can_frame& frame);
    bool writeFrame(CANTransmitMessageClass& message, bool prepare);
    void freeQueues();
    int openChannel(const std::string& name);

    std::thread m_mainThread;
    std::thread m_sendThread;
    std::atomic<bool> m_running{false};
    std::mutex m_sendMutex;
    std::mutex m_completionMutex;
    std::condition_variable m_sendCondition;
    std::deque<Queued> m_sendQueue;
    std::deque<Completion> m_completionQueue;
    // Set with the queue under m_completionMutex: spares the main loop the lock on most passes.
    std::atomic<bool> m_completionsWaiting{false};
    PeriodicCallback m_periodicCallback;
    std::int64_t m_periodicInterval = 0;
    std::vector<std::shared_ptr<MachineBusWatcherControlFunction>> m_watchers;
    std::vector<std::map<std::uint32_t, std::unique_ptr<PgnReceiveFilter>>> m_filters;
    std::vector<int> m_sockets;
    Bus m_defaultBus = Bus::NONE;

    ChannelOpener m_opener;
    // Wakes the main loop's poll when the service stops.
    int m_wakeFd = -1;
    // Swapped with m_completionQueue each pass, so draining allocates nothing.
    std::deque<Completion> m_completionDrain;
};
