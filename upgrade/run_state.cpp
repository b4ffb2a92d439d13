#include "upgrade/run_state.h"

#include <cstdio>
#include <cstring>

#include "common/flash_geometry.h"

int ReadImageBytes(UpgradeRun& run, FILE* file, unsigned char* dest, uint32_t count,
                   const std::string& path)
{
    if (std::fread(dest, 1, count, file) == count)
        return 0;
    PrintImageReadFailure(path);
    KeepFirstFailure(run.failure, FailureKind::kImage);
    return -1;
}

int LoadBlockFromFile(UpgradeRun& run, FILE* file, uint32_t count, const std::string& path)
{
    std::memset(run.data.get(), flash_geometry::kErasedByte, kUpgradeBlockSize);
    if (count > kUpgradeBlockSize)
        count = kUpgradeBlockSize;
    return ReadImageBytes(run, file, run.data.get(), count, path);
}

void PrintImageReadFailure(const std::string& path)
{
    std::printf("Failed to read image file: %s\n", path.c_str());
    std::fflush(stdout);
}

bool IsCombinedImagePath(const std::string& path)
{
    static const char kSuffix[] = ".cimg";
    const size_t suffixLength = sizeof kSuffix - 1;
    return path.size() >= suffixLength &&
           path.compare(path.size() - suffixLength, suffixLength, kSuffix) == 0;
}
