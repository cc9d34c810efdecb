#pragma once

#include <memory>
#include <string>

#include "TelematicsCollector/properties.h"
#include "telemalog/value.h"

// Turns a closed telemetry record into one message: a type and a body.
class TelematicsMessageConstructor {
public:
    explicit TelematicsMessageConstructor(std::shared_ptr<Properties> properties)
        : properties(std::move(properties)) {}
    virtual ~TelematicsMessageConstructor() = default;

    // True when a message was built into `type` and `body`.
    virtual bool construct(const nvsf::telemalog::ValueMap& values, std::string& type,
                           std::string& body) = 0;

    // Whether the property had a real event in the interval: a start value is one sample but
    // no event. With a suffix, the aggregate name + "." + suffix must also hold a value.
    // Throws boost::bad_get when the record lacks name + ".event_count".
    bool hasData(const nvsf::telemalog::ValueMap& values, const std::string& name,
                 const std::string& suffix) const;

protected:
    // Read for the names of its lists only; those are fixed after construction.
    std::shared_ptr<Properties> properties;
};

// The JSON record for the Ice service.
class MachineTelematicsMessageConstructor : public TelematicsMessageConstructor {
public:
    using TelematicsMessageConstructor::TelematicsMessageConstructor;
    bool construct(const nvsf::telemalog::ValueMap& values, std::string& type,
                   std::string& body) override;
};

// The status line "ETS 0" or "ETS 2" for ZeroMQ subscribers; leaves `type` untouched.
class MachineTelematicsStatusMessageConstructor : public TelematicsMessageConstructor {
public:
    using TelematicsMessageConstructor::TelematicsMessageConstructor;
    bool construct(const nvsf::telemalog::ValueMap& values, std::string& type,
                   std::string& body) override;
};
