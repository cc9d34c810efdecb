#include "telemalog/manager.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace nvsf {
namespace telemalog {

namespace {

// Times are narrowed 32-bit values widened again; differences and sums are taken in
// two's complement so that no caller-supplied time can overflow.
int64_t wrappingSub(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

int64_t wrappingAdd(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

bool hasSingleLowBit(uint64_t flags) {
    const uint32_t low = static_cast<uint32_t>(flags);
    return low != 0 && (low & (low - 1)) == 0;
}

AggregationPlan withoutAliases(const SimpleAggregationPlan& plan) {
    AggregationPlan full;
    full.reserve(plan.size());
    for (const auto& entry : plan) {
        full.push_back(AggregationRequest{entry.first, entry.second, std::string()});
    }
    return full;
}

void removeId(std::map<std::string, std::vector<uint32_t>>& byKey, const std::string& key,
              uint32_t id) {
    auto it = byKey.find(key);
    if (it == byKey.end()) {
        return;
    }
    auto& ids = it->second;
    ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end());
    if (ids.empty()) {
        byKey.erase(it);
    }
}

// Appends a sample when the time lies inside the interval and the key has room left.
template <typename IntervalType>
void appendSample(IntervalType& interval, const std::string& key, const Value& value,
                  int64_t timestamp) {
    if (timestamp < interval.startTime) {
        return;
    }
    auto samples = interval.samples.find(key);
    if (samples == interval.samples.end() || samples->second.size() >= interval.maxSamples) {
        return;
    }
    samples->second.push_back(Sample{wrappingSub(timestamp, interval.startTime), value});
}

}  // namespace

int64_t narrowTimestamp(std::chrono::nanoseconds sinceEpoch) {
    const int64_t milliseconds = sinceEpoch.count() / 1000000;
    return static_cast<int64_t>(static_cast<int32_t>(static_cast<uint32_t>(milliseconds)));
}

int64_t monotonicTimestamp() {
    return narrowTimestamp(std::chrono::steady_clock::now().time_since_epoch());
}

Manager::Manager(std::vector<Sink*> sinks, Clock clock)
    : sinks_(std::move(sinks)), clock_(std::move(clock)) {
    const auto ticks = std::chrono::system_clock::now().time_since_epoch().count();
    std::srand(static_cast<unsigned>(static_cast<uint32_t>(ticks)));
}

Manager::Manager(const std::vector<std::shared_ptr<Sink>>& sinks, Clock clock)
    : Manager(std::vector<Sink*>(), std::move(clock)) {
    ownedSinks_ = sinks;
    for (const auto& sink : sinks) {
        sinks_.push_back(sink.get());
    }
}

int64_t Manager::resolve(int64_t timestamp) const {
    if (timestamp != kNow) {
        return timestamp;
    }
    return clock_ ? clock_() : monotonicTimestamp();
}

uint32_t Manager::openInterval(const std::string& type, const ValueMap& startValues,
                               const AggregationPlan& plan, int64_t timestamp,
                               uint32_t maxSamples) {
    timestamp = resolve(timestamp);
    const uint32_t id = ++nextIntervalId_;

    Interval interval;
    interval.id = id;
    interval.type = type;
    interval.startValues = startValues;
    interval.startTime = timestamp;
    interval.maxSamples = maxSamples;

    for (const auto& request : plan) {
        IntervalParameter parameter;
        parameter.flags = request.flags;
        // An alias names one aggregate; with several they would overwrite each other.
        if (!request.alias.empty() && hasSingleLowBit(request.flags)) {
            parameter.alias = request.alias;
        }
        auto& samples = interval.samples[request.name];
        samples.clear();
        if (samples.capacity() == 0 && !spareSampleLists_.empty()) {
            samples = std::move(spareSampleLists_.back());
            spareSampleLists_.pop_back();
        }
        const Value latest = currentValue(request.name);
        if (!isEmpty(latest) && !startValues.has(request.name)) {
            samples.push_back(Sample{0, latest});
            parameter.seeded = true;
        }
        interval.parameters[request.name] = parameter;

        // A name planned twice stays one entry and gets its samples once.
        auto& ids = intervalsByKey_[request.name];
        if (ids.empty() || ids.back() != id) {
            ids.push_back(id);
        }
    }
    intervals_.emplace(id, std::move(interval));

    logValues(startValues, timestamp);
    return id;
}

uint32_t Manager::openInterval(const std::string& type, const ValueMap& startValues,
                               const SimpleAggregationPlan& plan, int64_t timestamp,
                               uint32_t maxSamples) {
    return openInterval(type, startValues, withoutAliases(plan), timestamp, maxSamples);
}

uint32_t Manager::openInterval(const std::string& type, const AggregationPlan& plan,
                               int64_t timestamp, uint32_t maxSamples) {
    return openInterval(type, ValueMap(), plan, timestamp, maxSamples);
}

uint32_t Manager::openInterval(const std::string& type, const SimpleAggregationPlan& plan,
                               int64_t timestamp, uint32_t maxSamples) {
    return openInterval(type, ValueMap(), withoutAliases(plan), timestamp, maxSamples);
}

void Manager::addAggregates(ValueMap& record,
                            const std::map<std::string, IntervalParameter>& parameters,
                            const std::map<std::string, std::vector<Sample>>& samples,
                            int64_t duration) {
    for (const auto& entry : parameters) {
        auto list = samples.find(entry.first);
        if (list == samples.end()) {
            continue;
        }
        const IntervalParameter& parameter = entry.second;
        for (auto& result :
             aggregate(entry.first, parameter.flags, list->second, duration, parameter.seeded)) {
            record[parameter.alias.empty() ? result.first : parameter.alias] =
                std::move(result.second);
        }
    }
}

ValueMap Manager::closeInterval(uint32_t id, const ValueMap& extraValues, int64_t timestamp) {
    ValueMap record;
    if (intervals_.find(id) == intervals_.end()) {
        return record;
    }
    timestamp = resolve(timestamp);
    // Closing values take part in their own interval.
    logValues(extraValues, timestamp);

    // The interval goes away here, so its samples are moved out rather than copied.
    auto node = intervals_.extract(id);
    Interval& interval = node.mapped();
    const int duration = static_cast<int>(wrappingSub(timestamp, interval.startTime));

    record.set("type", interval.type);
    record.set("duration", duration);
    for (const auto& entry : interval.startValues) {
        record["start." + entry.first] = entry.second;
    }
    for (const auto& entry : extraValues) {
        record[entry.first] = entry.second;
    }
    addAggregates(record, interval.parameters, interval.samples, duration);

    for (const auto& entry : interval.parameters) {
        removeId(intervalsByKey_, entry.first, id);
    }
    for (auto& entry : interval.samples) {
        if (spareSampleLists_.size() >= kMaxSpareSampleLists) {
            break;
        }
        entry.second.clear();
        spareSampleLists_.push_back(std::move(entry.second));
    }
    return record;
}

void Manager::logValues(const ValueMap& values, int64_t timestamp) {
    if (values.empty()) {
        return;
    }
    timestamp = resolve(timestamp);
    for (const auto& entry : values) {
        const std::string& key = entry.first;
        const Value& value = entry.second;

        auto current = current_.lower_bound(key);
        if (current == current_.end() || current->first != key) {
            current_.emplace_hint(current, key, CurrentValue{timestamp, value});
        } else if (timestamp >= current->second.timestamp) {
            // An older time still reaches the intervals below, but not the current table.
            current->second.timestamp = timestamp;
            current->second.value = value;
        }

        auto ids = intervalsByKey_.find(key);
        if (ids != intervalsByKey_.end()) {
            for (uint32_t id : ids->second) {
                auto interval = intervals_.find(id);
                if (interval != intervals_.end()) {
                    appendSample(interval->second, key, value, timestamp);
                }
            }
        }
        auto periodicIds = periodicByKey_.find(key);
        if (periodicIds != periodicByKey_.end()) {
            for (uint32_t id : periodicIds->second) {
                auto interval = periodicIntervals_.find(id);
                if (interval != periodicIntervals_.end()) {
                    appendSample(interval->second, key, value, timestamp);
                }
            }
        }
    }
}

void Manager::deliver(const ValueMap& record, int64_t timestamp) {
    logValues(record, timestamp);
    for (Sink* sink : sinks_) {
        if (sink != nullptr) {
            sink->log(record);
        }
    }
}

void Manager::logRecord(const std::string& type, const ValueMap& values, int64_t timestamp) {
    ValueMap record = values;
    record.set("type", type);
    deliver(record, timestamp);
}

Value Manager::currentValue(const std::string& key) const {
    auto it = current_.find(key);
    return it == current_.end() ? Value() : it->second.value;
}

uint32_t Manager::openPeriodicInterval(const std::string& type, int64_t period,
                                       const AggregationPlan& plan, uint32_t maxSamples,
                                       int64_t startTime) {
    const uint32_t id = nextPeriodicId_++;

    PeriodicInterval interval;
    interval.id = id;
    interval.type = type;
    interval.startTime = startTime;
    interval.period = period;
    interval.nextDue = wrappingAdd(startTime, period);
    interval.maxSamples = maxSamples;

    for (const auto& request : plan) {
        IntervalParameter parameter;
        parameter.flags = request.flags;
        parameter.alias = request.alias;
        auto& samples = interval.samples[request.name];
        samples.clear();
        const Value latest = currentValue(request.name);
        if (!isEmpty(latest)) {
            samples.push_back(Sample{0, latest});
            parameter.seeded = true;
        }
        interval.parameters[request.name] = parameter;

        auto& ids = periodicByKey_[request.name];
        if (ids.empty() || ids.back() != id) {
            ids.push_back(id);
        }
    }
    periodicIntervals_[id] = std::move(interval);
    return id;
}

uint32_t Manager::openPeriodicInterval(const std::string& type, int64_t period,
                                       const SimpleAggregationPlan& plan, uint32_t maxSamples,
                                       int64_t startTime) {
    return openPeriodicInterval(type, period, withoutAliases(plan), maxSamples, startTime);
}

int Manager::flushDueIntervals(int64_t timestamp) {
    timestamp = resolve(timestamp);
    std::vector<uint32_t> due;
    for (const auto& entry : periodicIntervals_) {
        if (entry.second.nextDue < timestamp) {
            due.push_back(entry.first);
        }
    }
    for (uint32_t id : due) {
        flushPeriodicInterval(id, timestamp);
    }
    return static_cast<int>(due.size());
}

void Manager::flushPeriodicInterval(uint32_t id, int64_t timestamp) {
    auto it = periodicIntervals_.find(id);
    if (it == periodicIntervals_.end()) {
        return;
    }
    timestamp = resolve(timestamp);
    PeriodicInterval& interval = it->second;
    const int duration = static_cast<int>(wrappingSub(timestamp, interval.startTime));

    ValueMap record;
    record.set("type", interval.type);
    record.set("duration", duration);
    addAggregates(record, interval.parameters, interval.samples, duration);

    // A late flush keeps the schedule: the next due time moves by one period only.
    interval.startTime = timestamp;
    interval.nextDue = wrappingAdd(interval.nextDue, interval.period);
    for (auto& entry : interval.samples) {
        entry.second.clear();
        entry.second.push_back(Sample{0, currentValue(entry.first)});
    }

    for (Sink* sink : sinks_) {
        if (sink != nullptr) {
            sink->log(record);
        }
    }
}

}  // namespace telemalog
}  // namespace nvsf
