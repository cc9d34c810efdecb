// The Agco identification text: any bytes as the data of 0xFEEC, through the detector that
// splits it and chooses the reader. A text the detector takes must be recorded whole.

#include <string>

#include "identification_rig.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzrig::Rig rig("{}");
    rig.toManufacturerDetector();
    rig.can->deliver(Bus::MACHINE_250K, 0xF004, std::vector<std::uint8_t>(8, 0), 102);
    if (rig.current() != "AgcoModelDetector") {
        fuzzrig::fail("not in the Agco detector");
    }
    const std::string text(data, data + size);
    rig.can->deliver(Bus::MACHINE_250K, 0xFEEC, std::vector<std::uint8_t>(data, data + size), 102);
    std::string model;
    const bool recorded = rig.properties->model.newestUnflushed(model);
    if (rig.current() == "AgcoModelDetector") {
        if (recorded) {
            fuzzrig::fail("a model recorded without a decision");
        }
        rig.can->tick();  // and it asks again
    } else if (!recorded || model != text) {
        fuzzrig::fail("the text was not recorded whole");
    }
    return 0;
}
