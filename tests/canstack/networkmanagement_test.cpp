#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "canstack/canprotocol.h"
#include "canstack/filteredmessagecallback.h"
#include "canstack/transportprotocol.h"
#include "simulated_bus.h"

namespace {
using Statistics = NetworkManagementStatisticsClass;
using Filter = FilteredMessageMatchingCallbackClass;
using Events = std::vector<std::string>;
const char* const OWNER = "Network Management";

Events events;

void recordNew(ControlFunctionClass* function, void*) {
    events.push_back("new " + std::to_string(function->getAddress()));
}

// Logs what it receives as "<name> <source>"; as a filter, on one PGN.
struct Receiver : ReceiveCANMessageCallbackClass {
    explicit Receiver(std::string name, uint32_t pgn = PGN_ANY) : name(std::move(name)) {
        if (pgn != PGN_ANY) {
            filter.setParameterGroupNumber(pgn);
            filter.addCallback(this);
        }
    }
    void receiveCANMessage(CANMessageClass* message) override {
        events.push_back(name + " " + std::to_string(message->getSourceAddress()));
    }
    std::string name;
    Filter filter;
};

bool matches(const FilteredMessageCallbackClass& filter, uint8_t type, uint32_t identifier,
             uint8_t length, uint8_t channel) {
    const uint8_t data[8] = {0x00, 0xBC, 0x0A, 0, 0, 0, 0, 0};
    CANReceiveMessageClass message(type, identifier, data, length, channel);
    return filter.filterMatches(&message);
}

struct TestProtocol : CANProtocolClass {
    void initialize() override { events.push_back("initialize"); }
    void update() override { events.push_back("update"); }
    void receiveCANMessage(CANMessageClass*) override {}
};

// Load callbacks that log their kind; the exact one also supplies three bytes.
enum LoadKind { ANY, FOR_PEER, EXACT };
template <LoadKind kind>
uint32_t load(uint32_t, InternalControlFunctionClass*, ControlFunctionClass*, uint8_t, uint8_t,
              LoadParameterGroupNumberData* out) {
    static const uint8_t payload[3] = {9, 8, 7};
    events.push_back(kind == ANY ? "any" : kind == FOR_PEER ? "peer" : "exact");
    out->data = payload;
    out->length = 3;
    return kind == EXACT ? 1 : 0;
}
}  // namespace

using CanStackNetworkOnBus = BusTest;
using CanStackNetworkClaimed = ClaimedTest;

TEST(CanStackNetworkManagement, FramesBeforeTheFirstUpdateLeaveNoTrace) {
    SimulatedBus bus;
    Receiver listener("filter", 0xEE00);
    NM::addNewControlFunctionCallback(&recordNew);
    EXPECT_EQ(bus.claimFrom(0, 0x10, testNAME(1)), nullptr);
    EXPECT_EQ(Statistics::NETWORK_MANAGEMENT_STATISTICS.getReceivedCount(0), 0u);
    EXPECT_TRUE(events.empty());
    const uint8_t data[3] = {1, 2, 3};
    uint32_t handle = 0;
    EXPECT_EQ(NM::sendMessage(1, 0xFEF1, data, 3, 0, nullptr, nullptr, 255, 6, false, &handle,
                              nullptr, false),
              19u);
    EXPECT_EQ(handle, 0xFFFFFFFFu);
    bus.update();
    bus.claimFrom(0, 0x10, testNAME(1));
    EXPECT_EQ(events, (Events{"new 16", "filter 16"}));
}

TEST(CanStackNetworkManagement, ProtocolsAndInitializersStartBeforeClaimsAreStepped) {
    SimulatedBus bus;
    TestProtocol first;
    CANInitializeClass initializer([] { events.push_back("init function"); });
    bus.update();
    EXPECT_EQ(events, (Events{"initialize", "init function", "update"}));
    events.clear();
    struct Watcher : TestInternalControlFunction {
        using TestInternalControlFunction::TestInternalControlFunction;
        void onStart() override { events.push_back("claim step"); }
    } watcher(testNAME(1), 0, {0x80});
    TestProtocol second;
    bus.update();
    EXPECT_EQ(events, (Events{"initialize", "claim step", "update", "update"}));
    CANInitializeClass none(nullptr);
    EXPECT_EQ(
        descriptionCount("CAN Initialize", "Invalid Parameters CANInitializeClass constructor", 2),
        1u);
}

