#include "CanPropertySource/manufacturerdetector.h"

#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <set>
#include <stdexcept>

#include "CanPropertySource/agcomodeldetector.h"
#include "CanPropertySource/canpropertyreaders.h"
#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "CanPropertySource/casemodeldetector.h"
#include "TelematicsCollector/properties.h"

const char* const kUserMachineFilePath = "/etc/norvane/telematics/machine.json";
const char* const kDetectedMachineFilePath = "/etc/norvane/telematics/detectedMachine.json";

namespace {
constexpr std::uint32_t kEngineController1 = 0xF004;
constexpr std::uint32_t kFuelEconomy = 0xFEF2;

const std::set<int> kCaseCodes = {7, 70, 94, 213};
constexpr int kNewHollandCode = 84;
constexpr int kAgcoCode = 102;
constexpr int kCumminsCode = 10;

// Writes next to the target and renames, so that a reader never sees half a file.
void writeJsonAtomically(const boost::property_tree::ptree& tree, const std::string& path) {
    const boost::filesystem::path target(path);
    if (target.has_parent_path()) {
        boost::filesystem::create_directories(target.parent_path());
    }
    boost::filesystem::path temporary = target;
    temporary += "." + std::to_string(::getpid()) + ".tmp";
    try {
        boost::property_tree::write_json(temporary.string(), tree, std::locale(), true);
        boost::filesystem::rename(temporary, target);
    } catch (...) {
        boost::system::error_code ignored;
        boost::filesystem::remove(temporary, ignored);
        throw;
    }
}
}  // namespace

ManufacturerDetector::ManufacturerDetector(std::string userMachineFilePath,
                                           std::string detectedMachineFilePath)
    : m_userMachineFilePath(std::move(userMachineFilePath)),
      m_detectedMachineFilePath(std::move(detectedMachineFilePath)) {}

void ManufacturerDetector::onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                                   std::shared_ptr<CanInterface> can) {
    m_machine = std::move(machine);
    m_can = std::move(can);

    const std::string manufacturer = readUserMachineKey("manufacturer");
    const std::string model = readUserMachineKey("model");
    Properties& properties = *m_machine->properties();
    if (!manufacturer.empty()) {
        properties.userSelected_manufacturer.set(manufacturer);
    }
    if (!model.empty()) {
        properties.userSelected_model.set(model);
    }

    m_can->addPgnFilter(kEngineController1,
                        [this](const PgnMessage& message) { determineMachine(message); });
    m_can->addPgnFilter(kFuelEconomy,
                        [this](const PgnMessage& message) { determineMachine(message); });
}

void ManufacturerDetector::onStop() {
    m_can->removePgnFilter(kEngineController1);
    m_can->removePgnFilter(kFuelEconomy);
}

std::string ManufacturerDetector::readUserMachineKey(const std::string& key) const {
    boost::property_tree::ptree tree;
    try {
        boost::property_tree::read_json(m_userMachineFilePath, tree);
    } catch (const std::exception& error) {
        // The same words serve both keys.
        LOG4CPLUS_ERROR(stateMachineLogger,
                        "Error reading "
                            << m_userMachineFilePath
                            << "cannot find user selected manufacturer. Details: " << error.what());
        tree.clear();
    }
    return tree.get<std::string>(key, "");
}

void ManufacturerDetector::determineMachine(const PgnMessage& message) {
    // The decision transfers first and records afterwards; the message dies with the
    // transfer, so take everything needed from it now.
    const int code = message.manufacturerCode();
    const std::uint32_t pgn = message.pgn;
    const bool hasSource = message.hasSource();
    Properties& properties = *m_machine->properties();

    if (m_can->isAddressClaimed()) {
        LOG4CPLUS_INFO(stateMachineLogger, "Address Claiming and Registration has finished");
        LOG4CPLUS_INFO(stateMachineLogger, "Received pgn message 0x"
                                               << std::hex << pgn << std::dec
                                               << " from ECU with manufacturer code " << code);
        if (hasSource) {
            LOG4CPLUS_INFO(stateMachineLogger, "Message came from ISO complient ECU");
            properties.manufacturerCode.set(code);
            if (kCaseCodes.count(code) != 0) {
                m_machine->switchState<CaseModelDetector>();
                properties.manufacturer.set("CaseIH");
            } else if (code == kNewHollandCode || code == kAgcoCode) {
                if (code == kNewHollandCode) {
                    m_machine->switchState<CaseModelDetector>();
                    properties.manufacturer.set("New Holland");
                }
                // New Holland goes on to the Agco branch on purpose.
                m_machine->switchState<AgcoModelDetector>();
                properties.manufacturer.set("AGCO");
            } else {
                if (code == kCumminsCode) {
                    m_machine->switchState<GenericCanPropertyReader>();
                    properties.manufacturer.set("Cummins");
                }
                // Cummins goes on here too, restarting the generic reader.
                m_machine->switchState<GenericCanPropertyReader>();
            }
        } else {
            std::string userManufacturer;
            properties.userSelected_manufacturer.newestUnflushed(userManufacturer);
            LOG4CPLUS_INFO(stateMachineLogger, "Message is from noncompliant ECU");
            LOG4CPLUS_INFO(stateMachineLogger,
                           "The user-selected manufacturer is \"" << userManufacturer << "\"");
            if (m_can->hasManufacturerOnBus(kCaseCodes)) {
                LOG4CPLUS_INFO(stateMachineLogger,
                               "Assuming that we are on a Case machine as there is a node "
                               "manufactured by Case on the bus");
                m_machine->switchState<CaseModelDetector>();
                properties.manufacturer.set("CaseIH");
            } else if (userManufacturer == "CaseIH" || userManufacturer == "New Holland" ||
                       userManufacturer == "Miller") {
                m_machine->switchState<CaseModelDetector>();
                properties.manufacturer.set(userManufacturer);
            } else {
                m_machine->switchState<GenericCanPropertyReader>();
            }
        }
    }
    writeDetectedMachineFile();
}

void ManufacturerDetector::writeDetectedMachineFile() {
    std::string detected;
    m_machine->properties()->manufacturer.newestUnflushed(detected);
    boost::property_tree::ptree tree;
    tree.put("detectedManufacturer", detected);
    try {
        writeJsonAtomically(tree, m_detectedMachineFilePath);
    } catch (const std::exception& error) {
        LOG4CPLUS_ERROR(stateMachineLogger,
                        "Error writing to detected machine file: " << error.what());
    }
}
