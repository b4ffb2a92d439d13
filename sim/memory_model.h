// The target's memory space as the ROM sees it: an SRAM block for bulk transfers and
// code, and a sparse register space for single-value accesses anywhere else.
#pragma once
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace ksim {

class MemoryModel {
public:
    // SRAM 0x00010000..0x0007FFFF (448 KiB): the boot-loader's load address and its
    // initial stack pointer 0x0007E000 both lie inside it.
    static constexpr uint32_t kSramBase = 0x00010000;
    static constexpr uint32_t kSramSize = 0x00070000;
    // Register bytes written outside SRAM are kept up to this many; more is "no memory".
    static constexpr size_t kMaxRegisterBytes = 65536;

    MemoryModel();

    // True when [address, address + count) lies inside SRAM.
    static bool InSram(uint32_t address, uint32_t count);
    // True for a range that does not wrap past the end of the 32-bit address space.
    static bool RangeFits(uint32_t address, uint32_t count);

    void ReadSram(uint32_t address, uint8_t* out, size_t count) const;
    void WriteSram(uint32_t address, const uint8_t* data, size_t count);

    // Single-value access at any address: SRAM where it is SRAM, otherwise the register
    // space, where a byte never written reads as 0.
    void ReadAny(uint32_t address, uint8_t* out, size_t count) const;
    // False (nothing written) when the register space has no room for new bytes.
    bool WriteAny(uint32_t address, const uint8_t* data, size_t count);

private:
    std::vector<uint8_t> m_sram;
    std::unordered_map<uint32_t, uint8_t> m_registers;
};

}  // namespace ksim
