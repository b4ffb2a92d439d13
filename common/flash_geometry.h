// The geometry of the serial flash as the whole tool sees it: the sector the
// flash commands move, the erase block, the upgrade's block, the erased value,
// and the capacity the identifier announces.
#pragma once
#include <cstddef>
#include <cstdint>

namespace flash_geometry {

constexpr uint32_t kSectorSize = 512;          // what one sector command moves
constexpr uint32_t kEraseBlockSize = 65536;    // what one erase command clears
constexpr uint32_t kUpgradeBlockSize = kEraseBlockSize;  // one write cycle, one run buffer
constexpr unsigned char kErasedByte = 0xFF;    // what erased flash reads

// The identifier's last byte is the capacity code N of a 2^N-byte part. Codes
// outside 16..28 (64 KiB to 256 MiB, the serial NOR parts such a target carries)
// are not taken for a size: 0, unknown. An identifier of no bytes is unknown too.
constexpr unsigned kMinCapacityCode = 16;
constexpr unsigned kMaxCapacityCode = 28;

inline uint64_t FlashCapacityFromId(const unsigned char* id, size_t size)
{
    if (id == nullptr || size == 0)
        return 0;
    const unsigned code = id[size - 1];
    if (code < kMinCapacityCode || code > kMaxCapacityCode)
        return 0;
    return uint64_t(1) << code;
}

}  // namespace flash_geometry
