#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "telemalog/sink.h"

// Everything the run function takes as compiled in. The defaults are the service's values.
struct TelematicsConfig {
    std::int64_t periodMs = 30000;
    // Position in this list is the bus number: MACHINE_250K, MACHINE_500K, PRODUCT_250K.
    std::vector<std::string> channels{"can2", "can3", "can1"};
    std::string machineFilePath = "/etc/norvane/telematics/machine.json";
    std::string detectedMachineFilePath = "/etc/norvane/telematics/detectedMachine.json";
    std::string iceHost = "localhost";
    int icePort = 9090;
    // Connect, receive and send timeouts of each attempt to reach the Ice service.
    int iceTimeoutMs = 20000;
    std::string zmqEndpoint = "tcp://*:4499";
    // The device registration file, source of the serial number in the node's NAME.
    std::string deviceRegistrationPath = "/etc/norvane/registration.conf";
    // Opens a CAN channel and gives its file descriptor; empty means SocketCAN.
    std::function<int(const std::string& channel)> channelOpener;
    // Sinks handed to the manager after the Ice and ZeroMQ sinks; the service has none.
    std::vector<std::shared_ptr<nvsf::telemalog::Sink>> extraSinks;
    // Called on the run loop's thread just before each record is closed, the last one of the
    // stop path included; the service sets none. With extraSinks it tells a record closed
    // after some moment from one already being closed then.
    std::function<void()> beforeClose;
};

// Blocks SIGTERM and SIGINT in the calling thread, and so in every thread it creates later;
// the run loop then takes them synchronously between passes. Call before any thread starts.
void blockStopSignals();

// Registers the telematics.engine schema in the generated descriptor pool.
void registerTelematicsSchema();

// Builds the object graph, starts the CAN service and publishes one record per period. Returns
// only after SIGTERM or SIGINT, once the CAN service has stopped and the last record has been
// delivered.
void runTelematicsLoop(std::int64_t period);
void runTelematicsLoop(const TelematicsConfig& config);
