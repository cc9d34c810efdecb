#include "telematicsloop.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "TelematicsCollector/properties.h"
#include "TelematicsCollector/telematicsicesink.h"
#include "TelematicsCollector/telematicsmessageconstructor.h"
#include "TelematicsCollector/telematicszmqsink.h"
#include "caninterface/caninterfaceimplementation.h"
#include "caninterface/deviceregistration.h"
#include "telemalog/manager.h"

using nvsf::telemalog::Manager;
using nvsf::telemalog::SimpleAggregationPlan;
using nvsf::telemalog::ValueMap;

namespace {

log4cplus::Logger logger = log4cplus::Logger::getInstance("tilthwatch.main");

const std::string kRecordName = "machineTelematics";
constexpr std::uint64_t kEngineMask = 0x102602000ull;  // event_count, chrono_mean, min, max, last
constexpr std::uint64_t kLastMask = 0x2000000ull;      // last
constexpr std::uint32_t kMaxSamples = 10000;

sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

std::int64_t timestampNow() {
    return nvsf::telemalog::monotonicTimestamp();
}

void addEntries(SimpleAggregationPlan& plan, const std::vector<PropertyBase*>& list,
                std::uint64_t mask) {
    std::vector<std::string> names;
    for (const PropertyBase* property : list) {
        names.push_back(property->name);
    }
    for (const std::string& name : names) {
        plan.emplace_back(name, mask);
    }
}

SimpleAggregationPlan buildAggregationPlan(const Properties& properties) {
    SimpleAggregationPlan plan;
    addEntries(plan, properties.engineProperties, kEngineMask);
    addEntries(plan, properties.detectedProperties, kLastMask);
    addEntries(plan, properties.userSelectedProperties, kLastMask);
    addEntries(plan, properties.codeProperties, kLastMask);
    return plan;
}

// Sleeps for the period, the time of the pass not counted. Gives the stop signal that ended
// the wait early, or 0 when the full period passed.
int waitForPeriod(std::int64_t periodMs) {
    const sigset_t set = stopSignals();
    if (periodMs < 0) {
        periodMs = 0;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(periodMs);
    timespec timeout;
    timeout.tv_sec = static_cast<time_t>(periodMs / 1000);
    timeout.tv_nsec = static_cast<long>((periodMs % 1000) * 1000000);
    for (;;) {
        const int signal = sigtimedwait(&set, nullptr, &timeout);
        if (signal > 0) {
            return signal;
        }
        if (errno == EAGAIN) {
            return 0;
        }
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "sigtimedwait");
        }
        // Another signal's handler ran: wait out the rest of the period.
        const auto left = deadline - std::chrono::steady_clock::now();
        const auto leftNs = std::max<std::int64_t>(
            0, std::chrono::duration_cast<std::chrono::nanoseconds>(left).count());
        timeout.tv_sec = static_cast<time_t>(leftNs / 1000000000);
        timeout.tv_nsec = static_cast<long>(leftNs % 1000000000);
    }
}

// Closes the open interval and hands its record to the sinks.
ValueMap closeAndPublish(Properties& properties, const std::shared_ptr<Manager>& manager,
                         std::uint32_t intervalId, const std::function<void()>& beforeClose) {
    if (beforeClose) {
        beforeClose();
    }
    properties.flushProperties(manager);
    ValueMap record;
    {
        const ValueMap noExtraValues;
        record = manager->closeInterval(intervalId, noExtraValues, timestampNow());
    }
    manager->logRecord(kRecordName, record, timestampNow());
    return record;
}

// Copies each "name.last" value to "name" in the closed record. The record is discarded right
// after and the next interval opens with the seed map, so the copies reach nobody.
void copyLastValues(ValueMap& record) {
    static const std::string kLast = ".last";
    std::vector<std::pair<std::string, nvsf::telemalog::Value>> copies;
    for (const auto& entry : record) {
        const std::string::size_type at = entry.first.find(kLast);
        if (at == std::string::npos ||
            entry.first.find('.', at + kLast.size()) != std::string::npos ||
            nvsf::telemalog::isEmpty(entry.second)) {
            continue;
        }
        copies.emplace_back(entry.first.substr(0, at), entry.second);
    }
    for (auto& copy : copies) {
        record.set(copy.first, copy.second);
    }
}

}  // namespace

void blockStopSignals() {
    const sigset_t set = stopSignals();
    const int error = pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "pthread_sigmask");
    }
}

void runTelematicsLoop(std::int64_t period) {
    TelematicsConfig config;
    config.periodMs = period;
    runTelematicsLoop(config);
}

void runTelematicsLoop(const TelematicsConfig& config) {
    // Threads created from here on (ZeroMQ, CAN) inherit the mask and never take the signals.
    blockStopSignals();
    registerTelematicsSchema();

    auto properties = std::make_shared<Properties>();
    std::vector<std::shared_ptr<nvsf::telemalog::Sink>> sinks;

    auto recordConstructor = std::make_shared<MachineTelematicsMessageConstructor>(properties);
    std::vector<std::shared_ptr<TelematicsMessageConstructor>> recordConstructors{
        recordConstructor};
    auto iceSink = std::make_shared<TelematicsIceSink>(recordConstructors, config.iceHost,
                                                       config.icePort, config.iceTimeoutMs);
    sinks.push_back(iceSink);

    auto statusConstructor =
        std::make_shared<MachineTelematicsStatusMessageConstructor>(properties);
    std::vector<std::shared_ptr<TelematicsMessageConstructor>> statusConstructors{
        statusConstructor};
    auto zmqSink = std::make_shared<TelematicsZmqSink>(statusConstructors, config.zmqEndpoint);
    sinks.push_back(zmqSink);
    sinks.insert(sinks.end(), config.extraSinks.begin(), config.extraSinks.end());

    auto manager = std::make_shared<Manager>(sinks);

    auto stateMachine = std::make_shared<CanPropertySourceStateMachine>(
        properties, config.machineFilePath, config.detectedMachineFilePath);

    deviceregistration::setPath(config.deviceRegistrationPath);
    auto canService = std::make_shared<CanInterfaceImplementation>(config.channelOpener);
    const std::vector<std::string> channels = config.channels;
    canService->start(stateMachine, channels);

    const SimpleAggregationPlan plan = buildAggregationPlan(*properties);
    std::uint32_t intervalId = manager->openInterval(kRecordName, plan, timestampNow());
    const ValueMap seed;

    int signal = 0;
    while ((signal = waitForPeriod(config.periodMs)) == 0) {
        ValueMap record = closeAndPublish(*properties, manager, intervalId, config.beforeClose);
        copyLastValues(record);
        intervalId = manager->openInterval(kRecordName, seed, plan, timestampNow(), kMaxSamples);
    }

    LOG4CPLUS_INFO(logger, "Stopping tilthwatch application on signal " << signal);
    // Samples of the last frames still reach the last record.
    canService->stop();
    closeAndPublish(*properties, manager, intervalId, config.beforeClose);
}
