#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "caninterface/caninterface.h"

// A received group as the real service hands it over; code < 0 means a sender without NAME.
class FakePgnMessage : public PgnMessage {
public:
    FakePgnMessage(std::uint32_t group, std::vector<std::uint8_t> bytes, int code = -1)
        : m_code(code) {
        pgn = group;
        data = std::move(bytes);
    }
    int manufacturerCode() const override { return m_code < 0 ? -1 : m_code; }
    bool hasSource() const override { return m_code >= 0; }

private:
    int m_code;
};

// In-memory CAN service: filters per bus, requests, the periodic callback, the address
// claim per bus and the manufacturer codes of the nodes on each channel.
class FakeCanInterface : public CanInterface {
public:
    bool sendPgnRequest(std::uint32_t pgn, Bus bus) override {
        if (busChannelIndex(bus) > 1) {
            return false;  // only the machine buses have a node of ours
        }
        requests.emplace_back(pgn, bus);
        return true;
    }
    void sendPgnRequest(std::uint32_t pgn) override {
        if (m_defaultBus == Bus::NONE) {
            ++refusedRequests;
            return;
        }
        sendPgnRequest(pgn, m_defaultBus);
    }
    bool addPgnFilter(std::uint32_t pgn, PgnCallback callback, Bus bus) override {
        if (busChannelIndex(bus) > 2) {
            ++misuses;
            return false;
        }
        return filters.emplace(std::make_pair(bus, pgn), std::move(callback)).second;
    }
    bool addPgnFilter(std::uint32_t pgn, PgnCallback callback) override {
        addPgnFilter(pgn, std::move(callback), m_defaultBus);
        return false;
    }
    bool removePgnFilter(std::uint32_t pgn, Bus bus) override {
        if (busChannelIndex(bus) > 2) {
            ++misuses;
            return false;
        }
        return filters.erase(std::make_pair(bus, pgn)) != 0;
    }
    bool removePgnFilter(std::uint32_t pgn) override { return removePgnFilter(pgn, m_defaultBus); }
    bool setPeriodicCallback(PeriodicCallback callback, std::int64_t intervalUs) override {
        if (periodic) {
            return false;
        }
        periodic = std::move(callback);
        periodicIntervalUs = intervalUs;
        return true;
    }
    bool clearPeriodicCallback() override {
        const bool had = static_cast<bool>(periodic);
        periodic = nullptr;
        return had;
    }
    bool isAddressClaimed(Bus bus) override { return claimed.count(bus) != 0; }
    bool isAddressClaimed() override { return isAddressClaimed(m_defaultBus); }
    bool hasManufacturerOnBus(const std::set<int>& codes) override {
        for (int code : nodesByChannel[1]) {
            if (codes.count(code) != 0) {
                return true;
            }
        }
        return false;
    }
    void setDefaultBus(Bus bus) override { m_defaultBus = bus; }
    Bus defaultBus() override { return m_defaultBus; }

    // Delivers a frame as the service would; false when no filter took it.
    bool deliver(Bus bus, std::uint32_t pgn, std::vector<std::uint8_t> data, int code = -1) {
        auto it = filters.find(std::make_pair(bus, pgn));
        if (it == filters.end()) {
            return false;
        }
        PgnCallback callback = it->second;  // the callback may remove its own filter
        FakePgnMessage message(pgn, std::move(data), code);
        callback(message);
        return true;
    }
    // One expiry of the periodic timer; false when none is installed.
    bool tick() {
        if (!periodic) {
            return false;
        }
        PeriodicCallback callback = periodic;
        callback();
        return true;
    }
    std::set<std::uint32_t> filtersOn(Bus bus) const {
        std::set<std::uint32_t> result;
        for (const auto& entry : filters) {
            if (entry.first.first == bus) {
                result.insert(entry.first.second);
            }
        }
        return result;
    }

    std::map<std::pair<Bus, std::uint32_t>, PgnCallback> filters;
    std::vector<std::pair<std::uint32_t, Bus>> requests;
    PeriodicCallback periodic;
    std::int64_t periodicIntervalUs = 0;
    std::set<Bus> claimed;
    std::map<int, std::vector<int>> nodesByChannel;
    int refusedRequests = 0;
    int misuses = 0;  // filter calls with no bus: undefined in the real service

private:
    Bus m_defaultBus = Bus::NONE;
};
