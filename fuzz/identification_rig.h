#pragma once

// The identification state machine on an in-memory CAN service, for the fuzz targets: frames
// go straight to the filters that the states installed. Each input builds its own machine,
// properties and files, so nothing carries over between inputs but the log configuration.

#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "TelematicsCollector/properties.h"
#include "caninterface/bus.h"
#include "caninterface/caninterface.h"
#include "caninterface/pgnmessage.h"

namespace fuzzrig {

inline void fail(const char* what) {
    std::fprintf(stderr, "identification fuzzer: %s\n", what);
    std::abort();
}

// Every line is formatted and then dropped: the formatting runs on the data too.
inline void quietLogging() {
    static log4cplus::Initializer initializer;
    static const bool done = [] {
        log4cplus::Logger root = log4cplus::Logger::getRoot();
        root.setLogLevel(log4cplus::ALL_LOG_LEVEL);
        root.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
        return true;
    }();
    (void)done;
}

struct Message : PgnMessage {
    Message(std::uint32_t group, std::vector<std::uint8_t> bytes, int code) : code(code) {
        pgn = group;
        data = std::move(bytes);
    }
    int manufacturerCode() const override { return code; }
    bool hasSource() const override { return code >= 0; }
    int code;
};

// Touching a filter while no bus is chosen is undefined in the real service: a finding here.
struct FakeCan : CanInterface {
    bool sendPgnRequest(std::uint32_t, Bus bus) override { return busChannelIndex(bus) <= 2; }
    void sendPgnRequest(std::uint32_t pgn) override { sendPgnRequest(pgn, chosen); }
    bool addPgnFilter(std::uint32_t pgn, PgnCallback callback, Bus bus) override {
        if (busChannelIndex(bus) > 2) {
            fail("a filter added with no bus chosen");
        }
        return filters.emplace(std::make_pair(bus, pgn), std::move(callback)).second;
    }
    bool addPgnFilter(std::uint32_t pgn, PgnCallback callback) override {
        return addPgnFilter(pgn, std::move(callback), chosen);
    }
    bool removePgnFilter(std::uint32_t pgn, Bus bus) override {
        if (busChannelIndex(bus) > 2) {
            fail("a filter removed with no bus chosen");
        }
        return filters.erase(std::make_pair(bus, pgn)) != 0;
    }
    bool removePgnFilter(std::uint32_t pgn) override { return removePgnFilter(pgn, chosen); }
    bool setPeriodicCallback(PeriodicCallback callback, std::int64_t) override {
        periodic = std::move(callback);
        return true;
    }
    bool clearPeriodicCallback() override {
        periodic = nullptr;
        return true;
    }
    bool isAddressClaimed(Bus bus) override { return claimed.count(bus) != 0; }
    bool isAddressClaimed() override { return isAddressClaimed(chosen); }
    bool hasManufacturerOnBus(const std::set<int>& codes) override {
        for (int code : channelOneCodes) {
            if (codes.count(code) != 0) {
                return true;
            }
        }
        return false;
    }
    void setDefaultBus(Bus bus) override { chosen = bus; }
    Bus defaultBus() override { return chosen; }

    // To the filter of this bus and group, if one is installed.
    bool deliver(Bus bus, std::uint32_t pgn, std::vector<std::uint8_t> data, int code) {
        auto it = filters.find(std::make_pair(bus, pgn));
        if (it == filters.end()) {
            return false;
        }
        PgnCallback callback = it->second;  // the callback may remove its own filter
        callback(Message(pgn, std::move(data), code));
        return true;
    }
    // To the n-th installed filter, whichever it is.
    void deliverToAny(std::size_t n, std::vector<std::uint8_t> data, int code) {
        if (filters.empty()) {
            return;
        }
        auto it = filters.begin();
        std::advance(it, static_cast<long>(n % filters.size()));
        const auto key = it->first;
        deliver(key.first, key.second, std::move(data), code);
    }
    void tick() {
        PeriodicCallback callback = periodic;
        if (callback) {
            callback();
        }
    }

    std::map<std::pair<Bus, std::uint32_t>, PgnCallback> filters;
    PeriodicCallback periodic;
    std::set<Bus> claimed;
    std::vector<int> channelOneCodes;
    Bus chosen = Bus::NONE;
};

// A folder of this process for the two machine files, on a memory file system if there is one.
inline const boost::filesystem::path& folder() {
    static const boost::filesystem::path path = [] {
        const boost::filesystem::path base = boost::filesystem::exists("/dev/shm")
                                                 ? boost::filesystem::path("/dev/shm")
                                                 : boost::filesystem::temp_directory_path();
        boost::filesystem::path made = base / ("tilthwatch-fuzz-" + std::to_string(::getpid()));
        boost::filesystem::create_directories(made);
        std::atexit([] {
            boost::system::error_code ignored;
            boost::filesystem::remove_all(folder(), ignored);
        });
        return made;
    }();
    return path;
}

struct Rig {
    explicit Rig(const std::string& userFileText) {
        quietLogging();
        userFile = (folder() / "machine.json").string();
        detectedFile = (folder() / "telematics" / "detectedMachine.json").string();
        std::ofstream(userFile, std::ios::binary | std::ios::trunc) << userFileText;
        machine =
            std::make_shared<CanPropertySourceStateMachine>(properties, userFile, detectedFile);
        machine->onStart(can);
    }
    ~Rig() { machine->onStop(); }
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    // Up to the manufacturer detector on bus 0, with the address claimed there.
    void toManufacturerDetector() {
        can->claimed.insert(Bus::MACHINE_250K);
        can->deliver(Bus::MACHINE_250K, 0xF004, std::vector<std::uint8_t>(8, 0), -1);
    }
    std::string current() const {
        const int index = machine->currentStateIndex();
        if (index < 0) {
            return "";
        }
        const CanPropertySourceState_i& state = *machine->states().at(std::size_t(index));
        return demangledTypeName(typeid(state).name());
    }

    std::string userFile;
    std::string detectedFile;
    std::shared_ptr<Properties> properties = std::make_shared<Properties>();
    std::shared_ptr<FakeCan> can = std::make_shared<FakeCan>();
    std::shared_ptr<CanPropertySourceStateMachine> machine;
};

}  // namespace fuzzrig
