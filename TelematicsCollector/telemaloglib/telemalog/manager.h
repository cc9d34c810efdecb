#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "telemalog/aggregate.h"
#include "telemalog/sink.h"
#include "telemalog/value.h"

namespace nvsf {
namespace telemalog {

// Timestamp meaning "the current time": resolved through monotonicTimestamp().
constexpr int64_t kNow = 0x7FFFFFFFFFFFFFFFll;

// Milliseconds of a clock reading, narrowed through signed 32 bits and widened again:
// telemetry times wrap about every 24.8 days, and producers stamp samples the same way.
int64_t narrowTimestamp(std::chrono::nanoseconds sinceEpoch);

// The monotonic clock as a telemetry time.
int64_t monotonicTimestamp();

// Source of the current time when a timestamp is kNow; replaceable for tests.
using Clock = std::function<int64_t()>;

struct CurrentValue {
    int64_t timestamp = 0;
    Value value;
};

// One entry of an aggregation plan: the key to collect and the aggregations wanted.
// An alias renames the single aggregate of the entry in the record.
struct AggregationRequest {
    std::string name;
    uint64_t flags = 0;
    std::string alias;
};

using AggregationPlan = std::vector<AggregationRequest>;
// Plan without aliases: key and aggregation mask.
using SimpleAggregationPlan = std::vector<std::pair<std::string, uint64_t>>;

struct IntervalParameter {
    uint64_t flags = 0;
    std::string alias;
    // The first sample was taken over from the latest known value at opening.
    bool seeded = false;
};

struct Interval {
    uint32_t id = 0;
    std::string type;
    ValueMap startValues;
    std::map<std::string, IntervalParameter> parameters;
    std::map<std::string, std::vector<Sample>> samples;
    int64_t startTime = 0;
    uint32_t maxSamples = 0;
};

struct PeriodicInterval {
    uint32_t id = 0;
    std::string type;
    std::map<std::string, IntervalParameter> parameters;
    std::map<std::string, std::vector<Sample>> samples;
    int64_t startTime = 0;
    int64_t period = 0;
    int64_t nextDue = 0;
    uint32_t maxSamples = 0;
};

// Hub of the telemetry library: keeps the latest value of every key, collects samples
// for open intervals and reduces them to records that go to the sinks in order.
// Not thread-safe; called from one thread only.
class Manager {
public:
    static constexpr uint32_t kDefaultMaxSamples = 10000;
    // Upper bound of sample lists kept for reuse between intervals.
    static constexpr std::size_t kMaxSpareSampleLists = 32;

    // Sinks are called in the given order and must outlive the manager.
    explicit Manager(std::vector<Sink*> sinks, Clock clock = monotonicTimestamp);
    // Shared sinks are kept alive for as long as the manager.
    explicit Manager(const std::vector<std::shared_ptr<Sink>>& sinks,
                     Clock clock = monotonicTimestamp);

    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    uint32_t openInterval(const std::string& type, const ValueMap& startValues,
                          const AggregationPlan& plan, int64_t timestamp = kNow,
                          uint32_t maxSamples = kDefaultMaxSamples);
    uint32_t openInterval(const std::string& type, const ValueMap& startValues,
                          const SimpleAggregationPlan& plan, int64_t timestamp = kNow,
                          uint32_t maxSamples = kDefaultMaxSamples);
    uint32_t openInterval(const std::string& type, const AggregationPlan& plan,
                          int64_t timestamp = kNow, uint32_t maxSamples = kDefaultMaxSamples);
    uint32_t openInterval(const std::string& type, const SimpleAggregationPlan& plan,
                          int64_t timestamp = kNow, uint32_t maxSamples = kDefaultMaxSamples);

    // Gives the record of the interval; an unknown id gives an empty map and does nothing.
    ValueMap closeInterval(uint32_t id, const ValueMap& extraValues = ValueMap(),
                           int64_t timestamp = kNow);

    // Feeds values into the current table and all open intervals; reaches no sink.
    void logValues(const ValueMap& values, int64_t timestamp = kNow);
    // logValues on the record, then the record to every sink in order.
    void deliver(const ValueMap& record, int64_t timestamp = kNow);
    // Delivers a copy of `values` whose "type" holds `type`.
    void logRecord(const std::string& type, const ValueMap& values, int64_t timestamp = kNow);

    // Latest value of the key; empty when never logged.
    Value currentValue(const std::string& key) const;

    // A self-renewing interval; `startTime` is taken as it stands, kNow included.
    uint32_t openPeriodicInterval(const std::string& type, int64_t period,
                                  const AggregationPlan& plan,
                                  uint32_t maxSamples = kDefaultMaxSamples,
                                  int64_t startTime = kNow);
    uint32_t openPeriodicInterval(const std::string& type, int64_t period,
                                  const SimpleAggregationPlan& plan,
                                  uint32_t maxSamples = kDefaultMaxSamples,
                                  int64_t startTime = kNow);

    // Flushes every periodic interval that is due before `timestamp`; gives how many.
    int flushDueIntervals(int64_t timestamp = kNow);

private:
    int64_t resolve(int64_t timestamp) const;
    void flushPeriodicInterval(uint32_t id, int64_t timestamp);
    static void addAggregates(ValueMap& record,
                              const std::map<std::string, IntervalParameter>& parameters,
                              const std::map<std::string, std::vector<Sample>>& samples,
                              int64_t duration);

    std::vector<Sink*> sinks_;
    std::vector<std::shared_ptr<Sink>> ownedSinks_;
    Clock clock_;
    std::map<std::string, CurrentValue> current_;
    uint32_t nextIntervalId_ = 0;
    std::map<std::string, std::vector<uint32_t>> intervalsByKey_;
    std::map<uint32_t, Interval> intervals_;
    uint32_t nextPeriodicId_ = 0;
    std::map<std::string, std::vector<uint32_t>> periodicByKey_;
    std::map<uint32_t, PeriodicInterval> periodicIntervals_;
    // Emptied sample lists of closed intervals, reused by the next opening so that a
    // steady cycle neither returns its memory nor grows it again sample by sample.
    std::vector<std::vector<Sample>> spareSampleLists_;
};

}  // namespace telemalog
}  // namespace nvsf
