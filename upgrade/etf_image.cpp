#include "upgrade/etf_image.h"

#include <cinttypes>
#include <cstring>
#include <vector>

#include "common/flash_geometry.h"
#include "flashhost/CFlashHost.h"
#include "image/image_format.h"
#include "upgrade/file_region.h"
#include "upgrade/old_block.h"
#include "upgrade/ota_area.h"

namespace {

constexpr uint64_t kAddressSpace = 0x100000000ull;

const StepText kEtfFirstBlockTexts[kCycleSteps] = {
    {"Read ETF old data1...", "Read ETF old data1 error!"},
    {"Checking ETF data1...", "Check ETF data1 error!"},
    {"Erasing ETF data1...", "Erase ETF data1 error!"},
    {"Writing ETF data1...", "Write ETF data1 error!"},
    {"Reading ETF data1...", "Read ETF data1 error!"},
    {"Verifying ETF data1...", "Verify ETF data1 error!"},
};

const StepText kEtfTailTexts[kCycleSteps] = {
    {"", ""},
    {"Checking rest ETF data of 64k...", "Check rest ETF data of 64k error!"},
    {"Erasing rest ETF data of 64k...", "Erase rest ETF data of 64k error!"},
    {"Writing rest ETF data of 64k...", "Write rest ETF data of 64k error!"},
    {"Reading rest ETF data of 64k...", "Read rest ETF data of 64k error!"},
    {"Verifying rest ETF data of 64k...", "Verify rest ETF data of 64k error!"},
};

int Refuse(std::string& why, const char* text)
{
    why = text;
    return -1;
}

// Data1: the block that holds F keeps its content before F (the end of the OTA area
// may lie there) and receives up to K ETF bytes from F on. The file bytes are read
// once, before the first attempt, and so is the block's old content (see
// OldBlockContent); every attempt lays the file bytes over that.
WriteCycle FirstBlockCycle(unsigned char* data, const std::vector<unsigned char>& chunk,
                           const EtfPlan& plan)
{
    WriteCycle cycle;
    cycle.address = plan.firstBlock;
    cycle.length = kUpgradeBlockSize;
    cycle.texts = kEtfFirstBlockTexts;
    cycle.region = "etf";
    cycle.regionTotal = plan.firstChunk + static_cast<uint64_t>(plan.fullBlocks) * kUpgradeBlockSize + plan.tail;
    for (int step = kStepPrepare; step < kCycleSteps; ++step)
        cycle.percent[step] = 4 + step;
    SharedOldBlock old = std::make_shared<OldBlockContent>(plan.firstBlock);
    cycle.prepare = [old, data, &chunk, plan]() {
        if (old->Load(data) != 0)
            return -1;
        // Bytes the file does not supply keep the block's old content.
        std::memcpy(data + (plan.start - plan.firstBlock), chunk.data(), chunk.size());
        return 0;
    };
    return cycle;
}

// The ETF bytes of the first block: K, or fewer when the file ends before the block
// does. A file that cannot supply what its length promised aborts the run.
int ReadFirstChunk(UpgradeRun& run, FILE* source, const std::string& path, const EtfPlan& plan,
                   std::vector<unsigned char>& chunk)
{
    const int64_t available = plan.sourceEnd - plan.sourceOffset;
    const uint32_t count = available < plan.firstChunk ? static_cast<uint32_t>(available)
                                                       : plan.firstChunk;
    chunk.assign(count, flash_geometry::kErasedByte);
    if (!SeekTo(source, plan.sourceOffset)) {
        PrintImageReadFailure(path);
        KeepFirstFailure(run.failure, FailureKind::kImage);
        return -1;
    }
    return ReadImageBytes(run, source, chunk.data(), count, path);
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

int WriteEtfImage(UpgradeRun& run, FILE* source, const std::string& path, const EtfPlan& plan)
{
    unsigned char* data = run.data.get();
    std::puts("\nStart the ETF image programing...");
    std::fflush(stdout);

    std::vector<unsigned char> chunk;
    if (ReadFirstChunk(run, source, path, plan, chunk) != 0)
        return -1;
    WriteCycle first = FirstBlockCycle(data, chunk, plan);
    if (RunWriteCycle(first, data, run.compare.get(), run.failure) != 0)
        return -1;

    FileRegion region;
    region.file = source;  // positioned right after the first block's bytes
    region.path = path;
    region.address = plan.firstBlock + kUpgradeBlockSize;
    region.length = plan.fullBlocks * kUpgradeBlockSize + plan.tail;
    region.tailTexts = kEtfTailTexts;
    region.region = "etf";
    region.regionDone = plan.firstChunk;
    region.regionTotal = first.regionTotal;
    return WriteFileRegion(run, region);
}
