// Flash sector commands and the length operations built on them.
#include <algorithm>
#include <cstdint>

#include "common/checksum16.h"
#include "flashhost/CFlashHost.h"
#include "flashhost/protocol.h"
#include "frontend/Setting.h"

using namespace protocol;

namespace {

const unsigned char kEraseMode = 3;            // the only erase mode the host uses
const unsigned int kSectorPauseUs = 50000;     // the target's own time per sector command
const unsigned int kFastSectorRate = 921600;   // four sectors per command at this speed
const unsigned int kSectorsPerFastCommand = 4;

// A ReadSector reply holds count x 512 bytes in one reply buffer of 8,190 payload
// bytes, so at most 15 sectors: more is refused before anything is sent.
const unsigned int kMaxReadSectors = kMaxReplyPayload / kSectorSize;
const char kTextReadTooLong[] = "Read request exceeds the 8190-byte reply buffer!";

const char kTextEraseTimeout[] = "Cmd erase waits for ack timeout or comm error!";

}  // namespace

int CFlashHost::EraseFlash(unsigned int address)
{
    const FrameField fields[] = {{kEraseMode, 1}, {address, 4}};
    unsigned int frameSize = BuildCommand(kEraseFlash, fields, 2);
    return Exchange("EraseFlash", frameSize, kTextEraseTimeout);
}

int CFlashHost::ReadSector(unsigned int sector, unsigned char* buffer, unsigned int count)
{
    if (count > kMaxReadSectors) {
        m_strMsg = kTextReadTooLong;
        return -1;
    }
    const FrameField fields[] = {{sector, 4}, {count, 4}};
    unsigned int frameSize = BuildCommand(kReadSector, fields, 2);
    if (Exchange("ReadSector", frameSize, kTextReadSectorsTimeout, kSectorPauseUs) != 0)
        return -1;
    return CopyPayload(buffer, count * kSectorSize);
}

// The command is acknowledged before any data goes out; the data is then sent in
// one write straight from the caller's memory.
int CFlashHost::WriteSector(unsigned int sector, unsigned char* data, unsigned int count)
{
    unsigned int bytes = count * kSectorSize;
    unsigned int dataCheck = static_cast<unsigned short>(~Sum16Words(data, bytes));
    const FrameField fields[] = {{sector, 4}, {count, 4}, {dataCheck, 2}};
    unsigned int frameSize = BuildCommand(kWriteSector, fields, 3);
    if (Exchange("WriteSector", frameSize, kTextWriteSectorsTimeout) != 0)
        return -1;
    if (g_Setting.bLogLevel >= 2)
        WriteLogBuf("WriteSector cmd:", data, bytes);
    return DataPhase("WriteSector", data, bytes, kTextWriteSectorsTimeout, kSectorPauseUs);
}

// Every 64 KiB block that meets [address, address + length) is erased. The end is
// taken in 64 bits and kept within the 32-bit address space, so a range that runs
// past the top ends there instead of wrapping round to block 0.
int CFlashHost::EraseFlashLength(unsigned int address, unsigned int length)
{
    const uint64_t top = uint64_t(1) << 32;
    uint64_t end = std::min(uint64_t(address) + length, top);
    for (uint64_t block = address & ~uint64_t(kEraseBlockSize - 1); block < end;
         block += kEraseBlockSize) {
        if (EraseFlash(static_cast<unsigned int>(block)) != 0)
            return -1;
    }
    return 0;
}

unsigned int CFlashHost::SectorsPerCommand() const
{
    return m_iBaud == kFastSectorRate ? kSectorsPerFastCommand : 1;
}

// Whole sectors from the one holding `address`, in ascending order, each command
// acknowledged before the next; the last command carries the rounded-up rest.
int CFlashHost::TransferLength(SectorCommand command, unsigned int address, unsigned char* data,
                               unsigned int length)
{
    const unsigned int perCommand = SectorsPerCommand();
    const unsigned int chunk = perCommand * kSectorSize;
    const unsigned int first = address / kSectorSize;
    const unsigned int full = length / chunk;
    for (unsigned int i = 0; i < full; ++i) {
        if ((this->*command)(first + i * perCommand, data + size_t(i) * chunk, perCommand) != 0)
            return -1;
    }
    unsigned int rest = length % chunk;
    if (rest == 0)
        return 0;
    unsigned int restSectors = (rest + kSectorSize - 1) / kSectorSize;
    return (this->*command)(first + full * perCommand, data + size_t(full) * chunk, restSectors);
}

int CFlashHost::ReadFlashLength(unsigned int address, unsigned char* buffer, unsigned int length)
{
    return TransferLength(&CFlashHost::ReadSector, address, buffer, length);
}

int CFlashHost::WriteFlashLength(unsigned int address, unsigned char* data, unsigned int length)
{
    return TransferLength(&CFlashHost::WriteSector, address, data, length);
}
