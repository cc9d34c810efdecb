// Frame sequences on three channels through the CAN stack, with update ticks, clock steps,
// transmit results and the application's own calls: claims from many NAMEs, broadcast and
// connection mode transfers with garbage, requests, commanded addresses.
//
// The stack's tables live as long as the process. Each input therefore ends by letting every
// session time out with all transmits accepted, checks that nothing is left held, and puts
// every control function back to no NAME. What carries over to the next input, forgotten
// functions and description records, is bounded by the stack itself.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <memory>
#include <vector>

#include "canstack/canmessage.h"
#include "canstack/canmessagequeue.h"
#include "canstack/controlfunction.h"
#include "canstack/filteredmessagecallback.h"
#include "canstack/internalcontrolfunction.h"
#include "canstack/name.h"
#include "canstack/networkmanagement.h"
#include "canstack/networkmanagementmemorypool.h"
#include "canstack/networkmanagementutilities.h"
#include "canstack/parametergroupnumberrequestprotocol.h"
#include "canstack/transportprotocol.h"

namespace {

using NM = NetworkManagementClass;

// CANSTACK_FUZZ_TRACE=1 prints each step of an input, for reading a finding.
const bool tracing = std::getenv("CANSTACK_FUZZ_TRACE") != nullptr;
#define TRACE(...)                             \
    do {                                       \
        if (tracing) {                         \
            std::fprintf(stderr, __VA_ARGS__); \
        }                                      \
    } while (0)

void fail(const char* what) {
    std::fprintf(stderr, "canstack fuzzer: %s\n", what);
    std::abort();
}

// ---------------------------------------------------------------- clock and transmit

uint32_t clockMs = 1000;
uint32_t fakeClock() {
    return clockMs;
}

struct Queued {
    std::unique_ptr<CANTransmitMessageClass> message;
    bool prepared;
};
// As the CAN service: immediate frames are written and confirmed inside the call, the others
// wait for the send thread, here a transmit-result step.
std::deque<Queued> queued;
uint32_t refuseNext = 0;
bool writeSucceeds = true;
constexpr size_t MAXIMUM_QUEUED = 64;

bool transmit(CANTransmitMessageClass* message) {
    if (refuseNext > 0) {
        --refuseNext;
        return false;
    }
    if (message->isImmediate()) {
        const bool written = message->prepareIdentifierForTransmit() && writeSucceeds;
        TRACE("t=%u tx now %08X %s\n", clockMs, message->getIdentifier().getIdentifier(),
              written ? "written" : "failed");
        NM::transmitComplete(message, written);
        return written;
    }
    if (queued.size() >= MAXIMUM_QUEUED) {
        return false;
    }
    std::unique_ptr<CANTransmitMessageClass> copy(new CANTransmitMessageClass(*message));
    const bool prepared = copy->prepareIdentifierForTransmit();
    TRACE("t=%u tx queued %08X%s\n", clockMs, copy->getIdentifier().getIdentifier(),
          prepared ? "" : " (not prepared)");
    queued.push_back(Queued{std::move(copy), prepared});
    return true;
}

void completeQueued(size_t count, bool success) {
    for (; count > 0 && !queued.empty(); --count) {
        Queued next = std::move(queued.front());
        queued.pop_front();
        TRACE("t=%u done %08X %s\n", clockMs, next.message->getIdentifier().getIdentifier(),
              next.prepared && success ? "written" : "failed");
        NM::transmitComplete(next.message.get(), next.prepared && success);
    }
}

// ---------------------------------------------------------------- the application's side

class FuzzInternal : public InternalControlFunctionClass {
public:
    FuzzInternal(uint64_t name, uint8_t channel, std::vector<uint8_t> addresses)
        : InternalControlFunctionClass(NAMEClass(name), channel),
          original(name),
          addresses(std::move(addresses)) {}
    uint8_t getAddressAtIndex(uint8_t index) override {
        return index < addresses.size() ? addresses[index] : 254;
    }
    bool acceptCommandedAddress(ControlFunctionClass*) override { return acceptCommands; }

