#pragma once

#include <cstdint>
#include <memory>

#include "CanPropertySource/canpropertysourcestate_i.h"

class PgnMessage;
class Properties;

// Which reader reads a Case model.
enum class CaseModelReader { Class3, Class4, Trident, Base };

struct CaseModelEntry {
    std::uint8_t number;
    const char* model;
    CaseModelReader reader;
};

// The model stated in byte 5 of 0xFF12; nullptr for a number without an entry.
const CaseModelEntry* findCaseModel(std::uint8_t number);

// Case, New Holland and Miller: the model comes from 0xFF12, or the mere answer to a
// request for 0xFF7A marks a CT-56 kind of machine.
class CaseModelDetector : public CanPropertySourceState_i {
public:
    void onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                 std::shared_ptr<CanInterface> can) override;
    void onStop() override;

    void requestVIN();
    void detectModel(const PgnMessage& message);
    void detectModelFromVIN(const PgnMessage& message);

private:
    std::shared_ptr<CanInterface> m_can;
    // Weak: the machine owns the states, and a strong pointer back would keep both alive.
    std::weak_ptr<CanPropertySourceStateMachine> m_machine;
    std::shared_ptr<Properties> m_properties;
};
