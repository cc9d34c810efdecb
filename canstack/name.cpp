#include "canstack/name.h"

NAMEClass NAMEClass::fromBytes(const uint8_t* bytes) {
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i) {
        value = (value << 8) | bytes[i];
    }
    return NAMEClass(value);
}

void NAMEClass::toBytes(uint8_t* bytes) const {
    for (int i = 0; i < 8; ++i) {
        bytes[i] = static_cast<uint8_t>(name >> (8 * i));
    }
}

bool NAMEClass::setBits(uint32_t offset, uint32_t width, uint32_t value) {
    const uint64_t mask = (1ull << width) - 1u;
    if (value > mask) {
        return false;
    }
    name = (name & ~(mask << offset)) | (uint64_t{value} << offset);
    return true;
}

bool NAMEClass::getFieldLayout(uint32_t fieldIdentifier, uint32_t& offset, uint32_t& width) {
    static const uint8_t layout[NUMBER_NAME_FIELDS][2] = {
        {0, 21}, {0, 16}, {16, 5}, {21, 11}, {32, 3}, {35, 5},
        {40, 8}, {49, 7}, {56, 4}, {60, 3},  {63, 1},
    };
    if (fieldIdentifier >= NUMBER_NAME_FIELDS) {
        return false;
    }
    offset = layout[fieldIdentifier][0];
    width = layout[fieldIdentifier][1];
    return true;
}

bool NAMEClass::getField(uint32_t fieldIdentifier, uint32_t& value) const {
    uint32_t offset = 0;
    uint32_t width = 0;
    if (!getFieldLayout(fieldIdentifier, offset, width)) {
        return false;
    }
    value = getBits(offset, width);
    return true;
}

bool NAMEClass::matchesNAMEFields(const NAMEFieldEntry* list, uint32_t count, NAMEClass name) {
    if (count == 0) {
        return true;
    }
    if (list == nullptr || name.isUnknown()) {
        return false;
    }
    for (uint32_t field = 0; field < NUMBER_NAME_FIELDS; ++field) {
        uint32_t actual = 0;
        name.getField(field, actual);
        bool mentioned = false;
        bool matched = false;
        for (uint32_t i = 0; i < count && !matched; ++i) {
            if (list[i].fieldIdentifier != field) {
                continue;
            }
            mentioned = true;
            const uint32_t wanted = field == NAME_FIELD_SELF_CONFIGURABLE_ADDRESS
                                        ? (list[i].value != 0)
                                        : list[i].value;
            matched = wanted == actual;
        }
        if (mentioned && !matched) {
            return false;
        }
    }
    return true;
}
