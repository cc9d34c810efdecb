#pragma once

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "CanPropertySource/canpropertyreaders.h"
#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "CanPropertySource/fake_can_interface.h"
#include "CanPropertySource/log_capture.h"
#include "CanPropertySource/machinebusdetector.h"
#include "TelematicsCollector/properties.h"

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
        machine->onStop();  // lets the states go, and with them the machine
        EXPECT_EQ(can->misuses, 0) << "a filter was touched while no bus was chosen";
        boost::system::error_code ignored;
        boost::filesystem::remove_all(dir, ignored);
    }

    void start() { machine->onStart(can); }
    // Up to the manufacturer detector on the given bus, with the address claimed.
    void toManufacturerDetector(Bus bus = Bus::MACHINE_250K) {
        start();
        can->claimed.insert(bus);
        can->deliver(bus, 0xF004, {0, 0, 0, 0, 0, 0, 0, 0});
    }
    // Identified through a compliant engine frame with this manufacturer code.
    void identify(int code) {
        toManufacturerDetector();
        can->deliver(Bus::MACHINE_250K, 0xF004, {0, 0, 0, 0, 0, 0, 0, 0}, code);
    }

    std::string current() const {
        const int index = machine->currentStateIndex();
        if (index < 0 || static_cast<std::size_t>(index) >= machine->states().size()) {
            return "";
        }
        const auto& state = *machine->states()[static_cast<std::size_t>(index)];
        return demangledTypeName(typeid(state).name());
    }
    std::vector<std::string> transitions() const {
        const std::string prefix = "State machine transitioning to ";
        std::vector<std::string> result;
        for (const auto& line : log.lines()) {
            if (line.compare(0, prefix.size(), prefix) == 0) {
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
        std::ifstream in(detectedFile);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    LogCapture log;
    boost::filesystem::path dir;
    std::string userFile;
    std::string detectedFile;
    std::shared_ptr<Properties> properties = std::make_shared<Properties>();
    std::shared_ptr<FakeCanInterface> can = std::make_shared<FakeCanInterface>();
    std::shared_ptr<CanPropertySourceStateMachine> machine;
};

using Groups = std::set<std::uint32_t>;
// The standard groups every reader keeps on the machine bus.
inline Groups standardGroups(Groups extra = {}) {
    Groups groups = {0xF004, 0xF003, 0xFEF2, 0xFEEE, 0xFEEF, 0xFEF8, 0xFE56, 0xFEE5, 0xFEFC};
    groups.insert(extra.begin(), extra.end());
    return groups;
}
