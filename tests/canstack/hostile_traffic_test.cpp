// Hostile traffic: a node that claims from ever new NAMEs, and transfers announced larger than
// a session can carry. Heap allocations are counted in this executable.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "canstack/canmessagequeue.h"
#include "canstack/controlfunction.h"
#include "canstack/networkmanagementmemorypool.h"
#include "canstack/transportprotocol.h"
#include "protocol_test_support.h"

namespace {
std::atomic<uint64_t> allocations{0};
}  // namespace

void* operator new(std::size_t size) {
    ++allocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    ++allocations;
    return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {
using NM = NetworkManagementClass;
constexpr uint32_t MAXIMUM = NM::MAXIMUM_NUMBER_FORGETTABLE_LOST_DEVICES;
constexpr uint8_t FLOODED = 0x42;

// The i-th NAME of a flood; none of them self-configurable, all in industry group 2.
uint64_t flood(uint32_t i) {
    return testNAME(1000 + i, 151, false);
}

ControlFunctionClass* findByNAME(uint64_t name, uint8_t channel = 0) {
    ControlFunctionClass* found = nullptr;
    NM::findControlFunctionByNAME(NAMEClass(name), channel, found);
    return found;
}

uint32_t newNAMEs() {
    return NetworkManagementStatisticsClass::NETWORK_MANAGEMENT_STATISTICS.getNewNAMECount(0);
}

std::vector<ControlFunctionClass*> announced;
void rememberNew(ControlFunctionClass* function, void*) {
    announced.push_back(function);
}

class ClaimFloodTest : public BusTest {
protected:
    // Claims FLOODED from NAMEs first to last: each displaces the one before onto the lost list.
    // Built here rather than through the bus, whose helper allocates for the data.
    void claims(uint32_t first, uint32_t last, uint8_t channel = 0) {
        uint8_t name[8];
        for (uint32_t i = first; i <= last; ++i) {
            NAMEClass(flood(i)).toBytes(name);
            CANReceiveMessageClass claim(1, 0x18EEFF00u | FLOODED, name, 8, channel);
            NM::receiveMessage(&claim);
        }
    }
};
}  // namespace

TEST_F(ClaimFloodTest, EachChannelRemembersTheMaximumAndForgetsTheOldestFirst) {
    // Claim k leaves k - 1 NAMEs on the lost list: one before, at and after the maximum.
    struct Step {
        uint32_t claimsSoFar;
        uint32_t lost;
        uint32_t oldestRemembered;
    };
    const Step steps[] = {{MAXIMUM, MAXIMUM - 1, 1},
                          {MAXIMUM + 1, MAXIMUM, 1},
                          {MAXIMUM + 2, MAXIMUM, 2},
                          {MAXIMUM + 700, MAXIMUM, 700}};
    uint32_t done = 0;
    for (const Step& step : steps) {
        claims(done + 1, step.claimsSoFar);
        done = step.claimsSoFar;
        EXPECT_EQ(NM::getNumberLostDevices(), step.lost) << done;
        EXPECT_EQ(NM::getNumberForgettableLostDevices(0), step.lost) << done;
        if (step.oldestRemembered > 1) {
            EXPECT_EQ(findByNAME(flood(step.oldestRemembered - 1)), nullptr) << done;
        }
        ControlFunctionClass* oldest = findByNAME(flood(step.oldestRemembered));
        ASSERT_NE(oldest, nullptr) << done;
        EXPECT_TRUE(NM::isLostDevice(oldest));
        EXPECT_EQ(oldest->getNAME().getNAME(), flood(step.oldestRemembered));
        ControlFunctionClass* newest = findByNAME(flood(done));
        EXPECT_EQ(newest, NM::getControlFunction(0, FLOODED));
    }
    EXPECT_EQ(NM::getNumberForgettableLostDevices(1), 0u);
}

TEST_F(ClaimFloodTest, PastTheMaximumAClaimAllocatesNothingAndKeepsNoMoreObjects) {
    claims(1, MAXIMUM + 1);
    const uint64_t before = allocations.load();
    claims(MAXIMUM + 2, 4 * MAXIMUM);
    // Each claim forgets the oldest NAME and gives its node and its object to the newest.
    EXPECT_EQ(allocations.load() - before, 0u);
    EXPECT_EQ(NM::getNumberLostDevices(), MAXIMUM);
    EXPECT_LE(UnregisteredControlFunctionClass::getNumberForgotten(), 1u);
    EXPECT_EQ(newNAMEs(), 4 * MAXIMUM);
}

TEST_F(ClaimFloodTest, AForgottenDeviceThatClaimsAgainComesUpAsANewOne) {
    NM::addNewControlFunctionCallback(&rememberNew);
    claims(1, MAXIMUM + 1);
    ControlFunctionClass* stale = findByNAME(flood(1));
    ASSERT_NE(stale, nullptr);
    // A remembered NAME moves in, so the one it displaces pushes the oldest out, and nothing
    // new takes that object yet. Whoever still holds it cannot list it again.
    ControlFunctionClass* remembered = findByNAME(flood(2));
    bus.receiveClaim(0, FLOODED, flood(2));
    EXPECT_EQ(NM::getControlFunction(0, FLOODED), remembered);
    EXPECT_EQ(findByNAME(flood(1)), nullptr);
    ASSERT_EQ(UnregisteredControlFunctionClass::getNumberForgotten(), 1u);
    stale->reset();
    EXPECT_FALSE(NM::isLostDevice(stale));
    EXPECT_EQ(NM::getNumberLostDevices(), MAXIMUM - 1);

    announced.clear();
    const uint32_t newBefore = newNAMEs();
    bus.receiveClaim(0, 0x10, flood(1));
    ControlFunctionClass* back = NM::getControlFunction(0, 0x10);
    EXPECT_EQ(back, stale);  // its memory, now a new device
    EXPECT_EQ(back->getNAME().getNAME(), flood(1));
    EXPECT_EQ(back->getType(), 2);
    EXPECT_EQ(announced, std::vector<ControlFunctionClass*>{back});
    EXPECT_EQ(newNAMEs(), newBefore + 1);
    EXPECT_EQ(UnregisteredControlFunctionClass::getNumberForgotten(), 0u);
}

TEST_F(ClaimFloodTest, OtherChannelsAndTheApplicationsFunctionsAreNeverForgotten) {
    // A device that lost its address on channel 1, and a registered function waiting on
    // channel 0 for a device that has not claimed yet.
    bus.receiveClaim(1, 0x20, testNAME(1));
    bus.receiveClaim(1, 0x20, testNAME(2));
    ControlFunctionClass* elsewhere = findByNAME(testNAME(1), 1);
    ASSERT_TRUE(NM::isLostDevice(elsewhere));
    RegisteredControlFunctionClass waiting(0, NAMEClass(testNAME(5)));
    ASSERT_TRUE(NM::isLostDevice(&waiting));

    claims(1, 2 * MAXIMUM);
    EXPECT_EQ(findByNAME(testNAME(1), 1), elsewhere);
    EXPECT_TRUE(NM::isLostDevice(&waiting));
    EXPECT_EQ(NM::getNumberLostDevices(), MAXIMUM + 2);
    bus.receiveClaim(0, 0x21, testNAME(5));
    EXPECT_EQ(NM::getControlFunction(0, 0x21), &waiting);
}

TEST_F(ClaimFloodTest, AFloodMatchingABoundRegisteredFunctionKeepsItsPairsBounded) {
    // Any NAME of industry group 2: the first device binds it, every later one is a second
    // device matching it and is paired with it.
    const NAMEFieldEntry anyOfGroupTwo[] = {{2, NAME_FIELD_INDUSTRY_GROUP}};
    RegisteredControlFunctionClass bound(0, anyOfGroupTwo, 1);
    bus.receiveClaim(0, 0x01, testNAME(7));
    ASSERT_EQ(NM::getControlFunction(0, 0x01), &bound);
    claims(1, 3 * MAXIMUM);
    // The pairs of forgotten devices go with them: those lost and the one at the address stay.
    EXPECT_EQ(RegisteredControlFunctionClass::numberInvalidRegisteredControlFunctions, MAXIMUM + 1);
    uint32_t listed = 0;
    for (auto* pair = RegisteredControlFunctionClass::invalidRegisteredControlFunctionList;
         pair != nullptr; pair = pair->next) {
        EXPECT_EQ(pair->registeredControlFunction, &bound);
        EXPECT_EQ(pair->unregisteredControlFunction->getNAME().getNAME(),
                  flood(2 * MAXIMUM + listed));
        ++listed;
    }
    EXPECT_EQ(listed, MAXIMUM + 1);
}

TEST_F(ClaimFloodTest, LookupsFindTheFirstListedAndFollowARename) {
    // Two devices reset to no NAME stand on the list with equal NAMEs: a claim with no NAME
    // takes the first of them.
    ControlFunctionClass* first = bus.claimFrom(0, 0x10, testNAME(1));
    ControlFunctionClass* second = bus.claimFrom(0, 0x11, testNAME(2));
    first->reset();
    second->reset();
    ASSERT_EQ(findByNAME(NAMEClass::UNKNOWN), first);
    bus.receiveClaim(0, 0x12, NAMEClass::UNKNOWN);
    EXPECT_EQ(NM::getControlFunction(0, 0x12), first);
    EXPECT_FALSE(NM::isLostDevice(first));
    EXPECT_TRUE(NM::isLostDevice(second));

    // A listed function renamed is found by its new NAME only; the device it stood for stays
    // behind under the old one.
    RegisteredControlFunctionClass registered(0, NAMEClass(testNAME(8)));
    ASSERT_EQ(findByNAME(testNAME(8)), &registered);
    ASSERT_TRUE(registered.bindByNAME(NAMEClass(testNAME(9))));
    EXPECT_EQ(findByNAME(testNAME(9)), &registered);
    ControlFunctionClass* heir = findByNAME(testNAME(8));
    ASSERT_NE(heir, nullptr);
    EXPECT_EQ(heir->getType(), 2);
    bus.receiveClaim(0, 0x13, testNAME(9));
    EXPECT_EQ(NM::getControlFunction(0, 0x13), &registered);
    EXPECT_FALSE(NM::isLostDevice(&registered));
}

// ---------------------------------------------------------------- transfers

namespace {
enum Control : uint8_t { RTS = 16, CTS = 17, BAM = 32 };
constexpr uint32_t IDENTIFICATION = 0xFEEC;

std::vector<uint8_t> announce(uint8_t control, uint32_t size, uint32_t pgn) {
    const uint32_t packets = (size - 1) / 7 + 1;
    return {control,
            static_cast<uint8_t>(size),
            static_cast<uint8_t>(size >> 8),
            static_cast<uint8_t>(packets > 255 ? 255 : packets),
            0xFF,
            static_cast<uint8_t>(pgn),
            static_cast<uint8_t>(pgn >> 8),
            static_cast<uint8_t>(pgn >> 16)};
}

uint32_t usedBlocks() {
    return NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL.getUsedBlockCount();
}

std::vector<std::vector<uint8_t>> identifications;
void recordIdentification(CANMessageClass* message, ReceiveCANMessageCallbackClass*) {
    std::vector<uint8_t> data(message->getDataLength());
    message->getData(data.data(), 0, static_cast<uint32_t>(data.size()));
    identifications.push_back(data);
}

class HostileTransferTest : public ProtocolTest {
protected:
    void from(uint8_t source, uint8_t destination, const std::vector<uint8_t>& data,
              uint32_t pgn = 0xEC00) {
        bus.receive(0, frameIdentifier(pgn == 0xEC00 ? 6 : 7, pgn, destination, source), data);
    }
    // A broadcast of `text` from `source`, its packets 60 ms apart.
    void broadcast(uint8_t source, const std::string& text) {
        from(source, 0xFF, announce(BAM, static_cast<uint32_t>(text.size()), IDENTIFICATION));
        bus.update();
        for (uint32_t sequence = 1; (sequence - 1) * 7 < text.size(); ++sequence) {
            std::vector<uint8_t> data(8, 0xFF);
            data[0] = static_cast<uint8_t>(sequence);
            for (size_t i = 0, at = (sequence - 1) * 7; i < 7 && at < text.size(); ++i, ++at) {
                data[i + 1] = static_cast<uint8_t>(text[at]);
            }
            bus.advance(60);
            from(source, 0xFF, data, 0xEB00);
            bus.update();
        }
    }
    uint32_t sessions() const {
        return TransportProtocolClass::TRANSPORT_PROTOCOL.getNumberActiveSessions();
    }
    uint32_t clearsToSend() const {
        uint32_t count = 0;
        for (const SentFrame& frame : bus.framesWithPGN(0xEC00)) {
            count += frame.data[0] == CTS;
        }
        return count;
    }
};

struct AnnounceCase {
    const char* name;
    uint8_t control;
    uint32_t size;
    bool taken;
    const char* refusal;
};
class AnnounceTest : public HostileTransferTest,
                     public ::testing::WithParamInterface<AnnounceCase> {};
}  // namespace

TEST_P(AnnounceTest, NoMoreThanTheLargestMessageIsAnnounced) {
    const AnnounceCase& c = GetParam();
    from(PEER, c.control == RTS ? SELF : 0xFF, announce(c.control, c.size, 0xEF00));
    bus.update();
    bus.update();
    EXPECT_EQ(sessions(), c.taken ? 1u : 0u);
    EXPECT_EQ(usedBlocks(), c.taken ? (c.size + 99) / 100 : 0u);
    EXPECT_EQ(clearsToSend(), c.taken && c.control == RTS ? 1u : 0u);
    EXPECT_EQ(descriptionCount("Transport Protocol", c.refusal, 2), c.taken ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, AnnounceTest,
    ::testing::Values(AnnounceCase{"Rts1785", RTS, 1785, true, "Request Memory Pool Failure"},
                      AnnounceCase{"Rts1786", RTS, 1786, false, "Request Memory Pool Failure"},
                      AnnounceCase{"Rts5000", RTS, 5000, false, "Request Memory Pool Failure"},
                      AnnounceCase{"Bam1785", BAM, 1785, true, "BAM Request Memory Pool Failure"},
                      AnnounceCase{"Bam1786", BAM, 1786, false, "BAM Request Memory Pool Failure"},
                      AnnounceCase{"Bam65535", BAM, 65535, false,
                                   "BAM Request Memory Pool Failure"}),
    [](const auto& info) { return info.param.name; });

TEST_F(HostileTransferTest, TheIdentificationTextGetsThroughWhileAPeerAnnouncesHugeTransfers) {
    NM::addGlobalReceiveCallback(IDENTIFICATION, &recordIdentification);
    // Refused outright, then the most one peer can hold: a broadcast and a transfer to us.
    from(PEER, 0xFF, announce(BAM, 5000, 0xEF00));
    from(PEER, SELF, announce(RTS, 5000, 0xEF00));
    bus.update();
    EXPECT_EQ(usedBlocks(), 0u);
    from(PEER, 0xFF, announce(BAM, 1785, 0xEF00));
    from(PEER, SELF, announce(RTS, 1785, 0xEF00));
    bus.update();
    EXPECT_EQ(usedBlocks(), 36u);

    const std::string text = "*B9320*AGCO*J12345*";
    broadcast(OTHER, text);
    ASSERT_EQ(identifications.size(), 1u);
    EXPECT_EQ(std::string(identifications[0].begin(), identifications[0].end()), text);
}

TEST_F(HostileTransferTest, APeerForgottenInTheMiddleOfATransferLeavesNothingDangling) {
    // The peer asks to send, then a flood at its address sends it to the lost list and past
    // the maximum: the session still names its object, which the stack may not free.
    from(PEER, SELF, announce(RTS, 100, 0xEF00));
    for (uint32_t i = 1; i <= MAXIMUM + 2; ++i) {
        bus.receiveClaim(0, PEER, flood(i));
    }
    EXPECT_EQ(NM::getNumberLostDevices(), MAXIMUM);
    bus.run(2000);
    EXPECT_EQ(sessions(), 0u);
    EXPECT_EQ(usedBlocks(), 0u);
}

// ---------------------------------------------------------------- frames that cannot be answered

namespace {
uint32_t queued() {
    return CANMessageQueueClass::CAN_MESSAGE_QUEUE.getCurrentCount();
}
}  // namespace

TEST_F(HostileTransferTest, GarbageSentWithOurOwnAddressIsDealtWithAtOnce) {
    // Found by the fuzzer: the abort for such a frame would go from this device to itself and
    // cannot be built. Kept for a retry it held the queue, and every frame behind it, for good.
    NM::addGlobalReceiveCallback(IDENTIFICATION, &recordIdentification);
    for (int i = 0; i < 20; ++i) {
        from(SELF, SELF, {0x05, 0, 0, 0, 0, 0, 0, 0});
        from(SELF, SELF, {static_cast<uint8_t>(i), 0, 0, 0, 0, 0, 0, 0}, 0xEB00);
    }
    ASSERT_EQ(queued(), 40u);
    bus.update();
    EXPECT_EQ(queued(), 0u);
    broadcast(OTHER, "*B9320*AGCO*J*");
    EXPECT_EQ(identifications.size(), 1u);
}

namespace {
struct HeldCase {
    const char* name;
    uint32_t pgn;
    std::vector<uint8_t> data;
    const char* owner;
    const char* report;
};
class HeldReplyTest : public BusTest, public ::testing::WithParamInterface<HeldCase> {};
}  // namespace

TEST_P(HeldReplyTest, AFrameWhoseReplyCannotGoOutIsDroppedAfterTheTimeout) {
    // A function of ours that found no address, put into the table by a claim with its NAME:
    // it cannot send the abort or the acknowledgement that a frame for it needs. Such a frame
    // is retried, as during a claim period, but not for good.
    const HeldCase& c = GetParam();
    bus.receiveClaim(0, 0x80, testNAME(1));
    bus.receiveClaim(0, 0x10, testNAME(2));
    TestInternalControlFunction stuck(testNAME(9), 0, {0x80});
    bus.run(1000);
    ASSERT_EQ(stuck.getClaimState(), CLAIM_STATE_IDLE);
    bus.receiveClaim(0, 0x50, testNAME(9));
    ASSERT_EQ(NM::getControlFunction(0, 0x50), &stuck);
    bus.receive(0, frameIdentifier(6, c.pgn, 0x50, 0x10), c.data);
    bus.update();
    const uint32_t since = SimulatedBus::now();
    for (uint32_t heldFor : {1499u, 1500u}) {
        bus.advance(since + heldFor - SimulatedBus::now());
        bus.update();
        EXPECT_EQ(queued(), heldFor < 1500 ? 1u : 0u) << heldFor;
        EXPECT_EQ(descriptionCount(c.owner, c.report, 2), heldFor < 1500 ? 0u : 1u) << heldFor;
    }
}

INSTANTIATE_TEST_SUITE_P(Protocols, HeldReplyTest,
                         ::testing::Values(HeldCase{"Request",
                                                    0xEA00,
                                                    {0x00, 0xEF, 0x00},
                                                    "Parameter Group Number Request Protocol",
                                                    "Dropped PGN Request"},
                                           HeldCase{"TransportData",
                                                    0xEB00,
                                                    {1, 2, 3, 4, 5, 6, 7, 8},
                                                    "Transport Protocol",
                                                    "Dropped Message"}),
                         [](const auto& info) { return info.param.name; });
