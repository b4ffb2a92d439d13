// The ETF image: placed directly behind the OTA area, written from its second
// section on, from its own file or from the ETF part of a combined image.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

#include "upgrade/run_state.h"

struct EtfPlan {
    uint32_t start = 0;       // F: flash address of the first ETF byte
    uint32_t firstBlock = 0;  // FB: the 64 KiB block that holds F
    uint32_t firstChunk = 0;  // K: ETF bytes that fill the first block from F to its end
    int64_t sourceOffset = 0; // where the bytes to program begin in the source file
    int64_t sourceEnd = 0;    // length of the source file
    uint32_t fullBlocks = 0;  // N: whole blocks after the first
    uint32_t tail = 0;        // T: bytes after those
};

// Where the ETF data lie in the source file: `base` is where the ETF image begins
// (0 for an ETF image file, the main image length inside a combined image) and
// `firstNext` the next_section of its first section, which is not programmed.
struct EtfSource {
    int64_t base = 0;
    uint32_t firstNext = 0;
    int64_t end = 0;
};

// Works out the placement from the main image's OTA parameters (the first private
// word and the OTA address) and the source. 0 on success; -1 with the reason in
// `why` when the ETF image has no place or nothing to program.
int PlanEtfImage(uint32_t otaSizeWord, uint32_t otaAddress, const EtfSource& source,
                 EtfPlan& plan, std::string& why);

// The ETF phase: 0 when the ETF image is in flash, -1 when the run must abort.
int WriteEtfImage(UpgradeRun& run, FILE* source, const std::string& path, const EtfPlan& plan);
