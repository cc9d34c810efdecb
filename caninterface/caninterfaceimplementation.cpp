#include "caninterface/caninterfaceimplementation.h"

#include <linux/can.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "caninterface/machinebuswatchercontrolfunction.h"
#include "caninterface/pgnreceivefilter.h"
#include "caninterface/socketcan.h"
#include "canstack/canmessage.h"
#include "canstack/controlfunction.h"
#include "canstack/networkmanagement.h"

static_assert(sizeof(can_frame) == 16, "a CAN record is 16 bytes");

CanInterfaceImplementation* CanInterfaceImplementation::m_dangerousCanThreadSingletonPointer =
    nullptr;

namespace {

constexpr std::uint8_t kWatchedChannels = 2;
constexpr std::uint32_t kExtendedFlag = 0x80000000u;

// The stack sends through this service from the start.
const bool transmitInstalled =
    (NetworkManagementClass::TransmitCANMessage = &CanInterfaceImplementation::TransmitCANMessage,
     true);

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

CanInterfaceImplementation::CanInterfaceImplementation()
    : CanInterfaceImplementation(ChannelOpener()) {}

CanInterfaceImplementation::CanInterfaceImplementation(ChannelOpener opener)
    : m_opener(std::move(opener)) {
    (void)transmitInstalled;
}

CanInterfaceImplementation::~CanInterfaceImplementation() {
    stop();
    freeQueues();
    if (m_wakeFd >= 0) {
        ::close(m_wakeFd);
    }
}

int CanInterfaceImplementation::openChannel(const std::string& name) {
    return m_opener ? m_opener(name) : initializeSocket(name);
}

// ---------------------------------------------------------------- lifecycle

void CanInterfaceImplementation::start(std::shared_ptr<CanApplication_i> application,
                                       std::vector<std::string> channels) {
    if (m_running.exchange(true)) {
        return;
    }
    if (m_wakeFd < 0) {
        m_wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    } else {
        std::uint64_t stale = 0;  // a wake-up left by an earlier stop
        (void)!::read(m_wakeFd, &stale, sizeof(stale));
    }
    // Assigning to a joinable thread object ends the process, as it should: never two.
    m_mainThread = std::thread(&CanInterfaceImplementation::canMainThreadMethod, this,
                               std::move(application), std::move(channels));
}

void CanInterfaceImplementation::stop() {
    if (m_running.exchange(false)) {
        if (m_wakeFd >= 0) {
            const std::uint64_t one = 1;
            (void)!::write(m_wakeFd, &one, sizeof(one));
        }
        // Taking the mutex orders this with the send thread's test of m_running before it
        // waits, so the notification cannot fall between the two.
        { std::lock_guard<std::mutex> lock(m_sendMutex); }
        m_sendCondition.notify_all();
    }
    if (m_mainThread.joinable() && m_mainThread.get_id() != std::this_thread::get_id()) {
        m_mainThread.join();
    }
}

void CanInterfaceImplementation::canMainThreadMethod(std::shared_ptr<CanApplication_i> application,
                                                     std::vector<std::string> channels) {
    ::pthread_setname_np(::pthread_self(), "can-main");  // for top and perf
    for (const std::string& name : channels) {
        m_sockets.push_back(openChannel(name));
    }
    m_filters.resize(std::max(m_filters.size(), channels.size()));
    m_sendThread = std::thread(&CanInterfaceImplementation::canSendThreadMethod, this);
    m_dangerousCanThreadSingletonPointer = this;
    for (auto channel = static_cast<std::uint8_t>(m_watchers.size()); channel < kWatchedChannels;
         ++channel) {
        m_watchers.push_back(std::make_shared<MachineBusWatcherControlFunction>(channel));
    }
    application->onStart(shared_from_this());

    runMainLoop();

    application->onStop();
    m_sendThread.join();
    // Results of frames still queued or unreported are dropped with their copies.
    freeQueues();
    m_dangerousCanThreadSingletonPointer = nullptr;
    for (int socket : m_sockets) {
        if (socket >= 0) {
            ::close(socket);
        }
    }
    m_sockets.clear();
}

void CanInterfaceImplementation::freeQueues() {
    std::deque<Queued> queued;
    {
        std::lock_guard<std::mutex> lock(m_sendMutex);
        queued.swap(m_sendQueue);
    }
    for (const Queued& entry : queued) {
        delete entry.message;
    }
    std::deque<Completion> completions;
    {
        std::lock_guard<std::mutex> lock(m_completionMutex);
        completions.swap(m_completionQueue);
    }
    for (const Completion& entry : completions) {
        if (entry.last) {
            delete entry.message;
        }
    }
}

// ---------------------------------------------------------------- main loop

// Frames read from one socket and not yet handed to the stack, oldest first.
struct CanInterfaceImplementation::Inbox {
    std::array<can_frame, kReadBatch> frames;
    std::array<iovec, kReadBatch> vectors;
    std::array<mmsghdr, kReadBatch> headers;
    unsigned next = 0;
    unsigned count = 0;

