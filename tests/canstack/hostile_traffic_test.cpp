// Hostile traffic: a node that claims from ever new NAMEs, and transfers announced larger than
// a session can carry. What the flood allocates is counted in the allocation test.
#include <gtest/gtest.h>

#include <string>

#include "canstack/controlfunction.h"
#include "canstack/transportprotocol.h"
#include "simulated_bus.h"

namespace {
constexpr uint32_t MAXIMUM = NM::MAXIMUM_NUMBER_FORGETTABLE_LOST_DEVICES;

// The i-th NAME of a flood; none of them self-configurable, all in industry group 2.
uint64_t flood(uint32_t i) {
    return testNAME(1000 + i, 151, false);
}
// Claims `address` from NAMEs first to last: each displaces the one before onto the lost list.
void claims(SimulatedBus& bus, uint32_t first, uint32_t last, uint8_t address = 0x42) {
    for (uint32_t i = first; i <= last; ++i) {
        bus.claimFrom(0, address, flood(i));
    }
}
ControlFunctionClass* findByNAME(uint64_t name, uint8_t channel = 0) {
    ControlFunctionClass* found = nullptr;
    NM::findControlFunctionByNAME(NAMEClass(name), channel, found);
    return found;
}

std::vector<ControlFunctionClass*> announced;
Texts identifications;

class HostileTransferTest : public ProtocolTest {
protected:
    void from(uint8_t source, uint8_t destination, const Bytes& data, uint32_t pgn = 0xEC00) {
        bus.receive(0, frameIdentifier(pgn == 0xEC00 ? 6 : 7, pgn, destination, source), data);
    }
    // A broadcast of `text` from OTHER gets through, its packets 60 ms apart.
    void broadcast(const std::string& text) {
        NM::addGlobalReceiveCallback(
            0xFEEC, [](CANMessageClass* m, ReceiveCANMessageCallbackClass*) {
                std::string data(m->getDataLength(), '\0');
                m->getData(reinterpret_cast<uint8_t*>(&data[0]), 0, m->getDataLength());
                identifications.push_back(data);
            });
        from(OTHER, 0xFF, sized(BAM, text.size(), 0xFEEC));
        bus.update();
        for (uint32_t sequence = 1; (sequence - 1) * 7 < text.size(); ++sequence) {
            bus.advance(60);
            from(OTHER, 0xFF, packet(sequence, Bytes(text.begin(), text.end())), 0xEB00);
            bus.update();
        }
        EXPECT_EQ(identifications, Texts{text});
    }
};
}  // namespace

using ClaimFloodTest = BusTest;

TEST_F(ClaimFloodTest, EachChannelRemembersTheMaximumAndForgetsTheOldestFirst) {
    // Claim k leaves k - 1 NAMEs on the lost list: one before, at and after the maximum.
    uint32_t done = 0;
    for (uint32_t upTo : {MAXIMUM, MAXIMUM + 1, MAXIMUM + 2, MAXIMUM + 700}) {
        claims(bus, done + 1, upTo);
        done = upTo;
        const uint32_t lost = std::min(done - 1, MAXIMUM);
        const uint32_t oldest = done - lost;  // the oldest NAME still remembered
        EXPECT_EQ(NM::getNumberLostDevices(), lost) << done;
        EXPECT_EQ(NM::getNumberForgettableLostDevices(0), lost) << done;
        EXPECT_EQ(findByNAME(flood(oldest - 1)), nullptr) << done;
        ASSERT_NE(findByNAME(flood(oldest)), nullptr) << done;
        EXPECT_TRUE(NM::isLostDevice(findByNAME(flood(oldest))));
        EXPECT_EQ(findByNAME(flood(done)), NM::getControlFunction(0, 0x42));
    }
    EXPECT_EQ(NM::getNumberForgettableLostDevices(1), 0u);
}

