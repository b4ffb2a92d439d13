// The commands beside the upgrade: check flash against the images, erase the whole
// flash, write raw files at addresses, and show what the target announced. Each
// connects like an upgrade (wake text, OpenUart with its link profile), prints its
// lines on standard output, reports progress through run_report, and closes.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "common/failure_kind.h"
#include "upgrade/flash_regions.h"

// Connects to the target as an upgrade does; on failure prints the flash host's
// text, leaves its class in `failure` and returns -1.
int ConnectForCommand(FailureKind& failure);

// --verify: one region checked against flash.
struct VerifiedRegion {
    std::string name;                   // "main", "ota", "etf"
    uint32_t address = 0;
    uint32_t length = 0;
    bool equal = true;
    uint32_t firstDifference = 0;       // flash address, when not equal
    std::vector<uint32_t> blocks;       // 64 KiB blocks holding a difference
};

// Compares whatever the upgrade would write (main image, OTA header, ETF image)
// with flash; writes nothing. 0 when all equal; -1 with the class in `failure`
// (kVerify when flash differs).
int VerifyImages(std::vector<VerifiedRegion>& regions, FailureKind& failure);

// --erase-all: erases every block of the flash; refuses when the capacity is unknown.
int EraseAllFlash(FailureKind& failure);

// --write: one file's bytes and where they go.
struct RawWrite {
    uint32_t address = 0;
    std::vector<unsigned char> bytes;
    std::string source;  // the file, for the lines
};

// Checks the writes against each other and, with a known capacity, against the
// flash: 0, or -1 with the refusal line printed.
int CheckRawWrites(const std::vector<RawWrite>& writes, uint64_t capacity);

// Erases the blocks the writes cover (keeping the bytes of a partly covered block
// that no write covers), writes and reads back.
int WriteRawFiles(const std::vector<RawWrite>& writes, FailureKind& failure);

// --info: what the connection learned.
struct TargetInfo {
    std::vector<unsigned char> flashId;
    uint64_t capacity = 0;     // from the identifier; 0 unknown
    int responder = 0;
    bool bootLoader = false;   // a boot-loader was uploaded and runs
    uint32_t rate = 0;         // the working rate reached
};

int ReadTargetInfo(TargetInfo& info, FailureKind& failure);