TEST_F(CanStackNetworkOnBus, ClaimsMoveDevicesAndCreateOneFunctionPerNewNAME) {
    NM::addNewControlFunctionCallback(&recordNew);
    ControlFunctionClass* device = bus.claimFrom(0, 0x10, testNAME(1));
    EXPECT_EQ(device->getType(), 2);
    bus.claimFrom(0, 0x10, testNAME(1));                     // unchanged: nothing happens
    EXPECT_EQ(bus.claimFrom(0, 0x12, testNAME(1)), device);  // moved
    EXPECT_EQ(NM::getControlFunction(0, 0x10), nullptr);
    EXPECT_EQ(Statistics::NETWORK_MANAGEMENT_STATISTICS.getNewNAMECount(0), 1u);

    bus.receive(0, 0x18EEFFFEu, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(descriptionCount(OWNER, "Received Cannot Claim Address Message", 2), 1u);
    bus.receive(0, 0x18EE3310u, {1, 2, 3, 4, 5, 6, 7, 8});  // not global
    bus.receive(0, 0x18EEFF33u, {1, 2, 3});
    EXPECT_EQ(descriptionCount(OWNER, "Invalid Data Length in Address Claim Message", 2), 1u);
    EXPECT_EQ(NM::getControlFunction(0, 0x33), nullptr);
    EXPECT_EQ(events, (Events{"new 16"}));
    EXPECT_EQ(NM::addNewControlFunctionCallback(&recordNew), nullptr);
    EXPECT_EQ(NM::addNewControlFunctionCallback(nullptr), nullptr);
    EXPECT_EQ(descriptionCount(OWNER, "Failed AddNewControlFunctionCallback", 2), 2u);
}

TEST_F(CanStackNetworkClaimed, GlobalCallbacksSeeOnlyKnownSourcesAndOwnTraffic) {
    bus.claimFrom(0, 0x10, testNAME(1));
    Receiver global("global");
    ASSERT_TRUE(NM::addGlobalReceiveCallback(PGN_ANY, &global));
    EXPECT_FALSE(NM::addGlobalReceiveCallback(PGN_ANY, &global));  // duplicates
    Receiver listener("filter", 0xEF00);
    events.clear();
    bus.receive(0, 0x18EF8010u, {1});  // to us
    bus.receive(0, 0x18EF3310u, {2});  // for another node
    bus.receive(0, 0x18EF8044u, {3});  // from a device without a claim
    EXPECT_EQ(events, (Events{"global 16", "filter 16", "filter 16", "filter 68"}));
    EXPECT_EQ(descriptionCount(OWNER, "Failed Adding Global PGN Callback to List", 2), 3u);
    EXPECT_EQ(NM::addGlobalReceiveCallback(0, nullptr, &global, 3), nullptr);
}

TEST(CanStackNetworkManagement, RejectRecordWinsInEitherOrder) {
    auto accept = [](Filter& f) { return f.setParameterGroupNumber(0xFEF1); };
    auto reject = [](Filter& f) {
        return f.setSourceAddressByte(0x33) && f.setAction(Filter::ACTION_REJECT);
    };
    for (bool rejectFirst : {false, true}) {
        Filter filter;
        ASSERT_TRUE(rejectFirst ? reject(filter) : accept(filter));
        ASSERT_TRUE(filter.addFilterRecord());
        ASSERT_TRUE(rejectFirst ? accept(filter) : reject(filter));
        EXPECT_EQ((std::vector<bool>{matches(filter, 1, 0x18FEF133u, 1, 0),
                                     matches(filter, 1, 0x18FEF134u, 1, 0),
                                     matches(filter, 1, 0x18FEF233u, 1, 0)}),
                  (std::vector<bool>{false, true, false}))
            << rejectFirst;
    }
}

TEST(CanStackNetworkManagement, FilterSettersRefuseWhatIsSetOrOutOfRange) {
    Filter f;
    Filter standard;
    EXPECT_EQ(
        (std::vector<bool>{
            f.setChannel(1), f.setChannel(2), f.setIdentifierType(1), f.setIdentifierType(1),
            f.setIdentifierType(0), f.setDataBits(8, 12, 0xABC), f.setDataBits(16, 4, 0),
            f.setDataBits(60, 8, 0), f.setDataBits(0xFFFFFFF8u, 16, 0),
            f.setParameterGroupNumber(0xEF01), f.setPriority(8),
            f.setSourceNAMEField(NAME_FIELD_MANUFACTURER_CODE, 93),
            f.setSourceNAMEField(NAME_FIELD_MANUFACTURER_CODE, 1),
            f.setSourceNAMEField(NAME_FIELD_INDUSTRY_GROUP, 8), standard.setIdentifierType(0),
            standard.setPDUFormat(0xFE), standard.removeFilterRecord(0), standard.setChannel(0)}),
        (std::vector<bool>{true, false, true, true, false, true, false, false, false, false, false,
                           true, false, false, true, false, true, false}));
}

// One field set, one frame: 0x10 is NAME A (manufacturer 93, function 0x85), 0x11 is NAME B
// (manufacturer 94, function 0x05), 0x20 has made no claim. Frame type 0 is standard.
TEST_F(CanStackNetworkOnBus, FilterFieldDecides) {
    for (uint8_t address : {0x10, 0x11}) {
        NAMEClass name(testNAME(address, address == 0x10 ? 93 : 94));
        name.setFunction(address == 0x10 ? 0x85 : 0x05);
        bus.claimFrom(0, address, name.getNAME());
    }
    using Set = bool (*)(Filter&);
    // clang-format off
    const std::tuple<const char*, Set, uint8_t, uint32_t, uint8_t, uint8_t, bool> cases[] = {
        {"Pgn", [](Filter& f) { return f.setParameterGroupNumber(0xFEF1); }, 1, 0x18FEF120, 8, 0, true},
        {"PgnOther", [](Filter& f) { return f.setParameterGroupNumber(0xFEF1); }, 1, 0x18FEF220, 8, 0, false},
        {"Channel", [](Filter& f) { return f.setChannel(1); }, 1, 0x18FEF120, 8, 0, false},
        {"Priority", [](Filter& f) { return f.setPriority(6); }, 1, 0x18FEF120, 8, 0, true},
        {"PriorityOther", [](Filter& f) { return f.setPriority(6); }, 1, 0x0CFEF120, 8, 0, false},
        {"DataBits", [](Filter& f) { return f.setDataBits(8, 12, 0xABC); }, 1, 0x18FEF120, 3, 0, true},
        {"DataBitsOther", [](Filter& f) { return f.setDataBits(8, 12, 0xABB); }, 1, 0x18FEF120, 3, 0, false},
        {"DataBitsBeyondTheData", [](Filter& f) { return f.setDataBits(8, 12, 0xABC); }, 1, 0x18FEF120, 2, 0, false},
        {"DataLength", [](Filter& f) { return f.setDataLength(3); }, 1, 0x18FEF120, 3, 0, true},
        {"DataLengthOther", [](Filter& f) { return f.setDataLength(3); }, 1, 0x18FEF120, 4, 0, false},
        {"MessageType", [](Filter& f) { return f.setMessageType(1); }, 1, 0x18FEF120, 8, 0, true},
        {"MessageTypeLong", [](Filter& f) { return f.setMessageType(0); }, 1, 0x18FEF120, 8, 0, false},
        {"StandardIdentifier", [](Filter& f) { return f.setIdentifierType(0) && f.setIdentifier(0x123); }, 0, 0x123, 8, 2, true},
        {"StandardOnly", [](Filter& f) { return f.setIdentifierType(0); }, 1, 0x18FEF120, 8, 0, false},
        {"SourceNAME", [](Filter& f) { return f.setSourceNAMEField(NAME_FIELD_MANUFACTURER_CODE, 93); }, 1, 0x18FEF110, 8, 0, true},
        {"SourceNAMEOther", [](Filter& f) { return f.setSourceNAMEField(NAME_FIELD_MANUFACTURER_CODE, 93); }, 1, 0x18FEF111, 8, 0, false},
        {"SourceNAMEUnknown", [](Filter& f) { return f.setSourceNAMEField(NAME_FIELD_MANUFACTURER_CODE, 93); }, 1, 0x18FEF120, 8, 0, false},
        {"UnknownNAMEByAddress", [](Filter& f) { return f.setSourceNAMEField(NAME_FIELD_MANUFACTURER_CODE, 93) && f.setSourceAddress(0x20); }, 1, 0x18FEF120, 8, 0, true},
        {"UnknownNAMEOtherAddress", [](Filter& f) { return f.setSourceNAMEField(NAME_FIELD_MANUFACTURER_CODE, 93) && f.setSourceAddress(0x20); }, 1, 0x18FEF121, 8, 0, false},
        {"SourceFunction", [](Filter& f) { return f.setSourceNAMEField(NAME_FIELD_FUNCTION, 0x85); }, 1, 0x18FEF110, 8, 0, true},
        {"SourceFunctionOther", [](Filter& f) { return f.setSourceNAMEField(NAME_FIELD_FUNCTION, 0x85); }, 1, 0x18FEF111, 8, 0, false},
        {"DestinationNAME", [](Filter& f) { return f.setDestinationNAMEField(NAME_FIELD_MANUFACTURER_CODE, 94); }, 1, 0x18EF1110, 8, 0, true},
        {"DestinationNAMEOther", [](Filter& f) { return f.setDestinationNAMEField(NAME_FIELD_MANUFACTURER_CODE, 94); }, 1, 0x18EF1011, 8, 0, false},
        {"DestinationNAMEBroadcast", [](Filter& f) { return f.setDestinationNAMEField(NAME_FIELD_MANUFACTURER_CODE, 94); }, 1, 0x18FEF110, 8, 0, false},
    };
    // clang-format on
    for (const auto& [name, set, type, identifier, length, channel, matched] : cases) {
        Filter filter;
        ASSERT_TRUE(set(filter)) << name;
        EXPECT_EQ(matches(filter, type, identifier, length, channel), matched) << name;
    }
}

TEST_F(CanStackNetworkOnBus, CallbackRemovingItselfOrItsFilterEndsTheWalkForThatMessage) {
    static Filter* filter = new Filter();
    static FILTERED_MESSAGE_CALLBACK_STRUCT* firstNode = nullptr;
    filter->setParameterGroupNumber(0xFEF1);
    firstNode = filter->addCallback(
        [](CANMessageClass*, ReceiveCANMessageCallbackClass*) {
            events.push_back("first");
            filter->removeCallback(firstNode);
        },
        nullptr);
    filter->addCallback(
        [](CANMessageClass*, ReceiveCANMessageCallbackClass*) {
            events.push_back("second");
            delete filter;
        },
        nullptr);
    Receiver next("next", 0xFEF1);
    for (int i = 0; i < 3; ++i) {
        bus.receive(0, 0x18FEF101u, {1});
    }
    // First removes itself: second waits for the next message. Second deletes its filter: the
    // walk passes over the next filter for that message.
    EXPECT_EQ(events, (Events{"first", "next 1", "second", "next 1"}));
}

TEST_F(CanStackNetworkClaimed, SendResults) {
    const uint8_t data[9] = {};
    uint32_t handle = 0;
    // Every program carries the transport protocol; take it out to see the bare send path.
    ASSERT_TRUE(
        NM::removeTransmitFunction(&TransportProtocolClass::initializeTransportProtocolTransmit));
    // First a long message with no transmit function: success, and nothing goes out.
    EXPECT_EQ(
        (std::vector<uint32_t>{
            NM::sendParameterGroupNumber(0xFEF1, data, 9, &self, nullptr, 6),
            NM::sendParameterGroupNumber(0xFEF1, data, 8, nullptr, nullptr, 6),
            NM::sendMessage(2, 0xFEF1, data, 8, 0, &self, nullptr, 255, 6, false, nullptr, nullptr,
                            false),
            NM::sendStandardMessage(0x100, data, 9, 0),
            NM::sendParameterGroupNumber(0xFEF1, data, 8, &self, nullptr, 6, false, &handle)}),
        (std::vector<uint32_t>{0, 11, 1, 8, 0}));
    EXPECT_EQ(descriptionCount(OWNER, "Identifier Type Invalid", 2), 1u);
    EXPECT_EQ(descriptionCount(OWNER, "Internal Control Function NULL", 2), 1u);
    EXPECT_NE(handle, 0xFFFFFFFFu);
    ASSERT_EQ(bus.framesWithPGN(0xFEF1).size(), 1u);
    EXPECT_EQ(bus.frames.back().identifier, 0x18FEF180u);
    EXPECT_FALSE(bus.frames.back().immediate);
    bus.refused = {0xFEF1};
    EXPECT_EQ(NM::sendParameterGroupNumber(0xFEF1, data, 8, &self, nullptr, 6), 13u);

    static uint32_t answer = 14;
    NM::addTransmitFunction([](uint32_t, const uint8_t*, uint32_t, InternalControlFunctionClass*,
                               ControlFunctionClass*, bool, uint32_t*,
                               CANCallbackFunction) { return answer; });
    EXPECT_EQ(NM::sendParameterGroupNumber(0xFEF1, data, 9, &self, nullptr, 6), 14u);
    answer = 16;
    EXPECT_EQ(NM::sendParameterGroupNumber(0xFEF1, data, 9, &self, nullptr, 6), 16u);
    EXPECT_FALSE(NM::addTransmitFunction(nullptr));
    EXPECT_EQ(descriptionCount(OWNER, "Failed Adding Transmit Function to List", 2), 1u);
}

TEST_F(CanStackNetworkClaimed, LoadCallbacksWalkThreePasses) {
    ControlFunctionClass* peer = bus.claimFrom(0, 0x10, testNAME(1));
    NM::addLoadParameterGroupNumberDataCallback(&load<ANY>);
    NM::addLoadParameterGroupNumberDataCallback(&load<FOR_PEER>, PGN_ANY, peer);
    NM::addLoadParameterGroupNumberDataCallback(
        &load<FOR_PEER>, PGN_ANY, bus.claimFrom(0, 0x11, testNAME(2)));  // unconcerned
    EXPECT_EQ(NM::sendParameterGroupNumberFromCallback(0xFEF1, &self, peer), 21u);
    EXPECT_EQ(events, (Events{"peer", "any"}));
    EXPECT_EQ(descriptionCount(OWNER, "PGN Not Valid Send Parameter Group Number", 2), 1u);
    LOAD_PARAMETER_GROUP_NUMBER_DATA_STRUCT* exact =
        NM::addLoadParameterGroupNumberDataCallback(&load<EXACT>, 0xFEF1);
    EXPECT_EQ(NM::addLoadParameterGroupNumberDataCallback(&load<EXACT>, 0xFEF1), nullptr);
    EXPECT_EQ(NM::addLoadParameterGroupNumberDataCallback(nullptr), nullptr);
    EXPECT_EQ(descriptionCount(OWNER, "Failed Adding Load PGN Data Callback to List", 2), 2u);
    events.clear();
    EXPECT_EQ(NM::sendParameterGroupNumberFromCallback(0xFEF1, &self, peer), 0u);
    EXPECT_EQ(events, (Events{"exact"}));
    EXPECT_EQ(bus.frames.back().data, (Bytes{9, 8, 7}));
    EXPECT_EQ(bus.frames.back().priority(), 6);
    ASSERT_TRUE(NM::removeLoadParameterGroupNumberDataCallback(exact));
    EXPECT_FALSE(NM::removeLoadParameterGroupNumberDataCallback(exact));
}

TEST_F(CanStackNetworkClaimed, TransmitResultsAreCountedAndReported) {
    static std::vector<bool> results;
    auto completion = [](CANCallbackClass* callback) {
        if (callback->getCallbackType() == 3) {
            results.push_back(callback->isSuccess());
        }
    };
    const uint8_t data[2] = {1, 2};
    const Statistics& statistics = Statistics::NETWORK_MANAGEMENT_STATISTICS;
    const uint32_t sent = statistics.getTransmittedCount(0);
    const uint32_t bits = statistics.getTransmittedBits(0);
    const uint32_t stuffed = statistics.getTransmittedStuffedBits(0);
    NM::sendParameterGroupNumber(0xFEF1, data, 2, &self, nullptr, 6, false, nullptr, completion);
    bus.confirmSuccess = false;
    NM::sendParameterGroupNumber(0xFEF1, data, 2, &self, nullptr, 6, false, nullptr, completion);
    EXPECT_TRUE(results.empty());  // queued frames wait for their confirmation
    bus.confirmPending();
    bus.confirmSuccess = true;
    NM::sendParameterGroupNumber(0xFEF1, data, 2, &self, nullptr, 6, false, nullptr, completion,
                                 true);
    EXPECT_EQ(results, (std::vector<bool>{false, false, true}));
    EXPECT_EQ(statistics.getTransmittedCount(0), sent + 1);
    EXPECT_EQ(statistics.getTransmitFailures(0), 2u);
    // One extended frame of two bytes: 64 + 16 bits, 75 + 16 + 3 with stuffing.
    EXPECT_EQ(statistics.getTransmittedBits(0) - bits, 80u);
    EXPECT_EQ(statistics.getTransmittedStuffedBits(0) - stuffed, 94u);
}

TEST_F(CanStackNetworkOnBus, UpdateComputesRatesOncePerSecond) {
    for (int i = 0; i < 20; ++i) {
        bus.receive(1, 0x18FEF101u, {1, 2, 3, 4});
    }
    const Statistics& statistics = Statistics::NETWORK_MANAGEMENT_STATISTICS;
    bus.advance(999);
    bus.update();  // a millisecond early: no rate yet
    EXPECT_EQ(statistics.getReceivedPerSecond(1), 0u);
    bus.advance(1);
    bus.update();
    EXPECT_FLOAT_EQ(statistics.getAverageReceivedPerSecond(1), 2.0f);
    EXPECT_EQ(statistics.getReceivedBits(1), 20u * (64u + 32u));
    EXPECT_EQ(statistics.getReceivedStuffedBits(1), 20u * (75u + 32u + 6u));
    bus.advance(500);
    bus.update();  // too soon: the rate stays
    EXPECT_EQ(statistics.getReceivedPerSecond(1), 20u);
    const uint8_t* last = nullptr;
    EXPECT_EQ(statistics.getLastReceived(last), 0x98FEF101u);
    EXPECT_EQ(Bytes(last + 3, last + 5), (Bytes{4, 0xFF}));
}

TEST_F(CanStackNetworkOnBus, ReceiveWalkFollowsFilterChangesMadeAfterRegistration) {
    Receiver listener("filter", 0xFEF1);
    Filter& filter = listener.filter;
    bus.receive(0, 0x18FEF101u, {1});
    ASSERT_TRUE(filter.clearParameterGroupNumber());
    ASSERT_TRUE(filter.setParameterGroupNumber(0xFEF2));
    bus.receive(0, 0x18FEF102u, {1});
    bus.receive(0, 0x18FEF203u, {1});
    ASSERT_TRUE(filter.addFilterRecord());  // a reject record for source 4
    ASSERT_TRUE(filter.setSourceAddressByte(4));
    ASSERT_TRUE(filter.setAction(Filter::ACTION_REJECT));
    bus.receive(0, 0x18FEF204u, {1});
    bus.receive(0, 0x18FEF205u, {1});
    ASSERT_TRUE(filter.removeFilterRecord(0));
    bus.receive(0, 0x18FEF206u, {1});  // only the reject record is left
    EXPECT_EQ(events, (Events{"filter 1", "filter 3", "filter 5"}));
}

// A time at a limit passes; one a millisecond over it is reported.
TEST(CanStackNetworkManagement, OnlyATimeOverTheLimitIsReported) {
    enum Slow { PROTOCOL, RECEIVE, GAP };
    static uint32_t slowMs = 0;
    static Slow slowPart = GAP;
    struct SlowProtocol : CANProtocolClass {
        void initialize() override {}
        void update() override { SimulatedBus::now += slowPart == PROTOCOL ? slowMs : 0; }
        void receiveCANMessage(CANMessageClass*) override {}
    };
    Statistics& statistics = Statistics::NETWORK_MANAGEMENT_STATISTICS;
    using Limit = void (Statistics::*)(uint16_t);
    // clang-format off
    const std::tuple<Limit, Slow, const char*, const char*> cases[] = {
        {&Statistics::setProtocolUpdateLimit, PROTOCOL, "CAN Protocol", "CAN Protocol Update Execution Time Longer than Acceptable"},
        {&Statistics::setUpdateExecutionLimit, PROTOCOL, OWNER, "Update Execution Time Longer than Acceptable"},
        {&Statistics::setUpdateServiceLimit, GAP, OWNER, "Update Service Time Longer than Acceptable"},
        {&Statistics::setReceiveLimit, RECEIVE, OWNER, "Receive CAN Message Execution Time Longer than Acceptable"},
    };
    // clang-format on
    SimulatedBus bus;
    SlowProtocol protocol;
    Filter filter;
    filter.setParameterGroupNumber(0xFEF1);
    filter.addCallback(
        [](CANMessageClass*, ReceiveCANMessageCallbackClass*) {
            SimulatedBus::now += slowPart == RECEIVE ? slowMs : 0;
        },
        nullptr);
    for (const auto& [setLimit, slow, owner, text] : cases) {
        slowPart = slow;
        bus.update();  // the previous row's slow update ends here, under no limit
        (statistics.*setLimit)(5);
        for (uint32_t ms : {5u, 6u}) {
            slowMs = ms;
            bus.receive(0, 0x18FEF101u, {1});
            bus.advance(slow == GAP ? ms : 0);
            bus.update();
            EXPECT_EQ(descriptionCount(owner, text, 2), ms == 6 ? 1u : 0u) << text << ms;
        }
        (statistics.*setLimit)(0xFFFF);
    }
}
