// Ordinary frames per second through receiveMessage with twelve PGN filters registered, as
// while the readers run. The real clock stays behind Timestamp_ms.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "canstack/canmessage.h"
#include "canstack/filteredmessagecallback.h"
#include "canstack/internalcontrolfunction.h"
#include "canstack/name.h"
#include "canstack/networkmanagement.h"
#include "canstack/networkmanagementutilities.h"

namespace {
struct Receiver : ReceiveCANMessageCallbackClass {
    void receiveCANMessage(CANMessageClass* message) override {
        message->getData(last, sizeof(last));
        benchmark::DoNotOptimize(last);
    }
    uint8_t last[8] = {};
};

struct Watcher : InternalControlFunctionClass {
    Watcher() : InternalControlFunctionClass(NAMEClass(0xA0001C0012E00001ull), 1) {}
    uint8_t getAddressAtIndex(uint8_t index) override { return index == 0 ? 37 : 254; }
};

bool transmit(CANTransmitMessageClass* message) {
    if (!message->prepareIdentifierForTransmit()) {
        return false;
    }
    NetworkManagementClass::transmitComplete(message, true);
    return true;
}

struct Setup {
    Setup() {
        NetworkManagementClass::TransmitCANMessage = &transmit;
        NetworkManagementClass::update();
        // A device that claimed address 0, as an engine controller does.
        uint8_t name[8];
        NAMEClass(0x00000000002E0001ull).toBytes(name);
        CANReceiveMessageClass claim(1, 0x18EEFF00u, name, 8, 1);
        NetworkManagementClass::receiveMessage(&claim);
        const uint32_t pgns[12] = {0xF003, 0xF004, 0xFE56, 0xFEE5, 0xFEEE, 0xFEEF,
                                   0xFEF2, 0xFEF8, 0xFEFC, 0xFEEC, 0xFF12, 0xFF7A};
        for (uint32_t pgn : pgns) {
            filters.emplace_back(new FilteredMessageMatchingCallbackClass());
            filters.back()->setParameterGroupNumber(pgn);
            filters.back()->setChannel(1);
            filters.back()->addCallback(&receiver);
        }
        NetworkManagementClass::update();
    }
    Watcher watcher;
    Receiver receiver;
    std::vector<std::unique_ptr<FilteredMessageMatchingCallbackClass>> filters;
};

Setup& setup() {
    static Setup instance;
    return instance;
}

const uint8_t DATA[8] = {0xF0, 0x7D, 0x7D, 0x20, 0x1C, 0x00, 0xF0, 0x7D};

// One frame that a filter takes (engine speed), built and delivered as the CAN thread does.
void BM_ReceiveMatchingFrame(benchmark::State& state) {
    setup();
    for (auto _ : state) {
        CANReceiveMessageClass frame(1, 0x0CF00400u, DATA, 8, 1);
        NetworkManagementClass::receiveMessage(&frame);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ReceiveMatchingFrame);

// Bus traffic: sixteen groups from four sources, a quarter of them taken by a filter.
void BM_ReceiveMixedTraffic(benchmark::State& state) {
    setup();
    const uint32_t identifiers[16] = {0x0CF00400u, 0x18FECA00u, 0x18FEF100u, 0x0CF00300u,
                                      0x18FEE000u, 0x18FEDF00u, 0x18FEF200u, 0x18FF0103u,
                                      0x0CF00203u, 0x18FEF500u, 0x18FEEE00u, 0x18FD9400u,
                                      0x18FEE500u, 0x18FEF728u, 0x18FEC128u, 0x1CFEB300u};
    uint32_t i = 0;
    for (auto _ : state) {
        CANReceiveMessageClass frame(1, identifiers[i++ & 15u], DATA, 8, 1);
        NetworkManagementClass::receiveMessage(&frame);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ReceiveMixedTraffic);
// The same traffic with a clock that costs nothing, to tell stack time from clock time.
uint32_t frozenClock() {
    return 1000;
}
void BM_ReceiveMixedTrafficFrozenClock(benchmark::State& state) {
    setup();
    uint32_t (*previous)() = NetworkManagementUtilitiesClass::Timestamp_ms;
    NetworkManagementUtilitiesClass::Timestamp_ms = &frozenClock;
    const uint32_t identifiers[4] = {0x0CF00400u, 0x18FECA00u, 0x18FEF100u, 0x0CF00300u};
    uint32_t i = 0;
    for (auto _ : state) {
        CANReceiveMessageClass frame(1, identifiers[i++ & 3u], DATA, 8, 1);
        NetworkManagementClass::receiveMessage(&frame);
    }
    NetworkManagementUtilitiesClass::Timestamp_ms = previous;
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ReceiveMixedTrafficFrozenClock);
}  // namespace

BENCHMARK_MAIN();
