#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "simulated_bus.h"

namespace {
const char* const OWNER = "Internal Control Function";
const Bytes CLAIM_REQUEST = {0x00, 0xEE, 0x00};
const std::string REQUEST_TEXT = "18EAFFFE:00EE00";

Bytes nameBytes(uint64_t name) {
    Bytes bytes(8);
    NAMEClass(name).toBytes(bytes.data());
    return bytes;
}
std::string claimText(uint8_t address, uint64_t name) {
    return text(SentFrame{0x18EEFF00u | address, nameBytes(name), true});
}
}  // namespace

using CanStackClaimOnBus = BusTest;
using CanStackClaimed = ClaimedTest;

// From a free first address, once at an ordinary time and once across the clock wrap.
class CanStackFreeAddress : public ::testing::TestWithParam<uint32_t> {};

TEST_P(CanStackFreeAddress, ClaimedWithARequestAndOneClaim) {
    SimulatedBus bus;
    SimulatedBus::now = GetParam();
    TestInternalControlFunction self(testNAME(1234), 0, {0x80, 0x81});
    ASSERT_TRUE(bus.runUntilClaimed(self));
    EXPECT_EQ(NM::getControlFunction(0, 0x80), &self);
    EXPECT_EQ(self.claimedCount + 10 * self.startCount, 11);
    EXPECT_EQ(bus.texts(), (Texts{REQUEST_TEXT, claimText(0x80, testNAME(1234))}));
    EXPECT_TRUE(bus.frames[1].immediate);
}
INSTANTIATE_TEST_SUITE_P(StartTimes, CanStackFreeAddress, ::testing::Values(1000u, 0xFFFFFF00u));

// The delay depends on the NAME alone, through the sum of its halves, and spans 0 to 153 ms.
TEST(CanStackAddressClaim, RandomDelayComesFromTheNAME) {
    const auto delay = [](uint64_t name) {
        return TestInternalControlFunction(name, 0, {0x80}).getRandomDelay();
    };
    uint8_t highest = 0;
    std::set<uint8_t> byHighHalf;
    for (uint64_t n = 0; n < 300; ++n) {
        const uint64_t name = testNAME(static_cast<uint32_t>(n * 7919u));
        EXPECT_EQ(delay(name + (n << 32)), delay(name + n)) << n;
        byHighHalf.insert(delay(n << 32));
        highest = std::max(highest, delay(name));
    }
    EXPECT_LE(highest, 153);
    EXPECT_GE(highest, 140);
    EXPECT_GT(byHighHalf.size(), 100u);
}

// Time spent in each claim state, stepping 1 ms at a time: a state is left at the first update
// at which its wait (plus `delays` random delays) has passed.
struct StateTime {
    const char* scenario;
    ClaimState state;
    uint32_t wait;
    uint32_t delays;
};
class CanStackClaimTimes : public ::testing::TestWithParam<StateTime> {};

TEST_P(CanStackClaimTimes, EachStateWaitsExactly) {
    const StateTime& row = GetParam();
    const std::string scenario = row.scenario;
    SimulatedBus bus;
    bus.update();
    bus.confirmImmediate = scenario != "unconfirmed";
    TestInternalControlFunction self(testNAME(100), 0, {0x80});
    if (scenario == "reclaim") {
        ASSERT_TRUE(bus.runUntilClaimed(self));
        bus.confirmImmediate = false;
        bus.claimFrom(0, 0x80, testNAME(300));  // a weaker NAME takes our address
    }
    ClaimState state = self.getClaimState();
    uint32_t since = SimulatedBus::now;
    for (int ms = 0; ms < 2000; ++ms) {
        bus.advance(1);
        bus.confirmImmediate ? bus.update() : NM::update();
        if (self.getClaimState() != state) {
            if (state == row.state) {
                EXPECT_EQ(SimulatedBus::now - since, row.wait + row.delays * self.getRandomDelay());
                return;
            }
            state = self.getClaimState();
            since = SimulatedBus::now;
        }
    }
    ADD_FAILURE() << "never left state " << row.state;
}

