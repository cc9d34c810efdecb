#include "telemalog/value.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace nvsf {
namespace telemalog {

namespace {

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char* fmt, ...) {
    char small[64];
    va_list args;
    va_start(args, fmt);
    int needed = std::vsnprintf(small, sizeof small, fmt, args);
    va_end(args);
    if (needed < 0) {
        return std::string();
    }
    if (static_cast<std::size_t>(needed) < sizeof small) {
        return std::string(small, static_cast<std::size_t>(needed));
    }
    // Large doubles print with hundreds of digits.
    std::string out(static_cast<std::size_t>(needed) + 1, '\0');
    va_start(args, fmt);
    std::vsnprintf(&out[0], out.size(), fmt, args);
    va_end(args);
    out.resize(static_cast<std::size_t>(needed));
    return out;
}

// Parses like std::stoi: no digits or a value out of range throws, and the caller
// swallows it. Out of range also covers longs that do not fit an int.
int parseInt(const std::string& text) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    long parsed = std::strtol(begin, &end, 10);
    if (end == begin) {
        throw std::invalid_argument("stoi");
    }
    if (errno == ERANGE || parsed < INT_MIN || parsed > INT_MAX) {
        throw std::out_of_range("stoi");
    }
    return static_cast<int>(parsed);
}

double parseDouble(const std::string& text) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    double parsed = std::strtod(begin, &end);
    if (end == begin) {
        throw std::invalid_argument("stod");
    }
    if (errno == ERANGE) {
        throw std::out_of_range("stod");
    }
    return parsed;
}

// Truncates toward zero; NaN gives 0 and values beyond int saturate, as the target's
// conversion instruction does, instead of leaving it undefined.
int truncateToInt(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= 2147483647.0) {
        return INT_MAX;
    }
    if (value <= -2147483648.0) {
        return INT_MIN;
    }
    return static_cast<int>(value);
}

template <typename T>
std::string bracketed(const std::vector<T>& elements) {
    std::ostringstream out;
    out << '[';
    bool first = true;
    for (const auto& element : elements) {
        if (!first) {
            out << ", ";
        }
        first = false;
        out << element;
    }
    out << ']';
    return out.str();
}

std::string bracketed(const std::vector<bool>& elements) {
    std::string out = "[";
    bool first = true;
    for (bool element : elements) {
        if (!first) {
            out += ", ";
        }
        first = false;
        out += element ? "true" : "false";
    }
    out += ']';
    return out;
}

struct BoolVisitor : boost::static_visitor<bool> {
    bool operator()(const EmptyValue&) const { return false; }
    bool operator()(bool v) const { return v; }
    bool operator()(int v) const { return v != 0; }
    bool operator()(double v) const { return v != 0.0; }
    bool operator()(const std::string& v) const {
        std::string lowered = v;
        for (char& c : lowered) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        return lowered == "true";
    }
    bool operator()(const char* v) const { return v != nullptr; }
    template <typename T>
    bool operator()(const std::vector<T>& v) const {
        return !v.empty();
    }
};

struct IntVisitor : boost::static_visitor<int> {
    int operator()(const EmptyValue&) const { return 0; }
    int operator()(bool v) const { return v ? 1 : 0; }
    int operator()(int v) const { return v; }
    int operator()(double v) const { return truncateToInt(v); }
    int operator()(const std::string& v) const {
        try {
            return parseInt(v);
        } catch (const std::invalid_argument&) {
            return 0;
        } catch (const std::out_of_range&) {
            return 0;
        }
    }
    int operator()(const char* v) const { return v != nullptr ? 1 : 0; }
    template <typename T>
    int operator()(const std::vector<T>&) const {
        return 0;
    }
};

struct DoubleVisitor : boost::static_visitor<double> {
    double operator()(const EmptyValue&) const { return 0.0; }
    double operator()(bool v) const { return v ? 1.0 : 0.0; }
    double operator()(int v) const { return static_cast<double>(v); }
    double operator()(double v) const { return v; }
    double operator()(const std::string& v) const {
        try {
            return parseDouble(v);
        } catch (const std::invalid_argument&) {
            return 0.0;
        } catch (const std::out_of_range&) {
            return 0.0;
        }
    }
    double operator()(const char* v) const { return v != nullptr ? 1.0 : 0.0; }
    template <typename T>
    double operator()(const std::vector<T>&) const {
        return 0.0;
    }
};

