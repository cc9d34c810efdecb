#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "CanPropertySource/canpropertyreaders.h"
#include "CanPropertySource/canpropertysourcestatemachine.h"
#include "CanPropertySource/machinebusdetector.h"
#include "TelematicsCollector/properties.h"
#include "caninterface/caninterface.h"
#include "support/log_capture.h"

namespace {

namespace fs = boost::filesystem;
using Groups = std::set<std::uint32_t>;
using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;
using Requests = std::vector<std::pair<std::uint32_t, Bus>>;
constexpr Bus kBus0 = Bus::MACHINE_250K, kBus1 = Bus::MACHINE_500K, kProduct = Bus::PRODUCT_250K;
const Bytes kZeros(8, 0);
const char *const kCaseModel = "CaseModelDetector", *const kAgcoModel = "AgcoModelDetector",
                  *const kGeneric = "GenericCanPropertyReader";
const std::string kWriteError = "ERROR Error writing to detected machine file: ";

// A received group as the service hands it over; a code below 0 is a sender without NAME.
struct FakePgnMessage : PgnMessage {
    FakePgnMessage(std::uint32_t group, Bytes bytes, int code) : code(code) {
        pgn = group;
        data = std::move(bytes);
    }
    int manufacturerCode() const override { return code; }
    bool hasSource() const override { return code >= 0; }
    int code;
};

// In-memory CAN service. Touching a filter with no bus chosen is undefined in the real service, so
// it counts as a misuse here.
struct FakeCanInterface : CanInterface {
    bool sendPgnRequest(std::uint32_t pgn, Bus bus) override {
        requests.emplace_back(pgn, bus);
        return true;
    }
    void sendPgnRequest(std::uint32_t pgn) override { sendPgnRequest(pgn, chosen); }
    bool addPgnFilter(std::uint32_t pgn, PgnCallback callback, Bus bus) override {
        misuses += bus == Bus::NONE;
        return filters.emplace(std::make_pair(bus, pgn), std::move(callback)).second;
    }
    bool addPgnFilter(std::uint32_t pgn, PgnCallback callback) override {
        return addPgnFilter(pgn, std::move(callback), chosen);
    }
    bool removePgnFilter(std::uint32_t pgn, Bus bus) override {
        misuses += bus == Bus::NONE;
        return filters.erase(std::make_pair(bus, pgn)) != 0;
    }
    bool removePgnFilter(std::uint32_t pgn) override { return removePgnFilter(pgn, chosen); }
    bool setPeriodicCallback(PeriodicCallback callback, std::int64_t intervalUs) override {
        periodic = std::move(callback);
        periodicIntervalUs = intervalUs;
        return true;
    }
    bool clearPeriodicCallback() override { return setPeriodicCallback(nullptr, 0); }
    bool isAddressClaimed(Bus bus) override { return claimed.count(bus) != 0; }
    bool isAddressClaimed() override { return isAddressClaimed(chosen); }
    bool hasManufacturerOnBus(const std::set<int>& codes) override {
        return std::any_of(channelOneCodes.begin(), channelOneCodes.end(),
                           [&](int code) { return codes.count(code) != 0; });
    }
    void setDefaultBus(Bus bus) override { chosen = bus; }
    Bus defaultBus() override { return chosen; }

    // Hands a frame to its filter; false when no filter takes it.
    bool deliver(Bus bus, std::uint32_t pgn, Bytes data, int code = -1) {
        auto it = filters.find(std::make_pair(bus, pgn));
        if (it == filters.end()) {
            return false;
        }
        PgnCallback callback = it->second;  // the callback may remove its own filter
        callback(FakePgnMessage(pgn, std::move(data), code));
        return true;
    }
    // One expiry of the periodic timer; false when none is installed.
    bool tick() {
        PeriodicCallback callback = periodic;
        return callback && (callback(), true);
    }
    Groups filtersOn(Bus bus) const {
        Groups result;
        for (const auto& entry : filters) {
            if (entry.first.first == bus) {
                result.insert(entry.first.second);
            }
        }
        return result;
    }

