#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "CanPropertySource/machinebusdetector.h"
#include "CanPropertySource/state_machine_rig.h"

namespace {

namespace fs = boost::filesystem;

// The immutable flag stops root too; false where the file system has none.
bool setImmutable(const fs::path& file, bool immutable) {
    const int fd = ::open(file.c_str(), O_RDONLY);
    int flags = 0;
    bool done = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = immutable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    done = done && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    if (fd >= 0) {
        ::close(fd);
    }
    return done;
}

const char* const kCaseModel = "CaseModelDetector";
const char* const kAgcoModel = "AgcoModelDetector";
const char* const kGeneric = "GenericCanPropertyReader";

struct Unlisted : CanPropertySourceState_i {
    void onStart(std::shared_ptr<CanPropertySourceStateMachine>,
                 std::shared_ptr<CanInterface>) override {}
    void onStop() override {}
};

TEST(StateMachine, SwitchesOnlyToListedStatesAndStopsCleanly) {
    {
        StateMachineRig idle;
        idle.machine->onStop();  // before the start: touches nothing
        EXPECT_TRUE(idle.log.lines().empty());
    }
    StateMachineRig rig;
    EXPECT_EQ(rig.machine->currentStateIndex(), -1);
    rig.start();
    rig.machine->switchState<Unlisted>();  // no such state: nothing happens
    EXPECT_EQ(rig.log.lines().size(), 2u);
    rig.machine->switchState<MachineBusDetector>();  // the current one restarts
    EXPECT_EQ(rig.transitions().size(), 2u);
    EXPECT_EQ(rig.can->filters.size(), 4u);
    rig.machine->onStop();
    EXPECT_TRUE(rig.can->filters.empty());
    // Started again, it finds all its states and begins anew.
    rig.identify(213);
    EXPECT_EQ(rig.current(), kCaseModel);
    // No ownership cycle: once stopped, the last owner frees the machine and its states.
    rig.machine->onStop();
    const std::weak_ptr<CanPropertySourceStateMachine> machine = rig.machine;
    rig.machine.reset();
    EXPECT_TRUE(machine.expired());
}

TEST(MachineBusDetector, ListensOnBothMachineBusesUntilTheFirstEngineFrame) {
    const Groups engine = {0xF004, 0xFEF2};
    const struct {
        Bus bus;
        std::uint32_t pgn;
        const char* line;
    } rows[] = {{kBus0, 0xF004, "INFO Setting default CAN bus to: MACHINE_250K"},
                {Bus::MACHINE_500K, 0xFEF2, "INFO Setting default CAN bus to: MACHINE_500K"},
                {Bus::MACHINE_500K, 0xF004, "INFO Setting default CAN bus to: MACHINE_500K"}};
    for (const auto& row : rows) {
        StateMachineRig rig;
        rig.start();
        EXPECT_EQ(rig.log.lines(), (std::vector<std::string>{
                                       "INFO Starting state machine",
                                       "INFO State machine transitioning to MachineBusDetector"}));
        EXPECT_EQ(rig.can->filtersOn(kBus0), engine);
        EXPECT_EQ(rig.can->filtersOn(Bus::MACHINE_500K), engine);
        EXPECT_EQ(rig.can->filters.size(), 4u);  // nothing on the product bus
        EXPECT_EQ(rig.can->defaultBus(), Bus::NONE);

        EXPECT_TRUE(rig.can->deliver(row.bus, row.pgn, kZeros));
        EXPECT_EQ(rig.can->defaultBus(), row.bus);
        EXPECT_EQ(rig.current(), "ManufacturerDetector");
        EXPECT_EQ(rig.log.lines().at(2), row.line);
        // Later frames on the other bus reach nothing.
        const Bus other = row.bus == kBus0 ? Bus::MACHINE_500K : kBus0;
        EXPECT_FALSE(rig.can->deliver(other, 0xF004, kZeros));
        EXPECT_FALSE(rig.can->deliver(other, 0xFEF2, kZeros));
        EXPECT_EQ(rig.can->filtersOn(row.bus), engine);
    }
}

TEST(ManufacturerDetector, SenderChoosesNextStateAndIsRecorded) {
    const std::vector<int> caseOnOne = {33, 213};
    const struct {
        int code;  // -1: a sender without NAME
        std::string user;
        std::vector<int> channelOne;
        std::vector<std::string> transitions;
        std::vector<std::string> manufacturer;
    } rows[] = {
        // clang-format off
        {213, "", {}, {kCaseModel}, {"CaseIH"}}, {7, "", {}, {kCaseModel}, {"CaseIH"}},
        {70, "", {}, {kCaseModel}, {"CaseIH"}}, {94, "", {}, {kCaseModel}, {"CaseIH"}},
        {84, "", {}, {kCaseModel, kAgcoModel}, {"New Holland", "AGCO"}},
        {102, "", {}, {kAgcoModel}, {"AGCO"}}, {10, "", {}, {kGeneric, kGeneric}, {"Cummins"}},
        {1, "CaseIH", caseOnOne, {kGeneric}, {}}, {0, "", {}, {kGeneric}, {}},
        {-1, "Miller", caseOnOne, {kCaseModel}, {"CaseIH"}},
        {-1, "", caseOnOne, {kCaseModel}, {"CaseIH"}}, {-1, "", {33}, {kGeneric}, {}},
        {-1, "CaseIH", {}, {kCaseModel}, {"CaseIH"}}, {-1, "Miller", {}, {kCaseModel}, {"Miller"}},
        {-1, "New Holland", {}, {kCaseModel}, {"New Holland"}}, {-1, "AGCO", {}, {kGeneric}, {}},
        {-1, "caseih", {}, {kGeneric}, {}}, {-1, "Miller ", {}, {kGeneric}, {}},
        // clang-format on
    };
    const std::map<std::string, Groups> filtersOf = {
        {kCaseModel, {0xFF12, 0xFF7A}}, {kAgcoModel, {0xFEEC}}, {kGeneric, standardGroups()}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.code) + " \"" + row.user + "\"");
        StateMachineRig rig("{\"manufacturer\": \"" + row.user + "\"}");
        rig.can->channelOneCodes = row.channelOne;
        rig.toManufacturerDetector();
        rig.log.clear();
        // Both engine groups reach the detector.
        const std::uint32_t pgn = row.code < 0 ? 0xF004 : 0xFEF2;
        rig.can->deliver(kBus0, pgn, kZeros, row.code);