    Inbox() {
        for (unsigned i = 0; i < kReadBatch; ++i) {
            vectors[i] = iovec{&frames[i], sizeof(can_frame)};
            std::memset(&headers[i], 0, sizeof(mmsghdr));
            headers[i].msg_hdr.msg_iov = &vectors[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
    }
    bool empty() const { return next == count; }
};

void CanInterfaceImplementation::runMainLoop() {
    const std::size_t channelCount = m_sockets.size();
    std::int64_t stackTimer = kStackUpdateIntervalUs;
    std::int64_t periodicTimer = 0;
    std::int64_t lastNoted = nowNs();

    // One entry per channel, then the stop wake-up. A channel that could not be opened keeps
    // -1, which poll passes over: reading "frames" from another descriptor would be wrong.
    std::vector<pollfd> fds(channelCount + 1);
    for (std::size_t i = 0; i < channelCount; ++i) {
        fds[i] = pollfd{m_sockets[i], POLLIN, 0};
    }
    fds[channelCount] = pollfd{m_wakeFd, POLLIN, 0};
    std::vector<Inbox> inboxes(channelCount);
    std::size_t waiting = 0;  // frames in all inboxes

    while (m_running.load()) {
        // Frames already taken from the sockets are handled first, one per channel and pass;
        // the sockets are asked again once every inbox is empty.
        if (waiting == 0) {
            std::int64_t waitUs = stackTimer;
            if (m_periodicCallback && periodicTimer < waitUs) {
                waitUs = periodicTimer;
            }
            waitUs = std::max<std::int64_t>(0, std::min(waitUs, kStackUpdateIntervalUs));

            std::size_t active = channelCount;
            for (std::size_t i = 0; i < channelCount; ++i) {
                fds[i].fd = m_sockets[i];
                fds[i].revents = 0;
            }
            fds[channelCount].revents = 0;
            int polled = 0;
            bool frameWaiting = false;
            // The wait is in microseconds but poll counts milliseconds: a silent bus runs the
            // stack about every 4 s, a busy one every 4 ms, as elapsed time drives the timers.
            while (!frameWaiting && active > 0) {
                polled = ::poll(fds.data(), fds.size(), static_cast<int>(waitUs));
                if (polled <= 0 || (fds[channelCount].revents & POLLIN) != 0) {
                    break;
                }
                for (std::size_t i = 0; i < channelCount; ++i) {
                    if ((fds[i].revents & POLLIN) != 0) {
                        frameWaiting = true;
                    } else if ((fds[i].revents & POLLERR) != 0) {
                        --active;
                        fds[i].fd = -1;
                        fds[i].revents = 0;
                    }
                }
            }
            if (active == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(waitUs));
            }
            if (polled > 0) {
                for (std::size_t i = 0; i < channelCount; ++i) {
                    if ((fds[i].revents & POLLIN) != 0 && fillInbox(i, inboxes[i])) {
                        waiting += inboxes[i].count;
                    }
                }
            }
        }

        drainCompletions();

        for (std::size_t i = 0; i < channelCount && waiting > 0; ++i) {
            Inbox& inbox = inboxes[i];
            if (!inbox.empty()) {
                --waiting;
                deliverFrame(i, inbox.frames[inbox.next++]);
            }
        }

        const std::int64_t now = nowNs();
        const std::int64_t elapsedUs = (now - lastNoted) / 1000;
        stackTimer -= elapsedUs;
        periodicTimer -= elapsedUs;
        periodicTimer = std::min(periodicTimer, m_periodicInterval);
        if (stackTimer <= 0) {
            NetworkManagementClass::update();
            stackTimer = kStackUpdateIntervalUs;
        }
        if (m_periodicCallback && periodicTimer <= 0) {
            // A copy: the callback may clear or replace itself.
            PeriodicCallback callback = m_periodicCallback;
            callback();
            periodicTimer = m_periodicInterval;
        }
        lastNoted = now;
    }
}

void CanInterfaceImplementation::drainCompletions() {
    if (!m_completionsWaiting.load(std::memory_order_acquire)) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_completionMutex);
        m_completionDrain.swap(m_completionQueue);
        m_completionsWaiting.store(false, std::memory_order_relaxed);
    }
    for (const Completion& entry : m_completionDrain) {
        NetworkManagementClass::transmitComplete(entry.message, entry.success);
        if (entry.last) {
            delete entry.message;
        }
    }
    m_completionDrain.clear();
}