TEST_F(ClaimFloodTest, AForgottenDeviceThatClaimsAgainComesUpAsANewOne) {
    NM::addNewControlFunctionCallback(
        [](ControlFunctionClass* f, void*) { announced.push_back(f); });
    claims(bus, 1, MAXIMUM + 1);
    ControlFunctionClass* stale = findByNAME(flood(1));
    ASSERT_NE(stale, nullptr);
    // A remembered NAME moves in, so the one it displaces pushes the oldest out, and nothing
    // new takes that object yet. Whoever still holds it cannot list it again.
    ControlFunctionClass* remembered = findByNAME(flood(2));
    EXPECT_EQ(bus.claimFrom(0, 0x42, flood(2)), remembered);
    EXPECT_EQ(findByNAME(flood(1)), nullptr);
    ASSERT_EQ(UnregisteredControlFunctionClass::getNumberForgotten(), 1u);
    stale->reset();
    EXPECT_FALSE(NM::isLostDevice(stale));
    EXPECT_EQ(NM::getNumberLostDevices(), MAXIMUM - 1);

    announced.clear();
    ControlFunctionClass* back = bus.claimFrom(0, 0x10, flood(1));
    EXPECT_EQ(back, stale);  // its memory, now a new device
    EXPECT_EQ(back->getNAME().getNAME(), flood(1));
    EXPECT_EQ(back->getType(), 2);
    EXPECT_EQ(announced, std::vector<ControlFunctionClass*>{back});
    EXPECT_EQ(NetworkManagementStatisticsClass::NETWORK_MANAGEMENT_STATISTICS.getNewNAMECount(0),
              MAXIMUM + 2);
    EXPECT_EQ(UnregisteredControlFunctionClass::getNumberForgotten(), 0u);
}

TEST_F(ClaimFloodTest, OtherChannelsAndTheApplicationsFunctionsAreNeverForgotten) {
    // A device that lost its address on channel 1, and a registered function waiting on
    // channel 0 for a device that has not claimed yet.
    bus.claimFrom(1, 0x20, testNAME(1));
    bus.claimFrom(1, 0x20, testNAME(2));
    ControlFunctionClass* elsewhere = findByNAME(testNAME(1), 1);
    ASSERT_TRUE(NM::isLostDevice(elsewhere));
    RegisteredControlFunctionClass waiting(0, NAMEClass(testNAME(5)));
    ASSERT_TRUE(NM::isLostDevice(&waiting));

    claims(bus, 1, 2 * MAXIMUM);
    EXPECT_EQ(findByNAME(testNAME(1), 1), elsewhere);
    EXPECT_EQ(NM::getNumberLostDevices(), MAXIMUM + 2);
    EXPECT_EQ(bus.claimFrom(0, 0x21, testNAME(5)), &waiting);
}

