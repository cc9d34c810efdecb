#include <gtest/gtest.h>

#include "CanPropertySource/state_machine_rig.h"

namespace {

const std::vector<std::uint8_t> kFrame = {0, 0, 0, 0, 0, 0, 0, 0};
const char* const kStarted[] = {"Starting state machine",
                                "State machine transitioning to MachineBusDetector"};

struct Unlisted : CanPropertySourceState_i {
    void onStart(std::shared_ptr<CanPropertySourceStateMachine>,
                 std::shared_ptr<CanInterface>) override {}
    void onStop() override {}
};

TEST(StateMachine, StartsWithBusDetectorOnBothMachineBuses) {
    StateMachineRig rig;
    EXPECT_EQ(rig.machine->currentStateIndex(), -1);
    rig.start();
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>(std::begin(kStarted), std::end(kStarted)));
    EXPECT_EQ(rig.can->filtersOn(Bus::MACHINE_250K), (Groups{0xF004, 0xFEF2}));
    EXPECT_EQ(rig.can->filtersOn(Bus::MACHINE_500K), (Groups{0xF004, 0xFEF2}));
    EXPECT_EQ(rig.can->filters.size(), 4u);  // nothing on the product bus
    EXPECT_FALSE(rig.can->deliver(Bus::MACHINE_250K, 0xFEEE, kFrame));
    EXPECT_EQ(rig.can->defaultBus(), Bus::NONE);

    rig.machine->switchState<Unlisted>();  // no such state: nothing happens
    EXPECT_EQ(rig.log.lines().size(), 2u);
    rig.machine->switchState<MachineBusDetector>();  // the current one restarts
    EXPECT_EQ(rig.transitions().size(), 2u);
    EXPECT_EQ(rig.can->filters.size(), 4u);
    rig.machine->onStop();
    EXPECT_TRUE(rig.can->filters.empty());
}

TEST(StateMachine, StopBeforeStartTouchesNothing) {
    StateMachineRig rig;
    rig.machine->onStop();
    EXPECT_TRUE(rig.log.lines().empty());
}

TEST(MachineBusDetector, FirstEngineFramePicksItsBus) {
    const struct {
        Bus bus;
        std::uint32_t pgn;
        Bus other;
        const char* line;
    } cases[] = {
        {Bus::MACHINE_250K, 0xF004, Bus::MACHINE_500K, "Setting default CAN bus to: MACHINE_250K"},
        {Bus::MACHINE_500K, 0xFEF2, Bus::MACHINE_250K, "Setting default CAN bus to: MACHINE_500K"},
        {Bus::MACHINE_500K, 0xF004, Bus::MACHINE_250K, "Setting default CAN bus to: MACHINE_500K"}};
    for (const auto& c : cases) {
        StateMachineRig rig;
        rig.start();
        EXPECT_TRUE(rig.can->deliver(c.bus, c.pgn, kFrame));
        EXPECT_EQ(rig.can->defaultBus(), c.bus);
        EXPECT_EQ(rig.current(), "ManufacturerDetector");
        EXPECT_EQ(rig.log.count(c.line), 1);
        // Later frames on the other bus reach nothing.
        EXPECT_FALSE(rig.can->deliver(c.other, 0xF004, kFrame));
        EXPECT_FALSE(rig.can->deliver(c.other, 0xFEF2, kFrame));
        EXPECT_EQ(rig.can->filtersOn(c.bus), (Groups{0xF004, 0xFEF2}));
    }
}

struct CodeCase {
    int code;
    std::vector<std::string> transitions;
    std::vector<std::string> manufacturer;
    Groups filters;  // what the final state left on the machine bus
};
void PrintTo(const CodeCase& c, std::ostream* os) {
    *os << "code " << c.code;
}

class CompliantSender : public testing::TestWithParam<CodeCase> {};

TEST_P(CompliantSender, CodeChoosesNextStateAndIsRecorded) {
    const CodeCase& c = GetParam();
    StateMachineRig rig;
    rig.toManufacturerDetector();
    rig.log.clear();
    rig.can->deliver(Bus::MACHINE_250K, 0xFEF2, kFrame, c.code);

    EXPECT_EQ(rig.transitions(), c.transitions);
    EXPECT_EQ(rig.current(), c.transitions.back());
    EXPECT_EQ(rig.values(rig.properties->manufacturer), c.manufacturer);
    EXPECT_EQ(rig.values(rig.properties->manufacturerCode), std::vector<int>{c.code});
    EXPECT_EQ(rig.log.lines()[0], "Address Claiming and Registration has finished");
    EXPECT_EQ(rig.log.lines()[1], "Received pgn message 0xfef2 from ECU with manufacturer code " +
                                      std::to_string(c.code));
    EXPECT_EQ(rig.log.lines()[2], "Message came from ISO complient ECU");
    EXPECT_EQ(rig.can->filtersOn(Bus::MACHINE_250K), c.filters);
    const std::string detected = c.manufacturer.empty() ? "" : c.manufacturer.back();
    EXPECT_EQ(rig.detectedFileText(), "{\n    \"detectedManufacturer\": \"" + detected + "\"\n}\n");
}

const Groups kCase = {0xFF12, 0xFF7A};
const std::string kGeneric = "GenericCanPropertyReader";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Codes, CompliantSender, testing::Values(
    CodeCase{213, {"CaseModelDetector"}, {"CaseIH"}, kCase}, CodeCase{7, {"CaseModelDetector"}, {"CaseIH"}, kCase},
    CodeCase{70, {"CaseModelDetector"}, {"CaseIH"}, kCase}, CodeCase{94, {"CaseModelDetector"}, {"CaseIH"}, kCase},
    CodeCase{84, {"CaseModelDetector", "AgcoModelDetector"}, {"New Holland", "AGCO"}, {0xFEEC}},
    CodeCase{102, {"AgcoModelDetector"}, {"AGCO"}, {0xFEEC}},
    CodeCase{10, {kGeneric, kGeneric}, {"Cummins"}, standardGroups()},
    CodeCase{1, {kGeneric}, {}, standardGroups()}, CodeCase{0, {kGeneric}, {}, standardGroups()}));
