// Flash sector commands and the length operations built on them.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "common/checksum16.h"
#include "common/link_timing.h"
#include "flashhost/CFlashHost.h"
#include "flashhost/protocol.h"
#include "common/setting_record.h"

using namespace protocol;

namespace {

const unsigned char kEraseMode = 3;            // the only erase mode the host uses
const unsigned int kFastSectorRate = link_timing::kDefaultWorkingRate;  // four sectors per command here
const unsigned int kSectorsPerFastCommand = 4;
const unsigned char kErasedByte = flash_geometry::kErasedByte;

// A ReadSector reply holds count x 512 bytes in one reply buffer of 8,190 payload
// bytes, so at most 15 sectors: more is refused before anything is sent.
const unsigned int kMaxReadSectors = kMaxReplyPayload / kSectorSize;

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
        return CommandFailed(kTextReadTooLong);
    }
    const FrameField fields[] = {{sector, 4}, {count, 4}};
    unsigned int frameSize = BuildCommand(kReadSector, fields, 2);
    if (Exchange("ReadSector", frameSize, kTextReadSectorsTimeout, SectorPauseUs()) != 0)
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
    return DataPhase("WriteSector", data, bytes, kTextWriteSectorsTimeout, SectorPauseUs());
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

void CFlashHost::SetLinkProfile(const LinkProfile& link)
{
    m_link = link;
    m_comm.SetLinkProfile(link);
}

// Classic: four sectors at exactly 921600, one at every other speed. Fast link: the
// configured count at every speed from 921600 up (the classic table stops there;
// the faster rates move more per command, not less), held to what one command can
// carry in each direction.
unsigned int CFlashHost::SectorsPerCommand(bool forRead) const
{
    if (!m_link.fast)
        return m_iBaud == kFastSectorRate ? kSectorsPerFastCommand : 1;
    if (m_iBaud < kFastSectorRate)
        return 1;
    unsigned int count = m_link.sectorsPerCommand == 0 ? kSectorsPerFastCommand : m_link.sectorsPerCommand;
    const unsigned int most =
        forRead ? kMaxReadSectors : static_cast<unsigned int>(kMaxWriteSectorsPerCommand);
    return std::min(std::max(count, 1u), most);
}

// The classic link gives the target a fixed 50 ms per sector command; the fast link
// waits for the reply itself, within the same deadline.
unsigned int CFlashHost::SectorPauseUs() const
{
    return m_link.fast ? 0 : link_timing::kSectorCommandPauseUs;
}

// One read command for `sectors` sectors of which the caller wants `bytes`: straight
// into the caller's memory when it wants them all, else through the partial buffer.
int CFlashHost::ReadPiece(unsigned int sector, unsigned char* dest, unsigned int bytes,
                          unsigned int sectors)
{
    if (bytes == sectors * kSectorSize)
        return ReadSector(sector, dest, sectors);
    if (ReadSector(sector, m_partialBuf, sectors) != 0)
        return -1;
    memcpy(dest, m_partialBuf, bytes);
    return 0;
}

// One write command for `sectors` sectors holding `bytes` of the caller's data: the
// last sector's rest is the erased value, so flash past the data keeps what it held.
int CFlashHost::WritePiece(unsigned int sector, unsigned char* data, unsigned int bytes,
                           unsigned int sectors)
{
    if (bytes == sectors * kSectorSize)
        return WriteSector(sector, data, sectors);
    memcpy(m_partialBuf, data, bytes);
    memset(m_partialBuf + bytes, kErasedByte, sectors * kSectorSize - bytes);
    return WriteSector(sector, m_partialBuf, sectors);
}

namespace {

// Walks `length` bytes from the sector holding `address` in commands of up to
// `perCommand` sectors: visit(first sector, offset into the data, bytes, sectors).
template <typename Visit>
int ForEachCommand(unsigned int address, unsigned int length, unsigned int perCommand, Visit visit)
{
    const unsigned int first = address / kSectorSize;
    const unsigned int chunk = perCommand * kSectorSize;
    for (uint64_t offset = 0; offset < length; offset += chunk) {
        const unsigned int bytes = static_cast<unsigned int>(std::min<uint64_t>(chunk, length - offset));
        const unsigned int sectors = (bytes + kSectorSize - 1) / kSectorSize;
        const unsigned int sector = first + static_cast<unsigned int>(offset / kSectorSize);
        if (visit(sector, static_cast<unsigned int>(offset), bytes, sectors) != 0)
            return -1;
    }
    return 0;
}

bool AllErased(const unsigned char* bytes, unsigned int count)
{
    for (unsigned int i = 0; i < count; ++i) {
        if (bytes[i] != kErasedByte)
            return false;
    }
    return true;
}

}  // namespace

