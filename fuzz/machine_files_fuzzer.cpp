// The user's machine file, any bytes, read when the manufacturer detector starts; then a frame
// from an engine without NAME makes the detector decide from it and write the detected-machine
// file, which must read back as JSON holding what was detected.

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <string>

#include "identification_rig.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzrig::Rig rig(std::string(data, data + size));
    rig.toManufacturerDetector();
    rig.can->deliver(Bus::MACHINE_250K, 0xF004, std::vector<std::uint8_t>(8, 0), -1);
    if (rig.current() == "ManufacturerDetector") {
        fuzzrig::fail("no decision on a frame after the address claim");
    }
    std::string detected;
    rig.properties->manufacturer.newestUnflushed(detected);
    boost::property_tree::ptree tree;
    try {
        boost::property_tree::read_json(rig.detectedFile, tree);
    } catch (const std::exception&) {
        fuzzrig::fail("the detected-machine file does not read back");
    }
    if (tree.size() != 1 || tree.get<std::string>("detectedManufacturer", "?") != detected) {
        fuzzrig::fail("the detected-machine file does not hold what was detected");
    }
    return 0;
}
