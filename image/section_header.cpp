// Field access for section headers and the length of a parsed image.
#include <cstring>

#include "common/byte_order.h"
#include "image/FwParser.h"
#include "image/image_format.h"

SectionHeader DecodeSectionHeader(const unsigned char* raw)
{
    SectionHeader h;
    h.magic = LoadLe32(raw + kOffMagic);
    h.version = LoadLe32(raw + kOffVersion);
    h.data_checksum = LoadLe16(raw + kOffDataChecksum);
    h.data_size = LoadLe32(raw + kOffDataSize);
    h.sram_offs = LoadLe32(raw + kOffSramOffs);
    h.attribute = LoadLe32(raw + kOffAttribute);
    h.next_section = LoadLe32(raw + kOffNextSection);
    h.ID = LoadLe32(raw + kOffId);
    std::memcpy(h.priv, raw + kOffPrivate, sizeof h.priv);
    return h;
}

// 0 when the parser holds no valid image. An end beyond 4 GiB cannot be a file
// offset; it is reported as 0xFFFFFFFF rather than wrapped to a small number.
uint32_t ImageSectionsLength(const FwParser& parser)
{
    int count = parser.iSectionCount;
    if (!parser.bValid || count < 1 || count > kMaxSections || !parser.pSection[count - 1])
        return 0;
    uint64_t lastHeader = 0;
    if (count > 1) {
        if (!parser.pSection[count - 2])
            return 0;
        lastHeader = LoadLe32(parser.pSection[count - 2].get() + kOffNextSection);
    }
    uint64_t end = lastHeader + kSectionHeaderSize +
                   LoadLe32(parser.pSection[count - 1].get() + kOffDataSize);
    return end > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(end);
}
