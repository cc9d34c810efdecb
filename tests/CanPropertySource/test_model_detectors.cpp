#include <gtest/gtest.h>

#include <cstdio>

#include "CanPropertySource/state_machine_rig.h"

namespace {

std::vector<std::uint8_t> modelFrame(std::uint8_t number) {
    return {0, 0, 0, 0, 0, number, 0, 0};
}

TEST(CaseModelDetector, RequestsVinEverySecondUntilAnswered) {
    StateMachineRig rig;
    rig.identify(213);
    EXPECT_EQ(rig.can->periodicIntervalUs, 1000000);
    for (int second = 0; second < 3; ++second) {
        rig.can->tick();
    }
    EXPECT_EQ(rig.can->requests,
              (std::vector<std::pair<std::uint32_t, Bus>>(3, {0xFF7A, Bus::MACHINE_250K})));
    EXPECT_EQ(rig.log.count("Requesting VIN from Case machine"), 3);

    rig.can->deliver(Bus::MACHINE_250K, 0xFF7A, {});
    EXPECT_FALSE(rig.can->tick());
    EXPECT_EQ(rig.current(), "CaseCT56PropertyReader");
    EXPECT_EQ(rig.values(rig.properties->model), std::vector<std::string>{"CT-56"});
    EXPECT_EQ(rig.log.count("Detecting Case model from VIN"), 1);
    EXPECT_EQ(rig.can->filtersOn(Bus::MACHINE_250K), standardGroups({0xFFEC}));
}

TEST(CaseModelDetector, VinAnswerGivesCt56AlsoForNewHollandAndMiller) {
    for (const char* user : {"New Holland", "Miller"}) {
        StateMachineRig rig(std::string("{\"manufacturer\": \"") + user + "\"}");
        rig.toManufacturerDetector();
        rig.can->deliver(Bus::MACHINE_250K, 0xF004, {0, 0, 0, 0, 0, 0, 0, 0});
        ASSERT_EQ(rig.values(rig.properties->manufacturer), std::vector<std::string>{user});
        rig.can->deliver(Bus::MACHINE_250K, 0xFF7A, {1, 2, 3});
        EXPECT_EQ(rig.values(rig.properties->model), std::vector<std::string>{"CT-56"});
    }
}

struct ModelCase {
    std::uint8_t number;
    const char* model;
    const char* reader;
};
void PrintTo(const ModelCase& c, std::ostream* os) {
    *os << c.model;
}

class CaseModelTable : public testing::TestWithParam<ModelCase> {};

TEST_P(CaseModelTable, ModelNumberPicksReaderThenModel) {
    const ModelCase& c = GetParam();
    StateMachineRig rig;
    rig.identify(213);
    rig.can->deliver(Bus::MACHINE_250K, 0xFF12, modelFrame(c.number));

    char line[64];
    std::snprintf(line, sizeof line, "Detecting Case model number 0x%x from 0xff12 message",
                  c.number);
    EXPECT_EQ(rig.log.count(line), 1);
    EXPECT_EQ(rig.current(), c.reader);
    EXPECT_EQ(rig.values(rig.properties->model), std::vector<std::string>{c.model});
    EXPECT_FALSE(rig.can->tick());
}

constexpr const char* k3 = "CasePatriotClass3PropertyReader";
constexpr const char* k4 = "CasePatriotClass4PropertyReader";
constexpr const char* kBase = "EtCanPropertyReader";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Models, CaseModelTable, testing::Values(
    ModelCase{0x00, "Patriot 4430 T4", k4}, ModelCase{0x01, "Patriot 4430 T2 BSN YET040000", k4},
    ModelCase{0x02, "Patriot 2240 T4", kBase}, ModelCase{0x03, "Patriot 250 T0", kBase},
    ModelCase{0x04, "SP 2500 NH T0", kBase},
    ModelCase{0x05, "2230 T3 ROW @ T4A / 3230 T3 ROW @ T4A / 3330 T3 ROW @ T4A", k3},
    ModelCase{0x06, "Patriot 4430 T2 ASN YET040000", k4}, ModelCase{0x07, "Titan 4030 T4 Liquid", kBase},
    ModelCase{0x08, "Titan 3030 T4 Flex Air", kBase}, ModelCase{0x09, "Titan 4030 T4 Flex Air", kBase},
    ModelCase{0x0A, "Titan 3530 T4 Liquid", kBase}, ModelCase{0x0B, "Titan 4530 T4 Liquid", kBase},
    ModelCase{0x0C, "Titan 3530 T4 Flex Air", kBase}, ModelCase{0x0D, "Titan 4530 T4 Flex Air", kBase},
    ModelCase{0x14, "Patriot 2250 T4B", k3}, ModelCase{0x15, "Patriot 3240 T4B", k3},
    ModelCase{0x16, "Patriot 3340 T4B", k3}, ModelCase{0x17, "Patriot 4440 T4B", k4},
    ModelCase{0x18, "Trident 5550", "CaseTrident5550CanPropertyReader"},
    ModelCase{0x1B, "Patriot 350 T3 (LAR)", kBase}, ModelCase{0x1C, "Patriot 250 T3 (LAR)", kBase},
    ModelCase{0x1D, "SP 2500 NH T3, NH", kBase}, ModelCase{0x1F, "Titan 3040 T 4B Liquid", k4},
    ModelCase{0x20, "Titan 4040 T4B Liquid", k4}, ModelCase{0x21, "Titan 3040 T4B Flex Air", k4},
    ModelCase{0x22, "Titan 4040 T4B Flex Air", k4}, ModelCase{0x23, "Titan 3540 T4B Liquid", k4},
    ModelCase{0x24, "Titan 4540 T4B Liquid", k4}, ModelCase{0x25, "Titan 3540 T4B Flex Air", k4},
    ModelCase{0x26, "Titan 4540 T4B Flex Air", k4}, ModelCase{0x29, "Titan 3040 T4B Flex Air 850", kBase},
    ModelCase{0x2A, "Titan 4040 T4B Flex Air 850", kBase}, ModelCase{0x2B, "Titan 3545 T4B Flex Air 850", kBase},
    ModelCase{0x2C, "Titan 4545 T4B Flex Air 850", kBase}));
