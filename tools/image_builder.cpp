#include "tools/image_builder.h"

#include <cstdio>

#include "common/byte_order.h"
#include "common/checksum16.h"
#include "image/image_format.h"

void SetOtaParameters(SectionSpec& first, uint32_t otaSize, uint32_t otaAddress)
{
    StoreLe32(first.priv.data(), otaSize << 8);
    StoreLe32(first.priv.data() + 4, otaAddress);
}

void SealSectionHeader(unsigned char* header)
{
    StoreLe16(header + kOffHeaderBalance, 0);
    uint16_t sum = Sum16Words(header, kSectionHeaderSize);
    StoreLe16(header + kOffHeaderBalance, static_cast<uint16_t>(0xFFFF - sum));
}

static void AppendSection(std::vector<uint8_t>& out, const SectionSpec& s, uint32_t version,
                          uint32_t next)
{
    unsigned char h[kSectionHeaderSize] = {};
    StoreLe32(h + kOffMagic, kSectionMagic);
    StoreLe32(h + kOffVersion, version);
    uint16_t dataSum = Sum16Words(s.data.data(), static_cast<long>(s.data.size()));
    StoreLe16(h + kOffDataChecksum, static_cast<uint16_t>(0xFFFF - dataSum));
    StoreLe32(h + kOffDataSize, static_cast<uint32_t>(s.data.size()));
    StoreLe32(h + kOffSramOffs, s.sramOffs);
    StoreLe32(h + kOffAttribute, s.attribute);
    StoreLe32(h + kOffNextSection, next);
    StoreLe32(h + kOffId, s.id);
    for (size_t i = 0; i < s.priv.size(); ++i)
        h[kOffPrivate + i] = s.priv[i];
    SealSectionHeader(h);
    out.insert(out.end(), h, h + kSectionHeaderSize);
    out.insert(out.end(), s.data.begin(), s.data.end());
}

std::vector<uint8_t> BuildImage(const ImageSpec& spec)
{
    std::vector<uint8_t> out;
    for (size_t i = 0; i < spec.sections.size(); ++i) {
        const SectionSpec& s = spec.sections[i];
        out.insert(out.end(), s.gapBefore, 0x00);
        uint32_t next = kLastSection;
        if (i + 1 < spec.sections.size()) {
            next = static_cast<uint32_t>(out.size() + kSectionHeaderSize + s.data.size() +
                                         spec.sections[i + 1].gapBefore);
        }
        AppendSection(out, s, spec.version, next);
    }
    return out;
}

bool WriteFileBytes(const std::string& path, const std::vector<uint8_t>& bytes)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    size_t written = bytes.empty() ? 0 : std::fwrite(bytes.data(), 1, bytes.size(), f);
    bool ok = written == bytes.size();
    return std::fclose(f) == 0 && ok;
}
