#pragma once

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <cstdint>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

#include "CanPropertySource/canpropertysourcestate_i.h"
#include "caninterface/canapplication_i.h"
#include "caninterface/caninterface.h"

class Properties;

// Every state and the machine log in this one category; each translation unit that
// includes this header holds its own logger object for it.
static log4cplus::Logger stateMachineLogger =
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("tilthwatch.canpropertysourcestatemachine"));

// Readable name of a type, for log lines.
std::string demangledTypeName(const char* mangledName);

// Finds the machine bus, the manufacturer and the model, then reads properties. The
// transitions live in the states, which call switchState<T> from their own callbacks.
class CanPropertySourceStateMachine
    : public CanApplication_i,
      public std::enable_shared_from_this<CanPropertySourceStateMachine> {
public:
    CanPropertySourceStateMachine(std::shared_ptr<Properties> properties,
                                  const std::string& userMachineFilePath);
    // Also places the detected-machine file, so that tests stay out of /etc.
    CanPropertySourceStateMachine(std::shared_ptr<Properties> properties,
                                  const std::string& userMachineFilePath,
                                  const std::string& detectedMachineFilePath);

    void onStart(std::shared_ptr<CanInterface> can) override;
    void onStop() override;

    // Transfers to every listed state that is a T, in list order, so that for a base type
    // the last matching state stays current.
    template <typename T>
    void switchState();

    std::shared_ptr<Properties> properties() const { return m_properties; }
    std::int32_t currentStateIndex() const { return m_currentState; }
    const std::vector<std::shared_ptr<CanPropertySourceState_i>>& states() const {
        return m_states;
    }

private:
    std::shared_ptr<CanInterface> m_can;
    std::vector<std::shared_ptr<CanPropertySourceState_i>> m_states;
    std::int32_t m_currentState = -1;
    std::shared_ptr<Properties> m_properties;
};

template <typename T>
void CanPropertySourceStateMachine::switchState() {
    for (std::size_t i = 0; i < m_states.size(); ++i) {
        std::shared_ptr<T> state = std::dynamic_pointer_cast<T>(m_states[i]);
        if (!state) {
            continue;
        }
        // Hold the state: its own callback may be the one running this walk.
        std::shared_ptr<CanPropertySourceState_i> next = m_states[i];
        if (m_currentState >= 0) {
            m_states[static_cast<std::size_t>(m_currentState)]->onStop();
        }
        m_currentState = static_cast<std::int32_t>(i);
        LOG4CPLUS_INFO(stateMachineLogger,
                       "State machine transitioning to " << demangledTypeName(typeid(T).name()));
        next->onStart(shared_from_this(), m_can);
    }
}
