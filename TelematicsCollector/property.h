#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace nvsf {
namespace telemalog {
class Manager;
}
}  // namespace nvsf

template <typename T>
struct PropertySample {
    T value;
    std::int64_t timestampMs;
};

// Milliseconds of a monotonic nanosecond count, narrowed through signed 32 bits like every
// telemetry time: after about 24.8 days of uptime the result turns negative.
std::int64_t narrowedMilliseconds(std::int64_t nanoseconds);
// The current monotonic time in that form.
std::int64_t propertyTimestampMs();

class PropertyBase {
public:
    explicit PropertyBase(std::string propertyName) : name(std::move(propertyName)) {}
    virtual ~PropertyBase() = default;
    PropertyBase(const PropertyBase&) = delete;
    PropertyBase& operator=(const PropertyBase&) = delete;

    // Moves what was set since the last swap to the read side.
    virtual void swapBuffers() = 0;
    // Logs every sample of the read side, one call each; neither empties nor swaps.
    virtual void logSamples(std::shared_ptr<nvsf::telemalog::Manager> manager) = 0;

    const std::string name;  // the key every sample is logged under
};

// A named stream of samples, double-buffered so that a CAN handler never waits for the
// telemetry path: the lock covers one append or one buffer exchange.
template <typename T>
class Property : public PropertyBase {
public:
    using Sample = PropertySample<T>;

    explicit Property(std::string propertyName) : PropertyBase(std::move(propertyName)) {}

    void set(const T& value);
    void swapBuffers() override;
    void logSamples(std::shared_ptr<nvsf::telemalog::Manager> manager) override;

    // Newest sample not yet swapped out; false when there is none.
    bool newestUnflushed(T& value) const;
    // Copy of the samples not yet swapped out, in arrival order.
    std::vector<Sample> unflushedSamples() const;
    // The batch of the last swap; only the flushing thread may read it.
    const std::vector<Sample>& flushedSamples() const { return readBuffer; }

private:
    std::vector<Sample> writeBuffer;
    std::vector<Sample> readBuffer;
    mutable std::mutex mutex;
};

extern template class Property<int>;
extern template class Property<double>;
extern template class Property<std::string>;
