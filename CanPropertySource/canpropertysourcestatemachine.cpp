#include "CanPropertySource/canpropertysourcestatemachine.h"

#include <cxxabi.h>

#include <cstdlib>

#include "CanPropertySource/agcomodeldetector.h"
#include "CanPropertySource/canpropertyreaders.h"
#include "CanPropertySource/casemodeldetector.h"
#include "CanPropertySource/machinebusdetector.h"
#include "CanPropertySource/manufacturerdetector.h"

std::string demangledTypeName(const char* mangledName) {
    if (*mangledName == '*') {
        ++mangledName;
    }
    int status = 0;
    char* readable = abi::__cxa_demangle(mangledName, nullptr, nullptr, &status);
    std::string result = (status == 0 && readable != nullptr) ? readable : mangledName;
    std::free(readable);
    return result;
}

CanPropertySourceStateMachine::CanPropertySourceStateMachine(std::shared_ptr<Properties> properties,
                                                             const std::string& userMachineFilePath)
    : CanPropertySourceStateMachine(std::move(properties), userMachineFilePath,
                                    kDetectedMachineFilePath) {}

CanPropertySourceStateMachine::CanPropertySourceStateMachine(
    std::shared_ptr<Properties> properties, const std::string& userMachineFilePath,
    const std::string& detectedMachineFilePath)
    : m_properties(std::move(properties)) {
    // The order matters: switchState<BaseCanPropertyReader> must end on the last reader.
    m_states = {
        std::make_shared<MachineBusDetector>(),
        std::make_shared<ManufacturerDetector>(userMachineFilePath, detectedMachineFilePath),
        std::make_shared<GenericCanPropertyReader>(),
        std::make_shared<AgcoModelDetector>(),
        std::make_shared<AgcoBCanPropertyReader>(),
        std::make_shared<AgcoCCanPropertyReader>(),
        std::make_shared<Agco900SeriesCanPropertyReader>(),
        std::make_shared<CaseModelDetector>(),
        std::make_shared<CasePatriotClass3PropertyReader>(),
        std::make_shared<CasePatriotClass4PropertyReader>(),
        std::make_shared<CaseTrident5550CanPropertyReader>(),
        std::make_shared<CaseCT56PropertyReader>(),
        std::make_shared<EtCanPropertyReader>(),
    };
}

void CanPropertySourceStateMachine::onStart(std::shared_ptr<CanInterface> can) {
    m_can = std::move(can);
    LOG4CPLUS_INFO(stateMachineLogger, "Starting state machine");
    switchState<MachineBusDetector>();
}

void CanPropertySourceStateMachine::onStop() {
    // The states stay: they hold the machine only weakly, so there is no cycle to break, and
    // a later onStart finds all thirteen again.
    if (m_currentState >= 0) {
        m_states[static_cast<std::size_t>(m_currentState)]->onStop();
    }
    m_can.reset();
}
