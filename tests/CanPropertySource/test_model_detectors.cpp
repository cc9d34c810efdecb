#include <gtest/gtest.h>

#include "CanPropertySource/state_machine_rig.h"

namespace {

using Texts = std::vector<std::string>;
using Requests = std::vector<std::pair<std::uint32_t, Bus>>;

// Both detectors ask once a second on the default bus, at INFO, until an answer ends them.
TEST(ModelDetectors, RequestEverySecondOnTheDefaultBus) {
    const struct {
        int code;
        std::uint32_t pgn;
        const char* line;
    } rows[] = {{213, 0xFF7A, "INFO Requesting VIN from Case machine"},
                {102, 0xFEEC, "INFO Requesting VIN from Agco machine"}};
    for (const auto& row : rows) {
        StateMachineRig rig;
        rig.start();
        rig.can->claimed.insert(Bus::MACHINE_500K);
        rig.can->deliver(Bus::MACHINE_500K, 0xF004, kZeros);
        rig.can->deliver(Bus::MACHINE_500K, 0xF004, kZeros, row.code);
        rig.log.clear();
        EXPECT_EQ(rig.can->periodicIntervalUs, 1000000) << row.code;
        rig.can->tick();
        rig.can->tick();
        EXPECT_EQ(rig.can->requests, Requests(2, {row.pgn, Bus::MACHINE_500K})) << row.code;
        EXPECT_EQ(rig.log.lines(), Texts(2, row.line));
    }
}

// The New Holland and Miller model is never chosen: CT-56 stands for all.
TEST(CaseModelDetector, AnyVinAnswerGivesCt56) {
    for (const char* user : {"", "New Holland", "Miller"}) {
        StateMachineRig rig(std::string("{\"manufacturer\": \"") + user + "\"}");
        rig.toManufacturerDetector();
        rig.can->deliver(kBus0, 0xF004, kZeros, *user ? -1 : 213);
        rig.log.clear();
        rig.can->deliver(kBus0, 0xFF7A, {1, 2, 3});
        EXPECT_FALSE(rig.can->tick());
        EXPECT_EQ(rig.current(), "CaseCT56PropertyReader");
        EXPECT_EQ(rig.values(rig.properties->model), Texts{"CT-56"}) << user;
        EXPECT_EQ(rig.log.lines().at(0), "INFO Detecting Case model from VIN");
        EXPECT_EQ(rig.can->filtersOn(kBus0), standardGroups({0xFFEC}));
    }
}

TEST(CaseModelDetector, ModelNumberPicksReaderThenModel) {
    const char *k3 = "CasePatriotClass3PropertyReader", *k4 = "CasePatriotClass4PropertyReader",
               *kEt = "EtCanPropertyReader";  // every reader passed on the way to the base
    const struct {
        int number;         // -1: the frame ends before the number
        const char* model;  // nullptr: not in the table
        const char* reader;
    } rows[] = {
        {0x00, "Patriot 4430 T4", k4},
        {0x02, "Patriot 2240 T4", kEt},
        {0x05, "2230 T3 ROW @ T4A / 3230 T3 ROW @ T4A / 3330 T3 ROW @ T4A", k3},
        {0x18, "Trident 5550", "CaseTrident5550CanPropertyReader"},
        {0x2C, "Titan 4545 T4B Flex Air 850", kEt},
        {0x0E, nullptr, kEt},
        {0x2D, nullptr, kEt},
        {-1, nullptr, kEt},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.number);
        StateMachineRig rig;
        rig.identify(213);
        rig.log.clear();
        Bytes frame = {0, 0, 0, 0, 0};
        if (row.number >= 0) {
            frame.insert(frame.end(), {std::uint8_t(row.number), 0, 0});
        }
        rig.can->deliver(kBus0, 0xFF12, frame);

        std::ostringstream line;
        line << "INFO Detecting Case model number 0x" << std::hex << (row.number & 0xFF)
             << " from 0xff12 message";
        EXPECT_EQ(rig.log.lines().at(0), line.str());
        const bool base = row.reader == kEt;
        EXPECT_EQ(rig.transitions(), base ? Texts(9, "BaseCanPropertyReader") : Texts{row.reader});
        EXPECT_EQ(rig.current(), row.reader);
        EXPECT_EQ(rig.values(rig.properties->model), row.model ? Texts{row.model} : Texts{});
        // No filter of a passed reader is left behind, on any bus.
        EXPECT_EQ(rig.can->filtersOn(kBus0), base ? standardGroups() : standardGroups({0xFF12}));
        EXPECT_TRUE(rig.can->filtersOn(Bus::PRODUCT_250K).empty());
        EXPECT_FALSE(rig.can->tick());
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
        StateMachineRig rig;
        rig.identify(102);
        rig.log.clear();
        rig.can->deliver(kBus0, 0xFEEC, Bytes(text.begin(), text.end()));

        const Texts lines = rig.log.lines();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(Texts(lines.begin(), lines.begin() + 2),
                  (Texts{"INFO Detecting Agco model from 0xfeec message",
                         "INFO 0xfeec contains \"" + text + "\""}));
        EXPECT_EQ(rig.current(), row.reader ? row.reader : "AgcoModelDetector");
        EXPECT_EQ(rig.values(rig.properties->model), row.reader ? Texts{text} : Texts{});
        EXPECT_EQ(rig.can->tick(), row.reader == nullptr);  // asks again until it succeeds
    }
}

}  // namespace
