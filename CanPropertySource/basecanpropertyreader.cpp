#include "CanPropertySource/basecanpropertyreader.h"

#include <cstdint>

#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "TelematicsCollector/properties.h"

namespace scaling {
double level(std::uint32_t raw) {
    return raw * 0.4;
}
double twentieth(std::uint32_t raw) {
    return raw * 0.05;
}
double temperatureFromKelvin32(std::uint32_t raw) {
    const float kelvin = static_cast<float>(raw) / 32.0f;
    return static_cast<double>(kelvin - 273.0f);
}
double unsignedOffset(std::uint32_t raw, std::uint32_t offset) {
    return static_cast<double>(static_cast<std::uint32_t>(raw - offset));
}
}  // namespace scaling

namespace {
using Handler = void (BaseCanPropertyReader::*)(const PgnMessage&);
struct StandardGroup {
    std::uint32_t pgn;
    Handler handler;
};
// Installed and removed in this order.
const StandardGroup kStandardGroups[] = {
    {0xF004, &BaseCanPropertyReader::handleF004}, {0xF003, &BaseCanPropertyReader::handleF003},
    {0xFEF2, &BaseCanPropertyReader::handleFEF2}, {0xFEEE, &BaseCanPropertyReader::handleFEEE},
    {0xFEEF, &BaseCanPropertyReader::handleFEEF}, {0xFEF8, &BaseCanPropertyReader::handleFEF8},
    {0xFE56, &BaseCanPropertyReader::handleFE56}, {0xFEE5, &BaseCanPropertyReader::handleFEE5},
    {0xFEFC, &BaseCanPropertyReader::handleFEFC},
};
}  // namespace

void BaseCanPropertyReader::storeReferences(std::shared_ptr<CanPropertySourceStateMachine> machine,
                                            std::shared_ptr<CanInterface> can) {
    m_can = std::move(can);
    m_properties = machine->properties();
    m_machine = machine;
}

void BaseCanPropertyReader::onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                                    std::shared_ptr<CanInterface> can) {
    storeReferences(machine, can);
    for (const StandardGroup& group : kStandardGroups) {
        const Handler handler = group.handler;
        m_can->addPgnFilter(
            group.pgn, [this, handler](const PgnMessage& message) { (this->*handler)(message); });
    }
    onManufacturerStart(std::move(machine), std::move(can));
}

void BaseCanPropertyReader::onStop() {
    for (const StandardGroup& group : kStandardGroups) {
        m_can->removePgnFilter(group.pgn);
    }
    onManufacturerStop();
}

void BaseCanPropertyReader::handleF003(const PgnMessage& message) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(2, 1, valid);
    if (valid && !suppressPercentLoadAtCurrentSpeed) {
        m_properties->percentLoadAtCurrentSpeed.set(static_cast<double>(raw));
    }
}

void BaseCanPropertyReader::handleF004(const PgnMessage& message) {
    bool valid = false;
    std::uint32_t raw = message.getValue(3, 2, valid);
    if (valid && !suppressRpm) {
        m_properties->rpm.set(raw / 8.0);
    }
    raw = message.getValue(2, 1, valid);
    if (valid && !suppressPercentLoadOfTotalTorque) {
        m_properties->percentLoadOfTotalTorque.set(scaling::unsignedOffset(raw, 125));
    }
}

void BaseCanPropertyReader::handleFEF2(const PgnMessage& message) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(0, 2, valid);
    if (valid && !suppressFuelConsumptionRate) {
        m_properties->fuelConsumptionRate.set(scaling::twentieth(raw));
    }
}

void BaseCanPropertyReader::handleFEEE(const PgnMessage& message) {
    bool valid = false;
    std::uint32_t raw = message.getValue(0, 1, valid);
    if (valid && !suppressCoolantTemperature) {
        m_properties->coolantTemperature.set(scaling::unsignedOffset(raw, 40));
    }
    raw = message.getValue(2, 2, valid);
    if (valid && !suppressEngineOilTemperature) {
        m_properties->engineOilTemperature.set(scaling::temperatureFromKelvin32(raw));
    }
}

void BaseCanPropertyReader::handleFEEF(const PgnMessage& message) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(3, 1, valid);
    if (valid && !suppressEngineOilPressure) {
        m_properties->engineOilPressure.set(static_cast<double>(raw << 2));
    }
}

void BaseCanPropertyReader::handleFEF8(const PgnMessage& message) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(4, 2, valid);
    if (valid && !suppressTransmissionOilTemperature) {
        m_properties->transmissionOilTemperature.set(scaling::temperatureFromKelvin32(raw));
    }
}

void BaseCanPropertyReader::handleFE56(const PgnMessage& message) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(0, 1, valid);
    if (valid && !suppressDefLevel) {
        m_properties->defLevel.set(scaling::level(raw));
    }
}

void BaseCanPropertyReader::handleFEE5(const PgnMessage& message) {
    bool valid = false;
    // Three of the four bytes of engine hours: the top byte is not read.
    const std::uint32_t raw = message.getValue(0, 3, valid);
    if (valid && !suppressHours) {
        m_properties->hours.set(scaling::twentieth(raw));
    }
}

void BaseCanPropertyReader::handleFEFC(const PgnMessage& message) {
    bool valid = false;
    const std::uint32_t raw = message.getValue(1, 1, valid);
    if (valid && !suppressFuelLevel) {
        m_properties->fuelLevel.set(scaling::level(raw));
    }
}
