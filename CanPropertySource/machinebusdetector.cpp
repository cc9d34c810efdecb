#include "CanPropertySource/machinebusdetector.h"

#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "CanPropertySource/manufacturerdetector.h"

namespace {
constexpr std::uint32_t kEngineController1 = 0xF004;
constexpr std::uint32_t kFuelEconomy = 0xFEF2;
constexpr Bus kCandidates[] = {Bus::MACHINE_250K, Bus::MACHINE_500K};
}  // namespace

void MachineBusDetector::onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                                 std::shared_ptr<CanInterface> can) {
    m_machine = std::move(machine);
    m_can = std::move(can);
    for (Bus bus : kCandidates) {
        // The message itself does not matter, only the bus it came on.
        m_can->addPgnFilter(
            kEngineController1, [this, bus](const PgnMessage&) { setDefaultBus(bus); }, bus);
        m_can->addPgnFilter(
            kFuelEconomy, [this, bus](const PgnMessage&) { setDefaultBus(bus); }, bus);
    }
}

void MachineBusDetector::onStop() {
    for (Bus bus : kCandidates) {
        m_can->removePgnFilter(kEngineController1, bus);
        m_can->removePgnFilter(kFuelEconomy, bus);
    }
}

void MachineBusDetector::setDefaultBus(Bus bus) {
    LOG4CPLUS_INFO(stateMachineLogger, "Setting default CAN bus to: " << busName(bus));
    m_can->setDefaultBus(bus);
    // Stops this state, destroying the filter whose callback is running: nothing after this.
    if (const auto machine = m_machine.lock()) {
        machine->switchState<ManufacturerDetector>();
    }
}
