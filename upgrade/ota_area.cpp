#include "upgrade/ota_area.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common/flash_geometry.h"
#include "flashhost/CFlashHost.h"
#include "upgrade/UpGrade.h"
#include "upgrade/old_block.h"

namespace {

constexpr uint32_t kDefaultOtaSizeBits = 0xFFFFFF;
constexpr uint32_t kDefaultOtaSize = 32768;
constexpr uint32_t kBlockMask = ~static_cast<uint32_t>(kUpgradeBlockSize - 1);
constexpr int kFirstBlockPercent = 95;
constexpr int kInnerBlocksPercent = 96;
constexpr int kLastBlockPercent = 97;
constexpr int kRemainderPercent = 99;

const StepText kFirstBlockTexts[kCycleSteps] = {
    {"Read old data1...", "Read old data1 error!"},
    {"Checking OTA data1...", "Check OTA data1 error!"},
    {"Erasing OTA data1...", "Erase OTA data1 error!"},
    {"Writing OTA data1...", "Write OTA data1 error!"},
    {"Reading OTA data1...", "Read OTA data1 error!"},
    {"Verifying OTA data1...", "Verify OTA data1 error!"},
};

const StepText kLastBlockTexts[kCycleSteps] = {
    {"Read old data3...", "Read old data3 error!"},
    {"Checking OTA data3...", "Check OTA data3 error!"},
    {"Erasing OTA data3...", "Erase OTA data3 error!"},
    {"Writing OTA data3...", "Write OTA data3 error!"},
    {"Reading OTA data3...", "Read OTA data3 error!"},
    {"Verifying OTA data3...", "Verify OTA data3 error!"},
};

// The remainder goes into flash that data2 or data3 has just erased: no check, no erase.
const StepText kRemainderTexts[kCycleSteps] = {
    {"", ""},
    {"", ""},
    {"", ""},
    {"Writing OTA data4...", "Write OTA data4 error!"},
    {"Reading OTA data4...", "Read OTA data4 error!"},
    {"Verifying OTA data4...", "Verify OTA data4 error!"},
};

void SetAllPercentages(WriteCycle& cycle, int percent)
{
    for (int& p : cycle.percent)
        p = percent;
}

// A block cycle whose preparation puts the block's old content into the data buffer
// and then edits it. The old content is read from flash once (see OldBlockContent).
WriteCycle OldContentCycle(uint32_t blockAddress, unsigned char* data, const StepText* texts,
                           int percent, const OtaLayout& layout,
                           void (*edit)(const OtaLayout&, unsigned char*))
{
    WriteCycle cycle;
    cycle.address = blockAddress;
    cycle.length = kUpgradeBlockSize;
    cycle.texts = texts;
    cycle.region = "ota";
    cycle.regionTotal = layout.size;
    SetAllPercentages(cycle, percent);
    SharedOldBlock old = std::make_shared<OldBlockContent>(blockAddress);
    cycle.prepare = [old, data, &layout, edit]() {
        if (old->Load(data) != 0)
            return -1;
        edit(layout, data);
        return 0;
    };
    return cycle;
}

// Data2: the blocks wholly inside the area are only erased. A failed erase is
// reported and passed over; only a stop request ends the phase here.
int EraseInnerBlocks(const OtaLayout& layout)
{
    for (uint32_t i = 1; i < layout.blocksCrossed; ++i) {
        if (StopRequested())
            return -1;
        std::printf("%d%%: Erasing OTA data2...\n", kInnerBlocksPercent);
        std::fflush(stdout);
        if (g_flashHost.EraseFlashLength(layout.firstBlock + i * kUpgradeBlockSize,
                                         kUpgradeBlockSize) != 0) {
            std::puts("Erase OTA data2 error!");
            std::fflush(stdout);
            g_flashHost.Pause(link_timing::kOtaEraseRetryPauseUs);
        }
    }
    return 0;
}

}  // namespace

uint32_t OtaAreaSize(uint32_t sizeWord)
{
    uint32_t bits = sizeWord >> 8;
    return bits == kDefaultOtaSizeBits ? kDefaultOtaSize : bits;
}

bool OtaPhaseWanted(uint32_t version, uint32_t otaAddress)
{
    return version >= 2 && otaAddress != kNoOtaArea;
}