    const uint64_t original;
    std::vector<uint8_t> addresses;
    bool acceptCommands = true;
};

uint8_t sink[2048];
// Reads a whole message, as a reader of long messages does.
void readAll(CANMessageClass* message) {
    const uint32_t length = message->getDataLength();
    if (length <= sizeof(sink)) {
        message->getData(sink, 0, length);
    }
    const uint8_t* pointer = nullptr;
    if (message->getDataPointer(pointer) && pointer != nullptr && length <= sizeof(sink)) {
        for (uint32_t i = 0; i < length; ++i) {
            sink[i] ^= pointer[i];
        }
    }
    if (ControlFunctionClass* source = message->getSourceControlFunction()) {
        sink[0] ^= static_cast<uint8_t>(source->getNAME().getNAME());
    }
    if (ControlFunctionClass* destination = message->getDestinationControlFunction()) {
        sink[1] ^= destination->getAddress();
    }
}
void readCallback(CANMessageClass* message, ReceiveCANMessageCallbackClass*) {
    readAll(message);
}

// A filter that its own callback may destroy, as the identification states do.
bool destroyOnNextMessage = false;
class SelfDestroyingFilter : public FilteredMessageMatchingCallbackClass,
                             public ReceiveCANMessageCallbackClass {
public:
    explicit SelfDestroyingFilter(SelfDestroyingFilter** owner) : owner(owner) {
        setParameterGroupNumber(0xF004);
        addFilterRecord();
        setParameterGroupNumber(0xFEEC);
        addCallback(static_cast<ReceiveCANMessageCallbackClass*>(this));
    }
    void receiveCANMessage(CANMessageClass* message) override {
        readAll(message);
        if (destroyOnNextMessage) {
            destroyOnNextMessage = false;
            *owner = nullptr;
            delete this;
        }
    }
    SelfDestroyingFilter** owner;
};

std::vector<uint8_t> pattern(2048);
uint32_t fragmentGiven = 0;
uint8_t fragmentStep = 7;
uint8_t emptyAnswersLeft = 0;
// Gives a long transmit its data in pieces; a few empty answers now and then.
void transmitCallback(CANCallbackClass* callback) {
    if (callback == nullptr || callback->getCallbackType() != 2) {
        return;
    }
    auto* fragment = static_cast<CANFragmentCallbackClass*>(callback);
    if (emptyAnswersLeft > 0) {
        --emptyAnswersLeft;
        fragment->setFragmentData(nullptr, 0);
        return;
    }
    const uint32_t offset = fragment->getOffset();
    const uint32_t total = fragment->getTotalLength();
    const uint32_t left = total > offset ? total - offset : 0;
    uint32_t length = fragmentStep == 0 ? 1 : fragmentStep;
    length = length < left ? length : left;
    if (offset + length > pattern.size()) {
        return;  // not answered
    }
    fragment->setFragmentData(pattern.data() + offset, length);
    ++fragmentGiven;
}

// Data for requests: a short group, a long one sent by transfer, one that cannot respond now,
// and one whose data comes through the fragment callback.
uint32_t loadData(uint32_t parameterGroupNumber, InternalControlFunctionClass*,
                  ControlFunctionClass*, uint8_t, uint8_t, LoadParameterGroupNumberData* out) {
    switch (parameterGroupNumber) {
        case 0xFEDA:
            out->data = pattern.data();
            out->length = 8;
            return 1;
        case 0xFEEB:
            out->data = pattern.data();
            out->length = 40;
            return 1;
        case 0xFDC5:
            out->data = nullptr;
            out->length = 20;
            out->callback = &transmitCallback;
            return 1;
        case 0xFEE5:
            return 2;
        case 0xFE00:
            return 7;
        default:
            return 0;
    }
}

void newFunction(ControlFunctionClass* function, void*) {
    sink[2] ^= function->getAddress();
}
void newRegistered(RegisteredControlFunctionClass* function, uint8_t count) {
    sink[3] ^= static_cast<uint8_t>(function->getAddress() + count);
}

// NAMEs the inputs pick from: the internal functions' own, ones that match the registered
// functions, and a counter for floods of new ones.
constexpr uint64_t NAME_A = 0x8000000000000101ull | (93ull << 21) | (2ull << 60);
constexpr uint64_t NAME_B = 0x0000000000000202ull | (2ull << 60);
constexpr uint64_t NAME_C = 0xA00000000012E001ull;
constexpr uint64_t NAME_D = 0x8000000000000404ull;
constexpr uint64_t NAME_BOUND = 0x0000000000000505ull | (93ull << 21) | (2ull << 60);
constexpr uint64_t NAME_WANTED = 0x0000000000000606ull;
constexpr uint64_t NAME_DYNAMIC = 0x0000810000000707ull;
const uint64_t namePool[] = {NAME_A,
                             NAME_B,
                             NAME_C,
                             NAME_D,
                             NAME_BOUND,
                             NAME_WANTED,
                             NAME_DYNAMIC,
                             NAMEClass::UNKNOWN,
                             0,
                             1,
                             0x7FFFFFFFFFFFFFFFull,
                             NAME_BOUND + 1};
uint64_t freshNAMEs = 0x1000000;

const NAMEFieldEntry manufacturer93[] = {{93, NAME_FIELD_MANUFACTURER_CODE},
                                         {2, NAME_FIELD_INDUSTRY_GROUP}};
const NAMEFieldEntry function129[] = {{0x81, NAME_FIELD_FUNCTION}};

struct World {
    World() {
        NetworkManagementUtilitiesClass::Timestamp_ms = &fakeClock;
        NM::TransmitCANMessage = &transmit;
        for (size_t i = 0; i < pattern.size(); ++i) {
            pattern[i] = static_cast<uint8_t>(i * 31 + 7);
        }
        NM::update();
        NM::addGlobalReceiveCallback(PGN_ANY, &readCallback);
        NM::addLoadParameterGroupNumberDataCallback(&loadData);
        NM::addNewControlFunctionCallback(&newFunction);
        bound.addParameterGroupNumberCallback(PGN_ANY, &readCallback, nullptr);
        // A filter on the source's NAME, one with a reject record, one on a destination.
        byNAME.setSourceNAMEField(NAME_FIELD_MANUFACTURER_CODE, 93);
        byNAME.addCallback(&readCallback, nullptr);
        rejecting.setParameterGroupNumber(0xEC00);
        rejecting.addFilterRecord();
        rejecting.setDataLength(8);
        rejecting.setAction(1);
        rejecting.addCallback(&readCallback, nullptr);
        toSelf.setDestinationAddress(0x80);
        toSelf.setDestinationNAMEField(NAME_FIELD_INDUSTRY_GROUP, 2);
        toSelf.addCallback(&readCallback, nullptr);
    }

