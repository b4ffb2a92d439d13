// Firmware image layout: a chain of sections, each a 64-byte little-endian header
// followed by its data.
#pragma once
#include <cstdint>

enum {
    kSectionHeaderSize = 64,
    kMaxSections = 100,
};

constexpr uint32_t kSectionMagic = 0x48495651;  // "QVIH" in file order
constexpr uint32_t kLastSection = 0xFFFFFFFF;   // next_section of the chain's end

// Byte offsets of the header fields.
enum SectionField {
    kOffMagic = 0,
    kOffVersion = 4,
    kOffHeaderBalance = 8,  // the word image builders balance the header checksum with
    kOffDataChecksum = 10,
    kOffDataSize = 12,
    kOffSramOffs = 16,
    kOffAttribute = 28,
    kOffNextSection = 32,
    kOffId = 36,
    kOffPrivate = 40,       // 12 bytes
    kOffOtaSizeWord = 40,   // upper 24 bits: OTA area size
    kOffOtaAddress = 44,    // OTA area flash address, 0xFFFFFFFF = none
};

// Decoded view of one header (the parser's records keep the raw 64 bytes).
struct SectionHeader {
    uint32_t magic;
    uint32_t version;
    uint16_t data_checksum;
    uint32_t data_size;
    uint32_t sram_offs;
    uint32_t attribute;
    uint32_t next_section;
    uint32_t ID;
    unsigned char priv[12];
};

SectionHeader DecodeSectionHeader(const unsigned char* raw);

class FwParser;

// Where a parsed image's sections end: the offset of the last section's header
// plus 64 plus its data_size. This marks the main image's end inside a combined file.
uint32_t ImageSectionsLength(const FwParser& parser);