INSTANTIATE_TEST_SUITE_P(
    States, CanStackClaimTimes,
    ::testing::Values(StateTime{"free", CLAIM_STATE_RANDOM_WAIT, 0, 1},
                      StateTime{"free", CLAIM_STATE_CONTENTION_WAIT, 250, 1},
                      StateTime{"free", CLAIM_STATE_CLAIM_PERIOD, 250, 0},
                      StateTime{"unconfirmed", CLAIM_STATE_WAIT_FOR_TRANSMIT, 250, 0},
                      StateTime{"reclaim", CLAIM_STATE_WAIT_FOR_RECLAIM_TRANSMIT, 250, 0}));

TEST_F(CanStackClaimOnBus, SelfConfigurableWalksItsListThenContestsByNAME) {
    bus.claimFrom(0, 0x80, testNAME(1));
    bus.claimFrom(0, 0x81, testNAME(2));
    TestInternalControlFunction walker(testNAME(100), 0, {0x80, 0x81, 0x82});
    ASSERT_TRUE(bus.runUntilClaimed(walker));
    EXPECT_EQ(walker.getAddress(), 0x82);

    // Every address taken: the list starts over at index 0 and wins there by NAME.
    bus.claimFrom(1, 0x80, testNAME(200));
    bus.claimFrom(1, 0x81, testNAME(201));
    TestInternalControlFunction contender(testNAME(150), 1, {0x80, 0x81});
    ASSERT_TRUE(bus.runUntilClaimed(contender));
    EXPECT_EQ(NM::getControlFunction(1, 0x80), &contender);
    ControlFunctionClass* loser = nullptr;
    ASSERT_TRUE(NM::findControlFunctionByNAME(NAMEClass(testNAME(200)), 1, loser));
    EXPECT_EQ(loser->getAddress(), 254);
    EXPECT_TRUE(NM::isLostDevice(loser));

    // A claim the bus never confirms as sent is not held: it goes again, and never wins.
    bus.confirmSuccess = false;
    TestInternalControlFunction unheard(testNAME(300), 0, {0x90});
    EXPECT_FALSE(bus.runUntilClaimed(unheard, 600));
    EXPECT_GT(bus.framesWithPGN(0xEE00).size(), 4u);
}

// Not self-configurable, against a NAME one below, equal to and one above its own: only a
// numerically lower NAME wins. A loser sends the cannot-claim message, again on each request.
class CanStackNotSelfConfigurable : public ::testing::TestWithParam<int> {};

TEST_P(CanStackNotSelfConfigurable, OnlyALowerNAMEWins) {
    SimulatedBus bus;
    bus.update();
    const uint64_t own = testNAME(100, 151, false);
    bus.claimFrom(0, 0x80, own + GetParam());
    TestInternalControlFunction self(own, 0, {0x80, 0x81});
    const bool wins = GetParam() > 0;
    ASSERT_EQ(bus.runUntilClaimed(self, 2000), wins);
    EXPECT_EQ(bus.texts(), (Texts{REQUEST_TEXT, claimText(wins ? 0x80 : 0xFE, own)}));
    EXPECT_EQ(descriptionCount(OWNER, "Cannot Find a Valid Address, Not Self Configurable", 2),
              wins ? 0u : 1u);
    bus.receive(0, 0x18EAFF81u, CLAIM_REQUEST);
    bus.run(30);
    EXPECT_EQ(bus.framesWithPGN(0xEE00).size(), 2u);
    EXPECT_EQ(self.getClaimState(), wins ? CLAIM_STATE_CLAIMED : CLAIM_STATE_IDLE);
}
INSTANTIATE_TEST_SUITE_P(Offsets, CanStackNotSelfConfigurable, ::testing::Values(-1, 0, 1));

// Another device claims our address: a weaker NAME is answered by our claim at once, a stronger
// one sends us back to the request for claims and on to the next address of the list.
class CanStackContest : public ClaimedTest, public ::testing::WithParamInterface<bool> {};

