#include <gtest/gtest.h>

#include <boost/variant/get.hpp>

#include <memory>
#include <string>
#include <vector>

#include "TelematicsCollector/properties.h"
#include "TelematicsCollector/telematicsmessageconstructor.h"

using nvsf::telemalog::EmptyValue;
using nvsf::telemalog::ValueMap;

namespace {

// A closed record of an interval in which nothing happened: what the run loop's plan yields.
ValueMap quietRecord() {
    Properties properties;
    ValueMap record;
    record.set("type", std::string("machineTelematics"));
    record.set("duration", 30000);
    for (const PropertyBase* property : properties.engineProperties) {
        record.set(property->name + ".event_count", 0);
        for (const char* suffix : {".min", ".max", ".chrono_mean", ".last"}) {
            record.set(property->name + suffix, EmptyValue());
        }
    }
    for (const auto* list : {&properties.detectedProperties, &properties.userSelectedProperties,
                             &properties.codeProperties}) {
        for (const PropertyBase* property : *list) {
            record.set(property->name + ".last", EmptyValue());
        }
    }
    return record;
}

void setEngine(ValueMap& record, const std::string& key, int events, double min, double max,
               double mean, double last) {
    record.set(key + ".event_count", events);
    record.set(key + ".min", min);
    record.set(key + ".max", max);
    record.set(key + ".chrono_mean", mean);
    record.set(key + ".last", last);
}

struct BodyCase {
    const char* name;
    void (*fill)(ValueMap&);
    const char* body;
    const char* status;
};

const BodyCase kBodies[] = {
    {"NothingKnown", [](ValueMap&) {}, "{}", "ETS 0"},
    {"EmptyTextsAreLeftOutButAnEmptyCodeTextIsWritten",
     [](ValueMap& r) {
         r.set("manufacturer.last", std::string(""));
         r.set("model.last", std::string("Magnum 340"));
         r.set("manufacturerCode.last", std::string(""));
     },
     R"({"detected":{"model":"Magnum 340"},"manufacturerCode":""})", "ETS 0"},
    {"UserSelectionLosesItsPrefix",
     [](ValueMap& r) {
         r.set("userSelected_model", std::string("bare key is not read"));
         r.set("userSelected_model.last", std::string("8R 410"));
     },
     R"({"userSelected":{"model":"8R 410"}})", "ETS 0"},
    {"IntegersBecomeStringsAndOtherAlternativesAreSkipped",
     [](ValueMap& r) {
         r.set("manufacturerCode.last", 93);
         r.set("manufacturer.last", 1.5);
         r.set("model.last", true);
         r.set("userSelected_manufacturer.last", -7);
     },
     R"({"userSelected":{"manufacturer":"-7"},"manufacturerCode":"93"})", "ETS 0"},
    {"OneRealEventGivesFourEqualValues",
     [](ValueMap& r) { setEngine(r, "rpm", 1, 1500.25, 1500.25, 1500.25, 1500.25); },
     R"({"engine":{"rpm":{"min":"1500.25","max":"1500.25","avg":"1500.25","cur":"1500.25"}}})",
     "ETS 2"},
    {"SixteenSignificantDigits",
     [](ValueMap& r) { setEngine(r, "hours", 3, 0.1, 1.0 / 3.0, 123456789.123456789, 1e21); },
     R"({"engine":{"hours":{"min":"0.1","max":"0.3333333333333333","avg":"123456789.1234568","cur":"1e+21"}}})",
     "ETS 2"},
    {"SeededSampleAloneIsAbsent",
     [](ValueMap& r) { setEngine(r, "rpm", 0, 900.0, 900.0, 900.0, 900.0); }, "{}", "ETS 0"},
    {"StartValueIsNotAnEvent",
     [](ValueMap& r) {
         r.set("start.rpm", 900.0);
         setEngine(r, "rpm", 1, 900.0, 900.0, 900.0, 900.0);
         r.set("start.fuelLevel", 50.0);
         setEngine(r, "fuelLevel", 2, 49.0, 50.0, 49.5, 49.0);
     },
     R"({"engine":{"fuelLevel":{"min":"49","max":"50","avg":"49.5","cur":"49"}}})", "ETS 2"},
    {"GroupsAndEngineKeysKeepTheirOrder",
     [](ValueMap& r) {
         setEngine(r, "fuelLevel", 2, 40.0, 41.0, 40.5, 41.0);
         setEngine(r, "rpm", 4, 800.0, 2100.0, 1333.5, 1000.0);
         r.set("manufacturerCode.last", 1);
         r.set("userSelected_model.last", std::string("T7"));
         r.set("userSelected_manufacturer.last", std::string("New Holland"));
         r.set("model.last", std::string("T7.315"));
         r.set("manufacturer.last", std::string("New Holland"));
     },
     R"({"detected":{"manufacturer":"New Holland","model":"T7.315"},)"
     R"("userSelected":{"manufacturer":"New Holland","model":"T7"},)"
     R"("manufacturerCode":"1","engine":{)"
     R"("rpm":{"min":"800","max":"2100","avg":"1333.5","cur":"1000"},)"
     R"("fuelLevel":{"min":"40","max":"41","avg":"40.5","cur":"41"}}})",
     "ETS 2"},
    {"TextIsEscapedByTheWriter",
     [](ValueMap& r) { r.set("model.last", std::string("A/B \"x\"\n")); },
     R"({"detected":{"model":"A\/B \"x\"\n"}})", "ETS 0"},
};