bool CanInterfaceImplementation::fillInbox(std::size_t channel, Inbox& inbox) {
    inbox.next = 0;
    inbox.count = 0;
    std::memset(inbox.frames.data(), 0, sizeof(inbox.frames));
    const int fd = m_sockets[channel];
    int received = ::recvmmsg(fd, inbox.headers.data(), kReadBatch, MSG_DONTWAIT, nullptr);
    if (received < 0 && errno == ENOTSOCK) {
        // A channel handed over as a plain descriptor: one record per read.
        received = ::read(fd, &inbox.frames[0], sizeof(can_frame)) > 0 ? 1 : 0;
        inbox.headers[0].msg_len = sizeof(can_frame);
    }
    for (int i = 0; i < received; ++i) {
        // An empty record is what a read of 0 bytes would be: nothing.
        if (inbox.headers[i].msg_len > 0) {
            inbox.frames[inbox.count++] = inbox.frames[i];
        }
    }
    return inbox.count > 0;
}

void CanInterfaceImplementation::deliverFrame(std::size_t channel, const can_frame& frame) {
    const std::uint32_t word = frame.can_id;
    const bool extended = (word & kExtendedFlag) != 0;
    CANReceiveMessageClass message(extended ? 1 : 0,
                                   word & (extended ? CAN_EFF_MASK : CAN_SFF_MASK), frame.data,
                                   frame.can_dlc, static_cast<std::uint8_t>(channel));
    NetworkManagementClass::receiveMessage(&message);
}

// ---------------------------------------------------------------- sending

bool CanInterfaceImplementation::TransmitCANMessage(CANTransmitMessageClass* message) {
    CanInterfaceImplementation* self = m_dangerousCanThreadSingletonPointer;
    if (self == nullptr || message == nullptr) {
        return false;
    }
    if (message->isImmediate()) {
        const bool written = self->writeFrame(*message, true);
        NetworkManagementClass::transmitComplete(message, written);
        return written;
    }
    CANTransmitMessageClass* copy = new CANTransmitMessageClass(*message);
    // The addresses come from the stack's tables, which only this thread may read.
    const bool prepared = copy->prepareIdentifierForTransmit();
    {
        std::lock_guard<std::mutex> lock(self->m_sendMutex);
        self->m_sendQueue.push_back(Queued{copy, prepared});
    }
    self->m_sendCondition.notify_all();
    return true;
}

bool CanInterfaceImplementation::writeFrame(CANTransmitMessageClass& message, bool prepare) {
    const std::uint32_t length = message.getDataLength();
    const std::uint8_t* data = nullptr;
    if (!message.getDataPointer(data) || data == nullptr) {
        return false;
    }
    if (prepare && !message.prepareIdentifierForTransmit()) {
        return false;
    }
    can_frame frame;
    std::memset(&frame, 0, sizeof(frame));
    frame.can_id = message.getIdentifier().getWord();
    frame.can_dlc = static_cast<std::uint8_t>(std::min<std::uint32_t>(length, CAN_MAX_DLEN));
    std::memcpy(frame.data, data, frame.can_dlc);
    const std::uint8_t channel = message.getChannel();
    const int socket = channel < m_sockets.size() ? m_sockets[channel] : -1;
    return ::write(socket, &frame, sizeof(frame)) > 0;
}

void CanInterfaceImplementation::canSendThreadMethod() {
    ::pthread_setname_np(::pthread_self(), "can-send");
    while (m_running.load()) {
        Queued next;
        {
            std::unique_lock<std::mutex> lock(m_sendMutex);
            if (m_sendQueue.empty()) {
                if (m_running.load()) {
                    m_sendCondition.wait(lock);
                }
                continue;
            }
            next = m_sendQueue.front();
            m_sendQueue.pop_front();
        }
        CANTransmitMessageClass* message = next.message;
        for (int waits = kValidityWaits; !message->isValid() && --waits > 0;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kValidityWaitStepMs));
        }
        if (!message->isValid()) {
            delete message;  // dropped without a result
            continue;
        }
        for (int attempt = 1; attempt <= kWriteAttempts; ++attempt) {
            const bool written = next.prepared && writeFrame(*message, false);
            const bool last = written || attempt == kWriteAttempts;
            {
                std::lock_guard<std::mutex> lock(m_completionMutex);
                m_completionQueue.push_back(Completion{message, written, last});
                m_completionsWaiting.store(true, std::memory_order_release);
            }
            if (written) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(kWriteRetryStepMs));
        }
    }
}

