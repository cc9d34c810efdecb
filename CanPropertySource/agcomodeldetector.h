#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CanPropertySource/canpropertysourcestate_i.h"

class PgnMessage;
class Properties;

// Splits an identification text at '*': each '*' ends a field, even an empty one; what
// follows the last '*' is a field only when it is not empty.
std::vector<std::string> splitIdentificationText(const std::string& text);

// Agco machines: the model code and a selection letter come from the vehicle
// identification text of 0xFEEC, which the detector requests once a second.
class AgcoModelDetector : public CanPropertySourceState_i {
public:
    void onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                 std::shared_ptr<CanInterface> can) override;
    void onStop() override;

    void update();
    void detectModel(const PgnMessage& message);

private:
    std::shared_ptr<CanInterface> m_can;
    // Weak: the machine owns the states, and a strong pointer back would keep both alive.
    std::weak_ptr<CanPropertySourceStateMachine> m_machine;
    std::shared_ptr<Properties> m_properties;
};