TEST(MachineRecordBody, IsWrittenByteForByte) {
    auto properties = std::make_shared<Properties>();
    MachineTelematicsMessageConstructor machine(properties);
    MachineTelematicsStatusMessageConstructor status(properties);
    for (const BodyCase& c : kBodies) {
        SCOPED_TRACE(c.name);
        ValueMap record = quietRecord();
        c.fill(record);
        std::string type, body, statusType, statusBody;
        ASSERT_TRUE(machine.construct(record, type, body));
        EXPECT_EQ(type, "machineTelematics");
        EXPECT_EQ(body, c.body);
        ASSERT_TRUE(status.construct(record, statusType, statusBody));
        EXPECT_EQ(statusType, "");
        EXPECT_EQ(statusBody, c.status);
    }
}

TEST(HasData, CountsOnlyRealEvents) {
    struct Row {
        const char* name;
        bool hasStart;
        int events;
        const char* suffix;
        bool suffixHasValue;
        bool expected;
    };
    const Row rows[] = {{"NoEvents", false, 0, "", false, false},
                        {"OneEvent", false, 1, "", false, true},
                        {"StartValueOnly", true, 1, "", false, false},
                        {"StartValueAndOneEvent", true, 2, "", false, true},
                        {"SuffixWithValue", false, 1, "min", true, true},
                        {"SuffixEmpty", false, 1, "min", false, false},
                        {"SuffixMissing", false, 5, "median", true, false},
                        {"SuffixWithoutEvents", false, 0, "min", true, false}};
    MachineTelematicsStatusMessageConstructor constructor(std::make_shared<Properties>());
    for (const Row& r : rows) {
        ValueMap record;
        record.set("rpm.event_count", r.events);
        if (r.hasStart) {
            record.set("start.rpm", 700.0);
        }
        if (r.suffixHasValue) {
            record.set("rpm.min", 700.0);
        } else {
            record.set("rpm.min", EmptyValue());
        }
        EXPECT_EQ(constructor.hasData(record, "rpm", r.suffix), r.expected) << r.name;
    }
}

// Neither constructor catches: a record the plan did not shape is a programming error.
TEST(MachineRecordBody, MalformedRecordsThrow) {
    auto properties = std::make_shared<Properties>();
    ValueMap noCount;
    noCount.set("rpm.min", 1.0);
    EXPECT_THROW(
        MachineTelematicsStatusMessageConstructor(properties).hasData(noCount, "rpm", "min"),
        boost::bad_get);

    ValueMap intEngineValue = quietRecord();
    setEngine(intEngineValue, "rpm", 1, 1.0, 1.0, 1.0, 1.0);
    intEngineValue.set("rpm.max", 1);
    std::string type, body;
    EXPECT_THROW(
        MachineTelematicsMessageConstructor(properties).construct(intEngineValue, type, body),
        boost::bad_get);
}

}  // namespace
