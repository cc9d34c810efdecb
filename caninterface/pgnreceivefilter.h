#pragma once

#include <cstdint>

#include "caninterface/caninterface.h"
#include "caninterface/pgnmessage.h"
#include "canstack/canprotocol.h"
#include "canstack/filteredmessagecallback.h"

// The received group as the stack hands it over.
class PgnMessageImplementation : public PgnMessage {
public:
    int manufacturerCode() const override;
    bool hasSource() const override { return source != nullptr; }
};

// Stands behind one addPgnFilter: matches the group on one channel and hands each message to
// the application's callback, on the CAN main thread.
class PgnReceiveFilter : public FilteredMessageMatchingCallbackClass,
                         public ReceiveCANMessageCallbackClass {
public:
    PgnReceiveFilter(std::uint32_t pgn, CanInterface::PgnCallback callback, std::uint8_t channel);
    ~PgnReceiveFilter() override;
    PgnReceiveFilter(const PgnReceiveFilter&) = delete;
    PgnReceiveFilter& operator=(const PgnReceiveFilter&) = delete;

    void receiveCANMessage(CANMessageClass* message) override;

private:
    CanInterface::PgnCallback callback;
    PgnMessageImplementation message;
    // Null when the group was refused: the filter then stays silent.
    FILTERED_MESSAGE_CALLBACK_STRUCT* handle = nullptr;
    // While the callback runs: the closure being run, and where to note our destruction.
    CanInterface::PgnCallback* running = nullptr;
    bool* destroyed = nullptr;
};