    FuzzInternal a{NAME_A, 0, {0x80, 0x81, 0x82}};
    FuzzInternal b{NAME_B, 0, {0x80}};
    FuzzInternal c{NAME_C, 1, {37, 38}};
    FuzzInternal d{NAME_D, 2, {0x80, 0x90}};
    FuzzInternal* internals[4] = {&a, &b, &c, &d};
    RegisteredControlFunctionClass bound{0, manufacturer93, 2};
    RegisteredControlFunctionClass wanted{1, NAMEClass(NAME_WANTED)};
    RegisteredControlFunctionClass atAddress{2, uint8_t{0x20}};
    RegisteredControlFunctionClass* registered[3] = {&bound, &wanted, &atAddress};
    DynamicRegisteredControlFunctionClass dynamic{2, function129, 1, &newRegistered, 3};
    FilteredMessageMatchingCallbackClass byNAME;
    FilteredMessageMatchingCallbackClass rejecting;
    FilteredMessageMatchingCallbackClass toSelf;
    SelfDestroyingFilter* selfDestroying = nullptr;
};

World& world() {
    static World* instance = new World();  // lives to the end, as the service's objects do
    return *instance;
}

// ---------------------------------------------------------------- frames in

uint8_t pickAddress(FuzzedDataProvider& in) {
    // Mostly addresses in use: ours, the claimed ones, global.
    static const uint8_t common[] = {0x80, 0x81, 0x82, 37, 38, 0x90, 0x20, 0x30, 0x31, 0xFF, 0xFE};
    return in.ConsumeBool() ? common[in.ConsumeIntegralInRange<size_t>(0, sizeof(common) - 1)]
                            : in.ConsumeIntegral<uint8_t>();
}
uint8_t pickChannel(FuzzedDataProvider& in) {
    // Now and then an invalid one.
    return in.ConsumeIntegralInRange<uint8_t>(0, 11) == 11
               ? 3
               : in.ConsumeIntegralInRange<uint8_t>(0, 2);
}
uint64_t pickNAME(FuzzedDataProvider& in) {
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
        case 0:
            return namePool[in.ConsumeIntegralInRange<size_t>(0, std::size(namePool) - 1)];
        case 1:
            return ++freshNAMEs;
        case 2:
            return freshNAMEs - in.ConsumeIntegralInRange<uint64_t>(0, 8);
        default:
            return in.ConsumeIntegral<uint64_t>();
    }
}
uint32_t pickPGN(FuzzedDataProvider& in) {
    static const uint32_t common[] = {0xEE00, 0xEA00, 0xE800, 0xFED8, 0xEB00, 0xEC00, 0xF004,
                                      0xFEEC, 0xFEDA, 0xFEEB, 0xFDC5, 0xFEE5, 0xFE00, 0xEF00};
    return in.ConsumeBool() ? common[in.ConsumeIntegralInRange<size_t>(0, std::size(common) - 1)]
                            : in.ConsumeIntegralInRange<uint32_t>(0, 0x3FFFF);
}

