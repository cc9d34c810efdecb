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

// Sets the property from the field unless the field is all 0xFF.
template <typename Scale>
void setIfValid(const PgnMessage& message, int offset, int length, Property<double>& property,
                Scale scale) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(offset, length, valid);
    if (valid) {
        property.set(scale(raw));
    }
}

double throughSingle(std::uint32_t raw) {
    return static_cast<double>(static_cast<float>(raw));
}

// 0xFF12: hours in bytes 2-3, fuel level in byte 4; the two do not depend on each other.
// Byte 5 holds the model number, which only the Case model detector reads.
template <typename Hours, typename Fuel>
void decodeHoursAndFuel(const PgnMessage& message, Properties& properties, Hours hours, Fuel fuel) {
    setIfValid(message, 2, 2, properties.hours, hours);
    setIfValid(message, 4, 1, properties.fuelLevel, fuel);
}

// A handler of a reader as a filter callback.
template <typename Reader>
CanInterface::PgnCallback handlerOf(Reader* reader, void (Reader::*handler)(const PgnMessage&)) {
    return [reader, handler](const PgnMessage& message) { (reader->*handler)(message); };
}
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
    m_can->addPgnFilter(kFuelLevelGroup,
                        handlerOf(this, &AgcoCCanPropertyReader::handleFEFCProduct),
                        Bus::PRODUCT_250K);
}

void AgcoCCanPropertyReader::onManufacturerStop() {
    m_can->removePgnFilter(kFuelLevelGroup, Bus::PRODUCT_250K);
}

void AgcoCCanPropertyReader::handleFEFCProduct(const PgnMessage& message) {
    setIfValid(message, 1, 1, m_properties->fuelLevel, &scaling::level);
}

Agco900SeriesCanPropertyReader::Agco900SeriesCanPropertyReader() {
    suppressDefLevel = true;
    suppressFuelLevel = true;
}

void Agco900SeriesCanPropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
    m_can->addPgnFilter(kFuelLevelGroup,
                        handlerOf(this, &Agco900SeriesCanPropertyReader::handleFEFCProduct),
                        Bus::PRODUCT_250K);
    m_can->addPgnFilter(kDefLevelGroup,
                        handlerOf(this, &Agco900SeriesCanPropertyReader::handleFE56Product),
                        Bus::PRODUCT_250K);
}

void Agco900SeriesCanPropertyReader::onManufacturerStop() {
    m_can->removePgnFilter(kFuelLevelGroup, Bus::PRODUCT_250K);
    m_can->removePgnFilter(kDefLevelGroup, Bus::PRODUCT_250K);
}

void Agco900SeriesCanPropertyReader::handleFEFCProduct(const PgnMessage& message) {
    setIfValid(message, 1, 1, m_properties->fuelLevel, &scaling::level);
}

void Agco900SeriesCanPropertyReader::handleFE56Product(const PgnMessage& message) {
    setIfValid(message, 0, 1, m_properties->defLevel, &scaling::level);
}

CaseCT56PropertyReader::CaseCT56PropertyReader() {
    suppressFuelLevel = true;
}

void CaseCT56PropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
    m_can->addPgnFilter(kCaseFuelGroup, handlerOf(this, &CaseCT56PropertyReader::handleFFEC));
}

void CaseCT56PropertyReader::onManufacturerStop() {
    m_can->removePgnFilter(kCaseFuelGroup);
}

void CaseCT56PropertyReader::handleFFEC(const PgnMessage& message) {
    setIfValid(message, 1, 2, m_properties->fuelLevel, [](std::uint32_t raw) { return raw * 0.1; });
}

CasePatriotClass3PropertyReader::CasePatriotClass3PropertyReader() {
    suppressHours = true;
    suppressFuelLevel = true;
}

void CasePatriotClass3PropertyReader::onManufacturerStart(
    std::shared_ptr<CanPropertySourceStateMachine> machine, std::shared_ptr<CanInterface> can) {
    storeReferences(std::move(machine), std::move(can));
    m_can->addPgnFilter(kCaseHoursFuelGroup,
                        handlerOf(this, &CasePatriotClass3PropertyReader::handleFF12));
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
                        handlerOf(this, &CasePatriotClass4PropertyReader::handleFF12));
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
                        handlerOf(this, &CaseTrident5550CanPropertyReader::handleFF12));
}

void CaseTrident5550CanPropertyReader::onManufacturerStop() {
    m_can->removePgnFilter(kCaseHoursFuelGroup);
}

void CasePatriotClass3PropertyReader::handleFF12(const PgnMessage& message) {
    // Single-precision rounding brings a full tank to exactly 100.
    decodeHoursAndFuel(message, *m_properties, &throughSingle, [](std::uint32_t raw) {
        return static_cast<double>(static_cast<float>(raw * kClass3FuelFactor));
    });
}

void CasePatriotClass4PropertyReader::handleFF12(const PgnMessage& message) {
    decodeHoursAndFuel(
        message, *m_properties, [](std::uint32_t raw) { return static_cast<double>(raw); },
        [](std::uint32_t raw) { return static_cast<double>(raw) * kClass4FuelFactor; });
}

void CaseTrident5550CanPropertyReader::handleFF12(const PgnMessage& message) {
    decodeHoursAndFuel(message, *m_properties, &throughSingle, [](std::uint32_t raw) {
        return static_cast<double>(raw) / kTridentFuelFull * 100.0;
    });
}
