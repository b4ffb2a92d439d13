// Where a run will write, checked before it writes anything: every region must lie
// inside the flash and no two may overlap. A region that overlaps another would be
// partly overwritten by it (a main image reaching into its own OTA area loses its
// tail to the OTA header), and one past the flash's end would be erased block by
// block until the first command the chip refuses. Both are refused up front, with
// one line naming the regions and their addresses.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

struct FlashRegion {
    std::string name;      // "main image", "OTA area", "ETF image", "debug range", ...
    uint64_t address = 0;  // first byte
    uint64_t length = 0;   // bytes; a region of length 0 is ignored
};

// 0 when every region fits. Otherwise -1 and `why` holds one line (no line feed):
//   "Refused: main image 0x00000000-0x0012FFFF overlaps OTA area 0x00100000-0x00107FFF"
//   "Refused: ETF image 0x00200000-0x0040FFFF ends past the flash's 4194304 bytes (0x00000000-0x003FFFFF)"
// `capacity` is the flash size in bytes; 0 means unknown, and then only overlaps
// and the 32-bit address space are checked.
int CheckFlashRegions(const std::vector<FlashRegion>& regions, uint64_t capacity, std::string& why);

// The flash capacity every range check uses: --flash-size when given, else what
// the identifier read at the connection announces (0: unknown).
uint64_t FlashCapacityInUse();

// "0x%08X-0x%08X" of the region's first and last byte (the first byte alone for an
// empty region).
std::string DescribeFlashRange(uint64_t address, uint64_t length);
