#include <gtest/gtest.h>

#include <cstdio>

#include "CanPropertySource/state_machine_rig.h"

namespace {

using Texts = std::vector<std::string>;

TEST(CaseModelDetector, RequestsVinEverySecondUntilAnyAnswerGivesCt56) {
    // The New Holland and Miller model is never chosen: CT-56 stands for all.
    for (const char* user : {"", "New Holland", "Miller"}) {
        StateMachineRig rig(std::string("{\"manufacturer\": \"") + user + "\"}");
        rig.toManufacturerDetector();
        rig.can->deliver(kBus0, 0xF004, kZeros, *user ? -1 : 213);
        ASSERT_EQ(rig.current(), "CaseModelDetector") << user;
        EXPECT_EQ(rig.can->periodicIntervalUs, 1000000);
        for (int second = 0; second < 3; ++second) {
            rig.can->tick();
        }
        EXPECT_EQ(rig.can->requests,
                  (std::vector<std::pair<std::uint32_t, Bus>>(3, {0xFF7A, kBus0})));
        EXPECT_EQ(rig.log.count("Requesting VIN from Case machine"), 3);

        rig.can->deliver(kBus0, 0xFF7A, {1, 2, 3});
        EXPECT_FALSE(rig.can->tick());
        EXPECT_EQ(rig.current(), "CaseCT56PropertyReader");
        EXPECT_EQ(rig.values(rig.properties->model), Texts{"CT-56"}) << user;
        EXPECT_EQ(rig.log.count("Detecting Case model from VIN"), 1);
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
        // clang-format off
        {0x00, "Patriot 4430 T4", k4}, {0x01, "Patriot 4430 T2 BSN YET040000", k4},
        {0x02, "Patriot 2240 T4", kEt}, {0x03, "Patriot 250 T0", kEt},
        {0x04, "SP 2500 NH T0", kEt},
        {0x05, "2230 T3 ROW @ T4A / 3230 T3 ROW @ T4A / 3330 T3 ROW @ T4A", k3},
        {0x06, "Patriot 4430 T2 ASN YET040000", k4}, {0x07, "Titan 4030 T4 Liquid", kEt},
        {0x08, "Titan 3030 T4 Flex Air", kEt}, {0x09, "Titan 4030 T4 Flex Air", kEt},
        {0x0A, "Titan 3530 T4 Liquid", kEt}, {0x0B, "Titan 4530 T4 Liquid", kEt},
        {0x0C, "Titan 3530 T4 Flex Air", kEt}, {0x0D, "Titan 4530 T4 Flex Air", kEt},
        {0x14, "Patriot 2250 T4B", k3}, {0x15, "Patriot 3240 T4B", k3},
        {0x16, "Patriot 3340 T4B", k3}, {0x17, "Patriot 4440 T4B", k4},
        {0x18, "Trident 5550", "CaseTrident5550CanPropertyReader"},
        {0x1B, "Patriot 350 T3 (LAR)", kEt}, {0x1C, "Patriot 250 T3 (LAR)", kEt},
        {0x1D, "SP 2500 NH T3, NH", kEt}, {0x1F, "Titan 3040 T 4B Liquid", k4},
        {0x20, "Titan 4040 T4B Liquid", k4}, {0x21, "Titan 3040 T4B Flex Air", k4},
        {0x22, "Titan 4040 T4B Flex Air", k4}, {0x23, "Titan 3540 T4B Liquid", k4},
        {0x24, "Titan 4540 T4B Liquid", k4}, {0x25, "Titan 3540 T4B Flex Air", k4},
        {0x26, "Titan 4540 T4B Flex Air", k4}, {0x29, "Titan 3040 T4B Flex Air 850", kEt},
        {0x2A, "Titan 4040 T4B Flex Air 850", kEt}, {0x2B, "Titan 3545 T4B Flex Air 850", kEt},
        {0x2C, "Titan 4545 T4B Flex Air 850", kEt},
        {0x0E, nullptr, kEt}, {0x13, nullptr, kEt}, {0x19, nullptr, kEt}, {0x1A, nullptr, kEt},
        {0x1E, nullptr, kEt}, {0x27, nullptr, kEt}, {0x28, nullptr, kEt}, {0x2D, nullptr, kEt},
        {0xFF, nullptr, kEt}, {-1, nullptr, kEt},
        // clang-format on
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

        char line[64];
        std::snprintf(line, sizeof line, "Detecting Case model number 0x%x from 0xff12 message",
                      row.number < 0 ? 0xFF : row.number);
        EXPECT_EQ(rig.log.count(line), 1);
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
        rig.can->deliver(kBus0, 0xFEEC, Bytes(text.begin(), text.end()));

        EXPECT_EQ(rig.log.count("Detecting Agco model from 0xfeec message"), 1);
        EXPECT_EQ(rig.log.count("0xfeec contains \"" + text + "\""), 1);
        EXPECT_EQ(rig.current(), row.reader ? row.reader : "AgcoModelDetector");
        EXPECT_EQ(rig.values(rig.properties->model), row.reader ? Texts{text} : Texts{});
        EXPECT_EQ(rig.can->tick(), row.reader == nullptr);  // asks again until it succeeds
        EXPECT_EQ(rig.log.count("Requesting VIN from Agco machine"), row.reader ? 0 : 1);
    }
}

}  // namespace
