// The byte-order helpers of the whole tool. Little-endian: image headers, the OTA
// header, frame fields while their checksum is taken. Big-endian: frame fields on
// the wire.
#pragma once
#include <cstdint>

inline uint16_t LoadLe16(const unsigned char* p)
{
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

inline uint32_t LoadLe32(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

inline void StoreLe16(unsigned char* p, uint16_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

inline void StoreLe32(unsigned char* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// A value of `size` bytes (1 to 4), least significant byte first.
inline void StoreLeN(unsigned char* p, uint32_t value, unsigned int size)
{
    for (unsigned int i = 0; i < size; ++i)
        p[i] = static_cast<unsigned char>(value >> (8 * i));
}

// A value of `size` bytes (1 to 4), most significant byte first.
inline void StoreBeN(unsigned char* p, uint32_t value, unsigned int size)
{
    for (unsigned int i = 0; i < size; ++i)
        p[i] = static_cast<unsigned char>(value >> (8 * (size - 1 - i)));
}

inline void StoreBe16(unsigned char* p, uint16_t v)
{
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

inline void StoreBe32(unsigned char* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (24 - 8 * i));
}

inline uint16_t LoadBe16(const unsigned char* p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t LoadBe32(const unsigned char* p)
{
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}
