// Messages through the identification states and the readers: any group on any installed
// filter, with any data and any sender, the address claim coming and going, the periodic
// requests, the user's selection and the nodes seen on channel 1.

#include <fuzzer/FuzzedDataProvider.h>

#include "identification_rig.h"

namespace {
const char* const userFiles[] = {"{}", "{\"manufacturer\":\"CaseIH\"}",
                                 "{\"manufacturer\":\"New Holland\",\"model\":\"T7\"}",
                                 "{\"manufacturer\":\"Miller\"}", "not json"};
const int codes[] = {-1, 7, 70, 94, 213, 84, 102, 10, 1, 0, 2047};
const std::uint32_t groups[] = {0xF004, 0xFEF2, 0xFEEC, 0xFF12, 0xFF7A, 0xFFEC, 0xF003,
                                0xFE56, 0xFEE5, 0xFEEE, 0xFEEF, 0xFEF8, 0xFEFC};
const Bus buses[] = {Bus::MACHINE_250K, Bus::MACHINE_500K, Bus::PRODUCT_250K};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    fuzzrig::Rig rig(userFiles[in.ConsumeIntegralInRange<std::size_t>(0, 4)]);
    while (in.remaining_bytes() > 0) {
        switch (in.ConsumeIntegralInRange<int>(0, 7)) {
            case 0:
            case 1:
            case 2: {  // a frame for one of the installed filters
                const std::size_t which = in.ConsumeIntegral<std::uint8_t>();
                const int code = in.ConsumeBool() ? codes[in.ConsumeIntegralInRange<int>(0, 10)]
                                                  : in.ConsumeIntegralInRange<int>(-1, 2047);
                const std::size_t length = in.ConsumeBool()
                                               ? in.ConsumeIntegralInRange<std::size_t>(0, 9)
                                               : in.ConsumeIntegralInRange<std::size_t>(0, 1785);
                rig.can->deliverToAny(which, in.ConsumeBytes<std::uint8_t>(length), code);
                break;
            }
            case 3: {  // a frame of a known group on any bus, filter or not
                const Bus bus = buses[in.ConsumeIntegralInRange<int>(0, 2)];
                const std::uint32_t pgn = groups[in.ConsumeIntegralInRange<int>(0, 12)];
                const int code = codes[in.ConsumeIntegralInRange<int>(0, 10)];
                rig.can->deliver(bus, pgn, in.ConsumeBytes<std::uint8_t>(8), code);
                break;
            }
            case 4: {  // this device's address claim comes or goes
                const Bus bus = buses[in.ConsumeIntegralInRange<int>(0, 2)];
                if (in.ConsumeBool()) {
                    rig.can->claimed.insert(bus);
                } else {
                    rig.can->claimed.erase(bus);
                }
                break;
            }
            case 5:
                rig.can->tick();
                break;
            case 6:  // a node on channel 1
                rig.can->channelOneCodes.push_back(codes[in.ConsumeIntegralInRange<int>(0, 10)]);
                break;
            default: {  // the run loop takes what was recorded
                Properties& p = *rig.properties;
                for (auto* list : {&p.engineProperties, &p.codeProperties,
                                   &p.userSelectedProperties, &p.detectedProperties}) {
                    for (PropertyBase* property : *list) {
                        property->swapBuffers();
                    }
                }
                break;
            }
        }
    }
    return 0;
}
