// Writes a combined image: the main image's bytes followed at once by the ETF
// image's bytes, with no gap, header or alignment.
#include "frontend/driver.h"

#include <cstdio>
#include <memory>

#include "frontend/Setting.h"
#include "common/stdio_file.h"

namespace {

enum { kCopyChunkSize = 4096 };

// Appends the whole of from to to. A short read ends the copy as the end of the
// file does.
void CopyFile(std::FILE* from, std::FILE* to, unsigned char* chunk)
{
    size_t got;
    do {
        got = std::fread(chunk, 1, kCopyChunkSize, from);
        if (got > 0)
            std::fwrite(chunk, 1, got, to);
    } while (got == kCopyChunkSize);
}

}  // namespace

int CombineImage()
{
    UniqueFile image = OpenFile(g_Setting.strImagePath, "r");
    if (!image) {
        std::printf("Failed to open image file: %s\n", g_Setting.strImagePath);
        return -1;
    }
    UniqueFile etfImage = OpenFile(g_Setting.strEtfImagePath, "r");
    if (!etfImage) {
        std::printf("Failed to open ETF image file: %s\n", g_Setting.strEtfImagePath);
        return -1;
    }
    UniqueFile combined = OpenFile(g_Setting.strCombineImagePath, "w+");
    if (!combined) {
        std::printf("Failed to create combine image file: %s\n", g_Setting.strCombineImagePath);
        return -1;
    }
    std::unique_ptr<unsigned char[]> chunk(new unsigned char[kCopyChunkSize]);
    CopyFile(image.get(), combined.get(), chunk.get());
    CopyFile(etfImage.get(), combined.get(), chunk.get());
    combined.reset();
    std::printf("Create combine image file: %s SUCCESS!\n", g_Setting.strCombineImagePath);
    return 0;
}