// clang-format on

TEST(CaseModelDetector, UnknownNumberWalksEveryReaderAndLeavesOnlyTheLast) {
    const std::vector<std::vector<std::uint8_t>> frames = {
        modelFrame(0x0E), modelFrame(0x13), modelFrame(0x19), modelFrame(0x1A),
        modelFrame(0x1E), modelFrame(0x27), modelFrame(0x28), modelFrame(0x2D),
        modelFrame(0xFF), {0, 0, 0, 0, 0} /* no byte 5 */};
    for (const auto& frame : frames) {
        StateMachineRig rig;
        rig.identify(213);
        rig.log.clear();
        rig.can->deliver(Bus::MACHINE_250K, 0xFF12, frame);
        EXPECT_EQ(rig.transitions(), std::vector<std::string>(9, "BaseCanPropertyReader"));
        EXPECT_EQ(rig.machine->currentStateIndex(), 12);
        EXPECT_TRUE(rig.properties->model.unflushedSamples().empty());
        // No filter of a passed reader is left behind, on any bus.
        EXPECT_EQ(rig.can->filtersOn(Bus::MACHINE_250K), standardGroups());
        EXPECT_TRUE(rig.can->filtersOn(Bus::PRODUCT_250K).empty());
        EXPECT_FALSE(rig.can->tick());
    }
}

struct AgcoCase {
    const char* text;
    const char* reader;  // nullptr: nothing happens
};
void PrintTo(const AgcoCase& c, std::ostream* os) {
    *os << '"' << c.text << '"';
}

class AgcoText : public testing::TestWithParam<AgcoCase> {};

TEST_P(AgcoText, IdentificationTextPicksReader) {
    const AgcoCase& c = GetParam();
    StateMachineRig rig;
    rig.identify(102);
    const std::string text = c.text;
    rig.can->deliver(Bus::MACHINE_250K, 0xFEEC,
                     std::vector<std::uint8_t>(text.begin(), text.end()));

    EXPECT_EQ(rig.log.count("Detecting Agco model from 0xfeec message"), 1);
    EXPECT_EQ(rig.log.count("0xfeec contains \"" + text + "\""), 1);
    EXPECT_EQ(rig.current(), c.reader ? c.reader : "AgcoModelDetector");
    EXPECT_EQ(rig.values(rig.properties->model),
              c.reader ? std::vector<std::string>{text} : std::vector<std::string>{});
    EXPECT_EQ(rig.can->tick(), c.reader == nullptr);  // asks again until it succeeds
    EXPECT_EQ(rig.log.count("Requesting VIN from Agco machine"), c.reader ? 0 : 1);
}

constexpr const char* k900 = "Agco900SeriesCanPropertyReader";
constexpr const char* kC = "AgcoCCanPropertyReader";
constexpr const char* kB = "AgcoBCanPropertyReader";
constexpr const char* kGen = "GenericCanPropertyReader";
using A = AgcoCase;

// clang-format off
INSTANTIATE_TEST_SUITE_P(Texts, AgcoText, testing::Values(
    A{"A*B9320*x*Q", k900}, A{"A*B9340*x*J*tail", k900}, A{"*X9370**Q", k900}, A{"A*X932H*x*C", k900},
    A{"A*X934H*x*Z", k900}, A{"A*X937H*x*R*", k900}, A{"A*X934H*x*", nullptr}, A{"A*X932h*x*J", kC},
    A{"A*B9321*x*K", kC}, A{"A*BX*x*L", kC}, A{"A*BX*x*M", kC}, A{"A*BX*x*N", kC}, A{"A*BX*x*P", kC},
    A{"A*BX*x*R", kC}, A{"A*BX*x*C", kB}, A{"A*BX*x*D", kB}, A{"A*BX*x*E", kB}, A{"A*BX*x*F", kB},
    A{"A*BX*x*G", kB}, A{"A*BX*x*H", kB}, A{"A*BX*x*I", kGen}, A{"A*BX*x*O", kGen},
    A{"A*BX*x*Q", kGen}, A{"A*BX*x*B", kGen}, A{"A*BX*x*S", kGen}, A{"A*BX*x*j", kGen},
    A{"A*BX*x*5", kGen}, A{"A*BX*x*\x80", kGen}, A{"**A**B*C*D", nullptr}, A{"A*B*x*J", nullptr},
    A{"A**x*J", nullptr}, A{"A*B9320*x**J", nullptr}, A{"A*B9320*x", nullptr}, A{"", nullptr}));
// clang-format on

}  // namespace
