#include "upgrade/flash_regions.h"

#include <cinttypes>
#include <cstdio>

#include "common/setting_record.h"
#include "flashhost/CFlashHost.h"

namespace {

// Flash addresses are 32-bit: nothing may reach past the last one, whatever the
// capacity says.
constexpr uint64_t kAddressSpace = 0x100000000ull;

uint64_t EndOf(const FlashRegion& region)
{
    return region.address + region.length;
}

std::string Describe(const FlashRegion& region)
{
    return region.name + " " + DescribeFlashRange(region.address, region.length);
}

bool Overlap(const FlashRegion& a, const FlashRegion& b)
{
    return a.address < EndOf(b) && b.address < EndOf(a);
}

int RefuseOutside(const FlashRegion& region, uint64_t capacity, std::string& why)
{
    const uint64_t limit = capacity != 0 && capacity < kAddressSpace ? capacity : kAddressSpace;
    if (EndOf(region) <= limit)
        return 0;
    if (limit == kAddressSpace) {
        why = "Refused: " + Describe(region) + " ends past the 32-bit flash address space";
        return -1;
    }
    char size[64];
    std::snprintf(size, sizeof size, " ends past the flash's %" PRIu64 " bytes (", limit);
    why = "Refused: " + Describe(region) + size + DescribeFlashRange(0, limit) + ")";
    return -1;
}

}  // namespace

std::string DescribeFlashRange(uint64_t address, uint64_t length)
{
    char text[48];
    const uint64_t last = length == 0 ? address : address + length - 1;
    std::snprintf(text, sizeof text, "0x%08" PRIX64 "-0x%08" PRIX64, address, last);
    return text;
}

int CheckFlashRegions(const std::vector<FlashRegion>& regions, uint64_t capacity, std::string& why)
{
    for (const FlashRegion& region : regions) {
        if (region.length != 0 && RefuseOutside(region, capacity, why) != 0)
            return -1;
    }
    for (size_t i = 0; i < regions.size(); ++i) {
        for (size_t j = i + 1; j < regions.size(); ++j) {
            if (regions[i].length == 0 || regions[j].length == 0 || !Overlap(regions[i], regions[j]))
                continue;
            why = "Refused: " + Describe(regions[i]) + " overlaps " + Describe(regions[j]);
            return -1;
        }
    }
    return 0;
}

uint64_t FlashCapacityInUse()
{
    if (g_Setting.iFlashSize != 0)
        return g_Setting.iFlashSize;
    return g_flashHost.FlashCapacity();
}
