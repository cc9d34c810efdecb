#include "telemalog/aggregate.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include <boost/functional/hash.hpp>

namespace nvsf {
namespace telemalog {

namespace {

using namespace aggregation;

// Smallest prime bucket count of at least 10: decides the walk order of the mode tables.
constexpr std::size_t kModeBuckets = 10;

using ValueHash = boost::hash<Value>;

// Times come from callers; their sums and differences wrap rather than overflow.
int64_t wrappingAdd(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

int64_t wrappingSub(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

// A duration sample as seen by the aggregations: how long, and which logged value.
struct TimedValue {
    int64_t duration;
    const Value* value;
};

bool isNumeric(const Value& value) {
    return value.which() == kIntIndex || value.which() == kDoubleIndex;
}

// Pointers to the values sorted by valueCompare, equal values kept in sample order.
// The merge sort stays within bounds even when NaN breaks the ordering.
std::vector<const Sample*> sortedByValue(const std::vector<Sample>& samples) {
    std::vector<const Sample*> sorted;
    sorted.reserve(samples.size());
    for (const auto& sample : samples) {
        sorted.push_back(&sample);
    }
    ValueLess less;
    std::stable_sort(sorted.begin(), sorted.end(), [&less](const Sample* a, const Sample* b) {
        return less(a->value, b->value);
    });
    return sorted;
}

// The alternative all same-type aggregations work on: that of the first non-empty
// sample, or empty when all samples are empty.
int keptAlternative(const std::vector<Sample>& samples) {
    for (const auto& sample : samples) {
        if (!isEmpty(sample.value)) {
            return sample.value.which();
        }
    }
    return kEmptyIndex;
}

template <typename T, typename Convert, typename Range>
Value toVector(const Range& kept, Convert convert) {
    std::vector<T> out;
    out.reserve(kept.size());
    for (const Value* value : kept) {
        out.push_back(convert(*value));
    }
    return Value(std::move(out));
}

// Builds the vector named by the alternative of the first raw sample.
template <typename Range>
Value valuesVector(int firstAlternative, const Range& kept) {
    switch (firstAlternative) {
        case kBoolIndex:
            return toVector<bool>(kept, toBool);
        case kIntIndex:
            return toVector<int>(kept, toInt);
        case kDoubleIndex:
            return toVector<double>(kept, toDouble);
        case kStringIndex:
            return toVector<std::string>(kept, toText);
        default:
            return Value();
    }
}

std::vector<const Value*> sameTypeValues(const std::vector<Sample>& samples) {
    int alternative = keptAlternative(samples);
    std::vector<const Value*> kept;
    kept.reserve(samples.size());
    for (const auto& sample : samples) {
        if (sample.value.which() == alternative) {
            kept.push_back(&sample.value);
        }
    }
    return kept;
}

// The first entry in table order with the largest weight; ties go to the earlier one.
template <typename Weight>
Value heaviest(const std::unordered_map<Value, Weight, ValueHash>& weights) {
    Value best;
    Weight bestWeight = 0;
    for (const auto& entry : weights) {
        if (entry.second > bestWeight) {
            bestWeight = entry.second;
            best = entry.first;
        }
    }
    return best;
}

Value mode(const std::vector<Sample>& samples) {
    std::unordered_map<Value, int, ValueHash> counts(kModeBuckets);
    for (const auto& sample : samples) {
        ++counts[sample.value];
    }
    return heaviest(counts);
}

Value chronoMode(const std::vector<TimedValue>& durations) {
    std::unordered_map<Value, uint32_t, ValueHash> weights(kModeBuckets);
    for (const auto& timed : durations) {
        weights[*timed.value] += static_cast<uint32_t>(timed.duration);
    }
    return heaviest(weights);
}

Value median(const std::vector<Sample>& samples) {
    if (samples.empty()) {
        return Value();
    }
    auto sorted = sortedByValue(samples);
    if (sorted.front()->value.which() != sorted.back()->value.which()) {
        return Value();
    }
    return sorted[sorted.size() / 2]->value;
}

Value chronoMedian(std::vector<TimedValue> durations, int64_t duration) {
    if (durations.empty()) {
        return Value();
    }
    ValueLess less;
    std::stable_sort(
        durations.begin(), durations.end(),
        [&less](const TimedValue& a, const TimedValue& b) { return less(*a.value, *b.value); });
    if (durations.front().value->which() != durations.back().value->which()) {
        return Value();
    }
    const int64_t half = duration / 2;
    int64_t total = 0;
    for (const auto& timed : durations) {
        total = wrappingAdd(total, timed.duration);
        if (total >= half) {
            return *timed.value;
        }
    }
    return Value();
}

// Sum and count of the int and double samples; the other alternatives are skipped.
struct NumericSum {
    double sum = 0.0;
    std::size_t count = 0;
};

NumericSum numericSum(const std::vector<Sample>& samples) {
    NumericSum total;
    for (const auto& sample : samples) {
        if (isNumeric(sample.value)) {
            total.sum += toDouble(sample.value);
            ++total.count;
        }
    }
    return total;
}

// Divided by the raw count on purpose: non-numeric samples shrink the result.
double stddev(const std::vector<Sample>& samples) {
    if (samples.empty()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    const NumericSum total = numericSum(samples);
    double squares = 0.0;
    if (total.count != 0) {
        const double mean = total.sum / static_cast<double>(total.count);
        for (const auto& sample : samples) {
            if (isNumeric(sample.value)) {
                const double difference = toDouble(sample.value) - mean;
                squares += difference * difference;
            }
        }
    }
    return std::sqrt(squares / static_cast<double>(samples.size()));
}

// Empty samples convert to false, so they never count as true.
bool anyTrue(const std::vector<Sample>& samples) {
    return std::any_of(samples.begin(), samples.end(),
                       [](const Sample& sample) { return toBool(sample.value); });
}

bool allTrue(const std::vector<Sample>& samples) {
    return std::all_of(samples.begin(), samples.end(),
                       [](const Sample& sample) { return toBool(sample.value); });
}

// The least sample, or with `greatest` the largest, among those of `alternative`.
Value extreme(const std::vector<Sample>& samples, int alternative, bool greatest) {
    ValueLess less;
    const Value* result = nullptr;
    for (const auto& sample : samples) {
        const Value& value = sample.value;
        if (value.which() != alternative) {
            continue;
        }
        if (result == nullptr || isEmpty(*result) ||
            (greatest ? less(*result, value) : less(value, *result))) {
            result = &value;
        }
    }
    return result == nullptr ? Value() : *result;
}

double numericValue(const Value& value) {
    return value.which() == kIntIndex ? static_cast<double>(boost::get<int>(value))
                                      : boost::get<double>(value);
}

// Weighted sums over the numeric duration samples: sum of duration times value, and of
// durations, with the count of pairs.
struct WeightedSums {
    double weighted = 0.0;
    double durations = 0.0;
    std::size_t pairs = 0;
    double onlyValue = 0.0;
};

WeightedSums weightedSums(const std::vector<TimedValue>& durations) {
    WeightedSums sums;
    for (const auto& timed : durations) {
        if (!isNumeric(*timed.value)) {
            continue;
        }
        const double value = numericValue(*timed.value);
        const double weight = static_cast<double>(timed.duration);
        sums.weighted += weight * value;
        sums.durations += weight;
        sums.onlyValue = value;
        ++sums.pairs;
    }
    return sums;
}

double chronoStddev(const std::vector<TimedValue>& durations, const WeightedSums& sums) {
    if (sums.pairs == 0) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    const double mean = sums.weighted / sums.durations;
    double squares = 0.0;
    for (const auto& timed : durations) {
        if (!isNumeric(*timed.value)) {
            continue;
        }
        const double difference = numericValue(*timed.value) - mean;
        squares += static_cast<double>(timed.duration) * difference * difference;
    }
    return std::sqrt(squares / sums.durations);
}

Value delta(const std::vector<TimedValue>& durations) {
    if (durations.size() < 2) {
        return Value();
    }
    const Value& first = *durations.front().value;
    const Value& last = *durations.back().value;
    if (first.which() == kIntIndex && last.which() == kIntIndex) {
        // Narrowed like the 32-bit subtraction it stands for.
        return Value(static_cast<int>(wrappingSub(boost::get<int>(last), boost::get<int>(first))));
    }
    if (isNumeric(first) && isNumeric(last)) {
        return Value(numericValue(last) - numericValue(first));
    }
    return Value();
}

int chronoDuration(const std::vector<TimedValue>& durations) {
    uint32_t total = 0;
    for (const auto& timed : durations) {
        total += static_cast<uint32_t>(timed.duration);
    }
    return static_cast<int>(total);
}

// The duration samples without copying values: each points into `samples`, which must
// outlive the result.
std::vector<TimedValue> durationView(const std::vector<Sample>& samples, int64_t duration) {
    std::vector<TimedValue> out;
    if (samples.empty()) {
        return out;
    }
    out.reserve(samples.size());
    for (const auto& sample : samples) {
        out.push_back(TimedValue{sample.timestamp, &sample.value});
    }
    // Samples usually arrive in time order; skip the sort then.
    auto byTime = [](const TimedValue& a, const TimedValue& b) { return a.duration < b.duration; };
    if (!std::is_sorted(out.begin(), out.end(), byTime)) {
        std::stable_sort(out.begin(), out.end(), byTime);
    }
    for (std::size_t i = 0; i + 1 < out.size(); ++i) {
        out[i].duration = wrappingSub(out[i + 1].duration, out[i].duration);
    }
    out.back().duration = wrappingSub(duration, out.back().duration);
    return out;
}

}  // namespace

std::vector<DurationSample> makeDurationSamples(const std::vector<Sample>& samples,
                                                int64_t duration) {
    std::vector<DurationSample> out;
    for (const auto& timed : durationView(samples, duration)) {
        out.push_back(DurationSample{timed.duration, *timed.value});
    }
    return out;
}

AggregateResult aggregate(const std::string& key, uint64_t flags,
                          const std::vector<Sample>& samples, int64_t duration, bool seeded) {
    AggregateResult results;
    auto emit = [&](const char* suffix, Value value) {
        results.emplace_back(key + suffix, std::move(value));
    };
    const std::size_t n = samples.size();

    if (flags & kEventCount) {
        int count = static_cast<int>(n);
        emit(".event_count", n == 0 ? 0 : (seeded ? count - 1 : count));
    }
    if (flags & kCount) {
        emit(".count", static_cast<int>(n));
    }
    if (flags & kUniqueCount) {
        std::unordered_set<Value, ValueHash> distinct;
        for (const auto& sample : samples) {
            distinct.insert(sample.value);
        }
        emit(".unique_count", static_cast<int>(distinct.size()));
    }
    if (flags & kSum) {
        double sum = 0.0;
        for (const auto& sample : samples) {
            sum += toDouble(sample.value);
        }
        emit(".sum", sum);
    }
    if (flags & kProduct) {
        double product = 1.0;
        for (const auto& sample : samples) {
            product *= toDouble(sample.value);
        }
        emit(".product", product);
    }
    if (flags & kMean) {
        const NumericSum total = numericSum(samples);
        emit(".mean",
             total.count == 0 ? Value() : Value(total.sum / static_cast<double>(total.count)));
    }
    if (flags & kMedian) {
        emit(".median", median(samples));
    }
    if (flags & kMode) {
        emit(".mode", n == 0 ? Value() : mode(samples));
    }
    if (flags & kStddev) {
        emit(".stddev", stddev(samples));
    }
    // Three-valued: empty without samples.
    if (flags & kBoolNone) {
        emit(".bool_none", n == 0 ? Value() : Value(!anyTrue(samples)));
    }
    if (flags & kBoolAny) {
        emit(".bool_any", n == 0 ? Value() : Value(anyTrue(samples)));
    }
    if (flags & kBoolAll) {
        emit(".bool_all", n == 0 ? Value() : Value(allTrue(samples)));
    }
    if (flags & kRandomValue) {
        emit(".random_value",
             n == 0 ? Value() : samples[static_cast<std::size_t>(std::rand()) % n].value);
    }
    if (flags & (kValues | kUniqueValues)) {
        const std::vector<const Value*> kept = sameTypeValues(samples);
        const int firstAlternative = n == 0 ? kEmptyIndex : samples.front().value.which();
        if (flags & kValues) {
            emit(".values", valuesVector(firstAlternative, kept));
        }
        if (flags & kUniqueValues) {
            std::set<const Value*, bool (*)(const Value*, const Value*)> unique(
                [](const Value* a, const Value* b) { return ValueLess()(*a, *b); });
            for (const Value* value : kept) {
                unique.insert(value);
            }
            emit(".unique_values", valuesVector(firstAlternative, unique));
        }
    }
    if (flags & (kMin | kMax)) {
        const int alternative = keptAlternative(samples);
        if (flags & kMin) {
            emit(".min", extreme(samples, alternative, false));
        }
        if (flags & kMax) {
            emit(".max", extreme(samples, alternative, true));
        }
    }
    if (flags & kConcat) {
        std::string text;
        for (const auto& sample : samples) {
            text += toText(sample.value);
        }
        emit(".concat", std::move(text));
    }
    if (flags & kDuration) {
        emit(".duration", static_cast<int>(duration));
    }

    if ((flags & kDurationSampleMask) == 0) {
        return results;
    }
    const std::vector<TimedValue> durations = durationView(samples, duration);
    const std::size_t m = durations.size();
    const WeightedSums sums = weightedSums(durations);

    if (flags & kChronoMean) {
        Value result;
        if (m != 0) {
            result = sums.pairs == 1 ? sums.onlyValue : sums.weighted / sums.durations;
        }
        emit(".chrono_mean", result);
    }
    if (flags & kChronoMedian) {
        emit(".chrono_median", chronoMedian(durations, static_cast<int>(duration)));
    }
    if (flags & kChronoMode) {
        emit(".chrono_mode", m == 0 ? Value() : chronoMode(durations));
    }
    if (flags & kChronoStddev) {
        emit(".chrono_stddev", m == 0 ? Value() : Value(chronoStddev(durations, sums)));
    }
    if (flags & kFirst) {
        emit(".first", m == 0 ? Value() : *durations.front().value);
    }
    if (flags & kMiddle) {
        emit(".middle", m == 0 ? Value() : *durations[m / 2].value);
    }
    if (flags & kLast) {
        emit(".last", m == 0 ? Value() : *durations.back().value);
    }
    const Value difference = delta(durations);
    if (flags & kDelta) {
        emit(".delta", difference);
    }
    const int totalDuration = chronoDuration(durations);
    if (flags & kRate) {
        const double t = static_cast<double>(totalDuration);
        Value result;
        if (t != 0.0 && !isEmpty(difference)) {
            result = toDouble(difference) / t * 1000.0;
        }
        emit(".rate", result);
    }
    if (flags & kChronoDuration) {
        emit(".chrono_duration", totalDuration);
    }
    return results;
}

}  // namespace telemalog
}  // namespace nvsf
