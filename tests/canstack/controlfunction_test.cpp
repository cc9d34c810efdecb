#include <gtest/gtest.h>

#include <vector>

#include "canstack/controlfunction.h"
#include "canstack/name.h"
#include "canstack/networkmanagement.h"
#include "simulated_bus.h"

namespace {
using NM = NetworkManagementClass;
const char* const OWNER = "Registered Control Function";

ControlFunctionClass* at(uint8_t channel, uint8_t address) {
    return NM::getControlFunction(channel, address);
}

std::vector<RegisteredControlFunctionClass*> created;
void remember(RegisteredControlFunctionClass* function, uint8_t) {
    created.push_back(function);
}
}  // namespace

using CanStackControlFunctionOnBus = BusTest;

TEST(CanStackNAME, FieldsHaveTheirWidthsAndPlaces) {
    struct Case {
        bool (NAMEClass::*set)(uint32_t);
        uint32_t (NAMEClass::*get)() const;
        uint32_t largest;
        uint32_t offset;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        NAMEClass name(0);
        EXPECT_TRUE((name.*c.set)(c.largest));
        EXPECT_EQ((name.*c.get)(), c.largest);
        EXPECT_EQ(name.getNAME(), uint64_t{c.largest} << c.offset);
        EXPECT_FALSE((name.*c.set)(c.largest + 1));
        EXPECT_EQ((name.*c.get)(), c.largest);
    }
    NAMEClass reserved(1ull << 48);
    reserved.setFunction(3);
    EXPECT_EQ(reserved.getReserved(), 1u);
    uint8_t bytes[8];
    NAMEClass(0x0102030405060708ull).toBytes(bytes);
    EXPECT_EQ(bytes[0], 0x08);
    EXPECT_TRUE(NAMEClass(1) < NAMEClass(2));
}