    std::map<std::pair<Bus, std::uint32_t>, PgnCallback> filters;
    Requests requests;
    PeriodicCallback periodic;
    std::int64_t periodicIntervalUs = 0;
    std::set<Bus> claimed;
    std::vector<int> channelOneCodes;  // manufacturer codes of the nodes on channel 1
    Bus chosen = Bus::NONE;
    int misuses = 0;
};

template <typename T>
std::vector<T> values(const Property<T>& property) {
    std::vector<T> result;
    for (const auto& sample : property.unflushedSamples()) {
        result.push_back(sample.value);
    }
    return result;
}

// A state machine on the fake service, with both machine files in a private folder.
struct Rig {
    explicit Rig(const std::string& userJson = "{}") {
        fs::create_directories(dir);
        std::ofstream(userFile) << userJson;
    }
    ~Rig() {
        if (machine) {
            machine->onStop();  // as the service does when its thread ends
        }
        EXPECT_EQ(can->misuses, 0) << "a filter was touched while no bus was chosen";
        boost::system::error_code ignored;
        fs::remove_all(dir, ignored);
    }

    // Up to the manufacturer detector on the given bus, with the address claimed.
    void toManufacturerDetector(Bus bus = kBus0) {
        machine->onStart(can);
        can->claimed.insert(bus);
        can->deliver(bus, 0xF004, kZeros);
    }
    // Identified through a compliant engine frame with this manufacturer code.
    void identify(int code, Bus bus = kBus0) {
        toManufacturerDetector(bus);
        can->deliver(bus, 0xF004, kZeros, code);
        log.clear();
    }
    std::string current() const {
        const auto& state = *machine->states().at(std::size_t(machine->currentStateIndex()));
        return demangledTypeName(typeid(state).name());  // typeid of a call is a warning
    }
    std::string detectedFileText() const {
        std::stringstream text;
        text << std::ifstream(detectedFile).rdbuf();
        return text.str();
    }

    logtest::LogCapture log{"tilthwatch.canpropertysourcestatemachine"};
    fs::path dir = fs::temp_directory_path() / fs::unique_path("ident-%%%%-%%%%-%%%%");
    std::string userFile = (dir / "machine.json").string();
    std::string detectedFile = (dir / "telematics" / "detectedMachine.json").string();
    std::shared_ptr<Properties> properties = std::make_shared<Properties>();
    std::shared_ptr<FakeCanInterface> can = std::make_shared<FakeCanInterface>();
    std::shared_ptr<CanPropertySourceStateMachine> machine =
        std::make_shared<CanPropertySourceStateMachine>(properties, userFile, detectedFile);
};

std::string transition(const std::string& state) {
    return "INFO State machine transitioning to " + state;
}

std::string detectedJson(const std::string& manufacturer) {
    return "{\n    \"detectedManufacturer\": \"" + manufacturer + "\"\n}\n";
}

// The standard groups every reader keeps on the default bus.
Groups standardGroups(Groups extra = {}) {
    extra.insert({0xF004, 0xF003, 0xFEF2, 0xFEEE, 0xFEEF, 0xFEF8, 0xFE56, 0xFEE5, 0xFEFC});
    return extra;
}

TEST(StateMachine, SwitchesOnlyToListedStatesAndStopsCleanly) {
    Rig rig;
    rig.machine->onStop();  // before the start: touches nothing
    EXPECT_EQ(rig.machine->currentStateIndex(), -1);
    rig.machine->onStart(rig.can);
    rig.machine->switchState<MachineBusDetector>();  // the current one restarts
    EXPECT_EQ(rig.log.lines(),
              (Texts{"INFO Starting state machine", transition("MachineBusDetector"),
                     transition("MachineBusDetector")}));
    EXPECT_EQ(rig.can->filters.size(), 4u);
    rig.machine->onStop();
    EXPECT_TRUE(rig.can->filters.empty());
    rig.identify(213);  // started again, it finds all its states and begins anew
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
        Bus bus, other;
        std::uint32_t pgn;
        const char* name;
    } rows[] = {{kBus0, kBus1, 0xF004, "MACHINE_250K"},
                {kBus1, kBus0, 0xFEF2, "MACHINE_500K"},
                {kBus1, kBus0, 0xF004, "MACHINE_500K"}};
    for (const auto& row : rows) {
        Rig rig;
        rig.machine->onStart(rig.can);
        EXPECT_EQ(rig.can->filtersOn(kBus0), engine);
        EXPECT_EQ(rig.can->filtersOn(kBus1), engine);
        EXPECT_EQ(rig.can->filters.size(), 4u);  // nothing on the product bus
        EXPECT_EQ(rig.can->defaultBus(), Bus::NONE);
        EXPECT_TRUE(rig.can->deliver(row.bus, row.pgn, kZeros));
        EXPECT_EQ(rig.can->defaultBus(), row.bus);
        EXPECT_EQ(rig.current(), "ManufacturerDetector");
        EXPECT_EQ(rig.log.lines().at(2),
                  std::string("INFO Setting default CAN bus to: ") + row.name);
        // Later frames on the other bus reach nothing.
        EXPECT_EQ(rig.can->filtersOn(row.other), Groups{});
        EXPECT_EQ(rig.can->filtersOn(row.bus), engine);
    }
}