void receive(uint8_t channel, uint8_t priority, uint32_t pgn, uint8_t destination, uint8_t source,
             const uint8_t* data, uint8_t length) {
    uint32_t identifier = (static_cast<uint32_t>(priority & 7u) << 26) | (pgn << 8) | source;
    if (((pgn >> 8) & 0xFFu) < 0xF0) {
        identifier = (identifier & ~0xFF00u) | (static_cast<uint32_t>(destination) << 8);
    }
    TRACE("t=%u rx ch%u %08X [%u]", clockMs, channel, identifier & 0x1FFFFFFFu, length);
    for (uint8_t i = 0; i < length && tracing; ++i) {
        TRACE(" %02X", data[i]);
    }
    TRACE("\n");
    CANReceiveMessageClass message(1, identifier & 0x1FFFFFFFu, data, length, channel);
    NM::receiveMessage(&message);
}

// A whole transfer from a peer: the announcement, then its packets, with updates between so
// that CTS and EOM flow; garbage comes from the other steps.
void transfer(FuzzedDataProvider& in) {
    const uint8_t channel = pickChannel(in);
    const uint8_t source = pickAddress(in);
    const bool broadcast = in.ConsumeBool();
    const uint8_t destination = broadcast ? 0xFF : pickAddress(in);
    const uint32_t pgn = in.ConsumeBool() ? 0xFED8 : pickPGN(in);
    const uint16_t size = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint16_t>(0, 64)
                                           : in.ConsumeIntegral<uint16_t>();
    const uint32_t packets = size == 0 ? 0 : (size - 1u) / 7u + 1u;
    uint8_t announce[8] = {static_cast<uint8_t>(broadcast ? 32 : 16),
                           static_cast<uint8_t>(size),
                           static_cast<uint8_t>(size >> 8),
                           static_cast<uint8_t>(packets > 255 ? 255 : packets),
                           in.ConsumeIntegral<uint8_t>(),
                           static_cast<uint8_t>(pgn),
                           static_cast<uint8_t>(pgn >> 8),
                           static_cast<uint8_t>(pgn >> 16)};
    receive(channel, 6, 0xEC00, destination, source, announce, 8);
    // A commanded address names one of ours and the address to take.
    std::vector<uint8_t> body = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 64));
    if (pgn == 0xFED8 && body.size() < 9) {
        body.resize(9);
        NAMEClass(namePool[in.ConsumeIntegralInRange<size_t>(0, 3)]).toBytes(body.data());
        body[8] = pickAddress(in);
    }
    const uint32_t sent = packets < 300 ? packets : 300;
    for (uint32_t sequence = 1; sequence <= sent && in.remaining_bytes() > 0; ++sequence) {
        uint8_t data[8] = {
            static_cast<uint8_t>(sequence), 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
        for (size_t i = 0; i < 7; ++i) {
            const size_t at = (sequence - 1u) * 7u + i;
            data[1 + i] = at < body.size() ? body[at] : pattern[at % pattern.size()];
        }
        clockMs += broadcast ? 55 : 5;
        completeQueued(MAXIMUM_QUEUED, writeSucceeds);
        NM::update();
        receive(channel, 7, 0xEB00, destination, source, data, 8);
    }
}

