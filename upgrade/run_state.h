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
    bool combined = false;         // the main image file is a combined image
    uint32_t mainLength = 0;       // bytes of the main image, from the start of mainFile
    std::unique_ptr<unsigned char[]> data;     // what the next write cycle puts into flash
    std::unique_ptr<unsigned char[]> compare;  // what a check or read-back found in flash
};

// Fills the whole data buffer with 0xFF, the erased value, then reads up to `count`
// bytes of the file into its start. Whatever the file does not supply, and every
// byte after `count` up to the end of the last 512-byte sector that the flash host
// sends, is then 0xFF, so flash past the end of an image stays erased.
void LoadBlockFromFile(UpgradeRun& run, FILE* file, uint32_t count);

// True when the path names a combined image: its last five characters are ".cimg".
bool IsCombinedImagePath(const std::string& path);
