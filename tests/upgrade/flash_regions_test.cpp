// The check that runs before anything is erased: regions inside the flash and
// apart from one another, refused with a line that names them.
#include <gtest/gtest.h>

#include "upgrade/flash_regions.h"

namespace {

constexpr uint64_t k4M = 4u << 20;

TEST(CheckFlashRegions, RefusesRegionsPastTheFlashOrOverlappingAndNamesThem)
{
    // why: nullptr when the regions are accepted
    const struct { std::vector<FlashRegion> regions; uint64_t capacity; const char* why; } cases[] = {
        // Touching regions and a region ending exactly at the flash's end fit.
        {{{"main image", 0, 0x1F8000}, {"OTA area", 0x1F8000, 0x8000}, {"ETF image", 0x200000, 0x200000}},
         k4M, nullptr},
        {{{"OTA area", 0x1F8000, 0x8000}, {"main image", 0, 0x1F8000}}, k4M, nullptr},  // the later one first
        {{{"main image", 0, 0x100001}, {"OTA area", 0x100000, 0x8000}}, k4M,
         "Refused: main image 0x00000000-0x00100000 overlaps OTA area 0x00100000-0x00107FFF"},
        // Overlap found whatever the order, the later region containing the earlier.
        {{{"OTA area", 0x1F8000, 0x8000}, {"ETF image", 0x1F0000, 0x20000}}, k4M,
         "Refused: OTA area 0x001F8000-0x001FFFFF overlaps ETF image 0x001F0000-0x0020FFFF"},
        {{{"ETF image", 0x3F0000, 0x10001}}, k4M,
         "Refused: ETF image 0x003F0000-0x00400000 ends past the flash's 4194304 bytes "
         "(0x00000000-0x003FFFFF)"},
        // Unknown capacity: only overlaps and the 32-bit address space.
        {{{"debug range", 0x3F0000, 0x20000}}, 0, nullptr},
        {{{"debug range", 0xFFFF0000u, 0x10001}}, 0,
         "Refused: debug range 0xFFFF0000-0x100000000 ends past the 32-bit flash address space"},
        // Empty regions never refuse.
        {{{"main image", 0x100, 0}, {"OTA area", 0, 0x8000}, {"tail", k4M, 0}, {"ETF image", 0x200, 0}}, k4M, nullptr},
    };
    for (const auto& c : cases) {
        std::string why;
        const int result = CheckFlashRegions(c.regions, c.capacity, why);
        if (c.why) {
            EXPECT_EQ(result, -1) << c.why;
            EXPECT_EQ(why, c.why);
        } else {
            EXPECT_EQ(result, 0) << why;
        }
    }
}

}  // namespace
