// The OTA area: where the main image's first section header says it lies, and how
// an upgrade initialises it with a fresh OTA header and erased space.
#pragma once
#include <cstdint>
#include <string>

#include "upgrade/run_state.h"

// The OTA area and the values derived from it (all flash addresses, unsigned 32-bit).
struct OtaLayout {
    uint32_t address = 0;        // A: start of the area
    uint32_t size = 0;           // S: bytes in the area
    uint32_t firstBlock = 0;     // B0: the 64 KiB block that holds A
    uint32_t end = 0;            // E: first byte after the area
    uint32_t lastBlock = 0;      // BE: the 64 KiB block that holds E
    uint32_t blocksCrossed = 0;  // (BE - B0) / 64 KiB; 0 when the area lies inside one block
    uint32_t room = 0;           // bytes from A to the end of its block
    uint32_t firstShare = 0;     // bytes of the area inside the first block's cycle
};

constexpr uint32_t kNoOtaArea = 0xFFFFFFFF;

// The area size from the first word of the header's private bytes: its upper 24
// bits, with all ones standing for the default 32,768.
uint32_t OtaAreaSize(uint32_t sizeWord);

// Whether the OTA phase runs for an image of this version and OTA address.
bool OtaPhaseWanted(uint32_t version, uint32_t otaAddress);

// The derived values of the area at `address` of `size` bytes.
OtaLayout ComputeOtaLayout(uint32_t address, uint32_t size);

// 0 when the area can be initialised; -1 with the reason in `why` when it cannot:
// an area smaller than the OTA header, or one that runs past the 4 GiB address space.
int CheckOtaLayout(const OtaLayout& layout, std::string& why);

// Preparations of the cycles, applied to a block read from flash (the data buffer).
// The first block: the OTA header at A and 0xFF over the rest of the area that lies
// in this block.
void PrepareOtaFirstBlock(const OtaLayout& layout, unsigned char* block);
// The last block: 0xFF over the part of the area that lies in it.
void PrepareOtaLastBlock(const OtaLayout& layout, unsigned char* block);
// The header bytes that did not fit in the first block, at the start of the buffer,
// followed by 0xFF. Returns how many header bytes that is (0: none to write).
uint32_t PrepareOtaRemainder(const OtaLayout& layout, unsigned char* block);

// The OTA phase on a layout that passed CheckOtaLayout: 0 when the area is
// initialised, -1 when the run must abort.
int WriteOtaArea(UpgradeRun& run, const OtaLayout& layout);
