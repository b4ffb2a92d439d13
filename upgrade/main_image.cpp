#include "upgrade/main_image.h"

#include <cstring>

namespace {

const StepText kMainTailTexts[kCycleSteps] = {
    {"", ""},
    {"%d%%: Checking rest data of 64k...\n", "Check rest data of 64k error!"},
    {"%d%%: Erasing rest data of 64k...\n", "Erase rest data of 64k error!"},
    {"%d%%: Writing rest data of 64k...\n", "Write rest data of 64k error!"},
    {"%d%%: Reading rest data of 64k...\n", "Read rest data of 64k error!"},
    {"%d%%: Verifying rest data of 64k...\n", "Verify rest data of 64k error!"},
};

}  // namespace

int WriteMainImage(UpgradeRun& run)
{
    const uint32_t blocks = run.mainLength / kUpgradeBlockSize;
    const uint32_t tail = run.mainLength % kUpgradeBlockSize;
    FILE* image = run.mainFile.get();

    for (uint32_t i = 0; i < blocks; ++i) {
        LoadBlockFromFile(run, image, kUpgradeBlockSize);
        WriteCycle cycle;
        cycle.address = i * kUpgradeBlockSize;
        DescribeFullBlock(cycle, i, blocks);
        cycle.eraseErrorShowsHostMsg = true;
        if (RunWriteCycle(cycle, run.data.get(), run.compare.get()) != 0)
            return -1;
    }
    if (tail == 0)
        return 0;
    LoadBlockFromFile(run, image, tail);
    WriteCycle cycle;
    cycle.address = blocks * kUpgradeBlockSize;
    DescribeTail(cycle, tail, kMainTailTexts);
    return RunWriteCycle(cycle, run.data.get(), run.compare.get());
}
