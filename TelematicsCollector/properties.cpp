#include "TelematicsCollector/properties.h"

Properties::Properties()
    : engineProperties{&rpm,
                       &percentLoadAtCurrentSpeed,
                       &percentLoadOfTotalTorque,
                       &fuelConsumptionRate,
                       &coolantTemperature,
                       &engineOilPressure,
                       &engineOilTemperature,
                       &transmissionOilTemperature,
                       &defLevel,
                       &hours,
                       &fuelLevel},
      summaryProperties{&rpm, &fuelConsumptionRate, &defLevel, &hours, &fuelLevel},
      codeProperties{&manufacturerCode},
      userSelectedProperties{&userSelected_manufacturer, &userSelected_model},
      detectedProperties{&manufacturer, &model} {}

void Properties::flushProperties(std::shared_ptr<nvsf::telemalog::Manager> manager) {
    const std::vector<PropertyBase*>* lists[] = {&userSelectedProperties, &detectedProperties,
                                                 &engineProperties, &codeProperties};
    for (const auto* list : lists) {
        for (PropertyBase* property : *list) {
            property->swapBuffers();
        }
    }
    for (const auto* list : lists) {
        for (PropertyBase* property : *list) {
            property->logSamples(manager);
        }
    }
}
