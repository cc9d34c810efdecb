#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include <boost/variant.hpp>

namespace nvsf {
namespace telemalog {

// Tag for "no value"; every instance is equal to every other.
struct EmptyValue {};

inline bool operator==(const EmptyValue&, const EmptyValue&) {
    return true;
}
inline bool operator!=(const EmptyValue&, const EmptyValue&) {
    return false;
}
inline bool operator<(const EmptyValue&, const EmptyValue&) {
    return false;
}
inline std::size_t hash_value(const EmptyValue&) {
    return 0;
}

// The alternative order is part of the format: it ranks values in valueCompare and
// makes a default-constructed Value empty.
using Value =
    boost::variant<EmptyValue, bool, int, double, std::string, const char*, std::vector<bool>,
                   std::vector<int>, std::vector<double>, std::vector<std::string>>;

// Alternative indices of Value.
enum ValueIndex : int {
    kEmptyIndex = 0,
    kBoolIndex = 1,
    kIntIndex = 2,
    kDoubleIndex = 3,
    kStringIndex = 4,
    kCStringIndex = 5,
    kBoolVectorIndex = 6,
    kIntVectorIndex = 7,
    kDoubleVectorIndex = 8,
    kStringVectorIndex = 9,
};

// Conversions never throw and never change their argument; what cannot be converted
// gives the neutral value (false, 0, 0.0).
bool toBool(const Value& value);
int toInt(const Value& value);
double toDouble(const Value& value);
std::string toText(const Value& value);

// Strict ordering: alternative index first, then within the alternative.
// A const char* is ordered by address, never by its text.
bool valueCompare(Value a, Value b);

inline bool isEmpty(const Value& value) {
    return value.which() == kEmptyIndex;
}

// Functor form of valueCompare for ordered containers and sorting.
struct ValueLess {
    bool operator()(const Value& a, const Value& b) const;
};

// Ordered map of named values; a record is a ValueMap whose "type" key names it.
class ValueMap : public std::map<std::string, Value> {
public:
    using std::map<std::string, Value>::map;

    bool has(const std::string& key) const { return find(key) != end(); }

    // A copy of the stored value; an empty value when the key is missing.
    Value get(const std::string& key) const;

    // Exact-alternative reads: a missing key or another alternative throws boost::bad_get.
    bool getBool(const std::string& key) const;
    int getInt(const std::string& key) const;
    double getDouble(const std::string& key) const;
    std::string getString(const std::string& key) const;
    std::vector<bool> getBoolVector(const std::string& key) const;
    std::vector<int> getIntVector(const std::string& key) const;
    std::vector<double> getDoubleVector(const std::string& key) const;
    std::vector<std::string> getStringVector(const std::string& key) const;

    void set(const std::string& key, const Value& value);
    void set(const std::string& key, EmptyValue value);
    void set(const std::string& key, bool value);
    void set(const std::string& key, int value);
    void set(const std::string& key, double value);
    void set(const std::string& key, const std::string& value);
    void set(const std::string& key, const char* value);
    void set(const std::string& key, const std::vector<bool>& value);
    void set(const std::string& key, const std::vector<int>& value);
    void set(const std::string& key, const std::vector<double>& value);
    void set(const std::string& key, const std::vector<std::string>& value);

private:
    template <typename T>
    const T& getExact(const std::string& key) const;
    template <typename T>
    void setExact(const std::string& key, const T& value);
};

}  // namespace telemalog
}  // namespace nvsf
