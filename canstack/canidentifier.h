#ifndef CANSTACK_CANIDENTIFIER_H
#define CANSTACK_CANIDENTIFIER_H

#include <cstdint>

// Well-known parameter groups of the network layer.
constexpr uint32_t PGN_ADDRESS_CLAIMED = 0xEE00;
constexpr uint32_t PGN_REQUEST = 0xEA00;
constexpr uint32_t PGN_ACKNOWLEDGEMENT = 0xE800;
constexpr uint32_t PGN_COMMANDED_ADDRESS = 0xFED8;
constexpr uint32_t PGN_TP_DATA_TRANSFER = 0xEB00;
constexpr uint32_t PGN_TP_CONNECTION_MANAGEMENT = 0xEC00;
constexpr uint32_t PGN_ANY = 0xFFFFFF;

constexpr uint8_t NUMBER_CAN_CHANNELS = 3;
constexpr uint8_t NULL_ADDRESS = 254;
constexpr uint8_t GLOBAL_ADDRESS = 255;

// One identifier word: bit 31 set for 29-bit identifiers, the identifier in bits 0 to 30.
class CANIdentifierClass {
public:
    static const char* const MESSAGE_OWNER;
    static constexpr uint32_t TYPE_BIT = 0x80000000u;

    explicit CANIdentifierClass(uint8_t identifierType = 1);

    uint32_t getWord() const { return identifier; }
    void setWord(uint32_t word) { identifier = word; }
    uint8_t getIdentifierType() const { return (identifier & TYPE_BIT) ? 1 : 0; }
    bool isExtended() const { return (identifier & TYPE_BIT) != 0; }
    uint32_t getIdentifier() const { return identifier & 0x7FFFFFFFu; }
    uint8_t getPriority() const { return static_cast<uint8_t>((identifier >> 26) & 7u); }
    uint8_t getExtendedDataPage() const { return static_cast<uint8_t>((identifier >> 25) & 1u); }
    uint8_t getDataPage() const { return static_cast<uint8_t>((identifier >> 24) & 1u); }
    uint8_t getPDUFormat() const { return static_cast<uint8_t>(identifier >> 16); }
    uint8_t getPDUSpecific() const { return static_cast<uint8_t>(identifier >> 8); }
    uint8_t getSourceAddressByte() const { return static_cast<uint8_t>(identifier); }
    bool isPDU1() const { return ((identifier >> 20) & 0xFu) != 0xFu; }

    uint32_t getParameterGroupNumber() const { return getParameterGroupNumber(identifier); }
    static uint32_t getParameterGroupNumber(uint32_t word);

private:
    uint32_t identifier;
};

#endif