TEST(ManufacturerDetector, SenderChoosesNextStateAndIsRecorded) {
    const std::vector<int> caseOnOne = {33, 213};
    const struct {
        int code;  // -1: a sender without NAME
        std::string user;
        std::vector<int> channelOne;
        Texts transitions;
        Texts manufacturer;
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
        Rig rig("{\"manufacturer\": \"" + row.user + "\"}");
        rig.can->channelOneCodes = row.channelOne;
        rig.toManufacturerDetector();
        rig.log.clear();
        // Both engine groups reach the detector.
        const bool compliant = row.code >= 0;
        rig.can->deliver(kBus0, compliant ? 0xFEF2 : 0xF004, kZeros, row.code);

        Texts expected = {"INFO Address Claiming and Registration has finished",
                          "INFO Received pgn message 0x" +
                              std::string(compliant ? "fef2" : "f004") +
                              " from ECU with manufacturer code " + std::to_string(row.code),
                          compliant ? "INFO Message came from ISO complient ECU"
                                    : "INFO Message is from noncompliant ECU"};
        if (!compliant) {
            expected.push_back("INFO The user-selected manufacturer is \"" + row.user + "\"");
        }
        if (!compliant && row.channelOne == caseOnOne) {
            expected.push_back(
                "INFO Assuming that we are on a Case machine as there is a node "
                "manufactured by Case on the bus");
        }
        for (const auto& state : row.transitions) {
            expected.push_back(transition(state));
        }
        EXPECT_EQ(rig.log.lines(), expected);
        EXPECT_EQ(rig.can->filtersOn(kBus0), filtersOf.at(row.transitions.back()));
        EXPECT_EQ(values(rig.properties->manufacturer), row.manufacturer);
        EXPECT_EQ(values(rig.properties->manufacturerCode),
                  compliant ? std::vector<int>{row.code} : std::vector<int>{});
        EXPECT_EQ(rig.detectedFileText(),
                  detectedJson(row.manufacturer.empty() ? "" : row.manufacturer.back()));
    }
}

