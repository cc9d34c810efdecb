#include "CanPropertySource/canpropertyreaders.h"

#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "TelematicsCollector/properties.h"

namespace {
constexpr std::uint32_t kFuelLevelGroup = 0xFEFC;
constexpr std::uint32_t kDefLevelGroup = 0xFE56;
constexpr std::uint32_t kCaseFuelGroup = 0xFFEC;
constexpr std::uint32_t kCaseHoursFuelGroup = 0xFF12;

// Raw readings taken as 100 percent: 146, 121 and 150. The digits are kept as they are.
constexpr double kClass3FuelFactor = 0.6849315;
constexpr double kClass4FuelFactor = 0.82644628;
constexpr double kTridentFuelFull = 150.0;
}  // namespace

void GenericCanPropertyReader::onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine>,
                                                   std::shared_ptr<CanInterface>) {}
void GenericCanPropertyReader::onManufacturerStop() {}

void AgcoBCanPropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
}
void AgcoBCanPropertyReader::onManufacturerStop() {}

void EtCanPropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
}
void EtCanPropertyReader::onManufacturerStop() {}

AgcoCCanPropertyReader::AgcoCCanPropertyReader() {
    suppressFuelLevel = true;
}

void AgcoCCanPropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
    m_can->addPgnFilter(
        kFuelLevelGroup, [this](const PgnMessage& message) { handleFEFCProduct(message); },
        Bus::PRODUCT_250K);
}

void AgcoCCanPropertyReader::onManufacturerStop() {
    m_can->removePgnFilter(kFuelLevelGroup, Bus::PRODUCT_250K);
}

void AgcoCCanPropertyReader::handleFEFCProduct(const PgnMessage& message) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(1, 1, valid);
    if (valid) {
        m_properties->fuelLevel.set(scaling::level(raw));
    }
}

Agco900SeriesCanPropertyReader::Agco900SeriesCanPropertyReader() {
    suppressDefLevel = true;
    suppressFuelLevel = true;
}

void Agco900SeriesCanPropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
    m_can->addPgnFilter(
        kFuelLevelGroup, [this](const PgnMessage& message) { handleFEFCProduct(message); },
        Bus::PRODUCT_250K);
    m_can->addPgnFilter(
        kDefLevelGroup, [this](const PgnMessage& message) { handleFE56Product(message); },
        Bus::PRODUCT_250K);
}

void Agco900SeriesCanPropertyReader::onManufacturerStop() {
    m_can->removePgnFilter(kFuelLevelGroup, Bus::PRODUCT_250K);
    m_can->removePgnFilter(kDefLevelGroup, Bus::PRODUCT_250K);
}

void Agco900SeriesCanPropertyReader::handleFEFCProduct(const PgnMessage& message) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(1, 1, valid);
    if (valid) {
        m_properties->fuelLevel.set(scaling::level(raw));
    }
}

void Agco900SeriesCanPropertyReader::handleFE56Product(const PgnMessage& message) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(0, 1, valid);
    if (valid) {
        m_properties->defLevel.set(scaling::level(raw));
    }
}

CaseCT56PropertyReader::CaseCT56PropertyReader() {
    suppressFuelLevel = true;
}

void CaseCT56PropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
    m_can->addPgnFilter(kCaseFuelGroup, [this](const PgnMessage& message) { handleFFEC(message); });
}

void CaseCT56PropertyReader::onManufacturerStop() {
    m_can->removePgnFilter(kCaseFuelGroup);
}

void CaseCT56PropertyReader::handleFFEC(const PgnMessage& message) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(1, 2, valid);
    if (valid) {
        m_properties->fuelLevel.set(raw * 0.1);
    }
}

CasePatriotClass3PropertyReader::CasePatriotClass3PropertyReader() {
    suppressHours = true;
    suppressFuelLevel = true;
}

void CasePatriotClass3PropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
    m_can->addPgnFilter(kCaseHoursFuelGroup,
                        [this](const PgnMessage& message) { handleFF12(message); });
}

void CasePatriotClass3PropertyReader::onManufacturerStop() {
    m_can->removePgnFilter(kCaseHoursFuelGroup);
}

CasePatriotClass4PropertyReader::CasePatriotClass4PropertyReader() {
    suppressHours = true;
    suppressFuelLevel = true;
}

void CasePatriotClass4PropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
    m_can->addPgnFilter(kCaseHoursFuelGroup,
                        [this](const PgnMessage& message) { handleFF12(message); });
}

void CasePatriotClass4PropertyReader::onManufacturerStop() {
    m_can->removePgnFilter(kCaseHoursFuelGroup);
}

CaseTrident5550CanPropertyReader::CaseTrident5550CanPropertyReader() {
    suppressHours = true;
    suppressFuelLevel = true;
}

void CaseTrident5550CanPropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
    m_can->addPgnFilter(kCaseHoursFuelGroup,
                        [this](const PgnMessage& message) { handleFF12(message); });
}

void CaseTrident5550CanPropertyReader::onManufacturerStop() {
    m_can->removePgnFilter(kCaseHoursFuelGroup);
}

// Byte 5 of 0xFF12 holds the model number, which only the Case model detector reads.
void CasePatriotClass3PropertyReader::handleFF12(const PgnMessage& message) {
    bool valid = false;
    std::uint32_t raw = message.getValue(2, 2, valid);
    if (valid) {
        m_properties->hours.set(static_cast<double>(static_cast<float>(raw)));
    }
    raw = message.getValue(4, 1, valid);
    if (valid) {
        // Single-precision rounding brings a full tank to exactly 100.
        m_properties->fuelLevel.set(
            static_cast<double>(static_cast<float>(raw * kClass3FuelFactor)));
    }
}

void CasePatriotClass4PropertyReader::handleFF12(const PgnMessage& message) {
    bool valid = false;
    std::uint32_t raw = message.getValue(2, 2, valid);
    if (valid) {
        m_properties->hours.set(static_cast<double>(raw));
    }
    raw = message.getValue(4, 1, valid);
    if (valid) {
        m_properties->fuelLevel.set(static_cast<double>(raw) * kClass4FuelFactor);
    }
}

void CaseTrident5550CanPropertyReader::handleFF12(const PgnMessage& message) {
    bool valid = false;
    std::uint32_t raw = message.getValue(2, 2, valid);
    if (valid) {
        m_properties->hours.set(static_cast<double>(static_cast<float>(raw)));
    }
    raw = message.getValue(4, 1, valid);
    if (valid) {
        m_properties->fuelLevel.set(static_cast<double>(raw) / kTridentFuelFull * 100.0);
    }
}
