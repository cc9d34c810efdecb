#include <gtest/gtest.h>

#include <boost/variant/get.hpp>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "TelematicsCollector/properties.h"
#include "TelematicsCollector/telematicsmessageconstructor.h"

using nvsf::telemalog::EmptyValue;
using nvsf::telemalog::ValueMap;
using Text = std::string;

namespace {

// What the plan gives for one engine key: event count, min, max, chrono mean and last.
using Engine = std::tuple<Text, int, double, double, double, double>;

// A closed record in which only the given keys had values.
ValueMap recordWith(ValueMap record, const std::vector<Engine>& engines) {
    for (const auto& [key, events, min, max, mean, last] : engines) {
        record.insert({{key + ".event_count", events},
                       {key + ".min", min},
                       {key + ".max", max},
                       {key + ".chrono_mean", mean},
                       {key + ".last", last}});
    }
    for (const PropertyBase* property : Properties().engineProperties) {
        record.insert({property->name + ".event_count", 0});  // keeps a count given above
    }
    return record;
}

// One row per record: the scalar keys and engine keys that had values, and the exact body. The
// status line says 2 exactly when some engine key made it into the body.
TEST(MachineRecordBody, IsWrittenByteForByteFromWhatThePlanGives) {
    const std::vector<std::tuple<ValueMap, std::vector<Engine>, Text>> rows = {
        // clang-format off
        // Empty texts are left out, but an empty code text is written.
        {{{"manufacturer.last", Text("")}, {"model.last", Text("Magnum 340")},
          {"manufacturerCode.last", Text("")}}, {},
         R"({"detected":{"model":"Magnum 340"},"manufacturerCode":""})"},
        // An int becomes its digits, other alternatives are skipped; only ".last" is read.
        {{{"manufacturerCode.last", 93}, {"manufacturer.last", 1.5}, {"model.last", true},
          {"userSelected_model", Text("bare")}, {"userSelected_manufacturer.last", -7}}, {},
         R"({"userSelected":{"manufacturer":"-7"},"manufacturerCode":"93"})"},
        // One event is enough; numbers take sixteen significant digits.
        {{}, {{"hours", 1, 0.1, 1.0 / 3.0, 123456789.123456789, 1e21}},
         R"({"engine":{"hours":{"min":"0.1","max":"0.3333333333333333",)"
         R"("avg":"123456789.1234568","cur":"1e+21"}}})"},
        // A seeded sample alone is no event, nor is a start value.
        {{}, {{"rpm", 0, 900.0, 900.0, 900.0, 900.0}}, "{}"},
        {{{"start.rpm", 900.0}, {"start.fuelLevel", 50.0}},
         {{"rpm", 1, 900.0, 900.0, 900.0, 900.0}, {"fuelLevel", 2, 49.0, 50.0, 49.5, 49.0}},
         R"({"engine":{"fuelLevel":{"min":"49","max":"50","avg":"49.5","cur":"49"}}})"},
        // Groups and engine keys in list order, not in key order.
        {{{"manufacturerCode.last", 1}, {"userSelected_model.last", Text("d")},
          {"userSelected_manufacturer.last", Text("c")}, {"model.last", Text("b")},
          {"manufacturer.last", Text("a")}},
         {{"fuelLevel", 2, 40.0, 41.0, 40.5, 41.0}, {"rpm", 4, 800.0, 2100.0, 1333.5, 1000.0}},
         R"({"detected":{"manufacturer":"a","model":"b"},"userSelected":{"manufacturer":"c",)"
         R"("model":"d"},"manufacturerCode":"1","engine":{"rpm":{"min":"800","max":"2100",)"
         R"("avg":"1333.5","cur":"1000"},"fuelLevel":{"min":"40","max":"41","avg":"40.5",)"
         R"("cur":"41"}}})"},
        // clang-format on
    };
    auto properties = std::make_shared<Properties>();
    MachineTelematicsMessageConstructor machine(properties);
    MachineTelematicsStatusMessageConstructor status(properties);
    for (const auto& [scalars, engines, expected] : rows) {
        const ValueMap record = recordWith(scalars, engines);
        std::string type, body, statusType, statusBody;
        ASSERT_TRUE(machine.construct(record, type, body));
        ASSERT_TRUE(status.construct(record, statusType, statusBody));
        EXPECT_EQ(type + " " + body, "machineTelematics " + expected);
        EXPECT_EQ(statusType + statusBody,
                  expected.find("engine") == Text::npos ? "ETS 0" : "ETS 2");
    }
    // hasData needs a value under the suffix. Neither constructor catches: a record that the
    // plan did not shape is a programming error.
    const ValueMap partial = {{"rpm.event_count", 1}, {"rpm.min", EmptyValue()}};
    EXPECT_TRUE(status.hasData(partial, "rpm", ""));
    EXPECT_FALSE(status.hasData(partial, "rpm", "min"));
    EXPECT_FALSE(status.hasData(partial, "rpm", "median"));
    std::string type, body;
    EXPECT_THROW(status.construct(partial, type, body), boost::bad_get);
    const ValueMap intEngineValue = recordWith({{"rpm.max", 1}}, {{"rpm", 1, 1.0, 1.0, 1.0, 1.0}});
    EXPECT_THROW(machine.construct(intEngineValue, type, body), boost::bad_get);
}

}  // namespace
