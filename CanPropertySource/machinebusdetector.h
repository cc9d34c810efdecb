#pragma once

#include <memory>

#include "CanPropertySource/canpropertysourcestate_i.h"
#include "caninterface/bus.h"

// First state: whichever machine bus first carries an engine group is the machine bus.
class MachineBusDetector : public CanPropertySourceState_i {
public:
    void onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                 std::shared_ptr<CanInterface> can) override;
    void onStop() override;

    void setDefaultBus(Bus bus);

private:
    std::shared_ptr<CanInterface> m_can;
    // Weak: the machine owns the states, and a strong pointer back would keep both alive.
    std::weak_ptr<CanPropertySourceStateMachine> m_machine;
};
