#include <gtest/gtest.h>

#include <tuple>

#include "simulated_bus.h"

TEST(CanStackNAME, FieldsHaveTheirWidthsAndPlaces) {
    using Set = bool (NAMEClass::*)(uint32_t);
    using Get = uint32_t (NAMEClass::*)() const;
    // Setter, getter, largest value, bit offset.
    const std::tuple<Set, Get, uint32_t, uint32_t> cases[] = {
        {&NAMEClass::setIdentityNumber, &NAMEClass::getIdentityNumber, 2097151, 0},
        {&NAMEClass::setManufacturerCode, &NAMEClass::getManufacturerCode, 2047, 21},
        {&NAMEClass::setECUInstance, &NAMEClass::getECUInstance, 7, 32},
        {&NAMEClass::setFunctionInstance, &NAMEClass::getFunctionInstance, 31, 35},
        {&NAMEClass::setFunction, &NAMEClass::getFunction, 255, 40},
        {&NAMEClass::setVehicleSystem, &NAMEClass::getVehicleSystem, 127, 49},
        {&NAMEClass::setVehicleSystemInstance, &NAMEClass::getVehicleSystemInstance, 15, 56},
        {&NAMEClass::setIndustryGroup, &NAMEClass::getIndustryGroup, 7, 60},
        {&NAMEClass::setSelfConfigurableAddress, &NAMEClass::getSelfConfigurableAddress, 1, 63},
    };
    for (const auto& [set, get, largest, offset] : cases) {
        NAMEClass name(0);
        EXPECT_TRUE((name.*set)(largest));
        EXPECT_EQ(name.getNAME(), uint64_t{largest} << offset);
        EXPECT_FALSE((name.*set)(largest + 1));
        EXPECT_EQ((name.*get)(), largest);
    }
    NAMEClass reserved(1ull << 48);
    reserved.setFunction(3);
    EXPECT_EQ(reserved.getReserved(), 1u);
    uint8_t bytes[8];
    NAMEClass(0x0102030405060708ull).toBytes(bytes);
    EXPECT_EQ(bytes[0], 0x08);
}

TEST(CanStackNAME, MatchingAgainstFieldLists) {
    // Entries for one field are alternatives; every field listed must match.
    const NAMEFieldEntry list[] = {{1, NAME_FIELD_MANUFACTURER_CODE},
                                   {93, NAME_FIELD_MANUFACTURER_CODE},
                                   {2, NAME_FIELD_INDUSTRY_GROUP}};
    NAMEClass deere(0);
    deere.setIdentityNumber(0x1ABCD);
    for (const uint32_t manufacturer : {1, 93, 7}) {
        for (const uint32_t group : {2, 1}) {
            deere.setManufacturerCode(manufacturer);
            deere.setIndustryGroup(group);
            EXPECT_EQ(NAMEClass::matchesNAMEFields(list, 3, deere), manufacturer != 7 && group == 2)
                << manufacturer << "/" << group;
        }
    }
    EXPECT_FALSE(NAMEClass::matchesNAMEFields(list, 3, NAMEClass()));
    EXPECT_TRUE(NAMEClass::matchesNAMEFields(nullptr, 0, NAMEClass()));
    EXPECT_FALSE(NAMEClass::matchesNAMEFields(nullptr, 1, deere));

    const NAMEFieldEntry identity[] = {{0xABCD, NAME_FIELD_IDENTITY_NUMBER_LOW},
                                       {1, NAME_FIELD_IDENTITY_NUMBER_HIGH},
                                       {5, NAME_FIELD_SELF_CONFIGURABLE_ADDRESS}};
    EXPECT_FALSE(NAMEClass::matchesNAMEFields(identity, 3, deere));  // bit 63 clear
    deere.setSelfConfigurableAddress(1);
    EXPECT_TRUE(NAMEClass::matchesNAMEFields(identity, 3, deere));
}

TEST(CanStackControlFunction, CountsByNAMEFieldsOnOneChannel) {
    SimulatedBus bus;
    bus.update();
    bus.claimFrom(0, 0x10, testNAME(1, 93));
    bus.claimFrom(0, 0x11, testNAME(2, 93));
    bus.claimFrom(0, 0x12, testNAME(3, 94));
    bus.claimFrom(1, 0x10, testNAME(4, 93));
    const NAMEFieldEntry list[] = {{93, NAME_FIELD_MANUFACTURER_CODE}};
    EXPECT_EQ(NM::countControlFunctionsByNAMEFields(list, 1, 0), 2u);
    EXPECT_EQ(NM::countControlFunctionsByNAMEFields(list, 1, 1), 1u);
}