// The user's file is read once per key, both as text, bounded in size and nesting; a bad one is
// logged for both keys and ignored. A selection counts only until it is flushed. A detected file
// that cannot be written is logged after the transition.
TEST(ManufacturerDetector, UserFileIsReadBoundedAndBadOnesAreLoggedForBothKeys) {
    // Brackets in a text are no nesting, however many; an escaped quote ends no text. Nesting
    // itself is read up to 64 levels deep.
    const std::string text = "\"" + std::string(100, '[');
    const struct {
        std::string content;
        const char* details;  // after the path; nullptr: no error, "": not compared
        Texts model;
    } rows[] = {
        // clang-format off
        {"{\"manufacturer\": \"CaseIH\", \"model\": 7040}", nullptr, {"7040"}},
        {"{\"model\": \"\\" + text + "\", \"x\": " + std::string(63, '[') + std::string(63, ']') + "}",
         nullptr, {text}},
        {"", "", {}}, {"{\"manufacturer\": ", "", {}}, {"[1, 2", "", {}},
        // Nesting that would exhaust the stack, in a file small enough to be read.
        {std::string(60000, '['), ": nested deeper than 64 levels", {}},
        {"{\"manufacturer\": \"CaseIH\", \"x\": \"" + std::string(65536, 'x') + "\"}",
         ": file larger than 65536 bytes", {}},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.content.substr(0, 20));
        Rig rig(row.content);
        std::ofstream(rig.dir / "telematics") << "a file where the folder should be";
        rig.toManufacturerDetector();
        EXPECT_EQ(values(rig.properties->userSelected_model), row.model);
        const Texts lines = rig.log.lines();
        ASSERT_EQ(lines.size(), row.details ? 6u : 4u);
        const std::string line = "ERROR Error reading " + rig.userFile +
                                 "cannot find user selected manufacturer. Details: ";
        for (std::size_t i = 4; i < lines.size(); ++i) {  // after the transitions and bus choice
            EXPECT_EQ(*row.details ? lines[i] : lines[i].substr(0, line.size()),
                      line + (*row.details ? rig.userFile + row.details : ""));
        }
        rig.properties->userSelected_manufacturer.swapBuffers();
        rig.log.clear();
        rig.can->deliver(kBus0, 0xF004, kZeros);
        EXPECT_EQ(rig.current(), kGeneric);
        ASSERT_EQ(rig.log.lines().size(), 6u);
        EXPECT_EQ(rig.log.lines()[4], transition(kGeneric));
        EXPECT_TRUE(logtest::startsWith(rig.log.lines()[5], kWriteError)) << rig.log.lines()[5];
    }
}

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

// Until the address is claimed no sender counts, but every frame rewrites the file: through a link,
// by a rename next to the target, keeping the target's mode.
TEST(ManufacturerDetector, WaitsForAddressClaimButWritesFileEveryFrame) {
    Rig rig;
    const fs::path target = rig.dir / "data" / "detectedMachine.json";
    fs::create_directories(target.parent_path());
    std::ofstream(target.string()) << "old";
    fs::permissions(target, fs::owner_read | fs::owner_write | fs::group_read);
    fs::create_directories(fs::path(rig.detectedFile).parent_path());
    rig.machine->onStart(rig.can);
    rig.can->deliver(kBus1, 0xF004, kZeros);  // picks the bus; no address is ever claimed
    rig.properties->manufacturer.set("flushed");
    rig.properties->manufacturer.swapBuffers();
    rig.log.clear();
    // A loop of links is an error, not a hang.
    fs::create_symlink("detectedMachine.json", rig.detectedFile);
    rig.can->deliver(kBus1, 0xF004, kZeros, 213);
    ASSERT_EQ(rig.log.lines().size(), 1u);
    EXPECT_TRUE(logtest::startsWith(rig.log.lines()[0], kWriteError + "cannot resolve"));
    fs::remove(rig.detectedFile);
    fs::create_symlink("../data/detectedMachine.json", rig.detectedFile);
    rig.log.clear();
    rig.can->deliver(kBus1, 0xF004, kZeros, 213);
    EXPECT_TRUE(rig.log.lines().empty());
    EXPECT_EQ(rig.current(), "ManufacturerDetector");
    EXPECT_TRUE(fs::is_symlink(rig.detectedFile));
    EXPECT_EQ(rig.detectedFileText(), detectedJson(""));
    EXPECT_EQ(fs::status(target).permissions(), fs::owner_read | fs::owner_write | fs::group_read);
    EXPECT_EQ(std::distance(fs::directory_iterator(target.parent_path()), fs::directory_iterator()),
              1);

    // A target that could not be written in place is not replaced either.
    if (!setImmutable(target, true)) {
        GTEST_SKIP() << "no immutable files here";
    }
    rig.properties->manufacturer.set("CaseIH");
    rig.can->deliver(kBus1, 0xF004, kZeros);
    EXPECT_TRUE(setImmutable(target, false));
    EXPECT_EQ(rig.log.lines(), Texts{kWriteError + rig.detectedFile + ": cannot open file"});
    EXPECT_EQ(rig.detectedFileText(), detectedJson(""));
}

