// Writes a combined image: the main image's bytes followed at once by the ETF
// image's bytes, with no gap, header or alignment.
#include "frontend/driver.h"

#include <cstdio>
#include <memory>
#include <sys/stat.h>

#include "common/stdio_file.h"
#include "frontend/Setting.h"
#include "image/FwParser.h"

namespace {

enum { kCopyChunkSize = 4096 };

enum CopyResult { kCopied, kReadFailed, kWriteFailed };

// Appends the whole of from to to, checking every read and every write.
CopyResult CopyFile(std::FILE* from, std::FILE* to, unsigned char* chunk)
{
    size_t got;
    do {
        got = std::fread(chunk, 1, kCopyChunkSize, from);
        if (got > 0 && std::fwrite(chunk, 1, got, to) != got)
            return kWriteFailed;
    } while (got == kCopyChunkSize);
    return std::ferror(from) ? kReadFailed : kCopied;
}

bool IsRegularFile(std::FILE* file)
{
    struct stat info;
    return fstat(fileno(file), &info) == 0 && S_ISREG(info.st_mode);
}

int Fail(FailureKind* failure, FailureKind kind)
{
    if (failure)
        *failure = kind;
    return -1;
}

// A failed combine leaves no partial image behind. The output was opened for
// writing (and so emptied) by this run, so removing it loses nothing; but only a
// regular file is removed, never a device, pipe or other special file the path
// may name. An image that cannot be read is the image's failure; an output that
// cannot be written, the local file's.
int FailAndRemove(UniqueFile& combined, bool removable, const char* what, const char* path,
                  FailureKind* failure, FailureKind kind)
{
    combined.reset();
    if (removable)
        std::remove(g_Setting.strCombineImagePath);
    std::printf("Failed to %s: %s\n", what, path);
    return Fail(failure, kind);
}

// A combined image of a damaged input would later be programmed as if it were
// good, so each input must parse as an image before the output is created.
bool ValidImage(FwParser& parser, const char* path)
{
    parser.SetFilePath(path);
    const bool valid = parser.Parse() == 0;
    if (!valid)
        std::printf("Refused: %s is not a valid image (%s); nothing written\n", path,
                    parser.strErrMsg.c_str());
    parser.FreeParser();
    return valid;
}

}  // namespace

int CombineImage(FailureKind* failure)
{
    UniqueFile image = OpenFile(g_Setting.strImagePath, "r");
    if (!image) {
        std::printf("Failed to open image file: %s\n", g_Setting.strImagePath);
        return Fail(failure, FailureKind::kImage);
    }
    UniqueFile etfImage = OpenFile(g_Setting.strEtfImagePath, "r");
    if (!etfImage) {
        std::printf("Failed to open ETF image file: %s\n", g_Setting.strEtfImagePath);
        return Fail(failure, FailureKind::kImage);
    }
    if (!ValidImage(g_fwParser, g_Setting.strImagePath) ||
        !ValidImage(g_etfFwParser, g_Setting.strEtfImagePath))
        return Fail(failure, FailureKind::kImage);
    UniqueFile combined = OpenFile(g_Setting.strCombineImagePath, "w+");
    if (!combined) {
        std::printf("Failed to create combine image file: %s\n", g_Setting.strCombineImagePath);
        return Fail(failure, FailureKind::kLocalFile);
    }
    const bool removable = IsRegularFile(combined.get());
    const char* const writeFailed = "write combine image file";
    std::unique_ptr<unsigned char[]> chunk(new unsigned char[kCopyChunkSize]);
    const struct {
        std::FILE* from;
        const char* path;
    } parts[] = {{image.get(), g_Setting.strImagePath}, {etfImage.get(), g_Setting.strEtfImagePath}};
    for (const auto& part : parts) {
        CopyResult result = CopyFile(part.from, combined.get(), chunk.get());
        if (result == kReadFailed)
            return FailAndRemove(combined, removable, "read image file", part.path, failure,
                                 FailureKind::kImage);
        if (result == kWriteFailed)
            return FailAndRemove(combined, removable, writeFailed, g_Setting.strCombineImagePath,
                                 failure, FailureKind::kLocalFile);
    }
    // Buffered bytes reach the disk only at the close: a full disk shows there.
    if (std::fclose(combined.release()) != 0)
        return FailAndRemove(combined, removable, writeFailed, g_Setting.strCombineImagePath,
                             failure, FailureKind::kLocalFile);
    std::printf("Create combine image file: %s SUCCESS!\n", g_Setting.strCombineImagePath);
    return 0;
}
