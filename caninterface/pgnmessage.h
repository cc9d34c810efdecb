#pragma once

#include <cstdint>
#include <vector>

class ControlFunctionClass;

// A received parameter group. Valid only during the callback that receives it.
class PgnMessage {
public:
    virtual ~PgnMessage() = default;

    // Manufacturer code from the sender's NAME, -1 when the sender is unknown.
    virtual int manufacturerCode() const = 0;
    // True when the sender took part in address claiming (has a NAME).
    virtual bool hasSource() const = 0;

    // Little-endian unsigned field of at most four bytes (longer lengths read four).
    // valid is true when any byte of the field differs from 0xFF; a length of 0 or less
    // gives 0 and valid false. A field not wholly inside the payload reads as all 0xFF and
    // is not available.
    std::uint32_t getValue(int offset, int length, bool& valid) const;

    std::uint32_t pgn = 0;
    std::vector<std::uint8_t> data;
    ControlFunctionClass* source = nullptr;  // not owned; null for a sender without NAME
};
