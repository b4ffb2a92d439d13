// Builds firmware image files: a chain of sections with balanced header checksums
// and correct data checksums. Used by kestrel_mkimage, the tests and the demo.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

struct SectionSpec {
    std::vector<uint8_t> data;
    uint32_t id = 0;
    uint32_t sramOffs = 0;
    uint32_t attribute = 0;
    std::array<uint8_t, 12> priv{};  // all 0xFF unless set (see the constructor)
    uint32_t gapBefore = 0;          // filler bytes (0x00) in front of this header

    SectionSpec() { priv.fill(0xFF); }
};

struct ImageSpec {
    uint32_t version = 1;
    std::vector<SectionSpec> sections;
};

// Stores the OTA parameters in a first section's private bytes: the size shifted
// left by 8 in the first word, the flash address in the second. A size of
// 0xFFFFFF (all ones in the 24 bits) stands for the default 32,768.
void SetOtaParameters(SectionSpec& first, uint32_t otaSize, uint32_t otaAddress);

// Balances the 16-bit word at offset 8 so that the 64 bytes sum to 0xFFFF.
void SealSectionHeader(unsigned char* header);

// The whole image file, sections laid out in order, each header's next_section
// pointing at the next one and the last holding 0xFFFFFFFF.
std::vector<uint8_t> BuildImage(const ImageSpec& spec);

// Writes bytes to a file; false when it cannot be written.
bool WriteFileBytes(const std::string& path, const std::vector<uint8_t>& bytes);
