#pragma once

#include <memory>

class CanInterface;
class CanPropertySourceStateMachine;

// One step of identification or reading. onStart installs what the state needs in the
// CAN service; onStop removes exactly that.
class CanPropertySourceState_i {
public:
    virtual ~CanPropertySourceState_i() = default;
    virtual void onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                         std::shared_ptr<CanInterface> can) = 0;
    virtual void onStop() = 0;
};