TEST_P(CanStackContest, InClaimedState) {
    const bool weaker = GetParam();
    bus.frames.clear();
    bus.claimFrom(0, 0x80, testNAME(weaker ? 300 : 5));
    EXPECT_EQ(self.getAddress(), 254);
    std::vector<ClaimState> states;  // one update each
    for (int i = 0; i < 3; ++i) {
        bus.run(10);
        states.push_back(self.getClaimState());
    }
    using States = std::vector<ClaimState>;
    EXPECT_EQ(states, (weaker ? States{CLAIM_STATE_LOST_ADDRESS,
                                       CLAIM_STATE_WAIT_FOR_RECLAIM_TRANSMIT, CLAIM_STATE_CLAIMED}
                              : States{CLAIM_STATE_LOST_ADDRESS, CLAIM_STATE_SEND_REQUEST,
                                       CLAIM_STATE_CONTENTION_WAIT}));
    EXPECT_EQ(self.getAddressIndex(), 0);
    ASSERT_TRUE(bus.runUntilClaimed(self));
    const Texts won = {claimText(0x80, testNAME(100))};
    EXPECT_EQ(bus.texts(), (weaker ? won : Texts{REQUEST_TEXT, claimText(0x81, testNAME(100))}));
    EXPECT_EQ(NM::getControlFunction(0, self.getAddress()), &self);
    EXPECT_EQ(self.claimedCount, 2);
}
INSTANTIATE_TEST_SUITE_P(ByNAME, CanStackContest, ::testing::Bool());

// A preferred address is taken only before the first step; a change of address only when the
// claim procedure is not under way and the address is free and valid.
TEST_F(CanStackClaimOnBus, PreferredAndChangedAddressByState) {
    bus.claimFrom(0, 0x90, testNAME(1));
    TestInternalControlFunction self(testNAME(100), 0, {0x80});
    EXPECT_TRUE(self.setPreferredAddress(0x70));
    EXPECT_EQ(self.getCandidateAddress(), 0x70);
    EXPECT_TRUE(self.setPreferredAddress(0xFF));
    EXPECT_EQ(self.getCandidateAddress(), 254);
    bus.update();
    EXPECT_FALSE(self.setPreferredAddress(0x70));
    EXPECT_EQ(self.getCandidateAddress(), 0x80);
    ASSERT_TRUE(bus.runUntil([&] { return self.getClaimState() == CLAIM_STATE_CLAIM_PERIOD; }));
    EXPECT_FALSE(self.requestChangeAddress(0x85));
    EXPECT_FALSE(self.requestChangeNAME(NAMEClass(testNAME(101))));
    EXPECT_FALSE(self.repeatAddressClaim());
    EXPECT_FALSE(self.requestAddressClaims());
    ASSERT_TRUE(bus.runUntilClaimed(self));

    // The candidate itself: refused, yet the claim goes out again.
    bus.frames.clear();
    EXPECT_FALSE(self.requestChangeAddress(0x80));
    bus.run(10);
    EXPECT_EQ(bus.texts(), Texts{claimText(0x80, testNAME(100))});
    EXPECT_FALSE(self.requestChangeAddress(0x90));
    EXPECT_FALSE(self.requestChangeAddress(254));
    EXPECT_EQ(descriptions(OWNER),
              (Texts{"2 Request Change Address Failed Invalid Address",
                     "1 Request Change Address Failed Address Already In Use",
                     "1 Request Change NAME Failed Invalid State Machine State",
                     "1 Request Change Address Failed Invalid State Machine State",
                     "1 Setting Preferred Address Failed"}));

    ASSERT_TRUE(self.requestChangeAddress(0x85));
    EXPECT_EQ(self.getClaimState(), CLAIM_STATE_SELECT_ADDRESS);
    EXPECT_EQ(self.getAddress(), 0x80);  // held until the new claim reaches the table
    bus.run(10);
    EXPECT_EQ(NM::getControlFunction(0, 0x85), &self);
    EXPECT_EQ(NM::getControlFunction(0, 0x80), nullptr);
    // A new NAME starts the claim over, under that NAME.
    ASSERT_TRUE(bus.runUntil([&] { return self.getClaimState() == CLAIM_STATE_CLAIMED; }));
    ASSERT_TRUE(self.requestChangeNAME(NAMEClass(testNAME(101))));
    ASSERT_TRUE(bus.runUntilClaimed(self));
    EXPECT_EQ(bus.texts().back(), claimText(0x85, testNAME(101)));
}