// ---------------------------------------------------------------- CanInterface

bool CanInterfaceImplementation::sendPgnRequest(std::uint32_t pgn, Bus bus) {
    const std::uint8_t channel = busChannelIndex(bus);
    if (channel >= m_watchers.size()) {
        return false;
    }
    return m_watchers[channel]->requestParameterGroupNumber(pgn);
}

void CanInterfaceImplementation::sendPgnRequest(std::uint32_t pgn) {
    if (m_defaultBus == Bus::NONE) {
        std::fputs("Error: No machine bus selected, failed to send global pgn request\n", stderr);
        return;
    }
    sendPgnRequest(pgn, m_defaultBus);
}

bool CanInterfaceImplementation::addPgnFilter(std::uint32_t pgn, PgnCallback callback, Bus bus) {
    const std::uint8_t channel = busChannelIndex(bus);
    if (channel >= m_filters.size()) {
        return false;
    }
    auto& filters = m_filters[channel];
    if (filters.count(pgn) != 0) {
        return false;
    }
    filters.emplace(pgn, std::make_unique<PgnReceiveFilter>(pgn, std::move(callback), channel));
    return true;
}

bool CanInterfaceImplementation::addPgnFilter(std::uint32_t pgn, PgnCallback callback) {
    addPgnFilter(pgn, std::move(callback), m_defaultBus);
    return false;
}

bool CanInterfaceImplementation::removePgnFilter(std::uint32_t pgn, Bus bus) {
    const std::uint8_t channel = busChannelIndex(bus);
    if (channel >= m_filters.size()) {
        return false;
    }
    auto& filters = m_filters[channel];
    const auto found = filters.find(pgn);
    if (found == filters.end()) {
        return false;
    }
    // Out of the map before it is destroyed, so its own callback finds the slot free.
    std::unique_ptr<PgnReceiveFilter> filter = std::move(found->second);
    filters.erase(found);
    filter.reset();
    return true;
}

bool CanInterfaceImplementation::removePgnFilter(std::uint32_t pgn) {
    return removePgnFilter(pgn, m_defaultBus);
}

bool CanInterfaceImplementation::setPeriodicCallback(PeriodicCallback callback,
                                                     std::int64_t intervalUs) {
    if (m_periodicCallback) {
        return false;
    }
    m_periodicCallback = std::move(callback);
    m_periodicInterval = intervalUs;
    return true;
}

bool CanInterfaceImplementation::clearPeriodicCallback() {
    if (!m_periodicCallback) {
        return false;
    }
    m_periodicCallback = nullptr;
    return true;
}

bool CanInterfaceImplementation::isAddressClaimed(Bus bus) {
    const std::uint8_t channel = busChannelIndex(bus);
    if (channel >= m_watchers.size()) {
        return false;
    }
    return m_watchers[channel]->isAddressValid();
}

bool CanInterfaceImplementation::isAddressClaimed() {
    return isAddressClaimed(m_defaultBus);
}

bool CanInterfaceImplementation::hasManufacturerOnBus(const std::set<int>& manufacturerCodes) {
    // Channel 1 whatever the default bus: the machines this looks for put it there.
    constexpr std::uint8_t kChannel = 1;
    for (std::uint16_t index = 0;
         index < NetworkManagementClass::countControlFunctionsByNAMEFields(nullptr, 0, kChannel);
         ++index) {
        ControlFunctionClass* function = nullptr;
        if (NetworkManagementClass::findControlFunctionByNAMEFields(index, nullptr, 0, kChannel,
                                                                    function) &&
            function != nullptr &&
            manufacturerCodes.count(static_cast<int>(function->getNAME().getManufacturerCode())) !=
                0) {
            return true;
        }
    }
    return false;
}

void CanInterfaceImplementation::setDefaultBus(Bus bus) {
    m_defaultBus = bus;
}

Bus CanInterfaceImplementation::defaultBus() {
    return m_defaultBus;
}