// ---------------------------------------------------------------- end of each input

void checkTables() {
    for (uint8_t channel = 0; channel < NUMBER_CAN_CHANNELS; ++channel) {
        for (uint8_t address = 0; address < NM::NUMBER_ADDRESSES; ++address) {
            const ControlFunctionClass* cf = NM::controlFunctionTable[channel][address];
            if (cf != nullptr && (cf->getChannel() != channel || cf->getAddress() != address)) {
                fail("a table column holds a function with another address");
            }
        }
        if (NM::getNumberForgettableLostDevices(channel) >
            NM::MAXIMUM_NUMBER_FORGETTABLE_LOST_DEVICES) {
            fail("more lost devices remembered than allowed");
        }
    }
    uint32_t listed = 0;
    const CONTROL_FUNCTION_LOST_DEVICE_STRUCT* previous = nullptr;
    for (const CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node = NM::controlFunctionLostDevices;
         node != nullptr; previous = node, node = node->next) {
        if (node->previous != previous || !NM::isLostDevice(node->controlFunction)) {
            fail("the lost list is broken");
        }
        ++listed;
    }
    if (listed != NM::getNumberLostDevices()) {
        fail("the lost list count is wrong");
    }
}

bool idle() {
    return TransportProtocolClass::TRANSPORT_PROTOCOL.getNumberActiveSessions() == 0 &&
           ParameterGroupNumberRequestProtocolClass::PARAMETER_GROUP_NUMBER_REQUEST_PROTOCOL
                   .getNumberActiveSessions() == 0 &&
           CANMessageQueueClass::CAN_MESSAGE_QUEUE.getCurrentCount() == 0 && queued.empty();
}

// With all transmits accepted, every session ends: a broadcast of 255 packets sends one each
// 51 ms, anything else times out within 1500 ms. Nothing may stay held after that.
void quiesce() {
    refuseNext = 0;
    writeSucceeds = true;
    for (int round = 0; round < 400 && !idle(); ++round) {
        completeQueued(MAXIMUM_QUEUED, true);
        clockMs += 60;
        NM::update();
    }
    completeQueued(MAXIMUM_QUEUED, true);
    if (TransportProtocolClass::TRANSPORT_PROTOCOL.getNumberActiveSessions() != 0 ||
        ParameterGroupNumberRequestProtocolClass::PARAMETER_GROUP_NUMBER_REQUEST_PROTOCOL
                .getNumberActiveSessions() != 0) {
        fail("a session outlived every timeout");
    }
    if (NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL.getUsedBlockCount() != 0) {
        fail("pool blocks held with no session");
    }
    if (CANMessageQueueClass::CAN_MESSAGE_QUEUE.getCurrentCount() != 0) {
        fail("queued frames never processed");
    }
}