TEST_F(CanStackClaimed, RequestForAddressClaimAndForeignUseOfOurAddressAreAnswered) {
    bus.frames.clear();
    bus.receive(0, 0x18EA8033u, CLAIM_REQUEST);  // addressed to us
    EXPECT_TRUE(self.isClaimRequested());
    bus.run(10);
    EXPECT_FALSE(self.isClaimRequested());
    bus.receive(0, 0x18EAFFFEu, CLAIM_REQUEST);  // global, from the null address
    EXPECT_TRUE(self.isClaimRequested());
    bus.receive(0, 0x18EA3333u, CLAIM_REQUEST);  // for someone else
    bus.run(10);
    EXPECT_TRUE(self.repeatAddressClaim());
    EXPECT_TRUE(self.requestAddressClaims());  // from our address, and claims again after it
    bus.run(10);
    const std::string claim = claimText(0x80, testNAME(100));
    EXPECT_EQ(bus.texts(), (Texts{claim, claim, claim, "18EAFF80:00EE00", claim}));
    bus.receive(0, 0x18EAFF33u, {0x00, 0xEE});  // too short
    bus.receive(0, 0x18EAFFFEu, {0x00, 0xEE});  // too short too, and valid from the null address
    EXPECT_EQ(descriptionCount("Network Management", "Invalid Data Length in PGN Request", 1), 2u);
    // A claim sent to us alone claims nothing.
    bus.receive(0, 0x18EE8033u, nameBytes(testNAME(7)));
    EXPECT_EQ(NM::getControlFunction(0, 0x33), nullptr);

    // A frame from our own address: another device uses it.
    bus.receive(0, 0x18FEF180u, {1, 2, 3});
    EXPECT_TRUE(self.getAddressConflictSeen());
    EXPECT_FALSE(self.getClaimConflictSeen());
    EXPECT_TRUE(self.isClaimRequested());
}

TEST_F(CanStackClaimed, CommandedAddressMovesTheFunction) {
    bus.claimFrom(0, 0x20, testNAME(1));
    Bytes command = nameBytes(testNAME(100));
    command.push_back(0x99);
    uint32_t handle = 0;
    NetworkManagementMemoryPoolClass& pool =
        NetworkManagementMemoryPoolClass::NETWORK_MANAGEMENT_MEMORY_POOL;
    ASSERT_TRUE(pool.acquireBuffer(9, handle));
    pool.writeBuffer(handle, command.data(), 0, 9);
    CANLongMessageClass message(0xFED8, handle, nullptr, 9, NM::getControlFunction(0, 0x20),
                                nullptr, "test");
    ASSERT_TRUE(message.isValid());
    NM::receiveMessage(&message);
    EXPECT_EQ(self.getClaimState(), CLAIM_STATE_SELECT_ADDRESS);
    bus.run(10);
    EXPECT_EQ(self.getAddress(), 0x99);
    ASSERT_TRUE(bus.runUntilClaimed(self));

    self.acceptCommands = false;
    command[8] = 0x98;
    pool.writeBuffer(handle, command.data(), 0, 9);
    NM::receiveMessage(&message);
    bus.run(10);
    EXPECT_EQ(self.getAddress(), 0x99);
    // A command of the wrong length is refused.
    bus.receive(0, 0x18FED820u, Bytes(command.begin(), command.begin() + 8));
    EXPECT_EQ(descriptionCount("Network Management", "Invalid Data Length in Commanded Address", 1),
              1u);
}
