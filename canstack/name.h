#ifndef CANSTACK_NAME_H
#define CANSTACK_NAME_H

#include <cstdint>

// Field identifiers of a NAME match list.
enum NAMEFieldIdentifier : uint32_t {
    NAME_FIELD_IDENTITY_NUMBER = 0,
    NAME_FIELD_IDENTITY_NUMBER_LOW = 1,
    NAME_FIELD_IDENTITY_NUMBER_HIGH = 2,
    NAME_FIELD_MANUFACTURER_CODE = 3,
    NAME_FIELD_ECU_INSTANCE = 4,
    NAME_FIELD_FUNCTION_INSTANCE = 5,
    NAME_FIELD_FUNCTION = 6,
    NAME_FIELD_VEHICLE_SYSTEM = 7,
    NAME_FIELD_VEHICLE_SYSTEM_INSTANCE = 8,
    NAME_FIELD_INDUSTRY_GROUP = 9,
    NAME_FIELD_SELF_CONFIGURABLE_ADDRESS = 10,
    NUMBER_NAME_FIELDS = 11,
};

struct NAMEFieldEntry {
    uint32_t value;
    uint32_t fieldIdentifier;
};

// The 64-bit ISO NAME; the numerically lower NAME wins arbitration.
class NAMEClass {
public:
    static constexpr uint64_t UNKNOWN = 0xFFFFFFFFFFFFFFFFull;

    constexpr NAMEClass() : name(UNKNOWN) {}
    constexpr explicit NAMEClass(uint64_t value) : name(value) {}
    // From the 8 data bytes of an address claim, least significant first.
    static NAMEClass fromBytes(const uint8_t* bytes);
    void toBytes(uint8_t* bytes) const;

    uint64_t getNAME() const { return name; }
    void setNAME(uint64_t value) { name = value; }
    bool isUnknown() const { return name == UNKNOWN; }

    uint32_t getIdentityNumber() const { return getBits(0, 21); }
    uint32_t getManufacturerCode() const { return getBits(21, 11); }
    uint32_t getECUInstance() const { return getBits(32, 3); }
    uint32_t getFunctionInstance() const { return getBits(35, 5); }
    uint32_t getFunction() const { return getBits(40, 8); }
    uint32_t getReserved() const { return getBits(48, 1); }
    uint32_t getVehicleSystem() const { return getBits(49, 7); }
    uint32_t getVehicleSystemInstance() const { return getBits(56, 4); }
    uint32_t getIndustryGroup() const { return getBits(60, 3); }
    uint32_t getSelfConfigurableAddress() const { return getBits(63, 1); }

    bool setIdentityNumber(uint32_t value) { return setBits(0, 21, value); }
    bool setManufacturerCode(uint32_t value) { return setBits(21, 11, value); }
    bool setECUInstance(uint32_t value) { return setBits(32, 3, value); }
    bool setFunctionInstance(uint32_t value) { return setBits(35, 5, value); }
    bool setFunction(uint32_t value) { return setBits(40, 8, value); }
    bool setVehicleSystem(uint32_t value) { return setBits(49, 7, value); }
    bool setVehicleSystemInstance(uint32_t value) { return setBits(56, 4, value); }
    bool setIndustryGroup(uint32_t value) { return setBits(60, 3, value); }
    bool setSelfConfigurableAddress(uint32_t value) { return setBits(63, 1, value); }

    // Value of a match-list field of this NAME; false for an unknown identifier.
    bool getField(uint32_t fieldIdentifier, uint32_t& value) const;
    // Position of a match-list field within the 64 bits.
    static bool getFieldLayout(uint32_t fieldIdentifier, uint32_t& offset, uint32_t& width);

    static bool matchesNAMEFields(const NAMEFieldEntry* list, uint32_t count, NAMEClass name);

    bool operator==(const NAMEClass& other) const { return name == other.name; }
    bool operator!=(const NAMEClass& other) const { return name != other.name; }
    bool operator<(const NAMEClass& other) const { return name < other.name; }

private:
    uint32_t getBits(uint32_t offset, uint32_t width) const {
        return static_cast<uint32_t>((name >> offset) & ((1ull << width) - 1u));
    }
    bool setBits(uint32_t offset, uint32_t width, uint32_t value);

    uint64_t name;
};

#endif
