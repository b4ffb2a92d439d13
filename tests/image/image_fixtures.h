// Hand-laid image files for the parser tests.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "common/byte_order.h"
#include "common/checksum16.h"
#include "image/image_format.h"
#include "tests/support/process.h"
#include "tools/image_builder.h"

// A sealed header for data of the given bytes, with the given next_section.
inline std::vector<uint8_t> SectionBytes(const std::vector<uint8_t>& data, uint32_t next, uint32_t id = 0)
{
    std::vector<uint8_t> out(kSectionHeaderSize, 0xFF);
    unsigned char* h = out.data();
    StoreLe32(h + kOffMagic, kSectionMagic);
    StoreLe32(h + kOffVersion, 2);
    uint16_t sum = Sum16Words(data.data(), static_cast<long>(data.size()));
    StoreLe16(h + kOffDataChecksum, static_cast<uint16_t>(0xFFFF - sum));
    StoreLe32(h + kOffDataSize, static_cast<uint32_t>(data.size()));
    StoreLe32(h + kOffNextSection, next);
    StoreLe32(h + kOffId, id);
    SealSectionHeader(h);
    out.insert(out.end(), data.begin(), data.end());
    return out;
}

// Places bytes at offset in image, growing it with zeros as needed.
inline void PlaceAt(std::vector<uint8_t>& image, uint32_t offset, const std::vector<uint8_t>& bytes)
{
    if (image.size() < offset + bytes.size())
        image.resize(offset + bytes.size(), 0);
    std::copy(bytes.begin(), bytes.end(), image.begin() + offset);
}
