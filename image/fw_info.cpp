// The firmware information report of a parsed image.
#include <cstdio>
#include <string>

#include "image/FwParser.h"
#include "image/image_format.h"

namespace {

const std::string kBanner = std::string(115, '*') + "\r\n";

const char kColumnHeader[] =
    "No.     ID\t\t sram_offs\t data_size\t next_section\t attribute\t private\r\n";

// One row: number, ID, sram_offs, data_size, next_section, attribute and the
// private bytes in file order.
std::string SectionRow(int number, const SectionHeader& h)
{
    char id[16];
    std::snprintf(id, sizeof id, "0x%08X", h.ID);
    char row[160];
    int len = std::snprintf(row, sizeof row, " %-6d %-16s 0x%08X\t 0x%08X\t 0x%08X\t 0x%08X\t 0x",
                            number, id, h.sram_offs, h.data_size, h.next_section, h.attribute);
    for (unsigned char b : h.priv)
        len += std::snprintf(row + len, sizeof row - len, "%02X", b);
    std::snprintf(row + len, sizeof row - len, "\r\n");
    return row;
}

}  // namespace

std::string FwParser::GetFwInfo() const
{
    if (!bValid)
        return "Invalid Fiwmare: " + strErrMsg + " !!";

    const unsigned char* first = Record(0);
    int version = first ? static_cast<int>(DecodeSectionHeader(first).version) : 0;
    char counts[64];
    std::snprintf(counts, sizeof counts, "bin version: %d\r\nbin count: %d\r\n", version,
                  iSectionCount);

    std::string report = kBanner + counts + kColumnHeader;
    // Rows come from the records; after FreeParser there are none to show.
    for (int i = 0; i < iSectionCount; ++i) {
        if (const unsigned char* record = Record(i))
            report += SectionRow(i + 1, DecodeSectionHeader(record));
    }
    report += kBanner;
    return report;
}
