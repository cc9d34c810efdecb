#include "canstack/canidentifier.h"

#include "canstack/networkmanagementstatistics.h"

const char* const CANIdentifierClass::MESSAGE_OWNER = "CAN Identifier";

CANIdentifierClass::CANIdentifierClass(uint8_t identifierType) : identifier(0x7FFFFFFFu) {
    if (identifierType == 1) {
        identifier = 0xFFFFFFFFu;
    } else if (identifierType != 0) {
        NetworkManagementStatisticsClass::addDescriptionMessage(MESSAGE_OWNER,
                                                                "Identifier Type Invalid", 2);
    }
}

uint32_t CANIdentifierClass::getParameterGroupNumber(uint32_t word) {
    if ((word & TYPE_BIT) == 0) {
        return 0xFFFFFFFFu;
    }
    if (((word >> 20) & 0xFu) != 0xFu) {
        return (word >> 8) & 0x3FF00u;
    }
    return (word >> 8) & 0x3FFFFu;
}
