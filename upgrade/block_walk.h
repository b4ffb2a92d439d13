// The one walk over a flash range: its full 64 KiB blocks in ascending order, then
// the tail that is left. The main image, the ETF image and the flash debug mode
// all move their data this way.
#pragma once
#include <cstdint>

#include "common/flash_geometry.h"

enum { kWalkBlockSize = flash_geometry::kUpgradeBlockSize };

struct BlockPiece {
    uint32_t index;       // 0 for the first full block; `fullBlocks` for the tail
    uint32_t fullBlocks;  // how many full blocks the range has
    uint32_t address;     // flash address of the piece
    uint32_t size;        // 65,536, or the tail's length (1 to 65,535)
    bool tail;
};

// Calls step(const BlockPiece&) for every piece that holds bytes. Returns 0, or the
// first non-zero result of a step, which ends the walk. A range of length 0 has no
// pieces. Addresses are 32-bit: callers make sure the range does not wrap.
template <typename Step>
int ForEachBlock(uint32_t address, uint32_t length, Step step)
{
    const uint32_t fullBlocks = length / kWalkBlockSize;
    const uint32_t tail = length % kWalkBlockSize;
    for (uint32_t i = 0; i < fullBlocks; ++i) {
        if (int result = step(BlockPiece{i, fullBlocks, address + i * kWalkBlockSize,
                                         kWalkBlockSize, false}))
            return result;
    }
    if (tail == 0)
        return 0;
    return step(BlockPiece{fullBlocks, fullBlocks, address + fullBlocks * kWalkBlockSize, tail, true});
}
