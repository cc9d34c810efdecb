#pragma once

#include <cstdint>
#include <memory>

#include "CanPropertySource/canpropertysourcestate_i.h"

class PgnMessage;
class Properties;

// Final state: decodes the nine standard engine groups of the machine bus into properties.
// A manufacturer reader silences signals through the suppress flags and adds its own
// groups through the two hooks.
class BaseCanPropertyReader : public CanPropertySourceState_i {
public:
    void onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                 std::shared_ptr<CanInterface> can) override;
    void onStop() override;

    virtual void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                                     std::shared_ptr<CanInterface> can) = 0;
    virtual void onManufacturerStop() = 0;

    void handleF003(const PgnMessage& message);
    void handleF004(const PgnMessage& message);
    void handleFE56(const PgnMessage& message);
    void handleFEE5(const PgnMessage& message);
    void handleFEEE(const PgnMessage& message);
    void handleFEEF(const PgnMessage& message);
    void handleFEF2(const PgnMessage& message);
    void handleFEF8(const PgnMessage& message);
    void handleFEFC(const PgnMessage& message);

protected:
    // Keeps the three references; the hooks of a subclass store them again.
    void storeReferences(std::shared_ptr<CanPropertySourceStateMachine> machine,
                         std::shared_ptr<CanInterface> can);

    std::shared_ptr<CanInterface> m_can;
    // Weak: the machine owns the states, and a strong pointer back would keep both alive.
    std::weak_ptr<CanPropertySourceStateMachine> m_machine;
    std::shared_ptr<Properties> m_properties;

    // Set by a subclass constructor only. A flag silences its signal, not the filter.
    bool suppressRpm = false;
    bool suppressPercentLoadAtCurrentSpeed = false;
    bool suppressPercentLoadOfTotalTorque = false;
    bool suppressFuelConsumptionRate = false;
    bool suppressCoolantTemperature = false;
    bool suppressEngineOilPressure = false;
    bool suppressEngineOilTemperature = false;
    bool suppressTransmissionOilTemperature = false;
    bool suppressDefLevel = false;
    bool suppressHours = false;
    bool suppressFuelLevel = false;
};

// Scalings shared with the manufacturer readers.
namespace scaling {
// raw × 0.4: percent of a one-byte level.
double level(std::uint32_t raw);
// raw × 0.05.
double twentieth(std::uint32_t raw);
// raw / 32 − 273 in single precision, the offset being 273 and not 273.15.
double temperatureFromKelvin32(std::uint32_t raw);
// raw − offset as an unsigned 32-bit difference: below the offset it wraps.
double unsignedOffset(std::uint32_t raw, std::uint32_t offset);
}  // namespace scaling
