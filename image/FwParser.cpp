// The image parser: walks the section chain from offset 0, checks each header and
// each section's data, and keeps a copy of every header in chain order.
#include "image/FwParser.h"

#include <cstring>
#include <sys/types.h>

#include "common/byte_order.h"
#include "common/checksum16.h"
#include "common/stdio_file.h"

namespace {

// Section data is summed as it streams past in pieces of this size; every piece
// but the last is even, so the word pairing never shifts.
constexpr uint32_t kReadPieceSize = 16384;

// Sum of size data bytes read in pieces from the current position. A short read is
// not an error by itself: the piece buffer's earlier contents stand in for the
// missing bytes. Once the file is exhausted the buffer no longer changes, so the
// remaining pieces are added arithmetically instead of being read one by one
// (a damaged header may claim up to 4 GiB of data).
uint16_t SumSectionData(std::FILE* fp, uint32_t size, unsigned char* piece)
{
    uint64_t sum = 0;
    uint32_t remaining = size;
    while (remaining > 0) {
        uint32_t len = remaining > kReadPieceSize ? kReadPieceSize : remaining;
        size_t got = std::fread(piece, 1, len, fp);
        sum += Sum16Words(piece, len);
        remaining -= len;
        if (got == 0 && remaining > 0) {
            uint64_t fullPieces = remaining / kReadPieceSize;
            sum += fullPieces * Sum16Words(piece, kReadPieceSize);
            sum += Sum16Words(piece, remaining % kReadPieceSize);
            break;
        }
    }
    return static_cast<uint16_t>(sum);
}

}  // namespace

FwParser::FwParser() : bValid(0), iSectionCount(0), HeaderBuf{} {}

FwParser::~FwParser() = default;

void FwParser::SetFilePath(std::string path)
{
    strFilePath = std::move(path);
}

std::string FwParser::GetFilePath() const
{
    return strFilePath;
}

unsigned short FwParser::CheckSum16(unsigned char* buf, int len)
{
    return Sum16Words(buf, len);
}

void FwParser::FreeParser()
{
    for (std::unique_ptr<unsigned char[]>& record : pSection)
        record.reset();
}

int FwParser::Fail(const char* text)
{
    bValid = 0;
    strErrMsg = text;
    return -1;
}

// Reads and checks the section whose header is at offset; nullptr when it is valid,
// otherwise the failure text. HeaderBuf holds the header afterwards.
const char* FwParser::CheckSection(std::FILE* fp, uint64_t offset, unsigned char* piece)
{
    // Cleared first, so that a header cut short by the end of the file is checked
    // with zeros in place of the missing bytes, never with a stale earlier header.
    std::memset(HeaderBuf, 0, sizeof HeaderBuf);
    if (fseeko(fp, static_cast<off_t>(offset), SEEK_SET) == 0)
        std::fread(HeaderBuf, 1, sizeof HeaderBuf, fp);
    if (LoadLe32(HeaderBuf + kOffMagic) != kSectionMagic)
        return "Wrong Section Header MAGIC";
    if (CheckSum16(HeaderBuf, kSectionHeaderSize) != 0xFFFF)
        return "Wrong Section Header Checksum";
    uint16_t dataSum = SumSectionData(fp, LoadLe32(HeaderBuf + kOffDataSize), piece);
    if (static_cast<uint16_t>(LoadLe16(HeaderBuf + kOffDataChecksum) + dataSum) != 0xFFFF)
        return "Wrong Section Data Checksum";
    return nullptr;
}

int FwParser::Parse()
{
    return ParseAt(0);
}

// next_section values are relative to the image's own start, so an image that
// begins at `base` inside a larger file (the ETF part of a combined image) has
// every header at base + offset.
int FwParser::ParseAt(uint64_t base)
{
    FreeParser();
    UniqueFile fp = OpenFile(strFilePath.c_str(), "r");
    if (!fp)
        return Fail("Open image file failed");
    std::unique_ptr<unsigned char[]> piece(new unsigned char[kReadPieceSize]());

    uint32_t offset = 0;
    for (int i = 0; i < kMaxSections; ++i) {
        pSection[i].reset(new unsigned char[kSectionRecordSize]());
        if (const char* failure = CheckSection(fp.get(), base + offset, piece.get()))
            return Fail(failure);
        std::memcpy(pSection[i].get(), HeaderBuf, kSectionHeaderSize);
        uint32_t next = LoadLe32(HeaderBuf + kOffNextSection);
        if (next == kLastSection) {
            iSectionCount = i + 1;
            bValid = 1;
            return 0;
        }
        offset = next;
    }
    // The table holds 100 sections. A longer chain, or one whose next_section values
    // loop back, fails here like any other damaged image.
    return Fail("Too many sections");
}

const unsigned char* FwParser::Record(int index) const
{
    if (index < 0 || index >= kMaxSections)
        return nullptr;
    return pSection[index].get();
}
