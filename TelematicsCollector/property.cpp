#include "TelematicsCollector/property.h"

#include <chrono>

#include "telemalog/manager.h"
#include "telemalog/value.h"

std::int64_t narrowedMilliseconds(std::int64_t nanoseconds) {
    // Wraps modulo 2^32 into the signed range, then widens again.
    const auto low = static_cast<std::uint32_t>(nanoseconds / 1000000);
    return static_cast<std::int64_t>(static_cast<std::int32_t>(low));
}

std::int64_t propertyTimestampMs() {
    const auto sinceEpoch = std::chrono::steady_clock::now().time_since_epoch();
    return narrowedMilliseconds(
        std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count());
}

template <typename T>
void Property<T>::set(const T& value) {
    // Stamped before locking: concurrent writers need not stay in timestamp order.
    const std::int64_t timestamp = propertyTimestampMs();
    std::lock_guard<std::mutex> lock(mutex);
    writeBuffer.push_back(Sample{value, timestamp});
}

template <typename T>
void Property<T>::swapBuffers() {
    readBuffer.clear();  // keeps its capacity for the next round of writes
    std::lock_guard<std::mutex> lock(mutex);
    writeBuffer.swap(readBuffer);
}

template <typename T>
void Property<T>::logSamples(std::shared_ptr<nvsf::telemalog::Manager> manager) {
    for (const Sample& sample : readBuffer) {
        nvsf::telemalog::ValueMap values;
        values.set(name, sample.value);
        manager->logValues(values, sample.timestampMs);
    }
}

template <typename T>
bool Property<T>::newestUnflushed(T& value) const {
    std::lock_guard<std::mutex> lock(mutex);
    if (writeBuffer.empty()) {
        return false;
    }
    value = writeBuffer.back().value;
    return true;
}

template <typename T>
std::vector<typename Property<T>::Sample> Property<T>::unflushedSamples() const {
    std::lock_guard<std::mutex> lock(mutex);
    return writeBuffer;
}

template class Property<int>;
template class Property<double>;
template class Property<std::string>;
