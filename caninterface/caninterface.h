#pragma once

#include <cstdint>
#include <functional>
#include <set>

#include "caninterface/bus.h"
#include "caninterface/pgnmessage.h"

// The CAN service as the application sees it. Every call and every callback runs on the
// CAN main thread.
class CanInterface {
public:
    using PgnCallback = std::function<void(const PgnMessage&)>;
    using PeriodicCallback = std::function<void()>;

    virtual ~CanInterface() = default;

    // Global request for pgn from this device's node on the bus; false when refused.
    virtual bool sendPgnRequest(std::uint32_t pgn, Bus bus) = 0;
    // The same on the default bus; refused while no bus is chosen.
    virtual void sendPgnRequest(std::uint32_t pgn) = 0;

    // One filter per PGN and bus: false and no change when one already stands.
    virtual bool addPgnFilter(std::uint32_t pgn, PgnCallback callback, Bus bus) = 0;
    // Default-bus form; its result carries no information.
    virtual bool addPgnFilter(std::uint32_t pgn, PgnCallback callback) = 0;

    // False when no filter for pgn stands on the bus.
    virtual bool removePgnFilter(std::uint32_t pgn, Bus bus) = 0;
    virtual bool removePgnFilter(std::uint32_t pgn) = 0;

    // One periodic callback at a time; interval in microseconds.
    virtual bool setPeriodicCallback(PeriodicCallback callback, std::int64_t intervalUs) = 0;
    virtual bool clearPeriodicCallback() = 0;

    virtual bool isAddressClaimed(Bus bus) = 0;
    virtual bool isAddressClaimed() = 0;

    // Whether a node of channel 1 has one of the manufacturer codes.
    virtual bool hasManufacturerOnBus(const std::set<int>& manufacturerCodes) = 0;

    virtual void setDefaultBus(Bus bus) = 0;
    virtual Bus defaultBus() = 0;
};