// clang-format on

TEST(ManufacturerDetector, WaitsForAddressClaimButWritesFileEveryFrame) {
    StateMachineRig rig;
    rig.start();
    rig.can->deliver(Bus::MACHINE_500K, 0xF004, kFrame);  // no address claimed
    rig.properties->manufacturer.set("flushed");
    rig.properties->manufacturer.swapBuffers();
    rig.log.clear();
    for (int frame = 0; frame < 2; ++frame) {
        boost::filesystem::remove(rig.detectedFile);
        rig.can->deliver(Bus::MACHINE_500K, 0xF004, kFrame, 213);
        EXPECT_EQ(rig.detectedFileText(), "{\n    \"detectedManufacturer\": \"\"\n}\n");
    }
    EXPECT_EQ(rig.current(), "ManufacturerDetector");
    EXPECT_TRUE(rig.log.lines().empty());
    // Written through a rename: nothing else is left in the folder it created.
    EXPECT_EQ(std::distance(boost::filesystem::directory_iterator(rig.dir / "telematics"),
                            boost::filesystem::directory_iterator()),
              1);
}

struct NoNameCase {
    std::map<int, std::vector<int>> nodes;  // manufacturer codes per channel
    std::string user;
    std::string state;
    std::vector<std::string> manufacturer;
};
void PrintTo(const NoNameCase& c, std::ostream* os) {
    *os << '"' << c.user << "\" " << c.state;
}

class SenderWithoutName : public testing::TestWithParam<NoNameCase> {};

TEST_P(SenderWithoutName, FallsBackOnChannelOneThenOnTheUser) {
    const NoNameCase& c = GetParam();
    StateMachineRig rig("{\"manufacturer\": \"" + c.user + "\"}");
    rig.can->nodesByChannel = c.nodes;
    rig.toManufacturerDetector(Bus::MACHINE_500K);
    rig.can->deliver(Bus::MACHINE_500K, 0xF004, kFrame);

    EXPECT_EQ(rig.current(), c.state);
    EXPECT_EQ(rig.values(rig.properties->manufacturer), c.manufacturer);
    EXPECT_TRUE(rig.properties->manufacturerCode.unflushedSamples().empty());
    EXPECT_EQ(rig.log.count("Received pgn message 0xf004 from ECU with manufacturer code -1"), 1);
    EXPECT_EQ(rig.log.count("Message is from noncompliant ECU"), 1);
    EXPECT_EQ(rig.log.count("The user-selected manufacturer is \"" + c.user + "\""), 1);
}

const std::map<int, std::vector<int>> kCaseOn1 = {{1, {33, 213}}},
                                      kCaseOn0 = {{0, {213}}, {1, {33}}};
const char* const kCaseModel = "CaseModelDetector";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Fallbacks, SenderWithoutName, testing::Values(
    NoNameCase{kCaseOn1, "Miller", kCaseModel, {"CaseIH"}}, NoNameCase{kCaseOn1, "", kCaseModel, {"CaseIH"}},
    NoNameCase{kCaseOn0, "", kGeneric, {}}, NoNameCase{{}, "CaseIH", kCaseModel, {"CaseIH"}},
    NoNameCase{{}, "New Holland", kCaseModel, {"New Holland"}}, NoNameCase{{}, "Miller", kCaseModel, {"Miller"}},
    NoNameCase{{}, "AGCO", kGeneric, {}}, NoNameCase{{}, "caseih", kGeneric, {}},
    NoNameCase{{}, "Miller ", kGeneric, {}}));
// clang-format on

TEST(ManufacturerDetector, UserSelectionIsTextAndCountsOnlyUntilFlushed) {
    StateMachineRig rig("{\"manufacturer\": \"CaseIH\", \"model\": 7040}");
    rig.toManufacturerDetector();
    EXPECT_EQ(rig.values(rig.properties->userSelected_model), std::vector<std::string>{"7040"});
    rig.properties->userSelected_manufacturer.swapBuffers();
    rig.can->deliver(Bus::MACHINE_250K, 0xF004, kFrame);
    EXPECT_EQ(rig.current(), kGeneric);
}

TEST(ManufacturerDetector, BadUserFileIsLoggedForBothKeysAndIgnored) {
    for (const char* content : {"", "{\"manufacturer\": ", "[1, 2"}) {
        StateMachineRig rig(content);
        rig.toManufacturerDetector();
        const std::string line = "ERROR Error reading " + rig.userFile +
                                 "cannot find user selected manufacturer. Details: ";
        ASSERT_GE(rig.log.lines().size(), 6u);
        for (int i : {4, 5}) {  // after the two transitions and the bus choice
            EXPECT_EQ(rig.log.lines()[i].compare(0, line.size(), line), 0) << content;
        }
        EXPECT_TRUE(rig.properties->userSelected_manufacturer.unflushedSamples().empty());
        EXPECT_EQ(rig.current(), "ManufacturerDetector");
    }
}

TEST(ManufacturerDetector, UnwritableFileIsLoggedAfterTheTransition) {
    StateMachineRig rig;
    std::ofstream(rig.dir / "telematics") << "a file where the folder should be";
    rig.identify(213);
    EXPECT_EQ(rig.current(), "CaseModelDetector");
    const std::string line = "ERROR Error writing to detected machine file: ";
    EXPECT_EQ(rig.log.lines().back().compare(0, line.size(), line), 0);
}

}  // namespace
