#include "TelematicsCollector/telematicsmessageconstructor.h"

#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <cstdio>
#include <locale>
#include <sstream>

using nvsf::telemalog::Value;
using nvsf::telemalog::ValueMap;

namespace {

const std::string kRecordType = "machineTelematics";
const std::string kUserSelectedPrefix = "userSelected_";

std::string intText(int value) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", value);
    return text;
}

// Sixteen significant digits in the default notation; the tree's own translator would use
// seventeen and print 0.1 as 0.10000000000000001.
std::string doubleText(double value) {
    std::ostringstream stream;
    stream.imbue(std::locale());
    stream.precision(16);
    stream << value;
    return stream.str();
}

// Puts the ".last" value of `name` at `path`: an int as its digits, a text unless empty
// (or always, when `keepEmptyText`), anything else not at all.
void putScalar(boost::property_tree::ptree& tree, const ValueMap& values, const std::string& name,
               const std::string& path, bool keepEmptyText) {
    auto it = values.find(name + ".last");
    if (it == values.end() || nvsf::telemalog::isEmpty(it->second)) {
        return;
    }
    if (const int* number = boost::get<int>(&it->second)) {
        tree.put(path, intText(*number));
    } else if (const std::string* text = boost::get<std::string>(&it->second)) {
        if (keepEmptyText || !text->empty()) {
            tree.put(path, *text);
        }
    }
}

}  // namespace

bool TelematicsMessageConstructor::hasData(const ValueMap& values, const std::string& name,
                                           const std::string& suffix) const {
    const bool hasStart = values.has("start." + name);
    const int count = values.getInt(name + ".event_count");
    const bool enough = hasStart ? count > 1 : count >= 1;
    if (suffix.empty()) {
        return enough;
    }
    auto it = values.find(name + "." + suffix);
    if (it == values.end()) {
        return false;
    }
    return enough && !nvsf::telemalog::isEmpty(it->second);
}

bool MachineTelematicsMessageConstructor::construct(const ValueMap& values, std::string& type,
                                                    std::string& body) {
    boost::property_tree::ptree tree;
    for (const PropertyBase* property : properties->detectedProperties) {
        putScalar(tree, values, property->name, "detected." + property->name, false);
    }
    for (const PropertyBase* property : properties->userSelectedProperties) {
        // substr throws std::out_of_range for a name shorter than the prefix.
        const std::string shortName = property->name.substr(kUserSelectedPrefix.size());
        putScalar(tree, values, property->name, "userSelected." + shortName, false);
    }
    for (const PropertyBase* property : properties->codeProperties) {
        putScalar(tree, values, property->name, property->name, true);
    }
    for (const PropertyBase* property : properties->engineProperties) {
        const std::string& name = property->name;
        if (!hasData(values, name, "min")) {
            continue;
        }
        const std::string path = "engine." + name;
        tree.put(path + ".min", doubleText(values.getDouble(name + ".min")));
        tree.put(path + ".max", doubleText(values.getDouble(name + ".max")));
        tree.put(path + ".avg", doubleText(values.getDouble(name + ".chrono_mean")));
        tree.put(path + ".cur", doubleText(values.getDouble(name + ".last")));
    }

    std::ostringstream stream;
    boost::property_tree::write_json(stream, tree, false);
    body = stream.str();
    body.erase(std::remove(body.begin(), body.end(), '\n'), body.end());
    type = kRecordType;
    return true;
}

bool MachineTelematicsStatusMessageConstructor::construct(const ValueMap& values,
                                                          std::string& /*type*/,
                                                          std::string& body) {
    // 0 and 2 are NO_DATA and FULL_DATA of telematics.engine.DataRecording; one engine key
    // with data counts as full.
    int status = 0;
    for (const PropertyBase* property : properties->engineProperties) {
        if (hasData(values, property->name, "min")) {
            status = 2;
        }
    }
    body = "ETS " + std::to_string(status);
    return true;
}