// Both model detectors ask once a second on the default bus, at INFO, until an answer ends them.
// Any VIN answer gives CT-56, also for New Holland and Miller; a model number picks its reader, and
// one not in the table the base reader, passing every reader on the way.
TEST(CaseModelDetector, VinOrModelNumberPicksReaderThenModel) {
    const char *kCt56 = "CaseCT56PropertyReader", *k3 = "CasePatriotClass3PropertyReader",
               *k4 = "CasePatriotClass4PropertyReader", *kEt = "EtCanPropertyReader",
               *kTrident = "CaseTrident5550CanPropertyReader";
    const struct {
        const char* user;
        std::uint32_t pgn;
        int number;  // -1: the frame ends before the number
        const char* reader;
        const char* model;  // nullptr: not in the table
    } rows[] = {
        // clang-format off
        {"", 0xFF7A, 0x18, kCt56, "CT-56"}, {"New Holland", 0xFF7A, -1, kCt56, "CT-56"},
        {"Miller", 0xFF7A, 0x00, kCt56, "CT-56"},
        {"", 0xFF12, 0x00, k4, "Patriot 4430 T4"}, {"", 0xFF12, 0x02, kEt, "Patriot 2240 T4"},
        {"", 0xFF12, 0x05, k3, "2230 T3 ROW @ T4A / 3230 T3 ROW @ T4A / 3330 T3 ROW @ T4A"},
        {"", 0xFF12, 0x18, kTrident, "Trident 5550"},
        {"", 0xFF12, 0x2C, kEt, "Titan 4545 T4B Flex Air 850"},
        {"", 0xFF12, 0x0E, kEt, nullptr}, {"", 0xFF12, 0x2D, kEt, nullptr},
        {"", 0xFF12, -1, kEt, nullptr},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.user) + " " + std::to_string(row.number));
        Rig rig(std::string("{\"manufacturer\": \"") + row.user + "\"}");
        rig.identify(*row.user ? -1 : 213, kBus1);
        EXPECT_EQ(rig.can->periodicIntervalUs, 1000000);
        EXPECT_TRUE(rig.can->tick());
        EXPECT_EQ(rig.can->requests, (Requests{{0xFF7A, kBus1}}));
        const Bytes frame =
            row.number < 0 ? Bytes(5, 0) : Bytes{0, 0, 0, 0, 0, std::uint8_t(row.number), 0, 0};
        rig.can->deliver(kBus1, row.pgn, frame);  // only the arrival of a VIN counts

        std::ostringstream line;  // a number cut off reads as 0xff
        line << "INFO Detecting Case model number 0x" << std::hex << (row.number & 0xFF)
             << " from 0xff12 message";
        Texts expected = {"INFO Requesting VIN from Case machine",
                          row.pgn == 0xFF7A ? "INFO Detecting Case model from VIN" : line.str()};
        const bool base = row.reader == kEt;  // passes every reader on the way
        expected.insert(expected.end(), base ? 9 : 1,
                        transition(base ? "BaseCanPropertyReader" : row.reader));
        EXPECT_EQ(rig.log.lines(), expected);
        EXPECT_EQ(rig.current(), row.reader);
        EXPECT_EQ(values(rig.properties->model), row.model ? Texts{row.model} : Texts{});
        // No filter of a passed state is left behind, on any bus, nor its timer.
        EXPECT_EQ(
            rig.can->filtersOn(kBus1),
            standardGroups(base ? Groups{} : Groups{row.reader == kCt56 ? 0xFFECu : 0xFF12u}));
        EXPECT_TRUE(rig.can->filtersOn(kProduct).empty());
        EXPECT_FALSE(rig.can->tick());
        rig.machine->onStop();
        EXPECT_TRUE(rig.can->filters.empty());
    }
}