// Both length operations move whole sectors from the one holding `address`, in
// ascending order, each command acknowledged before the next; the last command
// carries the rounded-up rest.
int CFlashHost::ReadFlashLength(unsigned int address, unsigned char* buffer, unsigned int length)
{
    return ForEachCommand(address, length, SectorsPerCommand(true),
                          [&](unsigned int sector, unsigned int offset, unsigned int bytes,
                              unsigned int sectors) {
                              return ReadPiece(sector, buffer + offset, bytes, sectors);
                          });
}

int CFlashHost::WriteFlashLength(unsigned int address, unsigned char* data, unsigned int length)
{
    return ForEachCommand(address, length, SectorsPerCommand(false),
                          [&](unsigned int sector, unsigned int offset, unsigned int bytes,
                              unsigned int sectors) {
                              return WritePiece(sector, data + offset, bytes, sectors);
                          });
}

int CFlashHost::CheckFlashLength(unsigned int address, const unsigned char* expected,
                                 unsigned int length, unsigned char* scratch, int* differs)
{
    if (m_link.fast)
        return CompareFlashPieces(address, expected, length, scratch, differs);
    if (ReadFlashLength(address, scratch, length) != 0)
        return -1;
    *differs = memcmp(expected, scratch, length) != 0;
    return 0;
}

int CFlashHost::WriteErasedFlashLength(unsigned int address, unsigned char* data, unsigned int length)
{
    if (m_link.fast)
        return WriteDataSectors(address, data, length);
    return WriteFlashLength(address, data, length);
}

// Reads the range command by command into `scratch` and compares each piece with
// `expected` as it arrives; the first piece that differs ends the read with
// *differs set to 1. 0 unless a command failed.
int CFlashHost::CompareFlashPieces(unsigned int address, const unsigned char* expected,
                                   unsigned int length, unsigned char* scratch, int* differs)
{
    *differs = 0;
    int walked = ForEachCommand(address, length, SectorsPerCommand(true),
                                [&](unsigned int sector, unsigned int offset, unsigned int bytes,
                                    unsigned int sectors) {
                                    if (ReadPiece(sector, scratch + offset, bytes, sectors) != 0)
                                        return -1;
                                    if (memcmp(scratch + offset, expected + offset, bytes) == 0)
                                        return 0;
                                    *differs = 1;
                                    return 1;  // ends the walk: the caller rewrites the range
                                });
    return *differs ? 0 : walked;
}

// Runs of sectors that hold data go out in commands of up to the usual count;
// sectors that are all 0xFF are skipped, since erased flash already reads so.
int CFlashHost::WriteDataSectors(unsigned int address, unsigned char* data, unsigned int length)
{
    const unsigned int perCommand = SectorsPerCommand(false);
    const unsigned int first = address / kSectorSize;
    const unsigned int sectorCount = (length + kSectorSize - 1) / kSectorSize;
    unsigned int runStart = 0;
    unsigned int runLength = 0;
    auto flush = [&]() {
        if (runLength == 0)
            return 0;
        const uint64_t offset = uint64_t(runStart) * kSectorSize;
        const unsigned int bytes =
            static_cast<unsigned int>(std::min<uint64_t>(uint64_t(runLength) * kSectorSize, length - offset));
        int result = WritePiece(first + runStart, data + offset, bytes, runLength);
        runLength = 0;
        return result;
    };
    for (unsigned int s = 0; s < sectorCount; ++s) {
        const uint64_t offset = uint64_t(s) * kSectorSize;
        const unsigned int bytes = static_cast<unsigned int>(std::min<uint64_t>(kSectorSize, length - offset));
        if (AllErased(data + offset, bytes)) {
            if (flush() != 0)
                return -1;
            continue;
        }
        if (runLength == 0)
            runStart = s;
        if (++runLength == perCommand && flush() != 0)
            return -1;
    }
    return flush();
}