struct TextVisitor : boost::static_visitor<std::string> {
    std::string operator()(const EmptyValue&) const { return "<null>"; }
    std::string operator()(bool v) const { return v ? "true" : "false"; }
    std::string operator()(int v) const { return format("%d", v); }
    std::string operator()(double v) const { return format("%f", v); }
    std::string operator()(const std::string& v) const { return v; }
    std::string operator()(const char* v) const { return v != nullptr ? "true" : "false"; }
    template <typename T>
    std::string operator()(const std::vector<T>& v) const {
        return bracketed(v);
    }
};

// Called only with both values of the same alternative.
struct SameAlternativeLess : boost::static_visitor<bool> {
    bool operator()(const EmptyValue&, const EmptyValue&) const { return false; }
    bool operator()(const std::string& a, const std::string& b) const { return a.compare(b) < 0; }
    bool operator()(const char* a, const char* b) const {
        return reinterpret_cast<std::uintptr_t>(a) < reinterpret_cast<std::uintptr_t>(b);
    }
    template <typename T>
    bool operator()(const T& a, const T& b) const {
        return a < b;
    }
    template <typename T, typename U>
    bool operator()(const T&, const U&) const {
        return false;
    }
};

}  // namespace

bool toBool(const Value& value) {
    return boost::apply_visitor(BoolVisitor(), value);
}

int toInt(const Value& value) {
    return boost::apply_visitor(IntVisitor(), value);
}

double toDouble(const Value& value) {
    return boost::apply_visitor(DoubleVisitor(), value);
}

std::string toText(const Value& value) {
    return boost::apply_visitor(TextVisitor(), value);
}

bool valueCompare(Value a, Value b) {
    return ValueLess()(a, b);
}

bool ValueLess::operator()(const Value& a, const Value& b) const {
    if (a.which() != b.which()) {
        return a.which() < b.which();
    }
    // Scalars skip the double dispatch: aggregations compare them in bulk.
    switch (a.which()) {
        case kIntIndex:
            return *boost::get<int>(&a) < *boost::get<int>(&b);
        case kDoubleIndex:
            return *boost::get<double>(&a) < *boost::get<double>(&b);
        default:
            return boost::apply_visitor(SameAlternativeLess(), a, b);
    }
}

Value ValueMap::get(const std::string& key) const {
    auto it = find(key);
    return it == end() ? Value() : it->second;
}

template <typename T>
const T& ValueMap::getExact(const std::string& key) const {
    auto it = find(key);
    if (it == end()) {
        throw boost::bad_get();
    }
    return boost::get<T>(it->second);
}

bool ValueMap::getBool(const std::string& key) const {
    return getExact<bool>(key);
}
int ValueMap::getInt(const std::string& key) const {
    return getExact<int>(key);
}
double ValueMap::getDouble(const std::string& key) const {
    return getExact<double>(key);
}
std::string ValueMap::getString(const std::string& key) const {
    return getExact<std::string>(key);
}
std::vector<bool> ValueMap::getBoolVector(const std::string& key) const {
    return getExact<std::vector<bool>>(key);
}
std::vector<int> ValueMap::getIntVector(const std::string& key) const {
    return getExact<std::vector<int>>(key);
}
std::vector<double> ValueMap::getDoubleVector(const std::string& key) const {
    return getExact<std::vector<double>>(key);
}
std::vector<std::string> ValueMap::getStringVector(const std::string& key) const {
    return getExact<std::vector<std::string>>(key);
}

template <typename T>
void ValueMap::setExact(const std::string& key, const T& value) {
    auto it = lower_bound(key);
    if (it == end() || it->first != key) {
        emplace_hint(it, key, Value(value));
        return;
    }
    // Assigning through the variant reuses the stored object when the alternative matches.
    it->second = value;
}

void ValueMap::set(const std::string& key, const Value& value) {
    setExact(key, value);
}
void ValueMap::set(const std::string& key, EmptyValue value) {
    setExact(key, value);
}
void ValueMap::set(const std::string& key, bool value) {
    setExact(key, value);
}
void ValueMap::set(const std::string& key, int value) {
    setExact(key, value);
}
void ValueMap::set(const std::string& key, double value) {
    setExact(key, value);
}
void ValueMap::set(const std::string& key, const std::string& value) {
    setExact(key, value);
}
void ValueMap::set(const std::string& key, const char* value) {
    setExact(key, value);
}
void ValueMap::set(const std::string& key, const std::vector<bool>& value) {
    setExact(key, value);
}
void ValueMap::set(const std::string& key, const std::vector<int>& value) {
    setExact(key, value);
}
void ValueMap::set(const std::string& key, const std::vector<double>& value) {
    setExact(key, value);
}
void ValueMap::set(const std::string& key, const std::vector<std::string>& value) {
    setExact(key, value);
}

}  // namespace telemalog
}  // namespace nvsf
