#include "CanPropertySource/manufacturerdetector.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <fstream>
#include <set>
#include <sstream>
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

// The user's file holds two short keys. Anything much larger would stall the CAN main thread,
// and the JSON parser recurses once per nesting level, so both are bounded before parsing.
constexpr std::size_t kUserFileMaximumBytes = 64 * 1024;
constexpr int kUserFileMaximumDepth = 64;
// As the kernel's own limit on following links.
constexpr int kMaximumLinkHops = 40;

// Deepest nesting of arrays and objects, brackets inside strings not counted.
int nestingDepth(const std::string& text) {
    int depth = 0;
    int deepest = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

void readBoundedJson(const std::string& path, boost::property_tree::ptree& tree) {
    using boost::property_tree::json_parser_error;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw json_parser_error("cannot open file", path, 0);
    }
    std::string text(kUserFileMaximumBytes + 1, '\0');
    file.read(&text[0], static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > kUserFileMaximumBytes) {
        throw json_parser_error(
            "file larger than " + std::to_string(kUserFileMaximumBytes) + " bytes", path, 0);
    }
    if (nestingDepth(text) > kUserFileMaximumDepth) {
        throw json_parser_error(
            "nested deeper than " + std::to_string(kUserFileMaximumDepth) + " levels", path, 0);
    }
    std::istringstream stream(text);
    try {
        boost::property_tree::read_json(stream, tree);
    } catch (const json_parser_error& error) {
        throw json_parser_error(error.message(), path, error.line());
    }
}

// The file may be a link into a writable partition: what it points to is replaced.
boost::filesystem::path resolveLinks(boost::filesystem::path path) {
    for (int hops = 0; boost::filesystem::is_symlink(path); ++hops) {
        if (hops == kMaximumLinkHops) {
            throw boost::filesystem::filesystem_error(
                "cannot resolve", path,
                boost::system::errc::make_error_code(
                    boost::system::errc::too_many_symbolic_link_levels));
        }
        const boost::filesystem::path link = boost::filesystem::read_symlink(path);
        path = link.is_absolute() ? link : path.parent_path() / link;
    }
    return path;
}

// Writes next to the target and renames, so that a reader never sees half a file and a power
// loss never leaves an empty one. The target keeps its mode; one that could not be written in
// place is not replaced either.
void writeJsonAtomically(const boost::property_tree::ptree& tree, const std::string& path) {
    const boost::filesystem::path requested(path);
    if (requested.has_parent_path()) {
        boost::filesystem::create_directories(requested.parent_path());
    }
    const boost::filesystem::path target = resolveLinks(requested);
    struct stat existing {};
    const bool exists = ::stat(target.c_str(), &existing) == 0;
    if (exists && ::access(target.c_str(), W_OK) != 0) {
        throw boost::property_tree::json_parser_error("cannot open file", path, 0);
    }
    boost::filesystem::path temporary = target;
    temporary += "." + std::to_string(::getpid()) + ".tmp";
    try {
        boost::property_tree::write_json(temporary.string(), tree, std::locale(), true);
        if (exists) {
            boost::filesystem::permissions(
                temporary, static_cast<boost::filesystem::perms>(existing.st_mode & 07777));
        }
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
    m_machine = machine;
    m_can = std::move(can);

    const std::string manufacturer = readUserMachineKey("manufacturer");
    const std::string model = readUserMachineKey("model");
    Properties& properties = *machine->properties();
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
        readBoundedJson(m_userMachineFilePath, tree);
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
    // Held for the whole call: the transfer below stops this state from within its callback.
    const auto machine = m_machine.lock();
    if (!machine) {
        return;
    }
    Properties& properties = *machine->properties();

    if (m_can->isAddressClaimed()) {
        LOG4CPLUS_INFO(stateMachineLogger, "Address Claiming and Registration has finished");
        LOG4CPLUS_INFO(stateMachineLogger, "Received pgn message 0x"
                                               << std::hex << pgn << std::dec
                                               << " from ECU with manufacturer code " << code);
        if (hasSource) {
            LOG4CPLUS_INFO(stateMachineLogger, "Message came from ISO complient ECU");
            properties.manufacturerCode.set(code);
            if (kCaseCodes.count(code) != 0) {
                machine->switchState<CaseModelDetector>();
                properties.manufacturer.set("CaseIH");
            } else if (code == kNewHollandCode || code == kAgcoCode) {
                if (code == kNewHollandCode) {
                    machine->switchState<CaseModelDetector>();
                    properties.manufacturer.set("New Holland");
                }
                // New Holland goes on to the Agco branch on purpose.
                machine->switchState<AgcoModelDetector>();
                properties.manufacturer.set("AGCO");
            } else {
                if (code == kCumminsCode) {
                    machine->switchState<GenericCanPropertyReader>();
                    properties.manufacturer.set("Cummins");
                }
                // Cummins goes on here too, restarting the generic reader.
                machine->switchState<GenericCanPropertyReader>();
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
                machine->switchState<CaseModelDetector>();
                properties.manufacturer.set("CaseIH");
            } else if (userManufacturer == "CaseIH" || userManufacturer == "New Holland" ||
                       userManufacturer == "Miller") {
                machine->switchState<CaseModelDetector>();
                properties.manufacturer.set(userManufacturer);
            } else {
                machine->switchState<GenericCanPropertyReader>();
            }
        }
    }
    writeDetectedMachineFile(properties);
}

void ManufacturerDetector::writeDetectedMachineFile(Properties& properties) {
    std::string detected;
    properties.manufacturer.newestUnflushed(detected);
    boost::property_tree::ptree tree;
    tree.put("detectedManufacturer", detected);
    try {
        writeJsonAtomically(tree, m_detectedMachineFilePath);
    } catch (const std::exception& error) {
        LOG4CPLUS_ERROR(stateMachineLogger,
                        "Error writing to detected machine file: " << error.what());
    }
}
