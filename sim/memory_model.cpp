#include "sim/memory_model.h"

#include <cstring>

namespace ksim {

MemoryModel::MemoryModel() : m_sram(kSramSize, 0) {}

bool MemoryModel::RangeFits(uint32_t address, uint32_t count)
{
    return count == 0 || address <= 0xFFFFFFFFu - (count - 1);
}

bool MemoryModel::InSram(uint32_t address, uint32_t count)
{
    return address >= kSramBase && address - kSramBase <= kSramSize &&
           count <= kSramSize - (address - kSramBase);
}

void MemoryModel::ReadSram(uint32_t address, uint8_t* out, size_t count) const
{
    if (count > 0)
        std::memcpy(out, &m_sram[address - kSramBase], count);
}

void MemoryModel::WriteSram(uint32_t address, const uint8_t* data, size_t count)
{
    if (count > 0)
        std::memcpy(&m_sram[address - kSramBase], data, count);
}

void MemoryModel::ReadAny(uint32_t address, uint8_t* out, size_t count) const
{
    for (size_t i = 0; i < count; ++i) {
        uint32_t at = address + static_cast<uint32_t>(i);
        if (InSram(at, 1)) {
            out[i] = m_sram[at - kSramBase];
            continue;
        }
        auto found = m_registers.find(at);
        out[i] = found == m_registers.end() ? 0 : found->second;
    }
}

bool MemoryModel::WriteAny(uint32_t address, const uint8_t* data, size_t count)
{
    size_t added = 0;
    for (size_t i = 0; i < count; ++i) {
        uint32_t at = address + static_cast<uint32_t>(i);
        if (!InSram(at, 1) && m_registers.count(at) == 0)
            ++added;
    }
    if (m_registers.size() + added > kMaxRegisterBytes)
        return false;
    for (size_t i = 0; i < count; ++i) {
        uint32_t at = address + static_cast<uint32_t>(i);
        if (InSram(at, 1))
            m_sram[at - kSramBase] = data[i];
        else
            m_registers[at] = data[i];
    }
    return true;
}

}  // namespace ksim
