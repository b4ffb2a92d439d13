#include "sim/opcodes.h"

#include <cstdio>

namespace ksim {

namespace {

const OpcodeInfo kOpcodes[] = {
    {kOpRead1, "Read_1_byte", 5, {4}, false, false},
    {kOpWrite1, "Write_1_byte", 6, {4}, false, false},
    {kOpRead2, "Read_2_byte", 5, {4}, false, false},
    {kOpWrite2, "Write_2_byte", 7, {4}, false, false},
    {kOpRead4, "Read_4_byte", 5, {4}, false, false},
    {kOpWrite4, "Write_4_byte", 9, {4}, false, false},
    {kOpRead8, "Read_8_byte", 5, {4}, false, false},
    {kOpWrite8, "Write_8_byte", 13, {4}, false, false},
    {kOpReadMemoryLen, "ReadMemoryLen", 9, {4, 4}, false, false},
    {kOpWriteMemoryLen, "WriteMemoryLen", 11, {4, 4, 2}, false, true},
    {kOpChangeBaud, "ChangeBaud", 5, {4}, false, false},
    {kOpSetJtag, "SetJtag", 2, {1}, false, false},
    {kOpSysReboot, "SysReboot", 1, {}, false, false},
    {kOpSetPC, "SetPC", 5, {4}, false, false},
    {kOpGetFlashId, "GetFlashId", 1, {}, false, false},
    {kOpEraseFlash, "EraseFlash", 6, {1, 4}, true, false},
    {kOpReadSector, "ReadSector", 9, {4, 4}, true, false},
    {kOpWriteSector, "WriteSector", 11, {4, 4, 2}, true, true},
};

}  // namespace

const OpcodeInfo* FindOpcode(uint8_t code)
{
    for (const OpcodeInfo& op : kOpcodes)
        if (op.code == code)
            return &op;
    return nullptr;
}

const OpcodeInfo* FindOpcodeByName(const std::string& name)
{
    for (const OpcodeInfo& op : kOpcodes)
        if (name == op.name)
            return &op;
    return nullptr;
}

std::string OpcodeName(uint8_t code)
{
    if (const OpcodeInfo* op = FindOpcode(code))
        return op->name;
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", code);
    return text;
}

}  // namespace ksim