// Every function back to no NAME and no address, through the stack's own operations.
void forgetEverything(World& w) {
    for (FuzzInternal* cf : w.internals) {
        cf->setEnabled(true);
        cf->acceptCommands = true;
        cf->reset();
        cf->requestChangeNAME(NAMEClass(cf->original));
    }
    for (uint8_t channel = 0; channel < NUMBER_CAN_CHANNELS; ++channel) {
        for (ControlFunctionClass* cf : NM::controlFunctionTable[channel]) {
            if (cf != nullptr) {
                cf->reset();
            }
        }
    }
    for (CONTROL_FUNCTION_LOST_DEVICE_STRUCT* node = NM::controlFunctionLostDevices;
         node != nullptr; node = node->next) {
        if (node->controlFunction->getType() == 2 &&
            !node->controlFunction->getNAME().isUnknown()) {
            node->controlFunction->reset();
        }
    }
    w.bound.reset();
    w.bound.bindByNAMEFields(manufacturer93, 2);
    w.wanted.reset();
    w.wanted.bindByNAME(NAMEClass(NAME_WANTED));
    w.atAddress.bindByAddress(0x20);
    if (w.selfDestroying == nullptr) {
        w.selfDestroying = new SelfDestroyingFilter(&w.selfDestroying);
    }
    destroyOnNextMessage = false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    World& w = world();
    FuzzedDataProvider in(data, size);
    while (in.remaining_bytes() > 0) {
        switch (in.ConsumeIntegralInRange<int>(0, 15)) {
            case 0: {  // any frame
                const uint8_t channel = pickChannel(in);
                const bool extended = in.ConsumeIntegralInRange<int>(0, 7) != 0;
                const uint32_t identifier = in.ConsumeIntegral<uint32_t>();
                const uint8_t length = in.ConsumeIntegralInRange<uint8_t>(0, 9);
                uint8_t bytes[9] = {};
                in.ConsumeData(bytes, length);
                TRACE("t=%u raw ch%u %s %08X [%u]\n", clockMs, channel, extended ? "ext" : "std",
                      identifier, length);
                CANReceiveMessageClass message(extended ? 1 : 0,
                                               identifier & (extended ? 0x1FFFFFFFu : 0x7FFu),
                                               bytes, length, channel);
                NM::receiveMessage(&message);
                break;
            }
            case 1:
            case 2: {  // address claim
                const uint8_t channel = pickChannel(in);
                const uint8_t source = pickAddress(in);
                uint8_t name[8];
                NAMEClass(pickNAME(in)).toBytes(name);
                const uint8_t length = in.ConsumeIntegralInRange<uint8_t>(0, 15) == 0 ? 7 : 8;
                receive(channel, 6, 0xEE00, 0xFF, source, name, length);
                break;
            }
            case 3: {  // many claims from new NAMEs at one address
                const uint8_t channel = pickChannel(in);
                const uint8_t source = pickAddress(in);
                const uint32_t count = in.ConsumeIntegralInRange<uint32_t>(1, 1200);
                TRACE("flood of %u claims\n", count);
                for (uint32_t i = 0; i < count; ++i) {
                    uint8_t name[8];
                    NAMEClass(++freshNAMEs).toBytes(name);
                    receive(channel, 6, 0xEE00, 0xFF, source, name, 8);
                }
                break;
            }
            case 4: {  // request
                const uint32_t pgn = pickPGN(in);
                uint8_t bytes[8] = {static_cast<uint8_t>(pgn),
                                    static_cast<uint8_t>(pgn >> 8),
                                    static_cast<uint8_t>(pgn >> 16),
                                    0xFF,
                                    0xFF,
                                    0xFF,
                                    0xFF,
                                    0xFF};
                const uint8_t channel = pickChannel(in);
                const uint8_t source = pickAddress(in);
                const uint8_t destination = pickAddress(in);
                receive(channel, 6, 0xEA00, destination, source, bytes,
                        in.ConsumeIntegralInRange<uint8_t>(1, 8));
                break;
            }
            case 5: {  // transport connection management or data, any content
                const bool management = in.ConsumeBool();
                const uint8_t channel = pickChannel(in);
                const uint8_t source = pickAddress(in);
                const uint8_t destination = pickAddress(in);
                uint8_t bytes[8];
                in.ConsumeData(bytes, sizeof(bytes));
                if (management && in.ConsumeBool()) {
                    static const uint8_t controls[] = {16, 17, 19, 32, 255};
                    bytes[0] = controls[in.ConsumeIntegralInRange<size_t>(0, 4)];
                }
                receive(channel, 6, management ? 0xEC00 : 0xEB00, destination, source, bytes, 8);
                break;
            }
            case 6:
                transfer(in);
                break;
            case 7:
            case 8:  // an update after a short step
                clockMs += in.ConsumeIntegralInRange<uint32_t>(0, 120);
                TRACE("t=%u update\n", clockMs);
                NM::update();
                break;
            case 9:  // a long step, past any timer, or across the wrap of the clock
                clockMs += in.ConsumeBool() ? in.ConsumeIntegralInRange<uint32_t>(0, 70000)
                                            : 0xFFFFFFFFu - in.ConsumeIntegral<uint16_t>();
                TRACE("t=%u update after a long step\n", clockMs);
                NM::update();
                break;
            case 10:  // results from the send thread
                completeQueued(in.ConsumeIntegralInRange<size_t>(0, 8), in.ConsumeBool());
                break;
            case 11:  // the transmit function refuses, or writes fail
                refuseNext = in.ConsumeIntegralInRange<uint32_t>(0, 4);
                writeSucceeds = in.ConsumeIntegralInRange<int>(0, 3) != 0;
                TRACE("refuse %u, writes %s\n", refuseNext, writeSucceeds ? "succeed" : "fail");
                break;
            case 12: {  // a long or short message of ours
                FuzzInternal* from = w.internals[in.ConsumeIntegralInRange<size_t>(0, 3)];
                const uint8_t to = pickAddress(in);
                ControlFunctionClass* destination =
                    to == 0xFF ? nullptr : NM::getControlFunction(from->getChannel(), to);
                const uint32_t length = in.ConsumeIntegralInRange<uint32_t>(0, 1800);
                const int source = in.ConsumeIntegralInRange<int>(0, 2);
                fragmentStep = in.ConsumeIntegral<uint8_t>();
                emptyAnswersLeft = in.ConsumeIntegralInRange<uint8_t>(0, 3);
                TRACE("send %u bytes from ch%u to %02X\n", length, from->getChannel(), to);
                NM::sendParameterGroupNumber(pickPGN(in), source == 2 ? nullptr : pattern.data(),
                                             length, from, destination, 6, source == 1, nullptr,
                                             &transmitCallback, in.ConsumeBool());
                break;
            }
            case 13: {  // a request of ours
                FuzzInternal* from = w.internals[in.ConsumeIntegralInRange<size_t>(0, 3)];
                const uint8_t to = pickAddress(in);
                ParameterGroupNumberRequestProtocolClass::requestParameterGroupNumber(
                    pickPGN(in), from,
                    to == 0xFF ? nullptr : NM::getControlFunction(from->getChannel(), to));
                break;
            }
            case 14: {  // the application steers one of its functions
                FuzzInternal* cf = w.internals[in.ConsumeIntegralInRange<size_t>(0, 3)];
                TRACE("steer internal on ch%u\n", cf->getChannel());
                switch (in.ConsumeIntegralInRange<int>(0, 6)) {
                    case 0:
                        cf->requestChangeAddress(pickAddress(in));
                        break;
                    case 1:
                        cf->requestChangeNAME(NAMEClass(pickNAME(in)));
                        break;
                    case 2:
                        cf->setEnabled(in.ConsumeBool());
                        break;
                    case 3:
                        cf->requestAddressClaims();
                        break;
                    case 4:
                        cf->repeatAddressClaim();
                        break;
                    case 5:
                        cf->acceptCommands = in.ConsumeBool();
                        break;
                    default:
                        InternalControlFunctionClass::sendGlobalRequestForAddressClaim(
                            pickChannel(in));
                        break;
                }
                break;
            }
            default: {  // a registered function is bound anew, or a filter drops out
                RegisteredControlFunctionClass* cf =
                    w.registered[in.ConsumeIntegralInRange<size_t>(0, 2)];
                TRACE("steer registered on ch%u\n", cf->getChannel());
                switch (in.ConsumeIntegralInRange<int>(0, 3)) {
                    case 0:
                        cf->bindByNAMEFields(manufacturer93, 2);
                        break;
                    case 1:
                        cf->bindByAddress(pickAddress(in));
                        break;
                    case 2:
                        cf->bindByNAME(NAMEClass(pickNAME(in)));
                        break;
                    default:
                        destroyOnNextMessage = true;
                        break;
                }
                break;
            }
        }
    }
    quiesce();
    checkTables();
    forgetEverything(w);
    checkTables();
    return 0;
}
