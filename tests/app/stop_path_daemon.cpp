// The service's run function on loopback peers, for the stop path test:
//   tilthwatch_stop_daemon <ice port> <zeromq endpoint> <period ms>
#include <log4cplus/initializer.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "telematicsloop.h"

int main(int argc, char** argv) {
    blockStopSignals();
    if (argc != 4) {
        std::cerr << "usage: tilthwatch_stop_daemon <ice port> <zeromq endpoint> <period ms>\n";
        return 2;
    }
    log4cplus::Initializer initializer;
    TelematicsConfig config;
    config.iceHost = "127.0.0.1";
    config.icePort = std::atoi(argv[1]);
    config.zmqEndpoint = argv[2];
    config.periodMs = std::atoll(argv[3]);
    config.machineFilePath = "/nonexistent/machine.json";
    config.detectedMachineFilePath = "/nonexistent/detectedMachine.json";
    runTelematicsLoop(config);
    return 0;
}
