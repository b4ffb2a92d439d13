// --write: raw files at flash addresses, block by block through the write cycle.
// A block the files cover only in part is read first and the files' bytes laid
// over it, so the bytes no file covers come back as they were.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>

#include "common/flash_geometry.h"
#include "common/run_report.h"
#include "flashhost/CFlashHost.h"
#include "upgrade/everyday_commands.h"
#include "upgrade/flash_regions.h"
#include "upgrade/write_cycle.h"

namespace {

const uint32_t kBlock = flash_geometry::kEraseBlockSize;

// The blocks any write touches, ascending, each once.
std::vector<uint32_t> CoveredBlocks(const std::vector<RawWrite>& writes)
{
    std::vector<uint32_t> blocks;
    for (const RawWrite& w : writes) {
        if (w.bytes.empty())
            continue;
        const uint64_t last = uint64_t(w.address) + w.bytes.size() - 1;
        for (uint64_t b = w.address / kBlock * uint64_t(kBlock); b <= last; b += kBlock)
            blocks.push_back(static_cast<uint32_t>(b));
    }
    std::sort(blocks.begin(), blocks.end());
    blocks.erase(std::unique(blocks.begin(), blocks.end()), blocks.end());
    return blocks;
}

// Lays every write's bytes that fall in the block over `data`; returns how many
// bytes of the block the writes cover (they never overlap each other).
uint32_t OverlayWrites(const std::vector<RawWrite>& writes, uint32_t block, unsigned char* data)
{
    uint32_t covered = 0;
    for (const RawWrite& w : writes) {
        const uint64_t begin = std::max<uint64_t>(w.address, block);
        const uint64_t end = std::min<uint64_t>(uint64_t(w.address) + w.bytes.size(), uint64_t(block) + kBlock);
        if (begin >= end)
            continue;
        std::memcpy(data + (begin - block), w.bytes.data() + (begin - w.address), end - begin);
        covered += static_cast<uint32_t>(end - begin);
    }
    return covered;
}

// Fills `data` with what the block must hold afterwards; -1 when the old bytes
// that must be kept cannot be read.
int PrepareBlock(const std::vector<RawWrite>& writes, uint32_t block, unsigned char* data)
{
    std::memset(data, flash_geometry::kErasedByte, kBlock);
    if (OverlayWrites(writes, block, data) == kBlock)
        return 0;
    if (g_flashHost.ReadFlashLength(block, data, kBlock) != 0) {
        std::printf("Read failed at 0x%08X: %s\n", block, g_flashHost.m_strMsg.c_str());
        return -1;
    }
    OverlayWrites(writes, block, data);
    return 0;
}

}  // namespace

int CheckRawWrites(const std::vector<RawWrite>& writes, uint64_t capacity)
{
    std::vector<FlashRegion> regions;
    for (const RawWrite& w : writes)
        regions.push_back(FlashRegion{w.source, w.address, w.bytes.size()});
    std::string why;
    if (CheckFlashRegions(regions, capacity, why) == 0)
        return 0;
    std::printf("%s\n", why.c_str());
    return -1;
}

int WriteRawFiles(const std::vector<RawWrite>& writes, FailureKind& failure)
{
    if (ConnectForCommand(failure) != 0)
        return -1;
    // The identifier is known now: ranges past the flash are refused before any erase.
    if (CheckRawWrites(writes, FlashCapacityInUse()) != 0) {
        KeepFirstFailure(failure, FailureKind::kUsage);
        g_flashHost.Close();
        return -1;
    }
    const auto start = std::chrono::steady_clock::now();
    const std::vector<uint32_t> blocks = CoveredBlocks(writes);
    std::unique_ptr<unsigned char[]> data(new unsigned char[kBlock]);
    std::unique_ptr<unsigned char[]> compare(new unsigned char[kBlock]);
    for (size_t i = 0; i < blocks.size(); ++i) {
        // Prepared once, before the cycle: a retry after a failed erase must not
        // read the kept bytes back from erased flash.
        if (PrepareBlock(writes, blocks[i], data.get()) != 0) {
            KeepFirstFailure(failure, FailureKind::kFlashCommand);
            g_flashHost.Close();
            return -1;
        }
        WriteCycle cycle;
        cycle.address = blocks[i];
        DescribeFullBlock(cycle, static_cast<uint32_t>(i), static_cast<uint32_t>(blocks.size()));
        cycle.region = "flash";
        cycle.regionDone = uint64_t(i) * kBlock;
        cycle.regionTotal = uint64_t(blocks.size()) * kBlock;
        if (RunWriteCycle(cycle, data.get(), compare.get(), failure) != 0) {
            g_flashHost.Close();
            return -1;
        }
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    run_report::Region("flash", uint64_t(blocks.size()) * kBlock, took.count());
    for (const RawWrite& w : writes)
        std::printf("Write %s at %s OK!\n", w.source.c_str(), DescribeFlashRange(w.address, w.bytes.size()).c_str());
    g_flashHost.Close();
    return 0;
}
