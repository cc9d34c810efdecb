#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "CanPropertySource/canpropertyreaders.h"
#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "TelematicsCollector/properties.h"
#include "caninterface/caninterface.h"
#include "support/log_capture.h"

using Groups = std::set<std::uint32_t>;
using Bytes = std::vector<std::uint8_t>;
constexpr Bus kBus0 = Bus::MACHINE_250K;
const Bytes kZeros(8, 0);

// A received group as the service hands it over; a code below 0 is a sender without NAME.
struct FakePgnMessage : PgnMessage {
    FakePgnMessage(std::uint32_t group, Bytes bytes, int code) : code(code) {
        pgn = group;
        data = std::move(bytes);
    }
    int manufacturerCode() const override { return code; }
    bool hasSource() const override { return code >= 0; }
    int code;
};

// In-memory CAN service. Touching a filter with no bus chosen is undefined in the real
// service, so it counts as a misuse here.
struct FakeCanInterface : CanInterface {
    bool sendPgnRequest(std::uint32_t pgn, Bus bus) override {
        requests.emplace_back(pgn, bus);
        return busChannelIndex(bus) <= 1;
    }
    void sendPgnRequest(std::uint32_t pgn) override { sendPgnRequest(pgn, chosen); }
    bool addPgnFilter(std::uint32_t pgn, PgnCallback callback, Bus bus) override {
        misuses += busChannelIndex(bus) > 2;
        return filters.emplace(std::make_pair(bus, pgn), std::move(callback)).second;
    }
    bool addPgnFilter(std::uint32_t pgn, PgnCallback callback) override {
        return addPgnFilter(pgn, std::move(callback), chosen);
    }
    bool removePgnFilter(std::uint32_t pgn, Bus bus) override {
        misuses += busChannelIndex(bus) > 2;
        return filters.erase(std::make_pair(bus, pgn)) != 0;
    }
    bool removePgnFilter(std::uint32_t pgn) override { return removePgnFilter(pgn, chosen); }
    bool setPeriodicCallback(PeriodicCallback callback, std::int64_t intervalUs) override {
        periodic = std::move(callback);
        periodicIntervalUs = intervalUs;
        return true;
    }
    bool clearPeriodicCallback() override {
        periodic = nullptr;
        return true;
    }
    bool isAddressClaimed(Bus bus) override { return claimed.count(bus) != 0; }
    bool isAddressClaimed() override { return isAddressClaimed(chosen); }
    bool hasManufacturerOnBus(const std::set<int>& codes) override {
        return std::any_of(channelOneCodes.begin(), channelOneCodes.end(),
                           [&](int code) { return codes.count(code) != 0; });
    }
    void setDefaultBus(Bus bus) override { chosen = bus; }
    Bus defaultBus() override { return chosen; }

    // Hands a frame to its filter; false when no filter takes it.
    bool deliver(Bus bus, std::uint32_t pgn, Bytes data, int code = -1) {
        auto it = filters.find(std::make_pair(bus, pgn));
        if (it == filters.end()) {
            return false;
        }
        PgnCallback callback = it->second;  // the callback may remove its own filter
        callback(FakePgnMessage(pgn, std::move(data), code));
        return true;
    }
    // One expiry of the periodic timer; false when none is installed.
    bool tick() {
        PeriodicCallback callback = periodic;
        if (callback) {
            callback();
        }
        return static_cast<bool>(callback);
    }
    Groups filtersOn(Bus bus) const {
        Groups result;
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
    std::vector<int> channelOneCodes;  // manufacturer codes of the nodes on channel 1
    Bus chosen = Bus::NONE;
    int misuses = 0;
};

// A state machine on the fake service, with both machine files in a private folder.
struct StateMachineRig {
    explicit StateMachineRig(const std::string& userJson = "{}") {
        dir = boost::filesystem::temp_directory_path() /
              boost::filesystem::unique_path("ident-%%%%-%%%%-%%%%");
        boost::filesystem::create_directories(dir);
        userFile = (dir / "machine.json").string();
        detectedFile = (dir / "telematics" / "detectedMachine.json").string();
        std::ofstream(userFile) << userJson;
        machine =
            std::make_shared<CanPropertySourceStateMachine>(properties, userFile, detectedFile);
    }
    ~StateMachineRig() {
        if (machine) {
            machine->onStop();  // as the service does when its thread ends
        }
        EXPECT_EQ(can->misuses, 0) << "a filter was touched while no bus was chosen";
        boost::system::error_code ignored;
        boost::filesystem::remove_all(dir, ignored);
    }

    void start() { machine->onStart(can); }
    // Up to the manufacturer detector on the given bus, with the address claimed.
    void toManufacturerDetector(Bus bus = kBus0) {
        start();
        can->claimed.insert(bus);
        can->deliver(bus, 0xF004, kZeros);
    }
    // Identified through a compliant engine frame with this manufacturer code.
    void identify(int code) {
        toManufacturerDetector();
        can->deliver(kBus0, 0xF004, kZeros, code);
    }

    std::string current() const {
        const int index = machine->currentStateIndex();
        const auto& states = machine->states();
        if (index < 0) {
            return "";
        }
        const auto& state = *states.at(std::size_t(index));  // typeid of a call is a warning
        return demangledTypeName(typeid(state).name());
    }
    std::vector<std::string> transitions() const {
        const std::string prefix = "INFO State machine transitioning to ";
        std::vector<std::string> result;
        for (const auto& line : log.lines()) {
            if (logtest::startsWith(line, prefix)) {
                result.push_back(line.substr(prefix.size()));
            }
        }
        return result;
    }
    template <typename T>
    static std::vector<T> values(const Property<T>& property) {
        std::vector<T> result;
        for (const auto& sample : property.unflushedSamples()) {
            result.push_back(sample.value);
        }
        return result;
    }
    std::string detectedFileText() const {
        std::stringstream text;
        text << std::ifstream(detectedFile).rdbuf();
        return text.str();
    }

    logtest::LogCapture log{"tilthwatch.canpropertysourcestatemachine"};
    boost::filesystem::path dir;
    std::string userFile;
    std::string detectedFile;
    std::shared_ptr<Properties> properties = std::make_shared<Properties>();
    std::shared_ptr<FakeCanInterface> can = std::make_shared<FakeCanInterface>();
    std::shared_ptr<CanPropertySourceStateMachine> machine;
};

// The standard groups every reader keeps on the default bus.
inline Groups standardGroups(Groups extra = {}) {
    Groups groups = {0xF004, 0xF003, 0xFEF2, 0xFEEE, 0xFEEF, 0xFEF8, 0xFE56, 0xFEE5, 0xFEFC};
    groups.insert(extra.begin(), extra.end());
    return groups;
}