TEST(AgcoModelDetector, IdentificationTextPicksReader) {
    const char *k900 = "Agco900SeriesCanPropertyReader", *kC = "AgcoCCanPropertyReader",
               *kB = "AgcoBCanPropertyReader", *kGen = "GenericCanPropertyReader";
    const struct {
        const char* text;
        const char* reader;  // nullptr: nothing happens
    } rows[] = {
        // clang-format off
        {"A*B9320*x*Q", k900}, {"A*B9340*x*J*tail", k900}, {"*X9370**Q", k900},
        {"A*X932H*x*C", k900}, {"A*X934H*x*Z", k900}, {"A*X937H*x*R*", k900},
        {"A*X934H*x*", nullptr}, {"A*X932h*x*J", kC}, {"A*B9321*x*K", kC}, {"A*BX*x*L", kC},
        {"A*BX*x*M", kC}, {"A*BX*x*N", kC}, {"A*BX*x*P", kC}, {"A*BX*x*R", kC},
        {"A*BX*x*C", kB}, {"A*BX*x*D", kB}, {"A*BX*x*E", kB}, {"A*BX*x*F", kB},
        {"A*BX*x*G", kB}, {"A*BX*x*H", kB}, {"A*BX*x*I", kGen}, {"A*BX*x*O", kGen},
        {"A*BX*x*Q", kGen}, {"A*BX*x*B", kGen}, {"A*BX*x*S", kGen}, {"A*BX*x*j", kGen},
        {"A*BX*x*5", kGen}, {"A*BX*x*\x80", kGen}, {"**A**B*C*D", nullptr},
        {"A*B*x*J", nullptr}, {"A**x*J", nullptr}, {"A*B9320*x**J", nullptr},
        {"A*B9320*x", nullptr}, {"", nullptr},
        // clang-format on
    };
    for (const auto& row : rows) {
        const std::string text = row.text;
        SCOPED_TRACE(text);
        Rig rig;
        rig.identify(102, kBus1);
        EXPECT_EQ(rig.can->periodicIntervalUs, 1000000);
        EXPECT_TRUE(rig.can->tick());
        EXPECT_EQ(rig.can->requests, (Requests{{0xFEEC, kBus1}}));
        rig.can->deliver(kBus1, 0xFEEC, Bytes(text.begin(), text.end()));

        Texts expected = {"INFO Requesting VIN from Agco machine",
                          "INFO Detecting Agco model from 0xfeec message",
                          "INFO 0xfeec contains \"" + text + "\""};
        if (row.reader) {
            expected.push_back(transition(row.reader));
        }
        EXPECT_EQ(rig.log.lines(), expected);
        EXPECT_EQ(rig.current(), row.reader ? row.reader : kAgcoModel);
        EXPECT_EQ(values(rig.properties->model), row.reader ? Texts{text} : Texts{});
        EXPECT_EQ(rig.can->tick(), row.reader == nullptr);  // asks again until it succeeds
        EXPECT_EQ(rig.can->filtersOn(kBus1), row.reader ? standardGroups() : Groups{0xFEEC});
        EXPECT_EQ(rig.can->filtersOn(kProduct), (row.reader == k900 ? Groups{0xFEFC, 0xFE56}
                                                 : row.reader == kC ? Groups{0xFEFC}
                                                                    : Groups{}));
        rig.machine->onStop();
        EXPECT_TRUE(rig.can->filters.empty());
    }
}

