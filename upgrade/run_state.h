// The working state of one upgrade run, shared by its phases: the open image files
// and the two 64 KiB buffers. Owned by the worker thread for the length of the run.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "common/stdio_file.h"
#include "upgrade/write_cycle.h"

struct UpgradeRun {
    UniqueFile mainFile;
    UniqueFile etfFile;            // open only when the ETF image is enabled
    std::string mainPath;          // the paths, for the messages of failed reads
    std::string etfPath;
    bool combined = false;         // the main image file is a combined image
    uint32_t mainLength = 0;       // bytes of the main image, from the start of mainFile
    std::unique_ptr<unsigned char[]> data;     // what the next write cycle puts into flash
    std::unique_ptr<unsigned char[]> compare;  // what a check or read-back found in flash
    FailureKind failure = FailureKind::kNone;  // the cause, once the run fails
};

// Fills the whole data buffer with 0xFF, the erased value, then reads exactly
// `count` bytes of the file into its start, so every byte after `count` up to the
// end of the last 512-byte sector that the flash host sends is 0xFF and flash past
// the end of an image stays erased. A file that cannot supply all `count` bytes
// (read error, or shortened since it was parsed) is never programmed with erased
// bytes in their place: "Failed to read image file: PATH" is printed, the run's
// failure is an image failure, and the result is -1, which aborts the run.
int LoadBlockFromFile(UpgradeRun& run, FILE* file, uint32_t count, const std::string& path);

// Reads exactly `count` bytes of the file into `dest`; on a short read or error
// prints "Failed to read image file: PATH", records an image failure in the run
// and returns -1.
int ReadImageBytes(UpgradeRun& run, FILE* file, unsigned char* dest, uint32_t count,
                   const std::string& path);

// Prints "Failed to read image file: PATH" at once.
void PrintImageReadFailure(const std::string& path);

// True when the path names a combined image: its last five characters are ".cimg".
bool IsCombinedImagePath(const std::string& path);
