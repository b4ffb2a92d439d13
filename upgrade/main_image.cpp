#include "upgrade/main_image.h"

#include "upgrade/file_region.h"

namespace {

const StepText kMainTailTexts[kCycleSteps] = {
    {"", ""},
    {"Checking rest data of 64k...", "Check rest data of 64k error!"},
    {"Erasing rest data of 64k...", "Erase rest data of 64k error!"},
    {"Writing rest data of 64k...", "Write rest data of 64k error!"},
    {"Reading rest data of 64k...", "Read rest data of 64k error!"},
    {"Verifying rest data of 64k...", "Verify rest data of 64k error!"},
};

}  // namespace

int WriteMainImage(UpgradeRun& run)
{
    FileRegion region;
    region.file = run.mainFile.get();
    region.path = run.mainPath;
    region.address = 0;
    region.length = run.mainLength;
    region.tailTexts = kMainTailTexts;
    region.eraseErrorShowsHostMsg = true;  // only the main image's full blocks add "msg:"
    region.region = "main";
    region.regionTotal = run.mainLength;
    return WriteFileRegion(run, region);
}
