#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "telemalog/value.h"

namespace nvsf {
namespace telemalog {

// One logged value of a key, stamped in milliseconds since its interval's start.
struct Sample {
    int64_t timestamp = 0;
    Value value;
};

// A Sample whose timestamp holds how long its value stayed current, in milliseconds.
using DurationSample = Sample;

// Aggregation flags of a plan entry. Bits 7, 8, 9 and 31 have no meaning.
namespace aggregation {
constexpr uint64_t kCount = 1ull << 0;
constexpr uint64_t kMean = 1ull << 1;
constexpr uint64_t kMedian = 1ull << 2;
constexpr uint64_t kMode = 1ull << 3;
constexpr uint64_t kStddev = 1ull << 4;
constexpr uint64_t kSum = 1ull << 5;
constexpr uint64_t kProduct = 1ull << 6;
constexpr uint64_t kBoolNone = 1ull << 10;
constexpr uint64_t kBoolAny = 1ull << 11;
constexpr uint64_t kBoolAll = 1ull << 12;
constexpr uint64_t kChronoMean = 1ull << 13;
constexpr uint64_t kChronoMedian = 1ull << 14;
constexpr uint64_t kChronoMode = 1ull << 15;
constexpr uint64_t kChronoStddev = 1ull << 16;
constexpr uint64_t kUniqueCount = 1ull << 17;
constexpr uint64_t kRandomValue = 1ull << 18;
constexpr uint64_t kValues = 1ull << 19;
constexpr uint64_t kUniqueValues = 1ull << 20;
constexpr uint64_t kMin = 1ull << 21;
constexpr uint64_t kMax = 1ull << 22;
constexpr uint64_t kFirst = 1ull << 23;
constexpr uint64_t kMiddle = 1ull << 24;
constexpr uint64_t kLast = 1ull << 25;
constexpr uint64_t kConcat = 1ull << 26;
constexpr uint64_t kDuration = 1ull << 27;
constexpr uint64_t kChronoDuration = 1ull << 28;
constexpr uint64_t kDelta = 1ull << 29;
constexpr uint64_t kRate = 1ull << 30;
constexpr uint64_t kEventCount = 1ull << 32;

// Low-word bits of the aggregations that work on duration samples.
constexpr uint64_t kDurationSampleMask = 0x7381E000ull;
}  // namespace aggregation

using AggregateResult = std::vector<std::pair<std::string, Value>>;

// Each sample's value with how long it stayed current: samples are ordered by time
// (stable), and the last one lasts until `duration`.
std::vector<DurationSample> makeDurationSamples(const std::vector<Sample>& samples,
                                                int64_t duration);

// Reduces one key's samples to the aggregations asked for in `flags`, in their fixed
// emission order; result keys are `key` followed by the aggregation's suffix.
// `seeded` tells that the first sample was carried over from before the interval.
AggregateResult aggregate(const std::string& key, uint64_t flags,
                          const std::vector<Sample>& samples, int64_t duration, bool seeded);

}  // namespace telemalog
}  // namespace nvsf
