// The commands the boot ROM and the boot-loader understand, with the exact body
// each one carries (opcode byte plus parameters).
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace ksim {

enum Opcode : uint8_t {
    kOpRead1 = 0x00,
    kOpWrite1 = 0x01,
    kOpRead2 = 0x02,
    kOpWrite2 = 0x03,
    kOpRead4 = 0x04,
    kOpWrite4 = 0x05,
    kOpRead8 = 0x06,
    kOpWrite8 = 0x07,
    kOpReadMemoryLen = 0x08,
    kOpWriteMemoryLen = 0x09,
    kOpChangeBaud = 0x10,
    kOpSetJtag = 0x11,
    kOpSysReboot = 0x12,
    kOpSetPC = 0x13,
    kOpGetFlashId = 0x18,
    kOpEraseFlash = 0x19,
    kOpReadSector = 0x1A,
    kOpWriteSector = 0x1B,
};

struct OpcodeInfo {
    uint8_t code;
    const char* name;
    uint8_t bodyLength;       // opcode byte + parameters, the frame's exact `length`
    uint8_t fieldSizes[4];    // numeric parameters after the opcode, in order; 0 ends the list.
                              // Fields of 2 and 4 bytes travel big-endian; bytes after the
                              // last field (the value of a register write) travel unchanged.
    bool flashCommand;        // served by the boot-loader, and by the ROM only when it has flash support
    bool twoPhase;            // acknowledged, then followed by a data phase
};

// The entry for an opcode byte, or nullptr for an opcode the target does not know.
const OpcodeInfo* FindOpcode(uint8_t code);
// The entry whose name matches exactly ("WriteSector"), or nullptr.
const OpcodeInfo* FindOpcodeByName(const std::string& name);
// Name for traces: the table name, or "0xNN" for an unknown byte.
std::string OpcodeName(uint8_t code);

// The longest command body (Write_8_byte); a header claiming more cannot be a command.
constexpr size_t kMaxCommandBody = 13;

}  // namespace ksim
