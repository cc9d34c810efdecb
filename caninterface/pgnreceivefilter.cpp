#include "caninterface/pgnreceivefilter.h"

#include <utility>

#include "canstack/canmessage.h"
#include "canstack/controlfunction.h"

int PgnMessageImplementation::manufacturerCode() const {
    if (source == nullptr) {
        return -1;
    }
    return static_cast<int>(source->getNAME().getManufacturerCode());
}

PgnReceiveFilter::PgnReceiveFilter(std::uint32_t pgn, CanInterface::PgnCallback callback,
                                   std::uint8_t channel)
    : callback(std::move(callback)) {
    // The base starts with one empty record, which would match every frame: a refused group
    // registers nothing.
    if (!setParameterGroupNumber(pgn)) {
        return;
    }
    setChannel(channel);
    handle = addCallback(static_cast<ReceiveCANMessageCallbackClass*>(this));
}

PgnReceiveFilter::~PgnReceiveFilter() {
    if (handle != nullptr) {
        removeCallback(handle);
    }
    if (destroyed != nullptr) {
        *destroyed = true;
    }
}

void PgnReceiveFilter::receiveCANMessage(CANMessageClass* received) {
    message.pgn = received->getParameterGroupNumber();
    const std::uint32_t length = received->getDataLength();
    const std::uint8_t* bytes = nullptr;
    if (received->getDataPointer(bytes)) {
        message.data.assign(bytes, bytes + length);
    } else {
        // A reassembled message spread over pool blocks has no pointer of its own.
        message.data.resize(length);
        if (length != 0 && !received->getData(message.data.data(), 0, length)) {
            message.data.clear();
        }
    }
    message.source = received->getSourceControlFunction();

    if (running != nullptr) {
        // Re-entered from our own callback (a frame sent from within it): same closure.
        (*running)(message);
        return;
    }
    // The callback may remove this filter. It runs from a local so that its closure outlives
    // the call; swapping a std::function moves no heap memory.
    CanInterface::PgnCallback local;
    local.swap(callback);
    bool gone = false;
    running = &local;
    destroyed = &gone;
    local(message);
    if (!gone) {
        running = nullptr;
        destroyed = nullptr;
        callback.swap(local);
    }
}
