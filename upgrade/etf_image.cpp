#include "upgrade/etf_image.h"

#include <cinttypes>

#include "flashhost/CFlashHost.h"
#include "image/image_format.h"
#include "upgrade/ota_area.h"

namespace {

constexpr uint64_t kAddressSpace = 0x100000000ull;

const StepText kEtfFirstBlockTexts[kCycleSteps] = {
    {"%d%%: Read ETF old data1...\n", "Read ETF old data1 error!"},
    {"%d%%: Checking ETF data1...\n", "Check ETF data1 error!"},
    {"%d%%: Erasing ETF data1...\n", "Erase ETF data1 error!"},
    {"%d%%: Writing ETF data1...\n", "Write ETF data1 error!"},
    {"%d%%: Reading ETF data1...\n", "Read ETF data1 error!"},
    {"%d%%: Verifying ETF data1...\n", "Verify ETF data1 error!"},
};

const StepText kEtfTailTexts[kCycleSteps] = {
    {"", ""},
    {"%d%%: Checking rest ETF data of 64k...\n", "Check rest ETF data of 64k error!"},
    {"%d%%: Erasing rest ETF data of 64k...\n", "Erase rest ETF data of 64k error!"},
    {"%d%%: Writing rest ETF data of 64k...\n", "Write rest ETF data of 64k error!"},
    {"%d%%: Reading rest ETF data of 64k...\n", "Read rest ETF data of 64k error!"},
    {"%d%%: Verifying rest ETF data of 64k...\n", "Verify rest ETF data of 64k error!"},
};

int Refuse(std::string& why, const char* text)
{
    why = text;
    return -1;
}

// Data1: the block that holds F keeps its content before F (the end of the OTA area
// may lie there) and receives up to K ETF bytes from F on. Every attempt re-reads
// both, so the file position after it is where the full blocks continue.
WriteCycle FirstBlockCycle(unsigned char* data, FILE* source, const EtfPlan& plan)
{
    WriteCycle cycle;
    cycle.address = plan.firstBlock;
    cycle.length = kUpgradeBlockSize;
    cycle.texts = kEtfFirstBlockTexts;
    for (int step = kStepPrepare; step < kCycleSteps; ++step)
        cycle.percent[step] = 4 + step;
    cycle.prepare = [data, source, plan]() {
        if (g_flashHost.ReadFlashLength(plan.firstBlock, data, kUpgradeBlockSize) != 0)
            return -1;
        if (!SeekTo(source, plan.sourceOffset))
            return -1;
        // Bytes the file does not supply keep the block's old content.
        size_t got = std::fread(data + (plan.start - plan.firstBlock), 1, plan.firstChunk, source);
        (void)got;
        return 0;
    };
    return cycle;
}

}  // namespace

int PlanEtfImage(uint32_t otaSizeWord, uint32_t otaAddress, const EtfSource& source,
                 EtfPlan& plan, std::string& why)
{
    // The ETF image goes right behind the OTA area. Without an OTA area it has no
    // place, and the address would wrap around: such an image is refused.
    if (otaAddress == kNoOtaArea)
        return Refuse(why, "The main image defines no OTA area, so the ETF image has no place in flash!");
    // The size is read as the OTA phase reads it (all ones: 32,768), so that the ETF
    // image starts exactly where the initialised OTA area ends.
    const uint64_t start = static_cast<uint64_t>(otaAddress) + OtaAreaSize(otaSizeWord);
    if (start >= kAddressSpace)
        return Refuse(why, "The ETF image would start past the 32-bit flash address space!");
    // Its first section is not programmed; a chain that ends there leaves nothing.
    if (source.firstNext == kLastSection)
        return Refuse(why, "The ETF image has no section after its first one: nothing to program!");
    const int64_t offset = source.base + source.firstNext;
    if (offset >= source.end)
        return Refuse(why, "The ETF data begin past the end of the image file: nothing to program!");

    plan.start = static_cast<uint32_t>(start);
    plan.firstBlock = plan.start & ~static_cast<uint32_t>(kUpgradeBlockSize - 1);
    plan.firstChunk = kUpgradeBlockSize - (plan.start % kUpgradeBlockSize);
    plan.sourceOffset = offset;
    plan.sourceEnd = source.end;
    const uint64_t available = static_cast<uint64_t>(source.end - offset);
    const uint64_t rest = available > plan.firstChunk ? available - plan.firstChunk : 0;
    const uint64_t blocksAfterFirst = rest / kUpgradeBlockSize + (rest % kUpgradeBlockSize ? 1 : 0);
    if (plan.firstBlock + (1 + blocksAfterFirst) * kUpgradeBlockSize > kAddressSpace)
        return Refuse(why, "The ETF image runs past the 32-bit flash address space!");
    plan.fullBlocks = static_cast<uint32_t>(rest / kUpgradeBlockSize);
    plan.tail = static_cast<uint32_t>(rest % kUpgradeBlockSize);
    return 0;
}

int WriteEtfImage(UpgradeRun& run, FILE* source, const EtfPlan& plan)
{
    unsigned char* data = run.data.get();
    unsigned char* compare = run.compare.get();
    std::puts("\nStart the ETF image programing...");
    std::fflush(stdout);

    if (RunWriteCycle(FirstBlockCycle(data, source, plan), data, compare) != 0)
        return -1;
    const uint32_t afterFirst = plan.firstBlock + kUpgradeBlockSize;
    for (uint32_t i = 0; i < plan.fullBlocks; ++i) {
        LoadBlockFromFile(run, source, kUpgradeBlockSize);
        WriteCycle cycle;
        cycle.address = afterFirst + i * kUpgradeBlockSize;
        DescribeFullBlock(cycle, i, plan.fullBlocks);
        if (RunWriteCycle(cycle, data, compare) != 0)
            return -1;
    }
    if (plan.tail == 0)
        return 0;
    LoadBlockFromFile(run, source, plan.tail);
    WriteCycle cycle;
    cycle.address = afterFirst + plan.fullBlocks * kUpgradeBlockSize;
    DescribeTail(cycle, plan.tail, kEtfTailTexts);
    return RunWriteCycle(cycle, data, compare);
}