        std::vector<std::string> expected = {
            "INFO Address Claiming and Registration has finished",
            "INFO Received pgn message 0x" + std::string(pgn == 0xF004 ? "f004" : "fef2") +
                " from ECU with manufacturer code " + std::to_string(row.code)};
        if (row.code >= 0) {
            expected.push_back("INFO Message came from ISO complient ECU");
        } else {
            expected.push_back("INFO Message is from noncompliant ECU");
            expected.push_back("INFO The user-selected manufacturer is \"" + row.user + "\"");
            if (row.channelOne == caseOnOne) {
                expected.push_back(
                    "INFO Assuming that we are on a Case machine as there is a node manufactured "
                    "by "
                    "Case on the bus");
            }
        }
        const auto lines = rig.log.lines();
        const auto end = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
            return logtest::startsWith(line, "INFO State machine transitioning to ");
        });
        EXPECT_EQ(std::vector<std::string>(lines.begin(), end), expected);
        EXPECT_EQ(rig.transitions(), row.transitions);
        EXPECT_EQ(rig.current(), row.transitions.back());
        EXPECT_EQ(rig.can->filtersOn(kBus0), filtersOf.at(row.transitions.back()));
        EXPECT_EQ(rig.values(rig.properties->manufacturer), row.manufacturer);
        EXPECT_EQ(rig.values(rig.properties->manufacturerCode),
                  row.code < 0 ? std::vector<int>{} : std::vector<int>{row.code});
        const std::string detected = row.manufacturer.empty() ? "" : row.manufacturer.back();
        EXPECT_EQ(rig.detectedFileText(),
                  "{\n    \"detectedManufacturer\": \"" + detected + "\"\n}\n");
    }
}

TEST(ManufacturerDetector, WaitsForAddressClaimButWritesFileEveryFrame) {
    StateMachineRig rig;
    rig.start();
    rig.can->deliver(Bus::MACHINE_500K, 0xF004, kZeros);  // no address claimed
    rig.properties->manufacturer.set("flushed");
    rig.properties->manufacturer.swapBuffers();
    rig.log.clear();
    for (int frame = 0; frame < 2; ++frame) {
        boost::filesystem::remove(rig.detectedFile);
        rig.can->deliver(Bus::MACHINE_500K, 0xF004, kZeros, 213);
        EXPECT_EQ(rig.detectedFileText(), "{\n    \"detectedManufacturer\": \"\"\n}\n");
    }
    EXPECT_EQ(rig.current(), "ManufacturerDetector");
    EXPECT_TRUE(rig.log.lines().empty());
    // Written through a rename: nothing else is left in the folder it created.
    EXPECT_EQ(std::distance(boost::filesystem::directory_iterator(rig.dir / "telematics"),
                            boost::filesystem::directory_iterator()),
              1);
}

