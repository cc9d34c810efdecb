#include <gtest/gtest.h>

#include "CanPropertySource/state_machine_rig.h"

namespace {

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

// The reader runs on the second machine bus, as the bus detector may leave it.
void startReader(StateMachineRig& rig, Enter reader) {
    rig.start();
    rig.can->setDefaultBus(M);
    reader(*rig.machine);
}

TEST(Readers, FrameGivesExactlyTheListedSamples) {
    const struct {
        Enter reader;
        Bus bus;
        std::uint32_t pgn;
        Bytes data;
        std::map<std::string, double> samples;  // every other engine property stays empty
    } rows[] = {
        // clang-format off
        {kGeneric, M, 0xF003, {X, X, 50, X}, {{"percentLoadAtCurrentSpeed", 50.0}}},
        {kGeneric, M, 0xF004, {X, X, X, X, 0x10, X}, {{"rpm", 543.875}}},  // low byte 0xFF
        {kGeneric, M, 0xF004, {X, X, 125, X, X, X}, {{"percentLoadOfTotalTorque", 0.0}}},
        {kGeneric, M, 0xF004, {X, X, 0}, {{"percentLoadOfTotalTorque", 4294967171.0}}},  // wraps
        {kGeneric, M, 0xF004, {X, X, 125, 0}, {{"percentLoadOfTotalTorque", 0.0}}},  // rpm cut off
        {kGeneric, M, 0xFEF2, {0xE0, 1, X, X}, {{"fuelConsumptionRate", 24.0}}},
        {kGeneric, M, 0xFEEE, {0xFE, X, X, X}, {{"coolantTemperature", 214.0}}},
        {kGeneric, M, 0xFEEE, {39, X, X, X}, {{"coolantTemperature", 4294967295.0}}},
        {kGeneric, M, 0xFEEE, {X, X, 0x21, 0x26}, {{"engineOilTemperature", 32.03125}}},
        {kGeneric, M, 0xFEEE, {X, X, 0x01, 0}, {{"engineOilTemperature", -272.96875}}},
        {kGeneric, M, 0xFEEF, {X, X, X, 250}, {{"engineOilPressure", 1000.0}}},
        {kGeneric, M, 0xFEF8, {X, X, X, X, 0x21, 0x26}, {{"transmissionOilTemperature", 32.03125}}},
        {kGeneric, M, 0xFE56, {200}, {{"defLevel", 80.0}}}, {kGeneric, M, 0xFEE5, {X, X, X, 0}, {}},
        {kGeneric, M, 0xFEE5, {4, 0, 1, 0x55}, {{"hours", 3277.0}}},  // top byte not read
        {kGeneric, M, 0xFEE5, {0x10}, {}},  // a field cut off by a short frame
        {kGeneric, M, 0xFEFC, {X, 100}, {{"fuelLevel", 40.0}}}, {kGeneric, M, 0xFEFC, {0, X}, {}},
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
        StateMachineRig rig;
        startReader(rig, row.reader);
        SCOPED_TRACE(testing::Message()
                     << rig.current() << " " << busName(row.bus) << " 0x" << std::hex << row.pgn);
        rig.can->deliver(row.bus, row.pgn, row.data);
        for (PropertyBase* base : rig.properties->engineProperties) {
            const auto* property = dynamic_cast<Property<double>*>(base);
            ASSERT_NE(property, nullptr);
            const auto values = rig.values(*property);
            const auto sample = row.samples.find(property->name);
            if (sample == row.samples.end()) {
                EXPECT_TRUE(values.empty()) << property->name;
            } else {
                ASSERT_EQ(values.size(), 1u) << property->name;
                EXPECT_EQ(values[0], sample->second) << property->name;
            }
        }
    }
}

TEST(Readers, EachInstallsItsFiltersAndRemovesThemAll) {
    const struct {
        Enter reader;
        Groups machineBus;
        Groups productBus;
    } rows[] = {
        // clang-format off
        {kGeneric, standardGroups(), {}}, {kAgcoB, standardGroups(), {}},
        {kAgcoC, standardGroups(), {0xFEFC}}, {kAgco900, standardGroups(), {0xFEFC, 0xFE56}},
        {kClass3, standardGroups({0xFF12}), {}}, {kClass4, standardGroups({0xFF12}), {}},
        {kTrident, standardGroups({0xFF12}), {}}, {kCt56, standardGroups({0xFFEC}), {}},
        {&enter<EtCanPropertyReader>, standardGroups(), {}},
        // clang-format on
    };
    for (const auto& row : rows) {
        StateMachineRig rig;
        startReader(rig, row.reader);
        const std::string reader = rig.current();
        EXPECT_EQ(rig.can->filtersOn(M), row.machineBus) << reader;
        EXPECT_EQ(rig.can->filtersOn(R), row.productBus) << reader;
        EXPECT_FALSE(rig.can->periodic) << reader;
        rig.machine->onStop();
        EXPECT_TRUE(rig.can->filters.empty()) << reader;
    }
}

}  // namespace
