// The 2,048-byte OTA header that an upgrade writes at the start of the OTA area.
#include <algorithm>
#include <cstring>

#include "common/byte_order.h"
#include "common/flash_geometry.h"
#include "upgrade/UpGrade.h"

unsigned char OtaBuf[kOtaHeaderSize];

namespace {

constexpr uint32_t kOtaHeaderMagic = 0xA55A5AA5;
constexpr uint32_t kOtaSlotTrailer = 0x96695555;
constexpr uint16_t kOtaHeaderFormat = 4;
constexpr unsigned int kMaxOtaSlots = 1024;
constexpr unsigned int kOtaSlotsOffset = 8;

// One slot byte per 33 bytes of the area. The count has always been kept to 16
// bits before the cap, so very large areas wrap around to small counts. Below 9
// bytes the subtraction wraps too (in 64 bits) and the cut and the cap give some
// count up to 1,024; no upgrade gets there, since CheckOtaLayout refuses any area
// smaller than the 2,048-byte header first.
unsigned int OtaSlotCount(unsigned int size)
{
    uint64_t slots = (static_cast<uint64_t>(size) - 9u) / 33u + 1u;
    return std::min<unsigned int>(static_cast<uint16_t>(slots), kMaxOtaSlots);
}

}  // namespace

unsigned int GenerateOtaBuf(unsigned int size)
{
    const unsigned int slots = OtaSlotCount(size);
    std::memset(OtaBuf, flash_geometry::kErasedByte, sizeof OtaBuf);
    StoreLe32(OtaBuf, kOtaHeaderMagic);
    StoreLe16(OtaBuf + 4, static_cast<uint16_t>(slots));
    StoreLe16(OtaBuf + 6, kOtaHeaderFormat);
    // The first slot is the one in use; the trailer follows the last slot (and
    // takes the first slot's place when there are none).
    OtaBuf[kOtaSlotsOffset] = 0xFE;
    StoreLe32(OtaBuf + kOtaSlotsOffset + slots, kOtaSlotTrailer);
    return slots;
}
