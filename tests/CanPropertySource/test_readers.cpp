#include <gtest/gtest.h>

#include "CanPropertySource/state_machine_rig.h"

namespace {

using P = Properties;
constexpr std::uint8_t X = 0xFF;  // not available
constexpr Bus M = Bus::MACHINE_500K;
constexpr Bus R = Bus::PRODUCT_250K;
using Enter = void (*)(CanPropertySourceStateMachine&);

template <typename Reader>
void enter(CanPropertySourceStateMachine& machine) {
    machine.switchState<Reader>();
}
const Enter kGeneric = &enter<GenericCanPropertyReader>,
            kClass3 = &enter<CasePatriotClass3PropertyReader>,
            kClass4 = &enter<CasePatriotClass4PropertyReader>,
            kTrident = &enter<CaseTrident5550CanPropertyReader>,
            kCt56 = &enter<CaseCT56PropertyReader>, kAgcoB = &enter<AgcoBCanPropertyReader>,
            kAgcoC = &enter<AgcoCCanPropertyReader>,
            kAgco900 = &enter<Agco900SeriesCanPropertyReader>;

struct SignalCase {
    const char* what;
    Enter reader;
    Bus bus;
    std::uint32_t pgn;
    std::vector<std::uint8_t> data;
    bool filtered;
    Property<double> P::*property;
    std::vector<double> expected;  // empty: no sample
};
void PrintTo(const SignalCase& c, std::ostream* os) {
    *os << c.what;
}

class Signals : public testing::TestWithParam<SignalCase> {};

TEST_P(Signals, DecodeFieldIntoProperty) {
    const SignalCase& c = GetParam();
    StateMachineRig rig;
    rig.start();
    rig.can->setDefaultBus(M);
    c.reader(*rig.machine);
    EXPECT_EQ(rig.can->deliver(c.bus, c.pgn, c.data), c.filtered);
    const auto values = rig.values((*rig.properties).*c.property);
    ASSERT_EQ(values.size(), c.expected.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        EXPECT_DOUBLE_EQ(values[i], c.expected[i]);  // within 4 ulps
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Standard, Signals, testing::Values(
    SignalCase{"load", kGeneric, M, 0xF003, {X, X, 50, X}, true, &P::percentLoadAtCurrentSpeed, {50.0}},
    SignalCase{"rpm low byte 0xFF", kGeneric, M, 0xF004, {X, X, X, X, 0x10, X}, true, &P::rpm, {543.875}},
    SignalCase{"rpm absent", kGeneric, M, 0xF004, {X, X, 125, X, X, X}, true, &P::rpm, {}},
    SignalCase{"torque, rpm absent", kGeneric, M, 0xF004, {X, X, 125, X, X, X}, true, &P::percentLoadOfTotalTorque, {0.0}},
    SignalCase{"torque wraps", kGeneric, M, 0xF004, {X, X, 0, 0x40, 0x1F}, true, &P::percentLoadOfTotalTorque, {4294967171.0}},
    SignalCase{"rpm past a short frame", kGeneric, M, 0xF004, {X, X, 0}, true, &P::rpm, {}},
    SignalCase{"fuel rate", kGeneric, M, 0xFEF2, {0x10, 0, X, X}, true, &P::fuelConsumptionRate, {0.8}},
    SignalCase{"coolant error range", kGeneric, M, 0xFEEE, {0xFE, X, X, X}, true, &P::coolantTemperature, {214.0}},
    SignalCase{"coolant wraps", kGeneric, M, 0xFEEE, {39, X, X, X}, true, &P::coolantTemperature, {4294967295.0}},
    SignalCase{"coolant absent", kGeneric, M, 0xFEEE, {X, X, 0x21, 0x26}, true, &P::coolantTemperature, {}},
    SignalCase{"oil, coolant absent", kGeneric, M, 0xFEEE, {X, X, 0x21, 0x26}, true, &P::engineOilTemperature, {32.03125}},
    SignalCase{"oil offset 273", kGeneric, M, 0xFEEE, {X, X, 0x01, 0}, true, &P::engineOilTemperature, {-272.96875}},
    SignalCase{"pressure zero", kGeneric, M, 0xFEEF, {X, X, X, 0}, true, &P::engineOilPressure, {0.0}},
    SignalCase{"pressure", kGeneric, M, 0xFEEF, {X, X, X, 250}, true, &P::engineOilPressure, {1000.0}},
    SignalCase{"transmission", kGeneric, M, 0xFEF8, {X, X, X, X, 0x21, 0x26}, true, &P::transmissionOilTemperature, {32.03125}},
    SignalCase{"def", kGeneric, M, 0xFE56, {200}, true, &P::defLevel, {80.0}},
    SignalCase{"hours, top byte ignored", kGeneric, M, 0xFEE5, {0x10, 0, 0, 0x55}, true, &P::hours, {0.8}},
    SignalCase{"hours absent", kGeneric, M, 0xFEE5, {X, X, X, 0}, true, &P::hours, {}},
    SignalCase{"fuel level", kGeneric, M, 0xFEFC, {X, 100}, true, &P::fuelLevel, {40.0}},
    SignalCase{"fuel level absent", kGeneric, M, 0xFEFC, {0, X}, true, &P::fuelLevel, {}},
    SignalCase{"no product bus", kGeneric, R, 0xFEFC, {0, 1}, false, &P::fuelLevel, {}}));

INSTANTIATE_TEST_SUITE_P(Manufacturer, Signals, testing::Values(
    SignalCase{"class 3 hours", kClass3, M, 0xFF12, {0, 0, 0x34, 0x12, X, 0}, true, &P::hours, {4660.0}},
    SignalCase{"class 3 full", kClass3, M, 0xFF12, {0, 0, X, X, 146, 0}, true, &P::fuelLevel, {100.0}},
    SignalCase{"class 3 fuel absent", kClass3, M, 0xFF12, {0, 0, 0x34, 0x12, X, 0}, true, &P::fuelLevel, {}},
    SignalCase{"class 4 hours", kClass4, M, 0xFF12, {0, 0, 0x34, 0x12, X, 0}, true, &P::hours, {4660.0}},
    SignalCase{"class 4 full", kClass4, M, 0xFF12, {0, 0, X, X, 121, 0}, true, &P::fuelLevel, {99.99999988}},
    SignalCase{"class 4 fuel absent", kClass4, M, 0xFF12, {0, 0, 1, 0, X, 0}, true, &P::fuelLevel, {}},
    SignalCase{"trident hours", kTrident, M, 0xFF12, {0, 0, 0x34, 0x12, X, 0}, true, &P::hours, {4660.0}},
    SignalCase{"trident full", kTrident, M, 0xFF12, {0, 0, X, X, 150, 0}, true, &P::fuelLevel, {100.0}},
    SignalCase{"trident half", kTrident, M, 0xFF12, {0, 0, X, X, 75, 0}, true, &P::fuelLevel, {50.0}},
    SignalCase{"trident fuel absent", kTrident, M, 0xFF12, {0, 0, 1, 0, X}, true, &P::fuelLevel, {}},
    SignalCase{"class 3 no standard hours", kClass3, M, 0xFEE5, {1, 0, 0, 0}, true, &P::hours, {}},
    SignalCase{"class 4 no standard hours", kClass4, M, 0xFEE5, {1, 0, 0, 0}, true, &P::hours, {}},
    SignalCase{"trident no standard hours", kTrident, M, 0xFEE5, {1, 0, 0, 0}, true, &P::hours, {}},
    SignalCase{"class 3 no standard fuel", kClass3, M, 0xFEFC, {0, 1}, true, &P::fuelLevel, {}},
    SignalCase{"ct-56 fuel", kCt56, M, 0xFFEC, {0, 0xE8, 0x03}, true, &P::fuelLevel, {100.0}},
    SignalCase{"ct-56 no standard fuel", kCt56, M, 0xFEFC, {0, 1}, true, &P::fuelLevel, {}},
    SignalCase{"agco c machine-bus fuel", kAgcoC, M, 0xFEFC, {0, 100}, true, &P::fuelLevel, {}},
    SignalCase{"agco c product fuel", kAgcoC, R, 0xFEFC, {0, 100}, true, &P::fuelLevel, {40.0}},
    SignalCase{"agco c product fuel absent", kAgcoC, R, 0xFEFC, {0, X}, true, &P::fuelLevel, {}},
    SignalCase{"agco c keeps def", kAgcoC, M, 0xFE56, {5}, true, &P::defLevel, {2.0}},
    SignalCase{"agco 900 machine-bus def", kAgco900, M, 0xFE56, {5}, true, &P::defLevel, {}},
    SignalCase{"agco 900 product def", kAgco900, R, 0xFE56, {5}, true, &P::defLevel, {2.0}},
    SignalCase{"agco 900 product fuel", kAgco900, R, 0xFEFC, {0, 100}, true, &P::fuelLevel, {40.0}},
    SignalCase{"agco 900 machine-bus fuel", kAgco900, M, 0xFEFC, {0, 100}, true, &P::fuelLevel, {}},
    SignalCase{"agco b no product filter", kAgcoB, R, 0xFEFC, {0, 100}, false, &P::fuelLevel, {}},
    SignalCase{"agco b machine-bus fuel", kAgcoB, M, 0xFEFC, {0, 100}, true, &P::fuelLevel, {40.0}}));

TEST(Signals, EachReaderInstallsItsFiltersAndRemovesThemAll) {
    const struct { Enter reader; Groups machineBus; Groups productBus; } cases[] = {
        {kGeneric, standardGroups(), {}}, {kAgcoB, standardGroups(), {}},
        {kAgcoC, standardGroups(), {0xFEFC}}, {kAgco900, standardGroups(), {0xFEFC, 0xFE56}},
        {kClass3, standardGroups({0xFF12}), {}}, {kClass4, standardGroups({0xFF12}), {}},
        {kTrident, standardGroups({0xFF12}), {}}, {kCt56, standardGroups({0xFFEC}), {}},
        {&enter<EtCanPropertyReader>, standardGroups(), {}}};
    // clang-format on
    for (const auto& c : cases) {
        StateMachineRig rig;
        rig.start();
        rig.can->setDefaultBus(M);
        c.reader(*rig.machine);
        const std::string reader = rig.current();
        EXPECT_EQ(rig.can->filtersOn(M), c.machineBus) << reader;
        EXPECT_EQ(rig.can->filtersOn(R), c.productBus) << reader;
        EXPECT_FALSE(rig.can->periodic) << reader;
        rig.machine->onStop();
        EXPECT_TRUE(rig.can->filters.empty()) << reader;
    }
}

}  // namespace
