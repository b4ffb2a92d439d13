// Big-endian field access and the 16-bit word sum used by the target's frames.
#pragma once
#include <cstddef>
#include <cstdint>

namespace ksim {

inline uint16_t LoadBe16(const uint8_t* p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t LoadBe32(const uint8_t* p)
{
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

inline uint32_t LoadLe32(const uint8_t* p)
{
    return (static_cast<uint32_t>(p[3]) << 24) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[1]) << 8) | p[0];
}

inline void StoreBe16(uint8_t* p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

inline void StoreBe32(uint8_t* p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

inline void StoreLe32(uint8_t* p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

// Sum of the little-endian 16-bit words of the buffer modulo 65536; an odd last byte
// counts alone. No complement: the frame checks complement it themselves.
inline uint16_t WordSum16(const uint8_t* p, size_t n)
{
    uint32_t sum = 0;
    size_t i = 0;
    for (; i + 1 < n; i += 2)
        sum += static_cast<uint32_t>(p[i]) | (static_cast<uint32_t>(p[i + 1]) << 8);
    if (i < n)
        sum += p[i];
    return static_cast<uint16_t>(sum);
}

}  // namespace ksim
