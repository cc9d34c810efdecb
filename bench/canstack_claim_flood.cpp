// A node that claims one address from ever new NAMEs, as a hostile or broken device may: the
// cost of one more claim after N such claims, and what the stack holds on the heap by then.
// The real clock stays behind Timestamp_ms.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdint>

#include "canstack/canmessage.h"
#include "canstack/name.h"
#include "canstack/networkmanagement.h"

namespace {
bool transmit(CANTransmitMessageClass* message) {
    NetworkManagementClass::transmitComplete(message, message->prepareIdentifierForTransmit());
    return true;
}

uint64_t claims = 0;
std::size_t heapAtStart = 0;

std::size_t heapInUse() {
    return mallinfo2().uordblks;
}

void claimFromNewNAME() {
    uint8_t name[8];
    NAMEClass(0x8000000000000000ull | ++claims).toBytes(name);
    CANReceiveMessageClass claim(1, 0x18EEFF00u | 0x42u, name, 8, 0);
    NetworkManagementClass::receiveMessage(&claim);
}

void BM_ClaimFromNewNAME(benchmark::State& state) {
    if (claims == 0) {
        NetworkManagementClass::TransmitCANMessage = &transmit;
        NetworkManagementClass::update();
        heapAtStart = heapInUse();
    }
    const uint64_t before = static_cast<uint64_t>(state.range(0));
    while (claims < before) {
        claimFromNewNAME();
    }
    for (auto _ : state) {
        claimFromNewNAME();
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["NAMEs"] = static_cast<double>(claims);
    state.counters["heap_MB"] = static_cast<double>(heapInUse() - heapAtStart) / (1024.0 * 1024.0);
    state.counters["lost"] = NetworkManagementClass::getNumberLostDevices();
}
// In rising order: each run starts where the one before left off.
BENCHMARK(BM_ClaimFromNewNAME)
    ->Arg(1000)
    ->Arg(50000)
    ->Arg(400000)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(2000);
}  // namespace

BENCHMARK_MAIN();
