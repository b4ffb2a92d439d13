// NOR flash model: erase sets a whole 64 KiB block to 0xFF, programming can only
// clear bits. With a backing file every change reaches the file before the target
// acknowledges it, so a test can compare the file as soon as the host is done.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sim/fd_holder.h"

namespace ksim {

class NorFlash {
public:
    static constexpr uint32_t kBlockSize = 65536;
    static constexpr uint32_t kSectorSize = 512;
    static constexpr uint32_t kMaxSize = 256u << 20;

    // Makes an erased flash of `size` bytes (a multiple of the block size). With a
    // path, the file is loaded, or created erased when it is missing or empty; a file
    // of another size is refused. False with a message in `error`.
    bool Open(const std::string& path, uint32_t size, std::string& error);

    uint32_t Size() const { return static_cast<uint32_t>(m_cells.size()); }
    bool Contains(uint32_t address, uint32_t count) const;
    // True when `count` whole sectors from sector number `sector` lie inside the
    // flash; checked in 64 bits so that huge sector numbers cannot wrap around.
    bool ContainsSectors(uint32_t sector, uint32_t count) const;

    // Erases the block holding `address`. False when the file could not be updated.
    bool EraseBlock(uint32_t address);
    // Programs bytes by AND-ing them into the cells. False when the file could not be updated.
    bool Program(uint32_t address, const uint8_t* data, size_t count);
    void Read(uint32_t address, uint8_t* out, size_t count) const;

    uint32_t BlockCount() const { return static_cast<uint32_t>(m_eraseCounts.size()); }
    uint32_t EraseCount(uint32_t block) const { return m_eraseCounts[block]; }

    const std::string& LastError() const { return m_lastError; }

private:
    bool WriteThrough(uint32_t address, size_t count);
    bool LoadFile(const std::string& path, std::string& error);

    std::vector<uint8_t> m_cells;
    std::vector<uint32_t> m_eraseCounts;
    FdHolder m_file;
    std::string m_lastError;
};

}  // namespace ksim
