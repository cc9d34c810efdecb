#pragma once

#include <memory>
#include <string>

#include "CanPropertySource/canpropertysourcestate_i.h"

class PgnMessage;
class Properties;

// The user's own selection of manufacturer and model; this process only reads it.
extern const char* const kUserMachineFilePath;
// What this process detected, for the rest of the device; this process only writes it.
extern const char* const kDetectedMachineFilePath;

// Second state: decides the manufacturer from the NAME of the first engine-group sender
// after this device has claimed an address, and records it in the detected-machine file.
class ManufacturerDetector : public CanPropertySourceState_i {
public:
    explicit ManufacturerDetector(std::string userMachineFilePath = kUserMachineFilePath,
                                  std::string detectedMachineFilePath = kDetectedMachineFilePath);

    void onStart(std::shared_ptr<CanPropertySourceStateMachine> machine,
                 std::shared_ptr<CanInterface> can) override;
    void onStop() override;

    void determineMachine(const PgnMessage& message);

private:
    std::string readUserMachineKey(const std::string& key) const;
    void writeDetectedMachineFile(Properties& properties);

    std::shared_ptr<CanInterface> m_can;
    // Weak: the machine owns the states, and a strong pointer back would keep both alive.
    std::weak_ptr<CanPropertySourceStateMachine> m_machine;
    std::string m_userMachineFilePath;
    std::string m_detectedMachineFilePath;
};
