// Reads and writes of the target's memory space and the program counter.
#include "common/checksum16.h"
#include "flashhost/CFlashHost.h"
#include "flashhost/protocol.h"

using namespace protocol;

// A single-value read takes the first `size` payload bytes; a reply with fewer is
// refused (CopyPayload) instead of handing back stale bytes.
int CFlashHost::ReadValue(const char* name, unsigned char opcode, unsigned int address,
                          unsigned char* out, unsigned int size, const char* timeoutText)
{
    const FrameField fields[] = {{address, 4}};
    unsigned int frameSize = BuildCommand(opcode, fields, 1);
    if (Exchange(name, frameSize, timeoutText) != 0)
        return -1;
    return CopyPayload(out, size);
}

int CFlashHost::WriteValue(const char* name, unsigned char opcode, unsigned int address,
                           const unsigned char* value, unsigned int size, const char* timeoutText)
{
    const FrameField fields[] = {{address, 4}};
    unsigned int frameSize = BuildCommand(opcode, fields, 1, value, size);
    return Exchange(name, frameSize, timeoutText);
}

int CFlashHost::Read_1_byte(unsigned int address, unsigned char* out)
{
    return ReadValue("Read_1_byte", kRead1, address, out, 1, kTextRead1Timeout);
}

int CFlashHost::Read_2_byte(unsigned int address, unsigned char* out)
{
    return ReadValue("Read_2_byte", kRead2, address, out, 2,
                     "Cmd read 2 byte waits for ack timeout or comm error!");
}

int CFlashHost::Read_4_byte(unsigned int address, unsigned char* out)
{
    return ReadValue("Read_4_byte", kRead4, address, out, 4,
                     "Cmd read 4 byte waits for ack timeout or comm error!");
}

int CFlashHost::Read_8_byte(unsigned int address, unsigned char* out)
{
    return ReadValue("Read_8_byte", kRead8, address, out, 8,
                     "Cmd read 8 byte waits for ack timeout or comm error!");
}

int CFlashHost::Write_1_byte(unsigned int address, unsigned char* value)
{
    return WriteValue("Write_1_byte", kWrite1, address, value, 1,
                      "Cmd write 1 byte waits for ack timeout or comm error!");
}

int CFlashHost::Write_2_byte(unsigned int address, unsigned char* value)
{
    return WriteValue("Write_2_byte", kWrite2, address, value, 2,
                      "Cmd write 2 byte waits for ack timeout or comm error!");
}

int CFlashHost::Write_4_byte(unsigned int address, unsigned char* value)
{
    return WriteValue("Write_4_byte", kWrite4, address, value, 4,
                      "Cmd write 4 byte waits for ack timeout or comm error!");
}

int CFlashHost::Write_8_byte(unsigned int address, unsigned char* value)
{
    return WriteValue("Write_8_byte", kWrite8, address, value, 8,
                      "Cmd write 8 byte waits for ack timeout or comm error!");
}

int CFlashHost::ReadMemoryLen(unsigned int address, unsigned char* buffer, unsigned int count)
{
    if (count > static_cast<unsigned int>(kMaxReplyPayload)) {
        return CommandFailed(kTextReadTooLong);
    }
    const FrameField fields[] = {{address, 4}, {count, 4}};
    unsigned int frameSize = BuildCommand(kReadMemoryLen, fields, 2);
    if (Exchange("ReadMemoryLen", frameSize, kTextReadSectorsTimeout) != 0)
        return -1;
    return CopyPayload(buffer, count);
}

// One acknowledged command announces address, count and data checksum; the data
// follows unframed in one write, and is not logged.
int CFlashHost::WriteMemoryLen(unsigned int address, unsigned char* data, unsigned int count)
{
    unsigned int dataCheck = static_cast<unsigned short>(~Sum16Words(data, count));
    const FrameField fields[] = {{address, 4}, {count, 4}, {dataCheck, 2}};
    unsigned int frameSize = BuildCommand(kWriteMemoryLen, fields, 3);
    if (Exchange("WriteMemoryLen", frameSize, kTextWriteSectorsTimeout) != 0)
        return -1;
    return DataPhase("WriteMemoryLen", data, count, kTextWriteSectorsTimeout, 0);
}

int CFlashHost::SetJtag(unsigned char value)
{
    const FrameField fields[] = {{value, 1}};
    unsigned int frameSize = BuildCommand(kSetJtag, fields, 1);
    return Exchange("SetJtag", frameSize, kTextRead1Timeout);
}

int CFlashHost::SetPC(unsigned int address)
{
    const FrameField fields[] = {{address, 4}};
    unsigned int frameSize = BuildCommand(kSetPC, fields, 1);
    return Exchange("SetPC", frameSize, kTextRead1Timeout);
}