using Enter = void (*)(CanPropertySourceStateMachine&);
template <typename Reader>
void enter(CanPropertySourceStateMachine& machine) {
    machine.switchState<Reader>();
}
const Enter kGenericReader = &enter<GenericCanPropertyReader>,
            kClass3 = &enter<CasePatriotClass3PropertyReader>,
            kClass4 = &enter<CasePatriotClass4PropertyReader>,
            kTrident = &enter<CaseTrident5550CanPropertyReader>,
            kCt56 = &enter<CaseCT56PropertyReader>, kAgcoB = &enter<AgcoBCanPropertyReader>,
            kAgcoC = &enter<AgcoCCanPropertyReader>,
            kAgco900 = &enter<Agco900SeriesCanPropertyReader>;

// Every flag silences its own signal, not the filter: with all set, no frame gives a sample.
TEST(Readers, SuppressedSignalsStaySilent) {
    struct Silent : BaseCanPropertyReader {
        Silent() {
            for (bool* flag : {&suppressRpm, &suppressPercentLoadAtCurrentSpeed,
                               &suppressPercentLoadOfTotalTorque, &suppressFuelConsumptionRate,
                               &suppressCoolantTemperature, &suppressEngineOilPressure,
                               &suppressEngineOilTemperature, &suppressTransmissionOilTemperature,
                               &suppressDefLevel, &suppressHours, &suppressFuelLevel}) {
                *flag = true;
            }
        }
        void onManufacturerStart(std::shared_ptr<CanPropertySourceStateMachine>,
                                 std::shared_ptr<CanInterface>) override {}
        void onManufacturerStop() override {}
    } reader;
    Rig rig;
    rig.can->setDefaultBus(kBus1);
    reader.onStart(rig.machine, rig.can);
    for (std::uint32_t pgn : standardGroups()) {
        EXPECT_TRUE(rig.can->deliver(kBus1, pgn, kZeros));
    }
    for (PropertyBase* base : rig.properties->engineProperties) {
        EXPECT_TRUE(values(dynamic_cast<Property<double>&>(*base)).empty()) << base->name;
    }
    reader.onStop();
}