OtaLayout ComputeOtaLayout(uint32_t address, uint32_t size)
{
    OtaLayout layout;
    layout.address = address;
    layout.size = size;
    layout.firstBlock = address & kBlockMask;
    layout.end = address + size;
    layout.lastBlock = layout.end & kBlockMask;
    layout.blocksCrossed = (layout.lastBlock - layout.firstBlock) / kUpgradeBlockSize;
    layout.room = layout.firstBlock + kUpgradeBlockSize - address;
    layout.firstShare = layout.blocksCrossed != 0 ? layout.room : size;
    return layout;
}

int CheckOtaLayout(const OtaLayout& layout, std::string& why)
{
    char text[160];
    // An area too small for the header would have the header written past its end
    // (and past the data buffer); such an image is refused instead.
    if (layout.size < kOtaHeaderSize) {
        std::snprintf(text, sizeof text,
                      "OTA area of %u bytes at 0x%08X is smaller than the %d-byte OTA header!",
                      layout.size, layout.address, kOtaHeaderSize);
        why = text;
        return -1;
    }
    if (static_cast<uint64_t>(layout.address) + layout.size > 0xFFFFFFFFu) {
        std::snprintf(text, sizeof text,
                      "OTA area of %u bytes at 0x%08X runs past the 32-bit flash address space!",
                      layout.size, layout.address);
        why = text;
        return -1;
    }
    return 0;
}

void PrepareOtaFirstBlock(const OtaLayout& layout, unsigned char* block)
{
    const uint32_t start = layout.address - layout.firstBlock;
    if (layout.blocksCrossed == 0) {
        // The whole area lies in this block, and CheckOtaLayout made sure it holds
        // the header: the header, then 0xFF up to the end of the area.
        std::memset(block + start, flash_geometry::kErasedByte, layout.size);
        std::memcpy(block + start, OtaBuf, kOtaHeaderSize);
        return;
    }
    const uint32_t headerPart = std::min<uint32_t>(layout.room, kOtaHeaderSize);
    std::memset(block + start, flash_geometry::kErasedByte, layout.room);
    std::memcpy(block + start, OtaBuf, headerPart);
}

void PrepareOtaLastBlock(const OtaLayout& layout, unsigned char* block)
{
    std::memset(block, flash_geometry::kErasedByte, layout.end - layout.lastBlock);
}

uint32_t PrepareOtaRemainder(const OtaLayout& layout, unsigned char* block)
{
    std::memset(block, flash_geometry::kErasedByte, kUpgradeBlockSize);
    if (layout.firstShare >= kOtaHeaderSize)
        return 0;
    const uint32_t remainder = kOtaHeaderSize - layout.firstShare;
    std::memcpy(block, OtaBuf + layout.firstShare, remainder);
    return remainder;
}

int WriteOtaArea(UpgradeRun& run, const OtaLayout& layout)
{
    unsigned char* data = run.data.get();
    unsigned char* compare = run.compare.get();
    GenerateOtaBuf(layout.size);

    WriteCycle first = OldContentCycle(layout.firstBlock, data, kFirstBlockTexts,
                                       kFirstBlockPercent, layout, PrepareOtaFirstBlock);
    if (RunWriteCycle(first, data, compare, run.failure) != 0)
        return -1;
    if (StopRequested())
        return -1;
    if (EraseInnerBlocks(layout) != 0)
        return -1;
    if (layout.blocksCrossed != 0) {
        WriteCycle last = OldContentCycle(layout.lastBlock, data, kLastBlockTexts,
                                          kLastBlockPercent, layout, PrepareOtaLastBlock);
        if (RunWriteCycle(last, data, compare, run.failure) != 0)
            return -1;
    }
    const uint32_t remainder = PrepareOtaRemainder(layout, data);
    if (remainder == 0)
        return 0;
    WriteCycle tail;
    tail.address = layout.firstBlock + kUpgradeBlockSize;
    tail.length = remainder;
    tail.texts = kRemainderTexts;
    tail.checkAndErase = false;
    tail.region = "ota";
    tail.regionTotal = layout.size;
    SetAllPercentages(tail, kRemainderPercent);
    return RunWriteCycle(tail, data, compare, run.failure);
}
