// A run of image-file bytes written to flash block by block: the main image, and
// the ETF image after its first block. Full blocks carry numbered texts, the tail
// its region's own texts.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

#include "upgrade/run_state.h"

struct FileRegion {
    FILE* file = nullptr;               // read sequentially from its current position
    std::string path;                   // for the message of a failed read
    uint32_t address = 0;               // flash address of the first byte
    uint32_t length = 0;                // bytes to write
    const StepText* tailTexts = nullptr;
    bool eraseErrorShowsHostMsg = false;
    const char* region = "main";
    uint64_t regionDone = 0;            // bytes of the region written before this run
    uint64_t regionTotal = 0;
};

// 0 when every byte is in flash; -1 when the run must abort (the file could not
// supply its bytes, a stop, or a cycle that used up its attempts).
int WriteFileRegion(UpgradeRun& run, const FileRegion& region);