TEST_F(ClaimFloodTest, AFloodMatchingABoundRegisteredFunctionKeepsItsPairsBounded) {
    // Any NAME of industry group 2: the first device binds it, every later one is a second
    // device matching it and is paired with it.
    const NAMEFieldEntry anyOfGroupTwo[] = {{2, NAME_FIELD_INDUSTRY_GROUP}};
    RegisteredControlFunctionClass bound(0, anyOfGroupTwo, 1);
    ASSERT_EQ(bus.claimFrom(0, 0x01, testNAME(7)), &bound);
    claims(bus, 1, 3 * MAXIMUM);
    // The pairs of forgotten devices go with them: those lost and the one at the address stay.
    EXPECT_EQ(RegisteredControlFunctionClass::numberInvalidRegisteredControlFunctions, MAXIMUM + 1);
    uint32_t listed = 0;
    for (auto* pair = RegisteredControlFunctionClass::invalidRegisteredControlFunctionList;
         pair != nullptr; pair = pair->next) {
        EXPECT_EQ(pair->registeredControlFunction, &bound);
        EXPECT_EQ(pair->unregisteredControlFunction->getNAME().getNAME(),
                  flood(2 * MAXIMUM + listed++));
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
    EXPECT_EQ(bus.claimFrom(0, 0x12, NAMEClass::UNKNOWN), first);
    EXPECT_FALSE(NM::isLostDevice(first));
    EXPECT_TRUE(NM::isLostDevice(second));

    // A listed function renamed is found by its new NAME only; the device it stood for stays
    // behind under the old one.
    RegisteredControlFunctionClass registered(0, NAMEClass(testNAME(8)));
    ASSERT_TRUE(registered.bindByNAME(NAMEClass(testNAME(9))));
    EXPECT_EQ(findByNAME(testNAME(9)), &registered);
    ASSERT_NE(findByNAME(testNAME(8)), nullptr);
    EXPECT_EQ(findByNAME(testNAME(8))->getType(), 2);
    EXPECT_EQ(bus.claimFrom(0, 0x13, testNAME(9)), &registered);
    EXPECT_FALSE(NM::isLostDevice(&registered));
}

// ---------------------------------------------------------------- transfers

// No more than the largest message is announced: one byte more is refused outright, and the
// most one peer can hold, a broadcast and a transfer to us, leaves room for the identification.
TEST_F(HostileTransferTest, TheIdentificationTextGetsThroughWhileAPeerAnnouncesHugeTransfers) {
    from(PEER, 0xFF, sized(BAM, 1786, 0xEF00));
    from(PEER, SELF, sized(RTS, 1786, 0xEF00));
    bus.update();
    EXPECT_EQ(usedBlocks(), 0u);
    EXPECT_EQ(descriptionCount("Transport Protocol", "BAM Request Memory Pool Failure", 2), 1u);
    EXPECT_EQ(descriptionCount("Transport Protocol", "Request Memory Pool Failure", 2), 1u);
    EXPECT_EQ(bus.texts(), Texts());
    from(PEER, 0xFF, sized(BAM, 1785, 0xEF00));
    from(PEER, SELF, sized(RTS, 1785, 0xEF00));
    bus.update();
    bus.update();
    EXPECT_EQ(sessions(), 2u);
    EXPECT_EQ(usedBlocks(), 36u);
    EXPECT_EQ(bus.texts(), Texts{"18EC3080:11FF01FFFF00EF00"});  // the clear to send
    broadcast("*B9320*AGCO*J12345*");
}

// The peer asks to send, then a flood at its address sends it to the lost list and past the
// maximum: the session still names its object, which the stack may not free.
TEST_F(HostileTransferTest, APeerForgottenInTheMiddleOfATransferLeavesNothingDangling) {
    from(PEER, SELF, sized(RTS, 100, 0xEF00));
    claims(bus, 1, MAXIMUM + 2, PEER);
    EXPECT_EQ(NM::getNumberLostDevices(), MAXIMUM);
    bus.run(2000);
    EXPECT_EQ(sessions(), 0u);
    EXPECT_EQ(usedBlocks(), 0u);
}

// Found by the fuzzer: the abort for such a frame would go from this device to itself and
// cannot be built. Kept for a retry it held the queue, and every frame behind it, for good.
TEST_F(HostileTransferTest, GarbageSentWithOurOwnAddressIsDealtWithAtOnce) {
    for (int i = 0; i < 20; ++i) {
        from(SELF, SELF, {0x05, 0, 0, 0, 0, 0, 0, 0});
        from(SELF, SELF, {static_cast<uint8_t>(i), 0, 0, 0, 0, 0, 0, 0}, 0xEB00);
    }
    ASSERT_EQ(queued(), 40u);
    bus.update();
    EXPECT_EQ(queued(), 0u);
    broadcast("*B9320*AGCO*J*");
}

// A function of ours that found no address, put into the table by a claim with its NAME: it
// cannot send the abort or the acknowledgement that a frame for it needs. Such a frame is
// retried, as during a claim period, but not for good.
struct HeldCase {
    const char* name;
    uint32_t pgn;
    Bytes data;
    const char* owner;
    const char* report;
};
class HeldReplyTest : public BusTest, public ::testing::WithParamInterface<HeldCase> {};

TEST_P(HeldReplyTest, AFrameWhoseReplyCannotGoOutIsDroppedAfterTheTimeout) {
    const HeldCase& c = GetParam();
    bus.claimFrom(0, 0x80, testNAME(1));
    bus.claimFrom(0, 0x10, testNAME(2));
    TestInternalControlFunction stuck(testNAME(9), 0, {0x80});
    bus.run(1000);
    ASSERT_EQ(stuck.getClaimState(), CLAIM_STATE_IDLE);
    ASSERT_EQ(bus.claimFrom(0, 0x50, testNAME(9)), &stuck);
    bus.receive(0, frameIdentifier(6, c.pgn, 0x50, 0x10), c.data);
    bus.update();
    const uint32_t since = SimulatedBus::now;
    for (uint32_t heldFor : {1499u, 1500u}) {
        bus.advance(since + heldFor - SimulatedBus::now);
        bus.update();
        EXPECT_EQ(queued(), heldFor < 1500 ? 1u : 0u) << heldFor;
        EXPECT_EQ(descriptionCount(c.owner, c.report, 2), heldFor < 1500 ? 0u : 1u) << heldFor;
    }
}

INSTANTIATE_TEST_SUITE_P(Protocols, HeldReplyTest,
                         ::testing::Values(
                             // clang-format off
        HeldCase{"Request", 0xEA00, {0x00, 0xEF, 0x00}, "Parameter Group Number Request Protocol", "Dropped PGN Request"},
        HeldCase{"TransportData", 0xEB00, {1, 2, 3, 4, 5, 6, 7, 8}, "Transport Protocol", "Dropped Message"}),
                         // clang-format on
                         [](const auto& info) { return info.param.name; });
