#pragma once

#include <memory>
#include <string>
#include <vector>

#include "TelematicsCollector/property.h"

// The one table of machine properties, written on the CAN main thread and flushed into the
// telemetry manager by the run loop.
class Properties {
public:
    Properties();
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    // Swaps every buffer first, then logs, so one flush is one consistent cut.
    void flushProperties(std::shared_ptr<nvsf::telemalog::Manager> manager);

    Property<std::string> userSelected_manufacturer{"userSelected_manufacturer"};
    Property<std::string> userSelected_model{"userSelected_model"};
    Property<std::string> manufacturer{"manufacturer"};
    Property<std::string> model{"model"};
    Property<int> manufacturerCode{"manufacturerCode"};
    Property<double> rpm{"rpm"};
    Property<double> percentLoadAtCurrentSpeed{"percentLoadAtCurrentSpeed"};
    Property<double> percentLoadOfTotalTorque{"percentLoadOfTotalTorque"};
    Property<double> fuelConsumptionRate{"fuelConsumptionRate"};
    Property<double> coolantTemperature{"coolantTemperature"};
    Property<double> engineOilPressure{"engineOilPressure"};
    Property<double> engineOilTemperature{"engineOilTemperature"};
    Property<double> transmissionOilTemperature{"transmissionOilTemperature"};
    Property<double> defLevel{"defLevel"};
    Property<double> hours{"hours"};
    Property<double> fuelLevel{"fuelLevel"};

    // Non-owning views of the members above; the record constructor reads them to know
    // which keys to aggregate.
    std::vector<PropertyBase*> engineProperties;
    std::vector<PropertyBase*> summaryProperties;  // kept for the record layout, never walked
    std::vector<PropertyBase*> codeProperties;
    std::vector<PropertyBase*> userSelectedProperties;
    std::vector<PropertyBase*> detectedProperties;
};
