#include "upgrade/file_region.h"

#include "upgrade/block_walk.h"

int WriteFileRegion(UpgradeRun& run, const FileRegion& region)
{
    return ForEachBlock(region.address, region.length, [&](const BlockPiece& piece) {
        // Each block of the file is read once, however many attempts its cycle needs.
        if (LoadBlockFromFile(run, region.file, piece.size, region.path) != 0)
            return -1;
        WriteCycle cycle;
        cycle.address = piece.address;
        if (piece.tail) {
            DescribeTail(cycle, piece.size, region.tailTexts);
        } else {
            DescribeFullBlock(cycle, piece.index, piece.fullBlocks);
            cycle.eraseErrorShowsHostMsg = region.eraseErrorShowsHostMsg;
        }
        cycle.region = region.region;
        cycle.regionDone = region.regionDone + static_cast<uint64_t>(piece.index) * kWalkBlockSize;
        cycle.regionTotal = region.regionTotal;
        return RunWriteCycle(cycle, run.data.get(), run.compare.get(), run.failure);
    });
}
