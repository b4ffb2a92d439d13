// The commands of the boot ROM and the boot-loader, carried out on the memory and
// flash models. Each returns the reply the target sends when nothing interferes.
#include <cstdio>
#include <cstring>

#include "sim/frame_codec.h"
#include "sim/sim_target.h"
#include "sim/wire_bytes.h"

namespace ksim {

namespace {

// The largest payload one reply may carry: the host's reply buffer holds 8,190
// payload bytes behind the 12-byte header.
constexpr uint32_t kMaxReplyPayload = 8190;
constexpr uint32_t kMaxReadSectors = kMaxReplyPayload / NorFlash::kSectorSize;   // 15
// The boot-loader buffers one WriteSector data phase of up to 16 sectors (8 KiB);
// a larger count is refused as "no memory".
constexpr uint32_t kMaxWriteSectors = 16;
constexpr uint8_t kEraseModeBlock = 3;

uint32_t Param32(const uint8_t* body, size_t offset) { return LoadBe32(body + offset); }

}  // namespace

Reply SimTarget::Execute(const uint8_t* body, bool flipBit, int64_t nowUs)
{
    uint8_t opcode = body[0];
    const OpcodeInfo* op = FindOpcode(opcode);
    if (op->flashCommand && m_mode == TargetMode::BootRom && !m_config.romServesFlash)
        return Error(kErrUnknownCommand);   // this ROM has no flash driver
    switch (opcode) {
    case kOpRead1: return ReadValue(body, 1, flipBit);
    case kOpRead2: return ReadValue(body, 2, flipBit);
    case kOpRead4: return ReadValue(body, 4, flipBit);
    case kOpRead8: return ReadValue(body, 8, flipBit);
    case kOpWrite1: return WriteValue(body, 1, flipBit);
    case kOpWrite2: return WriteValue(body, 2, flipBit);
    case kOpWrite4: return WriteValue(body, 4, flipBit);
    case kOpWrite8: return WriteValue(body, 8, flipBit);
    case kOpReadMemoryLen: return ReadMemoryLen(body, flipBit);
    case kOpWriteMemoryLen: return StartWriteMemoryLen(body, nowUs);
    case kOpChangeBaud: return ChangeBaud(body);
    case kOpSetJtag: return SetJtag(body);
    case kOpSysReboot: return SysReboot();
    case kOpSetPC: return SetPC(body);
    case kOpGetFlashId: return GetFlashId(flipBit);
    case kOpEraseFlash: return EraseFlash(body);
    case kOpReadSector: return ReadSector(body, flipBit);
    case kOpWriteSector: return StartWriteSector(body, nowUs);
    }
    return Error(kErrUnknownCommand);
}

Reply SimTarget::ReadValue(const uint8_t* body, size_t size, bool flipBit)
{
    uint32_t address = Param32(body, 1);
    if (!MemoryModel::RangeFits(address, static_cast<uint32_t>(size)))
        return Error(kErrInvalid);
    uint8_t value[8];
    m_memory.ReadAny(address, value, size);
    if (flipBit)
        FlipOneBit(value, size);
    return Ack(value, size);
}

Reply SimTarget::WriteValue(const uint8_t* body, size_t size, bool flipBit)
{
    uint32_t address = Param32(body, 1);
    if (!MemoryModel::RangeFits(address, static_cast<uint32_t>(size)))
        return Error(kErrInvalid);
    uint8_t value[8];
    std::memcpy(value, body + 5, size);
    if (flipBit)
        FlipOneBit(value, size);
    if (!m_memory.WriteAny(address, value, size))
        return Error(kErrNoMemory);
    return Ack();
}

Reply SimTarget::ReadMemoryLen(const uint8_t* body, bool flipBit)
{
    uint32_t address = Param32(body, 1);
    uint32_t count = Param32(body, 5);
    // Bulk reads come from SRAM only, and never more than one reply can carry.
    if (count > kMaxReplyPayload || !MemoryModel::InSram(address, count))
        return Error(kErrInvalid);
    std::vector<uint8_t> data(count);
    m_memory.ReadSram(address, data.data(), count);
    if (flipBit)
        FlipOneBit(data.data(), data.size());
    return Ack(data.data(), data.size());
}

Reply SimTarget::StartWriteMemoryLen(const uint8_t* body, int64_t nowUs)
{
    uint32_t address = Param32(body, 1);
    uint32_t count = Param32(body, 5);
    if (!MemoryModel::InSram(address, count))
        return Error(kErrInvalid);
    m_data = DataPhase{kOpWriteMemoryLen, address, count, LoadBe16(body + 9), nullptr};
    m_inDataPhase = true;
    m_receiver.ExpectData(count, nowUs);
    return Ack();
}

Reply SimTarget::FinishWriteMemoryLen(std::vector<uint8_t>& data)
{
    m_memory.WriteSram(m_data.address, data.data(), data.size());
    m_upload = Upload{true, m_data.address, m_data.count};
    return Ack();
}

Reply SimTarget::ChangeBaud(const uint8_t* body)
{
    // The low 24 bits are the speed; the top byte (the host always sends 3) is
    // accepted whatever it holds. A speed of 0 cannot be set.
    uint32_t speed = Param32(body, 1) & 0xFFFFFF;
    if (speed == 0)
        return Error(kErrInvalid);
    Reply reply = Ack();
    reply.after = AfterReply::ChangeSpeed;
    reply.newSpeed = speed;
    return reply;
}

Reply SimTarget::SetJtag(const uint8_t* body)
{
    Event("jtag " + HexBytes(body + 1, 1));
    return Ack();
}

Reply SimTarget::SysReboot()
{
    Reply reply = Ack();
    reply.after = AfterReply::Reboot;
    return reply;
}

Reply SimTarget::SetPC(const uint8_t* body)
{
    uint32_t pc = Param32(body, 1);
    Reply reply = Ack();
    if (LooksLikeBootLoader(pc)) {
        reply.after = AfterReply::StartBootLoader;
        return reply;
    }
    // Jumping anywhere else would lose the chip; the simulated one stays where it is
    // so that a test can carry on.
    Event("setpc " + HexBytes(body + 1, 4) + " is no uploaded program, staying put");
    return reply;
}

// An uploaded image starts when its vector table is plausible: word 0, the initial
// stack pointer, inside SRAM (its top included), and word 1, the reset vector with
// the Thumb bit, inside the uploaded bytes and equal to the new program counter.
bool SimTarget::LooksLikeBootLoader(uint32_t pc) const
{
    if (!m_upload.valid || m_upload.count < 8)
        return false;
    uint8_t vectors[8];
    m_memory.ReadSram(m_upload.address, vectors, sizeof vectors);
    uint32_t stack = LoadLe32(vectors);
    uint32_t reset = LoadLe32(vectors + 4);
    bool stackOk = stack > MemoryModel::kSramBase && stack - MemoryModel::kSramBase <= MemoryModel::kSramSize;
    uint32_t entry = reset & ~1u;
    bool resetOk = (reset & 1u) != 0 && entry >= m_upload.address &&
                   entry - m_upload.address < m_upload.count;
    return stackOk && resetOk && pc == reset;
}

Reply SimTarget::GetFlashId(bool flipBit)
{
    std::vector<uint8_t> id = m_config.flashId;
    if (flipBit)
        FlipOneBit(id.data(), id.size());
    return Ack(id.data(), id.size());
}

Reply SimTarget::EraseFlash(const uint8_t* body)
{
    // Only mode 3 (one 64 KiB block) exists on this flash.
    uint8_t mode = body[1];
    uint32_t address = Param32(body, 2);
    if (mode != kEraseModeBlock || !m_flash.Contains(address, 1))
        return Error(kErrInvalid);
    bool stored = m_flash.EraseBlock(address);
    uint32_t block = address / NorFlash::kBlockSize;
    char text[64];
    std::snprintf(text, sizeof text, "erase %08X count %u", block * NorFlash::kBlockSize,
                  m_flash.EraseCount(block));
    Event(text);
    if (!stored) {
        // The model could not keep the change: report it as a flash that did not finish.
        Event(m_flash.LastError());
        return Error(kErrTimeout);
    }
    Reply reply = Ack();
    reply.busyUs = m_config.eraseUs;
    return reply;
}

Reply SimTarget::ReadSector(const uint8_t* body, bool flipBit)
{
    uint32_t sector = Param32(body, 1);
    uint32_t count = Param32(body, 5);
    if (count > kMaxReadSectors || !m_flash.ContainsSectors(sector, count))
        return Error(kErrInvalid);
    std::vector<uint8_t> data(count * NorFlash::kSectorSize);
    m_flash.Read(sector * NorFlash::kSectorSize, data.data(), data.size());
    if (flipBit)
        FlipOneBit(data.data(), data.size());
    return Ack(data.data(), data.size());
}

Reply SimTarget::StartWriteSector(const uint8_t* body, int64_t nowUs)
{
    uint32_t sector = Param32(body, 1);
    uint32_t count = Param32(body, 5);
    if (count > kMaxWriteSectors)
        return Error(kErrNoMemory);
    if (!m_flash.ContainsSectors(sector, count))
        return Error(kErrInvalid);
    m_data = DataPhase{kOpWriteSector, sector * NorFlash::kSectorSize, count * NorFlash::kSectorSize,
                       LoadBe16(body + 9), nullptr};
    m_inDataPhase = true;
    m_receiver.ExpectData(m_data.count, nowUs);
    return Ack();
}

Reply SimTarget::FinishWriteSector(std::vector<uint8_t>& data)
{
    if (!m_flash.Program(m_data.address, data.data(), data.size())) {
        Event(m_flash.LastError());
        return Error(kErrTimeout);
    }
    Reply reply = Ack();
    reply.busyUs = m_config.programUs * static_cast<int64_t>(data.size() / NorFlash::kSectorSize);
    return reply;
}

}  // namespace ksim