TEST(ManufacturerDetector, UserSelectionIsTextAndCountsOnlyUntilFlushed) {
    StateMachineRig rig("{\"manufacturer\": \"CaseIH\", \"model\": 7040}");
    rig.toManufacturerDetector();
    EXPECT_EQ(rig.values(rig.properties->userSelected_model), std::vector<std::string>{"7040"});
    rig.properties->userSelected_manufacturer.swapBuffers();
    rig.can->deliver(kBus0, 0xF004, kZeros);
    EXPECT_EQ(rig.current(), kGeneric);

    // Brackets in a text are no nesting, however many; an escaped quote ends no text. Nesting
    // itself is read up to 64 levels deep.
    const std::string text = "\"" + std::string(100, '[');
    StateMachineRig brackets("{\"model\": \"\\" + text + "\", \"x\": " + std::string(63, '[') +
                             std::string(63, ']') + "}");
    brackets.toManufacturerDetector();
    EXPECT_EQ(brackets.values(brackets.properties->userSelected_model),
              std::vector<std::string>{text});
}

TEST(ManufacturerDetector, BadUserFileIsLoggedForBothKeysAndIgnored) {
    const struct {
        std::string content;
        std::string details;  // after the path; empty: not compared
    } rows[] = {
        {"", ""},
        {"{\"manufacturer\": ", ""},
        {"[1, 2", ""},
        // Nesting that would exhaust the stack, in a file small enough to be read.
        {std::string(60000, '['), ": nested deeper than 64 levels"},
        {"{\"manufacturer\": \"CaseIH\", \"x\": \"" + std::string(65536, 'x') + "\"}",
         ": file larger than 65536 bytes"},
    };
    for (const auto& row : rows) {
        StateMachineRig rig(row.content);
        rig.toManufacturerDetector();
        const std::string line = "ERROR Error reading " + rig.userFile +
                                 "cannot find user selected manufacturer. Details: ";
        const auto lines = rig.log.lines();
        ASSERT_GE(lines.size(), 6u);
        for (int i : {4, 5}) {  // after the two transitions and the bus choice
            EXPECT_TRUE(logtest::startsWith(lines[i], line)) << row.content.substr(0, 20);
            if (!row.details.empty()) {
                EXPECT_EQ(lines[i], line + rig.userFile + row.details);
            }
        }
        EXPECT_TRUE(rig.properties->userSelected_manufacturer.unflushedSamples().empty());
        EXPECT_EQ(rig.current(), "ManufacturerDetector");
    }
}

TEST(ManufacturerDetector, UnwritableFileIsLoggedAfterTheTransition) {
    StateMachineRig rig;
    std::ofstream(rig.dir / "telematics") << "a file where the folder should be";
    rig.identify(213);
    EXPECT_EQ(rig.current(), kCaseModel);
    EXPECT_TRUE(logtest::startsWith(rig.log.lines().back(),
                                    "ERROR Error writing to detected machine file: "));
}

TEST(ManufacturerDetector, LinkedFileIsReplacedWhereItPointsKeepingItsMode) {
    StateMachineRig rig;
    const fs::path target = rig.dir / "data" / "detectedMachine.json";
    fs::create_directories(target.parent_path());
    std::ofstream(target.string()) << "old";
    fs::permissions(target, fs::owner_read | fs::owner_write | fs::group_read);
    fs::create_directories(fs::path(rig.detectedFile).parent_path());
    rig.start();
    rig.can->deliver(kBus0, 0xF004, kZeros);  // picks the bus; no address is ever claimed
    // A loop of links is an error, not a hang.
    fs::create_symlink("detectedMachine.json", rig.detectedFile);
    rig.can->deliver(kBus0, 0xF004, kZeros);
    EXPECT_TRUE(logtest::startsWith(rig.log.lines().back(),
                                    "ERROR Error writing to detected machine file: "));
    fs::remove(rig.detectedFile);
    fs::create_symlink("../data/detectedMachine.json", rig.detectedFile);
    rig.can->deliver(kBus0, 0xF004, kZeros);  // each frame writes the file
    const std::string written = "{\n    \"detectedManufacturer\": \"\"\n}\n";
    EXPECT_TRUE(fs::is_symlink(rig.detectedFile));
    EXPECT_EQ(rig.detectedFileText(), written);
    EXPECT_EQ(fs::status(target).permissions(), fs::owner_read | fs::owner_write | fs::group_read);

    // A target that could not be written in place is not replaced either.
    if (!setImmutable(target, true)) {
        GTEST_SKIP() << "no immutable files here";
    }
    rig.log.clear();
    rig.properties->manufacturer.set("CaseIH");
    rig.can->deliver(kBus0, 0xF004, kZeros);
    EXPECT_TRUE(setImmutable(target, false));
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>{"ERROR Error writing to detected machine file: " +
                                       rig.detectedFile + ": cannot open file"});
    EXPECT_EQ(rig.detectedFileText(), written);
}

}  // namespace