TEST(CanStackNAME, MatchingAgainstFieldLists) {
    // Entries for one field are alternatives; every field listed must match.
    const NAMEFieldEntry list[] = {{1, NAME_FIELD_MANUFACTURER_CODE},
                                   {93, NAME_FIELD_MANUFACTURER_CODE},
                                   {2, NAME_FIELD_INDUSTRY_GROUP}};
    NAMEClass deere(0);
    deere.setIdentityNumber(0x1ABCD);
    struct Case {
        uint32_t manufacturer;
        uint32_t group;
        bool matches;
    };
    for (const Case& c :
         {Case{1, 2, true}, Case{93, 2, true}, Case{1, 1, false}, Case{7, 2, false}}) {
        deere.setManufacturerCode(c.manufacturer);
        deere.setIndustryGroup(c.group);
        EXPECT_EQ(NAMEClass::matchesNAMEFields(list, 3, deere), c.matches) << c.manufacturer;
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

TEST_F(CanStackControlFunctionOnBus, BindsByNAMEFieldsOnlyToASingleMatch) {
    bus.receiveClaim(0, 0x10, testNAME(1, 93));
    bus.receiveClaim(0, 0x11, testNAME(2, 93));
    const NAMEFieldEntry list[] = {{93, NAME_FIELD_MANUFACTURER_CODE}};
    RegisteredControlFunctionClass ambiguous(0, list, 1);
    EXPECT_TRUE(ambiguous.getNAME().isUnknown());
    EXPECT_EQ(NM::countControlFunctionsByNAMEFields(list, 1, 0), 2u);

    const NAMEFieldEntry one[] = {{93, NAME_FIELD_MANUFACTURER_CODE},
                                  {1, NAME_FIELD_IDENTITY_NUMBER}};
    ControlFunctionClass* before = at(0, 0x10);
    RegisteredControlFunctionClass bound(0, one, 2, &remember);
    EXPECT_EQ(at(0, 0x10), &bound);
    EXPECT_EQ(bound.getNAME().getNAME(), testNAME(1, 93));
    // The unregistered object now stands for nothing and waits in the lost list.
    EXPECT_TRUE(before->getNAME().isUnknown());
    EXPECT_TRUE(NM::isLostDevice(before));
    EXPECT_EQ(created, (std::vector<RegisteredControlFunctionClass*>{&bound}));

    // Unbound, it waits for a matching claim; a second match comes up unregistered, recorded.
    const NAMEFieldEntry other[] = {{94, NAME_FIELD_MANUFACTURER_CODE}};
    RegisteredControlFunctionClass waiting(0, other, 1);
    EXPECT_EQ(bus.claimFrom(0, 0x22, testNAME(5, 94)), &waiting);
    EXPECT_EQ(waiting.getNAME().getNAME(), testNAME(5, 94));
    ControlFunctionClass* second = bus.claimFrom(0, 0x23, testNAME(6, 94));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->getType(), 2);
    EXPECT_EQ(RegisteredControlFunctionClass::numberInvalidRegisteredControlFunctions, 1u);
    EXPECT_EQ(RegisteredControlFunctionClass::invalidRegisteredControlFunctionList
                  ->registeredControlFunction,
              &waiting);
}

TEST_F(CanStackControlFunctionOnBus, BindingByAddressLeavesTheOldDeviceBehind) {
    bus.receiveClaim(0, 0x10, testNAME(1));
    bus.receiveClaim(0, 0x11, testNAME(2));
    RegisteredControlFunctionClass function(0, NAMEClass(testNAME(1)));
    EXPECT_EQ(at(0, 0x10), &function);
    EXPECT_TRUE(function.bindByAddress(0x10));   // own address
    EXPECT_FALSE(function.bindByAddress(0x11));  // taken
    EXPECT_FALSE(function.bindByAddress(254));
    ASSERT_TRUE(function.bindByAddress(0x12));
    EXPECT_EQ(at(0, 0x12), &function);
    EXPECT_TRUE(function.getNAME().isUnknown());
    ControlFunctionClass* heir = at(0, 0x10);
    ASSERT_NE(heir, nullptr);
    EXPECT_EQ(heir->getType(), 2);
    EXPECT_EQ(heir->getNAME().getNAME(), testNAME(1));
}

TEST_F(CanStackControlFunctionOnBus, BindingByNAME) {
    TestInternalControlFunction self(testNAME(100), 0, {0x80});
    RegisteredControlFunctionClass early(0, NAMEClass(testNAME(7)));
    EXPECT_EQ(early.getAddress(), 254);
    EXPECT_TRUE(NM::isLostDevice(&early));
    EXPECT_EQ(bus.claimFrom(0, 0x30, testNAME(7)), &early);
    EXPECT_FALSE(NM::isLostDevice(&early));

    ControlFunctionClass* other = bus.claimFrom(0, 0x31, testNAME(8));
    ASSERT_TRUE(early.bindByNAME(NAMEClass(testNAME(8))));  // swaps with the unregistered one
    EXPECT_EQ(at(0, 0x31), &early);
    EXPECT_EQ(at(0, 0x30), other);
    EXPECT_EQ(other->getNAME().getNAME(), testNAME(7));
    EXPECT_FALSE(early.bindByNAME(NAMEClass(testNAME(100))));  // internal
    EXPECT_FALSE(early.bindByNAME(NAMEClass()));
}

TEST_F(CanStackControlFunctionOnBus, SwapWithOnOneChannelOnlyAndResetByKind) {
    ControlFunctionClass* a = bus.claimFrom(0, 0x10, testNAME(1));
    ControlFunctionClass* b = bus.claimFrom(0, 0x11, testNAME(2));
    ControlFunctionClass* c = bus.claimFrom(1, 0x10, testNAME(3));
    EXPECT_FALSE(a->swapWith(c));
    EXPECT_EQ(a->getNAME().getNAME(), testNAME(1));
    EXPECT_EQ(at(1, 0x10), c);
    ASSERT_TRUE(a->swapWith(b));
    EXPECT_EQ(at(0, 0x10), b);
    EXPECT_EQ(at(0, 0x11), a);
    EXPECT_EQ(a->getAddress(), 0x11);
    EXPECT_EQ(a->getNAME().getNAME(), testNAME(2));
    EXPECT_EQ(b->getNAME().getNAME(), testNAME(1));

    // Both reset leave the table; only the unregistered one joins the lost devices.
    RegisteredControlFunctionClass registered(0, NAMEClass(testNAME(2)));
    ASSERT_EQ(at(0, 0x11), &registered);
    b->reset();
    registered.reset();
    EXPECT_EQ(at(0, 0x10), nullptr);
    EXPECT_EQ(at(0, 0x11), nullptr);
    EXPECT_TRUE(NM::isLostDevice(b));
    EXPECT_FALSE(NM::isLostDevice(&registered));
    EXPECT_TRUE(b->getNAME().isUnknown());
    EXPECT_TRUE(registered.getNAME().isUnknown());
}

TEST_F(CanStackControlFunctionOnBus, CreatesUpToItsMaximum) {
    bus.receiveClaim(0, 0x10, testNAME(1, 93));
    bus.receiveClaim(0, 0x11, testNAME(2, 93));
    bus.receiveClaim(0, 0x12, testNAME(3, 93));
    const NAMEFieldEntry list[] = {{93, NAME_FIELD_MANUFACTURER_CODE}};
    DynamicRegisteredControlFunctionClass dynamic(0, list, 1, &remember, 4);
    ASSERT_EQ(created.size(), 3u);
    EXPECT_EQ(at(0, 0x10), created[0]);
    EXPECT_EQ(at(0, 0x12), created[2]);
    ControlFunctionClass* fourth = bus.claimFrom(0, 0x13, testNAME(4, 93));
    ASSERT_EQ(created.size(), 4u);
    EXPECT_EQ(fourth, created[3]);
    EXPECT_EQ(fourth->getType(), 1);
    // At the maximum the next device comes up unregistered.
    EXPECT_EQ(bus.claimFrom(0, 0x14, testNAME(5, 93))->getType(), 2);
    EXPECT_EQ(created.size(), 4u);
    for (RegisteredControlFunctionClass* function : created) {
        delete function;
    }
}

TEST(CanStackDynamicRegisteredControlFunction, ReportsBadArgumentsWithoutStopping) {
    DynamicRegisteredControlFunctionClass bad(3, nullptr, 0, nullptr, 0);
    const char* owner = "Dynamic Registered Control Function";
    for (const char* text :
         {"Invalid NAME Fields", "Invalid New Registered Control Function Callback",
          "Invalid Maximum Number Registered Control Functions", "Invalid CAN Channel"}) {
        EXPECT_EQ(descriptionCount(owner, text), 1u) << text;
    }
    EXPECT_EQ(DynamicRegisteredControlFunctionClass::getNumberDynamicRegisteredControlFunctions(),
              1u);
}

TEST_F(CanStackControlFunctionOnBus, DispatchesByParameterGroupToAtMost255Callbacks) {
    RegisteredControlFunctionClass function(0, NAMEClass(testNAME(7)));
    bus.receiveClaim(0, 0x30, testNAME(7));
    static std::vector<uint32_t> seen;
    struct Receiver : ReceiveCANMessageCallbackClass {
        void receiveCANMessage(CANMessageClass* message) override {
            seen.push_back(0x10000000u | message->getParameterGroupNumber());
        }
    };
    auto callback = [](CANMessageClass* message, ReceiveCANMessageCallbackClass*) {
        seen.push_back(message->getParameterGroupNumber());
    };
    {
        Receiver receiver;
        function.addParameterGroupNumberCallback(0xFEF1, callback, nullptr);
        function.addParameterGroupNumberCallback(PGN_ANY, nullptr, &receiver);
        EXPECT_EQ(function.addParameterGroupNumberCallback(0xFEF1, callback, nullptr), nullptr);
        bus.receive(0, 0x18FEF130u, {1, 2, 3});
        bus.receive(0, 0x18FEF230u, {1});
        EXPECT_EQ(seen, (std::vector<uint32_t>{0xFEF1, 0x1000FEF1u, 0x1000FEF2u}));
        EXPECT_EQ(function.getLastReceiveTimestamp(), SimulatedBus::now());
    }
    // The receiver's destructor took its node away.
    EXPECT_EQ(function.getNumberParameterGroupNumberCallbacks(), 1u);

    // At most 255 per function.
    const uint32_t refusals = descriptionCount(OWNER, "Failed Adding PGN Callback to List");
    for (uint32_t pgn = 1; pgn < 255; ++pgn) {
        ASSERT_NE(function.addParameterGroupNumberCallback(pgn << 8, callback, nullptr), nullptr);
    }
    EXPECT_EQ(function.addParameterGroupNumberCallback(0xFF00, callback, nullptr), nullptr);
    EXPECT_EQ(descriptionCount(OWNER, "Failed Adding PGN Callback to List"), refusals + 1);
}
