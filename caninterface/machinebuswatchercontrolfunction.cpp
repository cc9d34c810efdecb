#include "caninterface/machinebuswatchercontrolfunction.h"

#include "caninterface/deviceregistration.h"
#include "canstack/parametergroupnumberrequestprotocol.h"

namespace {
constexpr std::uint32_t kManufacturerCode = 151;
constexpr std::uint32_t kFunction = 28;
constexpr std::uint32_t kIndustryGroup = 2;
constexpr std::uint8_t kFirstAddress = 37;
constexpr std::uint8_t kAddressBase = 127;
}  // namespace

NAMEClass MachineBusWatcherControlFunction::watcherNAME() {
    std::uint8_t length = 0;
    const char* serial = DiagnosticServiceProtocolClass::GetECUSerialNumber(length);
    NAMEClass name(0);
    name.setIdentityNumber(deviceregistration::identityFromSerial(
        std::string(serial != nullptr ? serial : "", length)));
    name.setManufacturerCode(kManufacturerCode);
    name.setFunction(kFunction);
    name.setIndustryGroup(kIndustryGroup);
    name.setSelfConfigurableAddress(1);
    return name;
}

MachineBusWatcherControlFunction::MachineBusWatcherControlFunction(std::uint8_t channel)
    : InternalControlFunctionClass(watcherNAME(), channel) {
    setPreferredAddress(NULL_ADDRESS);
}

std::uint8_t MachineBusWatcherControlFunction::getAddressAtIndex(std::uint8_t index) {
    if (index == 0) {
        return kFirstAddress;
    }
    return static_cast<std::uint8_t>(index + kAddressBase);
}

bool MachineBusWatcherControlFunction::requestParameterGroupNumber(std::uint32_t pgn) {
    return ParameterGroupNumberRequestProtocolClass::requestParameterGroupNumber(pgn, this,
                                                                                 nullptr);
}