// The reader runs on the second machine bus, as the bus detector may leave it.
TEST(Readers, FrameGivesExactlyTheListedSamples) {
    constexpr std::uint8_t X = 0xFF;  // not available
    const Bus M = kBus1, R = kProduct;
    const Enter G = kGenericReader;
    const struct {
        Enter reader;
        Bus bus;
        std::uint32_t pgn;
        Bytes data;
        std::map<std::string, double> samples;  // every other engine property stays empty
    } rows[] = {
        // clang-format off
        {G, M, 0xF003, {X, X, 50, X}, {{"percentLoadAtCurrentSpeed", 50.0}}},
        {G, M, 0xF004, {X, X, X, X, 0x10, X}, {{"rpm", 543.875}}},  // low byte 0xFF
        {G, M, 0xF004, {X, X, 125, X, X, X}, {{"percentLoadOfTotalTorque", 0.0}}},
        {G, M, 0xF004, {X, X, 0}, {{"percentLoadOfTotalTorque", 4294967171.0}}},  // wraps
        {G, M, 0xF004, {X, X, 125, 0}, {{"percentLoadOfTotalTorque", 0.0}}},  // rpm cut off
        {G, M, 0xFEF2, {0xE0, 1, X, X}, {{"fuelConsumptionRate", 24.0}}},
        {G, M, 0xFEEE, {0xFE, X, X, X}, {{"coolantTemperature", 214.0}}},
        {G, M, 0xFEEE, {39, X, X, X}, {{"coolantTemperature", 4294967295.0}}},
        {G, M, 0xFEEE, {X, X, 0x21, 0x26}, {{"engineOilTemperature", 32.03125}}},
        {G, M, 0xFEEE, {X, X, 0x01, 0}, {{"engineOilTemperature", -272.96875}}},
        {G, M, 0xFEEF, {X, X, X, 250}, {{"engineOilPressure", 1000.0}}},
        {G, M, 0xFEF8, {X, X, X, X, 0x21, 0x26}, {{"transmissionOilTemperature", 32.03125}}},
        {G, M, 0xFE56, {200}, {{"defLevel", 80.0}}}, {G, M, 0xFEE5, {X, X, X, 0}, {}},
        {G, M, 0xFEE5, {4, 0, 1, 0x55}, {{"hours", 3277.0}}},  // top byte not read
        {G, M, 0xFEE5, {0x10}, {}},  // a field cut off by a short frame
        {G, M, 0xFEFC, {X, 100}, {{"fuelLevel", 40.0}}}, {G, M, 0xFEFC, {0, X}, {}},
        {kClass3, M, 0xFF12, {0, 0, 0x34, 0x12, X, 0}, {{"hours", 4660.0}}},
        {kClass3, M, 0xFF12, {0, 0, X, X, 146, 0}, {{"fuelLevel", 100.0}}},
        {kClass4, M, 0xFF12, {0, 0, 0x34, 0x12, X, 0}, {{"hours", 4660.0}}},
        {kClass4, M, 0xFF12, {0, 0, X, X, 121, 0}, {{"fuelLevel", 99.99999988}}},
        {kTrident, M, 0xFF12, {0, 0, 0x34, 0x12, X, 0}, {{"hours", 4660.0}}},
        {kTrident, M, 0xFF12, {0, 0, X, X, 150, 0}, {{"fuelLevel", 100.0}}},
        {kTrident, M, 0xFF12, {0, 0, X, X, 75, 0}, {{"fuelLevel", 50.0}}},
        {kClass3, M, 0xFEE5, {1, 0, 0, 0}, {}}, {kClass4, M, 0xFEE5, {1, 0, 0, 0}, {}},
        {kTrident, M, 0xFEE5, {1, 0, 0, 0}, {}}, {kClass3, M, 0xFEFC, {0, 1}, {}},
        {kCt56, M, 0xFFEC, {0, 0xE8, 0x03}, {{"fuelLevel", 100.0}}}, {kCt56, M, 0xFEFC, {0, 1}, {}},
        {kAgcoC, M, 0xFEFC, {0, 100}, {}}, {kAgcoC, R, 0xFEFC, {0, 100}, {{"fuelLevel", 40.0}}},
        {kAgcoC, R, 0xFEFC, {0, X}, {}}, {kAgcoC, M, 0xFE56, {5}, {{"defLevel", 2.0}}},
        {kAgco900, M, 0xFE56, {5}, {}}, {kAgco900, R, 0xFE56, {5}, {{"defLevel", 2.0}}},
        {kAgco900, M, 0xFEFC, {0, 100}, {}}, {kAgco900, R, 0xFEFC, {0, 100}, {{"fuelLevel", 40.0}}},
        {kAgcoB, R, 0xFEFC, {0, 100}, {}}, {kAgcoB, M, 0xFEFC, {0, 100}, {{"fuelLevel", 40.0}}},
        // clang-format on
    };
    for (const auto& row : rows) {
        Rig rig;
        rig.machine->onStart(rig.can);
        rig.can->setDefaultBus(kBus1);
        row.reader(*rig.machine);
        SCOPED_TRACE(testing::Message()
                     << rig.current() << " " << busName(row.bus) << " 0x" << std::hex << row.pgn);
        rig.can->deliver(row.bus, row.pgn, row.data);
        for (PropertyBase* base : rig.properties->engineProperties) {
            const auto sample = row.samples.find(base->name);
            EXPECT_EQ(values(dynamic_cast<Property<double>&>(*base)),
                      sample == row.samples.end() ? std::vector<double>{}
                                                  : std::vector<double>{sample->second})
                << base->name;
        }
    }
}

}  // namespace
